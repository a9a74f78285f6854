#pragma once

#include <cstdint>

namespace Quorlix {

/// The time base of the region engine and its sources: real (Qt timers) or virtual (tests,
/// simulation). Times are nanoseconds since the clock's own epoch.
class Clock
{
public:
    virtual ~Clock();
    virtual std::int64_t nowNs() const = 0;
};

} // namespace Quorlix
