#pragma once

#include "quorlix/location/LocationManager.h"

#include <QStringList>

namespace Quorlix::Testing {

/// A location manager that records every call made on it, one line per call
/// ("startMonitoring VeskDevice e1876979-... 12 7"), and lets a test deliver reports to its
/// delegate as the platform would.
class RecordingLocationManager : public LocationManager
{
public:
    QStringList calls;
    std::shared_ptr<BeaconRegion> lastRegion;

    void startMonitoring(const std::shared_ptr<BeaconRegion>& region) override;
    void stopMonitoring(const std::shared_ptr<BeaconRegion>& region) override;
    void startRangingBeacons(const std::shared_ptr<BeaconRegion>& region) override;
    void stopRangingBeacons(const std::shared_ptr<BeaconRegion>& region) override;
    void startUpdatingLocation() override;

    void enter();
    void exit();
    void range(const QList<Beacon>& beacons);

    /// Installs a factory that makes RecordingLocationManagers and remembers the last one made;
    /// the destructor restores the default factory.
    class Installer
    {
    public:
        Installer();
        ~Installer();
        std::shared_ptr<RecordingLocationManager> last;
        int made = 0;
    };

private:
    void record(const char* call, const std::shared_ptr<BeaconRegion>& region);
};

/// "VeskDevice e1876979-75b5-43de-92cb-2bc1ad6ba999 12 7", "*" for absent numbers, "none" for no
/// region.
QString describe(const BeaconRegion* region);

} // namespace Quorlix::Testing
