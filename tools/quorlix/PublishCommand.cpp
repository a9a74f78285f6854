#include "PublishCommand.h"

#include "BeaconTable.h"
#include "WatchCommand.h"

#include "quorlix/model/BeaconFamily.h"

#include <QCoreApplication>
#include <QSysInfo>

#include <cmath>
#include <cstdio>

namespace QuorlixTool {
namespace {

constexpr char online[] = "online";
constexpr char offline[] = "offline";

} // namespace

QString PublishCommand::summary() const
{
    return QStringLiteral("room presence over MQTT, with Home Assistant discovery");
}

QString PublishCommand::description() const
{
    return QStringLiteral(
        "Publishes this host's room presence to an MQTT broker: for every watched device (--watch, "
        "looked up in the directory) or, without --watch, for every beacon of the device family "
        "heard, a retained JSON state on quorlix/<room>/<beacon>/state with its presence (home "
        "or away, from entry and exit), proximity word, distance and RSSI; Home Assistant "
        "discovery messages (homeassistant/<component>/<id>/config, retained) so that its "
        "entities appear by themselves; and quorlix/<room>/availability, \"online\" while "
        "running and \"offline\" afterwards (the broker's last will when the process dies). "
        "After the broker restarts, everything is published again. A beacon's first state is "
        "its first entry or exit (a watched device not heard for the exit period is away), so "
        "a restart never sends away for a beacon still in the room. Then a state is sent at once "
        "when presence or the proximity word changes, otherwise at most once per --interval.\n"
        "A broker that cannot be reached is retried, every 8 s at most, and said so at growing "
        "intervals; a refused login or client identifier, or a failed TLS connection, ends publish "
        "with status 1. Every option of the connection can also come from the environment, as "
        "/etc/default/quorlix-publish sets it for the service.\n"
        "Several rooms publishing to one broker cover a building.");
}

void PublishCommand::describe(QCommandLineParser& parser) const
{
    MqttOptions::addTo(parser);
    parser.addOption({QStringLiteral("watch"),
                      QStringLiteral("A device ID to publish; repeat for more (default: every "
                                     "family beacon heard)."),
                      QStringLiteral("device")});
    parser.addOption({QStringLiteral("room"),
                      QStringLiteral("The room this host covers (default: the host name)."),
                      QStringLiteral("name")});
    parser.addOption({QStringLiteral("interval"),
                      QStringLiteral("Seconds between state messages of a beacon whose presence "
                                     "and proximity word stay the same (default: 5)."),
                      QStringLiteral("seconds")});
    parser.addOption({QStringLiteral("seconds"),
                      QStringLiteral("Stop after this many seconds (default: until stopped)."),
                      QStringLiteral("N")});
    WatchCommand::addExitPeriodOption(parser);
}

std::optional<int> PublishCommand::start(const QCommandLineParser& parser,
                                         const CommonOptions& common)
{
    if (common.fast)
        return complain(QStringLiteral("--fast is not for publish: a broker and the rooms that "
                                       "read it live on the wall clock"),
                        badUsage);
    QString problem;
    const std::optional<double> seconds =
        CommonOptions::seconds(parser, QStringLiteral("seconds"), &problem);
    const std::optional<double> interval =
        CommonOptions::seconds(parser, QStringLiteral("interval"), &problem);
    const std::int64_t exitPeriod = WatchCommand::exitPeriodNs(parser, &problem);
    std::optional<MqttOptions> mqtt;
    if (problem.isEmpty())
        mqtt = MqttOptions::read(parser, &problem);
    if (!problem.isEmpty())
        return complain(problem, badUsage);
    if (interval)
        m_intervalNs = static_cast<std::int64_t>(*interval * 1e9);
    const QString room = parser.isSet(QStringLiteral("room")) ? parser.value(QStringLiteral("room"))
                                                              : QSysInfo::machineHostName();
    if (room.trimmed().isEmpty())
        return complain(QStringLiteral("--room wants a name"), badUsage);
    m_topics = std::make_unique<PresenceTopics>(room);

    // Every device is looked up before anything is published, so a typo stops the start.
    std::vector<std::pair<QString, std::shared_ptr<Quorlix::BeaconRegion>>> watched;
    for (const QString& device : parser.values(QStringLiteral("watch"))) {
        std::shared_ptr<Quorlix::BeaconRegion> region =
            WatchCommand::resolve(common.directory, device, &problem);
        if (!region)
            return complain(problem);
        watched.emplace_back(device, std::move(region));
    }

    m_feed = BeaconFeed::create(common.source, common.fast, &problem);
    if (!m_feed)
        return complain(problem);
    Quorlix::RegionEngine& engine = m_feed->engine();
    engine.setExitPeriodNs(exitPeriod);
    for (auto& [device, region] : watched)
        addEntity(device, QStringLiteral("Device %1").arg(device), std::move(region));
    if (watched.empty()) {
        const QUuid family = Quorlix::BeaconFamily::proximityUUID();
        m_feed->addListener([this, family](const Quorlix::Sighting& sighting) {
            if (sighting.proximityUUID != family)
                return;
            const QString id =
                Quorlix::BeaconFamily::majorMinorText(sighting.major, sighting.minor);
            if (m_entities.count(id) != 0)
                return;
            if (static_cast<int>(m_entities.size()) >= maxBeacons) {
                if (!m_warnedFull)
                    log(QStringLiteral("more than %1 beacons heard; the others are left out")
                            .arg(maxBeacons));
                m_warnedFull = true;
                return;
            }
            addEntity(id, QStringLiteral("Beacon %1").arg(id),
                      std::make_shared<Quorlix::BeaconRegion>(
                          Quorlix::BeaconRegion{family, sighting.major, sighting.minor, id}));
        });
    }
    engine.entered = [this](const std::shared_ptr<Quorlix::BeaconRegion>& region) {
        const auto found = m_entities.find(region->identifier);
        if (found == m_entities.end())
            return;
        PresenceTopics::State state = found->second.state;
        state.home = true;
        update(region->identifier, state, true, true);
    };
    engine.exited = [this](const std::shared_ptr<Quorlix::BeaconRegion>& region) {
        update(region->identifier, PresenceTopics::State{}, true, true);
    };
    // The engine exits only a region it entered; a watched device not heard for a whole exit
    // period from the start is away by the same rule.
    QStringList devices;
    for (const auto& [device, region] : watched)
        devices << device;
    m_feed->after(exitPeriod, [this, devices] {
        for (const QString& device : devices) {
            if (!m_entities.at(device).decided)
                update(device, PresenceTopics::State{}, true, true);
        }
    });
    engine.ranged = [this](const QList<Quorlix::Beacon>& beacons,
                           const std::shared_ptr<Quorlix::BeaconRegion>& region) {
        const auto found = m_entities.find(region->identifier);
        if (beacons.isEmpty() || found == m_entities.end())
            return;
        PresenceTopics::State state = found->second.state;
        state.proximity = BeaconTable::word(beacons.first().proximity);
        state.distanceM = beacons.first().accuracy;
        state.rssi = beacons.first().rssi;
        update(region->identifier, state, state.proximity != found->second.published.proximity);
    };

    if (mqtt->clientId.isEmpty())
        mqtt->clientId = QStringLiteral("quorlix-") + m_topics->room();
    const QString broker = mqtt->address();
    m_mqtt = std::make_unique<MqttClient>(*mqtt, m_topics->availability(), offline);
    QObject::connect(m_mqtt.get(), &MqttClient::connected, [this, broker] {
        log(QStringLiteral("connected to %1; publishing room %2").arg(broker, m_topics->room()));
        republishAll();
    });
    QObject::connect(m_mqtt.get(), &MqttClient::disconnected, [this](const QString& reason) {
        log(QStringLiteral("lost the broker (%1); reconnecting").arg(reason));
    });
    QObject::connect(
        m_mqtt.get(), &MqttClient::failing, [this, broker](const QString& reason, double forS) {
            log(forS < 1 ? QStringLiteral("cannot connect to %1 (%2); retrying").arg(broker, reason)
                         : QStringLiteral("still cannot connect to %1 after %2 s "
                                          "(%3); retrying")
                               .arg(broker)
                               .arg(std::lround(forS))
                               .arg(reason));
        });
    QObject::connect(m_mqtt.get(), &MqttClient::gaveUp, [this, broker](const QString& reason) {
        m_ended = true;
        finish(complain(QStringLiteral("cannot connect to %1 (%2); retrying cannot help, so "
                                       "publish stops")
                            .arg(broker, reason)));
    });
    if (!m_mqtt->start(&problem))
        return complain(problem);
    if (seconds)
        m_feed->after(static_cast<std::int64_t>(*seconds * 1e9), [this] { end(); });
    m_feed->start();
    return std::nullopt;
}

void PublishCommand::addEntity(const QString& id, const QString& label,
                               std::shared_ptr<Quorlix::BeaconRegion> region)
{
    Entity& entity = m_entities[id];
    entity.label = label;
    entity.region = std::move(region);
    m_feed->engine().startMonitoring(entity.region);
    m_feed->engine().startRanging(entity.region);
    if (m_mqtt && m_mqtt->isConnected()) {
        announce(id, entity);
        publishState(id, entity);
    }
}

void PublishCommand::update(const QString& id, const PresenceTopics::State& state, bool urgent,
                            bool decision)
{
    const auto found = m_entities.find(id);
    if (found == m_entities.end())
        return;
    Entity& entity = found->second;
    entity.state = state;
    entity.decided = entity.decided || decision;
    if (!entity.decided)
        return;
    const bool due = m_feed->elapsedNs() - entity.publishedNs >= m_intervalNs;
    if (!entity.everPublished || ((urgent || due) && entity.state != entity.published))
        publishState(id, entity);
}

void PublishCommand::publishState(const QString& id, Entity& entity)
{
    if (!entity.decided)
        return;
    // Unsent states stay in the entity; the next connection publishes them.
    if (!m_mqtt->publish(m_topics->state(id), m_topics->statePayload(entity.state)))
        return;
    entity.published = entity.state;
    entity.publishedNs = m_feed->elapsedNs();
    entity.everPublished = true;
}

void PublishCommand::announce(const QString& id, const Entity& entity)
{
    for (const PresenceTopics::Message& message : m_topics->discovery(id, entity.label))
        m_mqtt->publish(message.topic, message.payload);
}

void PublishCommand::republishAll()
{
    m_mqtt->publish(m_topics->availability(), online);
    for (auto& [id, entity] : m_entities) {
        announce(id, entity);
        publishState(id, entity);
    }
}

void PublishCommand::log(const QString& text) const
{
    std::printf("quorlix publish: %s\n", qPrintable(text));
    std::fflush(stdout);
}

void PublishCommand::end()
{
    if (m_ended)
        return;
    m_ended = true;
    m_mqtt->stop(m_topics->availability(), offline, 2000);
    log(QStringLiteral("stopped; room %1 is offline").arg(m_topics->room()));
    finish(0);
}

} // namespace QuorlixTool
