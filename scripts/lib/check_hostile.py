#!/usr/bin/env python3
"""Cost of hostile files: check_hostile.py SYMFORGE WRITE_HOSTILE SIZE...

A row for each file and mode: processor time, peak memory without the output, and output, each with its
limit. For an input of n bytes these are 1 s and 20 times the time of a real file of that size, 64 MiB and
6 n, 16 MiB and 16 n. Real files take below 4 ms and 6 ns a byte on slow machines.
"""

import os
import resource
import shutil
import subprocess
import sys
import tempfile

MIB = 1 << 20
MODES = [[], ["-b"], ["-j2"], ["--standard"], ["--standard", "-b"], ["--standard", "-j2"]]


def limit_child():
    resource.setrlimit(resource.RLIMIT_CPU, (30, 30))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 31, 1 << 31))


def run(command, folder, tree):
    output = os.path.join(folder, "output")
    with open(output, "wb") as out, open(os.path.join(folder, "messages"), "wb") as messages:
        child = subprocess.Popen(command, stdout=out, stderr=messages, preexec_fn=limit_child)
        _, status, usage = os.wait4(child.pid, 0)
    with open(os.path.join(folder, "messages"), "rb") as messages:
        lines = sum(1 for _ in messages)
    written = os.path.getsize(output) + bytes_below(tree)
    cost = {
        "time": usage.ru_utime + usage.ru_stime,
        "memory": max(0, usage.ru_maxrss * 1024 - written),
        "output": written,
        "messages": lines,
    }
    return os.waitstatus_to_exitcode(status), cost


def limits(size):
    return {
        "time": 1 + 20 * (0.004 + 6e-9 * size),
        "memory": 64 * MIB + 6 * size,
        "output": 16 * MIB + 16 * size,
        "messages": 4100,
    }


# Where the tree has the symbol file of an image that write_hostile makes.
TREE_FOLDER = os.path.join("a.pdb", "0123456789ABCDEF1032547698BADCFE1")


def command_of(symforge, mode, path, tree):
    if not path.endswith(".exe"):
        return [symforge, *mode, path]
    if "--standard" in mode:
        return [symforge, *mode, "-e", path, os.path.join(os.path.dirname(path), "small.pdb")]
    shutil.rmtree(tree)
    os.makedirs(os.path.join(tree, TREE_FOLDER))
    with open(os.path.join(tree, TREE_FOLDER, "a.sym"), "w") as text:
        text.write(f"MODULE windows x86_64 {os.path.basename(TREE_FOLDER)} a.pdb\n")
    return [symforge, *mode, "-e", path, "-s", tree]


def bytes_below(folder):
    return sum(os.lstat(os.path.join(path, name)).st_size for path, _, names in os.walk(folder) for name in names)


def check_file(symforge, path, folder, tree):
    size = os.path.getsize(path)
    bounds = limits(size)
    faults = 0
    for mode in MODES:
        status, cost = run(command_of(symforge, mode, path, tree), folder, tree)
        over = [name for name in bounds if cost[name] > bounds[name]]
        if status not in (0, 1):
            over.append(f"status {status}")
        faults += len(over) != 0
        print(f"{os.path.basename(path):30} {' '.join(mode) or 'text':15} {size / 1e6:7.2f} MB"
              f"  status {status}  {cost['time']:6.3f} of {bounds['time']:5.2f} s"
              f"  {cost['memory'] / MIB:7.1f} of {bounds['memory'] / MIB:6.1f} MiB"
              f"  out {cost['output'] / MIB:6.2f} of {bounds['output'] / MIB:5.1f} MiB"
              f"  {'EXCEEDED: ' + ', '.join(over) if over else ''}")
    return faults


def main():
    symforge, writer = (os.path.abspath(path) for path in sys.argv[1:3])
    faults = files = 0
    with tempfile.TemporaryDirectory(prefix="check_hostile.") as folder:
        for size in sys.argv[3:]:
            inputs = os.path.join(folder, size)
            tree = os.path.join(folder, "tree" + size)
            os.makedirs(inputs)
            os.makedirs(tree)
            subprocess.run([writer, size, inputs], check=True)
            for name in sorted(os.listdir(inputs)):
                faults += check_file(symforge, os.path.join(inputs, name), folder, tree)
                files += 1
    print(f"{files} files, {faults} conversions beyond a limit")
    return 1 if faults or not files else 0


if __name__ == "__main__":
    sys.exit(main())
