#pragma once

#include <string_view>

/// The process stops of the library. Each stop flushes standard output first, so that the log
/// lines written before it survive, writes its message to standard error and aborts.
/// Nothing else in the library prints "fatal error".
namespace Quorlix::Fatal {

/// A value that the design treats as always present was absent.
[[noreturn]] void unwrappedNil();

/// A plain constructor that the class does not support, e.g. className "Quorlix.VeskEventManager".
[[noreturn]] void unimplementedInitializer(std::string_view initializer,
                                           std::string_view className);

/// A list was read past its end.
[[noreturn]] void indexOutOfRange();

/// A forced conversion of a value to a type it does not have.
[[noreturn]] void failedCast(std::string_view fromType, std::string_view toType);

/// A member lookup on a value that has no members (neither a record nor a list).
[[noreturn]] void unknownKey(std::string_view valueType, std::string_view key);

/// A double did not fit the 64-bit integer it was converted to; reason completes
/// "floating point value can not be converted to Int64 because it is ...".
[[noreturn]] void floatToInt64(std::string_view reason);

/// Integer overflow or narrowing: stops without a message.
[[noreturn]] void trap();

} // namespace Quorlix::Fatal
