#pragma once

#include <QString>

/// The library's own log: bare lines on standard output, one flush per line, so that they
/// survive a process stop and interleave correctly with the host's output.
namespace Quorlix::Log {

void line(const QString& text);

} // namespace Quorlix::Log
