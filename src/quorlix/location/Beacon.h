#pragma once

#include "quorlix/Export.h"

#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

namespace Quorlix {

/// Coarse distance class of a ranged beacon. Int-based, so codes outside the four named ones can
/// be carried too.
enum class Proximity : int
{
    Unknown = 0,
    Immediate = 1,
    Near = 2,
    Far = 3,
};

/// One beacon in a ranging report.
struct Beacon
{
    QUuid proximityUUID;
    quint16 major = 0;
    quint16 minor = 0;
    Proximity proximity = Proximity::Unknown;
    int rssi = 0;         ///< mean received signal strength in dBm; 0 when not heard lately
    double accuracy = -1; ///< estimated distance in metres; negative when unknown

    friend bool operator==(const Beacon&, const Beacon&) = default;
};

/// A beacon region: one proximity UUID, optionally narrowed to one major and one minor.
struct BeaconRegion
{
    QUuid proximityUUID;
    std::optional<quint16> major;
    std::optional<quint16> minor;
    QString identifier;

    /// Whether a beacon with these numbers belongs to the region.
    QUORLIX_EXPORT bool matches(const QUuid& uuid, quint16 beaconMajor, quint16 beaconMinor) const;

    friend bool operator==(const BeaconRegion&, const BeaconRegion&) = default;
};

} // namespace Quorlix
