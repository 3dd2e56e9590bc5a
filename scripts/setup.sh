#!/usr/bin/env bash
# Usage: scripts/setup.sh [--arm64]
#
# Installs every Debian 12 package the project needs to build, test and
# benchmark. With --arm64 also the arm64 cross build's: Debian's cross
# compiler and the arm64 libraries through multiarch (the arm64
# architecture is added to dpkg first). Idempotent, and quiet when
# everything is already present.
set -euo pipefail

PACKAGES=(
    build-essential cmake ninja-build pkg-config git ccache
    clang-format clang blueprint-tools libclang-rt-14-dev libfuzzer-14-dev llvm
    libtinyxml2-dev libdrm-dev libyuv-dev libpng-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    linux-libc-dev
    # The converters the engine is benchmarked against (bench/peer_bench).
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libunwind-dev
    libswscale-dev libavutil-dev
)

# The arm64 libraries install beside the host's (their -dev packages are
# Multi-Arch: same); the cross compiler brings its own C library headers.
ARM64_PACKAGES=(
    g++-aarch64-linux-gnu
    libtinyxml2-dev:arm64 libdrm-dev:arm64 libyuv-dev:arm64 libpng-dev:arm64
    libgtest-dev:arm64 libgmock-dev:arm64 libbenchmark-dev:arm64
)

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive

wanted=("${PACKAGES[@]}")
if [ "${1:-}" = "--arm64" ]; then
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        echo "setup: adding the arm64 architecture to dpkg"
        $SUDO dpkg --add-architecture arm64
    fi
    wanted+=("${ARM64_PACKAGES[@]}")
elif [ $# -gt 0 ]; then
    echo "usage: scripts/setup.sh [--arm64]" >&2
    exit 2
fi

missing=()
for package in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
