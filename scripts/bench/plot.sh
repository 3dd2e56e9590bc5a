#!/usr/bin/env bash
# Usage: scripts/bench/plot.sh RESULTS_DIR OUT.png
#
# Plots the per-frame cost against lent buffers: the process's CPU time per
# frame and client of fanout_bench's Fanout runs through V4l2Stream
# (fanout.csv), and beside them nax_bench's jobs into N held and unheld
# buffers (holds.csv). CPU time, because wall times on a shared machine
# carry the wait for a core.
set -euo pipefail
results=$1
out=$2
data=$(mktemp -d)
trap 'rm -rf "$data"' EXIT

# shellcheck source=scripts/bench/csv.sh
source "$(dirname "$0")/csv.sh"

for format in NV12 RGBA; do
    for which in fanout fanout-before; do
        [ -f "$results/$which.csv" ] || continue
        for sets in 1 2 3 4; do
            extract "$results/$which.csv" "^Fanout/$format/.*sets:$sets/" lent_buffers cpu_us \
                clients | sort -n >"$data/$which-$format-$sets.dat"
        done
    done
    if [ -f "$results/holds.csv" ]; then
        for held in 0 1; do
            extract "$results/holds.csv" "^Cycle/$format/.*held:$held/" buffers job_us |
                sort -n >"$data/cycle-$format-$held.dat"
        done
    fi
done

which=fanout

gnuplot <<GNUPLOT
set terminal pngcairo size 1400,900 font ",11"
set output "$out"
set multiplot layout 2,2 title "Per-frame cost against lent buffers (full HD, this 2-core machine)"
set grid
set key top left
set xlabel "lent client buffers (clients x sets)"
set ylabel "process CPU ms per frame and client"
set xrange [0:260]
set yrange [0:*]
do for [f in "NV12 RGBA"] {
    set title sprintf("V4l2Stream: NV12 frames into %s clients, buffers not held", f)
    plot for [s=1:4] sprintf("$data/$which-%s-%d.dat", f, s) using 1:(\$2/1000/\$3) \
        with linespoints title sprintf("%d set%s per client", s, s > 1 ? "s" : "")
}
set ylabel "us per job (median)"
set xlabel "client buffers the jobs go to in turn"
do for [f in "NV12 RGBA"] {
    set title sprintf("Operator: NV12 jobs into %s buffers, held or not", f)
    plot sprintf("$data/cycle-%s-0.dat", f) using 1:2 with linespoints title "no hold (per-job import only)", \
         sprintf("$data/cycle-%s-1.dat", f) using 1:2 with linespoints title "held while lent (holdBuffer)"
}
unset multiplot
GNUPLOT
