"""Who is at the other end: calls to a peer, and the caller of a handler."""

from __future__ import annotations

import asyncio
import contextlib
import ctypes
import threading
from typing import Any, NamedTuple, TypeVar, overload

from . import _library as c
from ._contexts import keep, take
from ._core import Core
from ._errors import Busy, Error, Status, WrongType, error_of, raise_and_free, text_of
from ._library import quick, waiting
from ._transfers import Data, Place, Progress, on_progress, sink_of, source_of
from ._types import Misfit, fit_for
from ._values import Block, Values, anything, arguments_block, contents, has_bytes, keys_in, read
from ._values import view
from ._waits import SLICE_MS, interruptible, milliseconds, on_main_thread

_CALL_BYTES = ctypes.sizeof(c.Call)
T = TypeVar("T")


class MethodInfo(NamedTuple):
    """A method of a peer."""

    name: str
    #: "(int, int) -> int"
    signature: str
    about: str


def result_of(block: Block, wanted: Any) -> Any:
    """The values of a reply as a type. WrongType if they are of another one."""
    pointer = block.pointer
    if wanted is Any:
        return anything(pointer)
    if wanted is None or wanted is type(None):
        return None
    if wanted is memoryview and has_bytes(pointer, 0):
        return view(block, 0)
    if wanted is Values:
        args, keys = contents(pointer)
        return Values(tuple(args), keys)
    fit = fit_for(wanted)
    try:
        if quick.block_count(pointer) > 1 and fit.name.startswith("["):
            return fit.of(contents(pointer)[0])
        # A struct may come as keyed values.
        keys = {} if quick.block_count(pointer) else keys_in(pointer)
        return fit.of(keys or read(pointer, 0))
    except Misfit as misfit:
        raise WrongType(f"the result{misfit}") from None


# ---- Outcomes -----------------------------------------------------------------------------------


@c.callback(c.Done)
def _on_done(key: int, address: int) -> None:
    """The library's loop thread, which must not wait."""
    outcome = c.Outcome.from_address(address)
    wait = take(key)
    result: Any
    if outcome.status == Status.OK:
        result = Block(quick.block_copy(outcome.result))
    else:
        result = error_of(outcome.error)
    wait.finish(result)


class _Wait:
    """A call that callbacks of the library belong to, under a key."""

    key = 0

    def __init__(self, progress: Progress | None = None) -> None:
        self.progress = progress

    def finish(self, outcome: Any) -> None:
        """The outcome: a block or an error."""


class _Await(_Wait):
    """One that a coroutine waits for."""

    def __init__(self, progress: Progress | None = None) -> None:
        super().__init__(progress)
        self._loop = asyncio.get_running_loop()
        self.future: asyncio.Future[Any] = self._loop.create_future()

    def finish(self, outcome: Any) -> None:
        try:
            self._loop.call_soon_threadsafe(self._set, outcome)
        except RuntimeError:  # the loop is closed
            pass

    def _set(self, outcome: Any) -> None:
        if not self.future.done():
            self.future.set_result(outcome)


# ---- Peers --------------------------------------------------------------------------------------


class Peer:
    """The server of a client, or one of the clients of a server."""

    def __init__(self, core: Core, id: int = 0) -> None:
        self._core = core
        self._id = id

    @property
    def id(self) -> int:
        """A client's number at its server, never used again. 0 for a server."""
        return self._id

    def __repr__(self) -> str:
        who = f"client {self._id} of" if self._core.side == "server" else "server at"
        return f"<tolk.Peer {who} {self._core.address}>"

    def __eq__(self, other: object) -> bool:
        return (isinstance(other, Peer) and self._core is other._core and self._id == other._id)

    def __hash__(self) -> int:
        return hash((id(self._core), self._id))

    @overload
    def call(self, method: str, *args: Any, timeout: float | None = None, result: type[T],
             **keys: Any) -> T: ...

    @overload
    def call(self, method: str, *args: Any, timeout: float | None = None, result: Any = Any,
             **keys: Any) -> Any: ...

    def call(self, method: str, *args: Any, timeout: float | None = None, result: Any = Any,
             **keys: Any) -> Any:
        """Calls, and waits for the result, at most so many seconds.

        Without `result`, the type that is wanted, it is None, a value, a tuple of several, a dict of
        keyed ones, or Values. Ctrl-C cancels the call."""
        return self._call(method, arguments_block(args, keys), timeout, result)

    @overload
    async def call_async(self, method: str, *args: Any, timeout: float | None = None,
                         result: type[T], **keys: Any) -> T: ...

    @overload
    async def call_async(self, method: str, *args: Any, timeout: float | None = None,
                         result: Any = Any, **keys: Any) -> Any: ...

    async def call_async(self, method: str, *args: Any, timeout: float | None = None,
                         result: Any = Any, **keys: Any) -> Any:
        """The same in a coroutine. Cancelling the task cancels the call."""
        return await self._call_async(method, arguments_block(args, keys), timeout, result)

    def send(self, method: str, data: Data, *args: Any, timeout: float | None = None,
             result: Any = Any, progress: Progress | None = None, **keys: Any) -> Any:
        """Calls with large data: a path, bytes, or an open file. The limit holds for a piece, and
        after the last one. `progress` gets the bytes that have arrived and all of them; if it
        returns False, the transfer is cancelled."""
        block = arguments_block(args, keys)
        return self._call(method, block, timeout, result, source_of(data), None, progress)

    async def send_async(self, method: str, data: Data, *args: Any, timeout: float | None = None,
                         result: Any = Any, progress: Progress | None = None, **keys: Any) -> Any:
        """The same in a coroutine."""
        block = arguments_block(args, keys)
        return await self._call_async(method, block, timeout, result, source_of(data), None,
                                      progress)

    def fetch(self, method: str, to: Place, *args: Any, timeout: float | None = None,
              result: Any = Any, progress: Progress | None = None, **keys: Any) -> Any:
        """Calls, and has the data of the answer written to a path or an open file."""
        block = arguments_block(args, keys)
        return self._call(method, block, timeout, result, None, sink_of(to), progress)

    async def fetch_async(self, method: str, to: Place, *args: Any, timeout: float | None = None,
                          result: Any = Any, progress: Progress | None = None, **keys: Any) -> Any:
        """The same in a coroutine."""
        block = arguments_block(args, keys)
        return await self._call_async(method, block, timeout, result, None, sink_of(to), progress)

    def post(self, method: str, *args: Any, timeout: float = 5.0, **keys: Any) -> None:
        """Calls without a result. Returns when the call is queued; while too many bytes are queued
        it waits, at most so many seconds, then raises Busy."""
        self._post(method, arguments_block(args, keys), timeout)

    def describe(self, timeout: float | None = None) -> list[MethodInfo]:
        """What methods the peer has."""
        return [MethodInfo(*one) for one in zip(*self.call("tolk.describe", timeout=timeout))]

    # ---- How

    def _start(self, wait: _Wait | None, done: Any, method: str, block: Block,
               timeout: float | None, source: Any = None, sink: Any = None) -> int:
        try:
            handle, limit_ms, name = self._core.opened(), milliseconds(timeout), method.encode()
        except BaseException:
            quick.source_free(source)
            quick.sink_free(sink)
            raise
        call = c.Call(_CALL_BYTES, name, block.pointer, self._id, limit_ms, c.INLINE)
        if done is not None:
            call.done = done
        if source or sink:
            call.source, call.sink, call.piece_limit_ms = source, sink, limit_ms
        if wait is not None:
            if wait.progress is not None:
                call.progress = on_progress
            call.context = wait.key = keep(wait)
        number: int = self._core.start(handle, ctypes.byref(call))
        return number

    def _call(self, method: str, block: Block, timeout: float | None, result: Any,
              source: Any = None, sink: Any = None, progress: Progress | None = None) -> Any:
        wait = None if progress is None else _Wait(progress)
        try:
            number = self._start(wait, None, method, block, timeout, source, sink)
            return result_of(self._wait(number), result)
        finally:
            if wait is not None:
                take(wait.key)

    def _wait(self, number: int) -> Block:
        """Waits in the library, which has another thread run handlers meanwhile. Ctrl-C is noticed
        after a slice."""
        slice_ms = SLICE_MS if on_main_thread() else c.FOREVER
        try:
            while True:
                reply = self._outcome(number, slice_ms)
                if reply is not None:
                    return reply
        except Error:
            raise
        except BaseException:
            self._drop(number)
            raise

    def _drop(self, number: int) -> None:
        """Cancels a call. Nobody gets its outcome."""
        self._core.cancel(self._core.handle, number)
        with contextlib.suppress(Error):
            self._outcome(number, SLICE_MS)

    def _wait_or_error(self, number: int) -> Any:
        try:
            return self._wait(number)
        except Error as error:
            return error.with_traceback(None)

    def _outcome(self, number: int, limit_ms: int) -> Block | None:
        """Takes the outcome of a call. None: the call goes on."""
        reply, error = ctypes.c_void_p(), ctypes.c_void_p()
        status = self._core.wait_for(self._core.handle, number, limit_ms, ctypes.byref(reply),
                                     ctypes.byref(error))
        # Failures of the call itself name the method.
        if status == Status.BUSY and not quick.error_method(error):
            quick.error_free(error)
            return None
        raise_and_free(error.value or 0)
        return Block(reply.value)

    async def _call_async(self, method: str, block: Block, timeout: float | None, result: Any,
                          source: Any = None, sink: Any = None,
                          progress: Progress | None = None) -> Any:
        wait = _Await(progress)
        number = self._start(wait, _on_done, method, block, timeout, source, sink)
        try:
            outcome = await wait.future
        except BaseException:
            self._core.cancel(self._core.handle, number)
            raise
        return _unpacked(outcome, result)

    def _post(self, method: str, block: Block, timeout: float) -> None:
        target = [self._core.opened(), *([self._id] if self._core.side == "server" else [])]

        def post(library: Any, wait_ms: int) -> None:
            error = ctypes.c_void_p()
            function = getattr(library, self._core.side + "_post")
            function(*target, method.encode(), block.pointer, wait_ms, ctypes.byref(error))
            raise_and_free(error.value or 0)

        try:
            post(quick, 0)
        except Busy:
            if timeout <= 0:
                raise
            interruptible(post, waiting, milliseconds(timeout))


def _unpacked(outcome: Any, result: Any) -> Any:
    if isinstance(outcome, Error):
        raise outcome
    return result_of(outcome, result)


class Caller:
    """Who called a handler, and whether the answer is still wanted."""

    #: The name that the peer called, also for a catch-all.
    method: str
    #: "tcp4:127.0.0.1:40312", "pipe:5000"
    address: str
    #: Local pipes: the user's number, on Windows the SID. Else empty.
    user: str
    #: Local pipes: the process id. 0 if unknown.
    process: int
    #: To call back.
    peer: Peer

    def __init__(self, core: Core, request: int) -> None:
        self._core = core
        self._request: int | None = request
        self._lock = threading.Lock()

    def _introduced(self) -> Caller:
        """With what the library knows about the caller."""
        self.method = text_of(quick.request_method(self._request))
        info = c.PeerInfo.from_address(quick.request_peer(self._request))
        self.address, self.user = text_of(info.address), text_of(info.user)
        self.process = info.process
        self.peer = Peer(self._core, info.client)
        return self

    def _taken(self) -> int | None:
        """The request, once."""
        with self._lock:
            request, self._request = self._request, None
            return request

    @property
    def cancelled(self) -> bool:
        """Nobody waits for the answer any more."""
        with self._lock:
            return self._request is None or quick.request_state(self._request) != Status.OK

    @property
    def time_left(self) -> float | None:
        """The seconds that the caller still waits, for calls that serve the request. None if it has
        not said so."""
        with self._lock:
            left = -1 if self._request is None else quick.request_limit_left(self._request)
            return None if left < 0 else left / 1000
