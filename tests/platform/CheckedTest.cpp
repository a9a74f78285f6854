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
    const std::pair<const char16_t*, std::optional<std::int64_t>> cases[] = {
        {u"007", 7},
        {u"+5", 5},
        {u"-5", -5},
        {u"9223372036854775807", int64Max},
        {u"-9223372036854775808", int64Min},
        {u"9223372036854775808", {}},
        {u"-9223372036854775809", {}},
        {u"99999999999999999999", {}},
        {u"", {}},
        {u"+", {}},
        {u"-", {}},
        {u"+-5", {}},
        {u" 5", {}},
        {u"5 ", {}},
        {u"5a", {}},
        {u"0x10", {}},
        {u"\u0663", {}},
        {u"\uff15", {}}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(Checked::parseInt64(QStringView(text)), expected)
            << QString::fromUtf16(text).toStdString();
}

TEST(CheckedDeathTest, ConversionsKeepTheWholeRangeAndStopOutsideIt)
{
    EXPECT_EQ(Checked::toInt64(-9223372036854775808.0), int64Min);
    EXPECT_EQ(Checked::toInt64(9223372036854774784.0), 9223372036854774784);
    EXPECT_EQ(Checked::toInt64(-2.9), -2);
    const std::string prefix =
        "fatal error: floating point value can not be converted to Int64 because it is ";
    EXPECT_DEATH(Checked::toInt64(std::numeric_limits<double>::quiet_NaN()),
                 prefix + "either infinite or NaN");
    EXPECT_DEATH(Checked::toInt64(-std::numeric_limits<double>::infinity()),
                 prefix + "either infinite or NaN");
    EXPECT_DEATH(Checked::toInt64(9223372036854775808.0), prefix + "greater than Int64.max");
    EXPECT_DEATH(Checked::toInt64(-9223372036854777856.0), prefix + "less than Int64.min");

    // Overflow and narrowing stop without a message.
    EXPECT_EQ(Checked::multiply(-9223372036, 1000000000), -9223372036000000000);
    EXPECT_DEATH(Checked::multiply(9223372037, 1000000000), "^$");
    EXPECT_DEATH(Checked::multiply(-9223372037, 1000000000), "^$");
    EXPECT_EQ(Checked::toUInt16(65535), 65535);
    EXPECT_DEATH(Checked::toUInt16(65536), "^$");
    EXPECT_DEATH(Checked::toUInt16(-1), "^$");
}

} // namespace
