#include "quorlix/location/LocationSettings.h"

#include "quorlix/LoggingCategories.h"
#include "quorlix/location/sources/SourceFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QSaveFile>

#include <cmath>

namespace Quorlix {
namespace {

// Parse failures name the offending member ("beacons[1].measuredPower").
struct SettingsError
{
    QString where;
    QString what;
};

double number(const QJsonValue& value, const QString& where, double low, double high)
{
    if (!value.isDouble())
        throw SettingsError{where, QStringLiteral("expected a number")};
    const double x = value.toDouble();
    if (!std::isfinite(x) || x < low || x > high)
        throw SettingsError{where,
                            QStringLiteral("%1 is outside %2 to %3").arg(x).arg(low).arg(high)};
    return x;
}

int integer(const QJsonValue& value, const QString& where, int low, int high)
{
    const double x = number(value, where, low, high);
    if (x != std::floor(x))
        throw SettingsError{where, QStringLiteral("expected a whole number, got %1").arg(x)};
    return static_cast<int>(x);
}

QJsonObject object(const QJsonValue& value, const QString& where,
                   std::initializer_list<QLatin1StringView> known)
{
    if (!value.isObject())
        throw SettingsError{where, QStringLiteral("expected an object")};
    const QJsonObject members = value.toObject();
    for (auto it = members.begin(); it != members.end(); ++it) {
        if (std::find(known.begin(), known.end(), it.key()) == known.end())
            throw SettingsError{where.isEmpty() ? SourceFile::quoted(it.key())
                                                : where + u'.' + SourceFile::quoted(it.key()),
                                QStringLiteral("unknown member")};
    }
    return members;
}

QJsonValue required(const QJsonObject& members, QLatin1StringView name, const QString& where)
{
    if (!members.contains(name))
        throw SettingsError{where + u'.' + name, QStringLiteral("missing")};
    return members[name];
}

QJsonArray list(const QJsonValue& value, const QString& where)
{
    if (!value.isArray())
        throw SettingsError{where, QStringLiteral("expected a list")};
    return value.toArray();
}

bool isAdapterAddress(const QString& text)
{
    static const QRegularExpression form(QStringLiteral("^([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}$"));
    return form.match(text).hasMatch();
}

LocationSettings fromJson(const QJsonValue& document)
{
    using namespace Qt::StringLiterals;
    const QJsonObject top = object(document, {},
                                   {"exitPeriod"_L1, "pathLossExponent"_L1, "immediateLimit"_L1,
                                    "nearLimit"_L1, "beacons"_L1, "receivers"_L1});
    LocationSettings settings;
    if (top.contains("exitPeriod"_L1))
        settings.exitPeriod = std::chrono::milliseconds(
            std::llround(number(top["exitPeriod"_L1], u"exitPeriod"_s, 0.1, 86400) * 1000));
    if (top.contains("pathLossExponent"_L1))
        settings.pathLossExponent = number(top["pathLossExponent"_L1], u"pathLossExponent"_s, 1, 6);
    if (top.contains("immediateLimit"_L1))
        settings.immediateLimitM = number(top["immediateLimit"_L1], u"immediateLimit"_s, 0.01, 100);
    if (top.contains("nearLimit"_L1))
        settings.nearLimitM = number(top["nearLimit"_L1], u"nearLimit"_s, 0.01, 1000);
    if (top.contains("beacons"_L1)) {
        const QJsonArray beacons = list(top["beacons"_L1], u"beacons"_s);
        for (qsizetype i = 0; i < beacons.size(); ++i) {
            const QString at = u"beacons[%1]"_s.arg(i);
            const QJsonObject beacon =
                object(beacons[i], at, {"uuid"_L1, "major"_L1, "minor"_L1, "measuredPower"_L1});
            BeaconId id;
            id.proximityUUID = QUuid::fromString(required(beacon, "uuid"_L1, at).toString());
            if (id.proximityUUID.isNull())
                throw SettingsError{at + u".uuid"_s, u"expected a UUID text"_s};
            id.major = static_cast<quint16>(
                integer(required(beacon, "major"_L1, at), at + u".major"_s, 0, 65535));
            id.minor = static_cast<quint16>(
                integer(required(beacon, "minor"_L1, at), at + u".minor"_s, 0, 65535));
            settings.measuredPower.insert(id, integer(required(beacon, "measuredPower"_L1, at),
                                                      at + u".measuredPower"_s, -127, -1));
        }
    }
    if (top.contains("receivers"_L1)) {
        const QJsonArray receivers = list(top["receivers"_L1], u"receivers"_s);
        for (qsizetype i = 0; i < receivers.size(); ++i) {
            const QString at = u"receivers[%1]"_s.arg(i);
            const QJsonObject receiver = object(receivers[i], at, {"address"_L1, "rssiOffset"_L1});
            const QString address = required(receiver, "address"_L1, at).toString().toUpper();
            if (!isAdapterAddress(address))
                throw SettingsError{at + u".address"_s,
                                    u"expected an adapter address like 00:1A:7D:DA:71:13"_s};
            settings.rssiOffset.insert(address, number(required(receiver, "rssiOffset"_L1, at),
                                                       at + u".rssiOffset"_s, -50, 50));
        }
    }
    const QString problem = settings.problem();
    if (!problem.isEmpty())
        throw SettingsError{{}, problem};
    return settings;
}

QMutex defaultsMutex;
std::optional<LocationSettings> installedDefaults;

LocationSettings fromFile()
{
    const QString path = LocationSettings::file();
    if (path.isEmpty())
        return {};
    QString error;
    std::optional<LocationSettings> settings = LocationSettings::load(path, &error);
    if (!settings) {
        const QString named = qEnvironmentVariable(LocationSettings::fileVariable);
        if (!named.isEmpty())
            error = QStringLiteral("%1=%2: %3")
                        .arg(QLatin1StringView(LocationSettings::fileVariable), named, error);
        qCWarning(lcLocation).noquote() << error + QStringLiteral("; the built-in values stay");
        return {};
    }
    qCDebug(lcLocation).noquote() << QStringLiteral("calibration from %1").arg(path);
    return *settings;
}

} // namespace

size_t qHash(const BeaconId& id, size_t seed) noexcept
{
    return qHashMulti(seed, id.proximityUUID, id.major, id.minor);
}

QString LocationSettings::problem() const
{
    if (exitPeriod.count() <= 0)
        return QStringLiteral("the exit period must be longer than 0 s");
    if (!std::isfinite(pathLossExponent) || pathLossExponent < 1 || pathLossExponent > 6)
        return QStringLiteral("the path-loss exponent %1 is outside 1 to 6").arg(pathLossExponent);
    if (!std::isfinite(immediateLimitM) || !std::isfinite(nearLimitM) || immediateLimitM <= 0 ||
        nearLimitM <= immediateLimitM)
        return QStringLiteral("the band limits %1 m and %2 m must be positive and increasing")
            .arg(immediateLimitM)
            .arg(nearLimitM);
    for (auto it = measuredPower.begin(); it != measuredPower.end(); ++it) {
        if (it.value() < -127 || it.value() > -1)
            return QStringLiteral("the measured power %1 dBm of beacon %2-%3 is outside -127 to -1")
                .arg(it.value())
                .arg(it.key().major)
                .arg(it.key().minor);
    }
    for (auto it = rssiOffset.begin(); it != rssiOffset.end(); ++it) {
        if (!isAdapterAddress(it.key()))
            return QStringLiteral("\"%1\" is not an adapter address")
                .arg(SourceFile::quoted(it.key()));
        if (!std::isfinite(it.value()) || std::abs(it.value()) > 50)
            return QStringLiteral("the RSSI offset %1 dB of receiver %2 is outside -50 to 50")
                .arg(it.value())
                .arg(it.key());
    }
    return {};
}

std::optional<LocationSettings> LocationSettings::parse(const QByteArray& json, const QString& name,
                                                        QString* error)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        const QByteArray before = json.left(parseError.offset);
        *error = QStringLiteral("calibration %1: line %2: not valid JSON (%3)")
                     .arg(name)
                     .arg(before.count('\n') + 1)
                     .arg(parseError.errorString());
        return std::nullopt;
    }
    try {
        return fromJson(document.isObject() ? QJsonValue(document.object())
                                            : QJsonValue(document.array()));
    } catch (const SettingsError& e) {
        *error = e.where.isEmpty()
                     ? QStringLiteral("calibration %1: %2").arg(name, e.what)
                     : QStringLiteral("calibration %1: %2: %3").arg(name, e.where, e.what);
        return std::nullopt;
    }
}

std::optional<LocationSettings> LocationSettings::load(const QString& path, QString* error)
{
    // No real calibration file comes near the limit; a FIFO or a device is refused, not waited on.
    QByteArray bytes;
    QString problem;
    if (!SourceFile::read(path, 16 << 20, &bytes, &problem)) {
        *error = QStringLiteral("calibration %1: cannot be read: %2").arg(path, problem);
        return std::nullopt;
    }
    return parse(bytes, path, error);
}

QByteArray LocationSettings::toJson() const
{
    QJsonObject top;
    top[QLatin1StringView("exitPeriod")] = static_cast<double>(exitPeriod.count()) / 1000.0;
    top[QLatin1StringView("pathLossExponent")] = pathLossExponent;
    top[QLatin1StringView("immediateLimit")] = immediateLimitM;
    top[QLatin1StringView("nearLimit")] = nearLimitM;
    // Sorted, so that a file rewritten with one change differs in one place.
    QList<BeaconId> ids = measuredPower.keys();
    std::sort(ids.begin(), ids.end(), [](const BeaconId& a, const BeaconId& b) {
        return std::tuple(a.proximityUUID.toString(), a.major, a.minor) <
               std::tuple(b.proximityUUID.toString(), b.major, b.minor);
    });
    QJsonArray beacons;
    for (const BeaconId& id : ids) {
        QJsonObject beacon;
        beacon[QLatin1StringView("uuid")] =
            id.proximityUUID.toString(QUuid::WithoutBraces).toUpper();
        beacon[QLatin1StringView("major")] = id.major;
        beacon[QLatin1StringView("minor")] = id.minor;
        beacon[QLatin1StringView("measuredPower")] = measuredPower.value(id);
        beacons.append(beacon);
    }
    top[QLatin1StringView("beacons")] = beacons;
    QStringList addresses = rssiOffset.keys();
    addresses.sort();
    QJsonArray receivers;
    for (const QString& address : addresses) {
        QJsonObject receiver;
        receiver[QLatin1StringView("address")] = address;
        receiver[QLatin1StringView("rssiOffset")] = rssiOffset.value(address);
        receivers.append(receiver);
    }
    top[QLatin1StringView("receivers")] = receivers;
    return QJsonDocument(top).toJson(QJsonDocument::Indented);
}

bool LocationSettings::save(const QString& path, QString* error) const
{
    QSaveFile file(path);
    const QByteArray json = toJson();
    if (!file.open(QIODevice::WriteOnly) || file.write(json) != json.size() || !file.commit()) {
        *error =
            QStringLiteral("calibration %1: cannot be written: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

LocationSettings LocationSettings::defaults()
{
    QMutexLocker lock(&defaultsMutex);
    if (!installedDefaults)
        installedDefaults = fromFile();
    return *installedDefaults;
}

QString LocationSettings::file()
{
    if (const QString named = qEnvironmentVariable(fileVariable); !named.isEmpty())
        return named;
    for (const QString& path : {userFile(), QString::fromLatin1(systemFile)}) {
        if (QFileInfo::exists(path))
            return path;
    }
    return {};
}

QString LocationSettings::userFile()
{
    // A relative XDG_CONFIG_HOME is invalid and ignored, as the base directory rules say.
    QString base = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (!QDir::isAbsolutePath(base))
        base = QDir::homePath() + QStringLiteral("/.config");
    return base + QStringLiteral("/quorlix/calibration.json");
}

bool LocationSettings::setDefaults(const LocationSettings& settings, QString* error)
{
    const QString problem = settings.problem();
    if (!problem.isEmpty()) {
        if (error != nullptr)
            *error = problem;
        return false;
    }
    QMutexLocker lock(&defaultsMutex);
    installedDefaults = settings;
    return true;
}

} // namespace Quorlix
