#include "quorlix/LoggingCategories.h"

namespace Quorlix {

Q_LOGGING_CATEGORY(lcBlueZ, "quorlix.platform.bluez")
Q_LOGGING_CATEGORY(lcLocation, "quorlix.platform.location")
Q_LOGGING_CATEGORY(lcDefaults, "quorlix.platform.defaults")
Q_LOGGING_CATEGORY(lcDirectory, "quorlix.service.directory")

} // namespace Quorlix
