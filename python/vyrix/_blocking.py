# SPDX-License-Identifier: MIT
"""Foreign calls that may block, made so that Ctrl-C still works.

A ctypes call releases the GIL, but Python runs its signal handlers only in
the main thread and only between bytecodes, so a KeyboardInterrupt would wait
for the library to return (a silent device: the whole reply time-out).  The
main thread therefore hands a blocking call to a worker thread and waits for
it in slices of SLICE seconds: a signal delivered to the main thread ends the
wait at once, one delivered to any other thread (the library's own threads
do not block signals) at the end of the slice.

An interrupted call is not stopped (the library cannot take back a command
it has sent); it finishes on its worker, its result is dropped, and calls
that share its turn lock wait for it first, so the next command on the
connection gets the whole time-out for its own reply and never meets the
interrupted one's.  A call interrupted before its worker started it is never
made.  A call whose result must not be dropped (an open connection) names a
cleanup that gets the result when nobody else will.

Other threads make their calls themselves: only the main thread is ever
interrupted.
"""

from __future__ import annotations

import os
import queue
import threading
import time
from typing import Any, Callable, Generic, Optional, TypeVar

SLICE = 0.1  # seconds between looks at pending signals

T = TypeVar("T")


class _Job(Generic[T]):
    """One call for a worker, and what became of it."""

    def __init__(
        self,
        function: Callable[..., T],
        args: tuple[Any, ...],
        turn: Optional[threading.Lock],
        cleanup: Optional[Callable[[T], object]],
    ) -> None:
        self._function = function
        self._args = args  # kept until the call returns: the library may write to them
        self._turn = turn
        self._cleanup = cleanup
        self._done = threading.Lock()
        self._done.acquire()
        self._lock = threading.Lock()  # guards the two flags
        self._finished = False
        self._abandoned = False
        self._result: Optional[T] = None
        self._error: Optional[BaseException] = None

    def run(self) -> None:
        """On a worker: wait for the turn, make the call unless abandoned first."""
        with self._lock:
            if self._abandoned:
                self._done.release()
                return
        if self._turn is not None:
            self._turn.acquire()
        try:
            with self._lock:
                if self._abandoned:
                    return
            try:
                self._result = self._function(*self._args)
            except BaseException as error:  # handed to the caller
                self._error = error
        finally:
            if self._turn is not None:
                self._turn.release()
            self._args = ()
            self._done.release()
        with self._lock:
            self._finished = True
            orphan = self._abandoned
        if orphan:
            self._clean_up()

    def join(self) -> None:
        """Wait for the call to end, in slices."""
        while not self._done.acquire(timeout=SLICE):
            pass

    def result(self) -> T:
        """The ended call's result, or its exception."""
        if self._error is not None:
            raise self._error
        return self._result  # type: ignore[return-value]  # set when no error

    def abandon(self) -> None:
        """The caller will not take the result: drop the call if not started, else clean up after it."""
        with self._lock:
            self._abandoned = True
            finished = self._finished
        if finished:
            self._clean_up()

    def _clean_up(self) -> None:
        if self._cleanup is not None and self._error is None and self._result is not None:
            try:
                self._cleanup(self._result)
            except Exception:  # nobody to tell
                pass


class _Workers:
    """Daemon threads that make calls for the main thread; they wait on a queue while idle.

    Daemon threads: an interrupted call still waiting for a silent device
    must not hold up the interpreter's exit, which closes the connection
    (and so ends the call) only after non-daemon threads are joined.
    """

    def __init__(self) -> None:
        self._jobs: queue.SimpleQueue[_Job[Any]] = queue.SimpleQueue()
        self._lock = threading.Lock()
        self._idle = 0

    def submit(self, job: _Job[Any]) -> None:
        """Hand the job to an idle worker, starting one when none is idle."""
        with self._lock:
            start = self._idle == 0
            if not start:
                self._idle -= 1
        if start:
            threading.Thread(target=self._serve, name="vyrix-call", daemon=True).start()
        self._jobs.put(job)

    def _serve(self) -> None:
        while True:
            self._jobs.get().run()
            with self._lock:
                self._idle += 1


_workers = _Workers()


def _forget_workers() -> None:
    # A child of fork() has none of its parent's threads.
    global _workers
    _workers = _Workers()


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_forget_workers)


def wait_time(give_up: Optional[float]) -> Optional[float]:
    """How long one wait may block to end at give_up (time.monotonic(); None: never) and still let Ctrl-C in."""
    left = None if give_up is None else max(0.0, give_up - time.monotonic())
    if threading.current_thread() is not threading.main_thread():
        return left
    return SLICE if left is None else min(SLICE, left)


def call(
    function: Callable[..., T],
    *args: Any,
    turn: Optional[threading.Lock] = None,
    cleanup: Optional[Callable[[T], object]] = None,
) -> T:
    """function(*args), interruptible when called from the main thread.

    turn: a lock the call holds while it runs (one command at a time per
    connection); cleanup: what to do with a result that an interrupted
    caller leaves behind.
    """
    if threading.current_thread() is not threading.main_thread():
        if turn is None:
            return function(*args)
        with turn:
            return function(*args)
    job = _Job(function, args, turn, cleanup)
    try:
        _workers.submit(job)
        job.join()
    except BaseException:  # a signal's exception: the call goes on without its caller
        job.abandon()
        raise
    return job.result()
