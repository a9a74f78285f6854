#pragma once

#include <string_view>

/// The process stops of the library. Each stop flushes standard output first, so that the log
/// lines written before it survive, writes its message to standard error and aborts.
/// Nothing else in the library prints "fatal error".
namespace Quorlix::Fatal {

/// A value that the design treats as always present was absent.
[[noreturn]] void unwrappedNil();

// The causes of unwrappedNil(), named so that a call site says why it stops; each prints the same
// message.

/// A manager has no location manager.
[[noreturn]] inline void noLocationManager()
{
    unwrappedNil();
}
/// The beacon family's proximity UUID text did not parse.
[[noreturn]] inline void noFamilyUUID()
{
    unwrappedNil();
}
/// A major or minor text is not a decimal number.
[[noreturn]] inline void notANumber()
{
    unwrappedNil();
}
/// There is no application object, hence no main queue.
[[noreturn]] inline void noMainQueue()
{
    unwrappedNil();
}
/// The pairing screen is absent.
[[noreturn]] inline void noListScreen()
{
    unwrappedNil();
}
/// The pairing screen's table is absent: its view was never loaded.
[[noreturn]] inline void noTable()
{
    unwrappedNil();
}
/// A choice was reported with no pairing completion registered.
[[noreturn]] inline void noPairingCompletion()
{
    unwrappedNil();
}
/// A directory URL is not a valid http(s) URL.
[[noreturn]] inline void invalidUrl()
{
    unwrappedNil();
}
/// The HTTP client could not be set up.
[[noreturn]] inline void noHttpClient()
{
    unwrappedNil();
}
/// A directory request brought no data (unreachable, timed out, too large).
[[noreturn]] inline void noDirectoryData()
{
    unwrappedNil();
}
/// A directory answer is not JSON.
[[noreturn]] inline void answerNotJson()
{
    unwrappedNil();
}

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
