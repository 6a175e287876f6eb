# SPDX-License-Identifier: MIT
"""asyncio for a Device through its event descriptor, with no thread of its own.

    async def main():
        with vyrix.open_uart("/dev/ttyUSB0", reconnect=True) as dev:
            first = await dev.next_message(timeout=5)
            async for message in dev.amessages():
                print(message.payload.hex())

The event loop watches Device.fileno(), which is readable while a message
waits or a change of the link's state has not been read; nothing else
wakes it.  Device.next_message and Device.amessages call these functions.
"""

from __future__ import annotations

import asyncio
import time
from typing import TYPE_CHECKING, AsyncIterator, Optional

from .errors import Incomplete, NotConnected, ResultCode
from .lifecycle import LinkState
from .model import Message

if TYPE_CHECKING:
    from .device import Device


async def _readable(fd: int, timeout: Optional[float]) -> bool:
    """Whether fd became readable within timeout seconds (None: no limit)."""
    loop = asyncio.get_running_loop()
    ready: asyncio.Future[None] = loop.create_future()

    def wake() -> None:
        if not ready.done():
            ready.set_result(None)

    loop.add_reader(fd, wake)
    try:
        await asyncio.wait_for(ready, timeout)
        return True
    except asyncio.TimeoutError:
        return False
    finally:
        loop.remove_reader(fd)


async def next_message(device: Device, timeout: Optional[float] = None) -> Message:
    """The next message the device sends of its own accord.

    Waits up to timeout seconds (None: without limit) and raises Incomplete
    (a TimeoutError) when none comes.  Raises NotConnected when the link
    goes down and reconnection is off (the messages that came before are
    still given first).  A change of the link's state while waiting is read
    (Device.state, on_state still see it).
    """
    fd = device.fileno()
    give_up = None if timeout is None else time.monotonic() + timeout
    while True:
        message = device.take_message()
        if message is not None:
            return message
        # Nothing to take: what made the descriptor readable, if anything,
        # was a change of state.
        if device.state == LinkState.DOWN and not device.reconnecting:
            raise NotConnected(ResultCode.NOT_CONNECTED.result, "next_message: the device is gone")
        left = None if give_up is None else give_up - time.monotonic()
        if (left is not None and left <= 0) or not await _readable(fd, left):
            raise Incomplete(ResultCode.INCOMPLETE.result, "next_message: no message within %s s" % timeout)


async def messages(device: Device, timeout: Optional[float] = None) -> AsyncIterator[Message]:
    """Yield the device's messages as they come.

    Ends when none comes within timeout seconds (None: waits without
    limit), or when the link goes down and reconnection is off.
    """
    while True:
        try:
            yield await next_message(device, timeout)
        except (Incomplete, NotConnected):
            return
