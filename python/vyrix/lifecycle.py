# SPDX-License-Identifier: MIT
"""A connection's lifecycle: its link state, the state callback, reconnection and the event descriptor.

Device.state, Device.on_state, Device.set_reconnect and Device.fileno()
are built on these; vyrix.aio waits on the descriptor in asyncio.
"""

from __future__ import annotations

import ctypes
import enum
import queue
from ctypes import POINTER, byref, c_int, c_uint8, c_uint16, c_uint32, c_void_p
from typing import Any, Callable, Optional

from ._lib import MAX_PAYLOAD, MessageItem, _Library
from .errors import ResultCode, check


class LinkState(enum.IntEnum):
    """The state of a connection's link."""

    UP = 0  # commands go to the device
    DOWN = 1  # the device is gone; commands raise NotConnected at once
    RECONNECTING = 2  # gone and being looked for (Device.set_reconnect); commands raise NotConnected at once


# What the library calls: (connection handle, state, reason, user pointer).
STATE_CALLBACK = ctypes.CFUNCTYPE(None, c_void_p, c_int, c_uint32, c_void_p)

StateListener = Callable[[LinkState, int], None]

DEFAULT_MAX_INTERVAL = 5.0  # seconds: the longest pause between attempts unless set_reconnect says otherwise


def read_state(lib: _Library, handle: int) -> LinkState:
    """The link's state; marks every change so far as read (the descriptor stops being readable for them)."""
    state = c_int()
    check(lib.call("Vyrix_GetLinkState", handle, byref(state)), "Vyrix_GetLinkState")
    return LinkState(state.value)


def state_callback(listener: StateListener) -> Any:
    """The C callback that hands each change to listener(state, reason) on the library's callback thread."""

    def call(_handle: Optional[int], state: int, reason: int, _user: Optional[int]) -> None:
        listener(LinkState(state), reason)  # an exception is reported by ctypes and goes no further

    return STATE_CALLBACK(call)


def set_state_callback(lib: _Library, handle: int, callback: Any) -> None:
    """Register the C callback (None removes it)."""
    check(lib.call("Vyrix_SetLinkStateCallback", handle, callback, None), "Vyrix_SetLinkStateCallback")


def set_reconnect(lib: _Library, handle: int, enable: bool, max_interval: Optional[float]) -> None:
    """Switch reconnection on or off; max_interval in seconds (None: the library's default, 5 s)."""
    milliseconds = 0 if max_interval is None else max(1, min(0xFFFFFFFF, round(max_interval * 1000)))
    check(lib.call("Vyrix_SetReconnect", handle, 1 if enable else 0, milliseconds), "Vyrix_SetReconnect")


def event_fd(lib: _Library, handle: int) -> int:
    """The connection's event descriptor; from then on its messages stay in the library for the descriptor."""
    fd = c_int(-1)
    check(lib.call("Vyrix_GetEventFd", handle, byref(fd)), "Vyrix_GetEventFd")
    lib.forget(handle)  # the callback thread no longer takes them into a queue of ours
    return fd.value


def take_message(lib: _Library, handle: int, backlog: queue.Queue[MessageItem]) -> Optional[MessageItem]:
    """The oldest unprompted message without waiting: first those collected before the descriptor, then the library's.

    None when there is none (also once the device is gone and none is left).
    """
    try:
        return backlog.get_nowait()
    except queue.Empty:
        pass
    buffer = (c_uint8 * MAX_PAYLOAD)()
    length, source = c_uint16(), c_uint8()
    result = lib.call(
        "Vyrix_TakeUnpromptedMessage", handle, ctypes.cast(buffer, POINTER(c_uint8)), MAX_PAYLOAD, byref(length),
        byref(source),
    )
    if result in (ResultCode.INCOMPLETE.result, ResultCode.NOT_CONNECTED.result):
        return None
    check(result, "Vyrix_TakeUnpromptedMessage")
    return (source.value, 2, 0, 0, bytes(buffer[: length.value]))  # to the host, connectionless
