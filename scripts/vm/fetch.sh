#!/usr/bin/env bash
# Usage: scripts/vm/fetch.sh CACHE_DIR
#
# Installs what the VM scripts need on the host (QEMU, a static busybox,
# cpio) and fetches Debian's kernel image package into CACHE_DIR, unpacked
# there with dpkg-deb: the kernel is never installed on the host.
# Idempotent, and quiet when everything is already in place.
set -euo pipefail

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
for package in qemu-system-x86 busybox-static cpio; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "vm: installing ${missing[*]}"
    apt_update
    $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# linux-image-amd64 is the metapackage; it depends on the versioned image.
find_image() {
    apt-cache depends linux-image-amd64 2>/dev/null |
        sed -n 's/^ *Depends: \(linux-image-[0-9][^ ]*-amd64\)$/\1/p' | head -n 1
}
image=$(find_image)
if [ -z "$image" ]; then
    apt_update
    image=$(find_image)
fi
if [ -z "$image" ]; then
    echo "vm: apt-cache knows no linux-image-amd64" >&2
    exit 1
fi
version=${image#linux-image-}

if [ ! -f "$cache/kernel/boot/vmlinuz-$version" ]; then
    echo "vm: fetching $image"
    rm -rf "$cache/deb" "$cache/kernel"
    mkdir -p "$cache/deb"
    # apt's sandbox user may not write here; the download still works.
    if ! (cd "$cache/deb" && apt-get download -q "$image" 2>&1) |
        grep -v '^W: Download is performed unsandboxed'; then
        : # nothing left to show
    fi
    deb=$(find "$cache/deb" -name "${image}_*.deb" | head -n 1)
    if [ -z "$deb" ]; then
        echo "vm: could not download $image" >&2
        exit 1
    fi
    rm -rf "$cache/kernel.tmp"
    dpkg-deb -x "$deb" "$cache/kernel.tmp"
    mv "$cache/kernel.tmp" "$cache/kernel"
    rm -rf "$cache/deb"
fi
echo "$version" >"$cache/kernel-version"
