"""Clients and servers."""

from __future__ import annotations

import asyncio
import ctypes
import functools
import weakref
from collections.abc import Callable
from typing import Any

from . import _library as c
from ._contexts import find, keep
from ._core import Core
from ._errors import Error, Status, error_of, text_of
from ._library import quick, waiting
from ._methods import Methods
from ._peer import Peer, result_of
from ._values import Block, arguments_block
from ._waits import interruptible, milliseconds

_CLOSE_S = 5.0


class _End:
    """What clients and servers have in common."""

    _core: Core

    @property
    def methods(self) -> Methods:
        """What peers may call."""
        return self._core.methods

    @property
    def method(self) -> Any:
        """Adds a method: see Methods.method. In a table that others share, for them too."""
        return self._core.methods.method

    @property
    def closed(self) -> bool:
        return self._core.handle is None or self._core.closed

    def close(self, timeout: float = _CLOSE_S) -> None:
        """Refuses new calls, and waits, at most so many seconds, until handlers have returned and
        posts and answers are written. Then ends the connection."""
        interruptible(self._core.close, timeout)

    async def close_async(self, timeout: float = _CLOSE_S) -> None:
        """The same in a coroutine. Waits for coroutine handlers first."""
        tasks = self._core.tasks - {asyncio.current_task()}
        if tasks:
            await asyncio.wait(tasks, timeout=timeout)
        await asyncio.get_running_loop().run_in_executor(None, self._core.close, timeout)


class Client(Peer, _End):
    """A connection to a server. See connect."""

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *failure: Any) -> None:
        self.close()

    async def __aenter__(self) -> Client:
        return self

    async def __aexit__(self, *failure: Any) -> None:
        await self.close_async()


class Server(_End):
    """Listens, and has the connections of its clients. See listen."""

    def __init__(self, core: Core) -> None:
        self._core = core

    def __enter__(self) -> Server:
        return self

    def __exit__(self, *failure: Any) -> None:
        self.close()

    async def __aenter__(self) -> Server:
        return self

    async def __aexit__(self, *failure: Any) -> None:
        await self.close_async()

    @property
    def address(self) -> str:
        """With the real port."""
        return text_of(quick.server_address(self._core.opened()))

    @property
    def port(self) -> int:
        """Of a TCP server, 0 otherwise."""
        port: int = quick.server_port(self._core.opened())
        return port

    @property
    def clients(self) -> list[Peer]:
        """Those that are connected."""
        handle, room = self._core.opened(), 16
        while True:
            ids = (ctypes.c_uint64 * room)()
            count = quick.server_clients(handle, ids, room)
            if count <= room:
                return [Peer(self._core, id) for id in ids[:count]]
            room = 2 * count

    def disconnect(self, client: Peer) -> bool:
        """Ends the connection of a client at once. False: there is no such client."""
        gone: bool = interruptible(waiting.server_disconnect, self._core.opened(), client.id)
        return gone

    def post(self, method: str, *args: Any, timeout: float = 5.0, **keys: Any) -> None:
        """Posts to all clients; see Peer.post. Busy: some of them did not get it."""
        Peer(self._core, c.ALL)._post(method, arguments_block(args, keys), timeout)

    def call_all(self, method: str, *args: Any, timeout: float | None = None, result: Any = Any,
                 **keys: Any) -> dict[Peer, Any]:
        """Calls all clients, and waits for all of them: what each has returned, or its Error."""
        block = arguments_block(args, keys)
        started: list[tuple[Peer, int]] = []
        outcomes: dict[Peer, Any] = {}
        try:
            for client in self.clients:
                started.append((client, client._start(None, None, method, block, timeout)))
            for client, number in started:
                outcomes[client] = client._wait_or_error(number)
        except BaseException:
            for client, number in started[len(outcomes):]:
                client._drop(number)
            raise
        return {client: one if isinstance(one, Error) else _result_or_error(one, result)
                for client, one in outcomes.items()}

    def wait(self, timeout: float | None = None) -> bool:
        """Waits until the server is closed, by whomever. Ctrl-C ends the wait."""
        status = interruptible(waiting.server_wait_closed, self._core.opened(),
                               milliseconds(timeout, c.FOREVER))
        return bool(status == Status.OK)


def _result_or_error(block: Block, wanted: Any) -> Any:
    try:
        return result_of(block, wanted)
    except Error as error:
        return error.with_traceback(None)


# ---- Hooks -----------------------------------------------------------------------------------------


def _hooks(core: Core, **functions: Any) -> int:
    """The context of an end: its functions of the user."""
    return core.keep((weakref.ref(core), functions))


_NOBODY: Any = (lambda: None, {})


def _run(key: int, name: str, argument: Callable[[Core], Any]) -> None:
    own, functions = find(key) or _NOBODY
    core, function = own(), functions.get(name)
    if core is not None and function is not None:
        core.hook(function, argument(core))


def _client(info: int) -> Callable[[Core], Peer]:
    return lambda core: Peer(core, c.PeerInfo.from_address(info).client)


@c.callback(c.Hook)
def _on_client_gone(key: int, client: int, why: int) -> None:
    _run(key, "on_gone", lambda core: error_of(why))


@c.callback(c.Hook)
def _on_connect(key: int, server: int, peer: int) -> None:
    _run(key, "on_connect", _client(peer))


@c.callback(c.Hook)
def _on_server_gone(key: int, server: int, peer: int) -> None:
    _run(key, "on_gone", _client(peer))


@c.callback(c.Hook)
def _on_stopped(key: int, server: int, why: int) -> None:
    _run(key, "on_stopped", lambda core: error_of(why))


# ---- Making them --------------------------------------------------------------------------------


def connect(address: str, methods: Methods | None = None, *, patience: float = 0,
            timeout: float | None = None, usual_timeout: float | None = None, workers: int = 4,
            on_gone: Callable[[Error], Any] | None = None,
            loop: asyncio.AbstractEventLoop | None = None, **bounds: int) -> Client:
    """Connects to a server: "pipe:5000", "pipe:editor", "tcp4:127.0.0.1:5000", "tcp6:[::1]:5000".

    `methods`: what the server may call. `patience`: how long to try again while nobody listens.
    `timeout`: of one attempt. `usual_timeout`: of calls that name none. `workers`: threads for
    handlers; one that waits in a call is replaced meanwhile. `on_gone`: the server has ended the
    connection. Handlers and `on_gone` may be coroutine functions, which then run on `loop`: usually
    the one in which the client is made. `bounds`: most_queued_bytes and others of
    tolk_client_options."""
    core = Core("client", methods or Methods(), loop)
    options = c.ClientOptions(
        patience_ms=milliseconds(patience) if patience else 0, connect_limit_ms=milliseconds(timeout),
        limit_ms=milliseconds(usual_timeout), on_gone=_on_client_gone,
        context=_hooks(core, on_gone=on_gone), workers=workers, **bounds)
    interruptible(core.open, address, options)
    return Client(core)


def listen(address: str, methods: Methods | None = None, *, usual_timeout: float | None = None,
           workers: int = 4, clients_may_stop: bool = False,
           on_connect: Callable[[Peer], Any] | None = None,
           on_gone: Callable[[Peer], Any] | None = None,
           on_stopped: Callable[[Error], Any] | None = None,
           loop: asyncio.AbstractEventLoop | None = None, **bounds: int) -> Server:
    """Listens at an address. Port 0 lets the system choose; see Server.address.

    As connect. `on_connect` and `on_gone`: a client has connected, and gone. `on_stopped`: a client
    has stopped the server, which `clients_may_stop` allows."""
    core = Core("server", methods or Methods(), loop)
    options = c.ServerOptions(
        limit_ms=milliseconds(usual_timeout), clients_may_stop=clients_may_stop,
        on_connect=_on_connect, on_gone=_on_server_gone, on_stopped=_on_stopped,
        context=_hooks(core, on_connect=on_connect, on_gone=on_gone, on_stopped=on_stopped),
        workers=workers, **bounds)
    core.open(address, options)
    return Server(core)


async def connect_async(address: str, methods: Methods | None = None, **options: Any) -> Client:
    """connect in a coroutine."""
    loop = asyncio.get_running_loop()
    return await loop.run_in_executor(
        None, functools.partial(connect, address, methods, loop=loop, **options))
