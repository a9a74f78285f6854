#include "quorlix/rooms/RoomArbiter.h"

#include <algorithm>
#include <vector>

namespace Quorlix {
namespace {

constexpr std::int64_t second = 1'000'000'000;
/// The short mean of a receiver that has the beacon but heard nothing of it lately.
constexpr double silentDbm = -105;

} // namespace

void RoomArbiter::report(const QString& receiver, const QString& room, const QString& beacon,
                         bool present, const Beacon& ranging, std::int64_t nowNs)
{
    setOnline(receiver, true, nowNs);
    View& view = m_tracks[beacon].views[receiver];
    // The seconds up to now were spent at the RSSI reported before.
    if (view.present)
        sample(view, nowNs);
    view.room = room;
    view.present = present;
    view.rssi = present ? ranging.rssi : 0;
    view.distanceM = view.rssi != 0 ? ranging.accuracy : -1;
    if (!present) {
        view.seconds.clear();
        view.level.reset();
    } else if (view.seconds.empty() && view.rssi != 0) {
        // A receiver's first word counts at once: a beacon new to the building has a room now.
        view.seconds.push_back(view.rssi);
        view.sampledNs = nowNs;
        measure(view);
    }
}

void RoomArbiter::setOnline(const QString& receiver, bool online, std::int64_t nowNs)
{
    auto [it, added] = m_online.try_emplace(receiver, online);
    if (!added && it->second == online)
        return;
    // An offline receiver's seconds stand still: they are taken up to the moment it went, and
    // start again from the moment it came back.
    for (auto& [beacon, track] : m_tracks) {
        const auto view = track.views.find(receiver);
        if (view == track.views.end() || !view->second.present)
            continue;
        if (!online)
            sample(view->second, nowNs);
        view->second.sampledNs = nowNs;
    }
    it->second = online;
}

void RoomArbiter::sample(View& view, std::int64_t nowNs) const
{
    if (view.seconds.empty() && view.rssi == 0) {
        view.sampledNs = nowNs; // nothing heard yet: no second to remember
        return;
    }
    const auto window = static_cast<std::size_t>(m_tuning.windowS);
    std::size_t taken = 0;
    while (view.sampledNs + second <= nowNs && taken < window) {
        view.seconds.push_back(view.rssi);
        view.sampledNs += second;
        ++taken;
    }
    if (taken == window)
        view.sampledNs = nowNs;
    while (view.seconds.size() > window)
        view.seconds.pop_front();
    measure(view);
}

void RoomArbiter::measure(View& view) const
{
    std::vector<int> heard;
    heard.reserve(view.seconds.size());
    int recentMax = 0;
    int fastMax = 0;
    double fastSum = 0;
    int fastCount = 0;
    const auto size = static_cast<int>(view.seconds.size());
    for (int i = 0; i < size; ++i) {
        const int rssi = view.seconds[static_cast<std::size_t>(i)];
        if (rssi == 0)
            continue;
        heard.push_back(rssi);
        if (i >= size - m_tuning.capS)
            recentMax = recentMax == 0 ? rssi : std::max(recentMax, rssi);
        if (i >= size - m_tuning.fastS) {
            fastSum += rssi;
            ++fastCount;
            fastMax = fastMax == 0 ? rssi : std::max(fastMax, rssi);
        }
    }
    view.fast = fastCount > 0 ? fastSum / fastCount : silentDbm;
    view.fastStrongest = fastCount > 0 ? fastMax : silentDbm;
    if (recentMax == 0) {
        view.level.reset();
        return;
    }
    const auto rank =
        std::min(heard.size() - 1,
                 static_cast<std::size_t>(m_tuning.percentile * static_cast<double>(heard.size())));
    std::nth_element(heard.begin(), heard.begin() + static_cast<std::ptrdiff_t>(rank), heard.end());
    view.level = std::min<double>(heard[rank], recentMax + m_tuning.capDb);
}

QStringList RoomArbiter::advanceTo(std::int64_t nowNs)
{
    QStringList changed;
    for (auto& [beacon, track] : m_tracks) {
        for (auto& [receiver, view] : track.views) {
            if (view.present && m_online[receiver])
                sample(view, nowNs);
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
        if (!view.present || !view.level)
            continue;
        auto [it, added] = rooms.try_emplace(
            view.room, RoomLevel{*view.level, view.fast, view.fastStrongest, receiver});
        if (added)
            continue;
        if (*view.level > it->second.level) {
            it->second.level = *view.level;
            it->second.receiver = receiver;
        }
        it->second.fast = std::max(it->second.fast, view.fast);
        it->second.fastStrongest = std::max(it->second.fastStrongest, view.fastStrongest);
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
            if (it->second.level > strongest->second.level)
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
            int holdS = 0;
            // A room the short rule would leave again at once does not win on its minute.
            if (strongest != current &&
                strongest->second.level >= current->second.level + m_tuning.marginDb &&
                current->second.fast < strongest->second.fastStrongest + m_tuning.fastMarginDb) {
                challenger = strongest->first;
                holdS = m_tuning.holdS;
            } else if (quickest != current &&
                       quickest->second.fast >=
                           current->second.fastStrongest + m_tuning.fastMarginDb) {
                challenger = quickest->first;
                holdS = m_tuning.fastHoldS;
            }
            if (challenger != track.challenger) {
                track.challenger = challenger;
                track.challengerSinceNs = nowNs;
            }
            winner = !challenger.isEmpty() && nowNs - track.challengerSinceNs >= holdS * second
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
