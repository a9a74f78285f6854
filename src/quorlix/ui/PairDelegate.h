#pragma once

#include "quorlix/Export.h"

#include <QString>

namespace Quorlix {

/// Receives the choice made on the device list screen.
class QUORLIX_EXPORT PairDelegate
{
public:
    virtual ~PairDelegate();

    /// The chosen item, or "" when the user cancelled.
    virtual void itemPaired(const QString& item) = 0;
};

} // namespace Quorlix
