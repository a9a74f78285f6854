#include "quorlix/platform/Checked.h"

#include "quorlix/platform/Fatal.h"

#include <cmath>
#include <limits>

namespace Quorlix::Checked {

std::int64_t multiply(std::int64_t a, std::int64_t b)
{
    std::int64_t product = 0;
    if (__builtin_mul_overflow(a, b, &product))
        Fatal::trap();
    return product;
}

std::uint16_t toUInt16(std::int64_t value)
{
    if (value < 0 || value > std::numeric_limits<std::uint16_t>::max())
        Fatal::trap();
    return static_cast<std::uint16_t>(value);
}

std::int64_t toInt64(double value)
{
    // -2^63 is exactly representable; 2^63 is the first double that no longer fits.
    constexpr double lowest = -9223372036854775808.0;
    constexpr double beyondHighest = 9223372036854775808.0;
    if (!std::isfinite(value))
        Fatal::floatToInt64("either infinite or NaN");
    if (value < lowest)
        Fatal::floatToInt64("less than Int64.min");
    if (value >= beyondHighest)
        Fatal::floatToInt64("greater than Int64.max");
    return static_cast<std::int64_t>(value);
}

std::optional<std::int64_t> parseInt64(QStringView text)
{
    qsizetype i = 0;
    bool negative = false;
    if (i < text.size() && (text[i] == u'+' || text[i] == u'-')) {
        negative = text[i] == u'-';
        ++i;
    }
    if (i == text.size())
        return std::nullopt;
    // Accumulate towards the negative side so that Int64.min parses without overflow.
    std::int64_t value = 0;
    for (; i < text.size(); ++i) {
        const char16_t c = text[i].unicode();
        if (c < u'0' || c > u'9')
            return std::nullopt;
        if (__builtin_mul_overflow(value, 10, &value) ||
            __builtin_sub_overflow(value, static_cast<std::int64_t>(c - u'0'), &value))
            return std::nullopt;
    }
    if (negative)
        return value;
    if (value == std::numeric_limits<std::int64_t>::min())
        return std::nullopt;
    return -value;
}

} // namespace Quorlix::Checked
