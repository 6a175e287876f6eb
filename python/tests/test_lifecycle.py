# SPDX-License-Identifier: MIT
"""The link's state, reconnection and asyncio through the event descriptor, against the simulator."""

import asyncio
import queue
import select
import threading

import pytest

import vyrix
from conftest import DEADLINE
from vyrix import LinkState

GONE = vyrix.ResultCode.NOT_CONNECTED.result


def hex_of(payload):
    return " ".join("%02X" % b for b in payload)


def test_reconnects_when_the_simulator_comes_back_at_the_same_path(simulator):
    first = simulator()
    changes = queue.Queue()
    with vyrix.open_uart(first.link, reconnect=True, timeout=5) as dev:
        dev.on_state = lambda state, reason: changes.put((state, reason, threading.current_thread().ident))
        assert dev.state == LinkState.UP and dev.reconnecting
        first.stop()
        assert changes.get(timeout=DEADLINE)[:2] == (LinkState.DOWN, GONE)
        assert changes.get(timeout=DEADLINE)[:2] == (LinkState.RECONNECTING, 0)
        with pytest.raises(vyrix.NotConnected):
            dev.get_brightness()
        second = simulator("--trace", link=first.link)
        state, reason, thread = changes.get(timeout=DEADLINE)
        assert (state, reason) == (LinkState.UP, 0)
        assert thread != threading.get_ident()  # the library's callback thread
        dev.set_brightness(37)  # the first command after "up", through the same Device
        assert dev.get_brightness() == 37
        assert second.wait_for("host ->", 2).count("host ->") == 2
        assert dev.state == LinkState.UP


def test_asyncio_takes_messages_through_the_descriptor_without_a_thread(simulator):
    sim = simulator("--notify-every", "0.1", "--trace")
    with vyrix.open_uart(sim.link) as dev:
        threads = threading.active_count()

        async def three():
            got = [await dev.next_message(timeout=DEADLINE)]
            async for message in dev.amessages(timeout=DEADLINE):
                got.append(message)
                if len(got) == 3:
                    break
            return got

        got = asyncio.run(three())
        assert threading.active_count() == threads
        output = sim.wait_for("(unprompted)", 3)
        sent = [line for line in output.splitlines() if "(unprompted)" in line]
        for message, line in zip(got, sent):  # what arrived is what was sent, in order
            assert hex_of(message.payload) in line
        assert len({bytes(m.payload) for m in got}) == 3


def test_the_descriptor_tells_a_state_change_and_asyncio_ends_with_the_link(simulator):
    sim = simulator()
    with vyrix.open_uart(sim.link) as dev:
        fd = dev.fileno()
        assert select.select([fd], [], [], 0)[0] == []  # nothing waits
        with pytest.raises(vyrix.Incomplete):
            asyncio.run(dev.next_message(timeout=0.05))
        sim.stop()
        assert select.select([fd], [], [], DEADLINE)[0] == [fd]
        assert dev.state == LinkState.DOWN
        assert select.select([fd], [], [], 0)[0] == []  # read: no longer readable
        with pytest.raises(vyrix.NotConnected):
            asyncio.run(dev.next_message(timeout=DEADLINE))
