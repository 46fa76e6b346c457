"""Injects, builds and tests faults in a copy of the project."""

import copy
import fcntl
import hashlib
import json
import os
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path

MOST_MEMORY = 8 << 30  # bytes, per test process
MOST_OUTPUT = 256 << 20  # bytes, per test process
# With a base folder, ccache makes paths relative, but tests check the paths in log lines.
COMPILER_ENVIRONMENT = {"CCACHE_BASEDIR": ""}
BUILD_TIME = 1800  # seconds, maximum for building one program
FIRST_RUN_TIME = 900  # seconds, assumed usual time of a program before its first run
CONFIRMATIONS = 3  # attempts to make a failed test fail again
LONGER = 3  # factor of the time limit when a hang is confirmed
FLAKY_TESTS = 5  # maximum number of tests that a run ignores

RUNNING = re.compile(r"^\[ RUN      \] (\S+)", re.MULTILINE)
FAILED = re.compile(r"^\[  FAILED  \] ([^\s,]+)(?:,.*)? \(\d+ ms\)$", re.MULTILINE)


class WorkshopError(Exception):
    """The project cannot be built, or its tests fail without an injected fault."""


@dataclass(frozen=True)
class Program:
    """A test program. With GoogleTest, its tests are distributed over several processes. In the arguments, {tree}
    is replaced by the folder of the copy."""

    name: str
    arguments: tuple = ()
    is_networked: bool = False
    shards: int = 1
    is_googletest: bool = True


@dataclass
class Verdict:
    outcome: str  # "noticed", "survived" or "does not compile"
    by: str = ""
    seconds: float = 0


@dataclass
class _Run:
    passed: bool
    failed: list = field(default_factory=list)  # names of the failed tests, if known
    hung: bool = False


class Workshop:
    def __init__(self, root, folder, programs_for, options, jobs, say=lambda text: None, patience=30):
        """`programs_for(path)` returns the programs that try a fault in that file, the most likely to notice first.
        `options` are passed to CMake. A program is considered hanging after three times its usual time plus
        `patience` seconds."""
        self.root, self.folder = Path(root), Path(folder)
        self.tree, self.build = self.folder / "tree", self.folder / "build"
        self._programs_for, self._options, self._jobs, self._say = programs_for, options, jobs, say
        self._patience = patience
        self._note = self.folder / "planted"
        self._wrapper = []
        self._usual_time = {}
        self._planted = None

    def prepare(self):
        """Synchronises the copy with the checkout, including uncommitted changes."""
        self.folder.mkdir(parents=True, exist_ok=True)
        self._lock = open(self.folder / "lock", "w", encoding="utf-8")
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            self.close()
            raise WorkshopError(f"another run is using {self.folder}") from None
        self._copy()
        if self._note.exists():  # the last run was killed, so objects built from that file may contain the fault
            (self.tree / self._note.read_text()).touch()
            self._note.unlink()

    def sibling(self, build, options, wrapper):
        """Returns a workshop on the same copy with a separate build that has additional options. The command `wrapper`
        starts its programs."""
        other = copy.copy(self)
        other.build, other._options, other._wrapper = self.folder / build, self._options + options, wrapper
        other._usual_time = {}
        return other

    def close(self):
        """Releases the folder for another run."""
        self._lock.close()

    def read(self, path):
        return (self.tree / path).read_text()

    def attempt(self, fault):
        """Injects the fault and runs one program after the other until one notices it."""
        if not (self.build / "build.ninja").exists():
            self._command("cmake", "-G", "Ninja", "-S", self.tree, "-B", self.build, *self._options)
        programs = [program for program in self._programs_for(fault.path) if self._exists(program)]
        if not programs:
            raise WorkshopError(f"there is no test program for {fault.path}")
        begin = time.monotonic()
        for program in programs:
            self._learn_usual_time(program)
        try:
            self._plant(fault)
            return self._try(programs, begin)
        finally:
            self._restore()

    def _try(self, programs, begin):
        for program in programs:
            if not self._is_built(program):
                return Verdict("does not compile", "", time.monotonic() - begin)
            by = self._noticed_by(program)
            if by:
                return Verdict("noticed", by, time.monotonic() - begin)
        return Verdict("survived", ", ".join(program.name for program in programs), time.monotonic() - begin)

    def _copy(self):
        listed = self._command("git", "-C", self.root, "ls-files", "-z", "--cached", "--others",
                               "--exclude-standard").split("\0")
        files = sorted(name for name in listed if name and (self.root / name).is_file())
        digest = hashlib.sha1()
        for name in files:
            digest.update(name.encode() + (self.root / name).read_bytes())
            source, target = self.root / name, self.tree / name
            if not target.exists() or source.read_bytes() != target.read_bytes():
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(source, target)  # sets the current time, so that the file is rebuilt
        for target in self.tree.rglob("*"):
            if target.is_file() and str(target.relative_to(self.tree)) not in files:
                target.unlink()
        self._digest = digest.hexdigest()

    def _plant(self, fault):
        path = self.tree / fault.path
        self._planted = (path, path.read_text())
        self._note.write_text(fault.path)
        path.write_text(fault.planted())

    def _restore(self):
        if self._planted:
            path, text = self._planted
            path.write_text(text)
            self._note.unlink()
            self._planted = None

    def _exists(self, program):
        return re.search(rf"^build bin/{program.name}[ :]", (self.build / "build.ninja").read_text(), re.MULTILINE)

    def _is_built(self, program):
        with tempfile.TemporaryFile("w+") as output:
            ninja = subprocess.Popen(["ninja", "-C", self.build, "-j", str(self._jobs), program.name],
                                     stdout=output, stderr=output, env=os.environ | COMPILER_ENVIRONMENT,
                                     start_new_session=True)
            try:
                ninja.wait(BUILD_TIME)
            except subprocess.TimeoutExpired:
                pass
            finally:
                _end(ninja)  # also ends its compilers, which would otherwise keep running
            output.seek(0)
            self._build_output = output.read()
        return ninja.returncode == 0

    def _learn_usual_time(self, program):
        """Measures the usual time of the program, whose tests must all pass without a fault. Caches the result for
        the same state of the copy."""
        if program.name in self._usual_time:
            return
        memory = self.build / "usual-times.json"
        remembered = json.loads(memory.read_text()) if memory.exists() else {}
        if remembered.get(program.name, {}).get("digest") == self._digest:
            self._usual_time[program.name] = remembered[program.name]["seconds"]
            return
        self._say(f"building and running {program.name} without a fault ...")
        if not self._is_built(program):
            raise WorkshopError(f"{program.name} cannot be built:\n{self._build_output}")
        begin = time.monotonic()
        self._usual_time[program.name] = FIRST_RUN_TIME
        by = self._noticed_by(program)
        if by:
            raise WorkshopError(f"there is no fault yet, but {by} fails")
        self._usual_time[program.name] = time.monotonic() - begin
        remembered[program.name] = {"digest": self._digest, "seconds": self._usual_time[program.name]}
        memory.write_text(json.dumps(remembered))

    def _noticed_by(self, program):
        """Returns the test that fails because of the fault, or an empty string. To ignore tests that fail occasionally
        because the machine is busy, a failed test must fail again within a few attempts."""
        passed_over = []
        while True:
            run = self._run(program, program.shards, ["-" + ":".join(passed_over)] if passed_over else [])
            if run.hung:
                run = self._run(program, program.shards, [], LONGER)  # the machine may have been busy
            if run.passed:
                return ""
            if run.hung:
                return f"{program.name}, which does not end"
            by = " ".join([program.name, *run.failed[:1]])
            if len(passed_over) >= FLAKY_TESTS or self._fails_again(program, run):
                return by
            passed_over += run.failed

    def _fails_again(self, program, run):
        if not run.failed:
            return True
        return any(not self._run(program, 1, [":".join(run.failed)]).passed for _ in range(CONFIRMATIONS))

    def _run(self, program, shards, filters, longer=1):
        """Runs the program until all its processes have ended, one has failed, or the time limit has expired."""
        limit = (3 * self._usual_time[program.name] + self._patience) * longer
        with tempfile.TemporaryDirectory() as folder:
            outputs = [Path(folder) / str(index) for index in range(shards)]
            processes = [self._start(program, index, shards, filters, outputs[index]) for index in range(shards)]
            try:
                return self._wait(processes, outputs, time.monotonic() + limit)
            finally:
                for process in processes:
                    _end(process)

    def _start(self, program, index, shards, filters, output):
        command = [str(self.build / "bin" / program.name), *(one.format(tree=self.tree) for one in program.arguments)]
        if program.is_networked:
            command.insert(0, str(self.tree / "tests/support/in-namespace.sh"))
        command = self._wrapper + command
        environment = os.environ | {"TSAN_OPTIONS": "halt_on_error=1 second_deadlock_stack=1"}
        if program.is_googletest:
            environment |= {"GTEST_TOTAL_SHARDS": str(shards), "GTEST_SHARD_INDEX": str(index),
                            "GTEST_FAIL_FAST": "1"}
            command += [f"--gtest_filter={one}" for one in filters]
        with open(output, "wb") as stream:
            return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=stream, stderr=stream,
                                    env=environment, start_new_session=True,
                                    preexec_fn=_bound_output if self._wrapper else _bound)

    @staticmethod
    def _wait(processes, outputs, end):
        while True:
            codes = [process.poll() for process in processes]
            for code, output in zip(codes, outputs):
                if code == 77:
                    raise WorkshopError("the kernel forbids network namespaces to this user")
                if code:
                    return _Run(False, _failed_tests(output.read_text(errors="replace")))
            if None not in codes:
                return _Run(True)
            if time.monotonic() > end:
                return _Run(False, hung=True)
            time.sleep(0.02)

    def _command(self, *command):
        done = subprocess.run([str(one) for one in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              check=False, text=True)
        if done.returncode:
            raise WorkshopError(f"{command[0]} failed:\n{done.stdout}")
        return done.stdout


def _bound():
    resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY, MOST_MEMORY))
    _bound_output()


def _bound_output():
    """Does not limit the address space, because ThreadSanitizer reserves more of it than there is memory."""
    resource.setrlimit(resource.RLIMIT_FSIZE, (MOST_OUTPUT, MOST_OUTPUT))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def _end(process):
    """Kills the process and its process group, which contains everything that it has started."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def _failed_tests(output):
    """Returns the failed tests, or else the test during which the program ended."""
    failed = list(dict.fromkeys(FAILED.findall(output)))
    return failed or RUNNING.findall(output)[-1:]
