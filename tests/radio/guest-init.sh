#!/bin/bash
# PID 1 of the radio lab's guest (started by lab-vm.sh): mounts what programs expect, brings up the
# Bluetooth stack with labctl.sh, runs the one command the host left in /run/lab/out/command and
# powers off, leaving its exit code, its output and the daemons' logs in the shared folder.
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export HOME=/root LANG=C.UTF-8
here="$(cd "$(dirname "$0")" && pwd)"

mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mkdir -p /dev/pts /dev/shm
mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /run
# /tmp stays the host's, seen through the overlay: a build or checkout may live there.
mkdir -p /run/lab/out
out=/run/lab/out
finish() {
    echo "$1" >"$out/exit-code"
    sync
    /bin/busybox poweroff -f
}
mount -t 9p -o trans=virtio,version=9p2000.L lab "$out" || {
    echo "guest-init: cannot mount the result folder" >/dev/console
    /bin/busybox poweroff -f
}
/bin/busybox ip link set lo up
# shellcheck disable=SC1091
source "$out/environment"

if ! "$here/labctl.sh" up >"$out/setup.log" 2>&1; then
    {
        echo "guest-init: the Bluetooth stack did not come up:"
        cat "$out/setup.log"
    } >>"$out/output"
    finish 4
fi
bash "$out/command" >>"$out/output" 2>&1 </dev/null
code=$?
"$here/labctl.sh" down >>"$out/setup.log" 2>&1
finish "$code"
