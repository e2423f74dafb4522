#!/usr/bin/env bash
# pelsu on a virtual desktop with a tray host: its icon is embedded in the tray, its main
# window is on the screen, and choosing Exit in the tray icon's menu ends it with status 0
# after the whole shut-down. Skips (77) when Xvfb, trayer, xdotool or a session bus is missing.
# Usage: desktopSmoke.sh PELSU
set -uo pipefail
pelsu="$(realpath "$1")"
if [[ "${PELSU_SMOKE_INSIDE:-}" != 1 ]]; then
    for tool in Xvfb trayer xdotool xwininfo dbus-run-session; do
        command -v "$tool" >/dev/null || { echo "no $tool here: nothing to check"; exit 77; }
    done
    work="$(mktemp -d /tmp/pelsu-smoke-XXXXXX)"
    exec 3>"$work/display"
    Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
    xvfb=$!
    trap 'kill "$xvfb" 2>/dev/null; wait "$xvfb" 2>/dev/null; rm -rf "$work"' EXIT
    for _ in $(seq 100); do [[ -s "$work/display" ]] && break; sleep 0.1; done
    DISPLAY=":$(head -1 "$work/display")" PELSU_SMOKE_INSIDE=1 PELSU_SMOKE_WORK="$work" \
        dbus-run-session -- "$0" "$pelsu"
    exit $?
fi

work="$PELSU_SMOKE_WORK"
fail() { echo "desktop smoke: $*"; tail -20 "$work/pelsu.out"; exit 1; }
# Waits up to 30 s for a command to succeed.
waitFor() {
    for _ in $(seq 300); do "$@" && return 0; sleep 0.1; done
    return 1
}
trayer --edge top --align right --widthtype pixel --width 100 --height 30 \
    --SetDockType true >"$work/trayer.log" 2>&1 &
trayer=$!
trap 'kill "$trayer" "${client:-}" 2>/dev/null' EXIT
panel() { xdotool search --classname '^panel$' 2>/dev/null | head -1; }
hasPanel() { [[ -n "$(panel)" ]]; }
waitFor hasPanel || fail "the tray host did not start"

unset QT_QPA_PLATFORM
"$pelsu" --home "$work/home" >"$work/pelsu.out" 2>&1 &
client=$!
# The icon: a window of pelsu's inside the tray host's panel.
trayIcon() { xwininfo -tree -id "$(panel)" | awk '/\("pelsu" "Pelsu"\)/ { print $1; exit }'; }
hasTrayIcon() { [[ -n "$(trayIcon)" ]]; }
# The main window: a top-level window of pelsu's, of a window's size, on the screen.
mainWindow() {
    local id
    for id in $(xwininfo -root -children |
        awk '/"Pelsu": \("pelsu" "Pelsu"\)/ { split($5, s, "[x+]"); if (s[1] >= 400 && s[2] >= 300) print $1 }'); do
        xwininfo -id "$id" | grep -q "Map State: IsViewable" && return 0
    done
    return 1
}
waitFor hasTrayIcon || fail "no tray icon in the tray host"
waitFor mainWindow || fail "no main window on the screen"

# Exit from the tray icon's menu: the last entry.
read -r x y < <(xwininfo -id "$(trayIcon)" |
    awk '/Absolute upper-left X/ { x = $4 } /Absolute upper-left Y/ { y = $4 } END { print x + 5, y + 5 }')
xdotool mousemove "$x" "$y" click 3
sleep 1
xdotool key Up Return
for _ in $(seq 300); do kill -0 "$client" 2>/dev/null || break; sleep 0.1; done
kill -0 "$client" 2>/dev/null && fail "Exit in the tray menu did not end it"
wait "$client"
status=$?
[[ $status -eq 0 ]] || fail "it ended with status $status"
log="$(find "$work/home" -name pelsu.log | head -1)"
grep -q "Unloading BlackBox." "$log" || fail "the shut-down did not finish"
echo "pelsu showed its tray icon and main window, and Exit ended it with status 0"
