"""Waiting so that Ctrl-C ends it: what waits in a lock of Python can be interrupted, what waits in
the library only between slices."""

from __future__ import annotations

import math
import sys
import threading
from collections.abc import Callable
from typing import Any

#: Of a wait in the library on the main thread.
SLICE_MS = 50
_SLICE_S = 0.05 if sys.platform == "win32" else 0.5
_LONGEST_MS = 2**31 - 1


def milliseconds(timeout: float | None, usual: int = 0) -> int:
    """A limit as the library takes it. None: the usual one; infinity: none."""
    if timeout is None:
        return usual
    if timeout == math.inf:
        return -1
    return min(max(1, math.ceil(timeout * 1000)), _LONGEST_MS)


def on_main_thread() -> bool:
    """Where Ctrl-C is raised."""
    return threading.get_ident() == threading.main_thread().ident


def acquire(lock: Any) -> None:
    """Waits for a lock, in slices: a signal that comes right before a wait does not end it, and on
    Windows none does."""
    while not lock.acquire(timeout=_SLICE_S):
        pass


def interruptible(function: Callable[..., Any], *args: Any) -> Any:
    """Calls a function that waits in the library. After an interruption it goes on on a thread of
    its own, and nobody gets its result."""
    if not on_main_thread():
        return function(*args)
    ended = threading.Lock()
    ended.acquire()
    result: list[Any] = []

    def run() -> None:
        try:
            result.append(function(*args))
        except BaseException as error:
            result.append(error)
        ended.release()

    threading.Thread(target=run, name="tolk-wait", daemon=True).start()
    acquire(ended)
    if isinstance(result[0], BaseException):
        raise result[0]
    return result[0]
