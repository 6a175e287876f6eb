# SPDX-License-Identifier: MIT
"""Opening and closing, unprompted messages, firmware upgrades and errors, each against a fresh simulator."""

import dataclasses
import itertools
import os
import select
import signal
import subprocess
import sys
import tempfile
import threading
import time
import zlib

import pytest

import vyrix
from conftest import DEADLINE, PACKAGE_ROOT, RUNTIME_DIR, lock_file


def test_context_manager_closes_the_connection(simulator):
    sim = simulator()
    with vyrix.open_uart(sim.link) as dev:
        assert lock_file(sim.link) is not None
        dev.get_brightness()
    assert dev.closed
    assert lock_file(sim.link) is None
    with pytest.raises(vyrix.NotConnected):
        dev.get_brightness()
    dev.close()  # a second close does nothing
    with vyrix.open_uart(sim.link) as again:  # the port is free again
        again.get_brightness()


def test_close_without_context_manager(simulator):
    sim = simulator()
    dev = vyrix.open_uart(sim.link)
    assert repr(dev) == "<vyrix.Device uart %r open>" % sim.link
    dev.close()
    assert lock_file(sim.link) is None
    assert repr(dev) == "<vyrix.Device uart %r closed>" % sim.link


def test_a_dropped_device_releases_the_port(simulator):
    sim = simulator()
    dev = vyrix.open_uart(sim.link)
    dev.get_brightness()
    del dev
    assert lock_file(sim.link) is None
    with vyrix.open_uart(sim.link) as again:
        again.get_brightness()


def test_time_out(simulator):
    sim = simulator("--silent-every", "2")
    with vyrix.open_uart(sim.link, timeout=DEADLINE) as dev:
        assert dev.timeout == DEADLINE
        dev.get_brightness()
        dev.timeout = 0.2
        started = time.monotonic()
        with pytest.raises(TimeoutError) as error:
            dev.get_brightness()  # the device leaves this one unanswered
        assert time.monotonic() - started >= 0.2
        assert type(error.value) is vyrix.Incomplete and error.value.code == 0x07000000
        dev.timeout = None  # the library's default
        assert dev.timeout is None
        dev.get_brightness()


def interrupt_when(sim, packets):
    """SIGINT to this process once the simulator has received that many packets; the time it was sent."""
    sent = []

    def watch():
        sim.wait_for("host ->", packets)
        sent.append(time.monotonic())
        os.kill(os.getpid(), signal.SIGINT)

    watcher = threading.Thread(target=watch)
    watcher.start()
    return watcher, sent


def test_interrupt_leaves_the_connection_usable(simulator):
    sim = simulator("--silent-every", "2", "--trace")
    timeout = 2.0
    with vyrix.open_uart(sim.link, timeout=timeout) as dev:
        dev.set_brightness(40)
        watcher, sent = interrupt_when(sim, 2)
        with pytest.raises(KeyboardInterrupt):
            dev.get_brightness()  # unanswered: only the interrupt ends the wait
        interrupted = time.monotonic()
        watcher.join()
        assert interrupted - sent[0] < 0.5 < timeout
        # The next command waits for the interrupted one to time out, then
        # gets its own reply.
        assert dev.get_brightness() == 40
        assert dev.statistics().packets_sent == 3


def test_a_forked_child_is_not_held_by_the_parents_command(simulator):
    # The parent's command holds the connection's turn on a thread the child
    # does not have; the child's own command must end at once, not wait.
    sim = simulator("--silent-every", "1", "--trace")
    with vyrix.open_uart(sim.link, timeout=DEADLINE) as dev:
        outcome = []
        running = threading.Thread(target=lambda: outcome.append(_try(dev.get_brightness)))
        running.start()
        sim.wait_for("host ->", 1)
        reader, writer = os.pipe()
        pid = os.fork()
        if pid == 0:
            os.close(reader)
            os.write(writer, _try(dev.get_brightness).encode())
            os._exit(0)
        os.close(writer)
        ready, _, _ = select.select([reader], [], [], DEADLINE)
        answer = os.read(reader, 100).decode() if ready else "no answer in time"
        os.close(reader)
        if not ready:
            os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
        assert answer == "NotConnected"
        dev.close()
        running.join()
        assert outcome == ["NotConnected"]


def _try(command):
    """The name of the exception the command raised, or "ok"."""
    try:
        command()
        return "ok"
    except BaseException as error:
        return type(error).__name__


@pytest.mark.parametrize("ending", ["exit", "interrupt"])
def test_the_interpreter_closes_what_is_open_on_exit(simulator, ending):
    sim = simulator("--silent-every", "2", "--trace")
    script = "import sys, vyrix\nd = vyrix.open_uart(sys.argv[1])\nd.get_brightness()\nprint('open', flush=True)\n"
    if ending == "interrupt":
        script += "d.get_brightness()\n"  # unanswered
    environment = dict(os.environ, PYTHONPATH=PACKAGE_ROOT)
    child = subprocess.Popen([sys.executable, "-c", script, sim.link], stdout=subprocess.PIPE, env=environment)
    assert child.stdout.readline() == b"open\n"
    if ending == "interrupt":
        sim.wait_for("host ->", 2)
        child.send_signal(signal.SIGINT)
    assert child.wait(DEADLINE) == {"exit": 0, "interrupt": -signal.SIGINT}[ending]
    child.stdout.close()
    assert lock_file(sim.link) is None
    vyrix.open_uart(sim.link).close()


def test_missing_device_path():
    missing = os.path.join(tempfile.mkdtemp(dir=RUNTIME_DIR), "missing")
    with pytest.raises(vyrix.VyrixError) as error:
        vyrix.open_uart(missing)
    assert type(error.value) is vyrix.Failure
    # The library's own sentence names the cause.
    assert error.value.reason.startswith(missing + ": no such device")
    assert error.value.reason in str(error.value)
    assert lock_file(missing) is None


def test_statistics_count_one_command(simulator):
    sim = simulator()
    with vyrix.open_uart(sim.link) as dev:
        dev.get_brightness()
        stats = dev.statistics()
    assert (stats.packets_sent, stats.packets_received) == (1, 1)
    assert stats == vyrix.LinkStatistics(1, 1, stats.bytes_sent, stats.bytes_received, 0, 0, 0, 0)
    assert stats.bytes_sent > 0 and stats.bytes_received > 0
    assert [f.name for f in dataclasses.fields(stats)] == [
        "packets_sent",
        "packets_received",
        "bytes_sent",
        "bytes_received",
        "resends",
        "packets_discarded",
        "messages_dropped",
        "link_downs",
    ]
    with pytest.raises(vyrix.NotConnected):
        dev.statistics()


def test_capture_records_a_command_and_its_reply(simulator, tmp_path):
    sim = simulator()
    capture = tmp_path / "link.pcap"
    with vyrix.open_uart(sim.link, timeout=DEADLINE) as dev:
        dev.start_capture(capture)
        with pytest.raises(vyrix.AlreadyOpened):
            dev.start_capture(capture)
        dev.get_brightness()
        dev.stop_capture()
        with pytest.raises(vyrix.Failure):
            dev.start_capture(tmp_path / "missing" / "link.pcap")
        stats = dev.statistics()
    data = capture.read_bytes()
    # pcap with nanosecond stamps, then one record per packet each way
    # (16-byte record header, 8-byte capture header, the packet).
    assert data[:4] == bytes.fromhex("4d3cb2a1") and len(data) > 24
    offset, records = 24, []
    while offset < len(data):
        included = int.from_bytes(data[offset + 8 : offset + 12], "little")
        records.append(data[offset + 16 : offset + 16 + included])
        offset += 16 + included
    assert len(records) == stats.packets_sent + stats.packets_received == 2
    assert sum(len(r) - 8 for r in records) == stats.bytes_sent + stats.bytes_received


def test_unprompted_messages(simulator):
    sim = simulator("--notify-every", "0.2")
    with vyrix.open_uart(sim.link) as dev:
        first, second = itertools.islice(dev.messages(timeout=DEADLINE), 2)
    for message in (first, second):
        assert message.protocol == vyrix.Protocol.CONNECTIONLESS
        assert message.payload[:4] == b"**\x07\x00"  # markers, event "setting changed"
    detail = [int.from_bytes(m.payload[4:8], "little") for m in (first, second)]
    assert detail[1] == detail[0] + 1


@pytest.mark.parametrize("as_path", [False, True])
def test_upgrade_with_progress(simulator, tmp_path, as_path):
    sim = simulator()
    image = bytes(i * 7 % 251 for i in range(9001))
    source = image
    if as_path:
        source = tmp_path / "firmware.bin"
        source.write_bytes(image)
    progress = []
    with vyrix.open_uart(sim.link) as dev:
        dev.upgrade_software(source, progress=lambda sent, total: progress.append((sent, total)))
        status = dev.get_system_status()
    assert progress == [(4000, 9001), (8000, 9001), (9001, 9001)]
    assert status.words[5:] == (9001, zlib.crc32(image))  # bytes received, their crc32
    sim.wait_for("9001 bytes in 3 chunks, crc32 %08X" % zlib.crc32(image))


def test_error_reply_raises_communication_error(simulator):
    sim = simulator("--error-every", "1")
    with vyrix.open_uart(sim.link) as dev:
        with pytest.raises(vyrix.CommunicationError) as error:
            dev.get_brightness()
    assert error.value.code == 0x17000000


def class_name(code):
    if code is vyrix.ResultCode.NOT_IMPLEMENTED:
        return "NotImplementedOnDevice"
    return "".join(word.capitalize() for word in code.name.split("_"))


@pytest.mark.parametrize("code", [c for c in vyrix.ResultCode if c], ids=lambda c: c.name)
def test_each_code_has_its_class(code):
    error = vyrix.error_for(code.result)
    assert type(error).__name__ == class_name(code)
    assert getattr(vyrix, class_name(code)) is type(error)
    assert isinstance(error, vyrix.VyrixError) and not isinstance(error, vyrix.DeviceStatus)
    assert error.code == code << 24
    assert "0x%08X" % error.code in str(error)


@pytest.mark.parametrize("word", [0x0A00BEEF, 0x00000001, 0x1D000000, 0xFFFFFFFF])
def test_device_status_words(word):
    error = vyrix.error_for(word)
    assert type(error) is vyrix.DeviceStatus
    assert error.code == word
    assert "0x%08X" % word in str(error)
