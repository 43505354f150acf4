#!/usr/bin/env bash
# Installs everything the station needs to build, run and test on Debian 12.
# Safe to run again: it installs only what is missing. Runs as root or through sudo.
set -euo pipefail

packages=(
  g++ clang libclang-rt-14-dev cmake ninja-build pkg-config git
  clang-format clang-tidy shellcheck
  qt6-base-dev libgl-dev libasound2-dev
  libtinyxml2-dev libudev-dev libusb-1.0-0-dev libmosquitto-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  umockdev libumockdev-dev
  xvfb xauth fonts-dejavu-core
  dpkg-dev file lintian desktop-file-utils appstream
  gcovr
  mosquitto-clients chromium python3-websocket
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: run as root or install sudo" >&2; exit 1; }
  sudo="sudo"
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
