#pragma once

#include <cstdint>
#include <functional>

/// One-shot delayed actions on the main event loop (the thread of the QCoreApplication instance).
namespace Quorlix::MainQueue {

/// Runs action once on the main thread, no sooner than delayNanoseconds from now; zero or negative
/// means the next turn of the event loop. There is no way to cancel it. Without an application
/// instance there is no main queue and the process stops.
void after(std::int64_t delayNanoseconds, std::function<void()> action);

} // namespace Quorlix::MainQueue
