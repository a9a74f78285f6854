#pragma once

#include "quorlix/platform/BeaconSource.h"
#include "quorlix/platform/Clock.h"

#include <QString>

#include <optional>
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
    struct PathPoint
    {
        double timeS = 0;
        /// Metres; absent: the beacon is silent from this point to the next.
        std::optional<double> distanceM;
    };

    struct ScenarioBeacon
    {
        QUuid uuid;
        quint16 major = 0;
        quint16 minor = 0;
        qint8 measuredPower = -59;
        double intervalS = 0.1;
        double loss = 0;
        double noiseDb = 0;
        QByteArray address;
        std::vector<PathPoint> path;
    };

    struct Scenario
    {
        quint64 seed = 1;
        double pathLossExponent = 2.0;
        /// Adverts arriving weaker than this (dBm) are not received.
        double sensitivityDbm = -100;
        std::vector<ScenarioBeacon> beacons;
    };

    /// Parses a JSON scenario; on failure sets error to a message naming name and the offending
    /// line or member, and returns nothing.
    static std::optional<Scenario> parse(const QByteArray& json, const QString& name,
                                         QString* error);
    static std::optional<Scenario> load(const QString& path, QString* error);

    /// Where a beacon is at a scenario time: linear between points, absent while silent.
    static std::optional<double> distanceAt(const ScenarioBeacon& beacon, double timeS);

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
