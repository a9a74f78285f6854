#pragma once

/// Marks what a shared libquorlix exports; the library is built with hidden visibility, so
/// everything else stays inside it. GCC and Clang use the same attribute on both sides.
#define QUORLIX_EXPORT __attribute__((visibility("default")))
