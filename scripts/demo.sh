#!/usr/bin/env bash
# Usage: scripts/demo.sh [marlo_capture_demo options]
#
# Runs the capture demo on real kernel drivers without a camera: sets up the
# machine, builds the project (release) in build-demo/, boots Debian's own
# kernel in QEMU with its virtual video driver (vivid) and virtual GEM driver
# (vgem), runs marlo_capture_demo against vivid's capture node, prints its
# report and a checksum of every frame it wrote, and exits with its status.
# Options given here replace the default capture options below.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${MARLO_DEMO_BUILD_DIR:-build-demo}
cache="$build/vm-cache"
# shellcheck source=scripts/phases.sh
source scripts/phases.sh

scripts/setup.sh
scripts/vm/fetch.sh "$cache"
phase setup

echo "== building (release) in $build =="
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DMARLO_BUILD_TESTS=OFF -DMARLO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target marlo_capture_demo nax
phase build

scripts/vm/mkinitramfs.sh "$cache" "$build"
phase initramfs

# vivid's first input is a webcam that offers 640x480 YUYV among others; it
# starts at 5 frames per second unless asked for more.
options="--size 640x480 --format YUYV --fps 30 --frames 60 --seconds 30"
if [ $# -gt 0 ]; then
    options=$(printf "'%s' " "$@")
fi

echo "== booting the VM =="
set +e
MARLO_VM_CACHE="$cache" scripts/vm/run.sh "
node=\$(capture-node) || exit 2
mkdir -p /tmp/frames && cd /tmp/frames
MARLO_SYSROOT=/opt/marlo/sysroot /opt/marlo/bin/marlo_capture_demo --device \$node --out /tmp/frames $options
status=\$?
echo '== frames written: md5sum, then the first 16 bytes =='
for file in *.raw; do
    [ -f \$file ] || continue
    md5sum \$file
    od -An -tx1 -N16 \$file
done
exit \$status
"
status=$?
set -e
phase vm
echo "== demo exit status $status; timings:$timings $(($(date +%s) - started)) s in all =="
exit $status
