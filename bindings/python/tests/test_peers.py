"""Peers of the required interface and of the C++ layer, both ways."""

from __future__ import annotations

import dataclasses
import struct
from typing import List, Optional

import pytest
from conftest import INTEROP, LAYER, LIMIT_S, free_port, output, process

import tolk

MOST = 1.7976931348623157e308
TEXT, BYTES = "Grüße, 世界\r\n", b"\0\x1a\r\n\xff\0"


def values(side):
    """As tests/interop/values.cpp fills them."""
    return tolk.Values(
        (side, -2**31, True, -0.0, MOST, TEXT, "", BYTES, [side, False, 0.1, TEXT, BYTES]),
        {"int": side, "bool": True, "double": 0.1, "string": TEXT, "stream": BYTES})


def large_data(side, size=16 << 20):
    data, state = bytearray(size), side
    for i in range(size):
        state = (state * 1664525 + 1013904223) & 0xFFFFFFFF
        data[i] = state >> 24
    return bytes(data)


def same(mine, other):
    return mine == other and struct.pack("d", mine.args[3]) == struct.pack("d", other.args[3])


def test_a_server_of_the_required_interface():
    port = free_port()
    back = tolk.Methods()

    @back.method("values")
    def give(got: tolk.Values) -> tolk.Values:
        assert same(got, values(2))
        return values(1)

    with process(INTEROP, "serve", "tcp4", port):
        with tolk.connect(f"tcp4:127.0.0.1:{port}", back) as client:
            assert same(client.call("values", values(1)), values(2))
            assert client.call("call back") == ""
            with pytest.raises(tolk.NoMethod):
                client.call("nobody")
            with pytest.raises(tolk.TimedOut):
                client.call("sleep", timeout=0.1)
            with pytest.raises(tolk.Gone):
                client.call("die", timeout=LIMIT_S)


def test_a_client_of_the_required_interface():
    methods = tolk.Methods()
    sent, wanted = large_data(2), large_data(1)

    @methods.method("values")
    def give(got: tolk.Values) -> tolk.Values:
        assert same(got, values(1))
        return values(2)

    @methods.method("call back")
    def call_back(caller: tolk.Caller) -> str:
        return "" if same(caller.peer.call("values", values(2)), values(1)) else "other values"

    @methods.method("silence of the client")
    def silence(caller: tolk.Caller) -> bool:
        with pytest.raises(tolk.Error):
            caller.peer.call("unknown", timeout=0.3)
        return True

    @methods.method
    def large(data: memoryview) -> tuple:
        return data == wanted, sent

    @methods.method
    def sleep() -> bool:
        import time
        time.sleep(1)
        return True

    with tolk.listen("tcp4:127.0.0.1:0", methods, clients_may_stop=True) as server:
        with process(INTEROP, "call", "tcp4", server.port, "close",
                     until="right: every kind of value") as client:
            text = output(client)
    assert "WRONG" not in text
    assert text.count("right: ") == 7
    assert client.returncode == 0


@dataclasses.dataclass
class Point:
    x: float
    y: float
    name: Optional[str] = None


def middle(points: List[Point]) -> Point:
    count = len(points)
    return Point(sum(one.x for one in points) / count, sum(one.y for one in points) / count, "middle")


def test_a_server_of_the_layer(numbered_address):
    back = tolk.Methods()
    back.method("twice")(lambda number: 2 * number)
    with process(LAYER, "serve", numbered_address), tolk.connect(numbered_address, back) as client:
        points = [Point(0, 0), Point(4, 2)]
        assert client.call("middle", points, result=Point) == Point(2, 1, "middle")
        assert client.call("mirror", Point(1, 2), result=Point) == Point(2, 1)
        assert client.call("mirror", Point(1, 2)) == {"x": 2.0, "y": 1.0}
        assert client.call("join", ["a", "b"]) == "ab"
        assert client.call("join", ["a"] * 40) == "a" * 40
        assert client.call("ask back") == 42
        with pytest.raises(tolk.Failed) as failure:
            client.call("fail")
        assert failure.value.reason == "no paper"
        with pytest.raises(tolk.WrongArguments):
            client.call("join", 1)
        with pytest.raises(tolk.Gone):
            client.call("die")


def test_a_client_of_the_layer(numbered_address):
    methods = tolk.Methods()
    methods.method("middle")(middle)

    @methods.method
    def mirror(point: Point) -> Point:
        return Point(point.y, point.x, point.name)

    @methods.method
    def join(words: List[str]) -> str:
        return "".join(words)

    @methods.method("ask back")
    def ask_back(caller: tolk.Caller) -> int:
        return caller.peer.call("twice", 21, result=int)

    @methods.method
    def fail() -> None:
        raise ValueError("no paper")

    with tolk.listen(numbered_address, methods):
        with process(LAYER, "call", numbered_address, until="right: structs in a list") as client:
            text = output(client)
    assert "WRONG" not in text
    assert client.returncode == 0
