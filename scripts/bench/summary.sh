#!/usr/bin/env bash
# Usage: scripts/bench/summary.sh RESULTS_DIR
#
# Prints the figures docs/performance.md records from one scripts/bench.sh
# run: the library's cost per client and per buffer (least-squares slope of
# the IO thread's CPU time per frame) with its fixed part, first frames,
# the two-thread speed-up, the engine against its peers, and jobs into held
# and unheld buffers. "before" columns come from a run with --before.
set -euo pipefail
results=$1
# shellcheck source=scripts/bench/csv.sh
source "$(dirname "$0")/csv.sh"

# slope FILE PATTERN X Y: least-squares slope and intercept of Y against X.
slope() {
    extract "$1" "$2" "$3" "$4" | awk '
        { n++; sx += $1; sy += $2; sxx += $1 * $1; sxy += $1 * $2 }
        END {
            if (n < 2) { print "n/a"; exit }
            b = (n * sxy - sx * sy) / (n * sxx - sx * sx)
            printf "%.3f us per unit + %.2f us\n", b, (sy - b * sx) / n
        }'
}

for tree in "" -before; do
    [ -f "$results/library$tree.csv" ] || continue
    echo "library$tree (do-nothing engine, IO thread CPU per frame, medians):"
    echo "  per client (1 buffer a set): $(slope "$results/library$tree.csv" \
        '^Library/clients/.*(manual_time|_median)$' clients io_cpu_us)"
    echo "  per buffer of a set (1 client): $(slope "$results/library$tree.csv" \
        '^Library/buffers/.*(manual_time|_median)$' buffers io_cpu_us)"
done
for tree in "" -before; do
    [ -f "$results/first$tree.csv" ] || continue
    echo "first frame$tree (capture to callback, us):"
    extract "$results/first$tree.csv" '^FirstFrame/' name wall_us | sed 's/^/  /'
done
if [ -f "$results/threads.csv" ]; then
    echo "one job on one and two threads (us: median wall; on two, CPU of the caller and workers):"
    extract "$results/threads.csv" '^Threads/' name one_thread_us two_threads_us speedup \
        caller_cpu_us helper_cpu_us |
        sed 's/^/  /'
fi
if [ -f "$results/paired.csv" ]; then
    echo "engine and operator against libyuv, one thread (us, median CPU):"
    extract "$results/paired.csv" '^Paired/' name libyuv_us engine_us operator_us |
        sed 's/^/  /'
fi
if [ -f "$results/peers.csv" ]; then
    echo "peers (us, median CPU; x: peer time over the engine's; diff: levels from libyuv):"
    extract "$results/peers.csv" '^Peers/[^_]*(_median)?$' name engine_us libyuv_us gst_us sws_us \
        engine_vs_libyuv engine_vs_gst engine_vs_sws gst_max_diff sws_max_diff | sed 's/^/  /'
fi
if [ -f "$results/holds.csv" ]; then
    echo "jobs into N buffers in turn (us, median):"
    extract "$results/holds.csv" '^Cycle/' name job_us | sed 's/^/  /'
fi
if [ -f "$results/firstjob.csv" ]; then
    echo "first job into a fresh buffer (us, median):"
    extract "$results/firstjob.csv" '^First/' name job_us | sed 's/^/  /'
fi
