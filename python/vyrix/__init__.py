"""Python access to libVyrix_Api, the host library of the Vyrix display engine.

    import vyrix
    with vyrix.open_uart("/dev/ttyUSB0") as dev:
        dev.set_brightness(60)
        print(dev.get_brightness(), dev.get_system_info().info_text)

Failures raise vyrix.VyrixError (its .code is the library's result word) or
one of its subclasses, named after the codes (InvalidArgument, NotConnected,
...); DeviceStatus carries a status word of the device's own.
"""

from .device import Device, library_info, list_bluetooth, list_usb, open_bluetooth, open_uart, open_usb
from .errors import *  # noqa: F401,F403  (VyrixError, its subclasses, ResultCode)
from .errors import ERROR_CLASSES, ResultCode, VyrixError, error_for
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
    UsbDevice,
    VideoProperties,
)

__version__ = "1.3.0"
