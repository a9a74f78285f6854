#!/bin/bash
# The radio lab's switchboard inside the guest: brings the Bluetooth stack up and down and applies
# the faults the tests ask for.
#
#   labctl.sh up | down
#   labctl.sh bluetoothd stop|crash|start  the daemon stopped (SIGTERM, as systemctl does: it
#                                        powers its adapters off), killed (SIGKILL: the kernel
#                                        goes on with its scan), or started again
#
# A "start" or "on" returns once the scanning adapters are powered on D-Bus again: the stack is back
# and the rest is up to its clients.
#   labctl.sh controllers stop|start     btvirt killed (every virtual controller gone) or started again
#   labctl.sh power hciN on|off          an adapter powered through bluetoothd's D-Bus API
#   labctl.sh rssi DBM                   the RSSI every following advert carries
#   labctl.sh beacons "MAJOR:MINOR@HZ ..."  the beacons on the air (none: silence)
#
# hci0 is the air: our advertiser holds it through an HCI user channel, away from bluetoothd.
# hci1.. (QUORLIX_LAB_SCANNERS of them, default 2) are the adapters bluetoothd scans with.
set -u
lab=/run/lab
out=$lab/out
bin="${QUORLIX_LAB_BIN:-}"
scanners="${QUORLIX_LAB_SCANNERS:-2}"
mkdir -p "$lab"

log() { echo "labctl: $*"; }
die() { echo "labctl: $*" >&2; exit 1; }

# Waits up to $1 seconds for the command after it to succeed.
wait_for() {
    local limit=$(($1 * 10)) i
    shift
    for ((i = 0; i < limit; i++)); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.1
    done
    return 1
}

stop_pid() {
    local file="$lab/$1.pid" pid
    [[ -f "$file" ]] || return 0
    pid="$(cat "$file")"
    rm -f "$file"
    kill "-${2:-KILL}" "$pid" 2>/dev/null
    wait_for 5 bash -c "! kill -0 $pid" || log "$1 ($pid) did not stop"
}

bluez_get() { # object property
    dbus-send --system --print-reply --reply-timeout=2000 --dest=org.bluez "/org/bluez/$1" \
        org.freedesktop.DBus.Properties.Get string:org.bluez.Adapter1 "string:$2"
}
powered() { bluez_get "$1" Powered | grep -q 'boolean true'; }
unpowered() { bluez_get "$1" Powered | grep -q 'boolean false'; }

start_dbus() {
    mkdir -p /run/dbus
    cat >"$lab/system-bus.conf" <<'EOF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
EOF
    dbus-daemon --config-file="$lab/system-bus.conf" --fork --print-pid >"$lab/dbus.pid" ||
        die "dbus-daemon did not start"
    wait_for 10 test -S /run/dbus/system_bus_socket || die "no system bus socket"
}

start_bluetoothd() {
    mkdir -p /var/lib/bluetooth
    # AutoEnable as Debian ships it: adapters that appear are powered on by bluetoothd.
    printf '[General]\n[Policy]\nAutoEnable=true\n' >"$lab/main.conf"
    # The debug log goes to memory: written through 9p line by line it slows the guest enough that
    # bluetoothd, never idle, stops emitting its D-Bus signals. "down" copies it out.
    /usr/libexec/bluetooth/bluetoothd -n -d -f "$lab/main.conf" >>"$lab/bluetoothd.log" 2>&1 &
    echo $! >"$lab/bluetoothd.pid"
    wait_for 20 dbus-send --system --print-reply --dest=org.bluez / \
        org.freedesktop.DBus.ObjectManager.GetManagedObjects || die "bluetoothd did not appear on the bus"
}

# The kernel resets a new controller at once; btvirt answers only once it has made all of them,
# and on a slow machine the first one's reset can time out ("Opcode 0x0c03 failed: -110"), which
# leaves that controller dead. Such a start is thrown away and made again.
start_controllers() {
    local attempt i seen
    for attempt in 1 2 3; do
        rm -f "$lab/advertiser.ready"
        seen=$(dmesg | wc -l)
        LD_PRELOAD="$bin/libquorlix_lab_rssi.so" QUORLIX_LAB_RSSI_FILE="$lab/rssi" \
            nice -n -10 btvirt -L -l$((scanners + 1)) >>"$out/btvirt.log" 2>&1 &
        echo $! >"$lab/btvirt.pid"
        for ((i = 0; i <= scanners; i++)); do
            wait_for 10 test -e "/sys/class/bluetooth/hci$i" || die "controller hci$i did not appear"
        done
        claim_air "$seen" && wait_scanners && return 0
        log "controllers did not come up (attempt $attempt): $(dmesg | grep -i 'hci[0-9]' | tail -n 3 | tr '\n' ' ')"
        stop_pid btvirt
    done
    die "the virtual controllers did not come up"
}

# The advertiser takes hci0 once nobody has it up; bluetoothd may have powered it on first.
claim_air() { # dmesg lines from before the controllers were made
    local i
    for ((i = 0; i < 150; i++)); do
        [[ -f "$lab/advertiser.ready" ]] && return 0
        dmesg | tail -n "+$(($1 + 1))" | grep -q 'hci0: Opcode 0x0c03 failed' && break
        if powered hci0 2>/dev/null; then
            dbus-send --system --print-reply --reply-timeout=2000 --dest=org.bluez /org/bluez/hci0 \
                org.freedesktop.DBus.Properties.Set string:org.bluez.Adapter1 string:Powered \
                variant:boolean:false >/dev/null 2>&1
        fi
        sleep 0.1
    done
    log "the advertiser could not take hci0"
    return 1
}

start_advertiser() {
    [[ -f "$lab/beacons" ]] || echo "12:7@10" >"$lab/beacons"
    "$bin/quorlix_lab_advertiser" --hci 0 --beacons "$lab/beacons" --ready "$lab/advertiser.ready" \
        --sent "$lab/sent" \
        >>"$out/advertiser.log" 2>&1 &
    echo $! >"$lab/advertiser.pid"
}

set_power() { # hciN on|off
    local value=false
    [[ "$2" == on ]] && value=true
    dbus-send --system --print-reply --reply-timeout=5000 --dest=org.bluez "/org/bluez/$1" \
        org.freedesktop.DBus.Properties.Set string:org.bluez.Adapter1 string:Powered \
        "variant:boolean:$value" >/dev/null || die "could not power $1 $2"
    if [[ "$2" == on ]]; then wait_for 10 powered "$1"; else wait_for 10 unpowered "$1"; fi ||
        die "$1 did not go $2"
}

wait_scanners() {
    local i
    for ((i = 1; i <= scanners; i++)); do
        wait_for 20 powered "hci$i" || { log "hci$i was not powered on by bluetoothd"; return 1; }
    done
}

case "${1:-}" in
up)
    [[ -x "$bin/quorlix_lab_advertiser" ]] || die "QUORLIX_LAB_BIN ($bin) has no quorlix_lab_advertiser"
    [[ -f "$lab/rssi" ]] || echo -60 >"$lab/rssi"
    modprobe bluetooth && modprobe hci_vhci || die "cannot load the bluetooth modules"
    start_dbus
    start_bluetoothd
    start_advertiser
    start_controllers
    log "up: $(ls /sys/class/bluetooth | tr '\n' ' ')"
    ;;
down)
    stop_pid advertiser
    stop_pid bluetoothd
    stop_pid btvirt
    stop_pid dbus
    cp "$lab/bluetoothd.log" "$out/" 2>/dev/null
    ;;
bluetoothd)
    case "${2:-}" in
    stop) stop_pid bluetoothd TERM ;;
    crash) stop_pid bluetoothd KILL ;;
    start) start_bluetoothd && wait_scanners ;;
    *) die "bluetoothd stop|crash|start" ;;
    esac
    ;;
controllers)
    case "${2:-}" in
    stop) stop_pid btvirt ;;
    start) start_controllers ;;
    *) die "controllers stop|start" ;;
    esac
    ;;
power) [[ $# -eq 3 ]] || die "power hciN on|off"; set_power "$2" "$3" ;;
rssi) [[ "${2:-}" =~ ^-?[0-9]+$ ]] || die "rssi DBM"; echo "$2" >"$lab/rssi.new" && mv "$lab/rssi.new" "$lab/rssi" ;;
beacons) echo "${2:-}" >"$lab/beacons.new" && mv "$lab/beacons.new" "$lab/beacons" ;;
*) die "unknown command '${1:-}' (up, down, bluetoothd, controllers, power, rssi, beacons)" ;;
esac
