#!/usr/bin/env bash
# Fails when a tracked C++ file differs from what the committed .clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z '*.cpp' '*.h' | xargs -0 -r clang-format --dry-run -Werror
