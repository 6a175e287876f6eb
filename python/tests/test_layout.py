# SPDX-License-Identifier: MIT
"""The ctypes records and enumerations against the C compiler's view of the headers."""

import ctypes
import os
import shutil
import subprocess

import pytest

import vyrix
from vyrix import _records

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_TREE = os.path.join(HERE, os.pardir, os.pardir)
INCLUDE_DIRS = (
    os.environ["VYRIX_INCLUDE_DIRS"].split(os.pathsep)
    if os.environ.get("VYRIX_INCLUDE_DIRS")
    else [os.path.join(SOURCE_TREE, "interface"), os.path.join(SOURCE_TREE, "common")]
)
ENUMS = {
    vyrix.ResultCode: "eVYRIX_",
    vyrix.Storage: "eVYRIX_STORAGE_",
    vyrix.ConnectionType: "eVYRIX_CONNECTION_",
    vyrix.DeviceId: "e",
    vyrix.Protocol: "ePROTOCOL_",
}


def python_view():
    """name -> number, from the package's definitions."""
    view = {}
    for record in _records.RECORDS:
        view[record._c_name_] = ctypes.sizeof(record)
        for field, _ in record._fields_:
            if not field.startswith("_"):
                view["%s.%s" % (record._c_name_, field)] = getattr(record, field).offset
    for name, ctype in _records.SCALARS.items():
        view[name] = ctypes.sizeof(ctype)
    for enum_type, prefix in ENUMS.items():
        for name, member in enum_type.__members__.items():  # aliases too
            view[prefix + name] = int(member)
    return view


def c_program(keys):
    lines = ["#include <stddef.h>", "#include <stdio.h>", '#include "Vyrix_Api.h"', '#include "Vyrix_LLC_Api_Ex.h"']
    lines.append("int main(void) {")
    for key in keys:
        if "." in key:
            record, field = key.split(".")
            value = "offsetof(%s, %s)" % (record, field)
        elif key.startswith("e"):
            value = key
        else:
            value = "sizeof(%s)" % key
        lines.append('    printf("%s %%lld\\n", (long long)(%s));' % (key, value))
    return "\n".join(lines + ["    return 0;", "}", ""])


def test_records_and_enumerations_match_the_headers(tmp_path):
    compiler = os.environ.get("CC") or shutil.which("cc") or shutil.which("gcc")
    if not compiler:
        pytest.fail("no C compiler (set CC)")
    expected = python_view()
    source, program = tmp_path / "layout.c", tmp_path / "layout"
    source.write_text(c_program(sorted(expected)))
    includes = ["-I" + d for d in INCLUDE_DIRS]
    command = [compiler, "-std=c11", "-Wall", "-Werror", *includes, str(source), "-o", str(program)]
    subprocess.run(command, check=True)
    output = subprocess.run([str(program)], check=True, capture_output=True, text=True).stdout
    actual = {key: int(value) for key, value in (line.split() for line in output.splitlines())}
    assert actual == expected
