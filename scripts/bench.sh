#!/usr/bin/env bash
# Usage: scripts/bench.sh [--quick] [--before COMMIT]
#
# Runs the benchmarks in full and writes their results and plots.
# Builds this tree (Release, in build-bench/) and runs:
#   nax_bench     the engine against libyuv (paired turns), one job on one
#                 and on two threads, jobs into N held and unheld buffers,
#                 first jobs into fresh buffers
#   peer_bench    the engine against libyuv, GStreamer's video converter and
#                 swscale, outputs compared
#   fanout_bench  through V4l2Stream over the fake V4L2 kernel: the
#                 library's own cost with a do-nothing engine, 1-64 clients
#                 x 1-4 sets at full HD, first frames
# With --before COMMIT, the same fanout_bench is also built on COMMIT (with
# this tree's bench/ folder) in build-bench-before/ and each of its runs
# follows the current one, so before/after ratios come from one run.
# Results (CSV, one file per run, and its log) go to build-bench/results/; the plot of per-frame cost
# against lent buffers to docs/perf/fanout.png (gnuplot, installed here when
# missing). --quick runs each benchmark briefly (a check of the script).
set -euo pipefail
cd "$(dirname "$0")/.."

quick=0
before=""
while [ $# -gt 0 ]; do
    case "$1" in
        --quick) quick=1 ;;
        --before) before=$2; shift ;;
        *) echo "usage: scripts/bench.sh [--quick] [--before COMMIT]" >&2; exit 2 ;;
    esac
    shift
done

scripts/setup.sh
if ! command -v gnuplot >/dev/null; then
    SUDO=""
    [ "$(id -u)" -ne 0 ] && SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends \
        gnuplot-nox >/dev/null
fi

build="build-bench"
results=$build/results
mkdir -p "$results"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DMARLO_BUILD_DEMO=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target nax_bench fanout_bench peer_bench

if [ -n "$before" ]; then
    src=$build/before-src
    rm -rf "$src"
    git worktree prune
    git archive --format=tar --prefix=before-src/ "$before" | tar -x -C "$build"
    rm -rf "$src/bench"
    cp -r bench "$src/bench"
    cmake -S "$src" -B build-bench-before -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DMARLO_BUILD_DEMO=OFF >/dev/null
    cmake --build build-bench-before -j "$(nproc)" --target fanout_bench
fi

min_time=0.5
repetitions=3
if [ "$quick" = 1 ]; then
    min_time=0.01
    repetitions=1
fi

# run NAME PROGRAM ARGS...: one benchmark run, its JSON in results/NAME.json.
run() {
    local name=$1
    shift
    echo "== $name =="
    "$@" --benchmark_out="$results/$name.csv" --benchmark_out_format=csv \
        2>"$results/$name.log"
}

# run_both NAME ARGS...: fanout_bench now and, with --before, before.
run_both() {
    local name=$1
    shift
    run "$name" "$build/bin/fanout_bench" "$@"
    if [ -n "$before" ]; then
        run "$name-before" build-bench-before/bin/fanout_bench "$@"
    fi
}

# One family a run: a CSV file holds one set of counters.
run paired "$build/bin/nax_bench" --benchmark_filter=Paired --benchmark_min_time="$min_time"
run threads "$build/bin/nax_bench" --benchmark_filter=Threads --benchmark_min_time="$min_time"
run import "$build/bin/nax_bench" --benchmark_filter=Import --benchmark_min_time="$min_time"
run holds "$build/bin/nax_bench" --benchmark_filter=Cycle --benchmark_min_time="$min_time"
run firstjob "$build/bin/nax_bench" --benchmark_filter=First --benchmark_min_time="$min_time"
run peers "$build/bin/peer_bench" --benchmark_min_time="$min_time" \
    --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true
run_both library --engine=null --benchmark_filter=Library --benchmark_min_time="$min_time" \
    --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true
run_both first --engine=software --benchmark_filter=FirstFrame \
    --benchmark_min_time="$min_time"
run_both fanout --engine=software --benchmark_filter=Fanout --benchmark_min_time="$min_time"

scripts/bench/plot.sh "$results" docs/perf/fanout.png
scripts/bench/summary.sh "$results" | tee "$results/summary.txt"
echo "results in $results, plot in docs/perf/fanout.png"
