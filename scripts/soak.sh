#!/usr/bin/env bash
# The long soak: MARLO_SOAK_CYCLES (default 10000) open/lend/start/return/
# stop/close cycles of one to four client threads on two fake capture
# devices, in the release build (build/, as the test command makes it),
# sampled every 1,000 cycles. Prints the samples and the growth per 1,000
# cycles of descriptors, threads, mappings, RSS and heap in use; fails when
# descriptors, threads or mappings of files grow, when the last sample has
# more mappings than any before, or when memory grows by 64 KiB or more per
# 1,000 cycles. 10,000 cycles take about 2 minutes on 2 cores.
#
#   scripts/soak.sh [CYCLES]
set -euo pipefail
cd "$(dirname "$0")/.."

CYCLES=${1:-${MARLO_SOAK_CYCLES:-10000}}
# shellcheck source=scripts/reliability_run.sh
source scripts/reliability_run.sh

echo "== soak: $CYCLES cycles =="
TIMEFORMAT='soak: %R s wall, %U s user, %S s system'
time reliability_run MARLO_SOAK_CYCLES="$CYCLES" -- --gtest_filter='SoakTest.*'
