from __future__ import annotations

import asyncio
import threading

import pytest
from conftest import LIMIT_S, Latch, eventually

import tolk


def run(coroutine):
    return asyncio.run(asyncio.wait_for(coroutine, LIMIT_S))


def test_many_calls_at_a_time(pair):
    methods = tolk.Methods()
    methods.method("add")(lambda a, b: a + b)
    client = pair(methods)[1]

    async def main():
        return await asyncio.gather(*(client.call_async("add", i, 1, result=int) for i in range(200)))

    assert run(main()) == list(range(1, 201))


def test_failures(pair):
    client = pair(tolk.Methods())[1]
    with pytest.raises(tolk.NoMethod):
        run(client.call_async("nobody"))


def test_cancelling_the_task_cancels_the_call(pair):
    methods, begun, ended = tolk.Methods(), Latch(), Latch()

    @methods.method
    def hang(caller: tolk.Caller) -> None:
        begun.open()
        eventually(lambda: caller.cancelled)
        ended.open()

    client = pair(methods)[1]

    async def main():
        task = asyncio.create_task(client.call_async("hang", timeout=LIMIT_S))
        await asyncio.to_thread(begun.wait)
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task
        await asyncio.to_thread(ended.wait)

    run(main())


def test_handlers_on_the_loop(address):
    async def main():
        here = threading.get_ident()
        methods, seen, came = tolk.Methods(), [], asyncio.Event()

        @methods.method
        async def ask(caller: tolk.Caller, number: int) -> int:
            assert threading.get_ident() == here
            return await caller.peer.call_async("twice", number, result=int)

        @methods.method
        async def fail() -> None:
            raise ValueError("no paper")

        async def connected(peer: tolk.Peer) -> None:
            seen.append(threading.get_ident() == here)
            came.set()

        back = tolk.Methods()

        @back.method
        async def twice(number: int) -> int:
            return 2 * number

        async with tolk.listen(address, methods, on_connect=connected):
            async with await tolk.connect_async(address, back) as client:
                assert await client.call_async("ask", 21) == 42
                with pytest.raises(tolk.Failed):
                    await client.call_async("fail")
                with pytest.raises(tolk.WrongArguments):
                    await client.call_async("ask", "x")
                await came.wait()
        assert seen == [True]

    run(main())


def test_close_waits_for_coroutines(address):
    async def main():
        methods, begun = tolk.Methods(), asyncio.Event()

        @methods.method
        async def slow() -> str:
            begun.set()
            await asyncio.sleep(0.1)
            return "done"

        server = tolk.listen(address, methods)
        async with await tolk.connect_async(address) as client:
            call = asyncio.create_task(client.call_async("slow"))
            await begun.wait()
            await server.close_async()
            assert await call == "done"

    run(main())


def test_a_coroutine_without_a_loop(pair):
    methods = tolk.Methods()

    @methods.method
    async def lost() -> None: ...

    with pytest.raises(tolk.Failed) as failure:
        pair(methods)[1].call("lost")
    assert "event loop" in failure.value.reason


def test_a_loop_that_is_closed_loses_nothing_else(pair):
    methods, latch = tolk.Methods(), Latch()
    methods.method("hang")(latch.wait)
    methods.method("add")(lambda a, b: a + b)
    client = pair(methods)[1]

    async def main():
        asyncio.create_task(client.call_async("hang", timeout=LIMIT_S))
        await asyncio.sleep(0)

    asyncio.run(main())
    latch.open()
    assert client.call("add", 1, 2) == 3
