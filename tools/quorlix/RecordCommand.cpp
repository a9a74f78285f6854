#include "RecordCommand.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace QuorlixTool {

QString RecordCommand::summary() const
{
    return QStringLiteral("write what the source hears as a trace for replay:<file>");
}

QString RecordCommand::description() const
{
    return QStringLiteral(
        "Writes every iBeacon advert the source hears to a CSV trace with the columns "
        "time,address,rssi,manufacturer_data_hex (time in seconds since the recording started), "
        "the format that --source replay:<file> and QUORLIX_LOCATION_SOURCE=replay:<file> play "
        "back. On a terminal, standard error shows the readings written, the beacons seen and "
        "the time left. Ctrl-C ends the recording with everything heard so far written.");
}

void RecordCommand::describe(QCommandLineParser& parser) const
{
    parser.addPositionalArgument(QStringLiteral("trace"),
                                 QStringLiteral("The CSV file to write (not overwritten unless "
                                                "--force)."));
    parser.addOption({QStringLiteral("seconds"),
                      QStringLiteral("Record this many seconds (default: until Ctrl-C)."),
                      QStringLiteral("N")});
    parser.addOption({QStringLiteral("force"), QStringLiteral("Overwrite an existing trace.")});
}

std::optional<int> RecordCommand::start(const QCommandLineParser& parser,
                                        const CommonOptions& common)
{
    if (parser.positionalArguments().size() != 1)
        return complain(QStringLiteral("wants one trace file; try 'quorlix record --help'"),
                        badUsage);
    QString problem;
    m_seconds = CommonOptions::seconds(parser, QStringLiteral("seconds"), &problem);
    if (!problem.isEmpty())
        return complain(problem, badUsage);
    if (common.fast && !m_seconds)
        return complain(QStringLiteral("--fast needs --seconds"), badUsage);

    m_feed = BeaconFeed::create(common.source, common.fast, &problem);
    if (!m_feed)
        return complain(problem);
    m_path = parser.positionalArguments().first();
    if (!m_writer.open(m_path, parser.isSet(QStringLiteral("force")), &problem))
        return complain(problem);

    m_feed->addListener([this](const Quorlix::Sighting& sighting) {
        // Virtual time may run on to the end of its step after end() closed the trace.
        if (m_writeFailed || m_ended)
            return;
        if (!m_writer.write(m_feed->elapsedS(), sighting)) {
            m_writeFailed = true;
            return;
        }
        ++m_readings;
        m_beacons.insert(sighting.proximityUUID.toRfc4122() + char(sighting.major >> 8) +
                         char(sighting.major) + char(sighting.minor >> 8) + char(sighting.minor));
    });
    m_feed->every(1'000'000'000, [this] { progress(); });
    if (m_seconds)
        m_feed->after(static_cast<std::int64_t>(*m_seconds * 1e9) + 1, [this] { end(); });
    m_feed->start();
    return std::nullopt;
}

void RecordCommand::progress()
{
    if (m_ended)
        return;
    QString problem;
    // A full disk shows within a second, not at the end of a long recording.
    if (m_writeFailed || !m_writer.flush(&problem)) {
        if (problem.isEmpty())
            m_writer.flush(&problem);
        m_writeFailed = true;
        end();
        return;
    }
    if (::isatty(STDERR_FILENO) == 0)
        return;
    const QString left = m_seconds
                             ? QStringLiteral("%1 s left")
                                   .arg(std::max(0.0, *m_seconds - m_feed->elapsedS()), 0, 'f', 0)
                             : QStringLiteral("Ctrl-C ends");
    std::fprintf(stderr, "\r\x1b[Krecording %s: %lld readings, beacons seen: %lld, %s",
                 qPrintable(m_path), static_cast<long long>(m_readings),
                 static_cast<long long>(m_beacons.size()), qPrintable(left));
    m_progressShown = true;
}

void RecordCommand::end()
{
    if (m_ended)
        return;
    m_ended = true;
    if (m_progressShown)
        std::fputs("\n", stderr);
    QString problem;
    if (!m_writer.close(&problem) || m_writeFailed) {
        finish(
            complain(problem.isEmpty() ? QStringLiteral("cannot write %1").arg(m_path) : problem));
        return;
    }
    std::printf("recorded %lld readings of %lld beacon%s in %.1f s to %s\n",
                static_cast<long long>(m_readings), static_cast<long long>(m_beacons.size()),
                m_beacons.size() == 1 ? "" : "s", m_feed->elapsedS(), qPrintable(m_path));
    finish(0);
}

} // namespace QuorlixTool
