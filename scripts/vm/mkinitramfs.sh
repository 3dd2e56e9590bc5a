#!/usr/bin/env bash
# Usage: scripts/vm/mkinitramfs.sh CACHE_DIR BUILD_DIR
#
# Builds CACHE_DIR/initramfs.cpio.gz: a static busybox, the kernel modules of
# virtio-gpu (with the virtio PCI transport), vivid and vgem with everything
# they depend on, the demo programs from BUILD_DIR with every shared library
# they load, and the init script. virtio-gpu loads before vgem, so it is
# /dev/dri/card0 and vgem /dev/dri/card1.
# CACHE_DIR holds the kernel that scripts/vm/fetch.sh unpacked; BUILD_DIR is
# a build for the guest's architecture (MARLO_VM_ARCH, see arch.sh).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=scripts/vm/arch.sh
source "$here/arch.sh"
source_dir=$(cd "$here/../.." && pwd)
cache=$(cd "${1:?usage: mkinitramfs.sh CACHE_DIR BUILD_DIR}" && pwd)
build=$(cd "${2:?usage: mkinitramfs.sh CACHE_DIR BUILD_DIR}" && pwd)
version=$(cat "$cache/kernel-version")
modules_dir="$cache/kernel/lib/modules/$version"
root="$cache/root"

programs=("$build/bin/marlo_capture_demo" "$build/bin/marlo_rearview")
for file in "${programs[@]}" "$build/nax/libnax.so" "$modules_dir"; do
    if [ ! -e "$file" ]; then
        echo "vm: $file is missing (build the project and run fetch.sh first)" >&2
        exit 1
    fi
done

rm -rf "$root"
mkdir -p "$root"/{bin,sbin,usr/bin,proc,sys,dev,tmp,lib/modules,opt/marlo/bin,opt/marlo/lib}

# busybox and a link per applet. The guest's busybox may not run here; the
# host's, of the same Debian package, names the same applets.
cp "$(vm_busybox "$cache")" "$root/bin/busybox"
for applet in $(/bin/busybox --list); do
    [ -e "$root/bin/$applet" ] || ln -s busybox "$root/bin/$applet"
done
install -m 0755 "$here/init" "$root/init"
install -m 0755 "$here/capture-node" "$root/bin/capture-node"

# Kernel modules, each after the ones it depends on (read from the modules'
# own "depends=" field: the package carries no modules.dep).
declare -A module_path=()
while IFS= read -r path; do
    name=$(basename "$path" .ko)
    module_path[${name//-/_}]=$path
done < <(find "$modules_dir/kernel" -name '*.ko')

declare -A visited=()
order=()
visit() {
    local name=${1//-/_}
    [ -n "${visited[$name]:-}" ] && return 0
    visited[$name]=1
    local path=${module_path[$name]:-}
    if [ -z "$path" ]; then
        echo "vm: no module $name in $version" >&2
        exit 1
    fi
    local deps dep
    deps=$(tr '\0' '\n' <"$path" | sed -n 's/^depends=//p' | head -n 1 | tr ',' ' ')
    for dep in $deps; do
        visit "$dep"
    done
    order+=("$name")
}
# The display first: a kernel that builds the virtio PCI transport or
# virtio-gpu in needs no module for it.
for module in virtio_pci virtio_gpu; do
    [ -n "${module_path[$module]:-}" ] && visit "$module"
done
visit vivid
visit vgem

: >"$root/lib/modules/modules.order"
for name in "${order[@]}"; do
    cp "${module_path[$name]}" "$root/lib/modules/$name.ko"
    echo "$name.ko" >>"$root/lib/modules/modules.order"
done

# The demos, the library, the 2D engine it loads at run time, and every
# library those need, at the path the dynamic loader looks for it.
cp "${programs[@]}" "$root/opt/marlo/bin/"
cp -P "$build"/lib/libmarlo*.so* "$build"/nax/libnax.so* "$root/opt/marlo/lib/"
vm_shared_libraries "$build/lib:$build/nax" \
    "${programs[@]}" "$build"/lib/libmarlo*.so.*.* "$build/nax/libnax.so" |
    while read -r library; do
        case "$library" in "$build"/*) continue ;; esac
        mkdir -p "$root$(dirname "$library")"
        cp -L "$library" "$root$library"
    done

# The example camera configuration and the debug report directory, found
# through MARLO_SYSROOT.
mkdir -p "$root/opt/marlo/sysroot/vendor/etc" "$root/opt/marlo/sysroot/data/vendor/camera"
cp "$source_dir/config/marlo_config.xml" "$root/opt/marlo/sysroot/vendor/etc/"

(cd "$root" && find . | LC_ALL=C sort | cpio -o -H newc --quiet) | gzip -1 >"$cache/initramfs.cpio.gz.tmp"
mv "$cache/initramfs.cpio.gz.tmp" "$cache/initramfs.cpio.gz"
echo "vm: initramfs with ${#order[@]} modules ($(du -h "$cache/initramfs.cpio.gz" | cut -f1)): ${order[*]}"
