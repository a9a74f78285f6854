#!/usr/bin/env bash
# Runs one command inside the radio lab: Debian's packaged kernel in QEMU, the host's root shared
# read-only over 9p under a tmpfs overlay (so the host's programs and our build run unchanged),
# with bluetoothd, a private system bus and BlueZ's controller emulator started by guest-init.sh.
# The command's exit code comes back as this script's; its output is printed here.
#
#   tests/radio/lab-vm.sh [--timeout SECONDS] [--keep DIR] [--] COMMAND [ARGS...]
#
# Environment: QUORLIX_LAB_KERNEL (default: newest /boot/vmlinuz-*), QUORLIX_LAB_ACCEL (default:
# kvm when kvm_intel or kvm_amd is loaded, else tcg), QUORLIX_LAB_MEMORY (MiB, default 1024).
# Every QUORLIX_*, GTEST_* and QT_* variable is passed to the command.
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
timeout_s=300
keep=""
while [[ $# -gt 0 ]]; do
    case "$1" in
    --timeout) timeout_s="$2"; shift 2 ;;
    --keep) keep="$2"; shift 2 ;;
    --) shift; break ;;
    -*) echo "lab-vm: unknown option $1" >&2; exit 2 ;;
    *) break ;;
    esac
done
[[ $# -gt 0 ]] || { echo "usage: lab-vm.sh [--timeout S] [--keep DIR] [--] COMMAND [ARGS...]" >&2; exit 2; }

fail() { echo "lab-vm: $*" >&2; exit 3; }

qemu="$(command -v qemu-system-x86_64 || true)"
[[ -n "$qemu" ]] || fail "qemu-system-x86_64 is missing (Debian package qemu-system-x86)"
busybox=/bin/busybox
[[ -x "$busybox" ]] && ! ldd "$busybox" >/dev/null 2>&1 ||
    fail "a static /bin/busybox is missing (Debian package busybox-static)"
kernel="${QUORLIX_LAB_KERNEL:-$(ls -1 /boot/vmlinuz-* 2>/dev/null | sort -V | tail -n1)}"
[[ -r "$kernel" ]] || fail "no readable kernel under /boot (Debian package linux-image-amd64)"
version="${kernel##*/vmlinuz-}"
[[ -d "/lib/modules/$version" ]] || fail "no modules for kernel $version in /lib/modules"
for tool in cpio modprobe btvirt bluetoothd dbus-daemon; do
    command -v "$tool" >/dev/null || [[ -x "/usr/sbin/$tool" || -x "/usr/libexec/bluetooth/$tool" ]] ||
        fail "$tool is missing (see scripts/debian-packages.txt)"
done

run="$(mktemp -d "${TMPDIR:-/tmp}/quorlix-lab.XXXXXX")"
qemu_pid=""
cleanup() {
    if [[ -n "$qemu_pid" ]] && kill -0 "$qemu_pid" 2>/dev/null; then kill -KILL "$qemu_pid" 2>/dev/null || true; fi
    if [[ -n "$keep" ]]; then mkdir -p "$keep" && cp -a "$run/." "$keep/"; fi
    rm -rf "$run"
}
trap cleanup EXIT
trap "exit 130" INT TERM

# The initramfs: busybox, the modules that reach the shared root, and an init that switches to it.
mkdir -p "$run/initramfs/bin" "$run/initramfs/modules" "$run/out"
cp "$busybox" "$run/initramfs/bin/busybox"
: >"$run/initramfs/modules/order"
for module in virtio_pci 9pnet_virtio 9p overlay; do
    modprobe -S "$version" --show-depends "$module" | while read -r _ path _; do
        name="${path##*/}"
        grep -qx "$name" "$run/initramfs/modules/order" && continue
        case "$path" in
        *.ko) cp "$path" "$run/initramfs/modules/$name" ;;
        *.ko.xz) xz -dc "$path" >"$run/initramfs/modules/${name%.xz}"; name="${name%.xz}" ;;
        *.ko.zst) zstd -qdc "$path" >"$run/initramfs/modules/${name%.zst}"; name="${name%.zst}" ;;
        *) continue ;;
        esac
        echo "$name" >>"$run/initramfs/modules/order"
    done
done
cat >"$run/initramfs/init" <<'EOF'
#!/bin/busybox sh
/bin/busybox mkdir -p /proc /sys /dev /lower /rw /root
/bin/busybox mount -t proc proc /proc
/bin/busybox mount -t devtmpfs dev /dev
for m in $(/bin/busybox cat /modules/order); do /bin/busybox insmod /modules/$m; done
/bin/busybox mount -t 9p -o trans=virtio,version=9p2000.L,ro,cache=loose,msize=262144 hostroot /lower ||
    { echo "lab-init: cannot mount the host's root"; /bin/busybox poweroff -f; }
/bin/busybox mount -t tmpfs -o size=256m tmpfs /rw
/bin/busybox mkdir -p /rw/upper /rw/work
/bin/busybox mount -t overlay -o lowerdir=/lower,upperdir=/rw/upper,workdir=/rw/work overlay /root ||
    { echo "lab-init: cannot mount the overlay"; /bin/busybox poweroff -f; }
/bin/busybox umount /proc
/bin/busybox umount /dev
exec /bin/busybox switch_root /root /bin/bash @GUEST_INIT@
EOF
sed -i "s|@GUEST_INIT@|$here/guest-init.sh|" "$run/initramfs/init"
chmod +x "$run/initramfs/init"
(cd "$run/initramfs" && find . | cpio -o -H newc --quiet) >"$run/initramfs.cpio"

# The command, run from the current directory; the passed environment also reaches labctl.sh.
{ env | grep -E '^(QUORLIX_|GTEST_|QT_)[A-Za-z0-9_]*=' || true; } | while IFS='=' read -r name value; do
    printf 'export %s=%q\n' "$name" "$value"
done >"$run/out/environment"
{
    echo "cd $(printf %q "$PWD")"
    printf 'exec'
    printf ' %q' "$@"
    echo
} >"$run/out/command"

accel="${QUORLIX_LAB_ACCEL:-}"
if [[ -z "$accel" ]]; then
    accel=tcg
    if grep -qE '^kvm_(intel|amd) ' /proc/modules 2>/dev/null && [[ -w /dev/kvm ]]; then accel=kvm; fi
fi
cpu=max
[[ "$accel" == kvm ]] && cpu=host

started=$(date +%s)
timeout --kill-after=5 "$timeout_s" "$qemu" \
    -accel "$accel" -cpu "$cpu" -smp 1 -m "${QUORLIX_LAB_MEMORY:-1024}" \
    -kernel "$kernel" -initrd "$run/initramfs.cpio" \
    -append "console=ttyS0 panic=-1 quiet loglevel=4 no_timer_check" \
    -virtfs "local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap" \
    -virtfs "local,path=$run/out,mount_tag=lab,security_model=none" \
    -display none -monitor none -serial "file:$run/console.log" -nodefaults -no-reboot \
    </dev/null >"$run/qemu.log" 2>&1 &
qemu_pid=$!
status=0
wait "$qemu_pid" || status=$?
qemu_pid=""
elapsed=$(($(date +%s) - started))

[[ -f "$run/out/output" ]] && cat "$run/out/output"
if [[ ! -f "$run/out/exit-code" ]]; then
    echo "lab-vm: the guest never reported (qemu status $status after ${elapsed}s, limit ${timeout_s}s)" >&2
    [[ "$status" == 124 || "$status" == 137 ]] && echo "lab-vm: stopped at the time limit" >&2
    echo "--- qemu" >&2
    tail -n 20 "$run/qemu.log" >&2 || true
    echo "--- guest console (last 40 lines)" >&2
    tail -n 40 "$run/console.log" >&2 || true
    exit 3
fi
code="$(cat "$run/out/exit-code")"
echo "lab-vm: guest finished in ${elapsed}s, exit code $code" >&2
if [[ "$code" != 0 ]]; then
    for log in bluetoothd btvirt advertiser; do
        [[ -s "$run/out/$log.log" ]] || continue
        echo "--- $log (last 30 lines)" >&2
        tail -n 30 "$run/out/$log.log" >&2
    done
fi
exit "$code"
