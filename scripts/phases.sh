# shellcheck shell=bash
# Sourced by the top-level scripts: times the phases of a run.
# phase NAME adds the time since the previous phase to $timings; $started
# holds the run's start.
started=$(date +%s)
phase_start=$started
timings=""
phase() {
    local now
    now=$(date +%s)
    timings="$timings $1 $((now - phase_start)) s,"
    phase_start=$now
}
