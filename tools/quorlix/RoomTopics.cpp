#include "RoomTopics.h"

#include "BeaconTable.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace QuorlixTool {
namespace {

constexpr char own[] = "rooms";
// A receiver's state is a few dozen bytes; anything far larger is not one.
constexpr qsizetype maxPayload = 4096;

QList<QByteArray> parts(const QByteArray& topic)
{
    return topic.split('/');
}

} // namespace

QList<QByteArray> RoomTopics::subscriptions()
{
    return {QByteArrayLiteral("quorlix/+/+/state"), QByteArrayLiteral("quorlix/+/availability")};
}

std::optional<RoomTopics::ReceiverState>
RoomTopics::readState(const QByteArray& topic, const QByteArray& payload, QString* problem)
{
    const QList<QByteArray> part = parts(topic);
    if (part.size() != 4 || part[0] != "quorlix" || part[3] != "state" || part[1] == own)
        return std::nullopt;
    ReceiverState state;
    state.receiver = QString::fromUtf8(part[1]);
    state.beacon = QString::fromUtf8(part[2]);
    const auto refuse = [&](const QString& why) {
        *problem = QStringLiteral("%1: %2").arg(QString::fromUtf8(topic), why);
        return std::nullopt;
    };
    if (payload.size() > maxPayload)
        return refuse(QStringLiteral("a state of %1 bytes is too large").arg(payload.size()));
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(payload, &error);
    if (!document.isObject())
        return refuse(QStringLiteral("not a JSON object"));
    const QJsonObject object = document.object();
    const QString presence = object.value(QStringLiteral("presence")).toString();
    if (presence != u"home" && presence != u"away")
        return refuse(QStringLiteral("presence is neither home nor away"));
    state.present = presence == u"home";
    state.room = object.value(QStringLiteral("room")).toString();
    if (state.room.isEmpty())
        return refuse(QStringLiteral("no room"));
    state.receiverName = object.value(QStringLiteral("receiver")).toString(state.receiver);
    const QJsonValue rssi = object.value(QStringLiteral("rssi"));
    const QJsonValue distance = object.value(QStringLiteral("distance"));
    if (!rssi.isNull() && (!rssi.isDouble() || rssi.toDouble() < -127 || rssi.toDouble() > 20))
        return refuse(QStringLiteral("rssi is not a dBm value (-127 to 20) or null"));
    if (!distance.isNull() && (!distance.isDouble() || !(distance.toDouble() >= 0)))
        return refuse(QStringLiteral("distance is not metres or null"));
    state.ranging.rssi = static_cast<int>(std::lround(rssi.toDouble(0)));
    state.ranging.accuracy = distance.isNull() ? -1 : distance.toDouble();
    return state;
}

std::optional<std::pair<QString, bool>> RoomTopics::readAvailability(const QByteArray& topic,
                                                                     const QByteArray& payload)
{
    const QList<QByteArray> part = parts(topic);
    if (part.size() != 3 || part[0] != "quorlix" || part[2] != "availability" || part[1] == own)
        return std::nullopt;
    if (payload != "online" && payload != "offline")
        return std::nullopt;
    return std::pair{QString::fromUtf8(part[1]), payload == "online"};
}

QByteArray RoomTopics::availability()
{
    return QByteArrayLiteral("quorlix/rooms/availability");
}

QByteArray RoomTopics::state(const QString& beacon)
{
    return QStringLiteral("quorlix/rooms/%1/state").arg(PresenceTopics::slug(beacon)).toUtf8();
}

QByteArray RoomTopics::statePayload(const Quorlix::RoomArbiter::Decision& decision,
                                    const QString& receiverName, qint64 sinceUnixS)
{
    const QJsonObject object{
        {QStringLiteral("room"), decision.room ? QJsonValue(*decision.room) : QJsonValue()},
        {QStringLiteral("since"), sinceUnixS},
        {QStringLiteral("distance"),
         QJsonValue::fromVariant(BeaconTable::metres(decision.room ? decision.distanceM : -1))},
        {QStringLiteral("receiver"), decision.room ? QJsonValue(receiverName) : QJsonValue()}};
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QList<PresenceTopics::Message> RoomTopics::discovery(const QString& beacon)
{
    const QString id = QStringLiteral("quorlix_rooms_%1").arg(PresenceTopics::slug(beacon));
    const QString stateTopic = QString::fromUtf8(state(beacon));
    const QJsonObject device{
        {QStringLiteral("identifiers"), QJsonArray{id}},
        {QStringLiteral("name"), QStringLiteral("Beacon %1").arg(beacon)},
        {QStringLiteral("manufacturer"), QStringLiteral("Quorlix")},
        {QStringLiteral("model"), QStringLiteral("iBeacon placed by quorlix rooms")}};
    const auto common = [&](QJsonObject config, const QString& objectId) {
        config.insert(QStringLiteral("unique_id"), objectId);
        config.insert(QStringLiteral("object_id"), objectId);
        config.insert(QStringLiteral("state_topic"), stateTopic);
        config.insert(QStringLiteral("json_attributes_topic"), stateTopic);
        config.insert(QStringLiteral("availability_topic"), QString::fromUtf8(availability()));
        config.insert(QStringLiteral("device"), device);
        return QJsonDocument(config).toJson(QJsonDocument::Compact);
    };
    const QString roomId = id + QStringLiteral("_room");
    return {
        {QStringLiteral("homeassistant/sensor/%1/config").arg(roomId).toUtf8(),
         common({{QStringLiteral("name"), QStringLiteral("room")},
                 {QStringLiteral("icon"), QStringLiteral("mdi:home-map-marker")},
                 {QStringLiteral("value_template"),
                  QStringLiteral("{{ value_json.room if value_json.room else 'away' }}")}},
                roomId)},
        {QStringLiteral("homeassistant/device_tracker/%1/config").arg(id).toUtf8(),
         common({{QStringLiteral("name"), QJsonValue()},
                 {QStringLiteral("source_type"), QStringLiteral("bluetooth_le")},
                 {QStringLiteral("payload_home"), QStringLiteral("home")},
                 {QStringLiteral("payload_not_home"), QStringLiteral("not_home")},
                 {QStringLiteral("value_template"),
                  QStringLiteral("{{ 'home' if value_json.room else 'not_home' }}")}},
                id)},
    };
}

} // namespace QuorlixTool
