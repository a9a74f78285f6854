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

/// The most of a name or value from a file that a message quotes.
inline constexpr qsizetype maxQuoted = 40;
/// text as a message quotes it: whole up to maxQuoted characters, else cut to that length with
/// "..." at the end, so that a hostile file cannot flood a log.
QString quoted(const QString& text);

} // namespace Quorlix::SourceFile
