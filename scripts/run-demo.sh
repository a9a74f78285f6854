#!/usr/bin/env bash
# Installs what is missing (Debian 12), builds quorlix-demo and runs it: in a window when there is
# a display, otherwise headless for 20 seconds, printing its event log. Either way the screenshots
# of the main window and of the pairing screen go to build/demo-screenshots/.
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
echo "=== run quorlix-demo (screenshots go to $shots)"
status=0
build/examples/demo/quorlix-demo --screenshots "$shots" "$@" || status=$?
if ((status == 0)) && compgen -G "$shots/*.png" >/dev/null; then
    echo "=== screenshots:"
    ls -1 "$shots"/*.png
fi
exit "$status"
