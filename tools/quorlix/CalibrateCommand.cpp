#include "CalibrateCommand.h"

#include "DirectoryProbe.h"

#include "quorlix/model/BeaconFamily.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace QuorlixTool {

QString CalibrateCommand::summary() const
{
    return QStringLiteral("measure a beacon's RSSI at 1 m and store it in the calibration file");
}

QString CalibrateCommand::description() const
{
    return QStringLiteral(
        "Hold the beacon 1 m from the receiver for the whole measurement. Prints the measured "
        "power (the median RSSI, rounded), the spread of the readings (the middle half) and "
        "their count, then writes or updates the beacon's entry in the calibration file, "
        "keeping every other entry, and prints the file's path. The file is --file, else "
        "QUORLIX_CALIBRATION, else $XDG_CONFIG_HOME/quorlix/calibration.json "
        "(~/.config/quorlix/calibration.json without XDG_CONFIG_HOME), which every quorlix "
        "command and the library read when QUORLIX_CALIBRATION is not set; a first calibration "
        "there starts from /etc/quorlix/calibration.json if that exists (the file services "
        "read). A file that exists but does not read as calibration is reported and left as it "
        "is.");
}

void CalibrateCommand::describe(QCommandLineParser& parser) const
{
    parser.addPositionalArgument(QStringLiteral("major-minor"),
                                 QStringLiteral("The beacon's numbers, e.g. 12-7."));
    parser.addOption({QStringLiteral("seconds"),
                      QStringLiteral("Measure this many seconds (default: 30)."),
                      QStringLiteral("N")});
    parser.addOption({QStringLiteral("uuid"),
                      QStringLiteral("The beacon's proximity UUID (default: the device family's)."),
                      QStringLiteral("uuid")});
    parser.addOption({QStringLiteral("file"), QStringLiteral("The calibration file to update."),
                      QStringLiteral("path")});
}

QString CalibrateCommand::calibrationPath(const QCommandLineParser& parser)
{
    if (parser.isSet(QStringLiteral("file")))
        return parser.value(QStringLiteral("file"));
    const QString named = qEnvironmentVariable(Quorlix::LocationSettings::fileVariable);
    if (!named.isEmpty())
        return named;
    return Quorlix::LocationSettings::userFile();
}

CalibrateCommand::Measurement CalibrateCommand::measure(std::vector<int> rssi)
{
    Measurement result;
    result.readings = static_cast<int>(rssi.size());
    if (rssi.empty())
        return result;
    std::sort(rssi.begin(), rssi.end());
    const std::size_t n = rssi.size();
    result.median = n % 2 == 1 ? rssi[n / 2] : (rssi[n / 2 - 1] + rssi[n / 2]) / 2.0;
    result.measuredPower = static_cast<int>(std::lround(result.median));
    result.lowQuartile = rssi[n / 4];
    result.highQuartile = rssi[(3 * n) / 4 < n ? (3 * n) / 4 : n - 1];
    return result;
}

std::optional<int> CalibrateCommand::start(const QCommandLineParser& parser,
                                           const CommonOptions& common)
{
    const QStringList positional = parser.positionalArguments();
    if (positional.size() != 1 || !QuorlixTools::DirectoryProbe::isMajorMinor(positional.first()))
        return complain(QStringLiteral("wants the beacon's major-minor, e.g. 12-7; try 'quorlix "
                                       "calibrate --help'"),
                        badUsage);
    QString problem;
    m_seconds = CommonOptions::seconds(parser, QStringLiteral("seconds"), &problem).value_or(30);
    if (!problem.isEmpty())
        return complain(problem, badUsage);
    const QStringList numbers = positional.first().split(u'-');
    m_beacon.proximityUUID = parser.isSet(QStringLiteral("uuid"))
                                 ? QUuid::fromString(parser.value(QStringLiteral("uuid")))
                                 : Quorlix::BeaconFamily::proximityUUID();
    if (m_beacon.proximityUUID.isNull())
        return complain(QStringLiteral("--uuid wants a UUID, e.g. %1, not '%2'")
                            .arg(QString::fromUtf16(Quorlix::BeaconFamily::proximityUUIDText),
                                 parser.value(QStringLiteral("uuid"))),
                        badUsage);
    m_beacon.major = static_cast<quint16>(numbers[0].toUInt());
    m_beacon.minor = static_cast<quint16>(numbers[1].toUInt());

    // The file is read before measuring: a file that cannot be updated should not cost the user
    // half a minute of holding a beacon.
    m_path = calibrationPath(parser);
    // A user's first calibration starts from the system's file, which readers read until now.
    m_readFrom = QFileInfo::exists(m_path) || parser.isSet(QStringLiteral("file"))
                     ? m_path
                     : Quorlix::LocationSettings::file();
    if (!m_readFrom.isEmpty() && QFileInfo::exists(m_readFrom)) {
        std::optional<Quorlix::LocationSettings> existing =
            Quorlix::LocationSettings::load(m_readFrom, &problem);
        if (!existing)
            return complain(problem + QStringLiteral("; the file is left as it is"));
        m_settings = std::move(*existing);
    }

    m_feed = BeaconFeed::create(common.source, common.fast, &problem);
    if (!m_feed)
        return complain(problem);
    m_feed->addListener([this](const Quorlix::Sighting& sighting) {
        if (Quorlix::BeaconId{sighting.proximityUUID, sighting.major, sighting.minor} == m_beacon)
            m_rssi.push_back(sighting.rssi);
    });
    m_feed->every(1'000'000'000, [this] { progress(); });
    m_feed->after(static_cast<std::int64_t>(m_seconds * 1e9) + 1, [this] { end(); });
    m_feed->start();
    return std::nullopt;
}

void CalibrateCommand::progress()
{
    if (::isatty(STDERR_FILENO) == 0)
        return;
    std::fprintf(stderr, "\r\x1b[Kcalibrating %u-%u at 1 m: %zu readings, %.0f s left",
                 m_beacon.major, m_beacon.minor, m_rssi.size(),
                 std::max(0.0, m_seconds - m_feed->elapsedS()));
    m_progressShown = true;
}

void CalibrateCommand::interrupt()
{
    if (m_progressShown)
        std::fputs("\n", stderr);
    finish(complain(QStringLiteral("interrupted; the calibration file is unchanged")));
}

void CalibrateCommand::end()
{
    if (m_progressShown)
        std::fputs("\n", stderr);
    const Measurement result = measure(m_rssi);
    const QString beacon = QStringLiteral("%1 %2-%3")
                               .arg(m_beacon.proximityUUID.toString(QUuid::WithoutBraces).toUpper())
                               .arg(m_beacon.major)
                               .arg(m_beacon.minor);
    if (result.readings < minimumReadings) {
        finish(complain(QStringLiteral("heard beacon %1 only %2 times in %3 s (at least %4 "
                                       "needed); the calibration file is unchanged")
                            .arg(beacon)
                            .arg(result.readings)
                            .arg(m_seconds)
                            .arg(minimumReadings)));
        return;
    }
    std::printf("beacon %s: measured power %d dBm (median of %d readings %.1f dBm, middle half "
                "%d to %d dBm)\n",
                qPrintable(beacon), result.measuredPower, result.readings, result.median,
                result.lowQuartile, result.highQuartile);

    // Read again: the file may have changed while the beacon was held up.
    QString problem;
    const QString readFrom = QFileInfo::exists(m_path) ? m_path : m_readFrom;
    if (!readFrom.isEmpty() && QFileInfo::exists(readFrom)) {
        std::optional<Quorlix::LocationSettings> existing =
            Quorlix::LocationSettings::load(readFrom, &problem);
        if (!existing) {
            finish(complain(problem + QStringLiteral("; the file is left as it is")));
            return;
        }
        m_settings = std::move(*existing);
    }
    m_settings.measuredPower.insert(m_beacon, result.measuredPower);
    if (!QDir().mkpath(QFileInfo(m_path).absolutePath()) || !m_settings.save(m_path, &problem)) {
        finish(complain(problem.isEmpty()
                            ? QStringLiteral("cannot create the folder of %1").arg(m_path)
                            : problem));
        return;
    }
    std::printf("wrote measured power %d dBm for %s to %s\n", result.measuredPower,
                qPrintable(beacon), qPrintable(m_path));
    finish(0);
}

} // namespace QuorlixTool
