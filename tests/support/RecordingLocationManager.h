#pragma once

#include "quorlix/location/LocationManager.h"

#include <QStringList>

namespace Quorlix::Testing {

/// "VeskDevice e1876979-75b5-43de-92cb-2bc1ad6ba999 12 7", "*" for absent numbers, "none" for no
/// region.
QString describe(const BeaconRegion* region);

/// A location manager that records every call made on it, one line per call
/// ("startMonitoring VeskDevice e1876979-... 12 7"), and lets a test deliver reports to its
/// delegate as the platform would.
class RecordingLocationManager : public LocationManager
{
public:
    using Region = std::shared_ptr<BeaconRegion>;
    QStringList calls;
    Region lastRegion;

    void startMonitoring(const Region& region) override { record("startMonitoring", region); }
    void stopMonitoring(const Region& region) override { record("stopMonitoring", region); }
    void startRangingBeacons(const Region& region) override
    {
        record("startRangingBeacons", region);
    }
    void stopRangingBeacons(const Region& region) override { record("stopRangingBeacons", region); }
    void startUpdatingLocation() override { calls << QStringLiteral("startUpdatingLocation"); }

    void enter() { delegate->didEnterRegion(this, lastRegion.get()); }
    void exit() { delegate->didExitRegion(this, lastRegion.get()); }
    void range(const QList<Beacon>& beacons)
    {
        delegate->didRangeBeacons(this, beacons, lastRegion.get());
    }

    /// Installs a factory that makes RecordingLocationManagers and remembers the last one made;
    /// the destructor restores the default factory.
    struct Installer
    {
        Installer()
        {
            LocationManager::setFactory(
                [this] { return last = std::make_shared<RecordingLocationManager>(); });
        }
        ~Installer() { LocationManager::setFactory({}); }
        std::shared_ptr<RecordingLocationManager> last;
    };

private:
    void record(const char* call, const Region& region)
    {
        lastRegion = region;
        calls << QString::fromLatin1(call) + u' ' + describe(region.get());
    }
};

} // namespace Quorlix::Testing
