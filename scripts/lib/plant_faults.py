"""Plants one-line faults in a copy of the sources, and counts how many the tests find. See
scripts/mutants."""

import collections
import glob
import hashlib
import json
import os
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

COPY = os.path.abspath("build/mutants")
BUILD = os.path.join(COPY, "build/release")
OUTPUT = os.path.join(COPY, "build/test-output")  # of the last test
OTHER_CODE = ("tests/", "builders/", "fuzz/", "bench/", "examples/", "fixtures/", "scripts/")
# What the production code becomes: targets, and their files.
PRODUCT_TARGETS = ("symforge", "symforge_resolver", "symforge_shared")
PRODUCTS = ("symforge", "libsymforge-resolver.a", "libsymforge.so")
# Tests of builds and of installed files: minutes for each fault, of which they look for none.
BUILD_TESTS = ("hardening_test", "ndebug_test", "subproject_test", "install_test")
# The folders of the tests of other folders.
TEST_FOLDERS = {"driver": ("batch", "program"), "src": ("base", "msf", "program")}
MEMORY = 8 << 30  # bytes for a process of a test, without the files that it maps
PROCESSOR_SECONDS = 40  # for each process of a test; a fault can make it endless
WAITING_SECONDS = 60  # for a test whose processes all sleep
SKIPPED = 77  # status of a test that cannot run here

# Kinds of faults: what is replaced, and by which texts.
COMPARISONS = ((r"(?<= )<(?= )", ("<=", ">")), (r"(?<= )>(?= )", (">=", "<")), (r"<=", ("<",)),
               (r"(?<= )>=", (">",)), (r"==", ("!=",)), (r"!=", ("==",)))
ARITHMETIC = ((r"(?<= )\+(?= )", ("-",)), (r"(?<= )-(?= )", ("+",)), (r"(?<= )\*(?= )", ("+",)),
              (r"(?<= )/(?= )", ("*",)), (r"(?<= )%(?= )", ("/",)), (r"(?<= )&(?= )", ("|",)),
              (r"(?<= )\|(?= )", ("&",)), (r"(?<= )<<(?= )", (">>",)), (r"(?<= )>>(?= )", ("<<",)),
              (r"\+=", ("-=",)), (r"-=", ("+=",)), (r"\+\+", ("--",)))
CONSTANTS = ((r"(?<![\w.])(?:0x[0-9A-Fa-f]+|\d+)(?![\w.])", ("+1", "-1")),)
BOOLEANS = ((r"\btrue\b", ("false",)), (r"\bfalse\b", ("true",)), (r"&&", ("||",)),
            (r"\|\|", ("&&",)), (r"!(?=[\w(])", ("",)))
KINDS = (COMPARISONS, ARITHMETIC, CONSTANTS, BOOLEANS)
NO_FAULT = re.compile(r"^\s*(#|template|using|namespace)|\bstatic_assert\b|\bassert\(|= default")
# Lines whose faults mostly change no result: what is prefetched, where memory is and how much is
# reserved, how hashes are mixed, limits and usual sizes, values that variables have at first, and the
# order of equal elements.
NO_RESULT = re.compile(r"__builtin_prefetch\(|\breserve\(|\b(?:prefer_huge_pages|madvise)\(|\bhash = |"
                       r"\bconstexpr Limit\b|"
                       r"\bconstexpr .*\bk(?:\w*Ahead|(?:Usual|Most|Max|Least)\w*|CacheLine|Chunk) =|"
                       r"^ *(?!return|.*\bconst)[\w:<>]+(?: [\w:<>]+)* \w+ = (?:-?[01]|false|true);|"
                       r"return (?:std::tie\()?a\b[^?]* < (?:std::tie\()?b\b[^?]*;")
PREFETCH = re.compile(r"( *)(?:[\w:<>\[\]]+ )+[\w:]*prefetch\w*\(.*[^;]$")  # begins such a function

Fault = collections.namedtuple("Fault", "file number old new")


def run(*command, **options):
    return subprocess.run(command, check=True, **options)


def tracked_files():
    listed = run("git", "ls-files", "-z", "--cached", "--others", "--exclude-standard",
                 stdout=subprocess.PIPE).stdout.decode()
    return [path for path in listed.split("\0") if path and os.path.isfile(path)]


def update_copy():
    """Makes the copy equal to the sources; files that are equal keep their time."""
    files = tracked_files()
    for folder, folders, names in os.walk(COPY):
        if folder == COPY and "build" in folders:
            folders.remove("build")
        for name in names:
            path = os.path.join(folder, name)
            if os.path.relpath(path, COPY) not in files:
                os.remove(path)
    for path in files:
        target = os.path.join(COPY, path)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if not os.path.isfile(target) or read(path) != read(target):
            shutil.copy(path, target)


def read(path):
    with open(path, "rb") as file:
        return file.read()


def write(path, content):
    with open(path, "wb") as file:
        file.write(content)


def without_text(source):
    """The source with blanks in place of comments and of what is in quotes."""
    pattern = r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|(?<![0-9A-Fa-f])\'(?:\\.|[^\'\\\n])+\''
    return re.sub(pattern, lambda found: re.sub(r"[^\n]", " ", found[0]), source, flags=re.S)


def without_prefetches(lines):
    """The lines of a source, empty where functions only prefetch."""
    end, kept = None, []
    for line in lines:
        begin = PREFETCH.match(line) if end is None else None
        if begin and not line.endswith("}"):
            end = begin[1] + "}"
        kept.append("" if begin or end else line)
        if line == end:
            end = None
    return kept


def sites():
    """Every place of every kind: lists of (file, line number, begin, end, replacements)."""
    found = [[] for _ in KINDS]
    sources = [path for path in tracked_files()
               if path.endswith((".cc", ".h")) and not path.startswith(OTHER_CODE)]
    for path in sorted(sources):
        code = without_text(read(path).decode()).split("\n")
        for number, line in enumerate(without_prefetches(code)):
            if NO_FAULT.search(line) or NO_RESULT.search(line):
                continue
            for kind, places in zip(KINDS, found):
                for pattern, replacements in kind:
                    places += [(path, number, *match.span(), replacements)
                               for match in re.finditer(pattern, line)]
    return found


def draw(rng, places):
    path, number, begin, end, replacements = rng.choice(rng.choice(places))
    line = read(path).decode().split("\n")[number]
    old, new = line[begin:end], rng.choice(replacements)
    if new in ("+1", "-1"):
        value = int(old, 0) if old.startswith("0x") or old == "0" else int(old)
        value = max(value + int(new), 0) if value else 1
        new = hex(value) if old.startswith("0x") else str(value)
    return Fault(path, number, line, line[:begin] + new + line[end:])


def plant(fault):
    lines = read(fault.file).decode().split("\n")
    lines[fault.number] = fault.new
    write(os.path.join(COPY, fault.file), "\n".join(lines).encode())


def remove(fault):
    write(os.path.join(COPY, fault.file), read(fault.file))


def build(targets):
    return subprocess.run(["cmake", "--build", BUILD, "--target", *targets, "--", "--quiet"],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0


def products():
    return [hashlib.sha256(read(os.path.join(BUILD, name))).digest() for name in PRODUCTS]


class NoFault(Exception):
    """The program does not compile with it."""


class Test:
    """All cases of one GoogleTest source, or a test of ctest. It is built before it runs."""

    def __init__(self, name, targets, command, folder):
        self.name, self.targets, self.command, self.folder = name, targets, command, folder
        self.found, self.seconds = 0, 0.0  # (of the runs so far)

    def finds_fault(self):
        begin = time.monotonic()
        compiles = build(self.targets)
        if not compiles and not build(PRODUCT_TARGETS):
            raise NoFault
        # On a busy machine a test can fail by chance: only a second failure counts.
        found = not compiles or not any(passes(self.command, self.folder) for _ in range(2))
        self.found += found
        self.seconds += time.monotonic() - begin
        return found


class Tests:
    """The tests of the copy: first the source named after the file with the fault and those in the
    folder named after its folder, then those that find most in a second, at last what is no
    GoogleTest program."""

    def __init__(self):
        listed = json.loads(run("ctest", "--test-dir", BUILD, "--show-only=json-v1",
                                stdout=subprocess.PIPE).stdout)
        programs, self.others = {}, []
        for test in listed["tests"]:
            command, name = test["command"], test["name"]
            folders = [p["value"] for p in test["properties"] if p["name"] == "WORKING_DIRECTORY"]
            folder = folders[0] if folders else BUILD
            if any(word.startswith("--gtest_filter") for word in command):
                programs[command[0]] = folder
            elif name not in BUILD_TESTS:
                self.others.append(Test(name, needed_files(command), command, folder))
        self.sources = [test for item in programs.items() for test in source_tests(*item)]

    def order(self, file):
        def rank(test):
            return -(test.found + 1) / (test.seconds + 1)

        folder, name = os.path.split(file)
        stem = os.path.splitext(name)[0].lower().replace("_", "")
        near = TEST_FOLDERS.get(os.path.basename(folder), [os.path.basename(folder)])

        def nearness(test):
            test_folder, test_name = os.path.split(test.name)
            return (test_name.replace("_", "") != stem + "test", test_folder not in near, rank(test))

        return sorted(self.sources, key=nearness) + sorted(self.others, key=rank)

    def first_failure(self, file):
        """The name of the test that finds the fault, or None."""
        return next((test.name for test in self.order(file) if test.finds_fault()), None)


def source_tests(program, folder):
    """The tests of a GoogleTest program, which is made of tests/NAME/*_test.cc or tests/NAME_test.cc."""
    name = os.path.basename(program)
    root = os.path.join(COPY, "tests")
    for path in sorted(glob.glob(f"{root}/{name}.cc") +
                       glob.glob(f"{root}/{name.removesuffix('_test')}/*_test.cc")):
        suites = sorted(set(re.findall(rb"^TEST(?:_F|_P)?\((\w+),", read(path), re.M)))
        cases = ":".join(f"{suite}.*:*/{suite}.*" for suite in map(bytes.decode, suites))
        yield Test(os.path.splitext(os.path.relpath(path, root))[0], ["symforge_" + name],
                   [program, "--gtest_filter=" + cases, "--gtest_fail_fast", "--gtest_brief=1"],
                   folder)


def needed_files(command):
    """The files of the build that a test names; everything if it names the folder of the build."""
    if BUILD in command:
        return ["all"]
    return [os.path.relpath(word, BUILD) for word in command
            if word.startswith(BUILD) and os.path.isfile(word)]


def passes(command, folder):
    """Runs a test in a process group of its own, which ends with it. Time that passes is no limit:
    other programs, and signals that stop processes, can make any test slow."""
    with open(OUTPUT, "wb") as output:
        process = subprocess.Popen(
            command, cwd=folder, start_new_session=True, stdin=subprocess.DEVNULL,
            stdout=output, stderr=subprocess.STDOUT)
    # (tests that set higher limits for what they run may do so)
    for kind, value in (resource.RLIMIT_DATA, MEMORY), (resource.RLIMIT_CPU, PROCESSOR_SECONDS):
        resource.prlimit(process.pid, kind, (value, resource.RLIM_INFINITY))
    try:
        waited = 0
        while waited < WAITING_SECONDS:
            try:
                return process.wait(1) in (0, SKIPPED)
            except subprocess.TimeoutExpired:
                waited = waited + 1 if is_asleep(process.pid) else 0
        return False
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()


def is_asleep(root):
    """Whether a process and all that it has started sleep. Those that wait for a processor do not."""
    states, children = {}, collections.defaultdict(list)
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            fields = read(f"/proc/{name}/stat").rpartition(b")")[2].split()
        except OSError:
            continue  # has ended
        states[int(name)] = fields[0]
        children[int(fields[1])].append(int(name))
    family = [root]
    for process in family:
        family += children[process]
    return all(states.get(process, b"S") in b"SZ" for process in family)


def describe(fault):
    return (f"{fault.file}:{fault.number + 1}\n    - {fault.old.strip()}\n"
            f"    + {fault.new.strip()}")


def prepare():
    """Builds the copy without a fault; every test has to pass."""
    update_copy()
    if not os.path.isfile(os.path.join(BUILD, "build.ninja")):
        # A fault is compiled sooner when each source is compiled for itself.
        run("cmake", "--preset", "release", "-DCMAKE_UNITY_BUILD=OFF", cwd=COPY,
            stdout=subprocess.DEVNULL)
    run("cmake", "--build", BUILD, "--", "--quiet")
    tests = Tests()
    failed = tests.first_failure("")
    if failed:
        sys.exit(f"{failed} fails without a fault: {OUTPUT}")
    return tests


def main():
    count, seed = int(sys.argv[1]), int(sys.argv[2])
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    tests, places, rng = prepare(), sites(), random.Random(seed)
    sound, drawn, missed, done = products(), set(), [], 0
    while done < count:
        fault = draw(rng, places)
        if fault in drawn or fault.old == fault.new:
            continue
        drawn.add(fault)
        begin = time.monotonic()
        plant(fault)
        try:
            # A fault that does not compile, or leaves the same program, is not one.
            finder = tests.first_failure(fault.file)
            if not finder and (not build(PRODUCT_TARGETS) or products() == sound):
                continue
        except NoFault:
            continue
        finally:
            remove(fault)
        done += 1
        if not finder:
            missed.append(fault)
        said = f"found by {finder}" if finder else "NOT FOUND"
        print(f"{done}. {said} in {time.monotonic() - begin:.0f} s: {describe(fault)}", flush=True)
    if missed:
        print("\nNot found:")
        for fault in missed:
            print("  " + describe(fault))
    found = count - len(missed)
    print(f"\n{found} of {count} found" + (f" ({100 * found / count:.0f} %)" if count else ""))


if __name__ == "__main__":
    main()
