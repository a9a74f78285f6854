#pragma once

#include <QStringList>

namespace Quorlix::Testing {

/// Captures what the process writes to standard output (the library's log) while it lives.
class StdoutCapture
{
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;

    /// Stops capturing and returns the lines written since the start.
    QStringList lines();

private:
    bool m_capturing = true;
};

} // namespace Quorlix::Testing
