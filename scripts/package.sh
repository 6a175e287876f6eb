#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the release under /usr with the multiarch library directory,
# installs it under a prefix, builds the example application against that
# tree with CMake and with pkg-config and runs both, then builds the Debian
# packages, checks what each holds, their manual pages and pkg-config file,
# and runs lintian on every one.
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
# Debian's own files (copyright, changelog, lintian overrides) go into the
# packages only.
debian_only="$(find "$prefix" -path '*/lintian/*' -o -name 'changelog.Debian*' -o -name copyright)"
[ -z "$debian_only" ] || { echo "a plain install holds Debian files: $debian_only" >&2; exit 1; }

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
  [libvyrix-api1]="/usr/$libdir/libVyrix_Api\.so\.1 -> |/usr/$libdir/libVyrix_Api\.so\.1\.|/usr/lib/udev/rules\.d/60-vyrix\.rules"
  [libvyrix-api-dev]="/usr/$libdir/libVyrix_Api\.so -> |include/vyrix/Vyrix_Api\.h|include/vyrix/vyrix_version\.h|pkgconfig/vyrix\.pc|cmake/Vyrix/VyrixConfig\.cmake|examples/main\.cpp|man3/libvyrix\.3\.gz"
  [vyrix-tools]="/usr/bin/vyrixctl|/usr/bin/vyrix-sim|/usr/bin/vyrix-demo|man1/vyrixctl\.1\.gz|wireshark/plugins/vyrix\.lua"
  [python3-vyrix]="dist-packages/vyrix/__init__\.py|dist-packages/vyrix/py\.typed|dist-packages/vyrix-[0-9.]+\.dist-info/METADATA"
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
# The package's metadata says the version the package has.
PYTHONPATH="$root/usr/lib/python3/dist-packages" python3 -c \
  "import importlib.metadata as m, vyrix; assert m.version('vyrix') == vyrix.__version__, m.version('vyrix')"

# The manuals: every program's page has its sections; section 3 has a page
# for every plain name the library exports (its version script), found by
# man(1) as a user would look it up.
for deb in build/package/libvyrix-api-dev_*.deb build/package/vyrix-tools_*.deb; do dpkg-deb -x "$deb" "$root"; done
for page in "$root"/usr/share/man/man1/*.1.gz; do
  text="$(MANWIDTH=80 man -l "$page" 2>&1)"
  for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" ENVIRONMENT FILES EXAMPLES "SEE ALSO"; do
    grep -q "^$section\$" <<<"$text" || { echo "$(basename "$page") lacks $section" >&2; exit 1; }
  done
done
grep -q '^COMMANDS$' <<<"$(man -l "$root/usr/share/man/man1/vyrixctl.1.gz")" \
  || { echo "vyrixctl.1 lists no subcommands" >&2; exit 1; }
plain_names="$(sed -e 's|/\*.*\*/||' api/libVyrix_Api.map | grep -oE '^\s+[A-Za-z][A-Za-z0-9_]*;' | tr -d ' ;')"
missing=""
for name in $plain_names libvyrix; do
  MANPATH="$root/usr/share/man" man -w 3 "$name" >/dev/null 2>&1 || missing="$missing $name"
done
[ -z "$missing" ] || { echo "no section 3 page for:$missing" >&2; exit 1; }
echo "manual pages: $(ls "$root"/usr/share/man/man3 | wc -l) in section 3, every exported name found"

# The packaged pkg-config file names the normal include path.
cflags="$(PKG_CONFIG_PATH="$root/usr/$libdir/pkgconfig" pkg-config --cflags vyrix | xargs)"
[ "$cflags" = "-I/usr/include/vyrix" ] || { echo "pkg-config --cflags vyrix gives '$cflags'" >&2; exit 1; }

# The library package carries a symbols file naming every export.
dpkg-deb -I build/package/libvyrix-api1_*.deb symbols | grep -q ' Vyrix_OpenConnection@Base ' \
  || { echo "libvyrix-api1 has no symbols file" >&2; exit 1; }

# Errors and warnings fail; the hardening and symbols tags must not appear
# among the informational ones.  Overrides travel in the packages.
report="$(lintian --fail-on error,warning --display-info build/package/*.deb)" \
  || { echo "$report" >&2; echo "lintian found errors or warnings" >&2; exit 1; }
echo "$report"
for tag in hardening-no-bindnow hardening-no-fortify-functions no-symbols-control-file; do
  ! grep -q "$tag" <<<"$report" || { echo "lintian: $tag" >&2; exit 1; }
done
echo "packages, lintian and installed-tree examples: ok"
