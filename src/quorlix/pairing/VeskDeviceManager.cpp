#include "quorlix/pairing/VeskDeviceManager.h"

#include "quorlix/model/BeaconFamily.h"
#include "quorlix/pairing/NearbyDiscovery.h"
#include "quorlix/platform/Fatal.h"
#include "quorlix/platform/Log.h"
#include "quorlix/platform/UserDefaults.h"
#include "quorlix/service/DirectoryAnswer.h"
#include "quorlix/service/DirectoryClient.h"

namespace Quorlix {
namespace {

constexpr char className[] = "Quorlix.VeskDeviceManager";

LocationManager& require(const std::shared_ptr<LocationManager>& manager)
{
    if (!manager)
        Fatal::noLocationManager();
    return *manager;
}

DeviceListViewController& require(const std::shared_ptr<DeviceListViewController>& screen)
{
    if (!screen)
        Fatal::noListScreen();
    return *screen;
}

QString quoted(const QString& text)
{
    QString escaped = text;
    escaped.replace(u'\\', QStringLiteral("\\\\")).replace(u'"', QStringLiteral("\\\""));
    return u'"' + escaped + u'"';
}

// "nil" when nothing is stored, ["1047", "1048"] (or []) when a list is.
QString describeStored(const std::optional<QStringList>& stored)
{
    if (!stored)
        return QStringLiteral("nil");
    QStringList parts;
    for (const QString& key : *stored)
        parts << quoted(key);
    return u'[' + parts.join(QStringLiteral(", ")) + u']';
}

// ["12-7": "1047", "300-1": "2001"], or [:] when empty; in the iteration order of the save.
QString describeKeys(const QHash<QString, QString>& keys)
{
    if (keys.isEmpty())
        return QStringLiteral("[:]");
    QStringList parts;
    for (auto it = keys.constBegin(); it != keys.constEnd(); ++it)
        parts << quoted(it.key()) + QStringLiteral(": ") + quoted(it.value());
    return u'[' + parts.join(QStringLiteral(", ")) + u']';
}

} // namespace

VeskDeviceManager::VeskDeviceManager() = default;

VeskDeviceManager::~VeskDeviceManager()
{
    // The location manager only points at us; it must not call a delegate that is gone. Nothing
    // else is stopped: the scan is left running on purpose.
    if (locationManager && locationManager->delegate == this)
        locationManager->delegate = nullptr;
}

std::shared_ptr<VeskDeviceManager> VeskDeviceManager::create(const QString& appID)
{
    return create<VeskDeviceManager>(appID);
}

std::shared_ptr<VeskDeviceManager> VeskDeviceManager::create()
{
    Fatal::unimplementedInitializer("init()", className);
}

void VeskDeviceManager::init()
{
    Fatal::unimplementedInitializer("init()", className);
}

void VeskDeviceManager::initWithAppID(const QString& appID)
{
    // The appID is only logged: it is neither kept nor sent anywhere.
    Log::line(QStringLiteral("Quorlix starting using appID: "));
    Log::line(appID);

    const std::optional<QStringList> stored =
        UserDefaults::standard().stringArray(veskDeviceKeysConstant);
    Log::line(describeStored(stored));
    const QStringList storedKeys = stored.value_or(QStringList());

    Log::line(QStringLiteral("loading device keys"));
    Log::line(QString::number(storedKeys.size()));
    for (const QString& storedKey : storedKeys) {
        Log::line(QStringLiteral("loading ") + storedKey);
        const QString key = getKey(getJSON(DirectoryClient::deviceUrl(storedKey)));
        // Kept as it is: a key the service no longer knows ends the set-up here, leaving the
        // manager without a location manager, so that any later scan call stops the process.
        if (key.isEmpty())
            return;
        // Under the stored key, not the returned one: a service answering with another key files
        // the entry under "".
        keys.insert(getMajorMinor(storedKey), storedKey);
    }

    locationManager = LocationManager::create();
    require(locationManager).delegate = this;
    require(locationManager).pausesLocationUpdatesAutomatically = false;
}

void VeskDeviceManager::startLooking()
{
    const QUuid uuid = BeaconFamily::proximityUUID();
    if (uuid.isNull())
        Fatal::noFamilyUUID();
    beaconRegion = std::make_shared<BeaconRegion>(BeaconRegion{
        uuid, std::nullopt, std::nullopt, QString::fromUtf16(BeaconFamily::regionIdentifier)});
    require(locationManager).startMonitoring(beaconRegion);
    require(locationManager).startRangingBeacons(beaconRegion);
}

void VeskDeviceManager::stopLooking()
{
    require(locationManager).stopRangingBeacons(beaconRegion);
    require(locationManager).stopMonitoring(beaconRegion);
}

void VeskDeviceManager::pair(QWidget* host, PairingCompletion completion)
{
    Log::line(QStringLiteral("pair"));
    startLooking();
    listViewController = std::make_shared<DeviceListViewController>();
    pairCompletion = std::move(completion);
    // The screen holds the manager strongly, as the manager holds the screen.
    require(listViewController).delegate = shared_from_this();
    require(listViewController).present(host, true);
}

void VeskDeviceManager::itemPaired(const QString& item)
{
    Log::line(QStringLiteral("saving device keys"));
    Log::line(describeKeys(keys));
    QStringList values;
    for (auto it = keys.constBegin(); it != keys.constEnd(); ++it)
        values << it.value();
    UserDefaults::standard().setStringArray(veskDeviceKeysConstant, values);

    // A copy: the completion may replace itself while it runs.
    const PairingCompletion completion = pairCompletion;
    if (!completion)
        Fatal::noPairingCompletion();
    completion(item);
}

void VeskDeviceManager::unpair()
{
    Log::line(QStringLiteral("unpair"));
}

void VeskDeviceManager::setInfo(const QString&, const QString&)
{
    Log::line(QStringLiteral("setInfo device"));
}

QString VeskDeviceManager::fetchInfo(const QString& key)
{
    return extractField(key, QStringLiteral("Info"));
}

QString VeskDeviceManager::getType(const QString& key)
{
    return extractField(key, QStringLiteral("Type"));
}

QString VeskDeviceManager::getSubType(const QString& key)
{
    return extractField(key, QStringLiteral("SubType"));
}

QString VeskDeviceManager::getMajorMinor(const QString& key)
{
    return extractField(key, QStringLiteral("MajorMinor"));
}

QString VeskDeviceManager::extractField(const QString& key, const QString& field)
{
    const auto cached = devices.constFind(key);
    if (cached == devices.constEnd())
        return {};
    return DirectoryAnswer::textMember(*cached, field);
}

void VeskDeviceManager::didRangeBeacons(LocationManager*, const QList<Beacon>& beacons,
                                        BeaconRegion*)
{
    if (beacons.isEmpty())
        return;
    // A lookup may drop the host's last reference to us; stay alive until the report is done.
    const auto self = weak_from_this().lock();
    QList<NearbyDiscovery::Reading> readings;
    readings.reserve(beacons.size());
    for (const Beacon& beacon : beacons)
        readings.append({beacon.major, beacon.minor});
    NearbyDiscovery::run(readings, keys, listViewController, [this](const QString& majorMinor) {
        return getKey(getJSON(DirectoryClient::majorMinorUrl(majorMinor)));
    });
}

QByteArray VeskDeviceManager::getJSON(const QString& url)
{
    return DirectoryClient::fetch(url);
}

QString VeskDeviceManager::getKey(const QByteArray& data)
{
    const QVariant answer = DirectoryAnswer::parse(data);
    const QString key = DirectoryAnswer::deviceKey(answer);
    if (!key.isEmpty())
        devices.insert(key, answer);
    return key;
}

} // namespace Quorlix
