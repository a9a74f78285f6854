#pragma once

// The headers use C++20 (defaulted comparisons among others); pkg-config does not choose a language
// standard for its consumers, the CMake package does.
#if __cplusplus < 202002L
#error "Quorlix needs C++20 or newer: compile with -std=c++20"
#endif

/// Everything a host needs: the two managers, the device record, the pairing screen, the location
/// service they run on and the directory check that spares a host their fatal stops.

#include "quorlix/Version.h"
#include "quorlix/events/VeskEventManager.h"
#include "quorlix/location/Beacon.h"
#include "quorlix/location/LocationManager.h"
#include "quorlix/model/BeaconFamily.h"
#include "quorlix/model/VeskDevice.h"
#include "quorlix/pairing/VeskDeviceManager.h"
#include "quorlix/platform/UserDefaults.h"
#include "quorlix/service/DirectoryProbe.h"
#include "quorlix/ui/DeviceListViewController.h"
#include "quorlix/ui/PairDelegate.h"
