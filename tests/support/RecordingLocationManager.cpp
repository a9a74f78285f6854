#include "RecordingLocationManager.h"

namespace Quorlix::Testing {

QString describe(const BeaconRegion* region)
{
    if (region == nullptr)
        return QStringLiteral("none");
    const auto number = [](const std::optional<quint16>& value) {
        return value ? QString::number(*value) : QStringLiteral("*");
    };
    return region->identifier + u' ' + region->proximityUUID.toString(QUuid::WithoutBraces) + u' ' +
           number(region->major) + u' ' + number(region->minor);
}

void RecordingLocationManager::record(const char* call, const std::shared_ptr<BeaconRegion>& region)
{
    lastRegion = region;
    calls << QString::fromLatin1(call) + u' ' + describe(region.get());
}

void RecordingLocationManager::startMonitoring(const std::shared_ptr<BeaconRegion>& region)
{
    record("startMonitoring", region);
}

void RecordingLocationManager::stopMonitoring(const std::shared_ptr<BeaconRegion>& region)
{
    record("stopMonitoring", region);
}

void RecordingLocationManager::startRangingBeacons(const std::shared_ptr<BeaconRegion>& region)
{
    record("startRangingBeacons", region);
}

void RecordingLocationManager::stopRangingBeacons(const std::shared_ptr<BeaconRegion>& region)
{
    record("stopRangingBeacons", region);
}

void RecordingLocationManager::startUpdatingLocation()
{
    calls << QStringLiteral("startUpdatingLocation");
}

void RecordingLocationManager::enter()
{
    if (delegate != nullptr)
        delegate->didEnterRegion(this, lastRegion.get());
}

void RecordingLocationManager::exit()
{
    if (delegate != nullptr)
        delegate->didExitRegion(this, lastRegion.get());
}

void RecordingLocationManager::range(const QList<Beacon>& beacons)
{
    if (delegate != nullptr)
        delegate->didRangeBeacons(this, beacons, lastRegion.get());
}

RecordingLocationManager::Installer::Installer()
{
    LocationManager::setFactory([this] {
        last = std::make_shared<RecordingLocationManager>();
        ++made;
        return last;
    });
}

RecordingLocationManager::Installer::~Installer()
{
    LocationManager::setFactory({});
}

} // namespace Quorlix::Testing
