#include "quorlix/quick/CalibrationCheck.h"

#include <quorlix/Quorlix.h>

namespace Quorlix::Quick {

QString CalibrationCheck::problem()
{
    const QString path = qEnvironmentVariable(LocationSettings::fileVariable);
    if (path.isEmpty())
        return {};
    QString error;
    if (!LocationSettings::load(path, &error))
        return QStringLiteral("bad calibration: %1").arg(error);
    return {};
}

} // namespace Quorlix::Quick
