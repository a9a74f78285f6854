#!/usr/bin/env bash
# Dependencies between the library's folders point one way; this fails on an include that runs
# against the grain. Usage: check-layers.sh [source root]
set -euo pipefail
cd "${1:-$(dirname "$0")/..}/src/quorlix"
# folder: the folders it must not include
declare -A forbidden=(
    [model]="service events pairing ui platform location rooms"
    [service]="events pairing ui location rooms"
    [platform]="model service events pairing ui location rooms"
    [location]="model service events pairing ui platform rooms"
    [rooms]="model service events pairing ui platform"
    [ui]="service events pairing location rooms"
    [events]="pairing ui rooms"
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
# The interface the managers see knows no backend.
if hits=$(grep -n '#include "quorlix/location/\(sources/\|EngineLocationManager\|RegionEngine\|SourceSelection\)' \
    location/LocationManager.h location/LocationManager.cpp); then
    echo "LocationManager must not know its backends:"
    echo "$hits"
    status=1
fi
exit $status
