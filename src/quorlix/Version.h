#pragma once

#include "quorlix/Export.h"

extern "C" {
/// The library's version number, 1.0.
QUORLIX_EXPORT extern const double QuorlixVersionNumber;
/// The library's "what" version text, ending with a line end.
QUORLIX_EXPORT extern const unsigned char QuorlixVersionString[];
}
