#pragma once

#include <QString>

namespace Quorlix::Quick {

/// The calibration file check of the Qt Quick types. The library reads the file named by
/// QUORLIX_CALIBRATION when it makes a location manager, and a file that does not read only costs
/// a log line there; the types say so as their error instead, before they start.
class CalibrationCheck
{
public:
    /// Why the calibration file does not read; empty when it reads or none is named.
    static QString problem();
};

} // namespace Quorlix::Quick
