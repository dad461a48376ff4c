#!/usr/bin/env bash
# Makes the Debian packages of a built tree and installs them with apt on a
# freshly bootstrapped Debian 12, where their dependencies alone must bring
# what they need: kelmsg, with the broker it recommends, starts a broker
# there, and the consumer (consume.sh), built there against the development
# package, works on it and over the in-process bus.  Needs root (debootstrap,
# chroot) and Debian's package archive.  The bootstrapped root (for a week) and
# the packages downloaded into it are kept in /var/cache/kelmsg-debian for the
# next runs: bootstrapping takes minutes.
#   debian-fresh-root.sh BUILD_DIR
set -euo pipefail
source "$(dirname "$0")/kelmsg-bus-url.sh"
if [ "$(id -u)" -ne 0 ]; then
  echo "debian-fresh-root.sh: skipped: bootstrapping a Debian root needs root"
  exit 0
fi
build_dir=$(realpath "$1")
package_dir=$(dirname "$(realpath "$0")")
scratch=$(mktemp -d /var/tmp/kelmsg-debian.XXXXXX)
root=$scratch/root
cache=/var/cache/kelmsg-debian
broker=
cleanup() {
  if [ -n "$broker" ]; then kill -TERM "$broker" 2>/dev/null || true; wait "$broker" || true; fi
  if mountpoint -q "$root/proc"; then umount "$root/proc"; fi
  rm -rf --one-file-system "$scratch"
}
trap cleanup EXIT

# Runs a step whose output matters only when it fails.
quietly() {
  if ! "$@" >"$scratch/step.log" 2>&1; then
    echo "debian-fresh-root.sh: failed: $*" >&2
    tail -n 20 "$scratch/step.log" >&2
    exit 1
  fi
}
# A command in the root, the same process as the one started here.
in_root=(chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
         DEBIAN_FRONTEND=noninteractive)

quietly cpack --config "$build_dir/CPackConfig.cmake" -B "$scratch/debs"
mkdir -p "$cache/apt"
if [ -z "$(find "$cache" -maxdepth 1 -name bookworm.tar -mtime -7)" ]; then
  quietly debootstrap --variant=minbase bookworm "$root"
  tar -C "$root" -cf "$cache/bookworm.tar.partial" . && mv "$cache/bookworm.tar"{.partial,}
else
  mkdir "$root" && tar -C "$root" -xf "$cache/bookworm.tar"
fi
mount -t proc proc "$root/proc"
mkdir "$root/packages" "$root/consume"
cp "$scratch"/debs/*.deb "$root/packages/"
deb() { echo "/packages/$(cd "$root/packages" && echo "$1"_*.deb)"; }
cp -r "$package_dir/consume.sh" "$package_dir/consumer" "$root/consume/"
quietly "${in_root[@]}" apt-get update
find "$cache/apt" -name '*.deb' -exec cp -t "$root/var/cache/apt/archives" {} +

quietly "${in_root[@]}" apt-get install -y -o Dpkg::Options::=--force-unsafe-io "$(deb libkelmsgfeamessaging1)" "$(deb kelmsg)"
"${in_root[@]}" kelmsg bus --ports 20000-29999 >"$scratch/bus.out" 2>"$scratch/bus.err" &
broker=$!
broker_url=$(kelmsg_bus_url "$broker" "$scratch/bus.out" "$scratch/bus.err")

quietly "${in_root[@]}" apt-get install -y -o Dpkg::Options::=--force-unsafe-io --no-install-recommends \
  "$(deb libkelmsgfeamessaging-dev)" g++ cmake ninja-build pkg-config
find "$root/var/cache/apt/archives" -name '*.deb' ! -name 'kelmsg_*' ! -name 'libkelmsg*' \
  -exec cp -n -t "$cache/apt" {} +
"${in_root[@]}" /consume/consume.sh /consume/consumer /consume/work \
  /usr/share/KelMsgFeaMessaging/kelbus-mosquitto.conf "$broker_url"
echo "the Debian packages installed on a fresh Debian 12 and served the consumer there"
