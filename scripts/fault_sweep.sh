#!/usr/bin/env bash
# The full fault sweep: every request of the capture path fails once with
# each errno a driver may answer it with, at every position of a run (the
# test command runs each position once, the errnos taking turns). Runs in
# the release build (build/) and prints, per request, the calls of a run,
# the faults tried and the time taken.
#
#   scripts/fault_sweep.sh [GTEST_FILTER]     default: every request
set -euo pipefail
cd "$(dirname "$0")/.."

FILTER=${1:-FaultSweepTest.*:Requests/FaultSweepTest.*}
# shellcheck source=scripts/reliability_run.sh
source scripts/reliability_run.sh

echo "== fault sweep (full) =="
TIMEFORMAT='fault sweep: %R s wall'
time reliability_run MARLO_FAULT_SWEEP=full -- --gtest_filter="$FILTER"
