#!/bin/bash
# CPU and memory of `quorlix publish` under load: 100 family beacons, each heard twice a second
# (a simulated scenario on the real clock), published to a mosquitto broker on a loopback port,
# for SECONDS (default 60), by ROOMS publishers at once (default 1; 4 is a building that quorlix
# rooms decides over). A measurement, not a test:
#
#   bench/publish/publish-load.sh build/tools/quorlix/quorlix [SECONDS] [BEACONS] [ROOMS]
#
# Prints the first publisher's CPU time (user + system) as a share of one core, its peak resident
# memory (from /usr/bin/time), and the messages a subscriber received from all of them.
set -euo pipefail
quorlix=$(realpath "${1:?usage: publish-load.sh <quorlix program> [seconds] [beacons]}")
seconds=${2:-60}
beacons=${3:-100}
rooms=${4:-1}
work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\n' "$port" > "$work/mosquitto.conf"
/usr/sbin/mosquitto -c "$work/mosquitto.conf" > "$work/mosquitto.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
    sleep 0.05
done

python3 - "$beacons" > "$work/load.json" <<'PY'
import json, sys
count = int(sys.argv[1])
beacons = [{"uuid": "E1876979-75B5-43DE-92CB-2BC1AD6BA999", "major": 1 + i // 50,
            "minor": i % 50, "measuredPower": -59, "interval": 0.5, "loss": 0.0, "noise": 3,
            "path": [[0, 0.5 + (i % 16) * 0.5]]} for i in range(count)]
json.dump({"seed": 11, "beacons": beacons}, sys.stdout)
PY

mosquitto_sub -h 127.0.0.1 -p "$port" -t 'quorlix/#' -t 'homeassistant/#' > "$work/received" &
pids+=($!)
for room in $(seq 2 "$rooms"); do
    "$quorlix" publish --broker "127.0.0.1:$port" --room "bench$room" \
        --source "simulate:$work/load.json" --seconds "$seconds" > /dev/null &
    pids+=($!)
done
/usr/bin/time -f '%U %S %e %M' -o "$work/time" \
    "$quorlix" publish --broker "127.0.0.1:$port" --room bench --source "simulate:$work/load.json" \
    --seconds "$seconds" > "$work/publish.log"
sleep 0.5
read -r user system elapsed maxrss < "$work/time"
cpu=$(python3 -c "print(f'{($user + $system) / $elapsed * 100:.1f}')")
echo "publish: $rooms room(s), $beacons beacons x 2 adverts/s for ${elapsed} s"
echo "  CPU:     ${user} s user + ${system} s system = ${cpu} % of one core"
echo "  memory:  ${maxrss} KiB peak resident"
messages=$(wc -l < "$work/received")
echo "  MQTT:    $messages messages received by a subscriber ($(python3 -c "print(f'{$messages / $elapsed:.0f}')")/s)"
