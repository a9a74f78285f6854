#pragma once

#include <QFile>

#include <gtest/gtest.h>

namespace Quorlix::Testing {

/// Writes text into dir/name, replacing what was there; returns the path.
inline QString writeFile(const QString& dir, const QString& name, const QByteArray& text)
{
    const QString path = dir + u'/' + name;
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
                file.write(text) == text.size());
    return path;
}

} // namespace Quorlix::Testing
