#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang in build-fuzz
# (AddressSanitizer, UndefinedBehaviorSanitizer with the integer checks,
# LeakSanitizer) and runs them.
#
#   scripts/fuzz.sh --smoke                  each target a few seconds (the
#                                            test command runs this)
#   scripts/fuzz.sh [--seconds N] [--merge] [TARGET...]
#                                            each target (default: all) N
#                                            seconds, default 1800
#
# A long run works on build-fuzz/fuzz/work/<target>, seeded from
# fuzz/corpus/<target>, and keeps what it found there for the next run. A
# crash, leak, timeout or memory overrun stops the target and leaves the
# input as build-fuzz/fuzz/<target>-<kind>-<hash>; replay it with
# build-fuzz/bin/<target> <file>. --merge then folds the inputs that add
# coverage into fuzz/corpus/<target>, minimised, to be committed.
# Each run ends with one line: executions, coverage, peak memory, CPU time.
set -euo pipefail
cd "$(dirname "$0")/.."

SMOKE=0
MERGE=0
RUN_SECONDS=1800
TARGETS=()
while [ $# -gt 0 ]; do
    case "$1" in
        --smoke) SMOKE=1 ;;
        --merge) MERGE=1 ;;
        --seconds)
            RUN_SECONDS=$2
            shift
            ;;
        -h | --help)
            sed -n '2,17p' "$0"
            exit 0
            ;;
        -*)
            echo "fuzz.sh: unknown option $1" >&2
            exit 2
            ;;
        *) TARGETS+=("$1") ;;
    esac
    shift
done

scripts/setup.sh

BUILD=build-fuzz
WERROR=OFF
[ "${CI:-}" = "true" ] && WERROR=ON
cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DMARLO_SANITIZE=address,undefined -DMARLO_SANITIZE_INTEGER=ON \
    -DMARLO_BUILD_FUZZERS=ON -DMARLO_BUILD_TESTS=OFF -DMARLO_BUILD_BENCHMARKS=OFF \
    -DMARLO_BUILD_DEMO=OFF -DMARLO_WERROR=$WERROR >/dev/null
cmake --build "$BUILD" -j "$(nproc)" --target marlo_fuzzers

if [ "$SMOKE" = 1 ]; then
    ctest --test-dir "$BUILD" -L fuzz --output-on-failure
    exit 0
fi

if [ ${#TARGETS[@]} -eq 0 ]; then
    for seeds in fuzz/corpus/*/; do
        TARGETS+=("$(basename "$seeds")")
    done
fi

status=0
for target in "${TARGETS[@]}"; do
    binary=$BUILD/bin/$target
    seeds=fuzz/corpus/$target
    work=$BUILD/fuzz/work/$target
    log=$BUILD/fuzz/$target.log
    if [ ! -x "$binary" ] || [ ! -d "$seeds" ]; then
        echo "fuzz.sh: no target $target" >&2
        exit 2
    fi
    mkdir -p "$work"
    options=(-max_total_time="$RUN_SECONDS" -timeout=30 -rss_limit_mb=2048
        -print_final_stats=1 -artifact_prefix="$BUILD/fuzz/$target-")
    [ -f "fuzz/$target.dict" ] && options+=(-dict="fuzz/$target.dict")

    echo "== $target: $RUN_SECONDS s =="
    TIMEFORMAT='%U %S'
    touch "$log.start"
    set +e
    { time env MARLO_PROPERTIES= MARLO_SYSROOT= \
        "$binary" "${options[@]}" "$work" "$seeds" 2>"$log"; } 2>"$log.time"
    rc=$?
    set -e
    [ "$rc" -ne 0 ] && status=1
    cpu=$(awk '{printf "%.1f", ($1 + $2) / 60}' "$log.time")
    executions=$(awk '/^stat::number_of_executed_units:/ {print $2}' "$log")
    peak=$(awk '/^stat::peak_rss_mb:/ {print $2}' "$log")
    coverage=$(grep -E '^#[0-9]+' "$log" | tail -1 |
        sed -E 's/.* cov: ([0-9]+) ft: ([0-9]+) corp: ([^ ]+).*/cov \1, ft \2, corpus \3/')
    artifacts=$(find "$BUILD/fuzz" -maxdepth 1 -name "$target-*" -newer "$log.start" | wc -l)
    echo "$target: exit $rc, ${executions:-?} executions, $coverage, peak ${peak:-?} MB," \
        "$cpu CPU-minutes, $artifacts crash/leak/timeout inputs (log $log)"
    if [ "$MERGE" = 1 ]; then
        "$binary" -merge=1 "$seeds" "$work" 2>>"$log"
        echo "$target: fuzz/corpus/$target now holds $(find "$seeds" -type f | wc -l) inputs"
    fi
done
exit $status
