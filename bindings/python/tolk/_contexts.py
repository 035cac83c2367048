"""What callbacks of the library belong to: a table of keys, so that no address of a Python object
leaves the interpreter, and a late callback finds nothing instead of something else.

Operations on a dict are atomic: there is no lock that a garbage collection could run into.
"""

from __future__ import annotations

import itertools
import logging
from typing import Any

from ._library import Release, callback

log = logging.getLogger("tolk")
log.addHandler(logging.NullHandler())

_held: dict[int, Any] = {}
_next_key = itertools.count(1).__next__


def keep(thing: Any) -> int:
    """Keeps it until `take`, or until the library releases the context."""
    key = _next_key()
    _held[key] = thing
    return key


def find(key: int) -> Any:
    """None if it is gone."""
    return _held.get(key)


def take(key: int) -> Any:
    """None if somebody else has taken it."""
    return _held.pop(key, None)


@callback(Release)
def release(key: int) -> None:
    """The `free_context` of everything that was kept."""
    thing = take(key)
    if hasattr(thing, "released"):
        thing.released()
