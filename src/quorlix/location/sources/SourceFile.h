#pragma once

#include <QByteArray>
#include <QString>

/// Reading the files that sources are made from (scenarios, traces), which users name through the
/// environment: a FIFO, a device or a huge file there must give an error, never a hang or an
/// exhausted memory.
namespace Quorlix::SourceFile {

/// Reads path whole into bytes when it is a regular file of at most maxBytes; otherwise sets
/// problem and returns false.
bool read(const QString& path, qint64 maxBytes, QByteArray* bytes, QString* problem);

} // namespace Quorlix::SourceFile
