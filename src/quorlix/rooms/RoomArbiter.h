#pragma once

#include "quorlix/location/Beacon.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>

namespace Quorlix {

/// Which room each beacon is in, decided from every receiver's view of it. A receiver belongs to
/// one room; a room may hold several receivers. Pure logic: views and the time come from the
/// caller (a broker's messages on the wall clock, or replayed traces on virtual time), so that
/// live and replayed decisions are the same.
///
/// The rule, as a user can check it. Each second, every receiver that has the beacon adds its
/// latest reported RSSI to the beacon's last 60 seconds there. A receiver's level is the 90th
/// percentile of those (the 6th strongest second of the minute), but never more than 4 dB above
/// the strongest of its last 10 s. A beacon moves to another room when a receiver there has been
/// at least 2 dB above every receiver of its current room for 3 s in a row, or when the mean of
/// its last 5 s has been at least 6 dB above the strongest second of theirs in those 5 s, for 2 s
/// (the beacon was carried away); a room that the second rule would leave again does not win by
/// the first. It is away from every room only once every receiver has let it go (their exit
/// period); a receiver that went offline keeps its last word and its seconds stand still, so it
/// never makes a beacon away.
///
/// Why: a fixed beacon's reading fades by 10 dB and more for seconds at a time (people, doors,
/// multipath), and fades only ever take away, so the top of a minute's readings tracks the
/// distance where a mean follows the fades; the percentile also leaves out the odd report far
/// above its neighbours (receivers report glitches). The cap lets a room that has lost the beacon
/// for 10 s fall, so a carried beacon is not held by a minute-old level; 2 dB for 3 s keeps a
/// beacon between two receivers from flapping. A fade takes the current room's mean down too, but
/// rarely every second of five: measured against its strongest second, 6 dB is a change fades do
/// not make. Tuned on recordings of 12 receivers at 45 points (bench/rooms/room-quality.py), for
/// room accuracy with well under 0.05 switches a minute at a fixed point, then for the time a
/// carried beacon takes to change rooms.
class RoomArbiter
{
public:
    struct Tuning
    {
        int windowS = 60;        ///< seconds of readings behind a receiver's level
        double percentile = 0.9; ///< of those seconds
        int capS = 10;           ///< the level is at most capDb above the strongest of these
        double capDb = 4;
        double marginDb = 2; ///< levels: how much stronger a challenger must be
        int holdS = 3;       ///< and for how long
        int fastS = 5;       ///< the short mean's seconds
        double fastMarginDb = 6;
        int fastHoldS = 2;
    };

    struct Decision
    {
        std::optional<QString> room; ///< none: away from every room
        QString receiver;            ///< the room's receiver nearest the beacon; empty when away
        double distanceM = -1;       ///< as that receiver estimates it; negative when unknown
        std::int64_t sinceNs = 0;    ///< when the room (or away) began
        friend bool operator==(const Decision&, const Decision&) = default;
    };

    RoomArbiter() = default;
    explicit RoomArbiter(Tuning tuning)
        : m_tuning(tuning)
    {}

    /// A receiver's view of a beacon at nowNs: present (within its exit period) or not, and its
    /// latest ranging (rssi 0: not heard lately). A receiver that reports is online. A view
    /// names the receiver's room each time, so a receiver moved to another room follows.
    void report(const QString& receiver, const QString& room, const QString& beacon, bool present,
                const Beacon& ranging, std::int64_t nowNs);
    /// An offline receiver's views stand as they were, neither aging nor counting as news.
    void setOnline(const QString& receiver, bool online, std::int64_t nowNs);
    /// Advances the levels to nowNs and decides every beacon; call about once a second. Returns
    /// the beacons whose room changed.
    QStringList advanceTo(std::int64_t nowNs);

    /// Nothing for a beacon never present.
    std::optional<Decision> decision(const QString& beacon) const;
    QStringList beacons() const;
    const Tuning& tuning() const { return m_tuning; }

private:
    struct View
    {
        QString room;
        bool present = false;
        int rssi = 0; ///< the latest reported; 0: not heard lately
        double distanceM = -1;
        /// The last seconds' RSSIs while present and online, oldest first; 0: not heard then.
        std::deque<int> seconds;
        std::int64_t sampledNs = 0;  ///< the time the last second was taken
        std::optional<double> level; ///< none: nothing heard within the window
        double fast = 0;             ///< the mean of the last fastS seconds heard
        double fastStrongest = 0;    ///< and the strongest of them
    };
    struct Track
    {
        std::map<QString, View> views; ///< by receiver
        Decision decision;
        bool decided = false;
        bool provisional = false; ///< taken before any receiver had a level
        QString challenger;
        std::int64_t challengerSinceNs = 0;
    };
    struct RoomLevel
    {
        double level;
        double fast;
        double fastStrongest;
        QString receiver;
    };

    void sample(View& view, std::int64_t nowNs) const;
    void measure(View& view) const;
    bool decide(Track& track, std::int64_t nowNs);

    Tuning m_tuning;
    std::map<QString, Track> m_tracks; ///< by beacon, ordered so output is stable
    std::map<QString, bool> m_online;
};

} // namespace Quorlix
