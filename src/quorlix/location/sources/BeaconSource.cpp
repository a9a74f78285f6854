#include "quorlix/location/sources/BeaconSource.h"

namespace Quorlix {

BeaconSource::~BeaconSource() = default;

} // namespace Quorlix
