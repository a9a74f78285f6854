#include "quorlix/platform/LocationManager.h"

#include "quorlix/platform/SourceSelection.h"

#include <QMutex>

namespace Quorlix {

LocationManagerDelegate::~LocationManagerDelegate() = default;
void LocationManagerDelegate::didEnterRegion(LocationManager*, BeaconRegion*) {}
void LocationManagerDelegate::didExitRegion(LocationManager*, BeaconRegion*) {}
void LocationManagerDelegate::didRangeBeacons(LocationManager*, const QList<Beacon>&, BeaconRegion*)
{}

namespace {

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
    return factory ? factory() : SourceSelection::fromEnvironment();
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
