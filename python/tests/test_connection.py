"""Opening and closing, unprompted messages, firmware upgrades and errors, each against a fresh simulator."""

import dataclasses
import itertools
import os
import tempfile
import zlib

import pytest

import vyrix
from conftest import DEADLINE, RUNTIME_DIR, lock_file


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
    dev.close()
    assert lock_file(sim.link) is None


def test_missing_device_path():
    missing = os.path.join(tempfile.mkdtemp(dir=RUNTIME_DIR), "missing")
    with pytest.raises(vyrix.VyrixError) as error:
        vyrix.open_uart(missing)
    assert type(error.value) is vyrix.Failure
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
    assert (status.status_word6, status.status_word7) == (9001, zlib.crc32(image))
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
