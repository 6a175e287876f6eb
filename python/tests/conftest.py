# SPDX-License-Identifier: MIT
"""The simulator on a pseudo-terminal, and a private directory for the library's files."""

import os
import selectors
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import pytest

# Before the library is loaded: its log and lock files go to a directory of
# our own where the library supports that (older builds keep using /tmp).
RUNTIME_DIR = tempfile.mkdtemp(prefix="vyrix-py-")
os.environ["VYRIX_RUNTIME_DIR"] = RUNTIME_DIR

PACKAGE_ROOT = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir))
sys.path.insert(0, PACKAGE_ROOT)

DEADLINE = 30  # seconds; generous, nothing here should take more than one
SIM = os.environ.get("VYRIX_SIM") or shutil.which("vyrix-sim")


def pytest_sessionfinish(session, exitstatus):
    shutil.rmtree(RUNTIME_DIR, ignore_errors=True)


def lock_file(port):
    """The lock file of a serial port if one exists, else None."""
    device = port[len("/dev/") :] if port.startswith("/dev/") else port
    name = "vyrix_llc_com_" + device.replace("/", "_") + ".lock"
    for directory in (RUNTIME_DIR, "/tmp"):
        path = os.path.join(directory, name)
        if os.path.lexists(path):
            return path
    return None


class Simulator:
    """vyrix-sim with a link to its terminal; waits on its output, never sleeps."""

    def __init__(self, *args, link=None):
        assert SIM, "vyrix-sim not found: set VYRIX_SIM"
        self.link = link or os.path.join(tempfile.mkdtemp(dir=RUNTIME_DIR), "sim")
        self.output = ""
        self.proc = subprocess.Popen(
            [SIM, "--link", self.link, *args], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, bufsize=0
        )
        self.wait_for("Try:")

    def wait_for(self, text, count=1):
        """The output once text has appeared count times (--trace prints each packet)."""
        deadline = time.monotonic() + DEADLINE
        with selectors.DefaultSelector() as selector:
            selector.register(self.proc.stdout, selectors.EVENT_READ)
            while self.output.count(text) < count:
                left = deadline - time.monotonic()
                assert left > 0, "simulator never printed %r:\n%s" % (text, self.output)
                if selector.select(left):
                    data = os.read(self.proc.stdout.fileno(), 4096)
                    assert data, "simulator ended:\n" + self.output
                    self.output += data.decode()
        return self.output

    def stop(self):
        self.proc.send_signal(signal.SIGTERM)
        self.proc.wait(DEADLINE)
        self.proc.stdout.close()


@pytest.fixture
def simulator():
    """A function that starts a simulator with extra options; all are stopped at the end."""
    started = []

    def start(*args, link=None):
        started.append(Simulator(*args, link=link))
        return started[-1]

    yield start
    for sim in started:
        sim.stop()
