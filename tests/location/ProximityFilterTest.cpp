#include "quorlix/location/ProximityFilter.h"

#include <gtest/gtest.h>

namespace Quorlix {
namespace {

constexpr std::int64_t tenthNs = 100'000'000;
constexpr int power = -59;

// Feeds a steady reading at 10 Hz for seconds and re-evaluates once a second, as the engine does.
Proximity settle(ProximityFilter& filter, std::int64_t& timeNs, int rssi, int seconds)
{
    for (int s = 0; s < seconds; ++s) {
        for (int i = 0; i < 10; ++i)
            filter.addReading(timeNs += tenthNs, rssi);
        filter.update(power);
    }
    return filter.proximity();
}

TEST(ProximityFilter, BandsChangeOnlyPastTheMargin)
{
    // With measured power -59 and exponent 2, the limits lie at -53.0 dBm (0.5 m) and -68.5 dBm
    // (3 m); the margin is 2.5 dB.
    const std::tuple<int, int, Proximity> cases[] = {
        {-60, -69, Proximity::Near},      // just past the Near/Far limit: stays
        {-60, -70, Proximity::Near},      // 1.5 dB past: stays
        {-60, -72, Proximity::Far},       // 3.5 dB past: moves
        {-75, -67, Proximity::Far},       // back inside Near by 1.5 dB: stays Far
        {-75, -65, Proximity::Near},      // 3.5 dB inside: moves
        {-60, -52, Proximity::Near},      // just inside Immediate: stays
        {-60, -50, Proximity::Immediate}, // 3 dB inside
        {-50, -55, Proximity::Immediate}, // 2 dB out of Immediate: stays
        {-50, -56, Proximity::Near},      // 3 dB out
        {-50, -80, Proximity::Far},       // two bands at once
        {-80, -45, Proximity::Immediate},
    };
    for (const auto& [from, to, expected] : cases) {
        ProximityFilter filter;
        std::int64_t t = 0;
        settle(filter, t, from, 20);
        EXPECT_EQ(settle(filter, t, to, 30), expected) << from << " -> " << to;
    }
}

TEST(ProximityFilter, AverageFollowsTimeNotReadingCount)
{
    // The same step from -60 to -70 seen at 10 Hz and at 1 Hz covers the same share of the way
    // after the same time (within the approximation of the weight).
    ProximityFilter fast;
    ProximityFilter slow;
    fast.addReading(0, -60);
    slow.addReading(0, -60);
    for (int i = 1; i <= 20; ++i)
        fast.addReading(i * tenthNs, -70);
    for (int i = 1; i <= 2; ++i)
        slow.addReading(i * 10 * tenthNs, -70);
    EXPECT_NEAR(fast.smoothedRssi(), slow.smoothedRssi(), 1.0);
    // And after one time constant a bit more than half the step is done.
    EXPECT_LT(fast.smoothedRssi(), -65.5);
    EXPECT_GT(fast.smoothedRssi(), -67.5);
    // Readings with the same or an earlier time stamp (several receivers, late delivery) each
    // still pull by the weight of the shortest advertising interval, about 1%.
    ProximityFilter bunched;
    bunched.addReading(10 * tenthNs, -60);
    for (int i = 10; i >= 0; --i)
        bunched.addReading(i * tenthNs, -70);
    EXPECT_NEAR(bunched.smoothedRssi(), -61.04, 0.05);
}

} // namespace
} // namespace Quorlix
