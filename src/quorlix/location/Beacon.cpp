#include "quorlix/location/Beacon.h"

namespace Quorlix {

bool BeaconRegion::matches(const QUuid& uuid, quint16 beaconMajor, quint16 beaconMinor) const
{
    return uuid == proximityUUID && (!major || *major == beaconMajor) &&
           (!minor || *minor == beaconMinor);
}

} // namespace Quorlix
