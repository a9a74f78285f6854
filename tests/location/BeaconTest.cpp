#include "quorlix/location/Beacon.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace Quorlix {
namespace {

// The engine's reports and the beacon list model both rely on this order; ties must fall the same
// way whatever order the beacons arrive in, or rows swap between reports.
TEST(Beacon, NearerFirstOrdersByDistanceThenNumberWithUnknownLast)
{
    const auto beacon = [](quint16 major, quint16 minor, double accuracy) {
        Beacon b;
        b.major = major;
        b.minor = minor;
        b.accuracy = accuracy;
        return b;
    };
    const QList<Beacon> expected = {
        beacon(9, 9, 0.0),  beacon(3, 1, 0.5),  beacon(1, 3, 1.2),
        beacon(2, 1, 1.2),  beacon(2, 2, 1.2),  beacon(1, 1, 40.0),
        beacon(1, 5, -1.0), beacon(2, 0, -0.5), beacon(2, 4, -1.0),
    };
    QList<Beacon> reversed(expected.rbegin(), expected.rend());
    QList<Beacon> rotated = expected;
    std::rotate(rotated.begin(), rotated.begin() + 4, rotated.end());
    for (QList<Beacon> beacons : {reversed, rotated}) {
        std::sort(beacons.begin(), beacons.end(), nearerFirst);
        EXPECT_EQ(beacons, expected);
    }
}

} // namespace
} // namespace Quorlix
