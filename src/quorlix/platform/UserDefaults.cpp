#include "quorlix/platform/UserDefaults.h"

#include "quorlix/LoggingCategories.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStandardPaths>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quorlix {
namespace {

// A store is a few keys; anything this large is not one of ours, and reading it whole would only
// cost memory.
constexpr qint64 maxStoreBytes = 16 * 1024 * 1024;
// Copies of unreadable stores kept beside the store, newest first.
constexpr int keptUnreadableCopies = 3;

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

enum class ReadResult
{
    Absent,
    Read,
    Unreadable,
    Failed
};

// Opened without blocking and checked to be a regular file, so that a FIFO or a device at the
// store's path cannot hang or flood the reader.
ReadResult readStore(const QString& fileName, QJsonObject* object, QString* problem)
{
    const QByteArray path = QFile::encodeName(fileName);
    const int fd = ::open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT)
            return ReadResult::Absent;
        *problem = systemError(errno);
        return errno == EACCES || errno == EPERM ? ReadResult::Failed : ReadResult::Unreadable;
    }
    struct stat info
    {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > maxStoreBytes) {
        ::close(fd);
        *problem = QStringLiteral("not a regular file of at most %1 bytes").arg(maxStoreBytes);
        return ReadResult::Unreadable;
    }
    QByteArray bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            *problem = systemError(errno);
            ::close(fd);
            return ReadResult::Failed;
        }
        if (n == 0 || bytes.size() + n > maxStoreBytes)
            break;
        bytes.append(buffer, n);
    }
    ::close(fd);
    // A store that was created but never written yet.
    if (bytes.trimmed().isEmpty())
        return ReadResult::Read;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        *problem = error.error != QJsonParseError::NoError ? error.errorString()
                                                           : QStringLiteral("not a JSON object");
        return ReadResult::Unreadable;
    }
    *object = document.object();
    return ReadResult::Read;
}

// Keeps only the newest few copies: a store that keeps going bad must not fill the disk.
void pruneUnreadableCopies(const QFileInfo& store)
{
    QDir folder = store.absoluteDir();
    QStringList copies = folder.entryList({store.fileName() + QStringLiteral(".unreadable-*")},
                                          QDir::Files | QDir::System | QDir::Hidden, QDir::Name);
    // Named by time, so the name order is the age order.
    while (copies.size() > keptUnreadableCopies)
        folder.remove(copies.takeFirst());
}

// A store that does not parse would be overwritten by the next save; its bytes are kept aside.
bool setAsideUnreadable(const QString& fileName)
{
    const QString stem = fileName + QStringLiteral(".unreadable-") +
                         QDateTime::currentDateTimeUtc().toString(u"yyyyMMddTHHmmsszzz");
    // link() never replaces, unlike rename(): two copies made within one millisecond both stay.
    QString aside = stem;
    const QByteArray from = QFile::encodeName(fileName);
    for (int n = 1; ::link(from.constData(), QFile::encodeName(aside).constData()) != 0; ++n) {
        if (errno != EEXIST || n > 100) {
            qCWarning(lcDefaults) << fileName << "is not a valid store and cannot be moved aside ("
                                  << systemError(errno) << "); leaving it untouched";
            return false;
        }
        aside = stem + u'-' + QString::number(n);
    }
    ::unlink(from.constData());
    qCWarning(lcDefaults) << fileName << "is not a valid store; moved it to" << aside;
    pruneUnreadableCopies(QFileInfo(fileName));
    return true;
}

// Temporary files of saves killed before their rename hold keys; a live save keeps an exclusive
// lock on its own, so any such file that can be locked is left over and goes. Their names end in
// six random letters and digits; an all-lowercase ending ("backup") is more likely a user's copy
// and stays, as does anything that does not hold a store.
void removeLeftoverTemporaries(const QFileInfo& store)
{
    static const QRegularExpression temporary(QStringLiteral("^\\.(?![a-z]{6}$)[A-Za-z0-9]{6}$"));
    const QDir folder = store.absoluteDir();
    const QString prefix = store.fileName();
    for (const QString& name :
         folder.entryList({prefix + QStringLiteral(".??????")}, QDir::Files | QDir::Hidden)) {
        if (!temporary.match(QStringView(name).mid(prefix.size())).hasMatch())
            continue;
        const QByteArray path = QFile::encodeName(folder.filePath(name));
        const int fd = ::open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0)
            continue;
        char first = '{';
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::read(fd, &first, 1) >= 0 && first == '{')
            ::unlink(path.constData());
        ::close(fd);
    }
}

bool writeAll(int fd, const QByteArray& bytes)
{
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + done, std::size_t(bytes.size() - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            return false;
        }
        done += n;
    }
    return true;
}

// The new contents go to a temporary file beside the store, written in full and flushed to disk,
// and only then renamed over it: on a full disk, a size limit or a crash the old store stays.
bool replaceStore(const QString& fileName, const QByteArray& bytes)
{
    QByteArray temporary = QFile::encodeName(fileName) + ".XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC); // 0600: the keys are the owner's
    if (fd < 0) {
        qCWarning(lcDefaults) << "cannot write" << fileName << ":" << systemError(errno);
        return false;
    }
    const auto fail = [&](const char* step) {
        const int error = errno;
        ::unlink(temporary.constData());
        qCWarning(lcDefaults) << "cannot write" << fileName << ":" << step << "failed,"
                              << systemError(error) << "; the store is left as it was";
        return false;
    };
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || !writeAll(fd, bytes) || ::fsync(fd) != 0) {
        const bool failed = fail("writing");
        ::close(fd);
        return failed;
    }
    if (::close(fd) != 0)
        return fail("closing");
    if (::rename(temporary.constData(), QFile::encodeName(fileName).constData()) != 0)
        return fail("renaming");
    // The rename itself reaches the disk with the folder.
    const QByteArray folder = QFile::encodeName(QFileInfo(fileName).absolutePath());
    if (const int dir = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
    return true;
}

// A link to the store is followed, so that the store stays where the user put it.
QString resolvedStore(const QString& fileName)
{
    const QFileInfo info(fileName);
    return info.isSymLink() ? info.symLinkTarget() : fileName;
}

} // namespace

UserDefaults UserDefaults::standard()
{
    QString application = QCoreApplication::applicationName();
    if (application.isEmpty())
        application = QStringLiteral("quorlix");
    QString organisation = QCoreApplication::organizationName();
    if (organisation.isEmpty())
        organisation = application;
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    return UserDefaults(folder + u'/' + organisation + u'/' + application +
                        QStringLiteral(".json"));
}

UserDefaults::UserDefaults(QString fileName)
    : m_fileName(std::move(fileName))
{}

std::optional<QStringList> UserDefaults::stringArray(const QString& key) const
{
    QJsonObject object;
    QString problem;
    if (readStore(m_fileName, &object, &problem) != ReadResult::Read)
        return std::nullopt;
    const QJsonValue value = object.value(key);
    if (!value.isArray())
        return std::nullopt;
    QStringList texts;
    for (const QJsonValue& element : value.toArray()) {
        if (!element.isString())
            return std::nullopt;
        texts << element.toString();
    }
    return texts;
}

bool UserDefaults::setStringArray(const QString& key, const QStringList& list)
{
    const QString fileName = resolvedStore(m_fileName);
    const QFileInfo info(fileName);
    if (!QDir().mkpath(info.absolutePath())) {
        qCWarning(lcDefaults) << "cannot create the folder of" << fileName;
        return false;
    }
    QJsonObject object;
    QString problem;
    switch (readStore(fileName, &object, &problem)) {
    case ReadResult::Failed:
        qCWarning(lcDefaults) << "cannot read" << fileName << ":" << problem
                              << "; leaving it untouched";
        return false;
    case ReadResult::Unreadable:
        if (!setAsideUnreadable(fileName))
            return false;
        break;
    case ReadResult::Absent:
    case ReadResult::Read:
        break;
    }
    removeLeftoverTemporaries(info);
    object.insert(key, QJsonArray::fromStringList(list));
    return replaceStore(fileName, QJsonDocument(object).toJson(QJsonDocument::Indented));
}

} // namespace Quorlix
