# Sourced by soak.sh and fault_sweep.sh: builds the reliability suite in the
# release build folder ($BUILD, default build/) and runs it with the suite's
# environment.
#
#   reliability_run VAR=value... -- GTEST_ARGS...

BUILD=${MARLO_RELIABILITY_BUILD:-build}

reliability_run() {
    local env=()
    while [ $# -gt 0 ] && [ "$1" != "--" ]; do
        env+=("$1")
        shift
    done
    shift
    scripts/setup.sh
    cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$BUILD" -j "$(nproc)" --target marlo_reliability_tests nax
    env MARLO_PROPERTIES= MARLO_SYSROOT= "${env[@]}" LD_LIBRARY_PATH="$BUILD/nax" \
        "$BUILD/bin/marlo_reliability_tests" --gtest_brief=1 "$@"
}
