#!/usr/bin/env bash
# Installs every Debian 12 package the project needs to build, test and
# benchmark. Idempotent, and quiet when everything is already present.
set -euo pipefail

PACKAGES=(
    build-essential cmake ninja-build pkg-config git ccache
    clang-format
    clang libclang-rt-14-dev libfuzzer-14-dev llvm
    libtinyxml2-dev libdrm-dev libyuv-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    linux-libc-dev
)

missing=()
for package in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
