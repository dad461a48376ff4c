#!/usr/bin/env bash
# Installs the built tree into a scratch prefix, starts a broker with the
# installed kelmsg and its installed configuration when kelmsg was built, and
# has the consumer (consume.sh) and the examples, both built as outside
# projects against that prefix alone, work on it with no LD_LIBRARY_PATH.
set -euo pipefail
source "$(dirname "$0")/kelmsg-bus-url.sh"
build_dir=$1
package_dir=$2
examples_dir=$3
libdir=$4  # relative to the prefix
scratch=$(mktemp -d)
broker=
cleanup() {
  if [ -n "$broker" ]; then kill -TERM "$broker" 2>/dev/null || true; wait "$broker" || true; fi
  rm -rf "$scratch"
}
trap cleanup EXIT
unset LD_LIBRARY_PATH

prefix=$scratch/prefix
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
configuration=$prefix/share/KelMsgFeaMessaging/kelbus-mosquitto.conf
test -r "$configuration"
# Each installed library and program finds what it needs by itself, also
# where the program that loads it names none of it.
for binary in "$prefix/$libdir"/lib*.so.* "$prefix"/bin/*; do
  if ldd "$binary" | grep "not found"; then
    echo "install-and-consume.sh: $binary does not find the libraries above" >&2
    exit 1
  fi
done

kelmsg=$prefix/bin/kelmsg
broker_url=
if [ -x "$kelmsg" ]; then
  "$kelmsg" bus --ports 20000-29999 >"$scratch/bus.out" 2>"$scratch/bus.err" &
  broker=$!
  broker_url=$(kelmsg_bus_url "$broker" "$scratch/bus.out" "$scratch/bus.err")
else
  echo "kelmsg was not built; no broker, the examples' job is not run"
fi

export CMAKE_PREFIX_PATH=$prefix PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
"$package_dir/consume.sh" "$package_dir/consumer" "$scratch" "$configuration" $broker_url

cmake -S "$examples_dir" -B "$scratch/examples" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$scratch/examples" >/dev/null
echo "examples built against the installed package"
if [ -n "$broker_url" ]; then
  KELBUS_URL=$broker_url "$scratch/examples/kelmsg_job_monitor" \
    "$scratch/examples/kelmsg_solver" "$scratch/job"
  echo "the examples' job ran on the installed kelmsg's broker"
fi
