"""Curves of the library and of the floor that may poll: where throughput ends, what costs grow.

usage: scale.py [--json FILE] [--only callers,…] [--rounds N] [--quick]

Callers that share a client, clients with a caller each, payloads there and back; then a call beside
idle connections, stored results and waiting calls, whose cost must not grow with their number.
"""

import argparse
import datetime
import sys

import common

LIBRARY, FLOOR = ["contestant_library"], ["contestant_bare_threads", "yielding"]
BOTH = {"tolk": LIBRARY, "floor, yielding": FLOOR}
BESIDE = {"tolk": ["tolk_bench_scale"]}
MIB = 1 << 20


class Curve:
    def __init__(self, title, figure, contestants, points, arguments):
        self.title, self.figure = title, figure
        self.contestants, self.points, self.arguments = contestants, points, arguments


CURVES = {
    "callers": Curve("callers on one client, calls/s", "calls_s", BOTH, [1, 2, 4, 8, 16, 32, 64],
                     lambda n: ["echo", "--callers", str(n)]),
    "clients": Curve("clients with one caller each, calls/s", "calls_s", BOTH,
                     [1, 3, 10, 30, 100, 300, 1000], lambda n: ["echo", "--clients", str(n)]),
    "payload": Curve("payload of an echo in bytes, p50 in µs", "p50_us", BOTH,
                     [0, 64, 1024, 16384, 65536, 262144, MIB, 4 * MIB, 16 * MIB, 64 * MIB],
                     lambda n: ["echo", "--payload", str(n)]),
    "idle": Curve("idle connections, p50 of a 64 B echo in µs", "p50_us", BOTH,
                  [1, 10, 100, 1000, 10000], lambda n: ["echo", "--idle", str(n)]),
    "stored": Curve("stored results, p50 of a call in µs", "p50_us", BESIDE,
                    [0, 10, 100, 1000, 10000], lambda n: ["--stored", str(n)]),
    "waiting": Curve("waiting calls, p50 of a call in µs", "p50_us", BESIDE,
                     [1, 10, 100, 1000], lambda n: ["--waiting", str(n)]),
}


def measure(curve, rounds, turn_ms):
    """In each round every point once, so that a slow moment is no knee."""
    seen = {name: {point: [] for point in curve.points} for name in curve.contestants}
    for _ in range(rounds):
        for point in curve.points:
            for name, words in curve.contestants.items():
                arguments = [*curve.arguments(point), "--turn-ms", str(turn_ms)]
                seen[name][point].append(common.turn(words, arguments))
    return {"title": curve.title, "figure": curve.figure, "library": common.library(),
            "turns": seen}


def points_of(result, name):
    """Pairs of a point and the median of its figure."""
    figure = result["figure"]
    pairs = ((int(point), common.median([one[figure] for one in turns if figure in one]))
             for point, turns in result["turns"][name].items())
    return [(point, value) for point, value in pairs if value is not None]


def print_curve(name, result):
    print(f"\n{name}: {result['title']}")
    for contestant in result["turns"]:
        cells = [f"{point}: {common.figure(value)}" for point, value in points_of(result, contestant)]
        print(f"  {contestant:<16} " + "   ".join(cells))
    sys.stdout.flush()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--json", help="write all figures to this file")
    parser.add_argument("--only", default=",".join(CURVES), help="only these curves")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--quick", action="store_true", help="too short to compare")
    options = parser.parse_args()
    document = common.read_json(options.json) if options.json else {}
    document.setdefault("machine", common.machine())
    document["date"] = datetime.date.today().isoformat()
    results = document.setdefault("scale", {})
    rounds, turn_ms = (1, 20) if options.quick else (options.rounds, 200)
    for name in options.only.split(","):
        results[name] = measure(CURVES[name], rounds, turn_ms)
        print_curve(name, results[name])
        if options.json:
            common.write_json(options.json, document)
    return 0


if __name__ == "__main__":
    sys.exit(main())
