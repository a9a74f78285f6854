#include "PresenceTopics.h"

#include "BeaconTable.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <cctype>

namespace QuorlixTool {

PresenceTopics::PresenceTopics(const QString& room)
    : m_room(room)
    , m_slug(slug(room))
{}

QString PresenceTopics::slug(const QString& text)
{
    // One to one, so that rooms and beacons that differ keep topics that differ: ASCII letters,
    // digits and '-' stay, a space becomes '_', and every other byte of the UTF-8 text becomes
    // '_' and two upper-case hex digits. A space whose '_' would be read as the start of such a
    // code (two hex digits follow it) is written "_20" itself.
    constexpr char space = '\x01'; // never in the output alphabet, so a safe placeholder
    QByteArray coded;
    for (const char c : text.toUtf8()) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-')
            coded += c;
        else if (c == ' ')
            coded += space;
        else
            coded += '_' + QByteArray(1, c).toHex().toUpper();
    }
    const auto isHexDigit = [&coded](qsizetype i) {
        return i < coded.size() &&
               ((coded[i] >= '0' && coded[i] <= '9') || (coded[i] >= 'A' && coded[i] <= 'F'));
    };
    QByteArray result;
    for (qsizetype i = 0; i < coded.size(); ++i) {
        if (coded[i] != space)
            result += coded[i];
        else
            result += isHexDigit(i + 1) && isHexDigit(i + 2) ? "_20" : "_";
    }
    return result.isEmpty() ? QStringLiteral("_") : QString::fromLatin1(result);
}

QByteArray PresenceTopics::availability() const
{
    return QStringLiteral("quorlix/%1/availability").arg(m_slug).toUtf8();
}

QByteArray PresenceTopics::state(const QString& beacon) const
{
    return QStringLiteral("quorlix/%1/%2/state").arg(m_slug, slug(beacon)).toUtf8();
}

QByteArray PresenceTopics::statePayload(const State& state) const
{
    const QJsonObject object{
        {QStringLiteral("presence"), state.home ? QStringLiteral("home") : QStringLiteral("away")},
        {QStringLiteral("proximity"), state.proximity},
        {QStringLiteral("distance"), QJsonValue::fromVariant(BeaconTable::metres(state.distanceM))},
        {QStringLiteral("rssi"), state.rssi != 0 ? QJsonValue(state.rssi) : QJsonValue()},
        {QStringLiteral("room"), m_room}};
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QList<PresenceTopics::Message> PresenceTopics::discovery(const QString& beacon,
                                                         const QString& label) const
{
    struct Entity
    {
        const char* component;
        const char* field;
        const char* name;
        QJsonObject extra;
    };
    // Every entity reads the one state message. A value the room does not know is JSON null,
    // which the templates render as "None": Home Assistant's MQTT entities take that as unknown.
    const QList<Entity> entities{
        {"binary_sensor",
         "presence",
         "presence",
         {{QStringLiteral("device_class"), QStringLiteral("presence")},
          {QStringLiteral("value_template"), QStringLiteral("{{ value_json.presence }}")},
          {QStringLiteral("payload_on"), QStringLiteral("home")},
          {QStringLiteral("payload_off"), QStringLiteral("away")}}},
        {"sensor",
         "proximity",
         "proximity",
         {{QStringLiteral("value_template"), QStringLiteral("{{ value_json.proximity }}")},
          {QStringLiteral("icon"), QStringLiteral("mdi:signal-distance-variant")}}},
        {"sensor",
         "distance",
         "distance",
         {{QStringLiteral("device_class"), QStringLiteral("distance")},
          {QStringLiteral("unit_of_measurement"), QStringLiteral("m")},
          {QStringLiteral("state_class"), QStringLiteral("measurement")},
          {QStringLiteral("value_template"), QStringLiteral("{{ value_json.distance }}")}}},
        {"sensor",
         "rssi",
         "RSSI",
         {{QStringLiteral("device_class"), QStringLiteral("signal_strength")},
          {QStringLiteral("unit_of_measurement"), QStringLiteral("dBm")},
          {QStringLiteral("state_class"), QStringLiteral("measurement")},
          {QStringLiteral("entity_category"), QStringLiteral("diagnostic")},
          {QStringLiteral("value_template"), QStringLiteral("{{ value_json.rssi }}")}}},
    };
    const QString device = QStringLiteral("quorlix_%1_%2").arg(m_slug, slug(beacon));
    const QJsonObject deviceInfo{
        {QStringLiteral("identifiers"), QJsonArray{device}},
        {QStringLiteral("name"), QStringLiteral("%1 in %2").arg(label, m_room)},
        {QStringLiteral("manufacturer"), QStringLiteral("Quorlix")},
        {QStringLiteral("model"), QStringLiteral("iBeacon seen by quorlix publish")},
        {QStringLiteral("suggested_area"), m_room}};

    QList<Message> messages;
    for (const Entity& entity : entities) {
        const QString objectId = device + u'_' + QLatin1StringView(entity.field);
        QJsonObject config = entity.extra;
        config.insert(QStringLiteral("name"), QLatin1StringView(entity.name));
        config.insert(QStringLiteral("unique_id"), objectId);
        config.insert(QStringLiteral("object_id"), objectId);
        config.insert(QStringLiteral("state_topic"), QString::fromUtf8(state(beacon)));
        config.insert(QStringLiteral("availability_topic"), QString::fromUtf8(availability()));
        config.insert(QStringLiteral("payload_available"), QStringLiteral("online"));
        config.insert(QStringLiteral("payload_not_available"), QStringLiteral("offline"));
        config.insert(QStringLiteral("device"), deviceInfo);
        messages.append({QStringLiteral("homeassistant/%1/%2/config")
                             .arg(QLatin1StringView(entity.component), objectId)
                             .toUtf8(),
                         QJsonDocument(config).toJson(QJsonDocument::Compact)});
    }
    return messages;
}

} // namespace QuorlixTool
