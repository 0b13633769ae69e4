"""The tests: which there are, which of them come to the place of a change, and what they say."""

import json
import mmap
import os
import shlex
import signal
import subprocess
import tempfile
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path

SEEN_BYTES = 1 << 16  # as in switch.h
LIMITS = ["prlimit", "--core=0"]
UNIT_SECONDS = 30  # of unit tests for one change
CHUNK_SECONDS = 8  # system tests that run in one test bed
CONFIRM = 2  # so often a system test has to fail: the machine is not always quiet


@dataclass
class Case:
    program: str
    name: str
    is_system: bool
    seconds: float = 0.0
    passes: bool = False
    seen: set = field(default_factory=set)


class Tests:
    def __init__(self, scratch, programs, with_system, system_seconds):
        """programs: by their names, those with the sources in them; the others notice nothing."""
        self.scratch = scratch
        self.programs = programs
        self.system_seconds = system_seconds
        self.cases = []
        command = ["ctest", "--preset", "release", "--show-only=json-v1"]
        for test in json.loads(scratch.call(command, scratch.path))["tests"]:
            command = test.get("command", [])
            if command and command[0].endswith("/testbed"):
                if with_system:
                    self._add_system(command[-1])
            elif (
                len(command) > 1
                and command[1].startswith("--gtest_filter=")
                and Path(command[0]).name in programs
            ):
                self.cases.append(Case(command[0], command[1].split("=", 1)[1], False))

    def _add_system(self, program):
        if not Path(program).exists():
            return
        command = [str(self.scratch.path / "scripts" / "testbed"), program, "--gtest_list_tests"]
        suite = ""
        for line in self.scratch.call(command, self.scratch.path).splitlines():
            name = line.split("#")[0].rstrip()
            if name.startswith("  "):
                self.cases.append(Case(program, suite + name.strip(), True))
            elif name.endswith("."):
                suite = name

    def run(self, cases, limit, number=-1, seen=None, replaced=None):
        """0 when all of them pass; otherwise what the program ended with, None: it did not end."""
        program = cases[0].program
        replaced = replaced or {}
        command = [replaced.get(program, program)]
        command += ["--gtest_filter=" + ":".join(case.name for case in cases)]
        command += ["--gtest_fail_fast", "--gtest_brief=1"]
        if cases[0].is_system:
            mounts = [f"mount --bind {shlex.quote(new)} {shlex.quote(old)}"
                      for old, new in replaced.items()]
            inside = " && ".join([*mounts, 'exec "$@"'])
            command = [str(self.scratch.path / "scripts" / "testbed"), "bash", "-c", inside, "-",
                       program, *command[1:]]
        environment = dict(os.environ) | {"RUK_MUTANT": str(number)}
        if seen:
            environment["RUK_MUTANT_SEEN"] = seen
        return run_limited(LIMITS + command, environment, self.scratch.path, limit)

    def measure(self, jobs, report):
        """Runs each test alone, unchanged, and notes how long it takes and where it comes."""
        units = [case for case in self.cases if not case.is_system]
        beds = [case for case in self.cases if case.is_system]
        with ThreadPoolExecutor(jobs) as pool:
            list(pool.map(self._measure, units))
        with ThreadPoolExecutor(jobs * 2) as pool:  # they mostly wait
            list(pool.map(self._measure, beds))
        for case in self.cases:
            if not case.passes:
                report(f"left out, fails without a change: {case.name} ({case.program})")
        self.cases = [case for case in self.cases if case.passes]

    def take_programs_whole(self):
        """Quicker to measure than each of their tests, slower to judge by: for few changes."""
        whole = {case.program for case in self.cases if not case.is_system}
        self.cases = [case for case in self.cases if case.is_system]
        self.cases += [Case(program, "*", False) for program in whole]

    def _measure(self, case):
        with tempfile.NamedTemporaryFile(dir=self.scratch.path) as file:
            os.chmod(file.name, 0o666)  # a service that has given up its rights writes to it too
            file.truncate(SEEN_BYTES)
            for _ in range(2):
                start = time.monotonic()
                case.passes = self.run([case], 300, seen=file.name) == 0
                case.seconds = time.monotonic() - start
                if case.passes:
                    break
            with mmap.mmap(file.fileno(), SEEN_BYTES, prot=mmap.PROT_READ) as seen:
                case.seen = {i for i, byte in enumerate(seen[:]) if byte}

    def groups(self, cases, near):
        """What runs together: one program's unit tests; a few seconds of one's system tests.

        First those that come to most of what stands near the change, as long as the time lasts:
        to a value that is made when a program starts come all that are linked with the file.
        """
        units, beds, result = {}, [], []
        for case in cases:
            if not case.is_system:
                units.setdefault(case.program, []).append(case)
        spent = 0
        for group in sorted(units.values(), key=lambda group: distance(group, near)):
            spent += total(group)
            if result and spent > UNIT_SECONDS:
                break
            result.append(group)
        spent = 0
        for case in sorted((c for c in cases if c.is_system), key=lambda c: c.seconds):
            spent += case.seconds
            if spent > self.system_seconds:
                break
            beds.append(case)
        while beds:
            group = [case for case in beds if case.program == beds[0].program]
            while len(group) > 1 and total(group) > CHUNK_SECONDS:
                group.pop()
            result.append(group)
            beds = [case for case in beds if case not in group]
        return result

    def killer(self, cases, near, number=-1, replaced=None):
        """The program whose tests notice the change, or None. near: numbers in the same file."""
        for group in self.groups(cases, near):
            ready = replaced.ready_for(group) if replaced else None
            tries = CONFIRM if group[0].is_system else 1
            limit = 10 + 10 * total(group)
            if all(self.run(group, limit, number, replaced=ready) != 0 for _ in range(tries)):
                return Path(group[0].program).name
        return None


def distance(cases, near):
    """How far tests are from a change: the less of what stands near they see, the more of the rest."""
    seen = set().union(*(case.seen for case in cases))
    return -len(seen & near), len(seen - near)


def total(cases):
    return sum(case.seconds for case in cases)


running = set()
running_lock = threading.Lock()
stopped = threading.Event()


def run_limited(command, environment, directory, limit):
    if stopped.is_set():
        raise InterruptedError
    nothing = subprocess.DEVNULL
    with subprocess.Popen(
        command, env=environment, cwd=directory, stdin=nothing, stdout=nothing, stderr=nothing,
        start_new_session=True,
    ) as process:
        with running_lock:
            running.add(process.pid)
        try:
            return process.wait(limit)
        except subprocess.TimeoutExpired:
            return None
        finally:
            with running_lock:
                running.discard(process.pid)
            end_group(process.pid)


def end_group(leader):
    """Whatever the program has started ends with it; the group is of our own making."""
    try:
        os.killpg(leader, signal.SIGKILL)
    except ProcessLookupError:
        pass


def stop():
    """Ends what runs and keeps the other threads from starting more."""
    stopped.set()
    with running_lock:
        for leader in running:
            end_group(leader)
