#!/usr/bin/env bash
# Dependencies between the library's folders point one way; this fails on an include that runs
# against the grain. Usage: check-layers.sh [source root]
set -euo pipefail
cd "${1:-$(dirname "$0")/..}/src/quorlix"
# folder: the folders it must not include
declare -A forbidden=(
    [model]="service events pairing ui platform location rooms quick"
    [service]="events pairing ui location rooms quick"
    [platform]="model service events pairing ui location rooms quick"
    [location]="model service events pairing ui platform rooms quick"
    [rooms]="model service events pairing ui platform quick"
    [ui]="service events pairing location rooms quick"
    [events]="pairing ui rooms quick"
    [pairing]="quick"
)
status=0
for folder in "${!forbidden[@]}"; do
    for other in ${forbidden[$folder]}; do
        if hits=$(grep -rn "#include \"quorlix/$other/" "$folder"); then
            echo "$folder/ must not include $other/:"
            echo "$hits"
            status=1
        fi
    done
done
# The Qt Quick layer stands on the public API alone: the umbrella header and its own files.
if hits=$(grep -rn '#include "quorlix/' quick | grep -v '#include "quorlix/quick/'); then
    echo "quick/ uses only the public API (<quorlix/Quorlix.h>):"
    echo "$hits"
    status=1
fi
# The interface the managers see knows no backend.
if hits=$(grep -n '#include "quorlix/location/\(sources/\|EngineLocationManager\|RegionEngine\|SourceSelection\)' \
    location/LocationManager.h location/LocationManager.cpp); then
    echo "LocationManager must not know its backends:"
    echo "$hits"
    status=1
fi
exit $status
