#pragma once

#include <quorlix/Quorlix.h>

#include <QtQml/qqml.h>

namespace Quorlix::Quick {

/// The names of Quorlix::Proximity's values, for QML (Proximity.Near). A type standing for the
/// namespace Quorlix, whose meta-object carries the enum: Qt 6.4's type registrar writes the
/// foreign name into a QMetaType::fromType<>(), which a namespace cannot be.
struct ProximityNames
{
    static inline const QMetaObject& staticMetaObject = Quorlix::staticMetaObject;
};

namespace ProximityForeign {
Q_NAMESPACE
QML_FOREIGN_NAMESPACE(Quorlix::Quick::ProximityNames)
QML_NAMED_ELEMENT(Proximity)
} // namespace ProximityForeign

/// Beacon values in QML, with their members (presence.beacon.accuracy).
struct BeaconForeign
{
    Q_GADGET
    QML_FOREIGN(Quorlix::Beacon)
    QML_VALUE_TYPE(beacon)
};

} // namespace Quorlix::Quick
