#include "quorlix/location/sources/SourceFile.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quorlix::SourceFile {

QString quoted(const QString& text)
{
    if (text.size() <= maxQuoted)
        return text;
    // Never between the halves of a surrogate pair.
    qsizetype keep = maxQuoted - 3;
    if (text[keep - 1].isHighSurrogate())
        --keep;
    return text.left(keep) + QStringLiteral("...");
}

bool read(const QString& path, qint64 maxBytes, QByteArray* bytes, QString* problem)
{
    const auto systemError = [problem] {
        *problem = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    };
    // Non-blocking, so that opening a FIFO does not wait for a writer.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return systemError();
    struct stat info
    {};
    if (::fstat(fd, &info) != 0) {
        const bool result = systemError();
        ::close(fd);
        return result;
    }
    if (!S_ISREG(info.st_mode)) {
        ::close(fd);
        *problem = QStringLiteral("not a regular file");
        return false;
    }
    if (info.st_size > maxBytes) {
        ::close(fd);
        *problem = QStringLiteral("larger than %1 bytes").arg(maxBytes);
        return false;
    }
    bytes->clear();
    bytes->reserve(qsizetype(info.st_size));
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            const bool result = systemError();
            ::close(fd);
            return result;
        }
        if (n == 0)
            break;
        // The file may grow while it is read.
        if (bytes->size() + n > maxBytes) {
            ::close(fd);
            *problem = QStringLiteral("larger than %1 bytes").arg(maxBytes);
            return false;
        }
        bytes->append(buffer, qsizetype(n));
    }
    ::close(fd);
    return true;
}

} // namespace Quorlix::SourceFile
