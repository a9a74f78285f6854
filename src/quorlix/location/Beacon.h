#pragma once

#include "quorlix/Export.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>

#include <optional>

namespace Quorlix {
// The namespace's meta-object carries Proximity's names, for QVariant, QDebug and QML.
Q_NAMESPACE_EXPORT(QUORLIX_EXPORT)

/// Coarse distance class of a ranged beacon. Int-based, so codes outside the four named ones can
/// be carried too.
enum class Proximity : int
{
    Unknown = 0,
    Immediate = 1,
    Near = 2,
    Far = 3,
};
Q_ENUM_NS(Proximity)

/// One beacon in a ranging report. A gadget, so that QML and QVariant can read its members (its
/// meta-object exported, for the QML plugin that links the shared library).
struct QUORLIX_EXPORT Beacon
{
    Q_GADGET
    Q_PROPERTY(QUuid proximityUUID MEMBER proximityUUID)
    Q_PROPERTY(quint16 major MEMBER major)
    Q_PROPERTY(quint16 minor MEMBER minor)
    Q_PROPERTY(Quorlix::Proximity proximity MEMBER proximity)
    Q_PROPERTY(int rssi MEMBER rssi)
    Q_PROPERTY(double accuracy MEMBER accuracy)

public:
    QUuid proximityUUID;
    quint16 major = 0;
    quint16 minor = 0;
    Proximity proximity = Proximity::Unknown;
    /// Mean received signal strength in dBm of the readings since the last report (the last
    /// report's value while the beacon is heard at its own, slower pace); 0 when not heard lately.
    int rssi = 0;
    /// Estimated distance in metres; negative when unknown (proximity Unknown). It comes from the
    /// RSSI averaged over about 2 s and the log-distance model (the beacon's measured power at 1 m,
    /// path-loss exponent 2 unless calibrated), so it is a rough range, not a position. On
    /// recordings of a real beacon indoors, with its measured power right, the median error is
    /// about 0.9 m up to 3 m, 1.4 m at 3 to 5 m and 2 to 4 m at 5 to 12 m; beyond about 5 m it is
    /// coarse and mostly too short (median -2 m at 8 to 12 m, -5 m beyond 12 m): use it to order
    /// beacons and tell near from far, not to measure. A transmitter whose measured power is wrong
    /// by 14 dB (a phone) is placed about 5 times too far; calibrate it (LocationSettings).
    double accuracy = -1;

    friend bool operator==(const Beacon&, const Beacon&) = default;
};

/// The order of ranging reports, nearest first: beacons with a distance by distance, those without
/// one after them, ties by major then minor so that the order holds from one report to the next.
/// A strict weak ordering, for std::sort and the like.
QUORLIX_EXPORT bool nearerFirst(const Beacon& a, const Beacon& b);

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
