from __future__ import annotations

import asyncio
import hashlib
import io

import pytest
from conftest import LIMIT_S, Latch

import tolk

SIZE = 3_000_001


@pytest.fixture
def data(tmp_path):
    file = tmp_path / "data"
    file.write_bytes(bytes(i * 7 % 251 for i in range(SIZE)))
    return file


@pytest.fixture
def client(pair, data, tmp_path):
    methods = tolk.Methods()

    @methods.method
    def digest(data: memoryview, name: str) -> str:
        return f"{name} {hashlib.md5(data).hexdigest()}"

    def place(caller: tolk.Caller, total: int):
        if total > SIZE:
            raise tolk.TooLarge("no room")
        return tmp_path / f"stored-{caller.peer.id}"

    @methods.method(sink=place)
    def store(caller: tolk.Caller) -> int:
        return (tmp_path / f"stored-{caller.peer.id}").stat().st_size

    @methods.method
    def load(name: str) -> tolk.Source:
        return tolk.Source(data if name == "data" else tmp_path / name, result=name)

    return pair(methods)[1]


def md5(data):
    return hashlib.md5(data).hexdigest()


def test_from_a_file_into_memory(client, data):
    assert client.send("digest", data, "a") == f"a {md5(data.read_bytes())}"


def test_from_bytes_and_open_files(client, data):
    expected = f"a {md5(data.read_bytes())}"
    assert client.send("digest", data.read_bytes(), "a") == expected
    with open(data, "rb") as file:
        assert client.send("digest", file, "a") == expected
    assert client.send("digest", tolk.Source(io.BytesIO(data.read_bytes()), size=SIZE), "a") == expected


def test_from_a_file_into_a_file_with_progress(client, data, tmp_path):
    seen = []
    assert client.send("store", data, progress=lambda *both: seen.append(both)) == SIZE
    assert (seen[0], seen[-1]) == ((0, SIZE), (SIZE, SIZE))
    assert seen == sorted(seen)


def test_from_a_handler_into_a_file(client, data, tmp_path):
    assert client.fetch("load", tmp_path / "got", "data") == "data"
    assert (tmp_path / "got").read_bytes() == data.read_bytes()
    got = io.BytesIO()
    client.fetch("load", got, "data")
    assert got.getvalue() == data.read_bytes()


def test_in_coroutines(client, data, tmp_path):
    async def main():
        assert await client.send_async("store", data) == SIZE
        assert await client.fetch_async("load", tmp_path / "got", "data") == "data"

    asyncio.run(asyncio.wait_for(main(), LIMIT_S))
    assert (tmp_path / "got").read_bytes() == data.read_bytes()


def test_progress_in_coroutines(client, data, tmp_path):
    sent, fetched = [], []

    def half(done, total):
        return done < total // 2

    async def main():
        assert await client.send_async("store", data, progress=lambda *both: sent.append(both)) == SIZE
        assert await client.fetch_async("load", tmp_path / "got", "data",
                                        progress=lambda *both: fetched.append(both)) == "data"
        with pytest.raises(tolk.Cancelled):
            await client.send_async("store", data, progress=half)
        with pytest.raises(tolk.Cancelled):
            await client.fetch_async("load", tmp_path / "never", "data", progress=half)

    asyncio.run(asyncio.wait_for(main(), LIMIT_S))
    for seen in (sent, fetched):
        assert (seen[0], seen[-1]) == ((0, SIZE), (SIZE, SIZE))
        assert seen == sorted(seen)
    assert (tmp_path / "got").read_bytes() == data.read_bytes()
    assert not (tmp_path / "never").exists()


def test_progress_cancels(client, data, tmp_path):
    with pytest.raises(tolk.Cancelled):
        client.send("store", data, progress=lambda done, total: done < total // 2)

    def broken(done, total):
        raise ValueError

    with pytest.raises(tolk.Cancelled):
        client.send("store", data, progress=broken)


def test_refusals(client, data, tmp_path):
    with pytest.raises(tolk.TooLarge):
        client.send("store", b"x" * (SIZE + 1))
    with pytest.raises(tolk.FileError):
        client.send("store", tmp_path / "nothing")
    with pytest.raises(tolk.Failed):
        client.fetch("load", tmp_path / "got", "nothing")
    assert not (tmp_path / "got").exists()
    assert client.send("store", data) == SIZE


def test_a_call_that_does_not_start_lets_go_of_its_data(client):
    data = bytearray(100_000)
    for timeout, method in ((float("nan"), "store"), (1, "\udc80")):
        with pytest.raises(ValueError):
            client.send(method, data, timeout=timeout)
        data.append(0)  # a BufferError while somebody has a view of it
    client.close()
    with pytest.raises(tolk.Closed):
        client.send("store", data)
    data.append(0)
