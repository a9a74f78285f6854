#include "quorlix/platform/BeaconSource.h"

#include "quorlix/platform/Clock.h"

namespace Quorlix {

BeaconSource::~BeaconSource() = default;
Clock::~Clock() = default;

} // namespace Quorlix
