#!/usr/bin/env bash
# Sets up the machine, builds everything and runs every test suite, then
# runs each fuzzer for a few seconds (clang; MARLO_FUZZ_TESTS=0 skips them).
# Under CI (CI=true) warnings are errors and the unit tests also run in an
# AddressSanitizer + UndefinedBehaviorSanitizer build and in a
# ThreadSanitizer build with lock-order checks. Outside CI,
# MARLO_SANITIZE_TESTS=1 and MARLO_TSAN_TESTS=1 ask for them.
# Always: the arm64 cross build (release) with its unit suites and its
# real-kernel bench inside an emulated arm64 machine (MARLO_ARM64_TESTS=0
# skips them outside CI), the vendor build's checks (Android.bp formatting,
# a clang build with -Wthread-safety, whose configure step proves that the
# analysis rejects code that breaks a lock rule), the release build's suites
# and, last, the release build's real-kernel suites in a QEMU machine
# (tests/vm/run.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=scripts/phases.sh
source scripts/phases.sh

ARM64=${MARLO_ARM64_TESTS:-1}
[ "${CI:-}" = "true" ] && ARM64=1
if [ "$ARM64" = "1" ]; then
    scripts/setup.sh --arm64
else
    scripts/setup.sh
fi
phase setup

JOBS=$(nproc)
WERROR=OFF
[ "${CI:-}" = "true" ] && WERROR=ON

run_suite() {
    local dir=$1
    shift
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DMARLO_WERROR=$WERROR "$@" >/dev/null
    cmake --build "$dir" -j "$JOBS"
    ctest --test-dir "$dir" -j "$JOBS" --output-on-failure --timeout 300
}

if [ "${CI:-}" = "true" ] || [ "${MARLO_SANITIZE_TESTS:-}" = "1" ]; then
    echo "== address + undefined sanitizer build =="
    run_suite build-asan -DMARLO_SANITIZE=address,undefined -DMARLO_BUILD_BENCHMARKS=OFF \
        -DCMAKE_BUILD_TYPE=Debug
    phase asan
fi

if [ "${CI:-}" = "true" ] || [ "${MARLO_TSAN_TESTS:-}" = "1" ]; then
    echo "== thread sanitizer build =="
    TSAN_OPTIONS="detect_deadlocks=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}" \
        run_suite build-tsan -DMARLO_SANITIZE=thread -DMARLO_BUILD_BENCHMARKS=OFF \
        -DCMAKE_BUILD_TYPE=Debug
    phase tsan
fi

if [ "$ARM64" = "1" ]; then
    echo "== arm64 cross build (release) =="
    cmake -S . -B build-arm64 -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake \
        -DMARLO_WERROR=$WERROR >/dev/null
    cmake --build build-arm64 -j "$JOBS"
    phase arm64-build
    echo "== arm64 unit suites (qemu-system-aarch64, emulated Cortex-A72) =="
    # The soak and fault sweep are the same logic as on x86, where they run
    # in three builds; emulated they would take five minutes.
    MARLO_VM_ARCH=arm64 MARLO_VM_SKIP_SUITES=marlo_reliability_tests \
        scripts/vm/run-suites.sh build-arm64
    phase arm64-suites
    echo "== arm64 real-kernel bench (qemu-system-aarch64: virtio-gpu, vivid, vgem) =="
    MARLO_VM_ARCH=arm64 tests/vm/run.sh build-arm64
    phase arm64-bench
fi

echo "== vendor build checks: Android.bp format, clang with -Wthread-safety (its configure proves the analysis bites) =="
bpfmt_diff=$(bpfmt -d Android.bp)
if [ -n "$bpfmt_diff" ]; then
    echo "$bpfmt_diff"
    echo "Android.bp is not formatted as bpfmt formats it (bpfmt -w Android.bp)" >&2
    exit 1
fi
phase bpfmt
CC=clang CXX=clang++ cmake -S . -B build-clang -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DMARLO_THREAD_SAFETY=ON -DMARLO_WERROR=ON -DMARLO_BUILD_TESTS=OFF \
    -DMARLO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build build-clang -j "$JOBS"
phase clang-thread-safety

echo "== release build =="
run_suite build
phase release

if [ "${MARLO_FUZZ_TESTS:-1}" != "0" ]; then
    echo "== fuzzers (clang: address + undefined + integer checks) =="
    scripts/fuzz.sh --smoke
    phase fuzz
fi

echo "== real-kernel bench (QEMU: virtio-gpu, vivid, vgem) =="
tests/vm/run.sh build
phase bench
echo "== timings:$timings $(($(date +%s) - started)) s in all =="
