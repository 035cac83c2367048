import pathlib
import sys
import tempfile

import tolk

folder = pathlib.Path(tempfile.mkdtemp())
methods = tolk.Methods()


def place(caller: tolk.Caller, total: int) -> pathlib.Path:
    if total > 1_000_000_000:
        raise tolk.TooLarge("at most 1 GB")
    return folder / "stored"


@methods.method(sink=place)
def store(name: str) -> str:
    (folder / "stored").rename(folder / name)
    return f"{name} is here"


@methods.method
def load(name: str) -> tolk.Source:
    return tolk.Source(folder / name)


def show(done: int, total: int) -> None:
    if done == total:
        print(f"{total} bytes have arrived")


where = sys.argv[1] if len(sys.argv) > 1 else "pipe:5000"
with tolk.listen(where, methods), tolk.connect(where) as client:
    print(client.send("store", bytes(100_000), "zeros", progress=show))
    client.fetch("load", folder / "copy", "zeros")
    print((folder / "copy").stat().st_size)
