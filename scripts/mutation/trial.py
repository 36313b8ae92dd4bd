"""Builds a mutant in a scratch folder, from the objects of a built tree. Runs tests on it until one fails."""

import collections
import json
import os
import pathlib
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import time

from mutation import changes

MEMORY_LIMIT = 24 << 30  # bytes of address space: a mutant that allocates for ever must not use up the machine's memory
# Undefined behaviour ends the program, as it does under the sanitizers of `make test-all`.
FAST_COMPILER = ["-O0", "-g0", "-U_FORTIFY_SOURCE", "-UNDEBUG", "-fsanitize=undefined", "-fsanitize-undefined-trap-on-error"]
AS_BUILT = ["-Werror=frame-address"]  # the normal build refuses every warning; here only this one is an error
FAST_COMPILER += AS_BUILT
PASSED, FAILED, HUNG = "passed", "failed", "hung"

# A step runs a program of the build tree with these arguments. `name` is the name of the step in results.
Step = collections.namedtuple("Step", "name program arguments")
LONG_TESTS = "*every_order*:*in_every_order*:trace.of_everything*:threaded.*:*leaves_nothing_behind*"


def campaign(name, *arguments):
    return Step(name, "campaign/ats-campaign", ("--jobs", "1", *arguments))


def tests(name, *arguments):
    return Step(name, f"tests/test-{name.split(' ')[0]}", ("--gtest_fail_fast", "--gtest_brief=1", *arguments))


CAMPAIGNS = [campaign("campaign", "--seeds", "60"), campaign("campaign of rarer worlds", "--seeds", "60", "--unhealed", "--paths"),
             campaign("campaign of swarms", "--seeds", "60", "--swarm")]
ATS_TESTS = [tests("ats", f"--gtest_filter=-{LONG_TESTS}"), tests("ats in every order", f"--gtest_filter={LONG_TESTS}")]
FIRST = campaign("campaign of 6 seeds", "--seeds", "6")  # most mutants of the module fail here, in less than a second
# Each part of the tree: its folders, the quick steps and the thorough steps.
PARTS = {
    "module": (["ib-code/ats"], [ATS_TESTS[0], FIRST], [ATS_TESTS[1], *CAMPAIGNS]),
    "peers": (["host/peers/ibat", "host/peers/ucm"], [tests("peers"), ATS_TESTS[0], FIRST], [*CAMPAIGNS, ATS_TESTS[1]]),
    "stack": (["host/stack"], [tests("stack"), ATS_TESTS[0], tests("kernel"), FIRST], [*CAMPAIGNS, ATS_TESTS[1]]),
    "kernel": (["host/kernel"], [tests("kernel"), ATS_TESTS[0], tests("stack"), FIRST], [*CAMPAIGNS, ATS_TESTS[1]]),
    "exec": (["host/exec"], [tests("kernel"), ATS_TESTS[0], tests("stack"), FIRST], [*CAMPAIGNS, ATS_TESTS[1]]),
}
# Often only the thread sanitizer notices that a lock is missing. These steps run in a tree that is built with it. A race needs
# two threads that meet, so each test runs ten times.
THREAD_PARTS = ("stack", "kernel")
THREAD_STEPS = [tests(f"{name} under the thread sanitizer", "--gtest_filter=threads.*-*.*dies*", "--gtest_repeat=10") for name in ("kernel", "stack")]
DROPPED_LOCK = "the lock is dropped"


def default_tree(part):
    """Returns the preset of a tree that compiles each file of the part by itself. Every tree does this with the files of ib-code/ats.
    `release` compiles several files of any other part together."""
    return "release" if part == "module" else "dev"


def run_limited(command, folder, environment, memory, processor_seconds, seconds):
    """Runs a command with limits of its processor time and its memory. Kills all its processes when the command has ended, or
    after `seconds`. Returns PASSED, FAILED or HUNG."""
    def limit():
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_AS, (memory, memory))
        resource.setrlimit(resource.RLIMIT_CPU, (processor_seconds, processor_seconds + 1))

    process = subprocess.Popen(command, cwd=folder, env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               preexec_fn=limit, start_new_session=True)
    try:
        code = process.wait(seconds)
        return PASSED if code == 0 else HUNG if code in (-signal.SIGXCPU, -signal.SIGKILL) else FAILED
    except subprocess.TimeoutExpired:
        return HUNG
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()


class Bench:
    """A built tree, and a scratch folder for one mutant at a time. The tree itself does not change."""

    def __init__(self, root, build, folder, folders, steps, is_fast=True):
        """If `is_fast` is false, mutants are compiled with the options of the tree. A tree with a sanitizer needs this."""
        self.root, self.build, self.folder, self.folders, self.steps, self.is_fast = root, build, folder, folders, steps, is_fast
        self.limits = {}
        self.linked = set()
        shutil.rmtree(folder, ignore_errors=True)
        (folder / "modules").mkdir(parents=True)
        for module in (build / "modules").glob("*.so"):
            (folder / "modules" / module.name).symlink_to(module)
        self.headers = {}
        self.links = {target: self.link_command(target) for target in self.targets()}
        self.commands = self.compile_commands()

    def targets(self):
        """Returns the modules or programs that contain the part's code and must be linked again for each mutant."""
        modules = {"ib-code/ats": "ats", "host/peers/ibat": "ibat", "host/peers/ucm": "ucm"}
        named = [f"modules/{modules[folder]}.so" for folder in self.folders if folder in modules]
        return named or sorted({step.program for step in self.steps})

    def compile_commands(self):
        """Returns {file: words of the command}. A file may be compiled for other products, too, so takes the object that is linked here."""
        linked = {word for words in self.links.values() for word in words}
        commands = json.loads((self.build / "compile_commands.json").read_text())
        return {each["file"]: words for each in commands
                if (words := shlex.split(each["command"]))[words.index("-o") + 1] in linked}

    def link_command(self, target):
        output = subprocess.run(["ninja", "-t", "commands", target], cwd=self.build, capture_output=True, text=True, check=True).stdout
        words = shlex.split(output.splitlines()[-1])
        return words[words.index("&&") + 1:len(words) - words[::-1].index("&&") - 1]

    def compile_command(self, path, source, output):
        """Returns the command that compiles a file of the tree, with another source and output file, and without the usual warnings."""
        words = [word for word in self.commands[str(path)] if word not in ("-Wall", "-Wextra", "-Werror")]
        words[words.index("-o") + 1] = str(output)
        words[words.index("-c") + 1] = str(source)
        return [words[0], "-iquote", str(path.parent), *words[1:]]

    def headers_of(self, path):
        """Compiles the headers that a file includes, once for all mutants of the file: the headers take most of the compiler's time."""
        if path not in self.headers:
            text = path.read_text()
            lines = text[:text.find("\n#if")].splitlines() if "\n#if" in text else text.splitlines()
            last = max((number for number, line in enumerate(lines) if line.startswith("#include")), default=-1)
            header = self.folder / "headers" / (path.stem + "-includes.h")
            header.parent.mkdir(exist_ok=True)
            header.write_text("\n".join(lines[:last + 1]) + "\n")
            words = self.compile_command(path, header, f"{header}.gch") + FAST_COMPILER
            words[words.index("-c"):words.index("-c") + 1] = ["-x", "c++-header", "-c"]
            subprocess.run(words, cwd=self.build, check=True)
            self.headers[path] = header
        return self.headers[path]

    def compile(self, mutant_file, text, output, is_fast):
        """Compiles `text` with the command of a file of the tree. Returns false if it does not compile."""
        path = self.root / mutant_file
        copy = self.folder / path.name
        copy.write_bytes(text)
        words = self.compile_command(path, copy, output)
        words += [*FAST_COMPILER, "-include", str(self.headers_of(path))] if is_fast else AS_BUILT
        return subprocess.run(words, cwd=self.build, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0

    def link(self, target, mutant_file, object_file):
        """Links a target into the scratch folder, with `object_file` in place of the object of the mutant's file."""
        words = list(self.links[target])
        compiled = self.commands[str(self.root / mutant_file)]
        replaced = compiled[compiled.index("-o") + 1]
        linked = self.folder / target
        linked.parent.mkdir(parents=True, exist_ok=True)
        linked.unlink(missing_ok=True)  # it may contain an earlier mutant
        if replaced not in words:  # this target does not contain the file
            linked.symlink_to(self.build / target)
            return
        words[words.index(replaced)] = str(object_file)
        words[words.index("-o") + 1] = str(linked)
        if not target.endswith(".so"):
            words.append("-fuse-ld=lld")  # modules need the script of GNU's linker (cmake/targets.cmake)
        subprocess.run(words, cwd=self.build, check=True, stdout=subprocess.DEVNULL)

    def program_of(self, step):
        changed = self.folder / step.program
        return changed if changed.exists() else self.build / step.program

    def run(self, step):
        processor_seconds, seconds = self.limits.get(step.name, (3600, 3600))
        # The C library overwrites freed memory, so most mutants that use freed memory fail.
        environment = dict(os.environ, ATS_MODULE_DIR=str(self.folder / "modules"), MALLOC_PERTURB_="165", TSAN_OPTIONS="halt_on_error=1")
        memory = MEMORY_LIMIT if self.is_fast else resource.RLIM_INFINITY  # sanitizers reserve a large part of all addresses
        return run_limited([str(self.program_of(step)), *step.arguments], self.folder, environment, memory, processor_seconds, seconds)

    def measure(self):
        """Runs every step on the unchanged tree. A mutant that takes much longer than this counts as hung."""
        for step in self.steps:
            begin, used = time.monotonic(), resource.getrusage(resource.RUSAGE_CHILDREN)
            if self.run(step) != PASSED:
                sys.exit(f"mutants: without any change, this fails: {self.program_of(step)} {' '.join(step.arguments)}")
            now = resource.getrusage(resource.RUSAGE_CHILDREN)
            processor = now.ru_utime + now.ru_stime - used.ru_utime - used.ru_stime
            self.limits[step.name] = (round(2 + 10 * processor), 60 + 10 * (time.monotonic() - begin))

    def makes_same_code(self, mutant, source):
        """Returns true if the mutant and the original compile to the same object with -O2. Then no test can notice the mutant."""
        objects = [self.folder / "original.o", self.folder / "changed.o"]
        for text, output in zip((source, changes.mutated(source, mutant)), objects):
            if not self.compile(mutant.file, text, output, is_fast=False):
                return False
        return objects[0].read_bytes() == objects[1].read_bytes()

    def begin(self, mutant):
        """Compiles a mutant for the next steps. Returns false if it does not compile."""
        self.linked = set()
        source = (self.root / mutant.file).read_bytes()
        return self.compile(mutant.file, changes.mutated(source, mutant), self.folder / "mutant.o", self.is_fast)

    def run_changed(self, step, mutant):
        for target in self.links:
            if target not in self.linked and (target.endswith(".so") or target == step.program):
                self.link(target, mutant.file, self.folder / "mutant.o")
                self.linked.add(target)
        return self.run(step)


class Trial:
    """Runs the steps of a part on one mutant at a time."""

    def __init__(self, root, build, thread_build, folder, part, is_quick):
        """`thread_build` is a tree with the thread sanitizer, or None. Without it, most dropped locks survive."""
        folders, self.quick_steps, thorough_steps = PARTS[part]
        self.thorough_steps = [] if is_quick else thorough_steps
        self.bench = Bench(root, build, folder, folders, self.quick_steps + self.thorough_steps)
        self.thread_bench = Bench(root, thread_build, folder / "threads", folders, THREAD_STEPS, is_fast=False) if thread_build else None

    def measure(self):
        self.bench.measure()
        if self.thread_bench:
            self.thread_bench.measure()

    def verdict(self, mutant):
        """Returns (verdict, name of the step). The verdict is failed, hung, survived, "same code" or "not compiled"."""
        if not self.bench.begin(mutant):
            return "not compiled", ""
        for step in self.quick_steps:
            if (result := self.bench.run_changed(step, mutant)) != PASSED:
                return result, step.name
        if self.bench.makes_same_code(mutant, (self.bench.root / mutant.file).read_bytes()):
            return "same code", ""
        if self.thread_bench and mutant.change == DROPPED_LOCK and self.thread_bench.begin(mutant):
            for step in THREAD_STEPS:
                if (result := self.thread_bench.run_changed(step, mutant)) != PASSED:
                    return result, step.name
        for step in self.thorough_steps:
            if (result := self.bench.run_changed(step, mutant)) != PASSED:
                return result, step.name
        return "survived", ""
