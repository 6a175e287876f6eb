# SPDX-License-Identifier: MIT
"""Every operation against one simulated device, connected once for the module."""

import pytest

import vyrix
from conftest import Simulator
from vyrix import Storage


@pytest.fixture(scope="module")
def sim():
    simulator = Simulator()
    yield simulator
    simulator.stop()


@pytest.fixture(scope="module")
def dev(sim):
    with vyrix.open_uart(sim.link) as device:
        yield device


# (name, arguments before the value, value): set_<name>(*before, value) then
# get_<name>(*before) must give the value back.
ROUND_TRIPS = [
    ("brightness", (), 0),
    ("brightness", (), 100),
    ("input_video_state", (), 0),
    ("color_mode", (), 4),
    ("color_mode", (), -3),
    ("gamma", (1,), 1.0),
    ("gamma", (2,), 2.5),
    ("gamma", (0,), 2.2),  # a 32-bit float comes back as the decimal it means
    ("video_gamma_boost_mode", (2,), 1),
    ("micro_weave_mode", (), 0),
    ("flip_state", (), 3),
    ("output_video_state", (), 0),
    ("bi_phase", (), -100),
    ("bi_phase", (), 100),
    ("color_alignment", (1, 4), -32),
    ("color_alignment", (0, 0), 32),
    ("color_converter", (8,), -65536),
    ("color_converter", (0,), 65535),
    ("frame_rate_mode", (), vyrix.FrameRate(2, 30, 0xFFFFFFFF)),
    ("sensing_state", (), 1),
]


@pytest.mark.parametrize("name,before,value", ROUND_TRIPS)
def test_setting_round_trip(dev, name, before, value):
    getattr(dev, "set_" + name)(*before, value)
    assert getattr(dev, "get_" + name)(*before) == value


def test_storage_copies_commit_and_factory_restore(dev):
    dev.set_brightness(11, Storage.CURRENT)
    dev.set_brightness(22, Storage.SAVED)
    assert (dev.get_brightness(), dev.get_brightness(Storage.SAVED)) == (11, 22)
    dev.commit_all()
    assert dev.get_brightness(Storage.SAVED) == 11
    dev.restore_factory_settings()
    factory = dev.get_brightness(Storage.FACTORY)
    assert dev.get_brightness() == dev.get_brightness(Storage.SAVED) == factory != 11


def test_video_properties(dev):
    assert dev.get_input_video_properties() == vyrix.VideoProperties(1280, 720, 60.0)
    assert dev.get_output_video_properties() == vyrix.VideoProperties(1440, 810, 60.0)


def test_system_info(dev):
    info = dev.get_system_info()
    assert info == vyrix.SystemInfo("VYRIX-LSE-SIM-01", "1.0", "00A1B2C3", 3, info.uptime_s, info.words)
    assert info.words[:3] == (0x00010000, 0x00A1B2C3, 3)


def test_system_status(dev):
    status = dev.get_system_status()
    handled = dev.statistics().packets_sent  # the simulator counts every command, this one included
    temperature = round(41.5 + (handled % 10) * 0.1, 1)  # what the simulator reports, in its 32-bit float
    assert status == vyrix.SystemStatus(1, "running", 0, temperature, 0, handled, status.words)
    assert status.words[:4] == (1, 0, 0, handled)


def test_test_pattern_shows_in_status_and_event_log(dev):
    dev.draw_test_pattern(3, 7, 9)
    assert dev.get_system_status().words[4] == 3
    newest, older = dev.get_event_log(2)
    assert (newest.event, newest.code, newest.detail, newest.opcode) == ("test pattern", 4, 3, 45)
    assert newest.seq == older.seq + 1  # newest first
    assert dev.get_event_log(0) == []
    everything = dev.get_event_log(255)  # more than the device holds: the empty slots are left out
    assert [e.seq for e in everything] == list(range(newest.seq, 0, -1))
    assert everything[-1].event == "power on"


@pytest.mark.parametrize(
    "call",
    [
        lambda d: d.set_brightness(101),
        lambda d: d.set_brightness(256),  # does not fit the C type
        lambda d: d.set_brightness(50, Storage.FACTORY),
        lambda d: d.set_gamma(0, 3.01),
        lambda d: d.draw_test_pattern(5),
        lambda d: d.get_event_log(256),
        lambda d: d.upgrade_software(b""),
        lambda d: setattr(d, "timeout", 0),
        lambda d: vyrix.open_uart("/nonexistent/tty", timeout=float("nan")),
    ],
)
def test_invalid_arguments(dev, call):
    with pytest.raises(vyrix.InvalidArgument) as error:
        call(dev)
    assert error.value.code == 0x05000000
    assert isinstance(error.value, ValueError)


WRONG_TYPES = [
    lambda d: d.set_brightness("50"),
    lambda d: d.set_brightness(50.0),
    lambda d: d.set_brightness(50, "current"),
    lambda d: d.set_gamma(0, "2.2"),
    lambda d: d.get_color_converter(index=None),
    lambda d: d.get_event_log(2.0),
    lambda d: d.set_frame_rate_mode("2, 30, 0"),
    lambda d: d.set_frame_rate_mode((2.5,)),
    lambda d: d.upgrade_software(4000),
    lambda d: d.upgrade_software(b"image", progress="yes"),
    lambda d: setattr(d, "timeout", "10"),
    lambda d: next(d.messages(timeout="1")),
    lambda d: vyrix.open_uart(None),
    lambda d: vyrix.open_uart("/nonexistent/tty", flow_control="none"),
    lambda d: vyrix.open_uart("/nonexistent/tty", timeout="10"),
    lambda d: vyrix.open_usb(4),
]


@pytest.mark.parametrize("call", WRONG_TYPES)
def test_wrong_argument_types_are_refused_before_sending(dev, call):
    sent = dev.statistics().packets_sent
    with pytest.raises(TypeError):
        call(dev)
    assert dev.statistics().packets_sent == sent


def test_second_connection_to_the_same_port(sim, dev):
    with pytest.raises(vyrix.AlreadyOpened):
        vyrix.open_uart(sim.link)


def test_list_usb_gives_records():
    assert all(isinstance(d, vyrix.UsbDevice) and d.product_id == 4 for d in vyrix.list_usb())
