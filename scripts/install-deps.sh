#!/usr/bin/env bash
# Installs every Debian package that building, testing and running KestTCS needs.
# Idempotent: when everything is present it returns without touching apt.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  clang clang-14 libclang-rt-14-dev libfuzzer-14-dev clang-format clang-tidy
  libgtest-dev libgmock-dev libbenchmark-dev
  libtpms-dev swtpm swtpm-tools
  libinih-dev libsystemd-dev libcli11-dev nlohmann-json3-dev libasio-dev libssl-dev
  python3 python3-impacket python3-dbusmock dbus-daemon
  g++-mingw-w64-x86-64 mingw-w64-tools wine64
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
