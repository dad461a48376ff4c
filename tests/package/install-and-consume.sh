#!/usr/bin/env bash
# Installs the built tree into a scratch prefix, then configures, builds and
# runs the consumer against that prefix alone; pkg-config must agree.  Then
# builds the examples the same way, as an outside project, and, when kelmsg
# was installed, runs their job on a broker that the installed kelmsg starts
# with the installed configuration.
set -euo pipefail
build_dir=$1
source_dir=$2
examples_dir=$3
scratch=$(mktemp -d)
broker=
cleanup() {
  if [ -n "$broker" ]; then kill -TERM "$broker" 2>/dev/null || true; wait "$broker" || true; fi
  rm -rf "$scratch"
}
trap cleanup EXIT

prefix=$scratch/prefix
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
cmake -S "$source_dir" -B "$scratch/build" -G Ninja \
      -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$scratch/build" >/dev/null
LD_LIBRARY_PATH="$prefix/lib:${LD_LIBRARY_PATH:-}" "$scratch/build/consumer"

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
pkg-config --exists KelMsgFeaMessaging
pkg-config --libs KelMsgFeaMessaging | grep -q -- "-lKelMsgFeaMessaging"
echo "consumer built and ran against the installed package"

cmake -S "$examples_dir" -B "$scratch/examples" -G Ninja \
      -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$scratch/examples" >/dev/null
echo "examples built against the installed package"

kelmsg=$prefix/bin/kelmsg
if [ ! -x "$kelmsg" ]; then
  echo "kelmsg was not built; the examples' job is not run"
  exit 0
fi
test -r "$prefix/share/KelMsgFeaMessaging/kelbus-mosquitto.conf"
"$kelmsg" bus --ports 20000-29999 >"$scratch/bus.out" 2>"$scratch/bus.err" &
broker=$!
until grep -q '^KELBUS_URL=' "$scratch/bus.out"; do
  if ! kill -0 "$broker" 2>/dev/null; then cat "$scratch/bus.err" >&2; exit 1; fi
  sleep 0.1
done
export "$(grep '^KELBUS_URL=' "$scratch/bus.out")"
"$scratch/examples/kelmsg_job_monitor" "$scratch/examples/kelmsg_solver" "$scratch/job"
echo "the examples' job ran on the installed kelmsg's broker"
