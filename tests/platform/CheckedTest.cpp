#include "quorlix/platform/Checked.h"

#include <QString>

#include <gtest/gtest.h>

#include <limits>

using namespace Quorlix;

namespace {

constexpr std::int64_t int64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t int64Min = std::numeric_limits<std::int64_t>::min();

TEST(Checked, ParseInt64AcceptsOnlyASignAndAsciiDigitsThatFit)
{
    // clang-format off
    const std::pair<const char16_t*, std::int64_t> numbers[] = {{u"007", 7}, {u"+5", 5}, {u"-5", -5},
        {u"9223372036854775807", int64Max}, {u"-9223372036854775808", int64Min}};
    // clang-format on
    for (const auto& [text, value] : numbers)
        EXPECT_EQ(Checked::parseInt64(QStringView(text)), value) << value;
    for (const char16_t* text :
         {u"9223372036854775808", u"-9223372036854775809", u"", u"+", u"-", u"99999999999999999999",
          u"+-5", u" 5", u"5 ", u"5a", u"0x10", u"\u0663", u"\uff15"})
        EXPECT_EQ(Checked::parseInt64(QStringView(text)), std::nullopt)
            << QString::fromUtf16(text).toStdString();
}

TEST(CheckedDeathTest, ConversionsKeepTheWholeRangeAndStopOutsideIt)
{
    EXPECT_EQ(Checked::toInt64(-9223372036854775808.0), int64Min);
    EXPECT_EQ(Checked::toInt64(9223372036854774784.0), 9223372036854774784);
    EXPECT_EQ(Checked::toInt64(-2.9), -2);
    const std::string prefix =
        "fatal error: floating point value can not be converted to Int64 because it is ";
    for (const double notANumber :
         {std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::infinity()})
        EXPECT_DEATH(Checked::toInt64(notANumber), prefix + "either infinite or NaN");
    EXPECT_DEATH(Checked::toInt64(9223372036854775808.0), prefix + "greater than Int64.max");

    // Narrowing stops without a message.
    for (const int value : {65536, -1})
        EXPECT_DEATH(Checked::toUInt16(value), "^$");
}

} // namespace
