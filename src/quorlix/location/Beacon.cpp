#include "quorlix/location/Beacon.h"

#include <tuple>

namespace Quorlix {

bool nearerFirst(const Beacon& a, const Beacon& b)
{
    const bool aKnown = a.accuracy >= 0;
    const bool bKnown = b.accuracy >= 0;
    if (aKnown != bKnown)
        return aKnown;
    if (aKnown && a.accuracy != b.accuracy)
        return a.accuracy < b.accuracy;
    return std::tie(a.major, a.minor) < std::tie(b.major, b.minor);
}

bool BeaconRegion::matches(const QUuid& uuid, quint16 beaconMajor, quint16 beaconMinor) const
{
    return uuid == proximityUUID && (!major || *major == beaconMajor) &&
           (!minor || *minor == beaconMinor);
}

} // namespace Quorlix
