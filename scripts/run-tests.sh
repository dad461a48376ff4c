#!/usr/bin/env bash
# The test command: installs what is missing, then configures, builds and
# runs every test under the default preset and under the asan preset.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

for preset in default asan; do
  echo "== $preset: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  echo "== $preset: test"
  ctest --preset "$preset" -j2
done
