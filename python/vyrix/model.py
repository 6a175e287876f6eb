# SPDX-License-Identifier: MIT
"""Enumerations and the plain records the device methods return.

The records of the device's identity, status and event log carry the names
and units that `vyrixctl --json` prints.  A 32-bit float from the device
comes back as the shortest decimal that reads back as the same 32-bit value
(2.2, not 2.200000047683716).
"""

from __future__ import annotations

import ctypes
import dataclasses
import enum
import math
from typing import Dict, Optional, Tuple, Type, TypeVar, Union


class Storage(enum.IntEnum):
    """Which copy of a setting is read or written."""

    CURRENT = 0  # in effect now, lost at power-off
    SAVED = 1  # kept across power-off
    FACTORY = 2  # the factory value (read only)


class ConnectionType(enum.IntEnum):
    """The transport of a connection."""

    UART = 0
    USB = 1
    BTH = 2


class DeviceId(enum.IntEnum):
    """Addresses on the link: who sent a message, and to whom."""

    EP_DEVICE = 0
    RESERVED = 1
    HOST_DEVICE = 2
    AP_DEVICE = 3
    BROADCAST_DEVICE_ID = 63


class Protocol(enum.IntEnum):
    """How a message travels: unprompted, or as a command's reply."""

    CONNECTIONLESS = 0
    CONNECTION_ORIENTED = 1


_E = TypeVar("_E", bound=enum.IntEnum)


def _enum_or_int(enum_type: Type[_E], value: int) -> Union[_E, int]:
    try:
        return enum_type(value)
    except ValueError:
        return value


def single(value: float) -> float:
    """value as a 32-bit float means it: the shortest decimal that reads back as the same 32-bit float."""
    exact = ctypes.c_float(value).value
    if not math.isfinite(exact):
        return exact
    for digits in range(1, 10):  # 9 significant digits always read back
        shortest = float("%.*g" % (digits, exact))
        if ctypes.c_float(shortest).value == exact:
            return shortest
    return exact


# The device's event codes, named as vyrixctl names them.
EVENT_NAMES: Dict[int, str] = {
    1: "power on",
    2: "commit",
    3: "factory restore",
    4: "test pattern",
    5: "upgrade chunk",
    6: "upgrade done",
    7: "setting changed",
    8: "bad command",
}


STATE_NAMES: Dict[int, str] = {0: "standby", 1: "running", 2: "upgrading", 3: "fault"}


def state_name(state: int) -> str:
    """The name of a device state ('running'), or 'state N' for a state without one."""
    return STATE_NAMES.get(state, "state %d" % state)


def event_name(code: int) -> str:
    """The name of an event code ('commit'), or 'event N' for a code without one."""
    return EVENT_NAMES.get(code, "event %d" % code)


@dataclasses.dataclass(frozen=True)
class LibraryInfo:
    """The version of the loaded library."""

    major: int
    minor: int
    revision: int
    build: int


@dataclasses.dataclass(frozen=True)
class VideoProperties:
    """A video format: size in pixels and frames per second."""

    width: int
    height: int
    frame_rate: float


@dataclasses.dataclass(frozen=True)
class FrameRate:
    """The frame rate mode (0..2) and its two parameters, which the device defines."""

    mode: int
    param1: int = 0
    param2: int = 0


@dataclasses.dataclass(frozen=True)
class SystemInfo:
    """The device's identity (Device.get_system_info)."""

    device: str  # the device's name text, at most 16 characters
    firmware: str  # "major.minor" (info word 1: major in the high 16 bits)
    serial: str  # serial number, 8 hexadecimal digits (info word 2)
    hardware: int  # hardware revision (info word 3)
    uptime_s: int  # seconds since power-on (info word 4)
    words: Tuple[int, ...]  # the seven info words as the device sent them

    @classmethod
    def decode(cls, text: bytes, words: Tuple[int, ...]) -> SystemInfo:
        """The record from the device's text and its seven info words."""
        return cls(
            text.decode("latin-1"),
            "%d.%d" % (words[0] >> 16, words[0] & 0xFFFF),
            "%08X" % words[1],
            words[2],
            words[3],
            tuple(words),
        )


@dataclasses.dataclass(frozen=True)
class SystemStatus:
    """The device's state (Device.get_system_status)."""

    state: int  # status word 1
    state_name: str  # its name ("running"; "state N" for an unknown one)
    errors: int  # status word 2
    temperature_c: float  # degrees Celsius (the status value)
    laser_hours: int  # status word 3
    commands: int  # commands the device has handled (status word 4)
    words: Tuple[int, ...]  # the seven status words as the device sent them

    @classmethod
    def decode(cls, value: float, words: Tuple[int, ...]) -> SystemStatus:
        """The record from the device's status value and its seven status words."""
        return cls(words[0], state_name(words[0]), words[1], single(value), words[2], words[3], tuple(words))


@dataclasses.dataclass(frozen=True)
class EventLogEntry:
    """One entry of the device's event log (Device.get_event_log)."""

    event: str  # the event's name ("commit"; "event N" for an unknown code)
    code: int  # the event code
    seq: int  # the device's running number of the entry (0: an empty slot)
    time_s: int  # seconds since power-on
    detail: int  # what the event concerns (a storage copy, a chunk number, ...)
    opcode: int  # the command that caused it
    extra: int

    @classmethod
    def decode(cls, field1: int, field2: int, field3: int, field4: int, field5: int, field6: int) -> EventLogEntry:
        """The record from the six fields of the device's entry, in their order."""
        return cls(event_name(field1), field1, field2, field3, field4, field5, field6)


@dataclasses.dataclass(frozen=True)
class LinkStatistics:
    """What one connection's link has counted since it opened."""

    packets_sent: int  # resends included
    packets_received: int
    bytes_sent: int  # every byte that crossed the port
    bytes_received: int
    resends: int  # packets sent again at the device's request
    packets_discarded: int  # damaged packets and false starts, replies dropped at the queue bound
    messages_dropped: int  # unprompted messages dropped at the queue bound
    link_downs: int  # times the link went down (a close is not one)


@dataclasses.dataclass(frozen=True)
class Message:
    """A message the device sent of its own accord."""

    source: Union[DeviceId, int]
    destination: Union[DeviceId, int]
    priority: int
    protocol: Union[Protocol, int]
    payload: bytes

    @classmethod
    def from_tuple(cls, item: Tuple[int, int, int, int, bytes]) -> Message:
        """The message from (source, destination, priority, protocol, payload)."""
        source, destination, priority, protocol, payload = item
        return cls(
            _enum_or_int(DeviceId, source),
            _enum_or_int(DeviceId, destination),
            priority,
            _enum_or_int(Protocol, protocol),
            payload,
        )


@dataclasses.dataclass(frozen=True)
class UsbDevice:
    """A USB device with the product's identity (list_usb)."""

    product_id: int
    serial_number: str  # what open_usb takes


@dataclasses.dataclass(frozen=True)
class BluetoothDevice:
    """A Bluetooth device in range (list_bluetooth)."""

    address: str  # "00:11:22:33:44:55", what open_bluetooth takes
    name: str


@dataclasses.dataclass(frozen=True)
class UartDevice:
    """A serial device of the host (list_uart)."""

    path: str  # "/dev/ttyUSB0", what open_uart takes
    by_id: Optional[str]  # the stable name udev keeps in /dev/serial/by-id, if any
