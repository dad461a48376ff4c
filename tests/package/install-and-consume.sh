#!/usr/bin/env bash
# Installs the built tree into a scratch prefix, then configures, builds and
# runs the consumer against that prefix alone; pkg-config must agree.
set -euo pipefail
build_dir=$1
source_dir=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source_dir" -B "$scratch/build" -G Ninja \
      -DCMAKE_PREFIX_PATH="$scratch/prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$scratch/build" >/dev/null
LD_LIBRARY_PATH="$scratch/prefix/lib:${LD_LIBRARY_PATH:-}" "$scratch/build/consumer"

export PKG_CONFIG_PATH="$scratch/prefix/lib/pkgconfig"
pkg-config --exists KelMsgFeaMessaging
pkg-config --libs KelMsgFeaMessaging | grep -q -- "-lKelMsgFeaMessaging"
echo "consumer built and ran against the installed package"
