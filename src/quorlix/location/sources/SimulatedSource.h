#pragma once

#include "quorlix/location/Clock.h"
#include "quorlix/location/sources/BeaconSource.h"
#include "quorlix/location/sources/Scenario.h"

#include <vector>

namespace Quorlix {

/// Scripted beacons: each advertises at its interval, moves along a distance-over-time path, and
/// reaches the scanner through a log-distance path-loss model with packet loss and Gaussian RSSI
/// noise. Runs on whatever clock the engine gives it (real for the demo, virtual for tests and
/// measurements); the same seed gives the same sightings.
///
/// Scenario time 0 is when scanning is first wanted; pausing the scan does not pause the beacons.
class SimulatedSource : public BeaconSource
{
public:
    explicit SimulatedSource(Scenario scenario);
    ~SimulatedSource() override;

    void setScanning(bool wanted) override;

private:
    struct Emitter;
    void advertise(std::size_t index);

    Scenario m_scenario;
    std::vector<Emitter> m_emitters;
    bool m_started = false;
    std::int64_t m_originNs = 0;
};

} // namespace Quorlix
