"""What a client and a server have in common: the handle, the methods, and the end.

Owner: clients, servers and peers. The library's contexts refer to it weakly, so that the last of
those frees it; a thread that uses the handle has one of them.
"""

from __future__ import annotations

import asyncio
import atexit
import ctypes
import inspect
import itertools
import logging
import os
import threading
import time
import weakref
from collections.abc import Callable
from typing import TYPE_CHECKING, Any

from . import _library as c
from ._contexts import find, keep, log, take
from ._errors import Closed, raise_and_free, text_of
from ._library import quick, waiting
from ._waits import milliseconds

if TYPE_CHECKING:
    from ._methods import Method, Methods

_EXIT_LIMIT_S = 2.0
_STOP_LIMIT_S = 0.5
_LEVELS = {0: logging.DEBUG, 1: logging.INFO, 2: logging.WARNING}


class Core:
    """`side` is "client" or "server"."""

    def __init__(self, side: str, methods: Methods, loop: Any = None) -> None:
        if _exiting:
            raise Closed("the interpreter exits")
        self.side = side
        self.handle: int | None = None
        self.address = ""
        self.start = getattr(quick, side + "_start")
        self.cancel = getattr(quick, side + "_cancel")
        self.wait_for = getattr(waiting, side + "_wait_for")
        self.tasks: set[asyncio.Task[Any]] = set()
        self.loop = loop or _running_loop()
        self.closed = False
        self.methods = methods
        self._table = quick.methods_new()
        self._own = weakref.ref(self)
        self._contexts: list[int] = []
        methods._add_user(self)
        _cores.add(self)

    def open(self, address: str, options: Any) -> None:
        """Connects or listens."""
        function = getattr(waiting, "client_connect" if self.side == "client" else "server_listen")
        handle, error = ctypes.c_void_p(), ctypes.c_void_p()
        options.methods = self._table
        if log.isEnabledFor(logging.INFO):
            options.log = _on_log
        function(address.encode(), ctypes.byref(options), ctypes.byref(handle), ctypes.byref(error))
        self.handle, self.address = handle.value, address
        raise_and_free(error.value or 0)

    def opened(self) -> int:
        """The handle. Closed if there is none."""
        if self.handle is None:
            raise Closed(f"{self.address}: this end is closed")
        return self.handle

    def keep(self, context: Any) -> int:
        """For callbacks, until the end: after that there are none."""
        self._contexts.append(keep(context))
        return self._contexts[-1]

    # ---- Methods

    def add(self, method: Method) -> None:
        options = c.MethodOptions(
            flags=(c.INLINE if method.is_async else 0) | (c.ORDERED if method.ordered else 0),
            signature=method.signature.encode(), about=method.about.encode())
        if method.sink is not None:
            options.accept = _on_data
        error = ctypes.c_void_p()
        name = None if method.name is None else method.name.encode()
        quick.methods_add(self._table, name, _on_request, self.keep((self._own, method)),
                          ctypes.byref(options), ctypes.byref(error))
        raise_and_free(error.value or 0)

    def remove(self, name: str) -> None:
        quick.methods_remove(self._table, name.encode())

    def on_loop(self, function: Callable[..., Any], *args: Any) -> bool:
        """Runs a coroutine function on the event loop in which this end was made."""
        loop = self.loop
        if loop is None:
            return False
        try:
            loop.call_soon_threadsafe(self._begin, loop, function, args)
            return True
        except RuntimeError:  # it is closed
            return False

    def _begin(self, loop: Any, function: Callable[..., Any], args: tuple[Any, ...]) -> None:
        task = loop.create_task(function(*args))
        self.tasks.add(task)  # the loop has weak references alone
        task.add_done_callback(self.tasks.discard)

    def hook(self, function: Callable[..., Any], *args: Any) -> None:
        """Runs a function of the user that has no caller."""
        if inspect.iscoroutinefunction(function):
            self.on_loop(function, *args)
            return
        try:
            function(*args)
        except Exception:
            log.exception("%s failed", function)

    # ---- The end

    def close(self, limit_s: float) -> None:
        """Waits for handlers and for what is to be written, except in a handler of this end."""
        if self.handle is not None and not self.closed:
            # With 0 the library does not begin to wait.
            limit_ms = 0 if limit_s == 0 else milliseconds(limit_s, c.FOREVER)
            self.closed = True
            getattr(waiting, self.side + "_close")(self.handle, limit_ms)

    def free(self) -> None:
        handle, self.handle = self.handle, None
        if handle is not None:
            getattr(waiting, self.side + "_free")(handle)
        table, self._table = self._table, None
        quick.methods_free(table)
        while self._contexts:
            take(self._contexts.pop())

    def __del__(self) -> None:
        if getattr(self, "_table", None) and not _exiting:
            self.free()


def _running_loop() -> Any:
    try:
        return asyncio.get_running_loop()
    except RuntimeError:
        return None


_NOBODY: Any = (lambda: None, None)  # of a context that is not there any more

# Threads that run handlers.
_serving: set[int] = set()

# The interpreter makes its state of a foreign thread for each callback anew, which costs as much as a
# short handler. So some threads keep theirs, for as long as the process lives: not more than these,
# because idle threads of the library end.
_KEPT_THREADS = 64
_kept = itertools.count().__next__


class _Thread(threading.local):
    is_known = False


_thread = _Thread()


def _keep_this_thread() -> None:
    _thread.is_known = True
    if _kept() < _KEPT_THREADS:
        ctypes.pythonapi.PyGILState_Ensure()



@c.callback(c.Handler)
def _on_request(key: int, request: int) -> None:
    own, method = find(key) or _NOBODY
    core = own()
    if core is None:
        quick.request_free(request)
    elif not method.is_async:
        if not _thread.is_known:
            _keep_this_thread()
        me = threading.get_ident()
        _serving.add(me)
        try:
            method.serve(core, request)
        finally:
            _serving.discard(me)
    elif not core.on_loop(method.serve_async, core, request):
        quick.request_fail(request, 0, 0, b"an async handler, but no event loop runs", None)


@c.callback(c.Accept)
def _on_data(key: int, request: int, total: int, sink: Any) -> int:
    own, method = find(key) or _NOBODY
    core = own()
    if core is None:
        return 4
    status, sink[0] = method.choose_sink(core, request, total)
    return int(status)


@c.callback(c.Log)
def _on_log(key: int, level: int, line: bytes) -> None:
    log.log(_LEVELS.get(level, logging.WARNING), "%s", text_of(line))


# ---- The interpreter's exit, and fork -----------------------------------------------------------

_cores: weakref.WeakSet[Core] = weakref.WeakSet()
_exiting = False


@atexit.register
def _end_all() -> None:
    """Afterwards no thread of the library calls Python, which would not survive it."""
    global _exiting
    _exiting = True
    end = time.monotonic() + _EXIT_LIMIT_S
    for core in list(_cores):
        core.close(max(0.0, end - time.monotonic()))
    if _stop_handlers():
        for core in list(_cores):
            core.free()


def _stop_handlers() -> bool:
    """Handlers that went on beyond the limit end at their next step in Python. False: some of them
    wait for something else, and are left where they are."""
    for thread in list(_serving):
        ctypes.pythonapi.PyThreadState_SetAsyncExc(
            ctypes.c_ulong(thread), ctypes.py_object(SystemExit))
    end = time.monotonic() + _STOP_LIMIT_S
    while _serving and time.monotonic() < end:
        time.sleep(0.001)
    return not _serving


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_serving.clear)  # they are threads of the parent
