"""Calls between two processes: contestants take turns, row by row and round by round.

usage: rows.py [--json FILE] [--rows A,S,…] [--contestants tolk] [--rounds N] [--turn-ms N]
               [--transport pipe] [--peers] [--quick] [--use-memory]

A round is one turn of every contestant (A B C, A B C, …), so that what disturbs the machine
disturbs all of them, and a ratio is the median of the rounds' ratios. A round in which another
machine took more than 2 % of the processors' time is left out and repeated. Rows of an existing
FILE stay unless they are measured again. Other libraries have turns with --peers alone.

A virtual machine gets memory from its host when it uses it for the first time, at a tenth of the
usual speed or less; row D1 shows it. With --use-memory, all of it has been used before the rows.
"""

import argparse
import datetime
import os
import sys

import common

STOLEN_LIMIT = 0.02
MOST_REPEATED = 2  # times the wanted rounds, all together

# Each with its program and the program's first words.
BASELINES = ["floor", "floor, yielding"]
OWN = {
    "bare socket": ["contestant_bare_socket"],
    "floor": ["contestant_bare_threads"],
    "floor, yielding": ["contestant_bare_threads", "yielding"],
    "tolk": ["contestant_library"],
    "tolk, C": ["contestant_capi"],
    "tolk, C, inline": ["contestant_capi", "inline"],
}
PEERS = {
    "gRPC": ["contestant_grpc"],
    "ZeroMQ": ["contestant_zmq"],
    "NNG": ["contestant_nng"],
    "Cap'n Proto": ["contestant_capnp"],
    "Thrift": ["contestant_thrift"],
    "sd-bus": ["contestant_sdbus"],
    "sd-bus, daemon": ["contestant_sdbus", "daemon"],
}
IN_PYTHON = {
    "bare, Python": ["contestant_python", "bare"],
    "tolk, Python": ["contestant_python", "tolk"],
}
OWN_FIELDS = {"tolk": ["fields_tolk"], "tolk, C": ["fields_capi"]}
PEERS_OF_FIELDS = {"protobuf": ["fields_protobuf"], "msgpack": ["fields_msgpack"]}


class Row:
    """`figures`: the first is the one that counts. Times are better when small, rates when big."""

    def __init__(self, title, arguments, figures, own=None, peers=None, rounds=None, turn_ms=None,
                 baselines=None):
        self.title = title
        self.arguments = arguments
        self.figures = figures
        self.own = own or OWN
        self.peers = PEERS if peers is None else peers
        self.rounds = rounds
        self.turn_ms = turn_ms
        self.baselines = baselines or BASELINES


ECHO = ["p50_us", "p99_us", "cpu_us"]
ROWS = {
    "A": Row("64 B echo, one caller", ["echo"], ECHO),
    "A busy": Row("A beside one busy process per core", ["echo", "--busy", str(os.cpu_count())],
                  ECHO),
    "S": Row("64 B echo, one call per ms", ["echo", "--pause-us", "1000"], ECHO, turn_ms=600),
    "B": Row("64 B echo, 8 callers on one client", ["echo", "--callers", "8"],
             ["calls_s", "p50_us", "p99_us", "cpu_us"]),
    "C": Row("64 B posts from one thread, until handled", ["posts"], ["msg_s", "cpu_us"]),
    "D1": Row("64 MiB in one call", ["bulk"], ["mb_s", "cpu_us_mib"], rounds=5, turn_ms=1500),
    "D2": Row("64 MiB in synchronous pieces of 32 KiB", ["bulk", "--piece", "32768"],
              ["mb_s", "cpu_us_mib"], rounds=5, turn_ms=1500),
    "E": Row("memory of the server for an idle client", ["memory", "--clients", "1000"], ["kib"],
             rounds=1),
    "F": Row("block of 8 mixed fields, built and parsed; stream of 1 MiB", [],
             ["fields_ns", "stream_mb_s", "copies_mb_s"], own=OWN_FIELDS,
             peers=PEERS_OF_FIELDS, baselines=["protobuf", "msgpack"]),
    "G": Row("A beside 10,000 idle connections", ["echo", "--idle", "10000"],
             ["p50_us", "p50_alone_us", "times"], peers={}, rounds=3),
    "P": Row("A in Python", ["echo"], ["cpu_us", "p50_us", "p99_us"], own=IN_PYTHON, peers={},
             baselines=["bare, Python"]),
    "H": Row("connect with version check; close", ["connect"],
             ["connect_us", "connect_p99_us", "close_us"], baselines=["bare socket", *BASELINES]),
    "I": Row("wake-ups of an idle client and its server in a second", ["rest"], ["wakes_s"],
             rounds=1, turn_ms=3000),
}


def contestants_of(row, options):
    every = {**row.own, **(row.peers if options.peers else {})}
    return {name: words for name, words in every.items()
            if not options.contestants or name in options.contestants}


def one_round(contestants, arguments):
    stolen = common.StolenTime()
    turns = {name: common.turn(words, arguments) for name, words in contestants.items()}
    return {"stolen": stolen.part(), "turns": turns}


def measure(row, options):
    """All rounds, those that are left out, too."""
    wanted = 1 if options.quick else options.rounds or row.rounds or 9
    turn_ms = options.turn_ms or row.turn_ms or 300
    arguments = [*row.arguments]
    if arguments:
        arguments += ["--turn-ms", str(20 if options.quick else turn_ms)]
        arguments += ["--transport", options.transport]
    rounds = []
    while counted(rounds) < wanted and len(rounds) < MOST_REPEATED * wanted:
        rounds.append(one_round(contestants_of(row, options), arguments))
    return {"title": row.title, "arguments": " ".join(arguments), "figures": row.figures,
            "baselines": row.baselines, "library": common.library(), "rounds": rounds}


def counted(rounds):
    return sum(one["stolen"] <= STOLEN_LIMIT for one in rounds)


def values(result, name, key):
    """A value for each round that counts; None where the contestant failed."""
    return [one["turns"].get(name, {}).get(key) for one in result["rounds"]
            if one["stolen"] <= STOLEN_LIMIT]


def median_of(result, name, key):
    return common.median([value for value in values(result, name, key) if value is not None])


def ratio(result, name, baseline, key):
    pairs = zip(values(result, name, key), values(result, baseline, key))
    return common.median([mine / other for mine, other in pairs if mine is not None and other])


def names_in(result):
    return list(dict.fromkeys(name for one in result["rounds"] for name in one["turns"]))


def error_of(result, name):
    errors = [one["turns"].get(name, {}).get("error") for one in result["rounds"]]
    return next((error for error in errors if error), None)


def print_row(name, result, out=sys.stdout):
    left_out = len(result["rounds"]) - counted(result["rounds"])
    note = f", {left_out} left out" if left_out else ""
    print(f"\n{name}: {result['title']} ({counted(result['rounds'])} rounds{note})", file=out)
    key = result["figures"][0]
    heads = [*result["figures"], *(f"× {baseline}" for baseline in result["baselines"])]
    print(" " * 16 + "".join(f"{head:>18}" for head in heads), file=out)
    for contestant in names_in(result):
        cells = [common.figure(median_of(result, contestant, one)) for one in result["figures"]]
        cells += [common.figure(ratio(result, contestant, one, key)) for one in result["baselines"]]
        error = error_of(result, contestant)
        print(f"{contestant:<16}" + "".join(f"{cell:>18}" for cell in cells) +
              (f"  failed: {error}" if error else ""), file=out)
    out.flush()


def parse_command_line():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--json", help="write all figures of all rounds to this file")
    parser.add_argument("--rows", default=",".join(ROWS), help="only these, for instance A,S")
    parser.add_argument("--contestants", action="append", help="only these, one each time")
    parser.add_argument("--rounds", type=int, default=0)
    parser.add_argument("--turn-ms", type=int, default=0)
    parser.add_argument("--transport", choices=["pipe", "tcp4", "tcp6"], default="pipe")
    parser.add_argument("--peers", action="store_true", help="with other libraries")
    parser.add_argument("--quick", action="store_true", help="too short to compare")
    parser.add_argument("--use-memory", action="store_true", help="fill free memory once, before")
    options = parser.parse_args()
    options.rows = options.rows.split(",")
    unknown = [name for name in options.rows if name not in ROWS]
    if unknown:
        parser.error(f"no such row: {', '.join(unknown)} (there are {', '.join(ROWS)})")
    return options


def main():
    options = parse_command_line()
    if options.use_memory:
        common.use_memory()
    document = common.read_json(options.json) if options.json else {}
    document["machine"] = common.machine()
    document["date"] = datetime.date.today().isoformat()
    results = document.setdefault("rows", {})
    failed = False
    for name in options.rows:
        results[name] = measure(ROWS[name], options)
        print_row(name, results[name])
        failed = failed or any(error_of(results[name], own) for own in names_in(results[name])
                               if own.startswith("tolk"))
        if options.json:
            document["rows"] = {key: results[key] for key in ROWS if key in results}
            common.write_json(options.json, document)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
