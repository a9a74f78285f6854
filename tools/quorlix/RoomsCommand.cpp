#include "RoomsCommand.h"

#include "MqttOptions.h"
#include "ReplayBuilding.h"
#include "RoomTopics.h"
#include "WatchCommand.h"

#include "quorlix/location/LocationSettings.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <chrono>
#include <cmath>
#include <cstdio>

namespace QuorlixTool {
namespace {

constexpr std::int64_t second = 1'000'000'000;
// A room is sent at once when it changes; a new distance waits this long.
constexpr std::int64_t distanceEveryNs = 5 * second;
constexpr int maxWarnedTopics = 1000;
constexpr char online[] = "online";
constexpr char offline[] = "offline";

} // namespace

QString RoomsCommand::summary() const
{
    return QStringLiteral("which room each beacon is in, across every receiver of a building");
}

QString RoomsCommand::description() const
{
    return QStringLiteral(
        "Decides which room each beacon is in from what every quorlix publish of a building "
        "reports (one or more receivers per room, all on one MQTT broker), and publishes the "
        "answer, retained, on quorlix/rooms/<beacon>/state: {\"room\": name or null when away, "
        "\"since\": unix seconds, \"distance\": metres, \"receiver\": the room's receiver "
        "nearest the beacon}, with Home Assistant discovery for a room sensor and a "
        "device_tracker (home / not_home) per beacon.\n"
        "The rule: a beacon moves to another room when a receiver there has been at least 1 dB "
        "stronger than every receiver of its current room for 4 s in a row (each receiver's "
        "strength is its recent peak, which falls back over about a minute), or 6 dB stronger "
        "over the last 3 s alone. It is away only once every receiver has let it go "
        "after its exit period; a receiver that goes offline keeps its last word, so it never "
        "makes a beacon away.\n"
        "With --replay DIR --fast, DIR/<room>/<receiver>.csv are recordings of one building "
        "(quorlix record on each host; time 0 the same instant in every file): every receiver "
        "runs the engine and sends what publish would send, and the decision is printed for "
        "every beacon and second of beacon time. The calibration's receiver offsets apply by "
        "receiver name (the file name without .csv).");
}

void RoomsCommand::describe(QCommandLineParser& parser) const
{
    MqttOptions::addTo(parser);
    parser.addOption({QStringLiteral("replay"),
                      QStringLiteral("Decide offline from the recordings DIR/<room>/<receiver>.csv "
                                     "(with --fast)."),
                      QStringLiteral("DIR")});
    parser.addOption({QStringLiteral("json"),
                      QStringLiteral("One JSON object per line: {\"time\", \"beacon\", \"room\", "
                                     "\"receiver\"}.")});
    parser.addOption({QStringLiteral("calibration"),
                      QStringLiteral("Calibration file for --replay (default: "
                                     "QUORLIX_CALIBRATION)."),
                      QStringLiteral("file")});
    parser.addOption({QStringLiteral("interval"),
                      QStringLiteral("With --replay, seconds between the receivers' unchanged "
                                     "states, as publish --interval (default: 5)."),
                      QStringLiteral("seconds")});
    parser.addOption({QStringLiteral("seconds"),
                      QStringLiteral("Stop after this many seconds (default: until stopped, or "
                                     "the end of the recordings)."),
                      QStringLiteral("N")});
    WatchCommand::addExitPeriodOption(parser);
}

std::optional<int> RoomsCommand::start(const QCommandLineParser& parser,
                                       const CommonOptions& common)
{
    QString problem;
    const std::optional<double> seconds =
        CommonOptions::seconds(parser, QStringLiteral("seconds"), &problem);
    if (!problem.isEmpty())
        return complain(problem, badUsage);
    m_json = parser.isSet(QStringLiteral("json"));
    const bool replaying = parser.isSet(QStringLiteral("replay"));
    if (replaying == parser.isSet(QStringLiteral("broker")))
        return complain(QStringLiteral("give either --broker host[:port] or --replay DIR"),
                        badUsage);
    if (common.source != u"bluez")
        return complain(QStringLiteral("rooms takes no --source: its receivers are the publish "
                                       "commands on the broker, or the recordings of --replay"),
                        badUsage);
    if (replaying && !common.fast)
        return complain(QStringLiteral("--replay runs on virtual time: add --fast"), badUsage);
    if (replaying)
        return replay(parser.value(QStringLiteral("replay")), parser, seconds);
    return live(parser, seconds);
}

int RoomsCommand::replay(const QString& folder, const QCommandLineParser& parser,
                         std::optional<double> seconds)
{
    QString problem;
    const std::optional<double> interval =
        CommonOptions::seconds(parser, QStringLiteral("interval"), &problem);
    const std::int64_t exitPeriodNs = WatchCommand::exitPeriodNs(parser, &problem);
    if (!problem.isEmpty())
        return complain(problem, badUsage);
    Quorlix::LocationSettings settings = Quorlix::LocationSettings::defaults();
    if (parser.isSet(QStringLiteral("calibration"))) {
        std::optional<Quorlix::LocationSettings> file =
            Quorlix::LocationSettings::load(parser.value(QStringLiteral("calibration")), &problem);
        if (!file)
            return complain(problem);
        settings = *file;
    }
    if (parser.isSet(QStringLiteral("exit-period")))
        settings.exitPeriod = std::chrono::milliseconds(exitPeriodNs / 1'000'000);

    std::unique_ptr<ReplayBuilding> building = ReplayBuilding::load(
        folder, settings, interval ? static_cast<std::int64_t>(*interval * 1e9) : 5 * second,
        &problem);
    if (!building)
        return complain(problem);
    Quorlix::VirtualClock& clock = building->clock();
    // The broker is a direct call: each message reaches the arbiter when it is sent.
    building->setDeliver([this, &clock](const QByteArray& topic, const QByteArray& payload) {
        take(topic, payload, clock.nowNs());
    });
    building->start();
    const std::int64_t endNs =
        seconds ? static_cast<std::int64_t>(*seconds * 1e9) : building->endNs() + second;
    for (std::int64_t nowNs = second; nowNs <= endNs; nowNs += second) {
        clock.advanceTo(nowNs);
        m_arbiter.advanceTo(nowNs);
        for (const QString& beacon : m_arbiter.beacons())
            print(static_cast<double>(nowNs / second), beacon, *m_arbiter.decision(beacon));
    }
    std::fflush(stdout);
    return 0;
}

std::optional<int> RoomsCommand::live(const QCommandLineParser& parser,
                                      std::optional<double> seconds)
{
    QString problem;
    std::optional<MqttOptions> mqtt = MqttOptions::read(parser, &problem);
    if (!mqtt)
        return complain(problem, badUsage);
    if (mqtt->clientId.isEmpty())
        mqtt->clientId = QStringLiteral("quorlix-rooms");
    const QString broker = mqtt->address();

    m_clock.start();
    m_startMs = QDateTime::currentMSecsSinceEpoch();
    m_mqtt = std::make_unique<MqttClient>(*mqtt, RoomTopics::availability(), offline);
    QObject::connect(m_mqtt.get(), &MqttClient::connected, [this, broker] {
        log(QStringLiteral("connected to %1; deciding rooms").arg(broker));
        for (const QByteArray& pattern : RoomTopics::subscriptions())
            m_mqtt->subscribe(pattern);
        // A restarted broker may have lost everything: say it all again.
        m_mqtt->publish(RoomTopics::availability(), online);
        for (auto& [beacon, published] : m_published) {
            published.sent = false;
            publish(beacon, published);
        }
    });
    QObject::connect(m_mqtt.get(), &MqttClient::disconnected, [this](const QString& reason) {
        log(QStringLiteral("lost the broker (%1); reconnecting").arg(reason));
    });
    QObject::connect(m_mqtt.get(), &MqttClient::message,
                     [this](const QByteArray& topic, const QByteArray& payload) {
                         take(topic, payload, m_clock.nsecsElapsed());
                     });
    QObject::connect(m_mqtt.get(), &MqttClient::failing,
                     [this, broker](const QString& reason, double forS) {
                         log(QStringLiteral("cannot connect to %1 for %2 s (%3); retrying")
                                 .arg(broker)
                                 .arg(std::lround(forS))
                                 .arg(reason));
                     });
    QObject::connect(m_mqtt.get(), &MqttClient::gaveUp, [this, broker](const QString& reason) {
        finish(complain(QStringLiteral("cannot connect to %1 (%2); retrying cannot help, so "
                                       "rooms stops")
                            .arg(broker, reason)));
    });
    if (!m_mqtt->start(&problem))
        return complain(problem);
    QObject::connect(&m_ticker, &QTimer::timeout, [this] { tick(); });
    m_ticker.start(1000);
    if (seconds)
        QTimer::singleShot(std::chrono::milliseconds(static_cast<qint64>(*seconds * 1000)),
                           [this] { end(); });
    return std::nullopt;
}

void RoomsCommand::take(const QByteArray& topic, const QByteArray& payload, std::int64_t nowNs)
{
    if (const auto availability = RoomTopics::readAvailability(topic, payload)) {
        m_arbiter.setOnline(availability->first, availability->second, nowNs);
        if (m_mqtt)
            log(QStringLiteral("receiver %1 is %2")
                    .arg(receiverName(availability->first),
                         availability->second ? QStringLiteral("online")
                                              : QStringLiteral("offline; its last word stands")));
        return;
    }
    QString problem;
    const std::optional<RoomTopics::ReceiverState> state =
        RoomTopics::readState(topic, payload, &problem);
    if (!state) {
        if (!problem.isEmpty() && m_warned.size() < maxWarnedTopics && !m_warned.contains(topic)) {
            m_warned.insert(topic);
            std::fprintf(stderr, "quorlix rooms: ignored %s\n", qPrintable(problem));
        }
        return;
    }
    m_names.insert(state->receiver, state->receiverName);
    m_arbiter.report(state->receiver, state->room, state->beacon, state->present, state->ranging,
                     nowNs);
}

void RoomsCommand::tick()
{
    const std::int64_t nowNs = m_clock.nsecsElapsed();
    const QStringList changed = m_arbiter.advanceTo(nowNs);
    for (const QString& beacon : m_arbiter.beacons()) {
        Published& published = m_published[beacon];
        const Quorlix::RoomArbiter::Decision decision = *m_arbiter.decision(beacon);
        if (changed.contains(beacon))
            print(static_cast<double>(nowNs) / 1e9, beacon, decision);
        const bool news = !published.sent || decision.room != published.decision.room ||
                          decision.receiver != published.decision.receiver;
        const bool due = decision.distanceM != published.decision.distanceM &&
                         nowNs - published.atNs >= distanceEveryNs;
        if (news || due) {
            published.decision = decision;
            published.atNs = nowNs;
            publish(beacon, published);
        }
    }
}

void RoomsCommand::publish(const QString& beacon, Published& published)
{
    if (!m_mqtt->isConnected())
        return;
    if (!published.sent) {
        for (const PresenceTopics::Message& message : RoomTopics::discovery(beacon))
            m_mqtt->publish(message.topic, message.payload);
    }
    const qint64 sinceS = (m_startMs + published.decision.sinceNs / 1'000'000) / 1000;
    published.sent =
        m_mqtt->publish(RoomTopics::state(beacon),
                        RoomTopics::statePayload(
                            published.decision, receiverName(published.decision.receiver), sinceS));
}

void RoomsCommand::print(double timeS, const QString& beacon,
                         const Quorlix::RoomArbiter::Decision& decision)
{
    const QString receiver = receiverName(decision.receiver);
    if (m_json) {
        const QJsonObject line{
            {QStringLiteral("time"), timeS},
            {QStringLiteral("beacon"), beacon},
            {QStringLiteral("room"), decision.room ? QJsonValue(*decision.room) : QJsonValue()},
            {QStringLiteral("receiver"), decision.room ? QJsonValue(receiver) : QJsonValue()}};
        std::printf("%s\n", QJsonDocument(line).toJson(QJsonDocument::Compact).constData());
    } else if (decision.room) {
        std::printf("%9.1f s  %-12s %s (%s)\n", timeS, qPrintable(beacon),
                    qPrintable(*decision.room), qPrintable(receiver));
    } else {
        std::printf("%9.1f s  %-12s away\n", timeS, qPrintable(beacon));
    }
    if (m_mqtt)
        std::fflush(stdout);
}

QString RoomsCommand::receiverName(const QString& receiver) const
{
    return m_names.value(receiver, receiver);
}

void RoomsCommand::log(const QString& text) const
{
    std::printf("quorlix rooms: %s\n", qPrintable(text));
    std::fflush(stdout);
}

void RoomsCommand::end()
{
    if (m_ended)
        return;
    m_ended = true;
    m_ticker.stop();
    m_mqtt->stop(RoomTopics::availability(), offline, 2000);
    log(QStringLiteral("stopped"));
    finish(0);
}

} // namespace QuorlixTool
