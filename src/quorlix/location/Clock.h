#pragma once

#include <cstdint>
#include <functional>

namespace Quorlix {

/// The time base of the region engine and its sources: real (Qt timers) or virtual (tests,
/// simulation). Times are nanoseconds since the clock's own epoch. A clock also runs one-shot
/// timers, so that whatever is driven by it (engine, simulated radio) sees one consistent time.
class Clock
{
public:
    using TimerId = std::uint64_t;

    virtual ~Clock();
    virtual std::int64_t nowNs() const = 0;

    /// Runs action once, on the clock's thread, at atNs or as soon after as the clock can; a time
    /// already past means as soon as possible, but never inside schedule() itself. Returns a
    /// nonzero id for cancel().
    virtual TimerId schedule(std::int64_t atNs, std::function<void()> action) = 0;
    /// Forgets a pending action; ids that already ran or never existed are ignored.
    virtual void cancel(TimerId id) = 0;
};

} // namespace Quorlix
