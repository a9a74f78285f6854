#pragma once

#include "quorlix/location/Beacon.h"

#include <QString>
#include <QStringList>

#include <array>
#include <cstdint>
#include <map>
#include <optional>

namespace Quorlix {

/// Which room each beacon is in, decided from every receiver's view of it. A receiver belongs to
/// one room; a room may hold several receivers. Pure logic: views and the time come from the
/// caller (a broker's messages on the wall clock, or replayed traces on virtual time), so that
/// live and replayed decisions are the same.
///
/// The rule, as a user can check it: a beacon moves to another room when a receiver there has
/// been at least 1 dB stronger than every receiver of its current room for 4 s in a row, each
/// receiver's strength being its recent peak (it rises within a second or two and falls back over
/// about a minute), or at least 6 dB stronger on the last 3 s alone (the beacon was carried away).
/// It is away from every room only once every receiver has let it go (their exit period); a
/// receiver that went offline keeps its last word, so it never makes a beacon away.
///
/// Why: a fixed beacon's reading fades by 10 dB and more for seconds at a time (people, doors,
/// multipath), while a stronger reading is rarely false, so the recent peak tracks the nearest
/// receiver better than a mean does, and a slow fall keeps a beacon between two receivers from
/// flapping on fades; the 4 s make "stronger" steady, not a moment's noise. 6 dB over 3 s is a
/// change no fade makes upwards that quickly, so a beacon carried away moves within seconds. A
/// single report far above its neighbours (receivers report glitches, even positive dBm) is left
/// out: the median of a receiver's last three reports is what counts. Tuned on recordings of 12
/// receivers at 45 points (bench/rooms/room-quality.py): fall 60 s and 1 dB gave the best room
/// accuracy with fewer than 0.05 switches a minute at a fixed point.
class RoomArbiter
{
public:
    struct Tuning
    {
        double marginDb = 1;
        std::int64_t holdNs = 4'000'000'000;
        double fastMarginDb = 6;
        std::int64_t riseNs = 1'000'000'000;  ///< time constant of the peak level going up
        std::int64_t fallNs = 60'000'000'000; ///< and going down
        std::int64_t fastNs = 3'000'000'000;  ///< time constant of the short view
        /// The level of a receiver that tracks a beacon but has not heard it lately.
        double silentDbm = -105;
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
        int rssi = 0; ///< the level reported, after the spike filter; 0: not heard lately
        std::array<int, 3> recent{}; ///< the last RSSIs reported, newest first
        int recentCount = 0;
        std::int64_t recentNs = 0; ///< when recent last took a value
        double distanceM = -1;
        double peak = 0;
        double fast = 0;
        std::int64_t levelNs = 0; ///< time the levels stand at
        bool fresh = true;        ///< levels not yet started
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
        double peak;
        double fast;
        QString receiver;
    };

    void advance(View& view, std::int64_t nowNs) const;
    static void take(View& view, int rssi, std::int64_t nowNs);
    bool decide(Track& track, std::int64_t nowNs);

    Tuning m_tuning;
    std::map<QString, Track> m_tracks; ///< by beacon, ordered so output is stable
    std::map<QString, bool> m_online;
};

} // namespace Quorlix
