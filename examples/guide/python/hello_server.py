import sys

import tolk

methods = tolk.Methods()


@methods.method
def add(a: int, b: int) -> int:
    return a + b


with tolk.listen(sys.argv[1] if len(sys.argv) > 1 else "pipe:5000", methods):
    input("press Enter to stop\n")
