#!/usr/bin/env bash
# The test command: installs what is missing, runs every fuzz target for a
# fixed number of executions over its seed corpus, then configures, builds and
# runs every test under the default preset and under the asan preset, and
# installs the default build's Debian packages on a fresh Debian 12.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

echo "== fuzz: build and run each target"
scripts/run-fuzz.sh -runs=20000

for preset in default asan; do
  echo "== $preset: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  echo "== $preset: test"
  ctest --preset "$preset" -j2
done

echo "== Debian packages: install on a fresh Debian 12 and build against them"
tests/package/debian-fresh-root.sh build/default
