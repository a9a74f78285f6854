#include "quorlix/platform/LocationManager.h"

#include <QLoggingCategory>
#include <QMutex>

namespace Quorlix {

Q_LOGGING_CATEGORY(lcLocation, "quorlix.platform.location")

LocationManagerDelegate::~LocationManagerDelegate() = default;
void LocationManagerDelegate::didEnterRegion(LocationManager*, BeaconRegion*) {}
void LocationManagerDelegate::didExitRegion(LocationManager*, BeaconRegion*) {}
void LocationManagerDelegate::didRangeBeacons(LocationManager*, const QList<Beacon>&, BeaconRegion*)
{}

namespace {

std::shared_ptr<LocationManager> makeDefault()
{
    qCWarning(lcLocation) << "no beacon source is available; the location manager reports nothing";
    return std::make_shared<LocationManager>();
}

// Guarded because hosts may install a factory from any thread.
QMutex factoryMutex;
LocationManager::Factory installedFactory;

} // namespace

LocationManager::LocationManager() = default;
LocationManager::~LocationManager() = default;

std::shared_ptr<LocationManager> LocationManager::create()
{
    Factory factory;
    {
        QMutexLocker lock(&factoryMutex);
        factory = installedFactory;
    }
    return factory ? factory() : makeDefault();
}

void LocationManager::setFactory(Factory factory)
{
    QMutexLocker lock(&factoryMutex);
    installedFactory = std::move(factory);
}

void LocationManager::startMonitoring(const std::shared_ptr<BeaconRegion>&) {}
void LocationManager::stopMonitoring(const std::shared_ptr<BeaconRegion>&) {}
void LocationManager::startRangingBeacons(const std::shared_ptr<BeaconRegion>&) {}
void LocationManager::stopRangingBeacons(const std::shared_ptr<BeaconRegion>&) {}
void LocationManager::startUpdatingLocation() {}

} // namespace Quorlix
