"""Large data: where they come from and where they go."""

from __future__ import annotations

import ctypes
import os
from collections.abc import Callable
from typing import Any, Protocol, Union

from . import _library as c
from ._contexts import find, keep, log, release
from ._errors import raise_and_free
from ._library import quick, waiting
from ._values import buffer_of


class Readable(Protocol):
    """A file that is open for reading."""

    def read(self, size: int) -> bytes: ...


class Writable(Protocol):
    """A file that is open for writing."""

    def write(self, data: bytes) -> Any: ...


Progress = Callable[[int, int], Any]
Data = Union[str, "os.PathLike[str]", bytes, bytearray, memoryview, Readable]
Place = Union[str, "os.PathLike[str]", Writable]


class Source:
    """Data as the result of a handler: a path, bytes, or an open file.

    `size`: of an open file that cannot tell. `result`: the values that go with the data."""

    def __init__(self, data: Data, *, size: int | None = None, result: Any = None) -> None:
        self.data = data
        self.size = size
        self.result = result


def source_of(data: Any, size: int | None = None) -> Any:
    """A tolk_source, for a function that takes it."""
    if isinstance(data, Source):
        return source_of(data.data, data.size)
    if isinstance(data, (str, os.PathLike)):
        return _of_file(waiting.source_file, data)
    if hasattr(data, "read"):
        return quick.source_callback(_rest(data) if size is None else size, _on_read, keep(data),
                                     release)
    buffer = buffer_of(data if isinstance(data, bytes) else memoryview(data))
    return quick.source_memory(buffer.address, buffer.size, keep(buffer), release)


def sink_of(place: Any) -> Any:
    """A tolk_sink, for a function that takes it. None: into memory."""
    if place is None:
        return None
    if isinstance(place, (str, os.PathLike)):
        return _of_file(waiting.sink_file, place)
    return quick.sink_callback(_on_write, keep(place), release)


def _of_file(function: Any, path: Any) -> Any:
    pointer, error = ctypes.c_void_p(), ctypes.c_void_p()
    function(os.fsencode(path), ctypes.byref(pointer), ctypes.byref(error))
    raise_and_free(error.value or 0)
    return pointer.value


def _rest(file: Any) -> int:
    here: int = file.tell()
    end: int = file.seek(0, os.SEEK_END)
    file.seek(here)
    return end - here


@c.callback(c.Read)
def _on_read(key: int, to: int, capacity: int) -> int:
    try:
        data = find(key).read(capacity)
        ctypes.memmove(to, data, len(data))
        return len(data)
    except Exception:
        log.exception("a file of a transfer cannot be read")
        return 0


@c.callback(c.Write)
def _on_write(key: int, data: int, size: int) -> bool:
    try:
        find(key).write(ctypes.string_at(data, size))
        return True
    except Exception:
        log.exception("a file of a transfer cannot be written")
        return False


@c.callback(c.Progress)
def on_progress(key: int, done: int, total: int) -> bool:
    """The progress of a call: that what is under the key has."""
    try:
        return find(key).progress(done, total) is not False
    except Exception:
        log.exception("a progress callback failed, so the transfer is cancelled")
        return False
