"""Runs the programs of two builds on equal inputs, each in a folder of its own, and compares what
comes out: standard output, standard error, the end, and the folders that were written."""

import dataclasses
import filecmp
import os
import re
import resource
import shutil
import signal
import stat

SIDES = ("old", "new")
OPTIONS = {"old": (), "new": ()}  # in front of the arguments of each run of a side
PROGRAM = "../symforge"  # a link beside the folder in which the program runs
CHUNK = 1 << 20
KILLED = re.compile(rb"terminated by signal")
REFUSED = re.compile(rb"Exception caught|failed to |Failed to ")


@dataclasses.dataclass
class Limits:
    """What one run may use. A run that is ended by a limit has no result to compare."""

    memory: int  # bytes of address space; 0: any
    file_size: int  # bytes; 0: any
    seconds: int  # of processor time; six times as many by the clock


MUTANT_LIMITS = Limits(4 << 30, 256 << 20, 10)
SOUND_LIMITS = Limits(0, 0, 600)


@dataclasses.dataclass
class Difference:
    case: str
    command: str
    what: str  # "end", "messages", "output" or "tree"
    details: list
    cleaner: bool = False  # the new build ends more cleanly on damaged input


def is_sanitized(program):
    with open(program, "rb") as file:
        content = file.read()
    return b"__asan_init" in content or b"__tsan_init" in content


def normalised(messages):
    """Messages without what differs between two runs or two builds of the same sources: times,
    source positions, the frames of a backtrace, the random part of temporary names."""
    messages = re.sub(rb"\d{6,}s: [^ :]+:\d+: ", b"(time and place) ", messages)
    messages = re.sub(rb"(?m), \d+\.\d seconds$", b", (time)", messages)
    messages = re.sub(rb"(?m)(^\t.*(\n|\Z))+", b"\t(frames)\n", messages)
    messages = re.sub(rb"(?m)^.*:\d+: .*: Assertion ", b"(place) Assertion ", messages)
    messages = re.sub(rb"(?ms)^==\d+==.*", b"(report of a sanitizer)", messages)
    messages = re.sub(rb"(\.symb?)[A-Za-z0-9]{6}\b", rb"\1XXXXXX", messages)
    return messages


def has_jobs():
    """Whether batches may have several jobs, whose messages come in the order in which they end."""
    return any(option.startswith(("-j", "--jobs")) for side in SIDES for option in OPTIONS[side])


def describe_end(status):
    if os.WIFSIGNALED(status):
        number = os.WTERMSIG(status)
        return f"signal {number} ({signal.Signals(number).name})"
    return f"status {os.WEXITSTATUS(status)}"


def ended_by_limit(status):
    return os.WIFSIGNALED(status) and os.WTERMSIG(status) in (
        signal.SIGKILL, signal.SIGXCPU, signal.SIGXFSZ)


def spawn(arguments, output, messages, limits):
    """Runs the program in the current folder; the wait status."""
    create = os.O_WRONLY | os.O_CREAT | os.O_TRUNC
    process = os.posix_spawn(
        PROGRAM, [PROGRAM, *arguments], {**os.environ, "LC_ALL": "C"},
        file_actions=[(os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
                      (os.POSIX_SPAWN_OPEN, 1, output, create, 0o600),
                      (os.POSIX_SPAWN_OPEN, 2, messages, create, 0o600)],
        setpgroup=0, setsigdef=[signal.SIGPIPE, signal.SIGXFSZ])
    for kind, value in ((resource.RLIMIT_AS, limits.memory),
                        (resource.RLIMIT_FSIZE, limits.file_size),
                        (resource.RLIMIT_CPU, limits.seconds)):
        if value:
            resource.prlimit(process, kind, (value, value))
    signal.signal(signal.SIGALRM, lambda *_: os.killpg(process, signal.SIGKILL))
    signal.alarm(6 * limits.seconds)
    status = os.waitpid(process, 0)[1]
    signal.alarm(0)
    return status


def first_difference(old, new):
    """The offset of the first byte that differs, and the number of line ends in front of it."""
    offset = lines = 0
    with open(old, "rb") as one, open(new, "rb") as two:
        while True:
            a, b = one.read(CHUNK), two.read(CHUNK)
            if a != b:
                common = len(os.path.commonprefix((a, b)))
                return offset + common, lines + a.count(b"\n", 0, common)
            if not a:
                return None
            offset, lines = offset + len(a), lines + a.count(b"\n")


def shown(path, offset, binary):
    """What a file has around an offset."""
    with open(path, "rb") as file:
        begin = max(offset - (offset % 16 if binary else 200), 0)
        file.seek(begin)
        content = file.read(32 if binary else 400)
    if binary:
        return content.hex(" ")
    at = offset - begin
    line = content[content.rfind(b"\n", 0, at) + 1:].split(b"\n")[0]
    return "(end)" if at >= len(content) else line.decode("utf-8", "backslashreplace")[:160]


def files_differ(old, new):
    """Lines that say where two files differ; none when they are equal."""
    if filecmp.cmp(old, new, shallow=False):
        return []
    offset, lines = first_difference(old, new)
    with open(old, "rb") as file:
        binary = file.read(4) == b"SYMB"
    place = f"byte {offset:#x}" if binary else f"line {lines + 1}"
    return [f"{place}; {os.path.getsize(old)} and {os.path.getsize(new)} bytes",
            "- " + shown(old, offset, binary), "+ " + shown(new, offset, binary)]


def tree_entries(root):
    """Every entry under a folder by its path; the random part of temporary names left out."""
    found = {}
    for folder, folders, files in os.walk(root):
        for name in folders + files:
            path = os.path.join(folder, name)
            plain = re.sub(r"(\.symb?)[A-Za-z0-9]{6}$", r"\1XXXXXX", os.path.relpath(path, root))
            found[plain] = path
    return found


def describe_entry(path):
    """The type and mode of an entry, and where a link leads."""
    mode = os.lstat(path).st_mode
    return f"link to {os.readlink(path)}" if stat.S_ISLNK(mode) else stat.filemode(mode)


def trees_differ(old, new):
    old_entries, new_entries = tree_entries(old), tree_entries(new)
    said = [f"- {name}" for name in sorted(old_entries.keys() - new_entries.keys())]
    said += [f"+ {name}" for name in sorted(new_entries.keys() - old_entries.keys())]
    for name in sorted(old_entries.keys() & new_entries.keys()):
        one, two = old_entries[name], new_entries[name]
        kinds = describe_entry(one), describe_entry(two)
        if kinds[0] != kinds[1]:
            said += [f"- {name}: {kinds[0]}", f"+ {name}: {kinds[1]}"]
        elif os.path.isfile(one) and not os.path.islink(one):
            difference = files_differ(one, two)
            if difference:
                said += [f"{name}: {difference[0]}", *difference[1:]]
    return said


class Case:
    """One input with the runs over it. Both sides run under a folder of the same relative name, so
    that no message has a reason to differ."""

    def __init__(self, folder, name, limits, damaged):
        self.folder, self.name, self.limits, self.damaged = folder, name, limits, damaged
        self.differences, self.runs, self.limited = [], 0, 0
        for side in SIDES:
            shutil.rmtree(self.path(side), ignore_errors=True)
            os.makedirs(self.path(side))

    def path(self, side, name=""):
        return os.path.join(self.folder, side, "case", name)

    def put(self, name, content):
        """Puts an input into both folders: bytes, or the path of a file to link to."""
        for side in SIDES:
            os.makedirs(os.path.dirname(self.path(side, name)), exist_ok=True)
            if isinstance(content, str):
                os.symlink(content, self.path(side, name))
            else:
                with open(self.path(side, name), "wb") as file:
                    file.write(content)

    def make_folder(self, name):
        for side in SIDES:
            os.makedirs(self.path(side, name))

    def read(self, name):
        """An output that both sides have in common, as the old side has it."""
        with open(self.path("old", name), "rb") as file:
            return file.read()

    def differs(self, arguments, what, details, cleaner=False):
        command = " ".join(["symforge", *arguments])
        self.differences.append(Difference(self.name, command, what, details, cleaner))

    def run(self, *arguments, output="output"):
        """Runs both programs and compares; true when nothing differs and there is output."""
        self.runs += 1
        statuses, messages = [], []
        for side in SIDES:
            os.chdir(self.path(side))
            statuses.append(spawn((*OPTIONS[side], *arguments), output, "../messages", self.limits))
            with open("../messages", "rb") as file:
                messages.append(file.read())
        if all(ended_by_limit(status) for status in statuses):
            self.limited += 1
            return False
        if messages[0] != messages[1]:
            messages = [normalised(text) for text in messages]
            if "-r" in arguments and has_jobs():
                messages = [b"\n".join(sorted(text.split(b"\n"))) for text in messages]
        cleaner = self.damaged and is_cleaner(statuses, messages)
        before = len(self.differences)
        if describe_end(statuses[0]) != describe_end(statuses[1]):
            ends = [sign + " " + describe_end(status) for sign, status in zip("-+", statuses)]
            self.differs(arguments, "end", ends, cleaner)
        if messages[0] != messages[1]:
            self.differs(arguments, "messages", lines_differ(*messages), cleaner)
        paths = [self.path(side, output) for side in SIDES]
        outputs = files_differ(*paths)
        if outputs:
            self.differs(arguments, "output", outputs, cleaner)
        return len(self.differences) == before and os.path.getsize(paths[0]) > 0

    def compare_tree(self, name, made_by):
        """Compares a folder that runs have written, and removes it; one that differs is renamed."""
        details = trees_differ(self.path("old", name), self.path("new", name))
        if details:
            self.differences.append(Difference(self.name, made_by, "tree", details))
        for side in SIDES:
            if details:
                os.rename(self.path(side, name), self.path(side, f"{name}_{len(self.differences)}"))
            else:
                shutil.rmtree(self.path(side, name))


def is_cleaner(statuses, messages):
    """Whether a run on damaged input ends more cleanly in the new build: the old one was ended by a
    signal, or the new one ends with status 1 and a message. Of the processes of a batch only the
    messages say so."""
    if os.WIFSIGNALED(statuses[0]):
        return True
    if os.WIFEXITED(statuses[1]) and os.WEXITSTATUS(statuses[1]) == 1 and messages[1]:
        return True
    killed = [len(KILLED.findall(text)) for text in messages]
    refused = [len(REFUSED.findall(text)) for text in messages]
    return killed[1] < killed[0] or killed[1] == killed[0] and refused[1] > refused[0]


def lines_differ(old, new):
    """The first line of each text that the other does not have at that place."""
    old_lines, new_lines = old.split(b"\n"), new.split(b"\n")
    at = 0
    while at < min(len(old_lines), len(new_lines)) and old_lines[at] == new_lines[at]:
        at += 1
    said = [f"line {at + 1}; {len(old_lines) - 1} and {len(new_lines) - 1} lines"]
    for sign, lines in (("- ", old_lines), ("+ ", new_lines)):
        if at < len(lines):
            said.append(sign + lines[at].decode("utf-8", "backslashreplace")[:200])
    return said
