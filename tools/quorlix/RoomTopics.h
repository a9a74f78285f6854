#pragma once

#include "PresenceTopics.h"

#include "quorlix/location/Beacon.h"
#include "quorlix/rooms/RoomArbiter.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

namespace QuorlixTool {

/// The MQTT side of quorlix rooms: reading what every quorlix publish sends, and the building's
/// answer, retained, with Home Assistant discovery.
///
///   quorlix/rooms/availability                       "online" / "offline" (the last will)
///   quorlix/rooms/<beacon>/state                     {"room":"kitchen","since":...,"distance":1.2,
///                                                     "receiver":"kitchen"}
///   homeassistant/sensor/quorlix_rooms_<beacon>_room/config        the room, "away" when none
///   homeassistant/device_tracker/quorlix_rooms_<beacon>/config     home / not_home
class RoomTopics
{
public:
    /// One receiver's view of one beacon, as its state message says.
    struct ReceiverState
    {
        QString receiver;     ///< the topic's name of the publisher, unique on the broker
        QString receiverName; ///< as the publisher names itself
        QString beacon;
        QString room;
        bool present = false;
        Quorlix::Beacon ranging;
    };

    /// What quorlix rooms subscribes to.
    static QList<QByteArray> subscriptions();
    /// Nothing for a topic that is not a receiver's state (the rooms' own, say); a problem when
    /// it is one but its payload does not read.
    static std::optional<ReceiverState> readState(const QByteArray& topic,
                                                  const QByteArray& payload, QString* problem);
    /// A receiver's availability: its topic name and whether it is online; nothing for others.
    static std::optional<std::pair<QString, bool>> readAvailability(const QByteArray& topic,
                                                                    const QByteArray& payload);

    static QByteArray availability();
    static QByteArray state(const QString& beacon);
    static QByteArray statePayload(const Quorlix::RoomArbiter::Decision& decision,
                                   const QString& receiverName, qint64 sinceUnixS);
    static QList<PresenceTopics::Message> discovery(const QString& beacon);
};

} // namespace QuorlixTool
