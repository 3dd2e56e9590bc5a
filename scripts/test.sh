#!/usr/bin/env bash
# Sets up the machine, builds everything and runs every test suite, then
# runs each fuzzer for a few seconds (clang; MARLO_FUZZ_TESTS=0 skips them).
# Under CI (CI=true) warnings are errors and the unit tests also run in an
# AddressSanitizer + UndefinedBehaviorSanitizer build and in a
# ThreadSanitizer build with lock-order checks. Outside CI,
# MARLO_SANITIZE_TESTS=1 and MARLO_TSAN_TESTS=1 ask for them.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh

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
fi

if [ "${CI:-}" = "true" ] || [ "${MARLO_TSAN_TESTS:-}" = "1" ]; then
    echo "== thread sanitizer build =="
    TSAN_OPTIONS="detect_deadlocks=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}" \
        run_suite build-tsan -DMARLO_SANITIZE=thread -DMARLO_BUILD_BENCHMARKS=OFF \
        -DCMAKE_BUILD_TYPE=Debug
fi

echo "== release build =="
run_suite build

if [ "${MARLO_FUZZ_TESTS:-1}" != "0" ]; then
    echo "== fuzzers (clang: address + undefined + integer checks) =="
    scripts/fuzz.sh --smoke
fi
