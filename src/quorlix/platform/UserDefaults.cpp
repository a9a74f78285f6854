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

#include <QSettings>
#include <QStandardPaths>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quorlix {
namespace {

// Qt's INI format cannot keep a list apart from a text (a one-element list reads back as a text)
// and writes an empty list as @Invalid(), which reads back as nothing. JSON keeps each value's
// kind: an array of texts is a list, whatever its length.
QVariant fromJson(const QJsonValue& value)
{
    if (value.isArray()) {
        const QJsonArray array = value.toArray();
        QStringList texts;
        for (const QJsonValue& element : array) {
            if (!element.isString())
                return array.toVariantList();
            texts << element.toString();
        }
        return texts;
    }
    return value.toVariant();
}

QJsonValue toJson(const QVariant& value)
{
    if (value.metaType().id() == QMetaType::QStringList)
        return QJsonArray::fromStringList(value.toStringList());
    return QJsonValue::fromVariant(value);
}

bool readJson(QIODevice& device, QSettings::SettingsMap& map)
{
    const QByteArray bytes = device.readAll();
    // A store that was created but never written yet.
    if (bytes.trimmed().isEmpty())
        return true;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return false;
    const QJsonObject object = document.object();
    for (auto it = object.begin(); it != object.end(); ++it)
        map.insert(it.key(), fromJson(it.value()));
    return true;
}

bool writeJson(QIODevice& device, const QSettings::SettingsMap& map)
{
    QJsonObject object;
    for (auto it = map.begin(); it != map.end(); ++it)
        object.insert(it.key(), toJson(it.value()));
    const QByteArray bytes = QJsonDocument(object).toJson(QJsonDocument::Indented);
    return device.write(bytes) == bytes.size();
}

QSettings::Format jsonFormat()
{
    static const QSettings::Format format =
        QSettings::registerFormat(QStringLiteral("json"), readJson, writeJson);
    return format;
}

// QSaveFile gives the replacement the permissions of the file it replaces, and a new file the
// umask's; so the file is made owner-only before the first save and kept so afterwards.
bool prepareOwnerOnlyFile(const QString& fileName)
{
    const QFileInfo info(fileName);
    if (!QDir().mkpath(info.absolutePath())) {
        qCWarning(lcDefaults) << "cannot create the folder of" << fileName;
        return false;
    }
    const QByteArray path = QFile::encodeName(fileName);
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        qCWarning(lcDefaults) << "cannot create" << fileName;
        return false;
    }
    const bool owned = ::fchmod(fd, 0600) == 0;
    ::close(fd);
    if (!owned)
        qCWarning(lcDefaults) << "cannot restrict the permissions of" << fileName;
    return owned;
}

// Checked on the file itself: QSettings keeps parsed files cached per process and reports a
// format error only to the instance that first read it.
bool isUnreadable(const QString& fileName)
{
    QFile file(fileName);
    if (!file.exists())
        return false;
    QSettings::SettingsMap ignored;
    return !file.open(QIODevice::ReadOnly) || !readJson(file, ignored);
}

// A store that does not parse would be overwritten by the next save; its bytes are kept aside.
bool setAsideUnreadable(const QString& fileName)
{
    const QString aside = fileName + QStringLiteral(".unreadable-") +
                          QDateTime::currentDateTimeUtc().toString(u"yyyyMMddTHHmmsszzz");
    if (!QFile::rename(fileName, aside)) {
        qCWarning(lcDefaults) << fileName << "is not a valid store and cannot be moved aside;"
                              << "leaving it untouched";
        return false;
    }
    qCWarning(lcDefaults) << fileName << "is not a valid store; moved it to" << aside;
    return true;
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
    const QSettings settings(m_fileName, jsonFormat());
    const QVariant value = settings.value(key);
    if (value.metaType().id() != QMetaType::QStringList)
        return std::nullopt;
    return value.toStringList();
}

bool UserDefaults::setStringArray(const QString& key, const QStringList& list)
{
    if (isUnreadable(m_fileName) && !setAsideUnreadable(m_fileName))
        return false;
    if (!prepareOwnerOnlyFile(m_fileName))
        return false;

    QSettings settings(m_fileName, jsonFormat());
    // Only atomic saves: written to a temporary file, then renamed over the store.
    settings.setAtomicSyncRequired(true);
    settings.setValue(key, list);
    settings.sync();
    if (settings.status() != QSettings::NoError) {
        qCWarning(lcDefaults) << "cannot write" << m_fileName << "status" << settings.status();
        return false;
    }
    return true;
}

} // namespace Quorlix
