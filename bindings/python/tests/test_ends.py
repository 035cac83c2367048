"""Processes that are killed, interrupted, forked, or exit with calls under way."""

from __future__ import annotations

import os
import signal
import time

import pytest
from conftest import LIMIT_S, Latch, eventually, output, python

import tolk

SERVER = """
methods = tolk.Methods()
@methods.method
def hang():
    import threading
    threading.Event().wait()
@methods.method
def pid():
    import os
    return os.getpid()
server = tolk.listen(sys.argv[1], methods)
print("ready", flush=True)
server.wait()
"""


def test_a_killed_server(address):
    with python(SERVER, address) as server, tolk.connect(address) as client:
        call = tolk.connect(address)
        os.kill(client.call("pid"), signal.SIGKILL)
        with pytest.raises(tolk.Gone):
            call.call("hang", timeout=LIMIT_S)
        server.wait(LIMIT_S)


def test_killed_clients(address):
    gone = []
    methods = tolk.Methods()
    methods.method("add")(lambda a, b: a + b)
    with tolk.listen(address, methods, on_gone=gone.append) as server:
        for number in range(5):
            with python("""
client = tolk.connect(sys.argv[1])
client.call("add", 1, 2)
print("ready", flush=True)
while True:
    client.call("add", 1, 2)
""", address):
                pass  # killed in the middle of its calls
        eventually(lambda: len(gone) == 5)
        assert server.clients == []
        with tolk.connect(address) as client:
            assert client.call("add", 1, 2) == 3


@pytest.mark.parametrize("wait", [
    'client.call("hang", timeout=1000)', "server.wait()",
    'tolk.connect(sys.argv[1] + "-nobody", patience=1000)',
    'client.call_async("hang", timeout=1000)'])
def test_ctrl_c_ends_a_wait(address, wait):
    if "async" in wait:
        wait = f"asyncio.run({wait})"
    with python(SERVER.partition('print("ready"')[0] + f"""
import asyncio
client = tolk.connect(sys.argv[1])
try:
    print("ready", flush=True)
    {wait}
except KeyboardInterrupt:
    print("interrupted", client.call("pid", timeout=20) > 0, flush=True)
    import os
    os._exit(0)
""", address) as running:
        time.sleep(0.2)  # until it waits; a signal before that comes to the same
        running.send_signal(signal.SIGINT)
        assert output(running) == "interrupted True\n"


QUIETLY = """
import threading
def in_thread(function):
    def run():
        try: function()
        except tolk.Error: pass
    threading.Thread(target=run, daemon=True).start()
"""
EXITS = {
    "calls of daemon threads": """
for _ in range(8): in_thread(lambda: client.call("hang", timeout=1000))
""",
    "calls of coroutines": """
import asyncio
async def main():
    asyncio.ensure_future(client.call_async("hang", timeout=1000))
    await asyncio.sleep(0.05)
loop = asyncio.new_event_loop()
loop.run_until_complete(main())
""",
    "posts": """
for _ in range(1000): client.post("hang2")
""",
    "a handler that computes": """
@methods.method
def compute():
    while True: pass
for _ in range(3): in_thread(lambda: client.call("compute", timeout=1000))
""",
    "handlers that call": """
@methods.method
def nested(caller: tolk.Caller):
    tolk.connect(sys.argv[1]).call("hang", timeout=1000)
for _ in range(3): client.post("nested")
""",
    "an exception": """
client.post("hang")
raise SystemExit(0)
""",
    "a transfer": """
@methods.method
def data(block: bytes): pass
class Slow:
    def read(self, size):
        import time
        time.sleep(0.02)
        return b"x" * size
in_thread(lambda: client.send("data", tolk.Source(Slow(), size=10**9), timeout=1000))
""",
}


@pytest.mark.parametrize("what", EXITS)
def test_exit(address, what):
    code = SERVER.partition('print("ready"')[0] + """
client = tolk.connect(sys.argv[1])
""" + QUIETLY + EXITS[what].replace("raise SystemExit", "print('ready', flush=True)\nraise SystemExit") + """
import time
time.sleep(0.1)
print("ready", flush=True)
"""
    begin = time.monotonic()
    with python(code, address) as running:
        text = output(running)
    assert (running.returncode, text) == (0, "")
    assert time.monotonic() - begin < 15


def test_what_was_posted_before_the_exit_arrives(address):
    methods, latch = tolk.Methods(), Latch()
    methods.method("last")(latch.open)
    with tolk.listen(address, methods):
        with python("""
client = tolk.connect(sys.argv[1])
print("ready", flush=True)
client.post("last")
""", address) as running:
            output(running)
        latch.wait()


def test_a_forked_child(address):
    with python("""
import os, gc, threading, warnings
warnings.simplefilter("ignore")  # of forks with threads: it is what is tested
methods = tolk.Methods()
methods.method("add")(lambda a, b: a + b)
server = tolk.listen(sys.argv[1], methods)
client = tolk.connect(sys.argv[1])
for _ in range(20):
    threading.Thread(target=lambda: [client.call("add", 1, 2) for _ in range(50)]).start()
print("ready", flush=True)
for number in range(20):
    child = os.fork()
    if child == 0:
        try:
            client.call("add", 1, 2)
        except tolk.Closed:
            if number % 2:
                del client, server
                gc.collect()
            address = sys.argv[1] + str(number)
            own = tolk.listen(address, methods)
            assert tolk.connect(address).call("add", 1, 2) == 3
            sys.exit(7)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 7
print(client.call("add", 1, 2))
""", address) as running:
        assert output(running) == "3\n"
    assert running.returncode == 0
