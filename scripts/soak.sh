#!/usr/bin/env bash
# The soak: many processes on one private broker (`kelmsg bus`) for a
# bounded time.  Each process (bench/kelbus_soak.cpp) sends numbered
# messages at a steady rate to the next one in a ring and checks that every
# message of the one before arrived once and in order; a watcher must see
# every one of them leave.  Prints the messages per second, what was lost or
# out of order, and the peak resident size of the broker and of the
# processes.  Not part of the test command.
#
#   scripts/soak.sh                                  # 500 processes, 60 s, 5 messages/s each
#   scripts/soak.sh --members 100 --seconds 600 --rate 20
#
# Status 0 when every message was accounted for and every departure seen.
set -euo pipefail
cd "$(dirname "$0")/.."

members=500
seconds=60
rate=5
while [ $# -gt 0 ]; do
  case "$1" in
    --members) members=$2 ;;
    --seconds) seconds=$2 ;;
    --rate) rate=$2 ;;
    *)
      echo "usage: scripts/soak.sh [--members N] [--seconds S] [--rate MESSAGES_PER_SECOND]" >&2
      exit 2
      ;;
  esac
  shift 2
done

scripts/install-deps.sh
cmake --preset default >/dev/null
log=build/default/soak-build.log
if ! cmake --build --preset default --target kelmsg kelbus_soak >"$log" 2>&1; then
  cat "$log"
  exit 1
fi
kelmsg=build/default/bin/kelmsg
soak=build/default/bench/kelbus_soak

# The broker holds a connection per process, and briefly two while one
# joins; each process needs a few descriptors of its own.
needed=$((members * 3 + 256))
if [ "$(ulimit -n)" -lt "$needed" ]; then
  if ! ulimit -n "$needed" 2>/dev/null; then
    echo "soak: cannot raise the open file limit to $needed (hard limit $(ulimit -Hn))" >&2
    exit 1
  fi
fi

work=$(mktemp -d)
started=()
cleanup() {
  for pid in "${started[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Waits until the files (a pattern) hold `count` lines matching `line`, at
# most `limit` seconds; false otherwise.
wait_for_lines() {
  local files=$1 line=$2 count=$3 limit=$4
  local deadline=$((SECONDS + limit))
  # shellcheck disable=SC2086 # the pattern names the files
  until [ "$(cat $files 2>/dev/null | grep -c "$line")" -ge "$count" ]; do
    [ $SECONDS -lt $deadline ] || return 1
    sleep 0.2
  done
}

peak_kib() {
  awk '/^VmHWM:/ { print $2 }' "/proc/$1/status"
}

"$kelmsg" bus >"$work/bus.env" 2>"$work/bus.err" &
bus=$!
started+=("$bus")
if ! wait_for_lines "$work/bus.env" '^KELBUS_URL=' 1 10; then
  echo "soak: the broker did not start: $(cat "$work/bus.err")" >&2
  exit 1
fi
set -a
# shellcheck source=/dev/null
. "$work/bus.env"
set +a
broker=$(sed -n 's/^kelmsg bus: mosquitto \([0-9]*\) listens.*/\1/p' "$work/bus.err")

"$soak" watch "$members" $((seconds + 600)) >"$work/watch.out" 2>&1 &
watcher=$!
started+=("$watcher")
wait_for_lines "$work/watch.out" '^watching$' 1 30 || { cat "$work/watch.out" >&2; exit 1; }

join_start=$SECONDS
members_started=()
for number in $(seq 1 "$members"); do
  "$soak" member "$number" "$members" "$seconds" "$rate" "$work/start" >"$work/member$number.out" 2>&1 &
  members_started+=($!)
  started+=($!)
done
if ! wait_for_lines "$work/member*.out" '^joined$' "$members" 600; then
  echo "soak: only $(cat "$work"/member*.out | grep -c '^joined$') of $members processes joined" >&2
  cat "$work"/member*.out | grep -v '^joined$' | sort | uniq -c | head >&2
  exit 1
fi
joined_in=$((SECONDS - join_start))

run_start=$(date +%s.%N)
touch "$work/start"
failed=0
for pid in "${members_started[@]}"; do
  wait "$pid" || failed=$((failed + 1))
done
run_end=$(date +%s.%N)
wait "$watcher" || true
started=("$bus") # the others have been reaped: their numbers are free again
broker_kib=$(peak_kib "$broker")

cat "$work"/member*.out | grep -v '^joined$' >"$work/results" || true
# Peak resident sizes of the processes, smallest first.
mapfile -t rss < <(awk '$2 == "sent" { print $11 }' "$work/results" | sort -n)
awk -v members="$members" -v seconds="$seconds" -v rate="$rate" -v failed="$failed" \
  -v joined_in="$joined_in" -v elapsed="$(awk "BEGIN { print $run_end - $run_start }")" \
  -v broker_kib="$broker_kib" -v departures="$(sed -n "s/^departures //p" "$work/watch.out")" \
  -v rss_count="${#rss[@]}" -v rss_min="${rss[0]:-0}" \
  -v rss_median="${rss[$((${#rss[@]} / 2))]:-0}" -v rss_max="${rss[-1]:-0}" '
  $2 == "sent" {
    sent += $3; received += $5; announced += ($7 < 0 ? 0 : $7); disorder += $9
  }
  END {
    printf "| measured | figure |\n|---|---|\n"
    printf "| processes, each sending %d messages/s for %d s | %d (all joined in %d s) |\n", rate, seconds, members, joined_in
    printf "| messages sent / received / announced by senders | %d / %d / %d |\n", sent, received, announced
    printf "| messages lost / out of order | %d / %d |\n", announced - received, disorder
    printf "| messages per second, all processes | %.0f (%d in %.1f s, until the last process left) |\n", received / elapsed, received, elapsed
    printf "| processes reporting a fault | %d |\n", failed
    printf "| departures seen by a watcher | %s |\n", departures
    printf "| broker peak resident size | %.1f MiB |\n", broker_kib / 1024
    if (rss_count > 0)
      printf "| process peak resident size, min / median / max | %.1f / %.1f / %.1f MiB |\n", rss_min / 1024, rss_median / 1024, rss_max / 1024
  }' "$work/results"

grep -q "^departures $members of $members$" "$work/watch.out" && [ "$failed" -eq 0 ]
