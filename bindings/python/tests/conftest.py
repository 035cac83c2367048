"""What the tests share: addresses that nobody has, and other processes."""

from __future__ import annotations

import contextlib
import itertools
import os
import pathlib
import signal
import socket
import subprocess
import sys
import threading
import time

import pytest

import tolk

BUILD = pathlib.Path(os.environ["TOLK_BUILD"])
INTEROP = BUILD / "tests/interop/tolk_interop"
LAYER = BUILD / "bindings/python/tolk_python_layer_peer"
LIMIT_S = 30

_numbers = itertools.count(1)


@pytest.fixture
def address():
    return f"pipe:python-{os.getpid()}-{next(_numbers)}"


@pytest.fixture
def numbered_address():
    """The layer knows pipes by their number alone."""
    return f"pipe:{os.getpid() % 2000000 * 1000 + next(_numbers)}"


def free_port():
    """Below those that the system gives to connecting sockets: none of them takes it first."""
    for number in itertools.count(os.getpid() * 1009):
        port = 10000 + number % 22000
        with contextlib.closing(socket.socket()) as one, contextlib.suppress(OSError):
            one.bind(("127.0.0.1", port))
            return port


@contextlib.contextmanager
def process(*words, until="listening", **options):
    """A process that has printed the line."""
    words = [str(word) for word in words]
    with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, start_new_session=True,
                          **options) as running:
        try:
            seen = []
            while until not in seen:
                line = running.stdout.readline()
                assert line, f"{words} ended: {seen}"
                seen.append(line.strip())
            yield running
        finally:
            kill(running)


def kill(running):
    """With its children."""
    with contextlib.suppress(ProcessLookupError):
        os.killpg(running.pid, signal.SIGKILL)


def python(code, *words, **options):
    """A Python process that runs the code and has printed "ready"."""
    return process(sys.executable, "-X", "faulthandler", "-c", "import sys, tolk\n" + code, *words,
                   until="ready", **options)


def output(running):
    """What it prints from now on, when it has ended."""
    watchdog = threading.Timer(LIMIT_S, kill, [running])
    watchdog.start()
    running.stdin.close()
    text = running.stdout.read()
    running.wait()
    watchdog.cancel()
    return text


class Latch:
    """An event that a test waits for, but not forever."""

    def __init__(self):
        self._event = threading.Event()

    def open(self, *_):
        self._event.set()

    def wait(self):
        assert self._event.wait(LIMIT_S)


def eventually(condition):
    end = time.monotonic() + LIMIT_S
    while not condition():
        assert time.monotonic() < end
        time.sleep(0.001)


@pytest.fixture
def pair(address):
    """Makes a server with the methods, and a client of it. Both are closed in the end."""
    with contextlib.ExitStack() as stack:

        def make(methods, client_methods=None, **options):
            server = stack.enter_context(tolk.listen(address, methods, **options))
            return server, stack.enter_context(tolk.connect(address, client_methods))

        yield make
