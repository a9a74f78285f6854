#include "RecordingLocationManager.h"

namespace Quorlix::Testing {

QString describe(const BeaconRegion* region)
{
    if (region == nullptr)
        return QStringLiteral("none");
    const auto number = [](const std::optional<quint16>& value) {
        return value ? QString::number(*value) : QStringLiteral("*");
    };
    return region->identifier + u' ' + region->proximityUUID.toString(QUuid::WithoutBraces) + u' ' +
           number(region->major) + u' ' + number(region->minor);
}

} // namespace Quorlix::Testing
