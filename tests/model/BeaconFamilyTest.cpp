#include "quorlix/model/BeaconFamily.h"
#include "quorlix/Version.h"
#include "quorlix/location/Beacon.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace Quorlix;

namespace {

TEST(BeaconFamily, MajorMinorTextIsDecimalWithoutPaddingOrBlanks)
{
    EXPECT_EQ(BeaconFamily::majorMinorText(0, 0), "0-0");
    EXPECT_EQ(BeaconFamily::majorMinorText(1200, 7), "1200-7");
    EXPECT_EQ(BeaconFamily::majorMinorText(65535, 65535), "65535-65535");
}

TEST(BeaconFamily, RegionsMatchByUuidAndTheNumbersTheyName)
{
    const QUuid family = BeaconFamily::proximityUUID();
    ASSERT_FALSE(family.isNull());
    EXPECT_EQ(family.toString(QUuid::WithoutBraces).toUpper(),
              QString::fromUtf16(BeaconFamily::proximityUUIDText));

    const BeaconRegion all{family, std::nullopt, std::nullopt, "VeskDevice"};
    const BeaconRegion one{family, 12, 7, "VeskDevice"};
    const BeaconRegion majorOnly{family, 12, std::nullopt, "VeskDevice"};
    const QUuid other = QUuid::createUuid();

    EXPECT_TRUE(all.matches(family, 1, 2));
    EXPECT_FALSE(all.matches(other, 1, 2));
    EXPECT_TRUE(one.matches(family, 12, 7));
    EXPECT_FALSE(one.matches(family, 12, 8));
    EXPECT_FALSE(one.matches(family, 7, 12));
    EXPECT_TRUE(majorOnly.matches(family, 12, 999));
    EXPECT_FALSE(majorOnly.matches(family, 13, 7));
}

TEST(Version, SymbolsCarryTheExactVersion)
{
    EXPECT_EQ(QuorlixVersionNumber, 1.0);
    const char* text = reinterpret_cast<const char*>(QuorlixVersionString);
    EXPECT_STREQ(text, "@(#)PROGRAM:Quorlix  PROJECT:Quorlix-1\n");
}

} // namespace
