#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the Debian packages the build, the tests and the tools need,
# those that are missing only.  Uses sudo when not run as root.
#   VYRIX_DEPS_QUIET=1  one line says what is installed; the package
#                       manager's output goes to VYRIX_DEPS_LOG (default
#                       build/deps.log) and is shown only when it fails.
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
install() {
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
if [ "${VYRIX_DEPS_QUIET:-0}" = 1 ]; then
  log="${VYRIX_DEPS_LOG:-$(dirname "$0")/../build/deps.log}"
  mkdir -p "$(dirname "$log")"
  echo "Installing ${#missing[@]} Debian packages (${missing[*]}); log in $log"
  if ! install >"$log" 2>&1; then
    cat "$log" >&2
    echo "Installing the packages failed; the log above is kept in $log" >&2
    exit 1
  fi
  exit 0
fi
echo "Installing: ${missing[*]}"
install
