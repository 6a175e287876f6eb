# SPDX-License-Identifier: MIT
"""The package as a whole: its exceptions, documentation, library loading, serial device list and metadata."""

import dataclasses
import inspect
import os
import shutil
import subprocess
import sys

import pytest

import vyrix
from vyrix import _lib, device


@pytest.mark.parametrize(
    "cls,builtin",
    [
        (vyrix.NotConnected, ConnectionError),
        (vyrix.Timeout, TimeoutError),
        (vyrix.Incomplete, TimeoutError),
        (vyrix.InvalidArgument, ValueError),
        (vyrix.Failure, None),
        (vyrix.DeviceStatus, None),
    ],
)
def test_exception_classes(cls, builtin):
    error = cls(cls.result_code.result if cls.result_code else 0x0A00BEEF, "what")
    assert isinstance(error, vyrix.VyrixError)
    assert builtin is None or isinstance(error, builtin)
    assert builtin is not None or not isinstance(error, OSError)
    assert str(error).startswith("what: ")


def public_names():
    """(name, object) of everything the package offers, Device's members included."""
    names = [(name, getattr(vyrix, name)) for name in vyrix.__all__]
    names += [("Device." + n, m) for n, m in vars(vyrix.Device).items() if not n.startswith("_")]
    names += [("VyrixError.__init__", vyrix.VyrixError.__init__), ("Device.__init__", vyrix.Device.__init__)]
    return [(n, m) for n, m in names if inspect.isclass(m) or inspect.isfunction(m) or isinstance(m, property)]


def test_every_public_name_has_a_docstring():
    def documented(thing):
        doc = inspect.getdoc(thing.fget if isinstance(thing, property) else thing) or ""
        generated = inspect.isclass(thing) and dataclasses.is_dataclass(thing) and doc.startswith(thing.__name__ + "(")
        return doc.strip() and not generated

    names = public_names()
    assert len(names) > 80
    assert [name for name, thing in names if not documented(thing)] == []


@pytest.mark.parametrize("library", ["/nonexistent/libVyrix_Api.so.1", None])
def test_a_library_that_cannot_be_loaded_is_explained(monkeypatch, library):
    if library:
        monkeypatch.setenv("VYRIX_LIBRARY", library)
    else:
        monkeypatch.delenv("VYRIX_LIBRARY", raising=False)
        monkeypatch.setattr(_lib, "LIBRARY_NAME", "libVyrix_Api.so.0-nonexistent")
    with pytest.raises(OSError) as error:
        _lib._load()
    message = str(error.value)
    assert "VYRIX_LIBRARY" in message
    for place in [library] if library else [os.path.dirname(_lib.__file__), "system loader"]:
        assert place in message


def test_list_uart_names_the_serial_devices(tmp_path):
    sysfs, by_id, dev = tmp_path / "tty", tmp_path / "by-id", tmp_path / "dev"
    for name, hardware in (("ttyUSB0", True), ("ttyS1", True), ("tty0", False)):
        (sysfs / name).mkdir(parents=True)
        if hardware:
            (sysfs / name / "device").mkdir()
    by_id.mkdir()
    (by_id / "usb-Vyrix_LSE_00A1B2C3-if00").symlink_to("/dev/ttyUSB0")
    assert device._serial_devices(str(sysfs), str(by_id)) == [
        vyrix.UartDevice("/dev/ttyS1", None),
        vyrix.UartDevice("/dev/ttyUSB0", str(by_id / "usb-Vyrix_LSE_00A1B2C3-if00")),
    ]
    assert device._serial_devices(str(dev), str(by_id)) == []
    assert all(isinstance(d, vyrix.UartDevice) for d in vyrix.list_uart())


def test_version_is_the_library_version():
    info = vyrix.library_info()
    assert vyrix.__version__ == "%d.%d.%d" % (info.major, info.minor, info.revision)


def test_installed_package_has_its_metadata(tmp_path):
    build = os.environ.get("VYRIX_BUILD_DIR")
    if not build:
        pytest.skip("VYRIX_BUILD_DIR (set by ctest) names the build to install from")
    cmake = os.environ.get("CMAKE_COMMAND") or shutil.which("cmake")
    subprocess.run([cmake, "--install", build, "--component", "python", "--prefix", str(tmp_path)], check=True)
    packages = tmp_path / "lib" / "python3" / "dist-packages"
    assert (packages / "vyrix" / "py.typed").exists()
    probe = "import importlib.metadata as m, vyrix; print(m.version('vyrix'), vyrix.__version__, vyrix.__file__)"
    environment = dict(os.environ, PYTHONPATH=str(packages))
    output = subprocess.run([sys.executable, "-c", probe], env=environment, capture_output=True, text=True, check=True)
    version, package_version, where = output.stdout.split()
    assert version == package_version == vyrix.__version__
    assert where.startswith(str(packages))
