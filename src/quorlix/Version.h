#pragma once

extern "C" {
/// The library's version number, 1.0.
extern const double QuorlixVersionNumber;
/// The library's "what" version text, ending with a line end.
extern const unsigned char QuorlixVersionString[];
}
