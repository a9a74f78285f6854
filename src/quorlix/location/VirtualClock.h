#pragma once

#include "quorlix/location/Clock.h"

#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

namespace Quorlix {

/// A clock whose time moves only when told to: tests and simulations run hours of beacon traffic
/// in milliseconds, with the same result every time.
class VirtualClock : public Clock
{
public:
    explicit VirtualClock(std::int64_t startNs = 0);
    ~VirtualClock() override;
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    std::int64_t nowNs() const override { return m_nowNs; }
    TimerId schedule(std::int64_t atNs, std::function<void()> action) override;
    void cancel(TimerId id) override;

    /// Runs every action due up to targetNs in time order (equal times in scheduling order), the
    /// time standing at each action's own time while it runs, including actions scheduled
    /// meanwhile; then leaves the time at targetNs. A target in the past runs what is due now.
    void advanceTo(std::int64_t targetNs);
    void advanceBy(std::int64_t deltaNs) { advanceTo(m_nowNs + deltaNs); }
    std::size_t pendingCount() const { return m_queue.size(); }

private:
    std::int64_t m_nowNs;
    TimerId m_lastId = 0;
    std::map<std::pair<std::int64_t, TimerId>, std::function<void()>> m_queue;
    std::unordered_map<TimerId, std::int64_t> m_dueTimes;
    // An action may destroy the clock; the loop checks this before touching it again.
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace Quorlix
