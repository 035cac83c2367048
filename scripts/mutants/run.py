"""Plants the faults, one at a time, and runs the tests. scripts/mutate --help says how to use it."""

import argparse
import hashlib
import os
import queue
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import threading
import time
from collections import Counter
from dataclasses import dataclass
from pathlib import Path

from faults import choose, faults_in
from source import Source

ROOT = Path(__file__).resolve().parents[2]
COPIES = ROOT / "build" / "mutate"
FOLDERS = ("params", "transport", "sessions", "client", "server", "platform")
LEFT_OUT = shutil.ignore_patterns("build", ".git", ".cache")
FIRST_LIMIT_S = 600
LEAST_LIMIT_S = 20
LIMIT_FACTOR = 5
# A stage has done most of its work after this time. What is left waits for an event that does not come.
BUSY_S = 15
MEMORY_BYTES = 12 << 30
FILE_BYTES = 64 << 20
FAILED_TEST = re.compile(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", re.M)

KILLED, SURVIVED, SAME_CODE, NOT_BUILT = "killed", "survived", "same code", "did not build"


@dataclass(frozen=True)
class Program:
    path: str
    shards: int = 0  # of a program of GoogleTest
    arguments: tuple = ()

    @staticmethod
    def end_to_end(tests):
        return Program("tolk_e2e_tests", 32, (f"--gtest_filter={tests}",))

    def commands(self, build):
        program = str(build / "tests" / self.path)
        if self.shards == 0:
            return [([program, *self.arguments], {})]
        command = [program, "--gtest_brief=1", "--gtest_fail_fast", *self.arguments]
        shards = [{"GTEST_TOTAL_SHARDS": str(self.shards), "GTEST_SHARD_INDEX": str(i)} for i in range(self.shards)]
        return [(command, environment) for environment in shards]


@dataclass(frozen=True)
class Stage:
    """Programs that run at the same time, and what has to be built for them."""

    name: str
    targets: tuple
    programs: tuple


# The third transport differs from the second in its address; the others take seconds each.
SLOW = ":".join(
    ["*/Tcp6", "ConnectingByPipe.Silent*", "Unanswered*", "InTheProcess.*", "*.LeaveNoMemory*", "EveryEnvelope*"]
)
# First what is quick to build and to run. The tests wait most of their time, so many run at once.
STAGES = [
    Stage(
        "unit",
        ("tolk_unit_tests", "tolk_memory_tests"),
        (Program("tolk_unit_tests", 4), Program("params/tolk_memory_tests", 1)),
    ),
    Stage("end to end", ("tolk", "tolk_e2e_tests"), (Program.end_to_end("-" + SLOW),)),
    Stage(
        "steps and failures",
        ("tolk_steps_tests", "tolk_seam_tests"),
        (Program("steps/tolk_steps_tests", 4), Program("seam/tolk_seam_tests", 1)),
    ),
    Stage(
        "samples",
        ("tolk_steps", "tolk_seam"),
        (
            Program("steps/tolk_steps", 0, ("--short-pauses", "--late-ms", "30000", "--sample", "4", "--seed", "1")),
            Program("seam/tolk_seam", 0, ("--most", "25")),
        ),
    ),
]
if os.geteuid() == 0:
    STAGES.append(Stage("two users", ("tolk_access_tests",), (Program("access/tolk_access_tests", 1),)))
SLOW_STAGE = Stage("slow end to end", (), (Program.end_to_end(SLOW),))


def limited():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_BYTES, MEMORY_BYTES))
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_BYTES, FILE_BYTES))


def give_up(what, output):
    print(f"{what}\n{output[-4000:]}", file=sys.stderr, flush=True)
    sys.exit(2)  # of a thread: its copy takes no more faults


class Run:
    """One process of a test program. Its output goes to a file."""

    def __init__(self, command, environment, log):
        self.command, self.log = command, log
        with open(log, "wb") as output:
            self.process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, cwd=log.parent,
                env={**os.environ, **environment}, start_new_session=True, preexec_fn=limited,
            )  # fmt: skip

    def end(self):
        """Ends the process, if it still runs, and whatever it has started."""
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()

    def failed_tests(self):
        return sorted(set(FAILED_TEST.findall(self.log.read_text(errors="replace"))))


def first_failure(runs, limit_s, when_quiet=lambda: None):
    """The first of the processes that fails, and how; (None, "") when none does. `when_quiet` is called
    once: at the end, or when those that are left only wait."""
    begin = time.monotonic()
    try:
        while True:
            if when_quiet and time.monotonic() > begin + BUSY_S:
                when_quiet()
                when_quiet = None
            states = [run.process.poll() for run in runs]
            for run, state in zip(runs, states):
                if state not in (None, 0):
                    return run, f"signal {-state}" if state < 0 else f"exit status {state}"
            if None not in states:
                return None, ""
            if time.monotonic() > begin + limit_s:
                return runs[states.index(None)], "time limit"
            time.sleep(0.02)
    finally:
        if when_quiet:
            when_quiet()
        for run in runs:
            run.end()


class Copy:
    """A copy of the tree, in which a fault is built and tested."""

    building = threading.Lock()
    testing = threading.Lock()
    limits = {}

    def __init__(self, number):
        self.source = COPIES / str(number) / "source"
        self.build = COPIES / str(number) / "build"
        self.work = COPIES / str(number) / "work"

    def prepare(self):
        """Configures and builds what was copied."""
        self.work.mkdir(parents=True, exist_ok=True)
        self._command(
            "cmake", "-S", self.source, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
            # Without debug information the same code is the same object file.
            "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -DNDEBUG", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache",
            "-DCMAKE_UNITY_BUILD=OFF", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DTOLK_TOOLS=OFF",
            "-DTOLK_EXAMPLES=OFF",
        )  # fmt: skip
        for stage in STAGES:
            self._command("ninja", "-C", self.build, *stage.targets)
        self.objects = self._hashes()

    def time_stages(self):
        """Sees that the tests pass without a fault, and how long that takes."""
        for stage in STAGES:
            begin, notes = time.monotonic(), []
            how = self._failure(stage, notes)
            if how:
                give_up(f"without a fault: {how}", f"the output is in {self.work}")
            took = time.monotonic() - begin
            self.limits[stage] = max(LEAST_LIMIT_S, LIMIT_FACTOR * took)
            print(f"without a fault: {stage.name} passes in {took:.0f} s", *notes, flush=True)

    def outcome(self, fault):
        """(outcome, note)"""
        path = self.source / fault.path
        original = path.read_text()
        path.write_text(fault.planted_in(original))
        try:
            return self._built_and_tested()
        finally:
            path.write_text(original)

    def _built_and_tested(self):
        if not self._builds("tolk_objects"):
            return NOT_BUILT, ""
        if self._hashes() == self.objects:
            return SAME_CODE, ""
        notes = []
        for stage in STAGES:
            if not self._builds(*stage.targets):
                return NOT_BUILT, ""
            how = self._failure(stage, notes)
            if how:
                return KILLED, how
        return SURVIVED, "; ".join(notes)

    def _failure(self, stage, notes):
        """How the tests of the stage fail twice, or "". A failure that does not come again is a note."""
        run, how = self._first_failure(stage)
        if run is None:
            return ""
        tests = run.failed_tests()
        if how == "time limit" or how.startswith("signal"):
            return f"{stage.name}: {how}"
        if tests:
            again = Run([run.command[0], "--gtest_filter=" + ":".join(tests)], {}, run.log.with_suffix(".again"))
            if first_failure([again], self.limits.get(stage, FIRST_LIMIT_S))[0]:
                return f"{stage.name}: {tests[0]}"
        run, how = self._first_failure(stage)
        if run:
            return f"{stage.name}: {(run.failed_tests() or [how])[0]}"
        notes.append(f"failed once in {stage.name}: {(tests or [how])[0]}")
        return ""

    def _first_failure(self, stage):
        self.testing.acquire()
        return first_failure(self._start(stage), self.limits.get(stage, FIRST_LIMIT_S), self.testing.release)

    def _start(self, stage):
        commands = [command for program in stage.programs for command in program.commands(self.build)]
        return [
            Run(command, environment, self.work / f"{index}.log")
            for index, (command, environment) in enumerate(commands)
        ]

    def _builds(self, *targets):
        with self.building:
            command = ["ninja", "-C", self.build, *targets]
            # An interrupt is not the build's.
            result = subprocess.run(command, stdout=subprocess.DEVNULL, start_new_session=True)
        return result.returncode == 0

    def _command(self, *words):
        with self.building:
            result = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if result.returncode != 0:
            give_up(f"failed: {' '.join(map(str, words))}", result.stdout)

    def _hashes(self):
        folder = self.build / "CMakeFiles" / "tolk_objects.dir"
        return {path: hashlib.sha256(path.read_bytes()).digest() for path in folder.rglob("*.o")}

    def copy_tree(self):
        """Writes only what differs, so that only that is built again."""

        def copy(source, target):
            source, target = Path(source), Path(target)
            if not target.exists() or target.read_bytes() != source.read_bytes():
                shutil.copyfile(source, target)
                shutil.copymode(source, target)

        shutil.copytree(ROOT, self.source, ignore=LEFT_OUT, copy_function=copy, dirs_exist_ok=True)
        for path in sorted(self.source.rglob("*"), reverse=True):
            if path.is_file() and not (ROOT / path.relative_to(self.source)).exists():
                path.unlink()


def library_files():
    found = (path for folder in FOLDERS for path in sorted((ROOT / folder).glob("*")))
    return [str(path.relative_to(ROOT)) for path in found if path.suffix in (".h", ".cpp")]


def chosen_faults(options):
    files = [str(Path(path).resolve().relative_to(ROOT)) for path in options.file] or library_files()
    files = [path for path in files if not path.endswith("_windows.cpp")]
    faults = [fault for path in files for fault in faults_in(Source(path, (ROOT / path).read_text()))]
    numbered = list(enumerate(choose(faults, options.count, options.seed), 1))
    return [fault for fault in numbered if fault[0] in options.only] if options.only else numbered


def show(number, fault, outcome="", note="", seconds=None):
    head = f"{outcome:13} " if outcome else ""
    took = f" [{seconds:.0f} s]" if seconds is not None else ""
    tail = f"   ({note})" if note else ""
    print(f"{number:4} {head}{fault.path}:{fault.line}{tail}{took}\n    - {fault.before}\n    + {fault.after}", flush=True)


def next_of(left):
    try:
        return left.get_nowait()
    except queue.Empty:
        return None


def measure(faults, workers):
    """The outcome of each fault that was planted, as (number, fault, outcome, note). The other copies are built
    while the first one works already."""
    left, results, printing = queue.SimpleQueue(), [], threading.Lock()
    for numbered in faults:
        left.put(numbered)
    copies = [Copy(number) for number in range(workers)]
    for copy in copies:
        copy.copy_tree()
    copies[0].prepare()
    copies[0].time_stages()

    def work(copy):
        if copy is not copies[0]:
            copy.prepare()
        while (numbered := next_of(left)) is not None:
            number, fault = numbered
            begin = time.monotonic()
            outcome, note = copy.outcome(fault)
            with printing:
                results.append((number, fault, outcome, note))
                show(number, fault, outcome, note, time.monotonic() - begin)

    threads = [threading.Thread(target=work, args=(copy,)) for copy in copies]
    for thread in threads:
        thread.start()
    try:
        for thread in threads:
            thread.join()
    except KeyboardInterrupt:
        print("ends with the faults under way", flush=True)
        while next_of(left) is not None:
            pass
        for thread in threads:
            thread.join()
    return results


def report(results):
    print("\nsurvivors:")
    for number, fault, outcome, note in sorted(results, key=lambda result: (result[1].path, result[1].line)):
        if outcome == SURVIVED:
            show(number, fault, "", note)
    sums = Counter(outcome for _, _, outcome, _ in results)
    print(
        f"{sums[KILLED] + sums[SURVIVED]} mutants, {sums[KILLED]} killed, {sums[SURVIVED]} survived; "
        f"{sums[NOT_BUILT]} did not build, {sums[SAME_CODE]} were the same code"
    )


def interrupt(*_):
    raise KeyboardInterrupt


def main():
    for way in (signal.SIGINT, signal.SIGTERM):
        signal.signal(way, interrupt)
    parser = argparse.ArgumentParser(prog="scripts/mutate", add_help=False)
    parser.add_argument("--count", type=int, default=100)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 32))
    parser.add_argument("--file", nargs="+", default=[])
    parser.add_argument("--only", nargs="+", type=int, default=[])
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--workers", type=int, default=1)
    parser.add_argument("--list", action="store_true")
    options = parser.parse_args()
    faults = chosen_faults(options)
    print(f"seed {options.seed}", flush=True)
    if options.list:
        for number, fault in faults:
            show(number, fault)
    else:
        if not options.quick:
            STAGES.append(SLOW_STAGE)
        report(measure(faults, options.workers))


main()
