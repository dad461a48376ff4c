#!/usr/bin/env bash
# Builds the consumer against the installed package, once through CMake's
# find_package and once through pkg-config, and runs each, with no
# LD_LIBRARY_PATH, over the in-process bus and, when given, a broker.  A
# consumer that cannot reach a broker must be told of the broker
# configuration that was installed with the libraries.  The environment says
# where the package lies (CMAKE_PREFIX_PATH, PKG_CONFIG_PATH).
#   consume.sh CONSUMER_SOURCE WORK_DIR INSTALLED_BROKER_CONFIGURATION [KELBUS_URL]
set -euo pipefail
source_dir=$1
work=$2
configuration=$3
broker_url=${4:-}
unset LD_LIBRARY_PATH

cmake -S "$source_dir" -B "$work/find_package" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/find_package" >/dev/null
c++ -std=c++20 -o "$work/pkg-config-consumer" "$source_dir/consumer.cpp" \
    $(pkg-config --cflags --libs KelMsgFeaMessaging) \
    -Wl,-rpath,"$(pkg-config --variable=libdir KelMsgFeaMessaging)"

for consumer in "$work/find_package/consumer" "$work/pkg-config-consumer"; do
  for url in local: $broker_url; do
    if ! KELBUS_URL=$url "$consumer"; then
      echo "consume.sh: $consumer failed over $url" >&2
      exit 1
    fi
  done
  if KELBUS_URL=mqtt://127.0.0.1:1 "$consumer" 2>"$work/unreachable.err"; then
    echo "consume.sh: $consumer joined a bus where none runs" >&2
    exit 1
  fi
  if ! grep -qF "mosquitto -c $configuration'" "$work/unreachable.err"; then
    echo "consume.sh: $consumer was not told of $configuration:" >&2
    cat "$work/unreachable.err" >&2
    exit 1
  fi
done
echo "consumers built with find_package and pkg-config exchanged a message over local: $broker_url"
