"""Runs clang-tidy over sources, as many at once as there are processors, for scripts/lint.

Sources that are compiled together (CMAKE_UNITY_BUILD) are checked together, which takes a seventh of the time: the
headers are walked once. What passed without a warning is remembered as build/lint/passed/NAME: the hash of the tool,
its settings and the compiler's flags, then the hash of each file that the sources include. Nothing is run while all
agree.
"""

import argparse
import collections
import concurrent.futures
import functools
import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import time

ROOT = pathlib.Path.cwd()
WARNING = re.compile(r"^(/[^:\n]+):\d+:\d+: (?:warning|error): .* \[([\w.,-]+)\]$", re.MULTILINE)


@functools.cache
def hash_of(path):
    try:
        return hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest()
    except OSError:
        return "absent"


def members(unit):
    """The sources in what the compiler is given: a source, or a file of cmake that includes several."""
    if "/Unity/" not in unit:
        return {unit}
    return set(re.findall(r'^#include "(.*)"$', pathlib.Path(unit).read_text(), re.MULTILINE))


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tidy", required=True)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--folder", type=pathlib.Path, required=True, help="for results")
    parser.add_argument("--count", action="store_true", help="print the number of warnings of each check alone")
    parser.add_argument("files", nargs="+")
    return parser.parse_args()


class Linter:
    def __init__(self, arguments):
        self.tidy, self.folder = arguments.tidy, arguments.folder
        (self.folder / "passed").mkdir(parents=True, exist_ok=True)
        version = subprocess.run([self.tidy, "--version"], check=True, capture_output=True).stdout
        settings = sorted(ROOT.glob("**/.clang-tidy"))
        self.tool_hash = hashlib.sha256(version + "".join(map(hash_of, settings)).encode()).hexdigest()
        commands = json.loads((arguments.build / "compile_commands.json").read_text())
        for command in commands:
            # Some options are those of another compiler.
            command["command"] += " -Wno-unknown-warning-option"
        (self.folder / "compile_commands.json").write_text(json.dumps(commands))
        self.commands = {command["file"]: command for command in commands}

    def units_of(self, sources):
        """What the compiler is given to compile these sources, each with the sources in it, the largest first."""
        units = {unit: sources & members(unit) for unit in self.commands}
        return dict(sorted(((unit, found) for unit, found in units.items() if found), key=lambda item: -len(item[1])))

    def key(self, source):
        flags = self.commands[source]["command"]
        return hashlib.sha256((self.tool_hash + flags).encode()).hexdigest()

    def record(self, source):
        return self.folder / "passed" / os.path.relpath(source, ROOT).replace("/", "_")

    def passed_before(self, source):
        try:
            key, *lines = self.record(source).read_text().splitlines()
        except OSError:
            return False
        return key == self.key(source) and all(hash_of(path) == value for value, path in map(str.split, lines))

    def dependencies(self, source):
        """The project's own files that a source includes, itself among them."""
        words = shlex.split(self.commands[source]["command"])
        compiler = next(i for i, word in enumerate(words) if re.search(r"(\+\+|cc)(-\d+)?$", word) and "ccache" not in word)
        flags = [word for word in words[compiler + 1:] if re.match(r"-[DIU]|-std", word)]
        made = subprocess.run([words[compiler], *flags, "-MM", source], check=True, capture_output=True, text=True,
                              cwd=self.commands[source]["directory"]).stdout
        return shlex.split(made.replace("\\\n", " "))[1:]

    def checks(self, source):
        """The checks of the nearest .clang-tidy of a source, as an option."""
        listed = subprocess.run([self.tidy, "--list-checks", source, "--"], capture_output=True, text=True, check=True)
        return "--checks=-*," + ",".join(listed.stdout.split()[2:])

    def lint(self, source):
        """The findings in what the compiler is given, as text."""
        # (the settings of names are found for each included source, the list of checks is not)
        result = subprocess.run([self.tidy, "-p", self.folder, "--quiet", self.checks(min(members(source))), source],
                                capture_output=True, text=True, check=False)
        if result.returncode == 0 and not WARNING.search(result.stdout):
            lines = [f"{hash_of(path)} {path}" for path in self.dependencies(source)]
            self.record(source).write_text("\n".join([self.key(source), *lines]) + "\n")
            return ""
        return result.stdout or result.stderr


def main():
    arguments = parse_arguments()
    linter = Linter(arguments)
    units = linter.units_of({str(ROOT / file) for file in arguments.files})
    stale = [unit for unit in units if not linter.passed_before(unit)]
    sources, unchanged = (sum(len(units[unit]) for unit in chosen) for chosen in (units, set(units) - set(stale)))
    findings, seen, next_line = collections.Counter(), set(), time.monotonic() + 10
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for done, output in enumerate(pool.map(linter.lint, stale), 1):
            for block in re.split(r"^(?=/[^:\n]+:\d+:\d+: (?:warning|error):)", output, flags=re.MULTILINE):
                warning = WARNING.match(block)
                if not block.strip() or block in seen:
                    continue
                seen.add(block)
                findings[warning[2] if warning else "other"] += 1
                if not arguments.count:
                    print(block.rstrip().replace(f"{ROOT}/", ""))
            if time.monotonic() >= next_line:
                print(f"clang-tidy: {done} of {len(stale)} units", file=sys.stderr)
                next_line = time.monotonic() + 10
    for check, number in findings.most_common():
        print(f"{number:6} {check}", file=sys.stderr)
    print(f"clang-tidy: {sources} sources, {unchanged} of them unchanged, {findings.total()} findings", file=sys.stderr)
    return 1 if findings else 0


sys.exit(main())
