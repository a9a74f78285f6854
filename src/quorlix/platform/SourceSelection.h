#pragma once

#include "quorlix/platform/LocationManager.h"

#include <QString>

#include <memory>

namespace Quorlix {

/// Picks the beacon source of the default location manager from QUORLIX_LOCATION_SOURCE:
/// "bluez" (the default), "simulate:<scenario.json>" or "replay:<trace.csv>", on the real clock.
/// An unusable choice is reported on the "quorlix.platform.location" logging category and yields
/// a location manager that reports nothing: never another source in its place.
class SourceSelection
{
public:
    static constexpr char variable[] = "QUORLIX_LOCATION_SOURCE";

    static std::shared_ptr<LocationManager> fromEnvironment();
    static std::shared_ptr<LocationManager> fromSetting(const QString& setting);
};

} // namespace Quorlix
