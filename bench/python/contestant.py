#!/usr/bin/env python3
"""A contestant in Python: 64-byte echoes from one caller, as the other contestants make them.

usage: contestant_python tolk|bare echo [--turn-ms N] [--pause-us N] [--transport pipe|tcp4|tcp6]

`tolk` is the package of bindings/python; `bare` has blocking sockets and nothing else. Prints one
line of JSON.
"""

import argparse
import ctypes
import json
import os
import pathlib
import signal
import socket
import statistics
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).parent  # the link, in the folder of the programs
SOURCES = pathlib.Path(__file__).resolve().parents[2]
PAYLOAD_BYTES = 64
READ_BYTES = 65536


def load_tolk():
    """The package of the sources with the library of the build."""
    ctypes.CDLL(str(HERE.parent / "libtolk.so.1"))
    sys.path.insert(0, str(SOURCES / "bindings/python"))
    import tolk
    return tolk


class Tolk:
    def __init__(self, transport, _):
        port = 20000 + os.getpid() % 12000
        self.address = {"pipe": f"pipe:bench-{os.getpid()}", "tcp4": f"tcp4:127.0.0.1:{port}",
                        "tcp6": f"tcp6:[::1]:{port}"}[transport]

    def serve(self, ready):
        tolk = load_tolk()
        methods = tolk.Methods()

        @methods.method
        def echo(payload: bytes) -> bytes:
            return payload

        server = tolk.listen(self.address, methods)
        ready()
        server.wait()

    def connect(self):
        client = load_tolk().connect(self.address)
        return lambda payload: client.call("echo", payload)


class Bare:
    def __init__(self, transport, folder):
        family, address = {
            "pipe": (socket.AF_UNIX, os.path.join(folder, "socket")),
            "tcp4": (socket.AF_INET, ("127.0.0.1", 0)), "tcp6": (socket.AF_INET6, ("::1", 0))}[transport]
        self.family = family
        self.listener = socket.socket(family)
        self.listener.bind(address)
        self.listener.listen()

    def serve(self, ready):
        ready()
        one, _ = self.listener.accept()
        self.without_delays(one)
        while True:
            data = one.recv(READ_BYTES)
            if not data:
                return
            one.sendall(data)

    def connect(self):
        one = socket.socket(self.family)
        one.connect(self.listener.getsockname())
        self.without_delays(one)

        def echo(payload):
            one.sendall(payload)
            answer = b""
            while len(answer) < len(payload):
                answer += one.recv(READ_BYTES)
            return answer

        return echo

    def without_delays(self, one):
        if self.family != socket.AF_UNIX:
            one.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)


def take_core(number):
    """The system lets two processes that take turns share a core, or not, which is a factor of eight.
    Each has its own here."""
    cores = sorted(os.sched_getaffinity(0))
    os.sched_setaffinity(0, {cores[number % len(cores)]})


def start_server(contestant):
    """In a child, which is killed in the end."""
    told, tell = os.pipe()
    child = os.fork()
    if child == 0:
        signal.alarm(30)
        take_core(1)
        contestant.serve(lambda: os.write(tell, b"x"))
        os._exit(0)
    os.read(told, 1)
    return child


def processor_s(process):
    return time.clock_gettime((~process << 3) | 2)  # as clock_getcpuclockid makes it


def calls_until(echo, end, pause_s):
    times_us, number = [], 0
    filler = bytes(PAYLOAD_BYTES - 8)
    while time.perf_counter() < end:
        if pause_s:
            time.sleep(pause_s)
        number += 1
        payload = number.to_bytes(8, "little") + filler
        begin = time.perf_counter()
        if echo(payload) != payload:
            raise RuntimeError("an answer is wrong")
        times_us.append(1e6 * (time.perf_counter() - begin))
    return times_us


def measure(contestant, turn_s, pause_s):
    server = start_server(contestant)
    take_core(0)
    try:
        echo = contestant.connect()
        calls_until(echo, time.perf_counter() + turn_s / 5, pause_s)
        before = processor_s(server) + time.process_time()
        times_us = calls_until(echo, time.perf_counter() + turn_s, pause_s)
        spent = processor_s(server) + time.process_time() - before
    finally:
        os.kill(server, signal.SIGKILL)
    return {"calls_s": 1e6 * len(times_us) / sum(times_us), "cpu_us": 1e6 * spent / len(times_us),
            "p50_us": statistics.median(times_us), "p99_us": sorted(times_us)[len(times_us) * 99 // 100]}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("contestant", choices=["tolk", "bare"])
    parser.add_argument("measure", choices=["echo"])
    parser.add_argument("--turn-ms", type=int, default=300)
    parser.add_argument("--pause-us", type=int, default=0)
    parser.add_argument("--transport", choices=["pipe", "tcp4", "tcp6"], default="pipe")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        contestant = {"tolk": Tolk, "bare": Bare}[options.contestant](options.transport, folder)
        print(json.dumps(measure(contestant, options.turn_ms / 1000, options.pause_us / 1e6)), flush=True)


if __name__ == "__main__":
    main()
