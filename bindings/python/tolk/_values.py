"""Python values in blocks.

| Python | block |
|---|---|
| None, bool, int, float, str | the same; an int of up to 64 bits |
| bytes, bytearray, memoryview | bytes; large read-only ones are held, not copied |
| list, tuple, set | list |
| dict with text keys | map |
| a dataclass | the map of its fields, without those that are None |
| an Enum | its value |
"""

from __future__ import annotations

import ctypes
import dataclasses
import enum
import functools
from array import array
from collections.abc import Callable, Mapping, Sequence, Set
from typing import Any, NamedTuple

from . import _library as c
from ._contexts import keep, release
from ._errors import Status, WrongType, error_of, text_of
from ._library import quick

#: From this size on, bytes are held and not copied, and lists of numbers are copied as a whole.
HELD_BYTES = 16384
MANY_NUMBERS = 16


class Values(NamedTuple):
    """Several values: positional ones, and keyed ones. Arguments, or a result."""

    args: tuple[Any, ...] = ()
    keys: dict[str, Any] = {}


class Block:
    """Owns a tolk_block."""

    def __init__(self, pointer: int | None = None) -> None:
        self.pointer: Any = quick.block_new() if pointer is None else pointer

    def taken(self) -> Any:
        """The pointer, for a function that takes the block over."""
        pointer, self.pointer = self.pointer, None
        return pointer

    def __del__(self, free: Any = quick.block_free) -> None:
        free(self.pointer)


# ---- Writing ------------------------------------------------------------------------------------


class _Buffer(ctypes.Structure):
    """Py_buffer: the memory of an object, which stays where it is until `released`."""

    _fields_ = [("address", ctypes.c_void_p), ("object", ctypes.c_void_p),
                ("size", ctypes.c_ssize_t), ("item_size", ctypes.c_ssize_t),
                ("read_only", ctypes.c_int), ("dimensions", ctypes.c_int),
                ("format", ctypes.c_void_p), ("shape", ctypes.c_void_p),
                ("strides", ctypes.c_void_p), ("offsets", ctypes.c_void_p),
                ("internal", ctypes.c_void_p)]

    def __init__(self, thing: Any) -> None:
        super().__init__()
        ctypes.pythonapi.PyObject_GetBuffer(ctypes.py_object(thing), ctypes.byref(self), 0)

    def released(self) -> None:
        ctypes.pythonapi.PyBuffer_Release(ctypes.byref(self))


def buffer_of(thing: Any) -> Any:
    """The memory of bytes or anything like them. Whoever gets it calls `released`."""
    return _Buffer(thing)


def _add_int(block: Any, value: int) -> None:
    if -(2**63) <= value < 2**63:
        quick.block_add_int(block, value)
    elif 0 <= value < 2**64:
        quick.block_add_uint(block, value)
    else:
        raise OverflowError(f"{value} does not fit into 64 bits")


def _add_text(block: Any, value: str) -> None:
    text = value.encode("utf-8", "surrogateescape")
    quick.block_add_text(block, text, len(text))


def _add_bytes(block: Any, value: Any) -> None:
    buffer = buffer_of(value)
    if buffer.read_only and buffer.size >= HELD_BYTES:
        quick.block_add_bytes_held(block, buffer.address, buffer.size, keep(buffer), release)
    else:
        quick.block_add_bytes(block, buffer.address, buffer.size)
        buffer.released()


def _add_short_bytes(block: Any, value: bytes) -> None:
    if len(value) < HELD_BYTES:
        quick.block_add_bytes(block, value, len(value))
    else:
        _add_bytes(block, value)


def _add_list(block: Any, value: Any) -> None:
    if len(value) >= MANY_NUMBERS and _add_numbers(block, value):
        return
    inner = Block()
    for one in value:
        add(inner.pointer, one)
    quick.block_add_list(block, inner.pointer)


def _add_numbers(block: Any, value: Any) -> bool:
    types = set(map(type, value))
    try:
        if types == {int}:
            numbers, adder = array("q", value), quick.block_add_ints
        elif types == {float}:
            numbers, adder = array("d", value), quick.block_add_doubles
        else:
            return False
    except OverflowError:
        return False
    adder(block, *numbers.buffer_info())
    return True


def _add_map(block: Any, value: Mapping[Any, Any]) -> None:
    inner = Block()
    add_keys(inner.pointer, value)
    quick.block_add_map(block, inner.pointer)


def _add_struct(block: Any, value: Any) -> None:
    _add_map(block, fields_of(value))


def add_keys(block: Any, keys: Mapping[Any, Any]) -> None:
    """Adds keyed values."""
    for key, value in keys.items():
        if not isinstance(key, str) or key.startswith(("s_c_", "tolk.")) or "\0" in key:
            raise TypeError(f"the key {key!r}: a key is a text that does not begin with s_c_ or tolk.")
        quick.block_add_key(block, key.encode("utf-8", "surrogateescape"))
        add(block, value)


_ADD: dict[type, Callable[[Any, Any], Any]] = {
    type(None): lambda block, value: quick.block_add_none(block),
    bool: lambda block, value: quick.block_add_bool(block, value),
    int: _add_int,
    float: lambda block, value: quick.block_add_double(block, value),
    str: _add_text,
    bytes: _add_short_bytes,
    list: _add_list,
    tuple: _add_list,
    dict: _add_map,
}
_ADD_SUBCLASS: list[tuple[Any, Callable[[Any, Any], Any]]] = [
    (enum.Enum, lambda block, value: add(block, value.value)),
    *((base, adder) for base, adder in _ADD.items()),
    (Mapping, _add_map),
    (Set, _add_list),
    ((bytearray, memoryview), _add_bytes),
]


def add(block: Any, value: Any) -> None:
    """Adds one value. TypeError if values of its type do not travel."""
    kind: Any = type(value)
    adder = _ADD.get(kind) or _adder_for(kind)
    adder(block, value)


@functools.lru_cache(maxsize=None)
def _adder_for(kind: Any) -> Callable[[Any, Any], Any]:
    if dataclasses.is_dataclass(kind):
        return _add_struct
    for base, adder in _ADD_SUBCLASS:
        if issubclass(kind, base):
            return adder
    raise TypeError(f"tolk: a value of type {kind.__name__} does not travel")


@functools.lru_cache(maxsize=None)
def _field_names(kind: Any) -> tuple[str, ...]:
    return tuple(field.name for field in dataclasses.fields(kind))


def fields_of(value: Any) -> dict[str, Any]:
    """The fields of a dataclass that are there."""
    kind: Any = type(value)
    fields = ((name, getattr(value, name)) for name in _field_names(kind))
    return {name: field for name, field in fields if field is not None}


def is_struct(value: Any) -> bool:
    return dataclasses.is_dataclass(value) and not isinstance(value, type)


def arguments_block(args: tuple[Any, ...], keys: Mapping[str, Any]) -> Block:
    """The values of `Values` among the arguments stand there themselves."""
    block = Block()
    pointer = block.pointer
    for one in args:
        if type(one) is Values:
            for inner in one.args:
                add(pointer, inner)
            keys = {**one.keys, **keys}
        else:
            add(pointer, one)
    if keys:
        add_keys(pointer, keys)
    return block


def result_block(value: Any) -> Block:
    """What a handler returns. A tuple is several values; a dataclass is keyed ones, which every
    kind of peer reads by name."""
    if value is None:
        return Block()
    if is_struct(value):
        return arguments_block((), fields_of(value))
    if type(value) is tuple:
        return arguments_block(value, {})
    return arguments_block((value,), {})


def details_block(value: Any) -> Block:
    """What belongs to a failure. The types of what is nested do not travel, so a dict is keyed values."""
    return arguments_block((), value) if isinstance(value, Mapping) else result_block(value)


# ---- Reading ------------------------------------------------------------------------------------


def _sized(function: Any, block: Any, index: int) -> tuple[Any, int]:
    size = ctypes.c_size_t()
    return function(block, index, ctypes.byref(size)), size.value


def _text(block: Any, index: int) -> str:
    text, size = _sized(quick.block_text, block, index)
    return ctypes.string_at(text, size).decode("utf-8", "surrogateescape")


def _bytes(block: Any, index: int) -> bytes:
    return ctypes.string_at(*_sized(quick.block_bytes, block, index))


def _list(block: Any, index: int) -> list[Any]:
    inner = quick.block_inner(block, index)
    count = quick.block_count(inner)
    if count >= MANY_NUMBERS:
        readers = {c.INT: ("q", quick.block_ints), c.DOUBLE: ("d", quick.block_doubles)}
        code, reader = readers.get(quick.block_kind(inner, 0), ("", None))
        if reader and all(quick.block_kind(inner, i) == quick.block_kind(inner, 0)
                          for i in (1, count // 2, count - 1)):
            numbers = array(code, bytes(8 * count))
            if reader(block, index, numbers.buffer_info()[0], count) == count:
                return numbers.tolist()
    return [read(inner, i) for i in range(count)]


def _map(block: Any, index: int) -> dict[str, Any]:
    return keys_in(quick.block_inner(block, index))


# By kind. A missing value is None, as one that says so is.
_READ: list[Callable[[Any, int], Any]] = [
    lambda block, index: None, lambda block, index: None, quick.block_bool, quick.block_int,
    quick.block_uint, quick.block_double, _text, _bytes, _list, _map]


def read(block: Any, index: int) -> Any:
    """The value of an index."""
    return _READ[quick.block_kind(block, index)](block, index)


def contents(block: Any, views: Sequence[int] = ()) -> tuple[list[Any], dict[str, Any]]:
    """The positional values, and the keyed ones. Bytes and texts at the positions `views` are not
    copied."""
    count, total = quick.block_count(block), quick.block_total(block)
    if views:
        owner = Block(quick.block_copy(block))
        values = [view(owner, i) if i in views and has_bytes(block, i) else read(block, i)
                  for i in range(count)]
    else:
        values = [_READ[quick.block_kind(block, i)](block, i) for i in range(count)]
    return values, _keys_between(block, count, total) if total > count else {}


def keys_in(block: Any) -> dict[str, Any]:
    """The keyed values, without those of the library."""
    return _keys_between(block, quick.block_count(block), quick.block_total(block))


def _keys_between(block: Any, first: int, end: int) -> dict[str, Any]:
    pairs = ((text_of(quick.block_key(block, i)), i) for i in range(first, end))
    return {key: read(block, i) for key, i in pairs if not key.startswith(("s_c_", "tolk."))}


def has_bytes(block: Any, index: int) -> bool:
    """Bytes or a text, since older peers do not tell them apart."""
    return quick.block_kind(block, index) in (c.BYTES, c.TEXT)


def view(owner: Block, index: int) -> memoryview:
    """The bytes of a value that has_bytes, where they are. They keep the block."""
    address, size = _sized(quick.block_bytes, owner.pointer, index)
    if not size:
        return memoryview(b"")
    inside: Any = (ctypes.c_char * size).from_address(address)
    inside.owner = owner
    return memoryview(inside).cast("B").toreadonly()


def parse(data: bytes) -> tuple[list[Any], dict[str, Any]] | None:
    """The values of an encoded block: peers that know no lists and maps send them so."""
    pointer = ctypes.c_void_p()
    if quick.block_parse(data, len(data), ctypes.byref(pointer), None, None) != Status.OK:
        return None
    block = Block(pointer.value)
    return contents(block.pointer)


def anything(block: Any) -> Any:
    """A result of no particular type: None, the one value, a tuple of several, a dict of keyed
    ones, or Values if there are both."""
    args, keys = contents(block)
    if keys:
        return Values(tuple(args), keys) if args else keys
    return args[0] if len(args) == 1 else tuple(args) if args else None
