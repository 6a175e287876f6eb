# SPDX-License-Identifier: MIT
"""open_uart with the address of a line that ser2net exports, in front of the simulator."""

import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import pytest

import vyrix
from conftest import DEADLINE, RUNTIME_DIR, lock_file

SER2NET = shutil.which("ser2net") or "/usr/sbin/ser2net"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def listening(port):
    """Whether a socket listens on the loopback port (ser2net announces nothing)."""
    with open("/proc/net/tcp") as table:
        return any(f.split()[1] == "0100007F:%04X" % port and f.split()[3] == "0A" for f in list(table)[1:])


@pytest.fixture
def exported(simulator):
    """The simulator's line exported by ser2net: a function of the scheme giving the address."""
    sim = simulator()
    directory = tempfile.mkdtemp(dir=RUNTIME_DIR)
    ports = {"tcp": free_port(), "rfc2217": free_port()}
    with open(os.path.join(directory, "ser2net.yaml"), "w") as config:
        for n, (scheme, port) in enumerate(ports.items()):
            accepter = "telnet(rfc2217),tcp" if scheme == "rfc2217" else "tcp"
            config.write("connection: &l%d\n  accepter: %s,127.0.0.1,%d\n" % (n, accepter, port))
            config.write("  connector: serialdev,%s,57600n81,local\n" % sim.link)
    args = [SER2NET, "-n", "-u", "-c", config.name, "-P", os.path.join(directory, "pid")]
    server = subprocess.Popen(args, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + DEADLINE
    while not all(listening(p) for p in ports.values()):
        assert time.monotonic() < deadline and server.poll() is None, "ser2net never listened"
        time.sleep(0.01)
    yield lambda scheme: "%s://127.0.0.1:%d" % (scheme, ports[scheme])
    server.send_signal(signal.SIGKILL)
    server.wait(DEADLINE)


@pytest.mark.parametrize("scheme", ["tcp", "rfc2217"])
def test_open_uart_takes_an_address(exported, scheme):
    address = exported(scheme)
    with vyrix.open_uart(address) as dev:
        dev.set_brightness(77)
        assert dev.get_brightness() == 77
        assert lock_file(address) is None
    with pytest.raises(vyrix.InvalidArgument):
        vyrix.open_uart(scheme + "://127.0.0.1:0")
