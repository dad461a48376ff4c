#!/usr/bin/env bash
# Installs, with apt-get, whatever the build, the tests, the demo and the
# benchmarks need and this Debian 12 machine does not have yet.  Safe to run
# again: packages already installed are left alone.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config git
  libgtest-dev libgmock-dev libbenchmark-dev
  libmosquitto-dev mosquitto mosquitto-clients
  libpugixml-dev libcli11-dev libssl-dev
  clang libclang-rt-14-dev
  iproute2 socat
  python3-dev pybind11-dev python3-pytest python3-mypy
  dpkg-dev file debootstrap
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

run_as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
run_as_root apt-get update -qq
run_as_root apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
