#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need,
# those that are missing only.  Uses sudo when not run as root.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config binutils
  libusb-1.0-0-dev libbluetooth-dev libpcap-dev tshark
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
  nlohmann-json3-dev zlib1g-dev man-db
  umockdev libumockdev-dev
  clang libclang-rt-14-dev clang-format valgrind
  dpkg-dev file lintian
  python3 python3-pytest mypy
  ser2net
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
