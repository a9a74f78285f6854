#pragma once

#include "quorlix/location/Clock.h"
#include "quorlix/location/RegionEngine.h"
#include "quorlix/location/Sighting.h"
#include "quorlix/location/sources/BeaconSource.h"

#include <QString>

#include <functional>
#include <memory>
#include <vector>

class QTimer;

namespace QuorlixTool {

/// One beacon source on one clock, with a region engine beside it: commands read the raw
/// sightings, the engine's entries, exits and ranging, or both. On the real clock it follows the
/// wall; on virtual time (simulated and replayed sources only) it runs as fast as the machine
/// allows, with the same results every time.
class BeaconFeed
{
public:
    using Listener = std::function<void(const Quorlix::Sighting&)>;

    /// Null with problem set when the source setting is unusable.
    static std::unique_ptr<BeaconFeed> create(const QString& sourceSetting, bool virtualTime,
                                              QString* problem);
    ~BeaconFeed();
    BeaconFeed(const BeaconFeed&) = delete;
    BeaconFeed& operator=(const BeaconFeed&) = delete;

    Quorlix::RegionEngine& engine() { return *m_engine; }

    /// Listeners see each sighting before the engine does, so a listener may start a region
    /// that the same sighting then enters.
    void addListener(Listener listener) { m_listeners.push_back(std::move(listener)); }
    /// Starts the time origin, the virtual clock if any, and scanning for the listeners.
    void start();
    /// Feed time since start().
    std::int64_t elapsedNs() const;
    double elapsedS() const { return static_cast<double>(elapsedNs()) / 1e9; }

    /// Runs action every periodNs of feed time, first after one period, until the feed goes.
    void every(std::int64_t periodNs, std::function<void()> action);
    /// Runs action once, afterNs of feed time from now.
    void after(std::int64_t afterNs, std::function<void()> action);

private:
    struct Repeater
    {
        std::int64_t periodNs;
        std::function<void()> action;
        Quorlix::Clock::TimerId id;
    };

    BeaconFeed() = default;
    void updateScanning();
    void arm(Repeater* repeater, std::int64_t dueNs);

    // Declared so that the source goes first and the clock last.
    std::shared_ptr<Quorlix::Clock> m_clock;
    std::unique_ptr<Quorlix::RegionEngine> m_engine;
    std::unique_ptr<Quorlix::BeaconSource> m_source;
    std::unique_ptr<QTimer> m_driver;
    std::vector<Listener> m_listeners;
    std::vector<Quorlix::Clock::TimerId> m_timers;
    std::vector<std::unique_ptr<Repeater>> m_repeaters;
    std::int64_t m_originNs = 0;
    bool m_engineWantsScanning = false;
    bool m_started = false;
};

} // namespace QuorlixTool
