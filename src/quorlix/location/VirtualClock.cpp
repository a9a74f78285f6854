#include "quorlix/location/VirtualClock.h"

#include <algorithm>

namespace Quorlix {

VirtualClock::VirtualClock(std::int64_t startNs)
    : m_nowNs(startNs)
{}

VirtualClock::~VirtualClock()
{
    *m_alive = false;
}

Clock::TimerId VirtualClock::schedule(std::int64_t atNs, std::function<void()> action)
{
    const TimerId id = ++m_lastId;
    const std::int64_t due = std::max(atNs, m_nowNs);
    m_queue.emplace(std::make_pair(due, id), std::move(action));
    m_dueTimes.emplace(id, due);
    return id;
}

void VirtualClock::cancel(TimerId id)
{
    const auto found = m_dueTimes.find(id);
    if (found == m_dueTimes.end())
        return;
    m_queue.erase(std::make_pair(found->second, id));
    m_dueTimes.erase(found);
}

void VirtualClock::advanceTo(std::int64_t targetNs)
{
    const std::shared_ptr<bool> alive = m_alive;
    while (!m_queue.empty() && m_queue.begin()->first.first <= targetNs) {
        auto next = m_queue.begin();
        m_nowNs = std::max(m_nowNs, next->first.first);
        std::function<void()> action = std::move(next->second);
        m_dueTimes.erase(next->first.second);
        m_queue.erase(next);
        action();
        if (!*alive)
            return;
    }
    m_nowNs = std::max(m_nowNs, targetNs);
}

} // namespace Quorlix
