#!/usr/bin/env bash
# Usage: scripts/vm/run-suites.sh BUILD_DIR [SUITE...]
#
# Runs the unit suites of BUILD_DIR (a build for the guest's architecture,
# MARLO_VM_ARCH, see arch.sh) inside the VM: fetches the kernel, builds the
# initramfs, packs the suites with what they load and read (test
# executables, libraries, engines, the source tree's test data) at their
# build machine paths under /opt/marlo/tree, boots and runs unit-suites
# there. Prints a line per suite and a total, and exits non-zero when a test
# failed. Without SUITE names every suite of BUILD_DIR/suites runs.
#
# Environment: as run.sh; MARLO_VM_TIMEOUT defaults to 2400 s here and
# MARLO_VM_MEMORY to 2G; MARLO_VM_SKIP_SUITES names suites not to run.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
# shellcheck source=scripts/vm/arch.sh
source "$here/arch.sh"
build=$(cd "${1:?usage: run-suites.sh BUILD_DIR [SUITE...]}" && pwd)
shift
cache=${MARLO_VM_CACHE:-$build/vm-cache}

if [ ! -d "$build/suites" ]; then
    echo "vm: $build has no suites (build it with the tests)" >&2
    exit 2
fi

"$here/fetch.sh" "$cache"
"$here/mkinitramfs.sh" "$cache" "$build"

# The build tree's executables, shared objects (the engines live in folders
# of their own) and suite environments, the empty engine folder included,
# and the source tree's example configuration and test data.
root="$cache/suites-root"
tree="$root/opt/marlo/tree"
rm -rf "$root"
mkdir -p "$root/bin" "$tree$build" "$tree$source_dir"
(cd "$build" && find . -path ./vm-cache -prune -o -name CMakeFiles -prune -o \
    \( \( -type f -o -type l \) \( -path './bin/*' -o -path './suites/*' -o -name '*.so*' \) -print \) -o \
    \( -type d -empty -print \)) | (cd "$build" && cpio -pdm --quiet "$tree$build")
cp -r "$source_dir/config" "$source_dir/tests" "$tree$source_dir/"
install -m 0755 "$here/unit-suites" "$root/bin/unit-suites"

mapfile -t binaries < <(find "$tree$build" -type f \( -path "$tree$build/bin/*" -o -name '*.so*' \))
vm_shared_libraries "$build/lib:$build/nax" "${binaries[@]}" | while read -r library; do
    case "$library" in "$build"/*) continue ;; esac
    [ -e "$root$library" ] && continue
    mkdir -p "$root$(dirname "$library")"
    cp -L "$library" "$root$library"
done

# Suites left out of this machine (MARLO_VM_SKIP_SUITES, names separated by
# blanks) are left out of the archive's suite list.
for suite in ${MARLO_VM_SKIP_SUITES:-}; do
    rm -f "$tree$build/suites/$suite.env"
    echo "vm: $suite left out (MARLO_VM_SKIP_SUITES)"
done

(cd "$root" && find . | LC_ALL=C sort | cpio -o -H newc --quiet) | gzip -1 >"$cache/suites.cpio.gz"
echo "vm: suites archive $(du -h "$cache/suites.cpio.gz" | cut -f1)"

MARLO_VM_CACHE="$cache" MARLO_VM_OVERLAYS="$cache/suites.cpio.gz" \
    MARLO_VM_TIMEOUT=${MARLO_VM_TIMEOUT:-2400} MARLO_VM_MEMORY=${MARLO_VM_MEMORY:-2G} \
    "$here/run.sh" "unit-suites '$source_dir' '$build' $*"
