#pragma once

#include "quorlix/location/Beacon.h"

#include <cstdint>

namespace Quorlix {

/// The distance model: log-distance path loss and the band limits. Defaults: exponent 2 (free
/// space; indoor line-of-sight paths measure 1.6 to 2.2), Immediate closer than 0.5 m, Near up to
/// 3 m, Far beyond.
struct DistanceModel
{
    double pathLossExponent = 2.0;
    double immediateLimitM = 0.5;
    double nearLimitM = 3.0;
};

/// Turns one beacon's noisy RSSI readings into a steady proximity word and distance estimate:
/// a time-weighted moving average of the RSSI, the log-distance path-loss model, and bands with
/// hysteresis.
class ProximityFilter
{
public:
    using Model = DistanceModel;
    /// The two choices that trade steadiness against reaction time; the quality program (bench/)
    /// sweeps them.
    struct Tuning
    {
        /// Averaging time constant. At the usual 100 ms advertising interval and 4 dB of noise, 2 s
        /// brings the spread of the average down to about 0.6 dB.
        std::int64_t timeConstantNs = 2'000'000'000;
        /// The average must cross a band limit by this much before the word changes (2.5 dB is a
        /// factor 1.33 in distance), four times the average's own spread.
        double hysteresisDb = 2.5;
    };
    /// A reading weighs at least as much as one at the shortest advertising interval (20 ms), so
    /// that readings with equal time stamps still count.
    static constexpr std::int64_t minimumStepNs = 20'000'000;
    /// Measured power to assume when a beacon advertises 0 (not calibrated).
    static constexpr int defaultMeasuredPower = -59;

    ProximityFilter();
    explicit ProximityFilter(Tuning tuning);

    void addReading(std::int64_t timeNs, double rssi);
    /// Re-evaluates the word from the average; the first call takes the band the average lies in.
    Proximity update(int measuredPower, const Model& model = {});
    /// The current word without re-evaluating: Unknown before any update().
    Proximity proximity() const { return m_band; }
    bool hasReadings() const { return m_primed; }
    double smoothedRssi() const { return m_smoothed; }
    /// Estimated distance in metres from the average; -1 without readings.
    double distance(int measuredPower, const Model& model = {}) const;

    /// The log-distance model and its inverse.
    static double distanceFor(double rssi, int measuredPower, const Model& model = {});
    static double rssiAt(double distanceM, int measuredPower, const Model& model = {});
    /// The band a distance lies in, without hysteresis.
    static Proximity bandFor(double distanceM, const Model& model = {});

private:
    Tuning m_tuning;
    bool m_primed = false;
    double m_smoothed = 0;
    std::int64_t m_lastNs = 0;
    Proximity m_band = Proximity::Unknown;
};

} // namespace Quorlix
