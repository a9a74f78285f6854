#include "quorlix/location/RealClock.h"

#include <QObject>
#include <QPointer>
#include <QTimer>

#include <algorithm>
#include <unordered_map>

namespace Quorlix {

struct RealClock::Timers
{
    TimerId lastId = 0;
    std::unordered_map<TimerId, QPointer<QTimer>> pending;
};

RealClock::RealClock()
    : m_timers(std::make_unique<Timers>())
{
    m_elapsed.start();
}

RealClock::~RealClock()
{
    // deleteLater, not delete: the clock may be destroyed from inside one of its own actions, while
    // that action's QTimer is still emitting.
    for (auto& [id, timer] : m_timers->pending) {
        if (timer) {
            timer->stop();
            timer->disconnect();
            timer->deleteLater();
        }
    }
}

Clock::TimerId RealClock::schedule(std::int64_t atNs, std::function<void()> action)
{
    const TimerId id = ++m_timers->lastId;
    const std::int64_t delayNs = std::max<std::int64_t>(0, atNs - nowNs());
    // Rounded up: an action never runs before its time. Beyond QTimer's int range (24.8 days) the
    // action runs early; the engine's timers re-check their deadline when they fire.
    const std::int64_t delayMs =
        std::min<std::int64_t>(delayNs / 1000000 + (delayNs % 1000000 != 0), 0x7fffffff);

    auto* timer = new QTimer;
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    Timers* timers = m_timers.get();
    QObject::connect(timer, &QTimer::timeout, timer,
                     [timers, id, timer, action = std::move(action)]() mutable {
                         timers->pending.erase(id);
                         timer->deleteLater();
                         // Moved out first: the action may destroy the clock, and with it
                         // everything reachable from here but this local.
                         std::function<void()> run = std::move(action);
                         run();
                     });
    m_timers->pending.emplace(id, timer);
    timer->start(static_cast<int>(delayMs));
    return id;
}

void RealClock::cancel(TimerId id)
{
    const auto found = m_timers->pending.find(id);
    if (found == m_timers->pending.end())
        return;
    if (found->second) {
        found->second->stop();
        found->second->disconnect();
        found->second->deleteLater();
    }
    m_timers->pending.erase(found);
}

} // namespace Quorlix
