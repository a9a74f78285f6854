#pragma once

#include "quorlix/Export.h"
#include "quorlix/location/Beacon.h"
#include "quorlix/location/LocationSettings.h"

#include <functional>
#include <memory>

namespace Quorlix {

class LocationManager;

/// Receives a location manager's reports, on the thread that created the location manager.
/// Pointers may be null.
class QUORLIX_EXPORT LocationManagerDelegate
{
public:
    virtual ~LocationManagerDelegate();

    virtual void didEnterRegion(LocationManager* manager, BeaconRegion* region);
    virtual void didExitRegion(LocationManager* manager, BeaconRegion* region);
    virtual void didRangeBeacons(LocationManager* manager, const QList<Beacon>& beacons,
                                 BeaconRegion* region);
};

/// The location service: monitors beacon regions (entry and exit) and ranges the beacons in them.
/// This base class accepts every call and reports nothing; the engine behind the beacon sources
/// derives from it.
class QUORLIX_EXPORT LocationManager
{
public:
    using Factory = std::function<std::shared_ptr<LocationManager>()>;

    LocationManager();
    virtual ~LocationManager();
    LocationManager(const LocationManager&) = delete;
    LocationManager& operator=(const LocationManager&) = delete;

    /// The platform's location service, made by the installed factory; by default the beacon
    /// source that QUORLIX_LOCATION_SOURCE names, with LocationSettings::defaults().
    static std::shared_ptr<LocationManager> create();
    /// Installs the factory that create() uses; an empty function restores the default.
    static void setFactory(Factory factory);

    /// Non-owning; the delegate clears it when it goes away.
    LocationManagerDelegate* delegate = nullptr;
    bool pausesLocationUpdatesAutomatically = true;

    virtual void startMonitoring(const std::shared_ptr<BeaconRegion>& region);
    virtual void stopMonitoring(const std::shared_ptr<BeaconRegion>& region);
    virtual void startRangingBeacons(const std::shared_ptr<BeaconRegion>& region);
    virtual void stopRangingBeacons(const std::shared_ptr<BeaconRegion>& region);
    virtual void startUpdatingLocation();

    /// Takes effect at once; values with a problem are refused (false, and error says why) and
    /// nothing changes.
    virtual bool applySettings(const LocationSettings& settings, QString* error = nullptr);
    const LocationSettings& settings() const { return m_settings; }

private:
    LocationSettings m_settings = LocationSettings::defaults();
};

} // namespace Quorlix
