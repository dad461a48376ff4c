#!/usr/bin/env bash
# The demo: installs what is missing, builds the kelmsg tool and the two
# example programs, starts a private broker on a free port, and lets a job
# monitor drive a solver through one whole job over the bus.  Prints a short
# transcript, stops the broker and exits 0; any failure shows its log and
# exits non-zero, and never leaves a broker behind.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

work=$(mktemp -d)
broker=
stop_broker() {
  if [ -n "$broker" ]; then
    kill -TERM "$broker" 2>/dev/null || true
    wait "$broker" 2>/dev/null || true
    broker=
  fi
}
trap 'stop_broker; rm -rf "$work"' EXIT
trap 'exit 130' INT TERM

# Shows what a step wrote when it fails, and ends the demo.
fail() {
  echo "demo: $1 failed:" >&2
  cat "$2" >&2
  exit 1
}

echo "== build: the library, kelmsg and the examples (build/default)"
{
  cmake --preset default &&
    cmake --build --preset default --target kelmsg kelmsg_job_monitor kelmsg_solver
} >"$work/build.log" 2>&1 || fail "the build" "$work/build.log"

build=build/default
"$build/bin/kelmsg" bus >"$work/bus.out" 2>"$work/bus.err" &
broker=$!
until grep -q '^KELBUS_URL=' "$work/bus.out"; do
  kill -0 "$broker" 2>/dev/null || fail "starting the broker" "$work/bus.err"
  sleep 0.1
done
export "$(grep '^KELBUS_URL=' "$work/bus.out")"
echo "== private broker at $KELBUS_URL"

echo "== the job: a monitor drives a solver"
"$build/examples/kelmsg_job_monitor" "$build/examples/kelmsg_solver" "$work/job" \
  2>"$work/programs.err" || fail "the job" "$work/programs.err"

stop_broker
echo "== broker stopped; demo done"
