#!/usr/bin/env bash
# Usage: scripts/vm/fetch.sh CACHE_DIR
#
# Installs what the VM scripts need on the host (QEMU, a static busybox,
# cpio) and fetches Debian's kernel image package into CACHE_DIR, unpacked
# there with dpkg-deb: the kernel is never installed on the host. For another
# guest architecture (MARLO_VM_ARCH, see arch.sh) the guest's static busybox
# is fetched and unpacked the same way.
# Idempotent, and quiet when everything is already in place.
set -euo pipefail

# shellcheck source=scripts/vm/arch.sh
source "$(dirname "$0")/arch.sh"

cache=${1:?usage: fetch.sh CACHE_DIR}
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive

updated=0
apt_update() {
    if [ $updated -eq 0 ]; then
        $SUDO apt-get update -qq
        updated=1
    fi
}

missing=()
for package in "$vm_qemu_package" busybox-static cpio; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "vm: installing ${missing[*]}"
    apt_update
    $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# A guest of another architecture needs dpkg to know it before apt can
# download its packages.
if [ "$vm_arch" != "amd64" ] && ! dpkg --print-foreign-architectures | grep -qx "$vm_arch"; then
    echo "vm: adding the $vm_arch architecture to dpkg"
    $SUDO dpkg --add-architecture "$vm_arch"
    updated=0
    apt_update
fi

# linux-image-<arch> is the metapackage; it depends on the versioned image.
find_image() {
    apt-cache depends "$(vm_package "linux-image-$vm_arch")" 2>/dev/null |
        sed -n "s/^ *Depends: \\(linux-image-[0-9][^ :]*-$vm_arch\\)\\(:$vm_arch\\)\\{0,1\\}\$/\\1/p" |
        head -n 1
}
image=$(find_image)
if [ -z "$image" ]; then
    apt_update
    image=$(find_image)
fi
if [ -z "$image" ]; then
    echo "vm: apt-cache knows no linux-image-$vm_arch" >&2
    exit 1
fi
version=${image#linux-image-}

# fetch PACKAGE DIR: downloads PACKAGE of the guest's architecture and
# unpacks it into CACHE_DIR/DIR.
fetch() {
    local package=$1 dir=$2
    echo "vm: fetching $(vm_package "$package")"
    rm -rf "$cache/deb" "${cache:?}/${dir:?}"
    mkdir -p "$cache/deb"
    # apt's sandbox user may not write here; the download still works.
    if ! (cd "$cache/deb" && apt-get download -q "$(vm_package "$package")" 2>&1) |
        grep -v '^W: Download is performed unsandboxed'; then
        : # nothing left to show
    fi
    local deb
    deb=$(find "$cache/deb" -name "${package}_*.deb" | head -n 1)
    if [ -z "$deb" ]; then
        echo "vm: could not download $package" >&2
        exit 1
    fi
    rm -rf "$cache/$dir.tmp"
    dpkg-deb -x "$deb" "$cache/$dir.tmp"
    mv "$cache/$dir.tmp" "$cache/$dir"
    rm -rf "$cache/deb"
}

if [ ! -f "$cache/kernel/boot/vmlinuz-$version" ]; then
    fetch "$image" kernel
fi
# The host's busybox serves an amd64 guest.
if [ "$vm_arch" != "amd64" ] && [ ! -x "$(vm_busybox "$cache")" ]; then
    fetch busybox-static busybox
fi
echo "$version" >"$cache/kernel-version"
