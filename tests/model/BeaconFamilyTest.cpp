#include "quorlix/model/BeaconFamily.h"
#include "quorlix/location/Beacon.h"

#include <gtest/gtest.h>

using namespace Quorlix;

TEST(BeaconFamily, RegionsMatchByUuidAndTheNumbersTheyName)
{
    EXPECT_EQ(BeaconFamily::majorMinorText(1200, 65535), "1200-65535");
    const QUuid family = BeaconFamily::proximityUUID();
    EXPECT_EQ(family.toString(QUuid::WithoutBraces).toUpper(),
              QString::fromUtf16(BeaconFamily::proximityUUIDText));
    const BeaconRegion all{family, std::nullopt, std::nullopt, "VeskDevice"};
    const BeaconRegion one{family, 12, 7, "VeskDevice"};
    const BeaconRegion majorOnly{family, 12, std::nullopt, "VeskDevice"};
    EXPECT_TRUE(all.matches(family, 1, 2) && one.matches(family, 12, 7) &&
                majorOnly.matches(family, 12, 999));
    EXPECT_FALSE(all.matches(QUuid::createUuid(), 1, 2) || one.matches(family, 12, 8) ||
                 one.matches(family, 7, 12) || majorOnly.matches(family, 13, 7));
}
