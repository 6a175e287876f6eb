"""Enumerations and the plain records the device methods return."""

import dataclasses
import enum


class Storage(enum.IntEnum):
    """Which copy of a setting is read or written."""

    CURRENT = 0  # in effect now, lost at power-off
    SAVED = 1  # kept across power-off
    FACTORY = 2  # the factory value (read only)


class ConnectionType(enum.IntEnum):
    UART = 0
    USB = 1
    BTH = 2


class DeviceId(enum.IntEnum):
    EP_DEVICE = 0
    RESERVED = 1
    HOST_DEVICE = 2
    AP_DEVICE = 3
    BROADCAST_DEVICE_ID = 63


class Protocol(enum.IntEnum):
    CONNECTIONLESS = 0
    CONNECTION_ORIENTED = 1


def _enum_or_int(enum_type, value):
    try:
        return enum_type(value)
    except ValueError:
        return value


@dataclasses.dataclass(frozen=True)
class LibraryInfo:
    major: int
    minor: int
    revision: int
    build: int


@dataclasses.dataclass(frozen=True)
class VideoProperties:
    width: int
    height: int
    frame_rate: float


@dataclasses.dataclass(frozen=True)
class FrameRate:
    mode: int
    param1: int = 0
    param2: int = 0


@dataclasses.dataclass(frozen=True)
class SystemInfo:
    info_text: str
    info_word1: int
    info_word2: int
    info_word3: int
    info_word4: int
    info_word5: int
    info_word6: int
    info_word7: int


@dataclasses.dataclass(frozen=True)
class SystemStatus:
    status_word1: int
    status_word2: int
    status_value: float
    status_word3: int
    status_word4: int
    status_word5: int
    status_word6: int
    status_word7: int


@dataclasses.dataclass(frozen=True)
class EventLogEntry:
    field1: int
    field2: int
    field3: int
    field4: int
    field5: int
    field6: int


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

    source: int
    destination: int
    priority: int
    protocol: int
    payload: bytes

    @classmethod
    def from_tuple(cls, item):
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
    product_id: int
    serial_number: str


@dataclasses.dataclass(frozen=True)
class BluetoothDevice:
    address: str
    name: str
