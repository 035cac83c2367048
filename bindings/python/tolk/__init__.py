"""Calls between processes by method name.

    client = tolk.connect("pipe:5000")
    print(client.call("add", 2, 3, timeout=0.5))
"""

from ._ends import Client, Server, connect, connect_async, listen
from ._errors import (
    BadAddress, Busy, Cancelled, CannotListen, Closed, Error, Failed, FileError, Gone, Malformed,
    Misuse, NoMemory, NoMethod, NotConnected, Refused, Status, TimedOut, TooLarge, Unanswered,
    WrongArguments, WrongType)
from ._library import quick as _quick
from ._methods import Methods
from ._peer import Caller, MethodInfo, Peer
from ._transfers import Source
from ._values import Values

__version__: str = _quick.version().decode()

__all__ = [
    "BadAddress", "Busy", "Caller", "Cancelled", "CannotListen", "Client", "Closed", "Error",
    "Failed", "FileError", "Gone", "Malformed", "MethodInfo", "Methods", "Misuse", "NoMemory",
    "NoMethod", "NotConnected", "Peer", "Refused", "Server", "Source", "Status", "TimedOut",
    "TooLarge", "Unanswered", "Values", "WrongArguments", "WrongType", "connect", "connect_async",
    "listen"]
