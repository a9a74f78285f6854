#pragma once

#include "quorlix/location/Beacon.h"
#include "quorlix/location/Clock.h"
#include "quorlix/location/LocationSettings.h"
#include "quorlix/location/Sighting.h"

#include <functional>
#include <memory>
#include <vector>

namespace Quorlix {

/// Monitoring and ranging of beacon regions, fed by sightings and driven by a clock; shared by
/// every beacon source.
///
/// Monitoring: a region is entered on its first matching sighting (reported at once, on the next
/// turn of the clock) and exited when no matching sighting arrived for the exit period. Ranging:
/// every second, each ranged region gets the list of its tracked beacons, nearest first. A beacon
/// is reported with its smoothed word and distance while it is heard at its own pace; it is
/// reported Unknown (RSSI 0) once it has been quiet for several of its own reading intervals
/// (never less than a ranging period), and forgotten after twice that, at least the tracking
/// window. Regions are told apart by identifier: starting a region again replaces the earlier one
/// and its state.
///
/// Reports are never made from inside a call into the engine, only from its own timers, so a
/// report handler may call back into the engine or destroy it.
class RegionEngine
{
public:
    using RegionHandler = std::function<void(const std::shared_ptr<BeaconRegion>& region)>;
    using RangingHandler = std::function<void(const QList<Beacon>& beacons,
                                              const std::shared_ptr<BeaconRegion>& region)>;

    static constexpr std::int64_t defaultExitPeriodNs = 30'000'000'000;
    static constexpr std::int64_t rangingIntervalNs = 1'000'000'000;
    /// A beacon unheard this long is no longer ranged and is forgotten, unless its own pace asks
    /// for longer (see Tuning).
    static constexpr std::int64_t trackingWindowNs = 5'000'000'000;
    /// When a quiet beacon counts as unheard.
    struct Tuning
    {
        /// Quiet for this many of its smoothed reading intervals, a beacon is reported Unknown;
        /// 0 reports it Unknown after any ranging period without a reading (the rule before
        /// receivers at 0.2 to 2 readings a second were measured). With random losses the
        /// intervals are about exponential, so 6 leaves e^-6 (0.25%) of the time Unknown.
        double quietIntervals = 6;
        /// Upper bound of that silence: a beacon quiet this long is Unknown whatever its pace.
        std::int64_t maxQuietNs = 30'000'000'000;
    };
    /// Upper bound of tracked beacons; beyond it the one heard least recently is forgotten.
    static constexpr std::size_t maxTrackedBeacons = 4096;

    explicit RegionEngine(Clock& clock);
    RegionEngine(Clock& clock, Tuning tuning);
    ~RegionEngine();
    RegionEngine(const RegionEngine&) = delete;
    RegionEngine& operator=(const RegionEngine&) = delete;

    RegionHandler entered;
    RegionHandler exited;
    RangingHandler ranged;
    /// Told when scanning becomes wanted (some region monitored or ranged) or no longer wanted.
    std::function<void(bool wanted)> scanningWanted;

    /// Null regions are ignored.
    void startMonitoring(const std::shared_ptr<BeaconRegion>& region);
    /// Forgets the region's state; reports nothing, not even a pending entry.
    void stopMonitoring(const std::shared_ptr<BeaconRegion>& region);
    void startRanging(const std::shared_ptr<BeaconRegion>& region);
    void stopRanging(const std::shared_ptr<BeaconRegion>& region);

    /// Takes one sighting, stamped on this engine's clock.
    void addSighting(const Sighting& sighting);

    /// The silence after which a monitored region is exited; takes effect at once.
    void setExitPeriodNs(std::int64_t periodNs);
    /// Exit period, distance model and calibration (measured power per beacon, RSSI offset per
    /// receiver); takes effect at once, for beacons already tracked too. The values are taken as
    /// they are: LocationManager::applySettings() refuses bad ones.
    void applySettings(const LocationSettings& settings);
    std::int64_t exitPeriodNs() const { return m_exitPeriodNs; }
    bool isScanning() const { return m_scanning; }
    std::size_t trackedCount() const;

private:
    struct State;
    void updateScanning();
    void armExitTimer();
    void onFlush();
    void onExitTimer();
    void onTick();
    void scheduleFlush();
    std::int64_t quietAfterNs(double meanIntervalNs) const;

    Clock& m_clock;
    Tuning m_tuning;
    std::int64_t m_exitPeriodNs = defaultExitPeriodNs;
    bool m_scanning = false;
    std::unique_ptr<State> m_state;
    // A handler may destroy the engine; delivery loops check this before going on.
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace Quorlix
