"""Runs clang-tidy over sources, as many at once as there are processors, for scripts/lint.

What passed without a warning is remembered as build/lint/passed/NAME: the hash of the tool, its settings and the
compiler's flags, then the hash of each file that the source is made of. Nothing is run while all agree.
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
            # The precompiled headers are those of another compiler.
            command["command"] = re.sub(r" -fpch-preprocess| -Winvalid-pch| -include \S*/cmake_pch\.hxx", "",
                                        command["command"])
            # Some options are those of another compiler, too.
            command["command"] += " -Wno-unknown-warning-option"
        (self.folder / "compile_commands.json").write_text(json.dumps(commands))
        self.commands = {command["file"]: command for command in commands}

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

    def lint(self, source):
        """The findings in one source, as text."""
        result = subprocess.run([self.tidy, "-p", self.folder, "--quiet", source],
                                capture_output=True, text=True, check=False)
        if result.returncode == 0 and not WARNING.search(result.stdout):
            lines = [f"{hash_of(path)} {path}" for path in self.dependencies(source)]
            self.record(source).write_text("\n".join([self.key(source), *lines]) + "\n")
            return ""
        return result.stdout or result.stderr


def main():
    arguments = parse_arguments()
    linter = Linter(arguments)
    sources = [path for path in (str(ROOT / file) for file in arguments.files) if path in linter.commands]
    stale = [source for source in sources if not linter.passed_before(source)]
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
                print(f"clang-tidy: {done} of {len(stale)}", file=sys.stderr)
                next_line = time.monotonic() + 10
    for check, number in findings.most_common():
        print(f"{number:6} {check}", file=sys.stderr)
    print(f"clang-tidy: {len(sources)} sources, {len(sources) - len(stale)} of them unchanged, "
          f"{findings.total()} findings", file=sys.stderr)
    return 1 if findings else 0


sys.exit(main())
