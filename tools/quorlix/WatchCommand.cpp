#include "WatchCommand.h"

#include "BeaconTable.h"
#include "quorlix/service/DirectoryProbe.h"

#include "quorlix/location/LocationSettings.h"
#include "quorlix/model/BeaconFamily.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <chrono>
#include <cmath>
#include <cstdio>

namespace QuorlixTool {

QString WatchCommand::summary() const
{
    return QStringLiteral("entries, exits and ranging of one device, looked up in the directory");
}

QString WatchCommand::description() const
{
    return QStringLiteral(
        "Looks the device up in the directory service (GET /api/device/<device ID>, its "
        "\"MajorMinor\"), then watches its beacon as the library's event manager does: one line "
        "on entry, on exit and on every ranging report (about once a second), with the time "
        "since the start. Exits with status 1 and a message when the directory service does not "
        "answer or does not know the device.");
}

void WatchCommand::addExitPeriodOption(QCommandLineParser& parser)
{
    parser.addOption({QStringLiteral("exit-period"),
                      QStringLiteral("Seconds of silence after which the device counts as gone "
                                     "(default: the calibration file's exitPeriod, else 30)."),
                      QStringLiteral("seconds")});
}

void WatchCommand::describe(QCommandLineParser& parser) const
{
    parser.addPositionalArgument(QStringLiteral("device"),
                                 QStringLiteral("The device ID the directory knows, e.g. 1047."));
    parser.addOption(
        {QStringLiteral("json"), QStringLiteral("One JSON object per event and line.")});
    parser.addOption({QStringLiteral("seconds"),
                      QStringLiteral("Stop after this many seconds (default: until Ctrl-C)."),
                      QStringLiteral("N")});
    addExitPeriodOption(parser);
}

std::shared_ptr<Quorlix::BeaconRegion>
WatchCommand::resolve(const QString& directory, const QString& deviceID, QString* problem)
{
    const Quorlix::DirectoryProbe::Answer answer =
        Quorlix::DirectoryProbe(directory).lookUp(deviceID);
    if (!answer.problem.isEmpty()) {
        *problem = answer.problem;
        return nullptr;
    }
    const QStringList numbers = answer.majorMinor.split(u'-');
    return std::make_shared<Quorlix::BeaconRegion>(Quorlix::BeaconRegion{
        Quorlix::BeaconFamily::proximityUUID(), static_cast<quint16>(numbers[0].toUInt()),
        static_cast<quint16>(numbers[1].toUInt()), deviceID});
}

std::int64_t WatchCommand::exitPeriodNs(const QCommandLineParser& parser, QString* problem)
{
    const std::optional<double> seconds =
        CommonOptions::seconds(parser, QStringLiteral("exit-period"), problem);
    if (seconds)
        return static_cast<std::int64_t>(*seconds * 1e9);
    return std::chrono::nanoseconds(Quorlix::LocationSettings::defaults().exitPeriod).count();
}

std::optional<int> WatchCommand::start(const QCommandLineParser& parser,
                                       const CommonOptions& common)
{
    if (parser.positionalArguments().size() != 1)
        return complain(QStringLiteral("wants one device ID; try 'quorlix watch --help'"),
                        badUsage);
    QString problem;
    const std::optional<double> seconds =
        CommonOptions::seconds(parser, QStringLiteral("seconds"), &problem);
    const std::int64_t exitPeriod = exitPeriodNs(parser, &problem);
    if (!problem.isEmpty())
        return complain(problem, badUsage);
    if (common.fast && !seconds)
        return complain(QStringLiteral("--fast needs --seconds"), badUsage);
    m_json = parser.isSet(QStringLiteral("json"));
    m_device = parser.positionalArguments().first();

    m_region = resolve(common.directory, m_device, &problem);
    if (!m_region)
        return complain(problem);
    m_feed = BeaconFeed::create(common.source, common.fast, &problem);
    if (!m_feed)
        return complain(problem);

    Quorlix::RegionEngine& engine = m_feed->engine();
    engine.setExitPeriodNs(exitPeriod);
    engine.entered = [this](const auto&) {
        print(QStringLiteral("entry"), QStringLiteral("device %1 is near").arg(m_device), {});
    };
    engine.exited = [this](const auto&) {
        print(QStringLiteral("exit"), QStringLiteral("device %1 is gone").arg(m_device), {});
    };
    engine.ranged = [this](const QList<Quorlix::Beacon>& beacons, const auto&) {
        if (beacons.isEmpty())
            return;
        const Quorlix::Beacon& beacon = beacons.first();
        // The engine keeps reporting a beacon for a few seconds after its last advert, with no
        // signal: say so rather than print 0 dBm.
        if (beacon.rssi == 0) {
            print(QStringLiteral("range"),
                  QStringLiteral("device %1  not heard lately").arg(m_device),
                  {{QStringLiteral("rssi"), QJsonValue()},
                   {QStringLiteral("proximity"), BeaconTable::word(beacon.proximity)},
                   {QStringLiteral("distance"), QJsonValue()}});
            return;
        }
        const QVariant metres = BeaconTable::metres(beacon.accuracy);
        print(QStringLiteral("range"),
              QStringLiteral("device %1  rssi %2 dBm  %3  %4")
                  .arg(m_device)
                  .arg(beacon.rssi)
                  .arg(BeaconTable::word(beacon.proximity),
                       metres.isNull()
                           ? QStringLiteral("distance unknown")
                           : QString::number(metres.toDouble(), 'f', 2) + QStringLiteral(" m")),
              {{QStringLiteral("rssi"), beacon.rssi},
               {QStringLiteral("proximity"), BeaconTable::word(beacon.proximity)},
               {QStringLiteral("distance"), QJsonValue::fromVariant(metres)}});
    };
    engine.startMonitoring(m_region);
    engine.startRanging(m_region);
    if (seconds)
        m_feed->after(static_cast<std::int64_t>(*seconds * 1e9), [this] { finish(0); });
    m_feed->start();
    const QString majorMinor =
        Quorlix::BeaconFamily::majorMinorText(*m_region->major, *m_region->minor);
    print(
        QStringLiteral("watch"), QStringLiteral("device %1 is beacon %2").arg(m_device, majorMinor),
        {{QStringLiteral("major"), *m_region->major}, {QStringLiteral("minor"), *m_region->minor}});
    return std::nullopt;
}

void WatchCommand::print(const QString& event, const QString& text, QJsonObject fields)
{
    const double time = m_feed ? m_feed->elapsedS() : 0.0;
    if (m_json) {
        fields.insert(QStringLiteral("time"), std::round(time * 10) / 10);
        fields.insert(QStringLiteral("event"), event);
        fields.insert(QStringLiteral("device"), m_device);
        std::printf("%s\n", QJsonDocument(fields).toJson(QJsonDocument::Compact).constData());
    } else {
        std::printf("%7.1f s  %-5s  %s\n", time, qPrintable(event), qPrintable(text));
    }
    std::fflush(stdout);
}

} // namespace QuorlixTool
