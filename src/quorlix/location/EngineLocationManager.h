#pragma once

#include "quorlix/location/Clock.h"
#include "quorlix/location/LocationManager.h"
#include "quorlix/location/RegionEngine.h"
#include "quorlix/location/sources/BeaconSource.h"

#include <memory>

namespace Quorlix {

/// The location service of this platform: a region engine fed by one beacon source, both on one
/// clock. Reports reach the delegate on the clock's thread, the one that created the manager for a
/// real clock. The delegate may change, clear itself or destroy the manager inside a report.
class EngineLocationManager : public LocationManager
{
public:
    /// source may be null: the manager then accepts every call and hears nothing.
    EngineLocationManager(std::shared_ptr<Clock> clock, std::unique_ptr<BeaconSource> source);
    ~EngineLocationManager() override;

    void startMonitoring(const std::shared_ptr<BeaconRegion>& region) override;
    void stopMonitoring(const std::shared_ptr<BeaconRegion>& region) override;
    void startRangingBeacons(const std::shared_ptr<BeaconRegion>& region) override;
    void stopRangingBeacons(const std::shared_ptr<BeaconRegion>& region) override;
    bool applySettings(const LocationSettings& settings, QString* error = nullptr) override;

    RegionEngine& engine() { return *m_engine; }
    Clock& clock() { return *m_clock; }

private:
    void applyToEngine();

    // Declared so that the source goes first and the clock last.
    std::shared_ptr<Clock> m_clock;
    std::unique_ptr<RegionEngine> m_engine;
    std::unique_ptr<BeaconSource> m_source;
};

} // namespace Quorlix
