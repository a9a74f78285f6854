#pragma once

#include <cstdint>
#include <optional>

#include <QStringView>

/// Arithmetic and conversions that stop the process instead of overflowing or narrowing.
namespace Quorlix::Checked {

/// a × b; stops without a message on overflow.
std::int64_t multiply(std::int64_t a, std::int64_t b);

/// Narrows to 16 bits; stops without a message when value is outside 0..65535.
std::uint16_t toUInt16(std::int64_t value);

/// Converts like a conversion of a double to Int64 that traps: NaN and infinities, values below
/// Int64.min and values at or above 2^63 stop the process with their own message.
std::int64_t toInt64(double value);

/// A signed decimal integer: an optional '+' or '-' and ASCII digits, nothing else; absent when the
/// text is not such a number or does not fit 64 bits.
std::optional<std::int64_t> parseInt64(QStringView text);

} // namespace Quorlix::Checked
