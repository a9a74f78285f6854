#include "quorlix/platform/Fatal.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace Quorlix::Fatal {
namespace {

[[noreturn]] void stop(const std::string& message)
{
    std::fflush(stdout);
    std::fputs(message.c_str(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
    std::abort();
}

std::string fatalError(std::string_view detail)
{
    return "fatal error: " + std::string(detail);
}

} // namespace

void unwrappedNil()
{
    stop(fatalError("unexpectedly found nil while unwrapping an Optional value"));
}

void unimplementedInitializer(std::string_view initializer, std::string_view className)
{
    stop(fatalError("use of unimplemented initializer '" + std::string(initializer) +
                    "' for class '" + std::string(className) + "'"));
}

void indexOutOfRange()
{
    stop(fatalError("Index out of range"));
}

void failedCast(std::string_view fromType, std::string_view toType)
{
    stop("Could not cast value of type '" + std::string(fromType) + "' to '" + std::string(toType) +
         "'.");
}

void unknownKey(std::string_view valueType, std::string_view key)
{
    stop("Terminating: a value of type '" + std::string(valueType) +
         "' is not key value coding-compliant for the key " + std::string(key) + ".");
}

void floatToInt64(std::string_view reason)
{
    stop(fatalError("floating point value can not be converted to Int64 because it is " +
                    std::string(reason)));
}

void trap()
{
    std::fflush(stdout);
    std::abort();
}

} // namespace Quorlix::Fatal
