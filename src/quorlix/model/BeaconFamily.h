#pragma once

#include "quorlix/Export.h"

#include <QString>
#include <QUuid>

/// What every device of the system broadcasts, and how its beacon numbers are written as text.
namespace Quorlix::BeaconFamily {

/// The proximity UUID that every device of the system broadcasts, in its text form.
inline constexpr char16_t proximityUUIDText[] = u"E1876979-75B5-43DE-92CB-2BC1AD6BA999";

/// Identifier of the regions that the managers watch.
inline constexpr char16_t regionIdentifier[] = u"VeskDevice";

/// The proximity UUID parsed from its text; null if the text were not a UUID.
QUORLIX_EXPORT QUuid proximityUUID();

/// Major-minor text: major, "-", minor, both decimal without leading zeros ("1200-7").
QUORLIX_EXPORT QString majorMinorText(quint16 major, quint16 minor);

} // namespace Quorlix::BeaconFamily
