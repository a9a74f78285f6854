#include "quorlix/platform/Checked.h"

#include <QString>

#include <gtest/gtest.h>

#include <limits>

using namespace Quorlix;

namespace {

struct ParseCase
{
    const char16_t* text;
    std::optional<std::int64_t> expected;
    friend void PrintTo(const ParseCase& c, std::ostream* os)
    {
        *os << '"' << QString::fromUtf16(c.text).toStdString() << '"';
    }
};

class ParseInt64 : public testing::TestWithParam<ParseCase>
{};

TEST_P(ParseInt64, AcceptsOnlyASignAndAsciiDigitsThatFit)
{
    EXPECT_EQ(Checked::parseInt64(QStringView(GetParam().text)), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ParseInt64,
    testing::Values(ParseCase{u"0", 0}, ParseCase{u"007", 7}, ParseCase{u"+5", 5},
                    ParseCase{u"-5", -5}, ParseCase{u"65536", 65536},
                    ParseCase{u"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
                    ParseCase{u"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
                    ParseCase{u"9223372036854775808", std::nullopt},
                    ParseCase{u"-9223372036854775809", std::nullopt},
                    ParseCase{u"99999999999999999999", std::nullopt}, ParseCase{u"", std::nullopt},
                    ParseCase{u"+", std::nullopt}, ParseCase{u"-", std::nullopt},
                    ParseCase{u"+-5", std::nullopt}, ParseCase{u" 5", std::nullopt},
                    ParseCase{u"5 ", std::nullopt}, ParseCase{u"5a", std::nullopt},
                    ParseCase{u"0x10", std::nullopt}, ParseCase{u"\u0663", std::nullopt},
                    ParseCase{u"\uff15", std::nullopt}));

TEST(CheckedConversion, DoubleToInt64KeepsTheWholeRange)
{
    EXPECT_EQ(Checked::toInt64(-9223372036854775808.0), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(Checked::toInt64(9223372036854774784.0), 9223372036854774784);
    EXPECT_EQ(Checked::toInt64(-2.9), -2);
    EXPECT_EQ(Checked::toInt64(5e9), 5000000000);
}

TEST(CheckedConversionDeathTest, DoubleToInt64StopsWithTheReason)
{
    constexpr const char* prefix =
        "fatal error: floating point value can not be converted to Int64 because it is ";
    EXPECT_DEATH(Checked::toInt64(std::numeric_limits<double>::quiet_NaN()),
                 std::string(prefix) + "either infinite or NaN");
    EXPECT_DEATH(Checked::toInt64(-std::numeric_limits<double>::infinity()),
                 std::string(prefix) + "either infinite or NaN");
    EXPECT_DEATH(Checked::toInt64(9223372036854775808.0),
                 std::string(prefix) + "greater than Int64.max");
    EXPECT_DEATH(Checked::toInt64(-9223372036854777856.0),
                 std::string(prefix) + "less than Int64.min");
}

TEST(CheckedArithmeticDeathTest, OverflowAndNarrowingStopWithoutAMessage)
{
    EXPECT_EQ(Checked::multiply(9223372036, 1000000000), 9223372036000000000);
    EXPECT_EQ(Checked::multiply(-9223372036, 1000000000), -9223372036000000000);
    EXPECT_DEATH(Checked::multiply(9223372037, 1000000000), "^$");
    EXPECT_DEATH(Checked::multiply(-9223372037, 1000000000), "^$");

    EXPECT_EQ(Checked::toUInt16(65535), 65535);
    EXPECT_EQ(Checked::toUInt16(0), 0);
    EXPECT_DEATH(Checked::toUInt16(65536), "^$");
    EXPECT_DEATH(Checked::toUInt16(-1), "^$");
}

} // namespace
