#!/usr/bin/env bash
# private-bus.sh COMMAND [ARG...]: runs COMMAND with a private dbus-daemon as its system bus
# (DBUS_SYSTEM_BUS_ADDRESS), so that a mock bluetoothd can own org.bluez without root and without
# touching the machine's real Bluetooth stack. The daemon goes away with the command.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
if ! command -v dbus-daemon >/dev/null; then
    echo "private-bus.sh: dbus-daemon is missing (Debian package dbus; scripts/install-deps.sh)" >&2
    exit 1
fi
dir="$(mktemp -d "${TMPDIR:-/tmp}/quorlix-bus.XXXXXX")"
dbus-daemon --config-file="$here/private-bus.conf" --address="unix:path=$dir/system_bus_socket" \
    --fork --print-address=3 --print-pid=4 3>"$dir/address" 4>"$dir/pid"
pid="$(cat "$dir/pid")"
cleanup() {
    kill "$pid" 2>/dev/null || true
    rm -rf "$dir"
}
trap cleanup EXIT
DBUS_SYSTEM_BUS_ADDRESS="$(head -n1 "$dir/address")"
export DBUS_SYSTEM_BUS_ADDRESS
status=0
"$@" || status=$?
exit "$status"
