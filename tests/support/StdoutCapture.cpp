#include "StdoutCapture.h"

#include <gtest/gtest.h>

namespace Quorlix::Testing {

StdoutCapture::StdoutCapture()
{
    testing::internal::CaptureStdout();
}

StdoutCapture::~StdoutCapture()
{
    if (m_capturing)
        testing::internal::GetCapturedStdout();
}

QStringList StdoutCapture::lines()
{
    m_capturing = false;
    const QString text = QString::fromStdString(testing::internal::GetCapturedStdout());
    QStringList result = text.split(u'\n');
    if (!result.isEmpty() && result.last().isEmpty())
        result.removeLast();
    return result;
}

} // namespace Quorlix::Testing
