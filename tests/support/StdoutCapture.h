#pragma once

#include <QStringList>

#include <gtest/gtest.h>

namespace Quorlix::Testing {

/// Captures what the process writes to standard output (the library's log) while it lives.
class StdoutCapture
{
public:
    StdoutCapture() { testing::internal::CaptureStdout(); }
    ~StdoutCapture()
    {
        if (m_capturing)
            testing::internal::GetCapturedStdout();
    }

    /// Stops capturing and returns the lines written since the start.
    QStringList lines()
    {
        m_capturing = false;
        const QString text = QString::fromStdString(testing::internal::GetCapturedStdout());
        QStringList result = text.split(u'\n');
        if (result.last().isEmpty()) // the end of the last line
            result.removeLast();
        return result;
    }

private:
    bool m_capturing = true;
};

} // namespace Quorlix::Testing
