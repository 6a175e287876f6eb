# SPDX-License-Identifier: MIT
"""Loading libVyrix_Api.so.1 once per process and declaring its functions.

The library is looked up through VYRIX_LIBRARY (a path), then next to the
package (in the package directory, or in the lib directory of the tree the
package is installed in), then through the system loader.  It is opened with
Vyrix_OpenLibrary on first use and closed when the process exits.
"""

from __future__ import annotations

import atexit
import ctypes
import os
import queue
import threading
from ctypes import POINTER, c_char_p, c_float, c_int, c_int16, c_int32, c_uint, c_uint8, c_uint16, c_uint32, c_void_p
from typing import Any, Callable, Dict, List, Optional, Sequence, Set, Tuple, Type

from . import errors
from ._records import (
    BTHConnectionInfo,
    ConnectionInfo,
    EventLogEntry,
    FrameRate,
    LibraryInfo,
    LinkStatistics,
    SystemInfo,
    SystemStatus,
    UartConnectionInfo,
    USBConnectionInfo,
    VideoProperties,
    XlnkMsg,
)

LIBRARY_NAME = "libVyrix_Api.so.1"
MAX_PAYLOAD = 4095

# (source, destination, priority, protocol, payload) of an unprompted message
MessageItem = Tuple[int, int, int, int, bytes]

_h = c_void_p
_PROTOTYPES: Dict[str, Tuple[Any, ...]] = {
    "Vyrix_OpenLibrary": (POINTER(c_void_p),),
    "Vyrix_GetLibraryInfo": (_h, POINTER(LibraryInfo)),
    "Vyrix_CloseLibrary": (_h,),
    "Vyrix_CloseConnection": (_h,),
    "Vyrix_GetInputVideoProperties": (_h, POINTER(c_uint16), POINTER(c_uint16), POINTER(c_float)),
    "Vyrix_SetInputVideoState": (_h, c_uint32, c_uint32),
    "Vyrix_GetInputVideoState": (_h, POINTER(c_uint32), c_uint32),
    "Vyrix_SetBrightness": (_h, c_uint8, c_uint32),
    "Vyrix_GetBrightness": (_h, POINTER(c_uint8), c_uint32),
    "Vyrix_SetColorMode": (_h, c_int32, c_uint32),
    "Vyrix_GetColorMode": (_h, POINTER(c_int32), c_uint32),
    "Vyrix_SetGamma": (_h, c_uint32, c_float, c_uint32),
    "Vyrix_GetGamma": (_h, c_uint32, POINTER(c_float), c_uint32),
    "Vyrix_SetVideoGammaBoostMode": (_h, c_uint32, c_uint32, c_uint32),
    "Vyrix_GetVideoGammaBoostMode": (_h, c_uint32, POINTER(c_uint32), c_uint32),
    "Vyrix_SetMicroWeaveMode": (_h, c_uint32, c_uint32),
    "Vyrix_GetMicroWeaveMode": (_h, POINTER(c_uint32), c_uint32),
    "Vyrix_SetFlipState": (_h, c_uint32, c_uint32),
    "Vyrix_GetFlipState": (_h, POINTER(c_uint32), c_uint32),
    "Vyrix_SetOutputVideoState": (_h, c_uint32, c_uint32),
    "Vyrix_GetOutputVideoState": (_h, POINTER(c_uint32), c_uint32),
    "Vyrix_GetOutputVideoProperties": (_h, POINTER(VideoProperties)),
    "Vyrix_SetBiPhase": (_h, c_int16, c_uint32),
    "Vyrix_GetBiPhase": (_h, POINTER(c_int16), c_uint32),
    "Vyrix_SetColorAlignment": (_h, c_uint32, c_int32, c_int16, c_uint32),
    "Vyrix_GetColorAlignment": (_h, c_uint32, c_int32, POINTER(c_int16), c_uint32),
    "Vyrix_SetColorConverter": (_h, c_int32, c_int32, c_uint32),
    "Vyrix_GetColorConverter": (_h, c_int32, POINTER(c_int32), c_uint32),
    "Vyrix_SetFrameRateMode": (_h, FrameRate, c_uint32),
    "Vyrix_GetFrameRateMode": (_h, POINTER(FrameRate), c_uint32),
    "Vyrix_SetSensingState": (_h, c_uint32, c_uint32),
    "Vyrix_GetSensingState": (_h, POINTER(c_uint32), c_uint32),
    "Vyrix_GetSystemInfo": (_h, POINTER(SystemInfo)),
    "Vyrix_GetSystemStatus": (_h, POINTER(SystemStatus)),
    "Vyrix_GetEventLog": (_h, c_uint16, POINTER(EventLogEntry)),
    "Vyrix_RestoreFactorySettings": (_h,),
    "Vyrix_CommitAll": (_h,),
    "Vyrix_UpgradeSoftware": (_h, c_uint32, c_uint32, c_uint32, POINTER(c_uint8)),
    "Vyrix_DrawTestPattern": (_h, c_int32, c_uint32, c_uint32),
    "KtRemoveConnectionlessMsg": (POINTER(XlnkMsg),),
    "KtEnumerateUSBDevices": (c_uint, POINTER(c_uint), c_void_p),
    "KtEnumerateBTHDevices": (c_uint, POINTER(c_uint), c_void_p),
}

# Functions that older builds of the library lack: declared when present;
# calling one that is absent raises NotSupported.
_OPTIONAL_PROTOTYPES: Dict[str, Tuple[Any, ...]] = {
    "Vyrix_GetLinkStatistics": (_h, POINTER(LinkStatistics)),
    "Vyrix_SetReplyTimeout": (_h, c_uint),
    "Vyrix_GetLinkState": (_h, POINTER(c_int)),
    "Vyrix_SetLinkStateCallback": (_h, c_void_p, c_void_p),
    "Vyrix_GetEventFd": (_h, POINTER(c_int)),
    "Vyrix_SetReconnect": (_h, c_int, c_uint32),
    "Vyrix_TakeUnpromptedMessage": (_h, POINTER(c_uint8), c_uint16, POINTER(c_uint16), POINTER(c_uint8)),
    "Vyrix_StartCapture": (_h, ctypes.c_char_p),
    "Vyrix_StopCapture": (_h,),
}

# Vyrix_OpenConnection takes the connection record by value; one prototype
# per transport record (see _records).
_OPEN_CONNECTION: Dict[Type[ctypes.Structure], Any] = {
    info: ctypes.CFUNCTYPE(c_uint32, c_void_p, POINTER(c_void_p), info)
    for info in (UartConnectionInfo, USBConnectionInfo, BTHConnectionInfo)
}

EVENT_CALLBACK = ctypes.CFUNCTYPE(c_uint32, c_void_p)

_INT_TYPES = (c_uint8, c_uint16, c_uint32, c_int16, c_int32, c_uint)


def _bounds(ctype: Any) -> Tuple[int, int]:
    bits = 8 * ctypes.sizeof(ctype)
    if ctype(-1).value < 0:
        return -(1 << (bits - 1)), (1 << (bits - 1)) - 1
    return 0, (1 << bits) - 1


_BOUNDS = {t: _bounds(t) for t in _INT_TYPES}


def _candidates() -> List[Tuple[str, str]]:
    """(what to load, where that is) in the order they are tried."""
    explicit = os.environ.get("VYRIX_LIBRARY")
    if explicit:
        return [(explicit, "VYRIX_LIBRARY=" + explicit)]
    here = os.path.dirname(os.path.abspath(__file__))
    # <prefix>/lib/python3/dist-packages/vyrix -> <prefix>/lib
    tree_lib = os.path.normpath(os.path.join(here, os.pardir, os.pardir, os.pardir))
    local = [os.path.join(d, LIBRARY_NAME) for d in (here, tree_lib)]
    return [(p, p) for p in local] + [(LIBRARY_NAME, "the system loader's path (ld.so.conf, LD_LIBRARY_PATH)")]


def _load() -> ctypes.CDLL:
    tried = []
    for candidate, place in _candidates():
        if os.sep in candidate and not os.path.exists(candidate):
            tried.append(place + ": no such file")
            continue
        try:
            return ctypes.CDLL(candidate)
        except OSError as e:
            tried.append("%s: %s" % (place, e))
    raise OSError(
        "cannot load %s; tried %s.  Set VYRIX_LIBRARY to the path of %s"
        % (LIBRARY_NAME, "; ".join(tried), LIBRARY_NAME)
    )


def _declare(function: Any, argtypes: Sequence[Any]) -> None:
    function.argtypes = argtypes
    function.restype = c_uint32


class _Library:
    """The loaded library, its open handle and the unprompted-message queues."""

    def __init__(self) -> None:
        self.dll = _load()
        for name, argtypes in _PROTOTYPES.items():
            _declare(getattr(self.dll, name), argtypes)
        self.missing: Set[str] = set()
        for name, argtypes in _OPTIONAL_PROTOTYPES.items():
            function = getattr(self.dll, name, None)
            if function is None:
                self.missing.add(name)
            else:
                _declare(function, argtypes)
        # The library's sentence about the calling thread's last failure.
        self._last_error_text = getattr(self.dll, "Vyrix_GetLastErrorText", None)
        if self._last_error_text is not None:
            self._last_error_text.argtypes = []
            self._last_error_text.restype = ctypes.c_char_p
        self._open_connection = {
            info: proto(("Vyrix_OpenConnection", self.dll)) for info, proto in _OPEN_CONNECTION.items()
        }
        self._describe_results()
        handle = c_void_p()
        errors.check(self.dll.Vyrix_OpenLibrary(ctypes.byref(handle)), "Vyrix_OpenLibrary")
        self.handle: Optional[int] = handle.value
        self.open = True
        self.messages: queue.Queue[MessageItem] = queue.Queue(maxsize=1024)  # messages of any connection
        self._queues: Dict[int, queue.Queue[MessageItem]] = {}  # connection handle -> its own messages
        self._queues_lock = threading.Lock()
        self._take = getattr(self.dll, "Vyrix_TakeUnpromptedMessage", None)
        if self._take is not None:
            self._take.argtypes = (c_void_p, POINTER(c_uint8), c_uint16, POINTER(c_uint16), POINTER(c_uint8))
            self._take.restype = c_uint32
        # Kept for the life of the process: the library may call it until
        # the last port is closed.
        self._callback = EVENT_CALLBACK(self._on_event)
        _declare(self.dll.KtRegisterCallback, (EVENT_CALLBACK,))
        errors.check(self.dll.KtRegisterCallback(self._callback), "KtRegisterCallback")

    def _describe_results(self) -> None:
        for name, setter in (
            ("Vyrix_GetResultName", "_library_name"),
            ("Vyrix_GetResultDescription", "_library_description"),
        ):
            function = getattr(self.dll, name, None)
            if function is None:
                continue
            function.argtypes = (c_uint32,)
            function.restype = c_char_p
            setattr(errors, setter, _describer(function))

    def has(self, name: str) -> bool:
        """Whether this build of the library exports the function."""
        return name not in self.missing

    def call(self, name: str, *args: Any) -> int:
        """Call a declared function after checking that integers fit their C types; its result word."""
        if name in self.missing:
            raise errors.NotSupported(errors.ResultCode.NOT_SUPPORTED.result, name + ": not in this library build")
        function = getattr(self.dll, name)
        for value, ctype in zip(args, function.argtypes):
            bounds = _BOUNDS.get(ctype)
            if bounds and isinstance(value, int) and not bounds[0] <= value <= bounds[1]:
                raise errors.InvalidArgument(
                    errors.ResultCode.INVALID_ARGUMENT.result, "%s: %d does not fit %s" % (name, value, ctype.__name__)
                )
        return int(function(*args))

    def open_connection(self, info: ConnectionInfo) -> int:
        """Open a connection from its record; the connection handle."""
        handle = c_void_p()
        open_connection = self._open_connection[type(info)]
        word = int(open_connection(self.handle, ctypes.byref(handle), info))
        errors.check(word, "Vyrix_OpenConnection", self.last_error_text() if word else "")
        assert handle.value is not None
        return handle.value

    def last_error_text(self) -> str:
        """What the library said about the last failure on this thread ("" when nothing, or an older library)."""
        if self._last_error_text is None:
            return ""
        text: Optional[bytes] = self._last_error_text()
        return text.decode("utf-8", "replace") if text else ""

    def close_connection(self, handle: int) -> int:
        """Close a connection (nothing once the library is closed); the result word."""
        result = 0
        if self.open:
            result = self.call("Vyrix_CloseConnection", handle)
        if result == 0:
            self.forget(handle)
        return result

    def message_queue(self, handle: int) -> queue.Queue[MessageItem]:
        """The queue of one connection's messages (created on first use)."""
        with self._queues_lock:
            if self._take is None:
                return self.messages  # a library that cannot tell connections apart
            return self._queues.setdefault(handle, queue.Queue(maxsize=1024))

    def forget(self, handle: int) -> None:
        """Drop a closed connection's message queue."""
        with self._queues_lock:
            self._queues.pop(handle, None)

    @staticmethod
    def _put(target: queue.Queue[MessageItem], item: MessageItem) -> None:
        while True:
            try:
                target.put_nowait(item)
                return
            except queue.Full:  # nobody reads: the oldest goes
                try:
                    target.get_nowait()
                except queue.Empty:
                    pass

    def _on_event(self, _unused: Optional[int]) -> int:
        # Runs on the library's callback thread: take every queued message,
        # each connection's into its own queue.
        try:
            buffer = (c_uint8 * MAX_PAYLOAD)()
            if self._take is not None:
                with self._queues_lock:
                    queues = list(self._queues.items())
                length, source = c_uint16(), c_uint8()
                for handle, target in queues:
                    while self._take(handle, buffer, MAX_PAYLOAD, ctypes.byref(length), ctypes.byref(source)) == 0:
                        # Messages of the device's own accord: to the host, connectionless.
                        self._put(target, (source.value, 2, 0, 0, bytes(buffer[: length.value])))
                return 0
            while True:
                msg = XlnkMsg(payloadLen=0, pPayload=ctypes.cast(buffer, POINTER(c_uint8)))
                if self.dll.KtRemoveConnectionlessMsg(ctypes.byref(msg)) != 0:
                    return 0
                self._put(
                    self.messages,
                    (msg.sourceID, msg.deviceID, msg.priority, msg.protocolID, bytes(buffer[: msg.payloadLen])),
                )
        except Exception:  # never into the library's thread
            return errors.ResultCode.FAILURE.result

    def close(self) -> None:
        """Close the library and with it every connection still open."""
        if self.open:
            self.open = False
            self.dll.Vyrix_CloseLibrary(self.handle)


def _describer(function: Any) -> Callable[[int], Optional[str]]:
    def describe(word: int) -> Optional[str]:
        text: Optional[bytes] = function(word)
        return (text or b"").decode(errors="replace") or None

    return describe


_library: Optional[_Library] = None
_lock = threading.Lock()


def library() -> _Library:
    """The process's open library, loaded and opened on first use."""
    global _library
    with _lock:
        if _library is None:
            _library = _Library()
            atexit.register(_library.close)
        return _library
