#include "ScanCommand.h"

#include "quorlix/model/BeaconFamily.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace QuorlixTool {

QString ScanCommand::summary() const
{
    return QStringLiteral("live table of the beacons heard (the device family, or every iBeacon)");
}

QString ScanCommand::description() const
{
    return QStringLiteral(
               "Shows the beacons heard: UUID, major, minor, the transmitter's Bluetooth "
               "address, smoothed RSSI, proximity word, estimated distance, readings per second "
               "and how long ago each was last heard, refreshed every second. On a terminal the "
               "table is redrawn in place; with --json, or when the "
               "output "
               "is not a terminal, every refresh prints one JSON object per beacon and line.\n"
               "Only the device family (proximity UUID %1) is shown unless --all is given. "
               "The calibration file (QUORLIX_CALIBRATION, else the user's, else the system's; "
               "see calibrate) counts as in watch: measured powers, receiver offsets, the "
               "path-loss exponent and the band limits.")
        .arg(QString::fromUtf16(Quorlix::BeaconFamily::proximityUUIDText));
}

void ScanCommand::describe(QCommandLineParser& parser) const
{
    parser.addOption({QStringLiteral("all"), QStringLiteral("Show every iBeacon, not only the "
                                                            "device family.")});
    parser.addOption({QStringLiteral("json"), QStringLiteral("One JSON object per beacon and "
                                                             "refresh, even on a terminal.")});
    parser.addOption({QStringLiteral("seconds"),
                      QStringLiteral("Stop after this many seconds (default: until Ctrl-C)."),
                      QStringLiteral("N")});
}

std::optional<int> ScanCommand::start(const QCommandLineParser& parser, const CommonOptions& common)
{
    QString problem;
    const std::optional<double> seconds =
        CommonOptions::seconds(parser, QStringLiteral("seconds"), &problem);
    if (!problem.isEmpty())
        return complain(problem, badUsage);
    if (common.fast && !seconds)
        return complain(QStringLiteral("--fast needs --seconds"), badUsage);
    m_all = parser.isSet(QStringLiteral("all"));
    m_json = parser.isSet(QStringLiteral("json")) || ::isatty(STDOUT_FILENO) == 0;

    m_feed = BeaconFeed::create(common.source, common.fast, &problem);
    if (!m_feed)
        return complain(problem);
    m_table = std::make_unique<BeaconTable>(Quorlix::LocationSettings::defaults());
    const QUuid family = Quorlix::BeaconFamily::proximityUUID();
    m_feed->addListener([this, family](const Quorlix::Sighting& sighting) {
        if (m_all || sighting.proximityUUID == family)
            m_table->add(sighting);
    });
    m_feed->every(1'000'000'000, [this] { refresh(); });
    if (seconds)
        // Just after the refresh due at the same time, so that the last table is shown.
        m_feed->after(static_cast<std::int64_t>(*seconds * 1e9) + 1, [this] { finish(0); });
    m_feed->start();
    return std::nullopt;
}

void ScanCommand::refresh()
{
    const std::vector<BeaconTable::Row> rows = m_table->rows(m_feed->elapsedNs());
    if (m_json)
        printJson(rows);
    else
        printTable(rows);
    std::fflush(stdout);
}

void ScanCommand::printJson(const std::vector<BeaconTable::Row>& rows)
{
    const double time = std::round(m_feed->elapsedS() * 10) / 10;
    for (const BeaconTable::Row& row : rows) {
        const QJsonObject line{
            {QStringLiteral("time"), time},
            {QStringLiteral("uuid"), row.id.proximityUUID.toString(QUuid::WithoutBraces).toUpper()},
            {QStringLiteral("major"), row.id.major},
            {QStringLiteral("minor"), row.id.minor},
            {QStringLiteral("address"), QString::fromLatin1(row.address)},
            {QStringLiteral("rssi"), row.rssi},
            {QStringLiteral("proximity"), BeaconTable::word(row.proximity)},
            {QStringLiteral("distance"),
             QJsonValue::fromVariant(BeaconTable::metres(row.distanceM))},
            {QStringLiteral("readingsPerSecond"), std::round(row.readingsPerSecond * 10) / 10},
            {QStringLiteral("lastHeard"), std::round(row.lastHeardS * 10) / 10}};
        std::printf("%s\n", QJsonDocument(line).toJson(QJsonDocument::Compact).constData());
    }
}

void ScanCommand::printTable(const std::vector<BeaconTable::Row>& rows)
{
    // Back to the first line of the previous table, and clear from there down.
    if (m_linesShown > 0)
        std::printf("\x1b[%dF\x1b[J", m_linesShown);
    std::printf("quorlix scan  %.0f s  %zu beacon%s  (%s)\n", m_feed->elapsedS(), rows.size(),
                rows.size() == 1 ? "" : "s", m_all ? "every iBeacon" : "device family");
    std::printf("%-36s %5s %5s %-17s %5s  %-9s %8s %6s %10s\n", "UUID", "MAJOR", "MINOR", "ADDRESS",
                "RSSI", "PROXIMITY", "DISTANCE", "READ/S", "LAST HEARD");
    for (const BeaconTable::Row& row : rows) {
        const QVariant metres = BeaconTable::metres(row.distanceM);
        const QString distance =
            metres.isNull() ? QStringLiteral("?")
                            : QString::number(metres.toDouble(), 'f', 2) + QStringLiteral(" m");
        std::printf("%-36s %5u %5u %-17s %5d  %-9s %8s %6.1f %8.1f s\n",
                    qPrintable(row.id.proximityUUID.toString(QUuid::WithoutBraces).toUpper()),
                    row.id.major, row.id.minor, row.address.left(17).constData(), row.rssi,
                    qPrintable(BeaconTable::word(row.proximity)), qPrintable(distance),
                    row.readingsPerSecond, row.lastHeardS);
    }
    m_linesShown = static_cast<int>(rows.size()) + 2;
}

} // namespace QuorlixTool
