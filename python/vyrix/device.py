# SPDX-License-Identifier: MIT
"""Connections to a device and one method per operation the library carries out."""

from __future__ import annotations

import ctypes
import functools
import inspect
import math
import numbers
import operator
import os
import queue
import select
import threading
import time
import typing
import weakref
from ctypes import byref, c_float, c_int16, c_int32, c_uint, c_uint8, c_uint16, c_uint32
from typing import Any, AsyncIterator, Callable, Iterator, List, Optional, Sequence, Tuple, Type, TypeVar, Union, cast

from . import _blocking, aio, lifecycle
from . import _records as rec
from ._lib import _Library, library
from ._records import ConnectionInfo
from .lifecycle import LinkState, StateListener
from .errors import Incomplete, InvalidArgument, NotConnected, ResultCode, check
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
    UartDevice,
    UsbDevice,
    VideoProperties,
    single,
)

BAUD_RATE = 57600
USB_PRODUCT_ID = 4
UPGRADE_CHUNK = 4000  # bytes of firmware per upgrade command
MAX_EVENT_LOG = 255
DEFAULT_TIMEOUT = 10.0  # seconds a command waits for its reply unless open_*(timeout=) says otherwise
MAX_TIMEOUT = 0xFFFFFFFF / 1000  # seconds: what the library's 32-bit milliseconds hold

Bytes = Union[bytes, bytearray, memoryview]
PathOrBytes = Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]
_F = TypeVar("_F", bound=Callable[..., Any])


def _refuse(where: str, name: str, value: object, expected: str) -> TypeError:
    return TypeError("%s() argument '%s' must be %s, not %s" % (where, name, expected, type(value).__name__))


def _need_int(where: str, name: str, value: object) -> None:
    try:
        operator.index(value)  # type: ignore[arg-type]  # checked here
    except TypeError:
        raise _refuse(where, name, value, "an int") from None


def _need_real(where: str, name: str, value: object) -> None:
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise _refuse(where, name, value, "a real number")


_CHECKS = {int: _need_int, float: _need_real, Storage: _need_int}


def _typed(function: _F) -> _F:
    """Refuse arguments of the wrong type with TypeError before anything reaches the library.

    The parameters annotated int, float or Storage are checked (an int for
    a float, an IntEnum for an int are fine).
    """
    hints = typing.get_type_hints(function)
    parameters = list(inspect.signature(function).parameters)
    checks = [(i, name, _CHECKS[hints[name]]) for i, name in enumerate(parameters) if hints.get(name) in _CHECKS]
    where = function.__name__

    @functools.wraps(function)
    def checked(*args: Any, **kwargs: Any) -> Any:
        for index, name, need in checks:
            if index < len(args):
                need(where, name, args[index])
            elif name in kwargs:
                need(where, name, kwargs[name])
        return function(*args, **kwargs)

    return cast(_F, checked)


def _milliseconds(seconds: Optional[float], where: str) -> int:
    """The library's reply time-out for seconds (0: its default, for None)."""
    if seconds is None:
        return 0
    _need_real(where, "timeout", seconds)
    if math.isnan(seconds) or not 0 < seconds <= MAX_TIMEOUT:
        raise InvalidArgument(
            ResultCode.INVALID_ARGUMENT.result,
            "%s: a timeout of %r s is not in 0 < seconds <= %d" % (where, seconds, MAX_TIMEOUT),
        )
    return max(1, round(seconds * 1000))


def _release(lib: _Library, handle: int, keep: Tuple[bytes, ...]) -> None:
    # A Device that was dropped open, or the interpreter ending: close what
    # is open, quietly (there is nobody to report to).  keep holds the texts
    # the library points to until then.
    try:
        lib.close_connection(handle)
    except Exception:
        pass


# Every Device alive, so that a forked child can free their turn locks: a
# lock held by a parent's thread that the child does not have would be held
# forever, and the child's next command (which the library answers with
# NotConnected for an inherited connection) would wait for it.
_alive: "weakref.WeakSet[Device]" = weakref.WeakSet()


def _free_turns_in_child() -> None:
    for device in list(_alive):
        device._turn = threading.Lock()


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_free_turns_in_child)


class Device:
    """An open connection to one device; a context manager that closes it on exit.

    Commands go to this connection's own device, one at a time: a command
    from another thread waits for its turn.  Each waits up to `timeout`
    seconds for the device's reply and raises Incomplete (a TimeoutError)
    when none comes.  Ctrl-C interrupts a waiting command at once; the
    command already sent may still take effect, and the next command on the
    connection first waits for it to end.

    A Device that is dropped without close() is closed when it is collected,
    and every open one when the interpreter exits.
    """

    def __init__(
        self,
        info: ConnectionInfo,
        keep: Tuple[bytes, ...],
        *,
        transport: str,
        address: str,
        timeout: Optional[float] = DEFAULT_TIMEOUT,
        reconnect: bool = False,
    ) -> None:
        """Open the connection the record describes (use open_uart, open_usb or open_bluetooth)."""
        self._event_fd: Optional[int] = None
        self._on_state: Optional[StateListener] = None
        self._state_callbacks: List[Any] = []  # every C callback registered, alive as long as the Device
        self._reconnect = False
        self._transport = transport
        self._address = address
        self._handle: Optional[int] = None
        self._timeout: Optional[float] = None
        milliseconds = _milliseconds(timeout, "open_" + transport)
        self._lib = lib = library()
        self._turn = threading.Lock()  # held by the command running on this connection
        _alive.add(self)
        # Interrupted while it opens: the connection is closed when the open ends.
        handle = _blocking.call(lib.open_connection, info, cleanup=lib.close_connection)
        self._handle = handle
        self._finalizer = weakref.finalize(self, _release, lib, handle, keep)
        self._messages = lib.message_queue(handle)
        if lib.has("Vyrix_SetReplyTimeout"):  # else the library's default applies
            try:
                check(lib.call("Vyrix_SetReplyTimeout", handle, milliseconds), "Vyrix_SetReplyTimeout")
            except BaseException:
                self.close()
                raise
            self._timeout = None if timeout is None else float(timeout)
        if reconnect:
            try:
                self.set_reconnect(True)
            except BaseException:
                self.close()
                raise

    def __enter__(self) -> Device:
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return "<vyrix.Device %s %r %s>" % (self._transport, self._address, self._state_name())

    def _state_name(self) -> str:
        return "closed" if self._handle is None else "open"

    @property
    def transport(self) -> str:
        """'uart', 'usb' or 'bluetooth'."""
        return self._transport

    @property
    def address(self) -> str:
        """What names the device on its transport: the serial port, USB serial number or Bluetooth address."""
        return self._address

    @property
    def closed(self) -> bool:
        """True once close() has closed the connection."""
        return self._handle is None

    @property
    def timeout(self) -> Optional[float]:
        """Seconds each command waits for the device's reply; None for the library's default (about 750 s).

        Setting it takes effect from the next command on.  Raises TypeError
        for a value that is not a number, InvalidArgument (a ValueError)
        outside 0 < seconds <= 4294967, NotConnected once closed,
        NotSupported with a library that cannot change it.
        """
        return self._timeout

    @timeout.setter
    def timeout(self, seconds: Optional[float]) -> None:
        milliseconds = _milliseconds(seconds, "Device.timeout")
        check(self._lib.call("Vyrix_SetReplyTimeout", self._open_handle("timeout"), milliseconds), "timeout")
        self._timeout = None if seconds is None else float(seconds)

    def close(self) -> None:
        """Close the connection; closing twice does nothing.

        A command still waiting (in another thread, or left behind by
        Ctrl-C) ends with NotConnected.  Raises VyrixError when the library
        cannot close it; the connection then stays open and close() can be
        tried again.
        """
        handle = self._handle
        if handle is None:
            return
        check(self._lib.close_connection(handle), "Vyrix_CloseConnection")
        self._finalizer.detach()
        self._handle = None

    def _open_handle(self, what: str) -> int:
        if self._handle is None:
            raise NotConnected(ResultCode.NOT_CONNECTED.result, what + ": the connection is closed")
        return self._handle

    def _call(self, name: str, *args: Any) -> None:
        """One command: interruptible, after the commands before it on this connection."""
        handle = self._open_handle(name)
        result = _blocking.call(self._lib.call, name, handle, *args, turn=self._turn)
        if result == ResultCode.INCOMPLETE.result:
            raise Incomplete(result, "%s: no reply within %s seconds" % (name, self._timeout or "the default"))
        check(result, name)

    def _get(self, name: str, ctype: Any, *args: Any) -> Any:
        """A Get with one out value; _OUT marks where it goes among the arguments."""
        out = ctype()
        self._call(name, *[byref(out) if a is _OUT else a for a in args])
        return out.value

    # ---- picture and video settings ----

    def get_input_video_properties(self) -> VideoProperties:
        """The input video's width and height in pixels and its frame rate in frames per second.

        Raises VyrixError (NotConnected, Incomplete, ...) on failure, as every command does.
        """
        width, height, rate = c_uint16(), c_uint16(), c_float()
        self._call("Vyrix_GetInputVideoProperties", byref(width), byref(height), byref(rate))
        return VideoProperties(width.value, height.value, single(rate.value))

    @_typed
    def set_input_video_state(self, state: int, storage: Storage = Storage.CURRENT) -> None:
        """Input video off (0) or on (1); the storage is passed on unchecked."""
        self._call("Vyrix_SetInputVideoState", state, storage)

    @_typed
    def get_input_video_state(self, storage: Storage = Storage.CURRENT) -> int:
        """Input video off (0) or on (1)."""
        return int(self._get("Vyrix_GetInputVideoState", c_uint32, _OUT, storage))

    @_typed
    def set_brightness(self, value: int, storage: Storage = Storage.CURRENT) -> None:
        """Brightness 0..100 (percent); InvalidArgument outside, or for Storage.FACTORY."""
        self._call("Vyrix_SetBrightness", value, storage)

    @_typed
    def get_brightness(self, storage: Storage = Storage.CURRENT) -> int:
        """Brightness 0..100 (percent)."""
        return int(self._get("Vyrix_GetBrightness", c_uint8, _OUT, storage))

    @_typed
    def set_color_mode(self, mode: int, storage: Storage = Storage.CURRENT) -> None:
        """Colour mode, at most 4 (the device defines the modes)."""
        self._call("Vyrix_SetColorMode", mode, storage)

    @_typed
    def get_color_mode(self, storage: Storage = Storage.CURRENT) -> int:
        """Colour mode (the device defines the modes)."""
        return int(self._get("Vyrix_GetColorMode", c_int32, _OUT, storage))

    @_typed
    def set_gamma(self, channel: int, gamma: float, storage: Storage = Storage.CURRENT) -> None:
        """Gamma 1.0..3.0 of a channel (the channel is the device's)."""
        self._call("Vyrix_SetGamma", channel, float(gamma), storage)

    @_typed
    def get_gamma(self, channel: int, storage: Storage = Storage.CURRENT) -> float:
        """Gamma of a channel, as the device's 32-bit float means it (2.2)."""
        return single(self._get("Vyrix_GetGamma", c_float, channel, _OUT, storage))

    @_typed
    def set_video_gamma_boost_mode(self, channel: int, mode: int, storage: Storage = Storage.CURRENT) -> None:
        """Gamma boost off (0) or on (1) for channel 0..2."""
        self._call("Vyrix_SetVideoGammaBoostMode", channel, mode, storage)

    @_typed
    def get_video_gamma_boost_mode(self, channel: int, storage: Storage = Storage.CURRENT) -> int:
        """Gamma boost off (0) or on (1) of channel 0..2."""
        return int(self._get("Vyrix_GetVideoGammaBoostMode", c_uint32, channel, _OUT, storage))

    @_typed
    def set_micro_weave_mode(self, mode: int, storage: Storage = Storage.CURRENT) -> None:
        """Micro-weave off (0) or on (1)."""
        self._call("Vyrix_SetMicroWeaveMode", mode, storage)

    @_typed
    def get_micro_weave_mode(self, storage: Storage = Storage.CURRENT) -> int:
        """Micro-weave off (0) or on (1)."""
        return int(self._get("Vyrix_GetMicroWeaveMode", c_uint32, _OUT, storage))

    @_typed
    def set_flip_state(self, flip_state: int, storage: Storage = Storage.CURRENT) -> None:
        """Picture flip 0..3 (the device defines the values)."""
        self._call("Vyrix_SetFlipState", flip_state, storage)

    @_typed
    def get_flip_state(self, storage: Storage = Storage.CURRENT) -> int:
        """Picture flip 0..3."""
        return int(self._get("Vyrix_GetFlipState", c_uint32, _OUT, storage))

    @_typed
    def set_output_video_state(self, state: int, storage: Storage = Storage.CURRENT) -> None:
        """Output video off (0) or on (1); the storage is passed on unchecked."""
        self._call("Vyrix_SetOutputVideoState", state, storage)

    @_typed
    def get_output_video_state(self, storage: Storage = Storage.CURRENT) -> int:
        """Output video off (0) or on (1)."""
        return int(self._get("Vyrix_GetOutputVideoState", c_uint32, _OUT, storage))

    def get_output_video_properties(self) -> VideoProperties:
        """The output video's width and height in pixels and its frame rate in frames per second."""
        out = rec.VideoProperties()
        self._call("Vyrix_GetOutputVideoProperties", byref(out))
        return VideoProperties(out.width, out.height, single(out.frameRate))

    @_typed
    def set_bi_phase(self, bi_phase: int, storage: Storage = Storage.CURRENT) -> None:
        """Bi-phase -100..100."""
        self._call("Vyrix_SetBiPhase", bi_phase, storage)

    @_typed
    def get_bi_phase(self, storage: Storage = Storage.CURRENT) -> int:
        """Bi-phase -100..100."""
        return int(self._get("Vyrix_GetBiPhase", c_int16, _OUT, storage))

    @_typed
    def set_color_alignment(
        self, selector1: int, selector2: int, offset: int, storage: Storage = Storage.CURRENT
    ) -> None:
        """Colour alignment offset -32..32 of the value selector1 (0/1) and selector2 (0..4) pick."""
        self._call("Vyrix_SetColorAlignment", selector1, selector2, offset, storage)

    @_typed
    def get_color_alignment(self, selector1: int, selector2: int, storage: Storage = Storage.CURRENT) -> int:
        """Colour alignment offset of selector1 (0/1) and selector2 (0..4), truncated toward zero."""
        return int(self._get("Vyrix_GetColorAlignment", c_int16, selector1, selector2, _OUT, storage))

    @_typed
    def set_color_converter(self, index: int, value: int, storage: Storage = Storage.CURRENT) -> None:
        """Colour converter entry 0..8 to a value -65536..65535."""
        self._call("Vyrix_SetColorConverter", index, value, storage)

    @_typed
    def get_color_converter(self, index: int, storage: Storage = Storage.CURRENT) -> int:
        """Colour converter entry 0..8."""
        return int(self._get("Vyrix_GetColorConverter", c_int32, index, _OUT, storage))

    @_typed
    def set_frame_rate_mode(
        self, frame_rate: Union[FrameRate, Sequence[int]], storage: Storage = Storage.CURRENT
    ) -> None:
        """A FrameRate (or (mode, param1, param2)): mode 0..2, the parameters 32-bit and the device's."""
        self._call("Vyrix_SetFrameRateMode", _fit_frame_rate(frame_rate), storage)

    @_typed
    def get_frame_rate_mode(self, storage: Storage = Storage.CURRENT) -> FrameRate:
        """The frame rate mode and its two parameters."""
        out = rec.FrameRate()
        self._call("Vyrix_GetFrameRateMode", byref(out), storage)
        return FrameRate(out.mode, out.param1, out.param2)

    @_typed
    def set_sensing_state(self, state: int, storage: Storage = Storage.CURRENT) -> None:
        """Sensing off (0) or on (1)."""
        self._call("Vyrix_SetSensingState", state, storage)

    @_typed
    def get_sensing_state(self, storage: Storage = Storage.CURRENT) -> int:
        """Sensing off (0) or on (1)."""
        return int(self._get("Vyrix_GetSensingState", c_uint32, _OUT, storage))

    # ---- system information and maintenance ----

    def get_system_info(self) -> SystemInfo:
        """The device's name, firmware version, serial number, hardware revision and uptime."""
        out = rec.SystemInfo()
        self._call("Vyrix_GetSystemInfo", byref(out))
        return SystemInfo.decode(out.infoText, tuple(getattr(out, "infoWord%d" % i) for i in range(1, 8)))

    def get_system_status(self) -> SystemStatus:
        """The device's state, error word, temperature (°C), laser hours and command count."""
        out = rec.SystemStatus()
        self._call("Vyrix_GetSystemStatus", byref(out))
        words = (out.statusWord1, out.statusWord2) + tuple(getattr(out, "statusWord%d" % i) for i in range(3, 8))
        return SystemStatus.decode(out.statusValue, words)

    @_typed
    def get_event_log(self, count: int) -> List[EventLogEntry]:
        """The newest count (0..255) entries of the device's event log, newest first.

        Slots the device has not filled (seq 0) are left out, so the list may
        be shorter than count.  InvalidArgument for a count outside 0..255.
        """
        if not 0 <= count <= MAX_EVENT_LOG:
            raise InvalidArgument(ResultCode.INVALID_ARGUMENT.result, "get_event_log: count must be 0..255")
        entries = (rec.EventLogEntry * max(count, 1))()
        self._call("Vyrix_GetEventLog", count, entries)
        fields = [name for name, _ in rec.EventLogEntry._fields_]
        decoded = [EventLogEntry.decode(*(getattr(e, name) for name in fields)) for e in entries[:count]]
        return [entry for entry in decoded if entry.seq != 0]

    def restore_factory_settings(self) -> None:
        """Set every setting's current and saved copies to the factory values."""
        self._call("Vyrix_RestoreFactorySettings")

    def commit_all(self) -> None:
        """Save every setting's current value (to Storage.SAVED)."""
        self._call("Vyrix_CommitAll")

    def upgrade_software(
        self, data_or_path: Union[Bytes, str, os.PathLike[str]], progress: Optional[Callable[[int, int], object]] = None
    ) -> None:
        """Send a firmware image (bytes, or the path of a file) in 4000-byte chunks.

        Each chunk goes with its number, the bytes it uses and the image size;
        progress(sent, total) is called after each chunk (bytes).  Stops at the
        first failure.  TypeError for data that is neither bytes nor a path,
        InvalidArgument for an empty image.
        """
        if isinstance(data_or_path, (str, os.PathLike)):
            with open(data_or_path, "rb") as f:
                image = f.read()
        elif isinstance(data_or_path, (bytes, bytearray, memoryview)):
            image = bytes(data_or_path)
        else:
            raise _refuse("upgrade_software", "data_or_path", data_or_path, "bytes or a path")
        if progress is not None and not callable(progress):
            raise _refuse("upgrade_software", "progress", progress, "callable")
        if not image:
            raise InvalidArgument(ResultCode.INVALID_ARGUMENT.result, "upgrade_software: empty image")
        total = len(image)
        for index, offset in enumerate(range(0, total, UPGRADE_CHUNK)):
            part = image[offset : offset + UPGRADE_CHUNK]
            # A chunk buffer of its own per command: an interrupted command
            # may still be reading the one before.
            chunk = (c_uint8 * UPGRADE_CHUNK).from_buffer_copy(part.ljust(UPGRADE_CHUNK, b"\0"))
            self._call("Vyrix_UpgradeSoftware", index, len(part), total, chunk)
            if progress is not None:
                progress(offset + len(part), total)

    # ---- rendering ----

    @_typed
    def draw_test_pattern(self, pattern: int, param1: int = 0, param2: int = 0) -> None:
        """Show test pattern number pattern (at most 4); the parameters are the device's."""
        self._call("Vyrix_DrawTestPattern", pattern, param1, param2)

    # ---- the link ----

    def statistics(self) -> LinkStatistics:
        """What this connection's link has counted since it opened; sends nothing.

        Read while other threads run commands, the counters may be a command
        apart.  NotConnected once closed.
        """
        out = rec.LinkStatistics()
        name = "Vyrix_GetLinkStatistics"
        check(self._lib.call(name, self._open_handle(name), byref(out)), name)
        return LinkStatistics(*(getattr(out, name) for name, _ in rec.LinkStatistics._fields_))

    def start_capture(self, path: Union[str, "os.PathLike[str]"]) -> None:
        """Record every packet of this connection, both ways, into a new pcap file at path (see vyrix.lua).

        The capture ends with stop_capture() or when the connection closes.
        Raises Failure when the file cannot be created, AlreadyOpened when a
        capture runs already, NotConnected once closed.
        """
        if not isinstance(path, (str, os.PathLike)):
            raise TypeError("start_capture: path must be a str or os.PathLike, not %s" % type(path).__name__)
        name = "Vyrix_StartCapture"
        check(self._lib.call(name, self._open_handle(name), os.fsencode(path)), name)

    def stop_capture(self) -> None:
        """End this connection's capture and close its file (nothing when none runs). NotConnected once closed."""
        name = "Vyrix_StopCapture"
        check(self._lib.call(name, self._open_handle(name)), name)

    # ---- the link's lifecycle ----

    @property
    def state(self) -> LinkState:
        """The link's state now (LinkState.UP, DOWN or RECONNECTING); reading it clears fileno()'s readiness for it.

        NotConnected once closed.
        """
        return lifecycle.read_state(self._lib, self._open_handle("state"))

    @property
    def on_state(self) -> Optional[StateListener]:
        """Called as on_state(state, reason) for every change of the link's state, in order.

        It runs on the library's callback thread (keep it short; it may
        call this Device, even close it).  reason is the result word that
        ended the link for DOWN, else 0.  None removes it.
        """
        return self._on_state

    @on_state.setter
    def on_state(self, listener: Optional[StateListener]) -> None:
        callback = None if listener is None else lifecycle.state_callback(listener)
        lifecycle.set_state_callback(self._lib, self._open_handle("on_state"), callback)
        if callback is not None:
            self._state_callbacks.append(callback)
        self._on_state = listener

    @property
    def reconnecting(self) -> bool:
        """Whether reconnection is on (set_reconnect, open_*(reconnect=True))."""
        return self._reconnect

    def set_reconnect(self, enable: bool = True, max_interval: Optional[float] = None) -> None:
        """Reopen the same device when it goes away (the same path, USB serial number or Bluetooth address).

        Attempts pause from 0.05 s doubling up to max_interval seconds
        (None: 5 s); meanwhile commands raise NotConnected at once, and
        once the link is up again the Device works as before.  Switched on
        while the link is down, the attempts start at once.
        """
        if max_interval is not None:
            _need_real("set_reconnect", "max_interval", max_interval)
        lifecycle.set_reconnect(self._lib, self._open_handle("set_reconnect"), bool(enable), max_interval)
        self._reconnect = bool(enable)

    def fileno(self) -> int:
        """A descriptor readable while a message waits or a change of the link's state is unread.

        For select(), poll() or an event loop; never read or close it (close()
        does).  From the first call on, messages stay in the library until
        taken (take_message, messages(), next_message()).
        """
        if self._event_fd is None:
            self._event_fd = lifecycle.event_fd(self._lib, self._open_handle("fileno"))
        return self._event_fd

    def take_message(self) -> Optional[Message]:
        """The oldest unprompted message without waiting, or None (for use with fileno())."""
        item = lifecycle.take_message(self._lib, self._open_handle("take_message"), self._messages)
        return None if item is None else Message.from_tuple(item)

    async def next_message(self, timeout: Optional[float] = None) -> Message:
        """In asyncio: the next unprompted message (see vyrix.aio.next_message); no thread of its own."""
        return await aio.next_message(self, timeout)

    def amessages(self, timeout: Optional[float] = None) -> AsyncIterator[Message]:
        """In asyncio: async for message in dev.amessages() (see vyrix.aio.messages)."""
        return aio.messages(self, timeout)

    # ---- unprompted messages ----

    def messages(self, timeout: Optional[float] = None) -> Iterator[Message]:
        """Yield the messages the device sends of its own accord.

        Waits up to timeout seconds for each (forever when None) and ends
        when none arrives in time.  Ctrl-C interrupts the wait.
        """
        if timeout is not None:
            _need_real("messages", "timeout", timeout)
        if self._event_fd is not None:  # they stay in the library now
            yield from self._messages_by_descriptor(timeout)
            return
        source = self._messages
        while True:
            give_up = None if timeout is None else time.monotonic() + timeout
            while True:
                try:
                    item = source.get(timeout=_blocking.wait_time(give_up))
                    break
                except queue.Empty:
                    if give_up is not None and time.monotonic() >= give_up:
                        return
            yield Message.from_tuple(item)

    def _messages_by_descriptor(self, timeout: Optional[float]) -> Iterator[Message]:
        fd = self.fileno()
        while True:
            give_up = None if timeout is None else time.monotonic() + timeout
            message = self.take_message()
            while message is None:
                left = None if give_up is None else give_up - time.monotonic()
                if (left is not None and left <= 0) or not select.select([fd], [], [], left)[0]:
                    return
                lifecycle.read_state(self._lib, self._open_handle("messages"))  # a change of state, if that was it
                message = self.take_message()
            yield message


_OUT = object()  # marks the out argument of a Get


def _fit_frame_rate(frame_rate: Union[FrameRate, Sequence[int]]) -> rec.FrameRate:
    if not isinstance(frame_rate, FrameRate):
        if isinstance(frame_rate, (str, bytes)) or not isinstance(frame_rate, Sequence) or not 1 <= len(frame_rate) <= 3:
            raise _refuse("set_frame_rate_mode", "frame_rate", frame_rate, "a FrameRate or (mode, param1, param2)")
        frame_rate = FrameRate(*frame_rate)
    for name in ("mode", "param1", "param2"):
        value = getattr(frame_rate, name)
        _need_int("set_frame_rate_mode", name, value)
        if not 0 <= value <= 0xFFFFFFFF:
            raise InvalidArgument(
                ResultCode.INVALID_ARGUMENT.result, "set_frame_rate_mode: %d does not fit 32 bits" % value
            )
    return rec.FrameRate(frame_rate.mode, frame_rate.param1, frame_rate.param2)


def _text(value: PathOrBytes, where: str, name: str) -> bytes:
    if not isinstance(value, (str, bytes, os.PathLike)):
        raise _refuse(where, name, value, "str, bytes or a path")
    return os.fsencode(value)


@_typed
def open_uart(
    path: PathOrBytes,
    flow_control: int = 0,
    stop_bits: int = 1,
    *,
    timeout: Optional[float] = DEFAULT_TIMEOUT,
    reconnect: bool = False,
) -> Device:
    """Connect to a device on a serial line (57600 baud, 8N1).

    path is a device path, or the address of a line another host exports:
    "rfc2217://HOST:PORT" (Telnet with serial-port control) or "tcp://HOST:PORT".
    flow_control 0 (none) or 1 (hardware), stop_bits 1 or 2; timeout is the
    seconds each command waits for its reply (None: the library's default,
    about 750 s); reconnect=True reopens the device at that path when it
    goes away (Device.set_reconnect).  Raises TypeError for arguments of
    the wrong type, AlreadyOpened when the port is in use, Failure when it
    cannot be opened.
    """
    name = _text(path, "open_uart", "path")
    uart = rec.UartInfo(name, BAUD_RATE, flow_control, stop_bits)
    info = rec.UartConnectionInfo(connectionType=0, uartInfo=uart)
    return Device(info, (name,), transport="uart", address=os.fsdecode(name), timeout=timeout, reconnect=reconnect)


def open_usb(
    serial: Union[str, bytes], *, timeout: Optional[float] = DEFAULT_TIMEOUT, reconnect: bool = False
) -> Device:
    """Connect to a USB device by its serial number (see list_usb()).

    timeout and reconnect as for open_uart.  Raises NotConnected when no such device is
    attached, AlreadyOpened when it is open already.
    """
    serial_number = _text(serial, "open_usb", "serial")
    info = rec.USBConnectionInfo(connectionType=1, usbInfo=rec.USBInfo(USB_PRODUCT_ID, serial_number))
    return Device(
        info, (serial_number,), transport="usb", address=os.fsdecode(serial_number), timeout=timeout, reconnect=reconnect
    )


def open_bluetooth(
    address: Union[str, bytes],
    passkey: Union[str, bytes],
    *,
    timeout: Optional[float] = DEFAULT_TIMEOUT,
    reconnect: bool = False,
) -> Device:
    """Connect to a device over Bluetooth RFCOMM ("00:11:22:33:44:55", see list_bluetooth()).

    timeout and reconnect as for open_uart.  Raises BthDisabled without a usable adapter,
    NotConnected when the device cannot be reached.
    """
    mac, key = _text(address, "open_bluetooth", "address"), _text(passkey, "open_bluetooth", "passkey")
    info = rec.BTHConnectionInfo(connectionType=2, bthInfo=rec.BTHInfo(mac, key))
    return Device(
        info, (mac, key), transport="bluetooth", address=os.fsdecode(mac), timeout=timeout, reconnect=reconnect
    )


def library_info() -> LibraryInfo:
    """The loaded library's version.  OSError when the library cannot be loaded."""
    lib = library()
    out = rec.LibraryInfo()
    check(lib.call("Vyrix_GetLibraryInfo", lib.handle, byref(out)), "Vyrix_GetLibraryInfo")
    return LibraryInfo(out.majorVersion, out.minorVersion, out.revision, out.build)


def _enumerate(function: str, record: Type[ctypes.Structure], limit: int) -> List[Any]:
    lib = library()
    found, table = c_uint(), (record * limit)()
    result = _blocking.call(lib.call, function, limit, byref(found), table)
    if result == ResultCode.NOT_CONNECTED.result and function == "KtEnumerateUSBDevices":
        return []  # no device present
    check(result, function)
    return list(table[: found.value])


@_typed
def list_usb(limit: int = 32) -> List[UsbDevice]:
    """The USB devices with the product's identity (at most limit)."""
    return [
        UsbDevice(d.productID, d.serialNumber.decode("latin-1"))
        for d in _enumerate("KtEnumerateUSBDevices", rec.EnumerateUSBInfo, limit)
    ]


@_typed
def list_bluetooth(limit: int = 32) -> List[BluetoothDevice]:
    """The Bluetooth devices in range (at most limit): an inquiry of about ten seconds.

    BthDisabled without a usable adapter.
    """
    return [
        BluetoothDevice(d.uniqueID.decode("latin-1"), d.friendlyName.decode("latin-1"))
        for d in _enumerate("KtEnumerateBTHDevices", rec.BTHDiscoveryInfo, limit)
    ]


def _serial_devices(sysfs: str, by_id: str) -> List[UartDevice]:
    """The tty class entries with a device behind them, with their stable names."""
    stable = {}
    try:
        for name in os.listdir(by_id):
            stable[os.path.realpath(os.path.join(by_id, name))] = os.path.join(by_id, name)
    except OSError:
        pass  # no serial device has a stable name
    try:
        names = sorted(n for n in os.listdir(sysfs) if os.path.exists(os.path.join(sysfs, n, "device")))
    except OSError:
        return []
    return [UartDevice("/dev/" + n, stable.get("/dev/" + n)) for n in names]


def list_uart() -> List[UartDevice]:
    """The host's serial devices (those with hardware behind them), with their /dev/serial/by-id names."""
    return _serial_devices("/sys/class/tty", "/dev/serial/by-id")
