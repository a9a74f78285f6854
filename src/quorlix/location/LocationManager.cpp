#include "quorlix/location/LocationManager.h"

namespace Quorlix {

LocationManagerDelegate::~LocationManagerDelegate() = default;
void LocationManagerDelegate::didEnterRegion(LocationManager*, BeaconRegion*) {}
void LocationManagerDelegate::didExitRegion(LocationManager*, BeaconRegion*) {}
void LocationManagerDelegate::didRangeBeacons(LocationManager*, const QList<Beacon>&, BeaconRegion*)
{}

LocationManager::LocationManager() = default;
LocationManager::~LocationManager() = default;

void LocationManager::startMonitoring(const std::shared_ptr<BeaconRegion>&) {}
void LocationManager::stopMonitoring(const std::shared_ptr<BeaconRegion>&) {}
void LocationManager::startRangingBeacons(const std::shared_ptr<BeaconRegion>&) {}
void LocationManager::stopRangingBeacons(const std::shared_ptr<BeaconRegion>&) {}
void LocationManager::startUpdatingLocation() {}

bool LocationManager::applySettings(const LocationSettings& settings, QString* error)
{
    const QString problem = settings.problem();
    if (!problem.isEmpty()) {
        if (error != nullptr)
            *error = problem;
        return false;
    }
    m_settings = settings;
    return true;
}

} // namespace Quorlix
