#!/usr/bin/env bash
# The benchmark command: builds the benchmark programs of the default preset
# and prints one table in which every row is a figure beside a baseline
# measured in the same run, their ratio, and the goal the ratio is held to.
#
#   scripts/bench.sh                           # files of 1 GiB, best of 3 runs
#   scripts/bench.sh --file-size 268435456 --repeat 1
#
# Arguments go to kelmsg_file_transfer_bench: --file-size BYTES, --repeat N.
# The stalled-receiver rows push and pull 2 GiB with the receiver stopped
# 60 s on the bus's defaults; KELMSG_BENCH_STALL_SECONDS=5 shortens the stop.
# Not part of the test command.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
log=build/default/bench-build.log
if ! cmake --build --preset default --target kelmsg_inprocess_bench kelbus_bench \
  kelmsg_file_transfer_bench kelmsg_stalled_receiver_bench >"$log" 2>&1; then
  cat "$log"
  exit 1
fi

echo "| measured | figure | baseline (same run) | baseline figure | ratio | goal |"
echo "|---|---|---|---|---|---|"
build/default/bench/kelmsg_inprocess_bench
build/default/bench/kelbus_bench
build/default/bench/kelmsg_file_transfer_bench "$@"
build/default/bench/kelmsg_stalled_receiver_bench --stall-seconds "${KELMSG_BENCH_STALL_SECONDS:-60}"
