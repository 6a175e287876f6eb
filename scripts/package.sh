#!/usr/bin/env bash
# Installs the release build under a prefix, builds the example application
# against it with CMake and with pkg-config, runs both, and builds the
# Debian package.
#   scripts/package.sh [PREFIX]
set -euo pipefail
cd "$(dirname "$0")/.."
prefix="$(realpath -m "${1:-build/stage}")"

scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release
rm -rf "$prefix"
cmake --install build/release --prefix "$prefix" >/dev/null
test -L "$prefix/lib/libVyrix_Api.so" && test -L "$prefix/lib/libVyrix_Api.so.1"

export LD_LIBRARY_PATH="$prefix/lib"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cmake -S examples/app -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/vyrix-example"
PKG_CONFIG_PATH="$prefix/lib/pkgconfig" g++ -std=c++17 examples/app/main.cpp -o "$work/pc-example" \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs vyrix)
"$work/pc-example"

(cd build/release && cpack -G DEB >/dev/null)
ls build/release/vyrix_*.deb
dpkg-deb -c build/release/vyrix_*.deb | grep -E 'libVyrix_Api.so|vyrixctl|60-vyrix.rules|vyrix.pc' >/dev/null
echo "package and installed-tree examples: ok"
