"""What the scripts here share: one turn of a contestant, stolen time, the machine, medians."""

import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys

PROGRAMS = pathlib.Path(os.environ.get("BENCH_PROGRAMS", "build/bench/bench"))
TURN_LIMIT_S = 40
LIBRARY_FOLDERS = ["include", "params", "platform", "transport", "sessions", "client", "server",
                   "capi"]


def turn(program, arguments):
    """The figures of one contestant, or {"error": …}: a contestant that fails stops nobody else."""
    words = [str(PROGRAMS / program[0]), *program[1:], *arguments]
    try:
        ended = subprocess.run(words, capture_output=True, text=True, timeout=TURN_LIMIT_S)
    except (OSError, subprocess.TimeoutExpired) as error:
        return {"error": type(error).__name__}
    lines = ended.stdout.strip().splitlines()
    if ended.returncode == 0 and lines:
        figures = json.loads(lines[-1])
        return {name: float(f"{value:.4g}") for name, value in figures.items()}
    said = ended.stderr.strip().splitlines()
    return {"error": said[0][:80] if said else f"ended with {ended.returncode}"}


def use_memory():
    """Fills nine tenths of the free memory, in another process, which gives it back."""
    with open("/proc/meminfo", encoding="ascii") as file:
        free_kib = next(int(line.split()[1]) for line in file if line.startswith("MemAvailable"))
    pieces = free_kib * 9 // 10 // 1024 // 64
    fill = f"kept = [b'x' * (64 << 20) for _ in range({pieces})]"
    subprocess.run([sys.executable, "-c", fill], check=True)


class StolenTime:
    """The part of the processors' time that another machine had since this object was made."""

    def __init__(self):
        self.before = self.read()

    @staticmethod
    def read():
        with open("/proc/stat", encoding="ascii") as file:
            times = [int(word) for word in file.readline().split()[1:9]]
        return sum(times), times[7]

    def part(self):
        total, stolen = (now - then for now, then in zip(self.read(), self.before))
        return round(stolen / total, 4) if total else 0.0


def output_of(*words):
    try:
        return subprocess.run(words, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        for line in file:
            if line.startswith("model name"):
                return " ".join(line.split(":", 1)[1].split())
    return platform.machine()


def machine():
    return {
        "processor": processor(),
        "cores": os.cpu_count(),
        "kernel": platform.release(),
        "compiler": (output_of("c++", "--version").splitlines() or [""])[0],
        "libuv": output_of("pkg-config", "--modversion", "libuv"),
        "virtual": output_of("systemd-detect-virt") or "unknown",
        "load": os.getloadavg()[0],
    }


def library():
    """The commit of the library's sources."""
    return output_of("git", "log", "-1", "--format=%h", "--", *LIBRARY_FOLDERS)


def median(values):
    return statistics.median(values) if values else None


def figure(value):
    """Three or four significant digits, without an exponent."""
    if value is None:
        return "–"
    if abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if abs(value) >= 10 else f"{value:.2f}"


def read_json(path):
    try:
        with open(path, encoding="utf-8") as file:
            return json.load(file)
    except FileNotFoundError:
        return {}


def write_json(path, document):
    """One line for each round, so that a difference can be read."""
    path = pathlib.Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(fold(document) + "\n", encoding="utf-8")


def fold(document, depth=0):
    """JSON whose lists are broken into lines, but not what is in them."""
    inner, outer = " " * (depth + 1), " " * depth
    if isinstance(document, dict) and depth < 4 and document:
        lines = (f"{inner}{json.dumps(k, ensure_ascii=False)}: {fold(v, depth + 1)}"
                 for k, v in document.items())
        return "{\n" + ",\n".join(lines) + f"\n{outer}}}"
    if isinstance(document, list) and document and isinstance(document[0], dict):
        lines = (inner + json.dumps(one, ensure_ascii=False) for one in document)
        return "[\n" + ",\n".join(lines) + f"\n{outer}]"
    return json.dumps(document, ensure_ascii=False)
