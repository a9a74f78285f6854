#include "quorlix/location/Clock.h"

namespace Quorlix {

Clock::~Clock() = default;

} // namespace Quorlix
