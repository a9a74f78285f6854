#include "quorlix/model/BeaconFamily.h"

namespace Quorlix::BeaconFamily {

QUuid proximityUUID()
{
    return QUuid::fromString(QStringView(proximityUUIDText));
}

QString majorMinorText(quint16 major, quint16 minor)
{
    return QString::number(major) + u'-' + QString::number(minor);
}

} // namespace Quorlix::BeaconFamily
