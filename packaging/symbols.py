#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Writes the Debian symbols file of the library package.

The names come from the version script: its plain names as they stand, its
patterns (the C++ names, matched as _Z<length><name>*) expanded against what
the built library exports.  A plain name the library does not export, or a
pattern that matches nothing, is an error: the file lists exactly what the
library promises.

    symbols.py --map MAP --library LIB --nm NM --package PKG \
               --dev-package DEV --version VERSION --output FILE
"""

import argparse
import fnmatch
import os
import re
import subprocess
import sys


def version_script_names(path):
    text = re.sub(r"/\*.*?\*/", "", open(path, encoding="utf-8").read(), flags=re.S)
    global_part = text.split("global:", 1)[1].split("local:", 1)[0]
    return [name.strip() for name in global_part.split(";") if name.strip()]


def exported(library, nm):
    out = subprocess.run([nm, "-D", "--defined-only", library], capture_output=True, text=True, check=True).stdout
    return sorted({line.split()[-1].split("@")[0] for line in out.splitlines() if line.strip()})


def soname(library, path):
    # libVyrix_Api.so.1.3.0 -> libVyrix_Api.so.1
    base = os.path.basename(os.path.realpath(library))
    match = re.match(r"^(.*\.so\.\d+)", base)
    if not match:
        sys.exit(f"symbols.py: cannot tell the SONAME of {path}")
    return match.group(1)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    for name in ("map", "library", "nm", "package", "dev-package", "version", "output"):
        parser.add_argument("--" + name, required=True)
    args = parser.parse_args()

    names = version_script_names(args.map)
    symbols = exported(args.library, args.nm)
    listed = []
    for name in names:
        if any(c in name for c in "*?["):
            matches = fnmatch.filter(symbols, name)
            if not matches:
                sys.exit(f"symbols.py: {name} matches nothing the library exports")
            listed += matches
        elif name in symbols:
            listed.append(name)
        else:
            sys.exit(f"symbols.py: {name} is in the version script but not exported")

    lines = [f"{soname(args.library, args.library)} {args.package} #MINVER#",
             f"* Build-Depends-Package: {args.dev_package}"]
    lines += [f" {name}@Base {args.version}" for name in sorted(set(listed))]
    with open(args.output, "w", encoding="utf-8") as out:
        out.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
