#include "quorlix/rooms/RoomArbiter.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Quorlix {
namespace {

constexpr std::int64_t second = 1'000'000'000;

double approach(double level, double target, std::int64_t dtNs, std::int64_t tauNs)
{
    return level + (target - level) *
                       (1 - std::exp(-static_cast<double>(dtNs) / static_cast<double>(tauNs)));
}

} // namespace

void RoomArbiter::report(const QString& receiver, const QString& room, const QString& beacon,
                         bool present, const Beacon& ranging, std::int64_t nowNs)
{
    setOnline(receiver, true, nowNs);
    View& view = m_tracks[beacon].views[receiver];
    // The level held until now is the one reported before; a new view starts at its first one.
    if (!view.fresh)
        advance(view, nowNs);
    view.room = room;
    view.present = present;
    if (present && ranging.rssi != 0) {
        take(view, ranging.rssi, nowNs);
    } else {
        view.recentCount = 0;
        view.rssi = 0;
    }
    view.distanceM = present && ranging.rssi != 0 ? ranging.accuracy : -1;
    if (!present)
        view.fresh = true;
    else if (view.fresh)
        advance(view, nowNs);
}

void RoomArbiter::setOnline(const QString& receiver, bool online, std::int64_t nowNs)
{
    auto [it, added] = m_online.try_emplace(receiver, online);
    if (!added && it->second == online)
        return;
    // Levels stand still while offline: bring them to the moment the receiver went or came back.
    for (auto& [beacon, track] : m_tracks) {
        const auto view = track.views.find(receiver);
        if (view == track.views.end())
            continue;
        if (!online)
            advance(view->second, nowNs);
        view->second.levelNs = nowNs;
    }
    it->second = online;
}

void RoomArbiter::take(View& view, int rssi, std::int64_t nowNs)
{
    // Receivers now and then report a reading 30 dB or more above its neighbours (even positive
    // dBm): the median of the last three leaves a single one out, for a second's delay.
    view.recent = {rssi, view.recent[0], view.recent[1]};
    view.recentCount = std::min(view.recentCount + 1, 3);
    view.recentNs = nowNs;
    const auto [a, b, c] = view.recent;
    view.rssi = view.recentCount == 1   ? a
                : view.recentCount == 2 ? std::min(a, b)
                                        : std::max(std::min(a, b), std::min(std::max(a, b), c));
}

void RoomArbiter::advance(View& view, std::int64_t nowNs) const
{
    if (view.fresh) {
        // Present but not heard yet (an entry before its first ranging): no level to compare.
        if (view.rssi == 0)
            return;
        view.peak = view.fast = view.rssi != 0 ? view.rssi : m_tuning.silentDbm;
        view.levelNs = nowNs;
        view.fresh = false;
        return;
    }
    const std::int64_t dtNs = nowNs - view.levelNs;
    if (dtNs <= 0)
        return;
    const double level = view.rssi != 0 ? view.rssi : m_tuning.silentDbm;
    view.peak =
        approach(view.peak, level, dtNs, level > view.peak ? m_tuning.riseNs : m_tuning.fallNs);
    // Not hearing a beacon for a few of its intervals is as often a gap as a departure: the short
    // view fades like the peak then, so a gap alone never wins the quick rule.
    view.fast =
        approach(view.fast, level, dtNs, view.rssi != 0 ? m_tuning.fastNs : m_tuning.fallNs);
    view.levelNs = nowNs;
}

QStringList RoomArbiter::advanceTo(std::int64_t nowNs)
{
    QStringList changed;
    for (auto& [beacon, track] : m_tracks) {
        for (auto& [receiver, view] : track.views) {
            if (!view.present || !m_online[receiver])
                continue;
            advance(view, nowNs);
            // A receiver reports a steady level only now and then: a level unchanged for a second
            // counts as read again, so a step to a new steady level passes the median at once.
            if (view.recentCount > 0 && nowNs - view.recentNs >= second)
                take(view, view.recent[0], nowNs);
        }
        if (decide(track, nowNs))
            changed.append(beacon);
    }
    return changed;
}

bool RoomArbiter::decide(Track& track, std::int64_t nowNs)
{
    std::map<QString, RoomLevel> rooms;
    const View* anyPresent = nullptr;
    for (const auto& [receiver, view] : track.views) {
        if (view.present && !anyPresent)
            anyPresent = &view;
        if (!view.present || view.fresh)
            continue;
        auto [it, added] = rooms.try_emplace(view.room, RoomLevel{view.peak, view.fast, receiver});
        if (added)
            continue;
        if (view.peak > it->second.peak) {
            it->second.peak = view.peak;
            it->second.receiver = receiver;
        }
        it->second.fast = std::max(it->second.fast, view.fast);
    }

    if (!anyPresent && !track.decided)
        return false;
    Decision next = track.decision;
    if (rooms.empty() && anyPresent) {
        // Present, but no receiver has a level: hold the room while one of its receivers still
        // has the beacon, else take the room of one that has, for now.
        bool held = false;
        for (const auto& [receiver, view] : track.views)
            held = held || (view.present && track.decision.room == view.room);
        if (!held) {
            next = Decision{anyPresent->room, {}, -1, nowNs};
            track.provisional = true;
        }
        for (const auto& [receiver, view] : track.views) {
            if (view.present && view.room == next.room)
                next.receiver = receiver;
        }
    } else if (rooms.empty()) {
        next = Decision{std::nullopt,
                        {},
                        -1,
                        track.decided && !track.decision.room ? track.decision.sinceNs : nowNs};
        track.challenger.clear();
    } else {
        auto strongest = rooms.begin();
        auto quickest = rooms.begin();
        for (auto it = rooms.begin(); it != rooms.end(); ++it) {
            if (it->second.peak > strongest->second.peak)
                strongest = it;
            if (it->second.fast > quickest->second.fast)
                quickest = it;
        }
        const auto current = track.decision.room ? rooms.find(*track.decision.room) : rooms.end();
        QString winner;
        if (current == rooms.end() || track.provisional) {
            // New, back from away, or its room no longer hears it: nothing to hold on to.
            winner = strongest->first;
            track.challenger.clear();
        } else {
            QString challenger;
            if (strongest != current &&
                strongest->second.peak >= current->second.peak + m_tuning.marginDb)
                challenger = strongest->first;
            else if (quickest != current &&
                     quickest->second.fast >= current->second.fast + m_tuning.fastMarginDb)
                challenger = quickest->first;
            if (challenger != track.challenger) {
                track.challenger = challenger;
                track.challengerSinceNs = nowNs;
            }
            winner = !challenger.isEmpty() && nowNs - track.challengerSinceNs >= m_tuning.holdNs
                         ? challenger
                         : current->first;
        }
        if (!track.decision.room || winner != *track.decision.room) {
            next.room = winner;
            next.sinceNs = nowNs;
            track.challenger.clear();
        }
        track.provisional = false;
        const QString& receiver = rooms[winner].receiver;
        next.receiver = receiver;
        next.distanceM = track.views[receiver].distanceM;
    }
    const bool changed = !track.decided || next.room != track.decision.room;
    if (!next.room)
        track.provisional = false;
    track.decision = next;
    track.decided = true;
    return changed;
}

std::optional<RoomArbiter::Decision> RoomArbiter::decision(const QString& beacon) const
{
    const auto found = m_tracks.find(beacon);
    if (found == m_tracks.end() || !found->second.decided)
        return std::nullopt;
    return found->second.decision;
}

QStringList RoomArbiter::beacons() const
{
    QStringList names;
    for (const auto& [beacon, track] : m_tracks) {
        if (track.decided)
            names.append(beacon);
    }
    return names;
}

} // namespace Quorlix
