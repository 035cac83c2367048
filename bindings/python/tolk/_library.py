"""The functions, structs and callback types of <tolk/c.h>.

`quick` keeps the interpreter's lock during a call: its functions never wait. `waiting` gives the
lock away. No lock of the library is held while Python code runs, so neither can lock the other out.
"""

from __future__ import annotations

import ctypes
import os
import sys
from collections.abc import Callable
from ctypes import POINTER, c_bool, c_char_p, c_double, c_int, c_int32, c_int64, c_size_t
from ctypes import c_uint, c_uint64, c_void_p
from typing import Any

FOREVER = -1
ALL = 2**64 - 1
NOWHERE = c_size_t(-1).value
INLINE = 1
ORDERED = 2

# Kinds of values, in the order of tolk_kind.
MISSING, NONE, BOOL, INT, UINT, DOUBLE, TEXT, BYTES, LIST, MAP = range(10)

Function = Callable[..., Any]


def callback(kind: Any) -> Callable[[Function], Any]:
    """Makes a function one that the library can call. It must not raise."""
    return kind  # type: ignore[no-any-return]


# Callbacks. A context is a key of a table, never the address of an object.
Release = ctypes.CFUNCTYPE(None, c_void_p)
Read = ctypes.CFUNCTYPE(c_size_t, c_void_p, c_void_p, c_size_t)
Write = ctypes.CFUNCTYPE(c_bool, c_void_p, c_void_p, c_size_t)
Progress = ctypes.CFUNCTYPE(c_bool, c_void_p, c_uint64, c_uint64)
Done = ctypes.CFUNCTYPE(None, c_void_p, c_void_p)
Handler = ctypes.CFUNCTYPE(None, c_void_p, c_void_p)
Accept = ctypes.CFUNCTYPE(c_int, c_void_p, c_void_p, c_uint64, POINTER(c_void_p))
Execute = ctypes.CFUNCTYPE(None, c_void_p, c_void_p)
Log = ctypes.CFUNCTYPE(None, c_void_p, c_int, c_char_p)
Hook = ctypes.CFUNCTYPE(None, c_void_p, c_void_p, c_void_p)


class Struct(ctypes.Structure):
    """Its first member is its own size."""

    def __init__(self, **members: Any) -> None:
        super().__init__(size=ctypes.sizeof(self), **members)


class Outcome(Struct):
    _fields_ = [("size", c_size_t), ("status", c_int), ("result", c_void_p), ("error", c_void_p),
                ("call", c_uint64), ("client", c_uint64), ("left", c_size_t)]


class Call(ctypes.Structure):
    _fields_ = [("size", c_size_t), ("method", c_char_p), ("arguments", c_void_p),
                ("client", c_uint64), ("limit_ms", c_int32), ("flags", c_uint), ("done", Done),
                ("context", c_void_p), ("source", c_void_p), ("sink", c_void_p),
                ("progress", Progress), ("piece_limit_ms", c_int32)]


class PeerInfo(Struct):
    _fields_ = [("size", c_size_t), ("client", c_uint64), ("address", c_char_p),
                ("user", c_char_p), ("process", c_int64)]


class MethodOptions(Struct):
    _fields_ = [("size", c_size_t), ("flags", c_uint), ("signature", c_char_p),
                ("about", c_char_p), ("accept", Accept), ("progress", Progress),
                ("free_context", Release)]


class ClientOptions(Struct):
    _fields_ = [("size", c_size_t), ("methods", c_void_p), ("patience_ms", c_int32),
                ("connect_limit_ms", c_int32), ("limit_ms", c_int32), ("workers", c_uint),
                ("execute", Execute), ("log", Log), ("on_gone", Hook), ("context", c_void_p),
                ("free_context", Release), ("most_queued_bytes", c_size_t),
                ("most_frame_bytes", c_size_t), ("most_data_bytes", c_size_t),
                ("most_requests", c_uint)]


class ServerOptions(Struct):
    _fields_ = [("size", c_size_t), ("methods", c_void_p), ("limit_ms", c_int32),
                ("workers", c_uint), ("execute", Execute), ("log", Log), ("on_connect", Hook),
                ("on_gone", Hook), ("on_stopped", Hook), ("context", c_void_p),
                ("free_context", Release), ("clients_may_stop", c_bool),
                ("most_client_bytes", c_size_t), ("most_client_requests", c_uint),
                ("most_queued_bytes", c_size_t), ("most_frame_bytes", c_size_t),
                ("most_data_bytes", c_size_t), ("most_clients", c_uint),
                ("hello_limit_ms", c_int32)]


_TYPES: dict[str, Any] = {
    "void": None, "ptr": c_void_p, "text": c_char_p, "bool": c_bool, "int": c_int,
    "i32": c_int32, "i64": c_int64, "u64": c_uint64, "size": c_size_t, "double": c_double,
    "release": Release, "read": Read, "write": Write, "progress": Progress, "handler": Handler,
}

# A line for each function: its name without "tolk_", what it returns, what it takes.
_QUICK = """
    version text
    status_name text int
    error_status int ptr
    error_text text ptr
    error_reason text ptr
    error_method text ptr
    error_address text ptr
    error_peer text ptr
    error_wanted text ptr
    error_found text ptr
    error_hint text ptr
    error_code i32 ptr
    error_details ptr ptr
    error_free void ptr
    block_new ptr
    block_copy ptr ptr
    block_free void ptr
    block_add_key void ptr text
    block_add_none void ptr
    block_add_bool void ptr bool
    block_add_int void ptr i64
    block_add_uint void ptr u64
    block_add_double void ptr double
    block_add_text void ptr text size
    block_add_bytes void ptr ptr size
    block_add_bytes_held void ptr ptr size ptr release
    block_add_list void ptr ptr
    block_add_map void ptr ptr
    block_add_ints void ptr ptr size
    block_add_doubles void ptr ptr size
    block_count size ptr
    block_total size ptr
    block_find size ptr text
    block_key text ptr size
    block_kind int ptr size
    block_bool bool ptr size
    block_int i64 ptr size
    block_uint u64 ptr size
    block_double double ptr size
    block_text ptr ptr size ptr
    block_bytes ptr ptr size ptr
    block_inner ptr ptr size
    block_ints size ptr size ptr size
    block_doubles size ptr size ptr size
    block_parse int ptr size ptr ptr ptr
    source_memory ptr ptr size ptr release
    source_callback ptr u64 read ptr release
    source_free void ptr
    sink_callback ptr write ptr release
    sink_free void ptr
    client_start u64 ptr ptr
    client_cancel bool ptr u64
    client_post int ptr text ptr i32 ptr
    methods_new ptr
    methods_add int ptr text handler ptr ptr ptr
    methods_remove bool ptr text
    methods_free void ptr
    request_arguments ptr ptr
    request_method text ptr
    request_peer ptr ptr
    request_limit_left i32 ptr
    request_state int ptr
    request_answer void ptr ptr
    request_answer_data void ptr ptr ptr
    request_fail void ptr int i32 text ptr
    request_free void ptr
    server_address text ptr
    server_port int ptr
    server_clients size ptr ptr size
    server_start u64 ptr ptr
    server_cancel bool ptr u64
    server_post int ptr u64 text ptr i32 ptr
"""
_WAITING = """
    source_file int text ptr ptr
    sink_file int text ptr ptr
    client_connect int text ptr ptr ptr
    client_post int ptr text ptr i32 ptr
    client_wait_for int ptr u64 i32 ptr ptr
    client_close int ptr i32
    client_free void ptr
    server_listen int text ptr ptr ptr
    server_disconnect bool ptr u64
    server_post int ptr u64 text ptr i32 ptr
    server_wait_for int ptr u64 i32 ptr ptr
    server_close int ptr i32
    server_wait_closed int ptr i32
    server_free void ptr
"""

_NAMES = {"win32": "tolk.dll", "darwin": "libtolk.1.dylib"}


def _path() -> str:
    """The library of the wheel, or that of the system."""
    name = _NAMES.get(sys.platform, "libtolk.so.1")
    beside = os.path.join(os.path.dirname(os.path.abspath(__file__)), "lib", name)
    return beside if os.path.exists(beside) else name


def _declared(library: Any, functions: str) -> Any:
    for line in functions.split("\n")[1:-1]:
        name, result, *arguments = line.split()
        function = getattr(library, "tolk_" + name)
        function.restype = _TYPES[result]
        function.argtypes = [_TYPES[one] for one in arguments]
        setattr(library, name, function)
    return library


quick: Any = _declared(ctypes.PyDLL(_path()), _QUICK)
waiting: Any = _declared(ctypes.CDLL(_path()), _WAITING)
