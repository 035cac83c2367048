"""Annotations: what a handler takes, what a caller expects, and what they are called in texts."""

from __future__ import annotations

import collections.abc
import dataclasses
import enum
import functools
import inspect
import typing
from collections.abc import Callable
from typing import Any, NamedTuple, Union

from ._values import Values, parse


class Misfit(Exception):
    """A value of another type. The text follows the name of the value: ": wanted int, got bool"."""


class Fit(NamedTuple):
    """A type."""

    name: str
    #: Returns the value as that type, or raises Misfit.
    of: Callable[[Any], Any]


_NAMES: dict[Any, str] = {
    type(None): "nothing", bool: "bool", int: "int", float: "double", str: "string",
    bytes: "bytes", bytearray: "bytes", memoryview: "bytes", list: "list", tuple: "list",
    dict: "map", Values: "..."}


def _misfit(wanted: str, value: Any) -> Misfit:
    return Misfit(f": wanted {wanted}, got {_NAMES.get(type(value), type(value).__name__)}")


def _exact(kind: type) -> Fit:
    name = _NAMES[kind]

    def of(value: Any) -> Any:
        if type(value) is kind:
            return value
        raise _misfit(name, value)

    return Fit(name, of)


def _float(value: Any) -> float:
    if type(value) in (float, int):
        return float(value)
    raise _misfit("double", value)


# Older peers do not tell texts and bytes apart.
def _text(value: Any) -> str:
    if type(value) is str:
        return value
    if isinstance(value, (bytes, memoryview)):
        return bytes(value).decode("utf-8", "surrogateescape")
    raise _misfit("string", value)


def _bytes(kind: Any) -> Callable[[Any], Any]:
    def of(value: Any) -> Any:
        if type(value) is str:
            value = value.encode("utf-8", "surrogateescape")
        if isinstance(value, (bytes, memoryview)):
            return kind(value)
        raise _misfit("bytes", value)

    return of


def _list(kind: Any, element: Fit) -> Fit:
    name = f"[{element.name}]"

    def of(value: Any) -> Any:
        if type(value) is bytes:
            inner = parse(value)
            value = inner[0] if inner else value
        if type(value) is not list:
            raise _misfit(name, value)
        return kind(_each(", element ", element, enumerate(value, 1)))

    return Fit(name, of)


def _each(where: str, element: Fit, values: Any) -> list[Any]:
    result = []
    for number, value in values:
        try:
            result.append(element.of(value))
        except Misfit as misfit:
            raise Misfit(f"{where}{number}{misfit}") from None
    return result


def _tuple(elements: list[Fit]) -> Fit:
    name = f"[{', '.join(element.name for element in elements)}]"

    def of(value: Any) -> Any:
        values = _list(list, Fit("any", lambda one: one)).of(value)
        if len(values) != len(elements):
            raise Misfit(f": wanted {name}, got {len(values)} elements")
        return tuple(_each(", element ", element, [(i, one)])[0]
                     for i, (element, one) in enumerate(zip(elements, values), 1))

    return Fit(name, of)


def _keys(value: Any, name: str) -> Any:
    if type(value) is bytes:
        inner = parse(value)
        value = inner[1] if inner else value
    if type(value) is not dict:
        raise _misfit(name, value)
    return value


def _map(element: Fit) -> Fit:
    name = f"{{string: {element.name}}}"

    def of(value: Any) -> Any:
        keys = _keys(value, name)
        return dict(zip(keys, _each(", key ", element, keys.items())))

    return Fit(name, of)


def _struct(kind: Any) -> Fit:
    hints = typing.get_type_hints(kind)
    fields = [(field, fit_for(hints[field.name])) for field in dataclasses.fields(kind)
              if field.init]
    name = "{" + ", ".join(f"{field.name}: {fit.name}" for field, fit in fields) + "}"

    def field_of(keys: dict[str, Any], field: Any, fit: Fit) -> Any:
        try:
            return fit.of(keys.get(field.name))
        except Misfit as misfit:
            raise Misfit(f', field "{field.name}"{misfit}') from None

    def of(value: Any) -> Any:
        keys = _keys(value, name)
        return kind(**{field.name: field_of(keys, field, fit) for field, fit in fields
                       if field.name in keys or _is_needed(field)})

    return Fit(name, of)


def _is_needed(field: Any) -> bool:
    return field.default is dataclasses.MISSING and field.default_factory is dataclasses.MISSING


def _enum(kind: Any) -> Fit:
    values = {one.value for one in kind}
    of_first: Any = type(next(iter(values)))
    name = fit_for(of_first).name

    def of(value: Any) -> Any:
        if value not in values:
            raise Misfit(f": {value!r} is not a {kind.__name__}")
        return kind(value)

    return Fit(name, of)


def _union(fits: list[Fit]) -> Fit:
    name = " | ".join(fit.name for fit in fits if fit.name != "nothing")
    if len(fits) == 2 and any(fit.name == "nothing" for fit in fits):
        name += "?"

    def of(value: Any) -> Any:
        for fit in fits:
            try:
                return fit.of(value)
            except Misfit:
                pass
        raise _misfit(name, value)

    return Fit(name, of)


_PLAIN: dict[Any, Fit] = {
    None: _exact(type(None)), type(None): _exact(type(None)), bool: _exact(bool),
    int: _exact(int), float: Fit("double", _float), str: Fit("string", _text),
    bytes: Fit("bytes", _bytes(bytes)), bytearray: Fit("bytes", _bytes(bytearray)),
    memoryview: Fit("bytes", _bytes(memoryview)),
}
_ANYTHING = Fit("any", lambda value: value)
_LISTS = {list: list, tuple: tuple, set: set, frozenset: frozenset,
          collections.abc.Sequence: list, collections.abc.Iterable: list}
_MAPS = (dict, collections.abc.Mapping, collections.abc.MutableMapping)


@functools.lru_cache(maxsize=None)
def fit_for(wanted: Any) -> Fit:
    """TypeError for a type that does not travel."""
    if wanted in (Any, object, inspect.Parameter.empty):
        return _ANYTHING
    if wanted in _PLAIN:
        return _PLAIN[wanted]
    if isinstance(wanted, type) and dataclasses.is_dataclass(wanted):
        return _struct(wanted)
    if isinstance(wanted, type) and issubclass(wanted, enum.Enum):
        return _enum(wanted)
    return _generic(wanted, typing.get_origin(wanted) or wanted, list(typing.get_args(wanted)))


def _generic(wanted: Any, origin: Any, inner: list[Any]) -> Fit:
    if origin is tuple and inner and inner[-1] is not Ellipsis:
        return _tuple([fit_for(one) for one in inner])
    if origin in _LISTS:
        return _list(_LISTS[origin], fit_for(inner[0] if inner else Any))
    if origin in _MAPS:
        return _map(fit_for(inner[1] if inner else Any))
    # int | None has an origin of its own.
    if origin is Union or getattr(origin, "__name__", "") == "UnionType":
        return _union([fit_for(one) for one in inner])
    if origin is typing.Annotated:
        return fit_for(inner[0])
    raise TypeError(f"tolk: a value of type {wanted} does not travel")
