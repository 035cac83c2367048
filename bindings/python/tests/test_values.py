from __future__ import annotations

import dataclasses
import enum
import gc
import tracemalloc
from typing import Dict, List, Optional, Tuple, Union

import pytest

import tolk
from tolk import _contexts


@dataclasses.dataclass
class Point:
    x: int
    y: float = 0.5
    name: Optional[str] = None


@dataclasses.dataclass
class Line:
    ends: List[Point]
    tags: Dict[str, int] = dataclasses.field(default_factory=dict)


class Colour(enum.Enum):
    RED = "red"
    BLUE = "blue"


@pytest.fixture
def client(pair):
    methods = tolk.Methods()

    @methods.method
    def echo(*args, **keys):
        return tolk.Values(args, keys)

    return pair(methods)[1]


@pytest.mark.parametrize("value", [
    None, True, False, 0, -1, 2**31 - 1, -2**31, 2**31, 2**63 - 1, -2**63, 2**63, 2**64 - 1,
    0.0, -1.5, float("inf"), "", "text", "zero\0inside", "Grüße", "\udcff", b"", b"\0\xff",
    [], [1], [1, "a", None, [2.5, []]], list(range(1000)), [0.5] * 1000, [2**40] * 100,
    [True] * 100, [1] * 50 + ["x"], [2**63] * 20, {}, {"k": 1}, {"a": {"b": [None]}, "": b"x"}],
    ids=lambda value: repr(value)[:30])
def test_a_value_returns_as_it_was(client, value):
    result = client.call("echo", value)
    assert result == value
    assert type(result) is type(value)


def test_several_values_and_keys(client):
    assert client.call("echo") is None
    assert client.call("echo", 1, 2) == (1, 2)
    assert client.call("echo", a=1) == {"a": 1}
    assert client.call("echo", 1, a=2) == tolk.Values((1,), {"a": 2})
    assert client.call("echo", 0, tolk.Values((1,), {"timeout": 2})) == tolk.Values(
        (0, 1), {"timeout": 2})
    assert client.call("echo", 1, result=tolk.Values) == tolk.Values((1,), {})


def test_what_is_like_a_list_or_bytes(client):
    assert client.call("echo", (1, 2)) == [1, 2]
    assert client.call("echo", {7}) == [7]
    assert client.call("echo", bytearray(b"ab")) == b"ab"
    assert client.call("echo", memoryview(b"abcd")[1:3]) == b"bc"
    assert client.call("echo", Colour.BLUE) == "blue"


@pytest.mark.parametrize("value, failure", [
    (object(), TypeError), (2**64, OverflowError), (-2**63 - 1, OverflowError),
    ([1] * 50 + [2**70], OverflowError), ({1: 2}, TypeError), ({"s_c_x": 1}, TypeError),
    ({"tolk.x": 1}, TypeError)], ids=repr)
def test_what_does_not_travel_is_said_at_once(client, value, failure):
    with pytest.raises(failure):
        client.call("echo", value)


def test_structs(client):
    assert client.call("echo", Point(3)) == {"x": 3, "y": 0.5}
    assert client.call("echo", Point(3, name="n"), result=Point) == Point(3, name="n")
    line = Line([Point(1), Point(2, 7.0)], {"a": 1})
    assert client.call("echo", line, result=Line) == line
    assert client.call("echo", x=4, new=True, result=Point) == Point(4)


@pytest.mark.parametrize("value, wanted, result", [
    (1, float, 1.0), (b"x", str, "x"), ("x", bytes, b"x"), (None, Optional[int], None),
    ("x", Union[int, str], "x"), ([1, 2], Tuple[int, ...], (1, 2)), ([1, "a"], Tuple[int, str], (1, "a")),
    ([1], List[float], [1.0]), ({"a": 1}, Dict[str, float], {"a": 1.0}), ("red", Colour, Colour.RED),
    (5, None, None), ("x", memoryview, memoryview(b"x")), (b"", memoryview, memoryview(b""))])
def test_a_result_of_a_type(client, value, wanted, result):
    got = client.call("echo", value, result=wanted)
    assert got == result
    assert type(got) is type(result)


@pytest.mark.parametrize("value, wanted, text", [
    ("a", int, "wanted int, got string"), (True, int, "wanted int, got bool"),
    ([1, "a"], List[int], ", element 2: wanted int, got string"),
    ({"x": "a"}, Point, 'the result, field "x": wanted int, got string'),
    ({"y": 1.0}, Point, 'the result, field "x": wanted int, got nothing'),
    ("green", Colour, "'green' is not a Colour"), (1, Union[str, bool], "wanted string | bool, got int"),
    (5, memoryview, "the result: wanted bytes, got int"),
    (None, memoryview, "the result: wanted bytes, got nothing"),
    ([1], memoryview, "the result: wanted bytes, got list")])
def test_a_result_of_another_type(client, value, wanted, text):
    with pytest.raises(tolk.WrongType) as failure:
        client.call("echo", value, result=wanted)
    assert text in str(failure.value)
    assert isinstance(failure.value, TypeError)


def test_large_bytes_are_held_and_given_back(client):
    data = b"x" * 1_000_000
    client.post("echo", data)
    assert client.call("echo", memoryview(data)) == data
    gc.collect()
    assert not [one for one in _contexts._held.values() if hasattr(one, "released")]


@pytest.mark.parametrize("data", [bytes(range(256)) * 400, "text" * 25600], ids=["bytes", "a text"])
def test_a_view_of_the_result_keeps_the_message(client, data):
    view = client.call("echo", data, result=memoryview)[1000:]
    gc.collect()
    assert view.readonly
    assert not isinstance(view.obj, bytes)  # that would be a copy
    assert bytes(view) == (data if isinstance(data, bytes) else data.encode())[1000:]


def test_views_copy_nothing(pair):
    methods = tolk.Methods()

    @methods.method
    def give_back(number: int, data: memoryview) -> memoryview:
        return data

    client, data = pair(methods)[1], bytes(range(250)) * 4000
    assert client.call("give_back", 1, data, result=memoryview) == data
    tracemalloc.start()
    try:
        result = client.call("give_back", 1, data, result=memoryview)
        most = tracemalloc.get_traced_memory()[1]
    finally:
        tracemalloc.stop()
    assert len(result) == len(data)
    assert most < len(data) // 2


def test_what_may_change_is_copied(client):
    data = bytearray(b"x" * 100_000)
    client.post("echo", data)
    data += b"!"  # BufferError if it were still held
    assert client.call("echo", data) == data
