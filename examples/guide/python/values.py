import dataclasses
import sys
from typing import List

import tolk


@dataclasses.dataclass
class Point:
    x: float
    y: float


methods = tolk.Methods()


@methods.method
def middle(points: List[Point]) -> Point:
    """The point between others."""
    count = len(points)
    return Point(sum(one.x for one in points) / count, sum(one.y for one in points) / count)


@methods.method
def log(text: str, *, level: int = 0) -> None:
    print(level, text)


where = sys.argv[1] if len(sys.argv) > 1 else "pipe:5000"
with tolk.listen(where, methods), tolk.connect(where) as client:
    points = [Point(0, 0), Point(4, 2)]
    print(client.call("middle", points, result=Point))  # its type is Point
    print(client.call("middle", points))  # without a type, a struct is a dict
    client.call("log", "disk nearly full", level=3)
    print(client.describe()[1])
