#!/usr/bin/env bash
# desktop-session.sh COMMAND [ARG...]: runs COMMAND on a desktop of its own: an Xvfb X server
# (1280x800) on a display number the server picks itself, with openbox as its window manager,
# COMMAND's Qt on the xcb platform. Both go away with the command. Without the Debian packages
# (xvfb, openbox, xdotool, x11-utils, imagemagick; scripts/install-deps.sh) COMMAND runs offscreen
# with QUORLIX_NO_DESKTOP saying what is missing, so that the desktop tests skip with that reason.
set -euo pipefail

# Listing the tests needs no display.
for argument in "$@"; do
    if [[ "$argument" == --gtest_list_tests ]]; then
        exec "$@"
    fi
done

missing=()
for tool in Xvfb:xvfb openbox:openbox xdotool:xdotool xprop:x11-utils import:imagemagick; do
    command -v "${tool%%:*}" >/dev/null || missing+=("${tool%%:*} (Debian package ${tool#*:})")
done
if ((${#missing[@]})); then
    QUORLIX_NO_DESKTOP="missing: ${missing[*]}; scripts/install-deps.sh installs them"
    echo "desktop-session.sh: $QUORLIX_NO_DESKTOP" >&2
    export QUORLIX_NO_DESKTOP
    exec "$@"
fi

dir="$(mktemp -d "${TMPDIR:-/tmp}/quorlix-desktop.XXXXXX")"
xvfb=""
wm=""
cleanup() {
    for pid in $wm $xvfb; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$dir"
}
trap cleanup EXIT

# wait_for SECONDS WHAT COMMAND...: polls COMMAND every 0.1 s for at most SECONDS.
wait_for() {
    local tries=$(($1 * 10)) what="$2"
    shift 2
    until "$@" >/dev/null 2>&1; do
        if ((--tries <= 0)); then
            echo "desktop-session.sh: $what did not come up; its output:" >&2
            cat "$dir"/*.log >&2 || true
            exit 1
        fi
        sleep 0.1
    done
}

# -displayfd: the server takes the first free display number and writes it once it accepts
# clients, so two sessions never race for the same number.
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp -noreset 3>"$dir/display" \
    >"$dir/xvfb.log" 2>&1 &
xvfb=$!
wait_for 20 "Xvfb" grep -q . "$dir/display"
DISPLAY=":$(head -n1 "$dir/display")"
export DISPLAY

# A configuration home of its own: openbox reads its defaults (/etc/xdg/openbox/rc.xml, where
# Alt+F4 closes the active window) rather than the user's.
export XDG_CONFIG_HOME="$dir/config" XDG_CACHE_HOME="$dir/cache"
openbox --sm-disable >"$dir/openbox.log" 2>&1 &
wm=$!
# A window manager that follows EWMH announces itself on the root window once it manages it.
wait_for 20 "openbox" sh -c 'xprop -root _NET_SUPPORTING_WM_CHECK | grep -q "window id"'

export QT_QPA_PLATFORM=xcb
unset WAYLAND_DISPLAY QUORLIX_NO_DESKTOP
status=0
"$@" || status=$?
exit "$status"
