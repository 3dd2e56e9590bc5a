# Cross build for 64-bit Arm Linux with Debian's cross compiler
# (g++-aarch64-linux-gnu) and the arm64 libraries installed next to the
# host's through multiarch (scripts/setup.sh --arm64 installs both):
#
#   cmake -S . -B build-arm64 -G Ninja \
#       -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
#
# The results run on an arm64 machine; scripts/vm/run.sh boots one in QEMU.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(MARLO_CROSS_TRIPLET aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${MARLO_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${MARLO_CROSS_TRIPLET}-g++)
# Multiarch: the arm64 libraries and their CMake packages live in
# /usr/lib/aarch64-linux-gnu beside the host's, headers are shared.
set(CMAKE_LIBRARY_ARCHITECTURE ${MARLO_CROSS_TRIPLET})

# Only the arm64 pkg-config files answer; the host's would hand out x86
# libraries. The variable reaches the pkg-config runs of configuration.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${MARLO_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Programs run on the build machine, libraries and headers come from the
# target's directories.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
