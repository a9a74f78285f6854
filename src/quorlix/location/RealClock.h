#pragma once

#include "quorlix/location/Clock.h"

#include <QElapsedTimer>

#include <memory>

namespace Quorlix {

/// The monotonic clock of the running system, with its timers on Qt's event loop of the thread
/// that created it; actions run on that thread.
class RealClock : public Clock
{
public:
    RealClock();
    ~RealClock() override;
    RealClock(const RealClock&) = delete;
    RealClock& operator=(const RealClock&) = delete;

    std::int64_t nowNs() const override { return m_elapsed.nsecsElapsed(); }
    TimerId schedule(std::int64_t atNs, std::function<void()> action) override;
    void cancel(TimerId id) override;

private:
    struct Timers;
    QElapsedTimer m_elapsed;
    std::unique_ptr<Timers> m_timers;
};

} // namespace Quorlix
