"""Failures: one class for each status."""

from __future__ import annotations

import enum
from typing import Any, Optional

from ._library import quick


class Status(enum.IntEnum):
    """What became of an operation."""

    OK = 0
    TIMED_OUT = 1
    CANCELLED = 2
    GONE = 3
    CLOSED = 4
    NOT_CONNECTED = 5
    REFUSED = 6
    CANNOT_LISTEN = 7
    NO_METHOD = 8
    FAILED = 9
    WRONG_ARGUMENTS = 10
    UNANSWERED = 11
    BUSY = 12
    TOO_LARGE = 13
    MALFORMED = 14
    BAD_ADDRESS = 15
    FILE = 16
    MISUSE = 17
    NO_MEMORY = 18


class Error(Exception):
    """A failure. As a text it is one line: "add at pipe:5000: timed out after 500 ms"."""

    status: Status = Status.MISUSE

    def __init__(self, text: str, *, code: int = 0, details: Any = None) -> None:
        super().__init__(text)
        self.text = text
        #: What happened, without method and address.
        self.reason = text
        #: The method that was called; empty when none was.
        self.method = ""
        #: The address that was connected to or listened on.
        self.address = ""
        #: Who was at the other end: "client 3".
        self.peer = ""
        #: What to try.
        self.hint = ""
        #: The handler's number, or the system's error number.
        self.code = code
        #: What the handler added to its failure.
        self.details = details

    def __str__(self) -> str:
        return self.text


class TimedOut(Error, TimeoutError):
    """No answer within the limit; the method may still run."""

    status = Status.TIMED_OUT


class Cancelled(Error):
    """A progress callback, or the peer, has cancelled it."""

    status = Status.CANCELLED


class Gone(Error, ConnectionError):
    """The peer has ended the connection, or is closing."""

    status = Status.GONE


class Closed(Error, ConnectionError):
    """This end is closed."""

    status = Status.CLOSED


class NotConnected(Error, ConnectionError):
    """Nobody listens there, or there is no such client."""

    status = Status.NOT_CONNECTED


class Refused(Error, ConnectionError):
    """The peer has another version, or is another user."""

    status = Status.REFUSED


class CannotListen(Error, OSError):
    """The address is taken or cannot be used."""

    status = Status.CANNOT_LISTEN


class NoMethod(Error):
    """The peer has no method of that name."""

    status = Status.NO_METHOD


class Failed(Error):
    """The handler says so. A handler raises it to choose text, code and details."""

    status = Status.FAILED


class WrongArguments(Error):
    """The handler takes others."""

    status = Status.WRONG_ARGUMENTS


class Unanswered(Error):
    """The handler dropped the request."""

    status = Status.UNANSWERED


class Busy(Error):
    """A bound is reached."""

    status = Status.BUSY


class TooLarge(Error):
    """More bytes than a call, or the peer, takes."""

    status = Status.TOO_LARGE


class Malformed(Error, ValueError):
    """Bytes that are not a block."""

    status = Status.MALFORMED


class BadAddress(Error, ValueError):
    """The text is not an address."""

    status = Status.BAD_ADDRESS


class FileError(Error, OSError):
    """A file of a transfer cannot be read or written."""

    status = Status.FILE


class Misuse(Error):
    """An error in the calling program."""

    status = Status.MISUSE


class NoMemory(Error, MemoryError):
    """There was not enough memory."""

    status = Status.NO_MEMORY


class WrongType(Misuse, TypeError):
    """The result is not of the type that was asked for."""


_CLASSES = {one.status: one for one in (
    TimedOut, Cancelled, Gone, Closed, NotConnected, Refused, CannotListen, NoMethod, Failed,
    WrongArguments, Unanswered, Busy, TooLarge, Malformed, BadAddress, FileError, Misuse, NoMemory)}


def text_of(raw: Optional[bytes]) -> str:
    """A text of the library. Bytes that are not UTF-8 survive a round trip."""
    return (raw or b"").decode("utf-8", "surrogateescape")


def error_of(pointer: int) -> Error:
    """Makes the exception of a tolk_error, which stays the caller's."""
    from ._values import anything

    kind = _CLASSES.get(quick.error_status(pointer), Misuse)
    details = quick.error_details(pointer)
    error = kind(text_of(quick.error_text(pointer)), code=quick.error_code(pointer),
                 details=details and anything(details))
    error.reason = text_of(quick.error_reason(pointer))
    error.method = text_of(quick.error_method(pointer))
    error.address = text_of(quick.error_address(pointer))
    error.peer = text_of(quick.error_peer(pointer))
    error.hint = text_of(quick.error_hint(pointer))
    return error


def raise_and_free(pointer: int) -> None:
    """Raises what a function gave as its last parameter; returns if that is null."""
    if pointer:
        try:
            raise error_of(pointer)
        finally:
            quick.error_free(pointer)
