#include "quorlix/events/VeskEventManager.h"

#include "quorlix/LoggingCategories.h"
#include "quorlix/model/BeaconFamily.h"
#include "quorlix/platform/Checked.h"
#include "quorlix/platform/Fatal.h"
#include "quorlix/platform/Log.h"
#include "quorlix/platform/MainQueue.h"
#include "quorlix/service/DirectoryAnswer.h"
#include "quorlix/service/DirectoryClient.h"

namespace Quorlix {
namespace {

constexpr char className[] = "Quorlix.VeskEventManager";

LocationManager& require(const std::shared_ptr<LocationManager>& manager)
{
    if (!manager)
        Fatal::noLocationManager();
    return *manager;
}

QStringView piece(const QList<QStringView>& pieces, qsizetype index)
{
    if (index >= pieces.size())
        Fatal::indexOutOfRange();
    return pieces[index];
}

std::int64_t parsePiece(QStringView text)
{
    const std::optional<std::int64_t> value = Checked::parseInt64(text);
    if (!value)
        Fatal::notANumber();
    return *value;
}

// A major-minor text that the steps below stop on came from the directory: say so first, with the
// URL, since the stops themselves do not tell.
void diagnoseMajorMinor(const QString& url, const QString& majorMinor,
                        const QList<QStringView>& pieces)
{
    QString cause;
    if (pieces.size() < 2) {
        cause = QStringLiteral("is not <major>-<minor>");
    } else {
        for (const QStringView text : {pieces[0], pieces[1]}) {
            const std::optional<std::int64_t> value = Checked::parseInt64(text);
            if (!value)
                cause = QStringLiteral("has \"%1\", not a number").arg(text);
            else if (*value < 0 || *value > 65535)
                cause = QStringLiteral("has %1, out of range (0 to 65535)").arg(*value);
            if (!cause.isEmpty())
                break;
        }
    }
    if (!cause.isEmpty())
        qCWarning(lcDirectory).noquote()
            << QStringLiteral("GET %1: MajorMinor \"%2\" %3").arg(url, majorMinor.left(200), cause);
}

} // namespace

// Entry and exit are mirror images; this names what differs between them.
struct VeskEventManager::RegionEventKind
{
    const char16_t* reportLine;
    const char16_t* duplicateLine;
    const char16_t* acceptLine;
    QDateTime VeskEventManager::*lastAccepted;
    bool VeskEventManager::*flagSetOnAccept;
    bool VeskEventManager::*flagClearedByAction;
    DeviceCallback VeskEventManager::*handler;
};

VeskEventManager::VeskEventManager() = default;

VeskEventManager::~VeskEventManager()
{
    // The location manager only points at us; it must not call a delegate that is gone. Nothing
    // else is stopped: monitoring and ranging are left running on purpose.
    if (locationManager && locationManager->delegate == this)
        locationManager->delegate = nullptr;
}

std::shared_ptr<VeskEventManager> VeskEventManager::create(const QString& deviceID)
{
    return create<VeskEventManager>(deviceID);
}

std::shared_ptr<VeskEventManager> VeskEventManager::create()
{
    Fatal::unimplementedInitializer("init()", className);
}

void VeskEventManager::init()
{
    Fatal::unimplementedInitializer("init()", className);
}

void VeskEventManager::initWithDeviceID(const QString& deviceID)
{
    Log::line(QStringLiteral("Event Manager with device id"));
    Log::line(deviceID);

    locationManager = LocationManager::create();
    require(locationManager).delegate = this;
    require(locationManager).pausesLocationUpdatesAutomatically = false;

    const QString url = DirectoryClient::deviceUrl(deviceID);
    const QByteArray data = getJSON(url);
    const QString majorMinor = getMajorMinor(data);

    const QList<QStringView> pieces =
        QStringView(majorMinor).split(u'-', Qt::SkipEmptyParts, Qt::CaseSensitive);
    diagnoseMajorMinor(url, majorMinor, pieces);
    const std::int64_t major = parsePiece(piece(pieces, 0));
    const std::int64_t minor = parsePiece(piece(pieces, 1));

    const QUuid uuid = BeaconFamily::proximityUUID();
    if (uuid.isNull())
        Fatal::noFamilyUUID();
    const quint16 regionMajor = Checked::toUInt16(major);
    const quint16 regionMinor = Checked::toUInt16(minor);

    beaconRegion = std::make_shared<BeaconRegion>(BeaconRegion{
        uuid, regionMajor, regionMinor, QString::fromUtf16(BeaconFamily::regionIdentifier)});

    require(locationManager).startMonitoring(beaconRegion);
    require(locationManager).startRangingBeacons(beaconRegion);
    require(locationManager).startUpdatingLocation();
}

void VeskEventManager::onEntry(DeviceCallback handler)
{
    entryHandler = std::move(handler);
}

void VeskEventManager::onRange(DeviceCallback handler)
{
    rangeHandler = std::move(handler);
}

void VeskEventManager::onExit(DeviceCallback handler)
{
    exitHandler = std::move(handler);
}

void VeskEventManager::onUpdate(DeviceCallback handler)
{
    updateHandler = std::move(handler);
}

void VeskEventManager::filter(qint64 seconds)
{
    filterTime = seconds;
}

void VeskEventManager::didEnterRegion(LocationManager*, BeaconRegion*)
{
    static const RegionEventKind entry{u"got enter from cl",
                                       u"duplicate enter",
                                       u"entering",
                                       &VeskEventManager::lastEnter,
                                       &VeskEventManager::cancelExit,
                                       &VeskEventManager::cancelEnter,
                                       &VeskEventManager::entryHandler};
    regionEvent(entry);
}

void VeskEventManager::didExitRegion(LocationManager*, BeaconRegion*)
{
    static const RegionEventKind exit{u"got exit from cl",
                                      u"duplicate exit",
                                      u"exiting",
                                      &VeskEventManager::lastExit,
                                      &VeskEventManager::cancelEnter,
                                      &VeskEventManager::cancelExit,
                                      &VeskEventManager::exitHandler};
    regionEvent(exit);
}

void VeskEventManager::regionEvent(const RegionEventKind& kind)
{
    Log::line(QString::fromUtf16(kind.reportLine));
    const QDateTime now = QDateTime::currentDateTimeUtc();

    QDateTime& lastAccepted = this->*kind.lastAccepted;
    if (lastAccepted.isValid()) {
        const double interval = static_cast<double>(lastAccepted.msecsTo(now)) / 1000.0;
        // Nanoseconds compared with seconds, on purpose: with any filterTime of 1 or more, every
        // report after an accepted one is a repeat until the host resets the last accepted time.
        const double threshold = static_cast<double>(Checked::multiply(filterTime, 1000000000));
        if (interval - threshold < 0) {
            Log::line(QString::fromUtf16(kind.duplicateLine));
            return;
        }
    }

    Log::line(QString::fromUtf16(kind.acceptLine));
    lastAccepted = now;
    const std::int64_t delay = Checked::toInt64(static_cast<double>(filterTime) * 1000000000.0);
    this->*kind.flagSetOnAccept = true;

    // The action keeps the manager alive until it has run, and it cannot be cancelled.
    MainQueue::after(delay, [self = shared_from_this(), &kind] {
        self.get()->*kind.flagClearedByAction = false;
        // A copy: the handler may replace itself while it runs.
        const DeviceCallback handler = self.get()->*kind.handler;
        if (handler)
            handler(std::make_shared<VeskDevice>());
    });
}

void VeskEventManager::didRangeBeacons(LocationManager*, const QList<Beacon>& beacons,
                                       BeaconRegion*)
{
    reportRanging(beacons, rangeHandler);
}

void VeskEventManager::reportRanging(const QList<Beacon>& beacons, const DeviceCallback& handler)
{
    if (beacons.isEmpty() || !handler)
        return;
    const DeviceCallback current = handler; // the handler may replace itself while it runs
    const Beacon& first = beacons.first();
    current(rangingRecord(first.rssi, static_cast<int>(first.proximity)));
}

std::shared_ptr<VeskDevice> VeskEventManager::rangingRecord(int rssi, int proximityCode)
{
    auto device = std::make_shared<VeskDevice>();
    device->rssi = QString::number(rssi);
    // Independent tests in this order: Near and Far before Immediate and Unknown.
    if (proximityCode == static_cast<int>(Proximity::Near))
        device->distance = QStringLiteral("Near");
    if (proximityCode == static_cast<int>(Proximity::Far))
        device->distance = QStringLiteral("Far");
    if (proximityCode == static_cast<int>(Proximity::Immediate))
        device->distance = QStringLiteral("Immediate");
    if (proximityCode == static_cast<int>(Proximity::Unknown))
        device->distance = QStringLiteral("Unknown");
    return device;
}

QByteArray VeskEventManager::getJSON(const QString& url)
{
    return DirectoryClient::fetch(url);
}

QString VeskEventManager::getMajorMinor(const QByteArray& data)
{
    return DirectoryAnswer::textMember(DirectoryAnswer::parse(data), QStringLiteral("MajorMinor"));
}

} // namespace Quorlix
