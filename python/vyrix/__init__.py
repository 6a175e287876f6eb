# SPDX-License-Identifier: MIT
"""Python access to libVyrix_Api, the host library of the Vyrix display engine.

    import vyrix
    with vyrix.open_uart("/dev/ttyUSB0", timeout=5.0) as dev:
        dev.set_brightness(60)
        print(dev.get_brightness(), dev.get_system_info().firmware)

Each command waits up to the connection's time-out (seconds, Device.timeout)
for its reply; Ctrl-C interrupts it.  Failures raise vyrix.VyrixError (its
.code is the library's result word) or one of its subclasses, named after
the codes (InvalidArgument, NotConnected, ...); DeviceStatus carries a
status word of the device's own.  Arguments of the wrong type raise
TypeError before anything is sent.
"""

from .device import (
    DEFAULT_TIMEOUT,
    Device,
    library_info,
    list_bluetooth,
    list_uart,
    list_usb,
    open_bluetooth,
    open_uart,
    open_usb,
)
from .errors import *  # noqa: F401,F403  (VyrixError, its subclasses, ResultCode)
from .errors import ERROR_CLASSES, ResultCode, VyrixError, error_for
from .errors import __all__ as _error_names
from .lifecycle import LinkState
from .model import (
    BluetoothDevice,
    ConnectionType,
    DeviceId,
    EventLogEntry,
    FrameRate,
    LibraryInfo,
    LinkStatistics,
    Message,
    Protocol,
    Storage,
    SystemInfo,
    SystemStatus,
    UartDevice,
    UsbDevice,
    VideoProperties,
)

__version__ = "1.3.0"

__all__ = [
    "DEFAULT_TIMEOUT",
    "Device",
    "library_info",
    "list_bluetooth",
    "list_uart",
    "list_usb",
    "open_bluetooth",
    "open_uart",
    "open_usb",
    "ERROR_CLASSES",
    "BluetoothDevice",
    "ConnectionType",
    "DeviceId",
    "EventLogEntry",
    "FrameRate",
    "LibraryInfo",
    "LinkStatistics",
    "LinkState",
    "Message",
    "Protocol",
    "Storage",
    "SystemInfo",
    "SystemStatus",
    "UartDevice",
    "UsbDevice",
    "VideoProperties",
] + _error_names
