#include "quorlix/ui/PairDelegate.h"

namespace Quorlix {

PairDelegate::~PairDelegate() = default;

} // namespace Quorlix
