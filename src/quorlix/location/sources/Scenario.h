#pragma once

#include <QByteArray>
#include <QString>
#include <QUuid>

#include <optional>
#include <vector>

namespace Quorlix {

/// One scripted beacon of a simulation: what it advertises, how often, how lossy and noisy its
/// radio path is, and how far from the scanner it is over time.
struct ScenarioBeacon
{
    struct PathPoint
    {
        double timeS = 0;
        /// Metres; absent: the beacon is silent from this point to the next.
        std::optional<double> distanceM;
    };

    QUuid uuid;
    quint16 major = 0;
    quint16 minor = 0;
    qint8 measuredPower = -59;
    double intervalS = 0.1;
    double loss = 0;
    double noiseDb = 0;
    QByteArray address;
    std::vector<PathPoint> path;

    /// Where the beacon is at a scenario time: linear between points, absent while silent.
    std::optional<double> distanceAt(double timeS) const;
};

/// A simulation script, read from JSON (see data/scenarios/).
struct Scenario
{
    quint64 seed = 1;
    double pathLossExponent = 2.0;
    /// Adverts arriving weaker than this (dBm) are not received.
    double sensitivityDbm = -100;
    std::vector<ScenarioBeacon> beacons;

    /// On failure sets error to a message naming name and the offending line or member, and
    /// returns nothing.
    static std::optional<Scenario> parse(const QByteArray& json, const QString& name,
                                         QString* error);
    static std::optional<Scenario> load(const QString& path, QString* error);
};

} // namespace Quorlix
