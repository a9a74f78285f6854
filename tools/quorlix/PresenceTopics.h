#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

namespace QuorlixTool {

/// The MQTT topics and payloads of one room: an availability topic, one retained JSON state per
/// beacon, and Home Assistant discovery messages so that every beacon's entities appear by
/// themselves.
///
///   quorlix/<room>/availability                   "online" / "offline" (the last will)
///   quorlix/<room>/<beacon>/state                 {"presence":"home","proximity":"Near",...}
///   homeassistant/<component>/quorlix_<room>_<beacon>_<field>/config
class PresenceTopics
{
public:
    struct Message
    {
        QByteArray topic;
        QByteArray payload;
    };

    /// What one beacon looks like from this room.
    struct State
    {
        bool home = false;
        QString proximity = QStringLiteral("Unknown");
        double distanceM = -1; ///< negative: unknown
        int rssi = 0;          ///< 0: not heard lately
        friend bool operator==(const State&, const State&) = default;
    };

    /// room: any text; topics and identifiers carry it as slug() makes it.
    explicit PresenceTopics(const QString& room);

    QString room() const { return m_room; }
    QByteArray availability() const;
    QByteArray state(const QString& beacon) const;
    QByteArray statePayload(const State& state) const;
    /// The retained configuration messages of a beacon's entities: presence (a binary sensor),
    /// proximity word, distance and RSSI (sensors). label names the beacon for people.
    QList<Message> discovery(const QString& beacon, const QString& label) const;

    /// Text written with what MQTT topics and Home Assistant object IDs accept everywhere
    /// (letters, digits, '_' and '-'), readable and one to one: "Living Room" is "Living_Room",
    /// "Living Room ü" is "Living_Room__C3_BC", "a_b" is "a_5Fb"; one to one for non-empty text
    /// (empty text, which no room or beacon is, is "_" as " " is).
    static QString slug(const QString& text);

private:
    QString m_room;
    QString m_slug;
};

} // namespace QuorlixTool
