# SPDX-License-Identifier: MIT
"""ctypes mirrors of the C records the package passes to the library.

Each record names its C type in _c_name_ and uses the C field names, so the
layout test can compare sizes and offsets with the compiler's.  Fields whose
name starts with '_' are padding of our own.
"""

from __future__ import annotations

import ctypes
from ctypes import c_char, c_char_p, c_float, c_int32, c_uint, c_uint8, c_uint16, c_uint32, c_uint64
from typing import Any, List, Tuple


class LibraryInfo(ctypes.Structure):
    _c_name_ = "Vyrix_LibraryInfoS"
    _fields_ = [("majorVersion", c_uint8), ("minorVersion", c_uint8), ("revision", c_uint8), ("build", c_uint32)]


class UartInfo(ctypes.Structure):
    _c_name_ = "Vyrix_UartInfoS"
    _fields_ = [("pPortName", c_char_p), ("baudRate", c_uint32), ("flowControl", c_int32), ("stopBits", c_uint8)]


class USBInfo(ctypes.Structure):
    _c_name_ = "Vyrix_USBInfoS"
    _fields_ = [("productID", c_uint32), ("pSerialNumber", c_char_p)]


class BTHInfo(ctypes.Structure):
    _c_name_ = "Vyrix_BTHInfoS"
    _fields_ = [("pMacID", c_char_p), ("pPassKey", c_char_p)]


# Vyrix_ConnectionInfoS is a type tag and a union of the three records above.
# ctypes cannot pass a union by value, so each transport has a record of its
# own with the same size: one 32-bit tag, then the member, padded to the
# size of the largest member.
_UNION_SIZE = max(ctypes.sizeof(UartInfo), ctypes.sizeof(USBInfo), ctypes.sizeof(BTHInfo))


def _connection_fields(member: str, record: Any) -> List[Tuple[str, Any]]:
    return [
        ("connectionType", c_int32),
        (member, record),
        ("_pad", c_uint8 * (_UNION_SIZE - ctypes.sizeof(record))),
    ]


class ConnectionInfo(ctypes.Structure):
    """What the three transport records below have in common: the C type they stand for."""

    _c_name_ = "Vyrix_ConnectionInfoS"


class UartConnectionInfo(ConnectionInfo):
    _fields_ = _connection_fields("uartInfo", UartInfo)


class USBConnectionInfo(ConnectionInfo):
    _fields_ = _connection_fields("usbInfo", USBInfo)


class BTHConnectionInfo(ConnectionInfo):
    _fields_ = _connection_fields("bthInfo", BTHInfo)


class VideoProperties(ctypes.Structure):
    _c_name_ = "Vyrix_VideoPropertiesS"
    _fields_ = [("width", c_uint16), ("height", c_uint16), ("frameRate", c_float)]


class FrameRate(ctypes.Structure):
    _c_name_ = "Vyrix_FrameRateS"
    _fields_ = [("mode", c_uint32), ("param1", c_uint32), ("param2", c_uint32)]


class SystemInfo(ctypes.Structure):
    _c_name_ = "Vyrix_SystemInfoS"
    _fields_ = [("infoText", c_char * 17)] + [("infoWord%d" % i, c_uint32) for i in range(1, 8)]


class SystemStatus(ctypes.Structure):
    _c_name_ = "Vyrix_SystemStatusS"
    _fields_ = [("statusWord1", c_uint32), ("statusWord2", c_uint32), ("statusValue", c_float)] + [
        ("statusWord%d" % i, c_uint32) for i in range(3, 8)
    ]


class EventLogEntry(ctypes.Structure):
    _c_name_ = "Vyrix_EventLogEntryS"
    _fields_ = [
        ("field1", c_uint16),
        ("field2", c_uint16),
        ("field3", c_uint32),
        ("field4", c_uint32),
        ("field5", c_uint16),
        ("field6", c_uint16),
    ]


class XlnkMsg(ctypes.Structure):
    _c_name_ = "KtXlnkMsgS"
    _fields_ = [
        ("sourceID", c_uint8),
        ("deviceID", c_uint8),
        ("priority", c_uint8),
        ("protocolID", c_uint8),
        ("payloadLen", c_uint16),
        ("pPayload", ctypes.POINTER(c_uint8)),
    ]


class EnumerateUSBInfo(ctypes.Structure):
    _c_name_ = "Vyrix_EnumerateUSBInfo"
    _fields_ = [("productID", c_uint), ("serialNumber", c_char * 255)]


class BTHDiscoveryInfo(ctypes.Structure):
    _c_name_ = "Vyrix_BTHDiscoveryInfo"
    _fields_ = [("uniqueID", c_char * 25), ("friendlyName", c_char * 249)]


class LinkStatistics(ctypes.Structure):
    _c_name_ = "Vyrix_LinkStatisticsS"
    _fields_ = [
        (name, c_uint64)
        for name in (
            "packetsSent",
            "packetsReceived",
            "bytesSent",
            "bytesReceived",
            "resends",
            "packetsDiscarded",
            "messagesDropped",
            "linkDowns",
        )
    ]


RECORDS = [
    LibraryInfo,
    UartInfo,
    USBInfo,
    BTHInfo,
    UartConnectionInfo,
    USBConnectionInfo,
    BTHConnectionInfo,
    VideoProperties,
    FrameRate,
    SystemInfo,
    SystemStatus,
    EventLogEntry,
    XlnkMsg,
    EnumerateUSBInfo,
    BTHDiscoveryInfo,
    LinkStatistics,
]

# Scalar types whose width the package assumes.
SCALARS = {
    "Vyrix_ReturnStatus": c_uint32,
    "Vyrix_ValueStorageTypeE": c_uint32,
    "WORD": c_uint16,
    "DWORD": ctypes.c_ulong,
}

