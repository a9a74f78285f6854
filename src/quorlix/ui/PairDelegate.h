#pragma once

#include <QString>

namespace Quorlix {

/// Receives the choice made on the device list screen.
class PairDelegate
{
public:
    virtual ~PairDelegate();

    /// The chosen item, or "" when the user cancelled.
    virtual void itemPaired(const QString& item) = 0;
};

} // namespace Quorlix
