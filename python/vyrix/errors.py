# SPDX-License-Identifier: MIT
"""Result codes of the library and the exceptions that carry them.

Every library function returns a 32-bit result word.  A word made by the
library holds a ResultCode in bits 24..31 and zeros below; a device may also
report a status word of its own, which reaches the application unchanged.
check() turns a non-zero word into the matching VyrixError subclass.

Some subclasses are also built-in exceptions, so that code written for any
I/O library catches them: NotConnected is a ConnectionError, Timeout and
Incomplete (a reply that did not come in time) are TimeoutErrors,
InvalidArgument is a ValueError.
"""

from __future__ import annotations

import enum
from typing import Callable, ClassVar, Dict, List, Optional, Tuple, Type


class ResultCode(enum.IntEnum):
    """The codes of the result word (bits 24..31)."""

    SUCCESS = 0
    FAILURE = 1
    NOT_SUPPORTED = 2
    TIMEOUT = 3
    UNINITIALIZED = 4
    INVALID_ARGUMENT = 5
    INIT_FAILURE = 6
    INCOMPLETE = 7
    NOT_IMPLEMENTED = 8
    INTERNAL_ERROR = 9
    DEVICE_ERROR = 10
    RESOURCE_BUSY = 11
    RESOURCE_FULL = 12
    INVALID_CHECKSUM = 13
    INVALID_DATA = 14
    INVALID_CONTEXT = 15
    ARGUMENT_OUT_OF_RANGE = 16
    INVALID_CALL_STATE = 17
    CONDITIONS_NOT_CORRECT = 18
    NO_MORE_RESOURCES = 19
    OS_ERROR = 20
    EMPTY = 21
    NOT_CONNECTED = 22
    COMMUNICATION_ERROR = 23
    ALREADY_OPENED = 24
    BTH_DISABLED = 25
    PAYLOAD_TOO_LARGE = 26
    RETRY = 27
    RECONNECT_FAILED = 28

    @property
    def result(self) -> int:
        """The result word that carries this code."""
        return int(self) << 24


_DESCRIPTIONS = {
    ResultCode.FAILURE: "a lock, allocation, validation or close failed",
    ResultCode.NOT_SUPPORTED: "the operation is not carried out by this library",
    ResultCode.TIMEOUT: "a USB transfer timed out",
    ResultCode.UNINITIALIZED: "the library is not open",
    ResultCode.INVALID_ARGUMENT: "an argument is missing or out of range",
    ResultCode.INCOMPLETE: "no complete message queued, or a transfer was stopped",
    ResultCode.INTERNAL_ERROR: "the library caught an unexpected exception",
    ResultCode.NOT_CONNECTED: "no port open, connection unknown, or the device went away",
    ResultCode.COMMUNICATION_ERROR: "the device answered with an error reply",
    ResultCode.ALREADY_OPENED: "the library, connection or port is open already",
    ResultCode.BTH_DISABLED: "no usable Bluetooth adapter",
    ResultCode.PAYLOAD_TOO_LARGE: "a payload or buffer exceeds 4095 bytes",
    ResultCode.RETRY: "the device asked for a resend",
}

# Set by the loader when the library exports its own names and descriptions:
# functions from a result word to text (or None).
_library_name: Optional[Callable[[int], Optional[str]]] = None
_library_description: Optional[Callable[[int], Optional[str]]] = None


def code_of(word: int) -> Optional[ResultCode]:
    """The ResultCode of a result word, or None for a device status word."""
    code = word >> 24
    if word & 0x00FFFFFF or code >= len(ResultCode):
        return None
    return ResultCode(code)


def result_name(word: int) -> str:
    """'eVYRIX_INVALID_ARGUMENT' for a library code, else 'device status 0x...'."""
    name = _library_name(word) if _library_name else None
    if name:
        return name
    code = code_of(word)
    return "eVYRIX_" + code.name if code is not None else "device status 0x%08X" % word


def result_description(word: int) -> str:
    """What a result word means, in a few words ('' when nothing is known)."""
    text = _library_description(word) if _library_description else None
    if text:
        return text
    code = code_of(word)
    if code is None:
        return "status word reported by the device"
    return _DESCRIPTIONS.get(code, "")


class VyrixError(Exception):
    """A failed library call; .code is the 32-bit result word, .what the call,
    .reason the library's sentence about this particular failure ("" when it
    has none, e.g. "/dev/ttyUSB9: no such device (No such file or directory)")."""

    result_code: ClassVar[Optional[ResultCode]] = None  # the ResultCode of the subclass

    def __init__(self, code: int, what: Optional[str] = None, reason: str = "") -> None:
        self.code = code
        self.what = what
        self.reason = reason
        text = result_name(code)
        if "0x%08X" % code not in text:
            text += " (0x%08X)" % code
        description = result_description(code)
        if description:
            text += ": " + description
        if reason:
            text = "%s: %s" % (reason, text)
        if what:
            text = "%s: %s" % (what, text)
        super().__init__(text)

    def __reduce__(self) -> Tuple[Type[VyrixError], Tuple[int, Optional[str], str]]:
        # The message is made from the code: pickle what makes it.
        return (type(self), (self.code, self.what, self.reason))


class DeviceStatus(VyrixError):
    """A status word the device reported that is not one of the library's codes."""


# fmt: off
class Failure(VyrixError):
    """0x01000000: a lock, allocation, reply check or close failed."""
    result_code = ResultCode.FAILURE
class NotSupported(VyrixError):
    """0x02000000: the library does not carry out this operation."""
    result_code = ResultCode.NOT_SUPPORTED
class Timeout(VyrixError, TimeoutError):
    """0x03000000: a USB transfer timed out."""
    result_code = ResultCode.TIMEOUT
class Uninitialized(VyrixError):
    """0x04000000: the library is not open."""
    result_code = ResultCode.UNINITIALIZED
class InvalidArgument(VyrixError, ValueError):
    """0x05000000: an argument is missing or out of range; nothing was sent."""
    result_code = ResultCode.INVALID_ARGUMENT
class InitFailure(VyrixError):
    """0x06000000, reported by a device."""
    result_code = ResultCode.INIT_FAILURE
class Incomplete(VyrixError, TimeoutError):
    """0x07000000: no reply within the connection's time-out (Device.timeout)."""
    result_code = ResultCode.INCOMPLETE
# Not "NotImplemented": that would shadow the built-in constant on import *.
class NotImplementedOnDevice(VyrixError):
    """0x08000000, reported by a device."""
    result_code = ResultCode.NOT_IMPLEMENTED
class InternalError(VyrixError):
    """0x09000000: the library caught an unexpected exception."""
    result_code = ResultCode.INTERNAL_ERROR
class DeviceError(VyrixError):
    """0x0A000000, reported by a device."""
    result_code = ResultCode.DEVICE_ERROR
class ResourceBusy(VyrixError):
    """0x0B000000, reported by a device."""
    result_code = ResultCode.RESOURCE_BUSY
class ResourceFull(VyrixError):
    """0x0C000000, reported by a device."""
    result_code = ResultCode.RESOURCE_FULL
class InvalidChecksum(VyrixError):
    """0x0D000000, reported by a device."""
    result_code = ResultCode.INVALID_CHECKSUM
class InvalidData(VyrixError):
    """0x0E000000, reported by a device (a command it could not read)."""
    result_code = ResultCode.INVALID_DATA
class InvalidContext(VyrixError):
    """0x0F000000, reported by a device."""
    result_code = ResultCode.INVALID_CONTEXT
class ArgumentOutOfRange(VyrixError):
    """0x10000000, reported by a device."""
    result_code = ResultCode.ARGUMENT_OUT_OF_RANGE
class InvalidCallState(VyrixError):
    """0x11000000, reported by a device (e.g. an upgrade chunk out of turn)."""
    result_code = ResultCode.INVALID_CALL_STATE
class ConditionsNotCorrect(VyrixError):
    """0x12000000, reported by a device."""
    result_code = ResultCode.CONDITIONS_NOT_CORRECT
class NoMoreResources(VyrixError):
    """0x13000000, reported by a device."""
    result_code = ResultCode.NO_MORE_RESOURCES
class OsError(VyrixError):
    """0x14000000, reported by a device."""
    result_code = ResultCode.OS_ERROR
class Empty(VyrixError):
    """0x15000000, reported by a device."""
    result_code = ResultCode.EMPTY
class NotConnected(VyrixError, ConnectionError):
    """0x16000000: no port open, the connection is closed, or the device went away."""
    result_code = ResultCode.NOT_CONNECTED
class CommunicationError(VyrixError):
    """0x17000000: the device answered with an error reply."""
    result_code = ResultCode.COMMUNICATION_ERROR
class AlreadyOpened(VyrixError):
    """0x18000000: the device, its port or the library is open already."""
    result_code = ResultCode.ALREADY_OPENED
class BthDisabled(VyrixError):
    """0x19000000: the host has no usable Bluetooth adapter."""
    result_code = ResultCode.BTH_DISABLED
class PayloadTooLarge(VyrixError):
    """0x1A000000: a payload or buffer exceeds 4095 bytes."""
    result_code = ResultCode.PAYLOAD_TOO_LARGE
class Retry(VyrixError):
    """0x1B000000: the device kept asking for a resend."""
    result_code = ResultCode.RETRY
class ReconnectFailed(VyrixError):
    """0x1C000000: a lost device could not be reached again."""
    result_code = ResultCode.RECONNECT_FAILED
# fmt: on


ERROR_CLASSES: Dict[ResultCode, Type[VyrixError]] = {
    cls.result_code: cls for cls in VyrixError.__subclasses__() if cls.result_code is not None
}


def error_for(word: int, what: Optional[str] = None, reason: str = "") -> VyrixError:
    """The exception for a non-zero result word."""
    code = code_of(word)
    cls: Type[VyrixError] = DeviceStatus
    if code is not None:
        cls = ERROR_CLASSES.get(code, DeviceStatus)
    return cls(word, what, reason)


def check(word: int, what: Optional[str] = None, reason: str = "") -> None:
    """Raise the matching VyrixError unless the result word is 0."""
    if word:
        raise error_for(word, what, reason)


__all__: List[str] = ["ResultCode", "VyrixError", "DeviceStatus", "error_for", "check"]
__all__ += [c.__name__ for c in ERROR_CLASSES.values()]
