#pragma once

#include "quorlix/location/LocationManager.h"
#include "quorlix/location/sources/BeaconSource.h"

#include <QString>

#include <memory>

/// The default factory of LocationManager::create(): picks the beacon source from
/// QUORLIX_LOCATION_SOURCE, "bluez" (the default), "simulate:<scenario.json>" or
/// "replay:<trace.csv>", on the real clock. An unusable choice is reported on the
/// "quorlix.platform.location" logging category and yields a location manager that reports
/// nothing: never another source in its place.
namespace Quorlix::SourceSelection {

inline constexpr char variable[] = "QUORLIX_LOCATION_SOURCE";

std::shared_ptr<LocationManager> fromEnvironment();
std::shared_ptr<LocationManager> fromSetting(const QString& setting);
/// The beacon source a setting names, without an engine (for tools that want raw sightings);
/// null with problem set when the setting is unusable.
std::unique_ptr<BeaconSource> sourceFor(const QString& setting, QString* problem);

} // namespace Quorlix::SourceSelection
