from __future__ import annotations

import _thread
import dataclasses
import math
import os
import re
import threading
import time
from typing import Any

import pytest
from conftest import LIMIT_S, Latch, eventually

import tolk


@dataclasses.dataclass
class Point:
    x: int
    y: int = 0


def test_results_and_signatures(pair):
    methods = tolk.Methods()

    @methods.method
    def add(a: int, b: int = 10) -> int:
        """Adds.

        Or so."""
        return a + b

    @methods.method("move it")
    def move(point: Point, *, by: int = 1) -> Point:
        return Point(point.x + by, point.y)

    @methods.method
    def nothing(*rest: str) -> None:
        assert all(isinstance(one, str) for one in rest)

    client = pair(methods)[1]
    assert client.call("add", 2, 3, timeout=5, result=int) == 5
    assert client.call("add", 2) == 12
    assert client.call("move it", Point(1), by=2, result=Point) == Point(3)
    assert client.call("move it", x=1, result=Point) == Point(2)
    assert client.call("nothing", "a", "b") is None
    assert client.describe() == [
        ("add", "(int, int) -> int", "Adds."),
        ("move it", "({x: int, y: int}, by: int) -> {x: int, y: int}", ""),
        ("nothing", "(...)", "")]


@pytest.mark.parametrize("args, keys, text", [
    ((), {}, "takes at least 1 argument, got 0"), ((1, 2, 3), {}, "takes at most 2 arguments, got 3"),
    (("a",), {}, "argument 1: wanted int, got string"),
    ((1, [1]), {}, "argument 2: wanted string, got list"),
    ((1,), {"level": "x"}, 'argument "level": wanted int, got string')])
def test_wrong_arguments(pair, args, keys, text):
    methods = tolk.Methods()

    @methods.method
    def one(number: int, text: str = "", *, level: int = 0) -> None: ...

    with pytest.raises(tolk.WrongArguments) as failure:
        pair(methods)[1].call("one", *args, **keys)
    assert failure.value.reason == text


@pytest.mark.parametrize("value, name", [
    (5, "int"), (None, "nothing"), (0.5, "double"), ([1], "list"), ({"k": 1}, "map")])
def test_a_view_is_of_bytes_or_of_a_text(pair, value, name):
    methods = tolk.Methods()

    @methods.method
    def show(data: memoryview) -> bytes:
        return bytes(data)

    client = pair(methods)[1]
    assert client.call("show", b"ab") == client.call("show", "ab") == b"ab"
    with pytest.raises(tolk.WrongArguments) as failure:
        client.call("show", value)
    assert failure.value.reason == f"argument 1: wanted bytes, got {name}"


def test_keyed_arguments_of_positional_parameters(pair):
    methods = tolk.Methods()

    @methods.method
    def store(name: str, tag: str = "none", **more: Any) -> str:
        return f"{name} {tag} {len(more)}"

    @methods.method
    def move(point: Point, by: int = 1) -> int:
        return point.x + by

    client = pair(methods)[1]
    assert client.call("store", name="photo") == "photo none 0"
    assert client.call("store", "photo", tag="holiday", size=3) == "photo holiday 1"
    assert client.call("move", x=1, by=5) == 6
    with pytest.raises(tolk.WrongArguments) as failure:
        client.call("store", size=3)
    assert failure.value.reason == "argument name: wanted string, got nothing"
    with pytest.raises(tolk.WrongArguments) as failure:
        client.call("store", name=3)
    assert failure.value.reason == 'argument "name": wanted string, got int'


def test_failures(pair, address):
    methods = tolk.Methods()

    @methods.method
    def broken() -> None:
        raise ValueError("no paper")

    @methods.method
    def full() -> None:
        raise tolk.Failed("the disk is full", code=28, details={"free": 0})

    client = pair(methods)[1]
    with pytest.raises(tolk.Failed) as failure:
        client.call("broken")
    assert str(failure.value) == f"broken at {address}: handler failed: ValueError: no paper"
    with pytest.raises(tolk.Failed) as failure:
        client.call("full")
    error = failure.value
    assert (error.status, error.reason, error.code, error.details) == (
        tolk.Status.FAILED, "the disk is full", 28, {"free": 0})
    assert (error.method, error.address) == ("full", address)
    with pytest.raises(tolk.NoMethod) as failure:
        client.call("nobody")
    assert failure.value.hint


def test_errors_are_also_those_of_python(address):
    with pytest.raises(ConnectionError) as failure:
        tolk.connect(address)
    assert type(failure.value) is tolk.NotConnected
    with pytest.raises(ValueError):
        tolk.connect("nowhere:1")
    with tolk.listen(address):
        with pytest.raises(OSError) as failure:
            tolk.listen(address)
    assert type(failure.value) is tolk.CannotListen


def test_a_timeout(pair):
    methods, latch = tolk.Methods(), Latch()
    methods.method("hang")(lambda: latch.wait())
    client = pair(methods)[1]
    begin = time.monotonic()
    with pytest.raises(TimeoutError):
        client.call("hang", timeout=0.05)
    assert 0.05 <= time.monotonic() - begin < 5
    latch.open()


def test_the_caller_of_a_handler(pair, address):
    methods, latch, timed_out = tolk.Methods(), Latch(), Latch()

    @methods.method
    def who(caller: tolk.Caller) -> list:
        return [caller.method, caller.peer.id, caller.process, caller.time_left > 5,
                caller.cancelled]

    @methods.method
    def hang(caller: tolk.Caller) -> None:
        eventually(lambda: caller.cancelled)
        latch.open()
        timed_out.wait()

    server, client = pair(methods)
    assert client.call("who", timeout=LIMIT_S) == [
        "who", server.clients[0].id, os.getpid(), True, False]
    with pytest.raises(tolk.TimedOut):
        client.call("hang", timeout=0.05)
    timed_out.open()
    latch.wait()


def test_the_address_and_the_user_of_a_caller(pair, address):
    methods = tolk.Methods()

    @methods.method
    def who(caller: tolk.Caller) -> list:
        return [caller.address, caller.user, caller.process]

    assert pair(methods)[1].call("who") == [address, str(os.getuid()), os.getpid()]
    with tolk.listen("tcp4:127.0.0.1:0", methods) as server, tolk.connect(server.address) as client:
        where, *others = client.call("who")
        assert re.fullmatch(r"tcp4:127\.0\.0\.1:[1-9]\d*", where)
        assert where != server.address
        assert others == ["", 0]


def test_calls_in_both_directions_nested(pair):
    methods, back = tolk.Methods(), tolk.Methods()

    def deeper(depth: int, caller: tolk.Caller) -> int:
        return 0 if depth == 0 else 1 + caller.peer.call(
            "deeper", depth - 1, timeout=LIMIT_S, result=int)

    methods.method(deeper)
    back.method(deeper)
    client = pair(methods, back)[1]
    assert client.call("deeper", 40, timeout=LIMIT_S) == 40


def test_handlers_that_call_all_leave_workers_to_nested_calls(pair):
    methods, back, all_begun = tolk.Methods(), tolk.Methods(), threading.Barrier(4)

    @methods.method
    def sum_of_all() -> int:
        all_begun.wait(LIMIT_S)
        results = server.call_all("ask back", timeout=LIMIT_S, result=int)
        return sum(results.values())

    @back.method("ask back")
    def ask_back(caller: tolk.Caller) -> int:
        return caller.peer.call("one", timeout=LIMIT_S, result=int)

    methods.method("one")(lambda: 1)
    server, client = pair(methods, back, workers=4)
    results = []
    threads = [
        threading.Thread(target=lambda: results.append(client.call("sum_of_all", timeout=LIMIT_S)))
        for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(LIMIT_S)
    assert results == [1] * 4


def interrupt_the_call():
    time.sleep(0.05)  # until the main thread waits
    _thread.interrupt_main()


def test_a_call_that_is_interrupted_is_cancelled(pair):
    methods, cancelled = tolk.Methods(), Latch()

    @methods.method
    def hang(caller: tolk.Caller) -> None:
        interrupt_the_call()
        eventually(lambda: caller.cancelled)
        cancelled.open()

    client = pair(methods)[1]
    with pytest.raises(KeyboardInterrupt):
        client.call("hang", timeout=1000)
    cancelled.wait()


def test_a_call_to_all_that_is_interrupted_cancels_the_calls(pair, address):
    back, cancelled = tolk.Methods(), []
    all_begun = threading.Barrier(2, action=interrupt_the_call)

    @back.method
    def hang(caller: tolk.Caller) -> None:
        all_begun.wait(LIMIT_S)
        eventually(lambda: caller.cancelled)
        cancelled.append(True)

    server, _ = pair(tolk.Methods(), back)
    with tolk.connect(address, back):
        eventually(lambda: len(server.clients) == 2)
        with pytest.raises(KeyboardInterrupt):
            server.call_all("hang", timeout=1000)
        eventually(lambda: len(cancelled) == 2)


def test_a_call_to_all_returns_a_value_of_another_type_as_an_error(pair, address):
    tables = [tolk.Methods() for _ in range(3)]
    tables[0].method("name")(lambda: "plugin")
    tables[1].method("name")(lambda: 5)
    server, _ = pair(tolk.Methods(), tables[0])
    with tolk.connect(address, tables[1]), tolk.connect(address, tables[2]):
        eventually(lambda: len(server.clients) == 3)
        outcomes = server.call_all("name", timeout=LIMIT_S, result=str)
    by_id = [outcomes[peer] for peer in sorted(outcomes, key=lambda peer: peer.id)]
    assert by_id[0] == "plugin"
    assert isinstance(by_id[1], tolk.WrongType)
    assert str(by_id[1]) == "the result: wanted string, got int"
    assert isinstance(by_id[2], tolk.NoMethod)


def test_posts_arrive_in_order(pair):
    methods, seen, latch = tolk.Methods(), [], Latch()

    @methods.method(ordered=True)
    def note(number: int) -> None:
        seen.append(number)
        if number == 999:
            latch.open()

    client = pair(methods)[1]
    for number in range(1000):
        client.post("note", number)
    latch.wait()
    assert seen == list(range(1000))


def test_hooks_posts_and_calls_to_all(pair, address):
    methods, back, connected, gone = tolk.Methods(), tolk.Methods(), [], Latch()
    latch = Latch()
    back.method("changed")(latch.open)
    back.method("name")(lambda: "plugin")
    server, client = pair(methods, back, on_connect=connected.append, on_gone=gone.open)
    eventually(lambda: connected)  # the hooks of two clients run in any order
    with tolk.connect(address) as other:
        assert other.id == 0
        eventually(lambda: len(connected) == 2)
        server.post("changed")
        latch.wait()
        results = server.call_all("name")
        assert set(results) == set(connected) == set(server.clients)
        assert results[connected[0]] == "plugin"
        assert isinstance(results[connected[1]], tolk.NoMethod)
    gone.wait()
    assert server.disconnect(server.clients[0])
    eventually(lambda: server.clients == [])
    assert server.call_all("name") == {}


def test_the_other_end_goes(address):
    gone = []
    with tolk.listen(address) as server:
        client = tolk.connect(address, on_gone=gone.append)
        server.close()
        eventually(lambda: gone)
        with pytest.raises(tolk.Gone):
            client.call("add")
    client.close()
    with pytest.raises(tolk.Closed):
        client.call("add")
    assert client.closed


def test_a_table_that_changes(pair):
    methods = tolk.Methods()
    server, client = pair(methods)

    @server.method
    def late() -> int:
        return 1

    assert client.call("late") == 1
    with pytest.raises(tolk.Misuse):
        methods.method("late")(lambda: 2)
    assert methods.remove("late")
    assert not methods.remove("late")
    with pytest.raises(tolk.NoMethod):
        client.call("late")

    @methods.catch_all
    def any_name(caller: tolk.Caller, all: tolk.Values) -> str:
        if caller.method == "nobody":
            raise tolk.NoMethod("nobody")
        return f"{caller.method} {len(all.args)}"

    assert client.call("whatever", 1, 2) == "whatever 2"
    with pytest.raises(tolk.NoMethod):
        client.call("nobody")


def test_sixteen_threads(pair):
    methods, back = tolk.Methods(), tolk.Methods()
    back.method("negative")(lambda number: -number)

    @methods.method
    def ask(number: int, caller: tolk.Caller) -> int:
        return caller.peer.call("negative", number, result=int)

    client = pair(methods, back)[1]
    wrong = []

    def work(first):
        for number in range(first, first + 100):
            if client.call("ask", number, timeout=LIMIT_S) != -number:
                wrong.append(number)

    threads = [threading.Thread(target=work, args=(100 * i,)) for i in range(16)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(LIMIT_S)
    assert not wrong
    assert not any(thread.is_alive() for thread in threads)


def test_close_waits_for_handlers(pair):
    methods, begun = tolk.Methods(), Latch()

    @methods.method
    def slow() -> str:
        begun.open()
        time.sleep(0.1)
        return "done"

    server, client = pair(methods)
    results = []
    thread = threading.Thread(target=lambda: results.append(client.call("slow")))
    thread.start()
    begun.wait()
    server.close()
    thread.join(LIMIT_S)
    assert results == ["done"]


def test_a_close_without_a_limit(pair, address):
    methods, begun, ended = tolk.Methods(), Latch(), []

    @methods.method
    def slow() -> None:
        begun.open()
        time.sleep(0.1)
        ended.append(True)

    server, client = pair(methods)
    client.close(math.inf)
    assert client.closed
    eventually(lambda: server.clients == [])
    with tolk.connect(address) as other:
        other.post("slow")
        begun.wait()
        server.close(math.inf)
        assert (ended, server.closed) == ([True], True)


def test_a_limit_that_is_not_a_number_closes_nothing(pair):
    methods = tolk.Methods()
    methods.method("add")(lambda a, b: a + b)
    server, client = pair(methods)
    for end in (server, client):
        with pytest.raises(ValueError):
            end.close(math.nan)
        assert not end.closed
    assert client.call("add", 1, 2) == 3


def test_a_handler_closes_its_server(pair):
    methods = tolk.Methods()
    server, client = pair(methods)

    @methods.method
    def stop() -> str:
        threading.Thread(target=server.close).start()
        return "stopping"

    assert client.call("stop") == "stopping"
    assert server.wait(LIMIT_S)


def test_what_nobody_refers_to_is_freed(address):
    import gc
    import weakref
    methods = tolk.Methods()
    methods.method("add")(lambda a, b: a + b)
    server = tolk.listen(address, methods)
    client = tolk.connect(address)
    assert client.call("add", 1, 2) == 3
    gone = weakref.ref(server._core)
    del server
    gc.collect()
    eventually(lambda: gone() is None)
    with pytest.raises(tolk.Gone):
        client.call("add", 1, 2)
