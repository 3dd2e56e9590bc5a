#!/usr/bin/env bash
# Usage: tests/vm/mkoverlay.sh BUILD_DIR OUTPUT
#
# Packs the bench's suites of BUILD_DIR (listed in BUILD_DIR/tests/vm/suites
# by CMake; a build for the guest's architecture, MARLO_VM_ARCH, see
# scripts/vm/arch.sh) into an initramfs overlay for scripts/vm/run.sh: the test
# executables without their debug information, every shared library they
# load that the base image lacks, the libraries of a suite's own library
# folder, the guest runner, and the module list with the bench's vivid
# options.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=scripts/vm/arch.sh
source "$here/../../scripts/vm/arch.sh"
build=$(cd "${1:?usage: mkoverlay.sh BUILD_DIR OUTPUT}" && pwd)
output=${2:?usage: mkoverlay.sh BUILD_DIR OUTPUT}
cache=${MARLO_VM_CACHE:-$build/vm-cache}
suites="$build/tests/vm/suites"
if [ ! -f "$suites" ]; then
    echo "bench: $suites is missing (configure a release build with tests)" >&2
    exit 2
fi

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/opt/marlo/tests/lib" "$root/bin" "$root/lib/modules"
install -m 0755 "$here/guest/run-suites" "$root/bin/run-suites"

# vivid twice: vivid-000 single-planar, vivid-001 multi-planar.
sed 's/^vivid\.ko.*/vivid.ko n_devs=2 multiplanar=1,2/' "$cache/root/lib/modules/modules.order" \
    >"$root/lib/modules/modules.order"

: >"$root/opt/marlo/tests/suites"
binaries=()
while IFS=$'\t' read -r name executable filter library_dir; do
    [ -n "$name" ] || continue
    if [ ! -x "$executable" ]; then
        echo "bench: $executable is missing (build the project first)" >&2
        exit 2
    fi
    "$vm_triplet-strip" --strip-debug -o "$root/opt/marlo/tests/$name" "$executable"
    binaries+=("$executable")
    if [ -n "$library_dir" ]; then
        mkdir -p "$root/opt/marlo/tests/lib/$name"
        cp -L "$library_dir"/*.so "$root/opt/marlo/tests/lib/$name/"
    fi
    printf '%s\t%s\n' "$name" "$filter" >>"$root/opt/marlo/tests/suites"
done <"$suites"

# Libraries outside the build that the base image does not carry yet.
vm_shared_libraries "$build/lib:$build/nax" "${binaries[@]}" | while read -r library; do
    case "$library" in "$build"/*) continue ;; esac
    [ -e "$cache/root$library" ] && continue
    mkdir -p "$root$(dirname "$library")"
    cp -L "$library" "$root$library"
done

(cd "$root" && find . | LC_ALL=C sort | cpio -o -H newc --quiet) | gzip -1 >"$output.tmp"
mv "$output.tmp" "$output"
echo "bench: ${#binaries[@]} suites packed ($(du -h "$output" | cut -f1))"
