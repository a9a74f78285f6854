#pragma once

#include <QLoggingCategory>

/// The library's diagnostic categories, apart from its log lines on standard output. Their names
/// are documented in the README; QT_LOGGING_RULES turns them on and off.
namespace Quorlix {

Q_DECLARE_LOGGING_CATEGORY(lcBlueZ)     ///< "quorlix.platform.bluez": the BlueZ source
Q_DECLARE_LOGGING_CATEGORY(lcLocation)  ///< "quorlix.platform.location": source selection
Q_DECLARE_LOGGING_CATEGORY(lcDefaults)  ///< "quorlix.platform.defaults": the key store
Q_DECLARE_LOGGING_CATEGORY(lcDirectory) ///< "quorlix.service.directory": why a lookup stopped

} // namespace Quorlix
