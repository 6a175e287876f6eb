"""Connections to a device and one method per operation the library carries out."""

import ctypes
import os
import queue
from ctypes import byref, c_float, c_int16, c_int32, c_uint, c_uint8, c_uint16, c_uint32

from . import _records as rec
from ._lib import library
from .errors import InvalidArgument, NotConnected, ResultCode, check
from .model import (
    BluetoothDevice,
    EventLogEntry,
    FrameRate,
    LibraryInfo,
    LinkStatistics,
    Message,
    Storage,
    SystemInfo,
    SystemStatus,
    UsbDevice,
    VideoProperties,
)

BAUD_RATE = 57600
USB_PRODUCT_ID = 4
UPGRADE_CHUNK = 4000  # bytes of firmware per upgrade command
MAX_EVENT_LOG = 255


class Device:
    """An open connection; a context manager that closes it on exit.

    Commands travel to this connection's own device; issue one command at a
    time per device.
    """

    def __init__(self, info, keep):
        self._lib = library()
        self._keep = keep  # the texts the library points to while open
        self._handle = self._lib.open_connection(info)
        self._messages = self._lib.message_queue(self._handle)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    @property
    def closed(self):
        return self._handle is None

    def close(self):
        """Close the connection; closing twice does nothing."""
        if self._handle is None:
            return
        if self._lib.open:
            # After a failed close the connection stays open (and our texts
            # stay referenced): the close can be tried again.
            check(self._lib.call("Vyrix_CloseConnection", self._handle), "Vyrix_CloseConnection")
        self._lib.forget(self._handle)
        self._handle = None

    def _call(self, name, *args):
        if self._handle is None:
            raise NotConnected(ResultCode.NOT_CONNECTED.result, name + ": the connection is closed")
        check(self._lib.call(name, self._handle, *args), name)

    def _get(self, name, ctype, *args):
        """A Get with one out value; _OUT marks where it goes among the arguments."""
        out = ctype()
        self._call(name, *[byref(out) if a is _OUT else a for a in args])
        return out.value

    # ---- picture and video settings ----

    def get_input_video_properties(self):
        width, height, rate = c_uint16(), c_uint16(), c_float()
        self._call("Vyrix_GetInputVideoProperties", byref(width), byref(height), byref(rate))
        return VideoProperties(width.value, height.value, rate.value)

    def set_input_video_state(self, state, storage=Storage.CURRENT):
        self._call("Vyrix_SetInputVideoState", state, storage)

    def get_input_video_state(self, storage=Storage.CURRENT):
        return self._get("Vyrix_GetInputVideoState", c_uint32, _OUT, storage)

    def set_brightness(self, value, storage=Storage.CURRENT):
        """Brightness 0..100."""
        self._call("Vyrix_SetBrightness", value, storage)

    def get_brightness(self, storage=Storage.CURRENT):
        return self._get("Vyrix_GetBrightness", c_uint8, _OUT, storage)

    def set_color_mode(self, mode, storage=Storage.CURRENT):
        self._call("Vyrix_SetColorMode", mode, storage)

    def get_color_mode(self, storage=Storage.CURRENT):
        return self._get("Vyrix_GetColorMode", c_int32, _OUT, storage)

    def set_gamma(self, channel, gamma, storage=Storage.CURRENT):
        """Gamma 1.0..3.0."""
        self._call("Vyrix_SetGamma", channel, gamma, storage)

    def get_gamma(self, channel, storage=Storage.CURRENT):
        return self._get("Vyrix_GetGamma", c_float, channel, _OUT, storage)

    def set_video_gamma_boost_mode(self, channel, mode, storage=Storage.CURRENT):
        self._call("Vyrix_SetVideoGammaBoostMode", channel, mode, storage)

    def get_video_gamma_boost_mode(self, channel, storage=Storage.CURRENT):
        return self._get("Vyrix_GetVideoGammaBoostMode", c_uint32, channel, _OUT, storage)

    def set_micro_weave_mode(self, mode, storage=Storage.CURRENT):
        self._call("Vyrix_SetMicroWeaveMode", mode, storage)

    def get_micro_weave_mode(self, storage=Storage.CURRENT):
        return self._get("Vyrix_GetMicroWeaveMode", c_uint32, _OUT, storage)

    def set_flip_state(self, flip_state, storage=Storage.CURRENT):
        self._call("Vyrix_SetFlipState", flip_state, storage)

    def get_flip_state(self, storage=Storage.CURRENT):
        return self._get("Vyrix_GetFlipState", c_uint32, _OUT, storage)

    def set_output_video_state(self, state, storage=Storage.CURRENT):
        self._call("Vyrix_SetOutputVideoState", state, storage)

    def get_output_video_state(self, storage=Storage.CURRENT):
        return self._get("Vyrix_GetOutputVideoState", c_uint32, _OUT, storage)

    def get_output_video_properties(self):
        out = rec.VideoProperties()
        self._call("Vyrix_GetOutputVideoProperties", byref(out))
        return VideoProperties(out.width, out.height, out.frameRate)

    def set_bi_phase(self, bi_phase, storage=Storage.CURRENT):
        """Bi-phase -100..100."""
        self._call("Vyrix_SetBiPhase", bi_phase, storage)

    def get_bi_phase(self, storage=Storage.CURRENT):
        return self._get("Vyrix_GetBiPhase", c_int16, _OUT, storage)

    def set_color_alignment(self, selector1, selector2, offset, storage=Storage.CURRENT):
        """selector1 0/1, selector2 0..4, offset -32..32."""
        self._call("Vyrix_SetColorAlignment", selector1, selector2, offset, storage)

    def get_color_alignment(self, selector1, selector2, storage=Storage.CURRENT):
        return self._get("Vyrix_GetColorAlignment", c_int16, selector1, selector2, _OUT, storage)

    def set_color_converter(self, index, value, storage=Storage.CURRENT):
        """Entry 0..8, value -65536..65535."""
        self._call("Vyrix_SetColorConverter", index, value, storage)

    def get_color_converter(self, index, storage=Storage.CURRENT):
        return self._get("Vyrix_GetColorConverter", c_int32, index, _OUT, storage)

    def set_frame_rate_mode(self, frame_rate, storage=Storage.CURRENT):
        """frame_rate: a FrameRate (mode 0..2 and two parameters)."""
        self._call("Vyrix_SetFrameRateMode", _fit_frame_rate(frame_rate), storage)

    def get_frame_rate_mode(self, storage=Storage.CURRENT):
        out = rec.FrameRate()
        self._call("Vyrix_GetFrameRateMode", byref(out), storage)
        return FrameRate(out.mode, out.param1, out.param2)

    def set_sensing_state(self, state, storage=Storage.CURRENT):
        self._call("Vyrix_SetSensingState", state, storage)

    def get_sensing_state(self, storage=Storage.CURRENT):
        return self._get("Vyrix_GetSensingState", c_uint32, _OUT, storage)

    # ---- system information and maintenance ----

    def get_system_info(self):
        out = rec.SystemInfo()
        self._call("Vyrix_GetSystemInfo", byref(out))
        words = [getattr(out, "infoWord%d" % i) for i in range(1, 8)]
        return SystemInfo(out.infoText.decode("latin-1"), *words)

    def get_system_status(self):
        out = rec.SystemStatus()
        self._call("Vyrix_GetSystemStatus", byref(out))
        return SystemStatus(*(getattr(out, name) for name, _ in rec.SystemStatus._fields_))

    def get_event_log(self, count):
        """The newest count entries (at most 255); entries the device lacks read as zeros."""
        if not 0 <= count <= MAX_EVENT_LOG:
            raise InvalidArgument(ResultCode.INVALID_ARGUMENT.result, "get_event_log: count must be 0..255")
        entries = (rec.EventLogEntry * max(count, 1))()
        self._call("Vyrix_GetEventLog", count, entries)
        fields = [name for name, _ in rec.EventLogEntry._fields_]
        return [EventLogEntry(*(getattr(e, name) for name in fields)) for e in entries[:count]]

    def restore_factory_settings(self):
        self._call("Vyrix_RestoreFactorySettings")

    def commit_all(self):
        self._call("Vyrix_CommitAll")

    def upgrade_software(self, data_or_path, progress=None):
        """Send a firmware image (bytes, or the path of a file) in 4000-byte chunks.

        Each chunk goes with its number, the bytes it uses and the image size;
        progress(sent, total) is called after each chunk.  Stops at the first
        failure.
        """
        if isinstance(data_or_path, (str, os.PathLike)):
            with open(data_or_path, "rb") as f:
                image = f.read()
        else:
            image = bytes(data_or_path)
        if not image:
            raise InvalidArgument(ResultCode.INVALID_ARGUMENT.result, "upgrade_software: empty image")
        total = len(image)
        chunk = (c_uint8 * UPGRADE_CHUNK)()
        for index, offset in enumerate(range(0, total, UPGRADE_CHUNK)):
            part = image[offset : offset + UPGRADE_CHUNK]
            ctypes.memset(chunk, 0, UPGRADE_CHUNK)
            ctypes.memmove(chunk, part, len(part))
            self._call("Vyrix_UpgradeSoftware", index, len(part), total, chunk)
            if progress:
                progress(offset + len(part), total)

    # ---- rendering ----

    def draw_test_pattern(self, pattern, param1=0, param2=0):
        """Pattern at most 4; the parameters are the device's."""
        self._call("Vyrix_DrawTestPattern", pattern, param1, param2)

    # ---- the link ----

    def statistics(self):
        """What this connection's link has counted since it opened; sends nothing.

        Read while other threads run commands, the counters may be a command apart.
        """
        out = rec.LinkStatistics()
        self._call("Vyrix_GetLinkStatistics", byref(out))
        return LinkStatistics(*(getattr(out, name) for name, _ in rec.LinkStatistics._fields_))

    # ---- unprompted messages ----

    def messages(self, timeout=None):
        """Yield the messages the device sends of its own accord.

        Waits up to timeout seconds for each (forever when None) and ends
        when none arrives in time.
        """
        source = self._messages
        while True:
            try:
                item = source.get(timeout=timeout)
            except queue.Empty:
                return
            yield Message.from_tuple(item)


_OUT = object()  # marks the out argument of a Get


def _fit_frame_rate(frame_rate):
    if not isinstance(frame_rate, FrameRate):
        frame_rate = FrameRate(*frame_rate)
    for value in (frame_rate.mode, frame_rate.param1, frame_rate.param2):
        if not 0 <= value <= 0xFFFFFFFF:
            raise InvalidArgument(
                ResultCode.INVALID_ARGUMENT.result, "set_frame_rate_mode: %d does not fit 32 bits" % value
            )
    return rec.FrameRate(frame_rate.mode, frame_rate.param1, frame_rate.param2)


def _text(value, what):
    if value is None:
        raise InvalidArgument(ResultCode.INVALID_ARGUMENT.result, what + " must not be None")
    return os.fsencode(value) if not isinstance(value, bytes) else value


def open_uart(path, flow_control=0, stop_bits=1):
    """Connect to a device on a serial line (57600 baud, 8N1).

    `path` is a device path, or the address of a line another host exports:
    "rfc2217://HOST:PORT" (Telnet with serial-port control) or "tcp://HOST:PORT".
    """
    name = _text(path, "path")
    uart = rec.UartInfo(name, BAUD_RATE, flow_control, stop_bits)
    info = rec.UartConnectionInfo(connectionType=0, uartInfo=uart)
    return Device(info, keep=(name,))


def open_usb(serial):
    """Connect to a USB device; the serial number names the connection."""
    serial_number = _text(serial, "serial")
    info = rec.USBConnectionInfo(connectionType=1, usbInfo=rec.USBInfo(USB_PRODUCT_ID, serial_number))
    return Device(info, keep=(serial_number,))


def open_bluetooth(address, passkey):
    """Connect to a device over Bluetooth RFCOMM ("00:11:22:33:44:55")."""
    mac, key = _text(address, "address"), _text(passkey, "passkey")
    info = rec.BTHConnectionInfo(connectionType=2, bthInfo=rec.BTHInfo(mac, key))
    return Device(info, keep=(mac, key))


def library_info():
    lib = library()
    out = rec.LibraryInfo()
    check(lib.call("Vyrix_GetLibraryInfo", lib.handle, byref(out)), "Vyrix_GetLibraryInfo")
    return LibraryInfo(out.majorVersion, out.minorVersion, out.revision, out.build)


def _enumerate(function, record, limit):
    lib = library()
    found, table = c_uint(), (record * limit)()
    result = lib.call(function, limit, byref(found), table)
    if result == ResultCode.NOT_CONNECTED.result and function == "KtEnumerateUSBDevices":
        return []  # no device present
    check(result, function)
    return table[: found.value]


def list_usb(limit=32):
    """The USB devices with the product's identity."""
    return [
        UsbDevice(d.productID, d.serialNumber.decode("latin-1"))
        for d in _enumerate("KtEnumerateUSBDevices", rec.EnumerateUSBInfo, limit)
    ]


def list_bluetooth(limit=32):
    """The Bluetooth devices in range (an inquiry of about ten seconds)."""
    return [
        BluetoothDevice(d.uniqueID.decode("latin-1"), d.friendlyName.decode("latin-1"))
        for d in _enumerate("KtEnumerateBTHDevices", rec.BTHDiscoveryInfo, limit)
    ]
