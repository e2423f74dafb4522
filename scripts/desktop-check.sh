#!/usr/bin/env bash
# The desktop client on a real (virtual) desktop, for a person to look at: Xvfb with a tray host
# (trayer) and a notification server (dunst) on a session bus of its own, then pelsu with a
# local feed channel. It takes screenshots of the tray icon and the welcome, of a notification
# per new item after items are added to the feed, clicks one (its link goes to a stand-in
# browser that writes it to a file), then of the main window with a channel open, the tray's
# menu, the options dialog and the new-channel wizard's preview, and ends pelsu with SIGTERM,
# checking the log's eleven shut-down lines. Screenshots and logs go to the output directory;
# with PELSU_SCREENSHOTS=DIR the README's pictures are copied there as well.
#
# Usage: scripts/desktop-check.sh [BUILD_DIR] [OUTPUT_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=$(realpath "${1:-build}")
OUT=$(realpath -m "${2:-/tmp/pelsu-desktop-check}")
DISPLAY_NUMBER=${PELSU_CHECK_DISPLAY:-:55}

if [ "${PELSU_CHECK_INSIDE:-}" != 1 ]; then
    source scripts/common.sh
    ensure_packages xvfb xauth x11-utils dbus trayer dunst xdotool imagemagick
    for tool in Xvfb dbus-run-session trayer dunst dunstctl import xdotool; do
        command -v "$tool" >/dev/null || { echo "desktop-check: $tool is missing" >&2; exit 1; }
    done
    [ -x "$BUILD/trayClient/pelsu" ] || { echo "desktop-check: build pelsu first" >&2; exit 1; }
    rm -rf "$OUT"
    mkdir -p "$OUT"
    Xvfb "$DISPLAY_NUMBER" -screen 0 1280x800x24 -nolisten tcp >"$OUT/xvfb.log" 2>&1 &
    xvfb=$!
    trap 'kill "$xvfb" 2>/dev/null; wait "$xvfb" 2>/dev/null || true' EXIT
    for _ in $(seq 100); do
        DISPLAY=$DISPLAY_NUMBER xdpyinfo >/dev/null 2>&1 && break
        sleep 0.1
    done
    # Everything else runs on a session bus that ends with it.
    DISPLAY=$DISPLAY_NUMBER PELSU_CHECK_INSIDE=1 dbus-run-session -- "$0" "$BUILD" "$OUT"
    exit $?
fi

# --- inside the session ---
export DISPLAY=$DISPLAY_NUMBER
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
}
trap cleanup EXIT

step() { echo "--- $*"; }
# Waits up to 30 s for a command to succeed.
waitFor() {
    for _ in $(seq 300); do
        if "$@"; then return 0; fi
        sleep 0.1
    done
    echo "desktop-check: gave up waiting for: $*" >&2
    return 1
}
shot() {
    import -window root "$OUT/$1.png"
    echo "screenshot: $OUT/$1.png"
}

# A browser stand-in: the client opens links through xdg-open.
mkdir -p "$OUT/bin"
cat >"$OUT/bin/xdg-open" <<SCRIPT
#!/bin/sh
echo "\$1" >>"$OUT/opened-urls.txt"
SCRIPT
chmod +x "$OUT/bin/xdg-open"
export PATH="$OUT/bin:$PATH"

cat >"$OUT/dunstrc" <<'CONFIG'
[global]
    width = 360
    height = 120
    origin = top-right
    offset = 10x50
    font = DejaVu Sans 10
    frame_width = 2
    frame_color = "#f28c1e"
    format = "<b>%s</b>\n%b"
    icon_position = left
    max_icon_size = 48
[urgency_normal]
    background = "#202020"
    foreground = "#ffffff"
    timeout = 8
CONFIG
step "notification server and tray host"
dunst -config "$OUT/dunstrc" >"$OUT/dunst.log" 2>&1 &
pids+=($!)
trayer --edge top --align right --widthtype pixel --width 160 --height 36 \
    --SetDockType true --transparent false --tint 0x404040 >"$OUT/trayer.log" 2>&1 &
pids+=($!)
# Asking dunst itself would start a second one through the bus before the first has its name.
serverUp() {
    dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.NameHasOwner string:org.freedesktop.Notifications 2>/dev/null |
        grep -q true
}
waitFor serverUp

# A home with one local feed channel, so the notifications are about that feed alone.
home="$OUT/home"
user=$(id -un)
userDir="$home/Users/$user"
mkdir -p "$userDir/Channels"
feed="$OUT/local-feed.xml"
writeFeed() {
    {
        echo '<?xml version="1.0"?><rss version="2.0"><channel><title>Local news</title>'
        echo '<link>http://news.example.org/</link><description>A feed on this disk</description>'
        for n in "$@"; do
            echo "<item><title>Local story $n</title><link>http://news.example.org/story/$n</link>"
            echo "<guid>http://news.example.org/story/$n</guid><description>Story $n.</description></item>"
        done
        echo '</channel></rss>'
    } >"$feed"
}
writeFeed 1
printf '[Config]\nRssChannelUrl=%s\n' "$feed" >"$userDir/Channels/Local.rss"
# What a new user directory gets (this one is made by hand), and the tray menu lists the channel.
cp "$BUILD/Resources/DefaultChannelSummary.template" "$BUILD/Resources/DefaultChannelSummary.gif" \
    "$userDir/"
mkdir -p "$userDir/DesktopSettings"
printf '[Desktop Settings]\nUseQuickAccessMenu=1\n' >"$userDir/DesktopSettings/Local.ini"
printf '[Global Options]\nNotificationBalloonDisplayTime=6\n' >"$userDir/config.ini"
log="$userDir/Logs/pelsu.log"
logHas() { [ -f "$log" ] && [ "$(grep -c -- "$1" "$log")" -ge "${2:-1}" ]; }

step "pelsu starts"
XDG_CONFIG_HOME="$OUT/config" "$BUILD/trayClient/pelsu" --home "$home" >"$OUT/pelsu.out" 2>&1 &
pelsu=$!
pids+=($pelsu)
waitFor logHas "The tray icon is shown."
waitFor logHas "Processing notification request: \[SimpleNotificationRequest"
sleep 1 # let the notification and the icon be drawn
shot 1-tray-icon-and-welcome
# Every notification is shown in turn once the one before has gone.
dunstctl close-all
waitFor logHas "Processing notification request: \[NewFeedItemNotificationRequest:Local news:http://news.example.org/story/1\]"
sleep 1
shot 2-first-item

step "two items are added to the feed and the channel updated"
dunstctl close-all
writeFeed 1 2 3
"$BUILD/cli/pelsu-cli" --home "$home" update Local >"$OUT/update.out" 2>&1
waitFor logHas "Processing notification request: \[NewFeedItemNotificationRequest:Local news:http://news.example.org/story/" 2
sleep 1
shot 3-new-item-2
dunstctl close-all
waitFor logHas "Processing notification request: \[NewFeedItemNotificationRequest:Local news:http://news.example.org/story/" 3
sleep 1
shot 4-new-item-3

step "a click on the shown notification"
dunstctl action 0
waitFor test -s "$OUT/opened-urls.txt"
echo "opened: $(cat "$OUT/opened-urls.txt")"
sleep 1
shot 5-after-click

step "the main window, the tray menu, the options and the wizard"
# Positions are those of the window as it first opens on this screen (no window manager).
dunstctl close-all
"$BUILD/cli/pelsu-cli" --home "$home" add "$BUILD/Resources/feeds/ReleaseNotes.rdf" \
    --id ReleaseNotes >>"$OUT/update.out" 2>&1
waitFor logHas "Saving viewed feed item list for Pelsu Release Notes"
sleep 1
dunstctl close-all
xdotool mousemove 100 127 click 1 # the first channel in the tree opens in one click
sleep 3
dunstctl close-all
sleep 1
shot 6-main-window
xdotool mousemove 1267 12 click 3 # the tray icon's menu
sleep 1
shot 7-tray-menu
xdotool key Escape
xdotool mousemove 600 500 click 1 key ctrl+comma # the options, from the main window
sleep 2
shot 8-global-options
xdotool key Escape
sleep 1
xdotool mousemove 28 38 click 1 # New Channel on the tool bar
sleep 2
xdotool mousemove 426 234 click 1 # the address field: without a window manager, a click gives focus
xdotool type "$feed"
xdotool key Return
sleep 3
shot 9-new-channel-wizard
xdotool key Escape
if [ -n "${PELSU_SCREENSHOTS:-}" ]; then
    mkdir -p "$PELSU_SCREENSHOTS"
    for picture in 6-main-window 7-tray-menu 2-first-item 8-global-options 9-new-channel-wizard; do
        cp "$OUT/$picture.png" "$PELSU_SCREENSHOTS/${picture#*-}.png"
    done
fi

step "SIGTERM"
kill -TERM "$pelsu"
status=0
wait "$pelsu" || status=$?
echo "pelsu exit status: $status"
missing=0
for line in "ExitInstance() called." "Un-installing the mouse hook." \
    "Stopping the local port listeners." "Cleaning up ChannelDesktopSettings table." \
    "Un-installing ourself as an event handler." "Stopping the local channel manager." \
    "Deleting the local channel manager." "Destroying the MMF handle." \
    "Unloading the RichEdit DLL." "Shutting down BCG." "Unloading BlackBox."; do
    grep -qF -- "$line" "$log" || { echo "missing shut-down line: $line"; missing=1; }
done
grep -F -A0 -e "| ExitInstance() called." -e "Unloading BlackBox." "$log" | cut -c1-120
[ "$status" = 0 ] && [ "$missing" = 0 ] && grep -q "story/3\|story/2" "$OUT/opened-urls.txt"
echo "desktop-check: OK ($OUT)"
