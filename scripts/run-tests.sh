#!/usr/bin/env bash
# Installs what is missing, then configures, builds (warnings are errors) and runs every test,
# first in a plain build, then in a build with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
bash scripts/install-deps.sh

jobs="$(nproc)"
run_suite() {
    local dir="$1"
    shift
    echo "=== configure $dir"
    cmake -S . -B "$dir" -G Ninja -DQUORLIX_WERROR=ON "$@"
    echo "=== build $dir"
    cmake --build "$dir" -j "$jobs"
    echo "=== test $dir"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 300
}

run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
# Qt's own objects that live until exit are not leaks of ours.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1"
export LSAN_OPTIONS="suppressions=$root/scripts/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
run_suite build-sanitize -DCMAKE_BUILD_TYPE=Debug -DQUORLIX_SANITIZE=ON \
    -DQUORLIX_BUILD_BENCHMARKS=OFF -DQUORLIX_BUILD_EXAMPLES=OFF
