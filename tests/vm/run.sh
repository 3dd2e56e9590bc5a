#!/usr/bin/env bash
# Usage: tests/vm/run.sh [BUILD_DIR]
#
# The real-kernel bench. Boots Debian's kernel in QEMU as scripts/vm does
# (virtio-gpu as card0 with mode setting, vgem as card1, vivid twice:
# single- and multi-planar) with the bench suites of BUILD_DIR, runs them
# there, prints each suite's result and the total, and fails when any test
# failed or was skipped or the machine did not finish.
# MARLO_VM_ARCH=arm64 boots the arm64 machine instead (see
# scripts/vm/arch.sh); BUILD_DIR is a release build with tests for the
# guest's architecture (default build/, build-arm64/ for arm64). The x86
# machine uses the emulator unless MARLO_VM_KVM=1: it is what CI has.
# MARLO_VM_CACHE (default BUILD_DIR/vm-cache) holds the kernel.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
# shellcheck source=scripts/vm/arch.sh
source "$source_dir/scripts/vm/arch.sh"
build=$(cd "${1:-$source_dir/$vm_default_build}" && pwd)
export MARLO_VM_CACHE=${MARLO_VM_CACHE:-$build/vm-cache}
export MARLO_VM_KVM=${MARLO_VM_KVM:-0}
started=$(date +%s)

"$source_dir/scripts/vm/fetch.sh" "$MARLO_VM_CACHE"
"$source_dir/scripts/vm/mkinitramfs.sh" "$MARLO_VM_CACHE" "$build" >/dev/null
"$here/mkoverlay.sh" "$build" "$MARLO_VM_CACHE/bench.cpio.gz"

log=$(mktemp)
trap 'rm -f "$log"' EXIT
set +e
MARLO_VM_OVERLAYS="$MARLO_VM_CACHE/bench.cpio.gz" MARLO_VM_TIMEOUT=${MARLO_VM_TIMEOUT:-240} \
    "$source_dir/scripts/vm/run.sh" run-suites 2>&1 | tr -d '\r' | tee "$log" |
    grep -v -e '^c\?\x1b' -e '^SeaBIOS' -e '^Booting from ROM' -e '^$'
status=${PIPESTATUS[0]}
set -e

# The guest's own result lines are the record; the console may add noise.
passed=0 failed=0 skipped=0 suites=0 broken=0
while read -r _ name counts; do
    suites=$((suites + 1))
    p=$(sed -n 's/.*passed=\([0-9]*\).*/\1/p' <<<"$counts")
    f=$(sed -n 's/.*failed=\([0-9]*\).*/\1/p' <<<"$counts")
    s=$(sed -n 's/.*skipped=\([0-9]*\).*/\1/p' <<<"$counts")
    code=$(sed -n 's/.*status=\([0-9]*\).*/\1/p' <<<"$counts")
    passed=$((passed + p)) failed=$((failed + f)) skipped=$((skipped + s))
    if [ "$code" != 0 ] && [ "$f" = 0 ]; then
        echo "bench: $name ended with status $code" >&2
        broken=$((broken + 1))
    fi
done < <(grep '^bench-suite ' "$log")
expected=$(grep -c . "$build/tests/vm/suites")

echo "bench: $suites of $expected suites ran in the machine in $(($(date +%s) - started)) s"
echo "bench: $passed passed, $failed failed, $skipped skipped"
if [ "$status" -ne 0 ] || [ "$failed" -ne 0 ] || [ "$skipped" -ne 0 ] || [ "$broken" -ne 0 ] ||
    [ "$suites" -ne "$expected" ] || [ "$passed" -eq 0 ]; then
    echo "bench: FAILED (machine status $status)" >&2
    exit 1
fi
