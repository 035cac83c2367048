"""Makes docs/benchmarks/README.md and its two charts from docs/benchmarks/figures.json."""

import pathlib
import string
import sys

import charts
import common
import rows
import scale

FOLDER = pathlib.Path("docs/benchmarks")
TEXT = pathlib.Path(__file__).parent / "page.md"
INSTRUCTIONS = pathlib.Path(__file__).parent.parent / "instructions.json"
COLUMNS = [("A", "p50_us"), ("A", "p99_us"), ("A busy", "p50_us"), ("S", "p50_us"),
           ("S", "p99_us"), ("S", "cpu_us"), ("B", "calls_s"), ("C", "msg_s"), ("D1", "mb_s"),
           ("D2", "mb_s"), ("E", "kib"), ("H", "connect_us"), ("H", "close_us"),
           ("I", "wakes_s")]
HEADS = {"p50_us": "p50 µs", "p99_us": "p99 µs", "cpu_us": "cpu µs", "calls_s": "calls/s",
         "msg_s": "msg/s", "mb_s": "MB/s", "kib": "KiB", "connect_us": "µs", "close_us": "close µs",
         "wakes_s": "wake-ups/s"}


def table(heads, lines):
    parts = ["| " + " | ".join(heads) + " |", "|---" + "|---:" * (len(heads) - 1) + "|"]
    return "\n".join(parts + ["| " + " | ".join(line) + " |" for line in lines])


def rounds_of(result):
    counted = rows.counted(result["rounds"])
    left_out = len(result["rounds"]) - counted
    return f"{counted} (+{left_out})" if left_out else str(counted)


def c_ratios_table(results):
    lines = []
    for name, result in results.items():
        if name in ("F", "G", "I") or "tolk, C" not in rows.names_in(result):
            continue
        key = result["figures"][0]
        cells = []
        for mine in ("tolk, C", "tolk, C, inline"):
            cells.append(common.figure(rows.median_of(result, mine, key)) + " " + charts.UNITS[key])
            cells += [common.figure(rows.ratio(result, mine, one, key)) for one in rows.BASELINES]
        lines.append([f"{name}: {result['title']}", *cells])
    heads = ["× floor", "× floor, yielding"]
    return table(["Row", "tolk, C", *heads, "tolk, C, inline", *heads], lines)


def wakes_line(results):
    result = results.get("I")
    if not result:
        return ""
    said = [f"{name} {common.figure(rows.median_of(result, name, 'wakes_s'))}"
            for name in rows.names_in(result)]
    return f"Wake-ups of an idle client and its server in a second: {'; '.join(said)}."


def ratios_table(results):
    lines = []
    for name, result in results.items():
        if name in ("F", "G", "I", "P"):
            continue
        key = result["figures"][0]
        cells = [common.figure(rows.median_of(result, "tolk", key)) + " " + charts.UNITS[key]]
        cells += [common.figure(rows.ratio(result, "tolk", one, key))
                  for one in ("bare socket", *rows.BASELINES)]
        lines.append([f"{name}: {result['title']}", *cells, rounds_of(result)])
    return table(["Row", "tolk", "× bare socket", "× floor", "× floor, yielding", "rounds"], lines)


def contestants_table(results):
    columns = [(name, key) for name, key in COLUMNS if name in results]
    names = list(dict.fromkeys(one for name, _ in columns for one in rows.names_in(results[name])))
    lines = [[contestant, *(common.figure(rows.median_of(results[name], contestant, key))
                            for name, key in columns)] for contestant in names]
    return table(["", *(f"{name} {HEADS[key]}" for name, key in columns)], lines)


def idle_table(results):
    result = results.get("G")
    if not result:
        return ""
    lines = [[name, *(common.figure(rows.median_of(result, name, key))
                      for key in ("p50_alone_us", "p50_us", "times"))]
             for name in rows.names_in(result)]
    return table(["G: 64 B echo, p50", "alone, µs", "with 10,000, µs", "×"], lines)


def fields_table(results):
    result = results.get("F")
    if not result:
        return ""
    lines = [[name, *(common.figure(rows.median_of(result, name, key))
                      for key in ("fields_ns", "stream_mb_s"))] for name in rows.names_in(result)]
    return table(["F: built and parsed", "8 mixed fields, ns", "stream of 1 MiB, MB/s"], lines)


def python_table(results):
    result = results.get("P")
    if not result:
        return ""
    keys, (baseline,) = result["figures"], result["baselines"]
    lines = [[name, *(common.figure(rows.median_of(result, name, key)) for key in keys),
              common.figure(rows.ratio(result, name, baseline, keys[0]))]
             for name in rows.names_in(result)]
    heads = [f"P: {result['title']}", *(HEADS[key] for key in keys), f"cpu × {baseline}"]
    return table(heads, lines)


def growth_table(results):
    """The last point of the curves that have to be flat, beside their first."""
    lines = []
    for name in ("idle", "stored", "waiting"):
        points = scale.points_of(results[name], "tolk") if name in results else []
        if points:
            (first, before), (last, after) = points[0], points[-1]
            lines.append([results[name]["title"].split(",")[0], f"{first:,}: {common.figure(before)}",
                          f"{last:,}: {common.figure(after)}", common.figure(after / before)])
    return table(["A call beside", "fewest, p50 µs", "most, p50 µs", "×"], lines)


def instructions_table():
    counts = common.read_json(INSTRUCTIONS)
    titles = {"build": "a block of 8 fields, built", "parse": "the same, parsed",
              "call": "a call with 64 B and its echo", "post": "a post of 64 B"}
    lines = [[title, f"{counts[kind]['own']:,}", f"{counts[kind]['all']:,}"]
             for kind, title in titles.items() if kind in counts]
    return table(["Instructions of", "the library", "libuv and the C library, too"], lines)


def failures(results):
    said = [f"- {contestant} failed in row {name}" for name, result in results.items()
            for contestant in rows.names_in(result) if rows.error_of(result, contestant)]
    return "\n".join(["", *said, ""]) if said else ""


def machine_line(document):
    about = document["machine"]
    results = [*document.get("rows", {}).values(), *document.get("scale", {}).values()]
    versions = dict.fromkeys(result["library"] for result in results)
    return (f"{about['processor']}, {about['cores']} cores, Linux {about['kernel']}, "
            f"{about['compiler']}, libuv {about['libuv']}.\n"
            f"Library: {', '.join(versions)}; {document['date']}")


def main():
    document = common.read_json(FOLDER / "figures.json")
    if not document:
        print("docs/benchmarks/figures.json is missing: scripts/bench --json makes it")
        return 1
    results, curves = document.get("rows", {}), document.get("scale", {})
    page = string.Template(TEXT.read_text(encoding="utf-8")).substitute(
        machine=machine_line(document), ratios=ratios_table(results),
        c_ratios=c_ratios_table(results), wakes=wakes_line(results),
        contestants=contestants_table(results), idle=idle_table(results),
        fields=fields_table(results), python=python_table(results),
        growth=growth_table(curves), instructions=instructions_table(),
        failures=failures(results))
    (FOLDER / "README.md").write_text(page, encoding="utf-8")
    (FOLDER / "rows.svg").write_text(charts.bars(results), encoding="utf-8")
    (FOLDER / "curves.svg").write_text(charts.curves(curves), encoding="utf-8")
    print(f"{FOLDER}/README.md: {page.count(chr(10))} lines")
    return 0


if __name__ == "__main__":
    sys.exit(main())
