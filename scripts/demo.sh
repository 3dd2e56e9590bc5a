#!/usr/bin/env bash
# Usage: scripts/demo.sh [marlo_rearview options]
#
# The main job without a camera or a screen: sets up the machine, builds the
# project (release) in build-demo/, boots Debian's own kernel in QEMU with
# its virtual video driver (vivid), a virtio-gpu display and vgem, and runs
# marlo_rearview there: vivid's picture on the display, one atomic commit
# per frame, while a second client records. Midway the camera is taken
# away (vivid's device unbound from its driver) and brought back (bound
# again) while the display and the recorder run on: the display keeps the
# last picture, the library reopens the camera by itself and both clients
# go on. Then QEMU's screen dump of the display is taken and left as
# build-demo/rearview_screen.png, beside the tool's contact sheet of every
# client's last frame, build-demo/rearview_sheet.png, and the tool's
# per-client tables are printed. Options given here replace the default
# ones below. MARLO_DEMO_LOSE_AFTER (seconds into the run, default 4; 0
# keeps the camera), MARLO_DEMO_AWAY (seconds the camera is away, default
# 2) and MARLO_DEMO_SHOT_AFTER (seconds after it is back, default 3) time
# the loss and the screen dump.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${MARLO_DEMO_BUILD_DIR:-build-demo}
# KVM hangs on some hosts (CI's among them); the emulator is the default.
export MARLO_VM_KVM=${MARLO_VM_KVM:-0}
cache="$build/vm-cache"
screen="$build/rearview_screen.png"
sheet="$build/rearview_sheet.png"
# shellcheck source=scripts/phases.sh
source scripts/phases.sh

scripts/setup.sh
scripts/vm/fetch.sh "$cache"
phase setup

echo "== building (release) in $build =="
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DMARLO_BUILD_TESTS=OFF -DMARLO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target marlo_capture_demo marlo_rearview nax
phase build

scripts/vm/mkinitramfs.sh "$cache" "$build"
phase initramfs

# vivid's first input is a webcam that offers 640x480 YUYV among others; it
# starts at 5 frames per second unless asked for more, and stamps frames at
# their end unless its "Timestamp Source" is start of exposure (1). The
# display runs at 640x480, which the emulated CPU converts at about the
# camera's rate (the preferred 1280x800 needs twice the work per frame).
options="--size 640x480 --format YUYV --fps 30 --seconds 12 --mode 640x480"
options="$options --ctrl 'Timestamp Source=1'"
if [ $# -gt 0 ]; then
    options=$(printf "'%s' " "$@")
fi
# The camera goes this many seconds into the run, stays away this long, and
# the screen dump is taken this many seconds after it came back.
lose_after=${MARLO_DEMO_LOSE_AFTER:-4}
away=${MARLO_DEMO_AWAY:-2}
shot_after=${MARLO_DEMO_SHOT_AFTER:-3}

work=$(mktemp -d)
watcher=""
# shellcheck disable=SC2317 # run by the trap
cleanup() {
    if [ -n "$watcher" ]; then kill "$watcher" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT
mkfifo "$work/monitor.in" "$work/monitor.out"
# Drain the monitor's answers so that QEMU never waits on the FIFO.
cat "$work/monitor.out" >"$work/monitor.log" &
log="$work/console.log"
: >"$log"
rm -f "$screen" "$sheet"

# Once the guest says the picture is up, QEMU dumps the display.
(
    until tr -d '\r' <"$log" | grep -q '^MARLO_SCREENSHOT$'; do sleep 0.2; done
    echo "screendump $work/screen.png -f png" >"$work/monitor.in"
) &
watcher=$!

echo "== booting the VM =="
set +e
MARLO_VM_CACHE="$cache" MARLO_VM_MONITOR="$work/monitor" scripts/vm/run.sh "
node=\$(capture-node) || exit 2
MARLO_SYSROOT=/opt/marlo/sysroot /opt/marlo/bin/marlo_rearview --device \$node --out /tmp $options &
pid=\$!
# The camera unplugged and plugged in again: vivid's platform device leaves
# its driver (its nodes vanish) and is bound again (they come back).
if [ $lose_after -gt 0 ]; then
    sleep $lose_after
    echo vivid.0 >/sys/bus/platform/drivers/vivid/unbind &&
        echo \"demo: camera taken away (vivid.0 unbound) for $away s\"
    sleep $away
    echo vivid.0 >/sys/bus/platform/drivers/vivid/bind &&
        echo \"demo: camera back (vivid.0 bound, \$(capture-node))\"
fi
sleep $shot_after
printf '\nMARLO_SCREENSHOT\n'
wait \$pid
status=\$?
if [ -f /tmp/rearview_sheet.png ]; then
    echo MARLO_SHEET_BEGIN
    base64 /tmp/rearview_sheet.png
    echo MARLO_SHEET_END
fi
exit \$status
" | tee "$log" | sed -u '/^MARLO_SHEET_BEGIN/,/^MARLO_SHEET_END/d'
status=${PIPESTATUS[0]}
set -e
phase vm

# The sheet travels on the console as base64.
tr -d '\r' <"$log" | sed -n '/^MARLO_SHEET_BEGIN$/,/^MARLO_SHEET_END$/p' | sed '1d;$d' |
    base64 -d >"$work/sheet.png" 2>/dev/null || true
if [ -s "$work/sheet.png" ]; then
    mv "$work/sheet.png" "$sheet"
    echo "== contact sheet: $sheet =="
else
    echo "demo: no contact sheet came back from the VM" >&2
    [ "$status" -eq 0 ] && status=1
fi
if [ -s "$work/screen.png" ]; then
    mv "$work/screen.png" "$screen"
    echo "== screen dump of the display: $screen =="
else
    echo "demo: QEMU left no screen dump ($(tail -n 1 "$work/monitor.log" 2>/dev/null))" >&2
    [ "$status" -eq 0 ] && status=1
fi
echo "== demo exit status $status; timings:$timings $(($(date +%s) - started)) s in all =="
exit "$status"
