#include "quorlix/platform/MainQueue.h"

#include "quorlix/platform/Fatal.h"

#include <QCoreApplication>
#include <QTimer>

#include <limits>
#include <memory>

namespace Quorlix::MainQueue {
namespace {

// QTimer counts in int milliseconds (about 24.8 days); longer delays are run as a chain of timers.
constexpr std::int64_t longestTimerMs = std::numeric_limits<int>::max();

void schedule(std::int64_t remainingMs, std::shared_ptr<std::function<void()>> action)
{
    const std::int64_t stepMs = std::min(remainingMs, longestTimerMs);
    QTimer::singleShot(static_cast<int>(stepMs), Qt::PreciseTimer, QCoreApplication::instance(),
                       [remainingMs, stepMs, action] {
                           if (remainingMs > stepMs)
                               schedule(remainingMs - stepMs, action);
                           else
                               (*action)();
                       });
}

} // namespace

void after(std::int64_t delayNanoseconds, std::function<void()> action)
{
    if (QCoreApplication::instance() == nullptr)
        Fatal::noMainQueue();
    // Round up: the action must never run before its time.
    const std::int64_t delayMs =
        delayNanoseconds <= 0 ? 0 : delayNanoseconds / 1000000 + (delayNanoseconds % 1000000 != 0);
    schedule(delayMs, std::make_shared<std::function<void()>>(std::move(action)));
}

} // namespace Quorlix::MainQueue
