#include "quorlix/Version.h"

extern "C" {
const double QuorlixVersionNumber = 1.0;
const unsigned char QuorlixVersionString[] = "@(#)PROGRAM:Quorlix  PROJECT:Quorlix-1\n";
}
