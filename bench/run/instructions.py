"""Instructions of building and parsing a block, and of a call, beside those of the last time.

usage: instructions.py [--update]

Counted by callgrind, as the difference between many and few of them, so that the start and the end
of the process do not count. `own` are the instructions in the library itself, `all` those of libuv
and the C library, too; of a call, both sides together. The median of three runs. The counts of the
last --update are in bench/instructions.json. They depend on the compiler, and those of calls a
little on the order of threads; a difference of more than 3 % (of `all`, 10 %) is marked.
"""

import argparse
import collections
import pathlib
import subprocess
import sys
import tempfile

import common

FILE = pathlib.Path(__file__).parent.parent / "instructions.json"
KINDS = {"build": "a block of 8 fields, built", "parse": "the same, parsed",
         "call": "a call with 64 B and its echo", "post": "a post of 64 B"}
FEW, MANY = 200, 1200
RUNS = 3
SHOWN = {"own": 0.03, "all": 0.10}


def counts_by_object(path):
    """The instructions of each program file. A line after calls= is what the callee took."""
    names, counts = {}, collections.Counter()
    current, skip = None, False
    for line in path.read_text().splitlines():
        if line.startswith("ob="):
            number, _, name = line[3:].partition(" ")
            names.setdefault(number, name)
            current = names[number]
        elif line.startswith("cob="):
            number, _, name = line[4:].partition(" ")
            names.setdefault(number, name)
        elif line.startswith("calls="):
            skip = True
        elif line[:1].isdigit() or line[:1] in ("+", "-", "*"):
            if not skip:
                counts[current] += int(line.split()[1])
            skip = False
    return counts


def count(kind, times):
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder) / "callgrind"
        words = ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={out}",
                 str(common.PROGRAMS / "tolk_bench_instructions"), kind, str(times)]
        subprocess.run(words, check=True, stdout=subprocess.DEVNULL, timeout=common.TURN_LIMIT_S)
        counts = counts_by_object(out)
    own = sum(value for name, value in counts.items() if "libtolk" in name)
    return own, sum(counts.values())


def once(kind):
    few, many = count(kind, FEW), count(kind, MANY)
    return [(after - before) / (MANY - FEW) for before, after in zip(few, many)]


def measure(kind):
    own, every = zip(*(once(kind) for _ in range(RUNS)))
    return {"own": round(common.median(own)), "all": round(common.median(every))}


def change(now, before, shown):
    if not before:
        return ""
    part = now / before - 1
    return f"{part:+.1%}" + (" !" if abs(part) > shown else "")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--update", action="store_true", help="keep the counts for the next time")
    options = parser.parse_args()
    before = common.read_json(FILE)
    counts = {kind: measure(kind) for kind in KINDS}
    print(f"{'instructions of':<32}{'own':>9}{'':>11}{'all':>9}")
    for kind, title in KINDS.items():
        old = before.get(kind, {})
        cells = [f"{counts[kind][key]:>9}{change(counts[kind][key], old.get(key), SHOWN[key]):>11}"
                 for key in ("own", "all")]
        print(f"{title:<32}" + "".join(cells))
    if options.update or not before:
        common.write_json(FILE, {**counts, "compiler": common.machine()["compiler"]})
    return 0


if __name__ == "__main__":
    sys.exit(main())
