#!/usr/bin/env bash
# Builds the release under /usr with the multiarch library directory,
# installs it under a prefix, builds the example application against that
# tree with CMake and with pkg-config and runs both, then builds the Debian
# packages, checks what each holds and runs lintian on every one.
#   scripts/package.sh [PREFIX]
set -euo pipefail
cd "$(dirname "$0")/.."
prefix="$(realpath -m "${1:-build/stage}")"

scripts/deps.sh
cmake --preset package >/dev/null
cmake --build --preset package
libdir="$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' build/package/CMakeCache.txt)"
rm -rf "$prefix"
cmake --install build/package --prefix "$prefix" >/dev/null
test -L "$prefix/$libdir/libVyrix_Api.so" && test -L "$prefix/$libdir/libVyrix_Api.so.1"

export LD_LIBRARY_PATH="$prefix/$libdir"
export PYTHONPATH="$prefix/lib/python3/dist-packages"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cmake -S examples/app -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/vyrix-example"
export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
g++ -std=c++17 examples/app/main.cpp -o "$work/pc-example" $(pkg-config --cflags --libs vyrix)
"$work/pc-example"

rm -f build/package/*.deb
(cd build/package && cpack -G DEB >/dev/null)
ls build/package/*.deb
# What each package must hold (a pattern per line, matched against its file list).
declare -A holds=(
  [libvyrix-api1]="/usr/$libdir/libVyrix_Api\.so\.1 -> |/usr/$libdir/libVyrix_Api\.so\.1\.|60-vyrix\.rules"
  [libvyrix-api-dev]="/usr/$libdir/libVyrix_Api\.so -> |include/vyrix/Vyrix_Api\.h|include/vyrix/vyrix_version\.h|pkgconfig/vyrix\.pc|cmake/Vyrix/VyrixConfig\.cmake|examples/main\.cpp"
  [vyrix-tools]="/usr/bin/vyrixctl|/usr/bin/vyrix-sim|/usr/bin/vyrix-demo|man1/vyrixctl\.1\.gz|wireshark/plugins/vyrix\.lua"
  [python3-vyrix]="dist-packages/vyrix/__init__\.py"
)
for pkg in "${!holds[@]}"; do
  deb="$(ls build/package/"${pkg}"_*.deb)"
  contents="$(dpkg-deb -c "$deb")"
  IFS='|' read -ra patterns <<<"${holds[$pkg]}"
  for pattern in "${patterns[@]}" "/usr/share/doc/$pkg/copyright" "/usr/share/doc/$pkg/changelog\.Debian\.gz"; do
    grep -qE "$pattern" <<<"$contents" || { echo "$pkg lacks $pattern" >&2; exit 1; }
  done
done
# The Python module imports and reaches the library, from the installed tree
# and from the packages unpacked.
python3 -c "import vyrix; print('python: libVyrix_Api', vyrix.library_info())" \
  || { echo "the installed Python module does not work" >&2; exit 1; }
root="$work/root"
for deb in build/package/libvyrix-api1_*.deb build/package/python3-vyrix_*.deb; do dpkg-deb -x "$deb" "$root"; done
PYTHONPATH="$root/usr/lib/python3/dist-packages" VYRIX_LIBRARY="$root/usr/$libdir/libVyrix_Api.so.1" \
  python3 -c "import vyrix; print('python from the packages:', vyrix.library_info())"
# Errors fail; warnings are printed.  Overrides travel in the packages.
lintian --fail-on error build/package/*.deb
echo "packages, lintian and installed-tree examples: ok"
