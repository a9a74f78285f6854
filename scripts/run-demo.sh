#!/usr/bin/env bash
# Installs what is missing (Debian 12), builds quorlix-demo and runs it: in a window when there is
# a display, otherwise headless for 20 seconds, printing its event log. Screenshots go to
# build/demo-screenshots/: main-window.png when the demo ends, and pairing-screen.png once a
# pairing lists a device. A headless run pairs by itself, so it writes both; on a display the
# pairing screen's is written only if you press Pair (the demo says so in its log).
# Extra arguments go to quorlix-demo (see: bash scripts/run-demo.sh --help).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
bash scripts/install-deps.sh

echo "=== configure build"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORLIX_WERROR=ON >/dev/null
echo "=== build quorlix-demo"
cmake --build build --target quorlix-demo -j "$(nproc)"

shots="$root/build/demo-screenshots"
# Only this run's pictures are listed at the end.
rm -f "$shots"/main-window.png "$shots"/pairing-screen.png
echo "=== run quorlix-demo (screenshots go to $shots)"
status=0
build/examples/demo/quorlix-demo --screenshots "$shots" "$@" || status=$?
if compgen -G "$shots/*.png" >/dev/null; then
    echo "=== screenshots written:"
    ls -1 "$shots"/*.png
fi
exit "$status"
