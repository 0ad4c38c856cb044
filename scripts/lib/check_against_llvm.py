"""Compares a converted PDB with the output of llvm-pdbutil, llvm-readobj and llvm-objdump.

Called by scripts/check_against_llvm. Both sides are brought to plain records; what differs is
looked up among the rules of the text format that make a difference, and is left unexplained
otherwise.
"""

import bisect
import collections
import re
import subprocess
import sys

from inline_lines import inline_lines
from llvm_dumps import (PDBUTIL, Types, name_of, read_blocks, read_files, read_inlinees,
                        read_publics, read_sections, read_symbols, records, run)
from unwind_rules import OBJDUMP, READOBJ, read_rules


class Report:
    """Counts of one subject: equal, explained by a rule, unexplained."""

    def __init__(self):
        self.equal = collections.Counter()
        self.explained = collections.defaultdict(collections.Counter)
        self.unexplained = collections.defaultdict(list)
        self.subjects = []

    def subject(self, name):
        if name not in self.subjects:
            self.subjects.append(name)

    def same(self, name, count=1):
        self.subject(name)
        self.equal[name] += count

    def because(self, name, rule, count=1):
        self.subject(name)
        if count:
            self.explained[name][rule] += count

    def differs(self, name, what):
        self.subject(name)
        self.unexplained[name].append(what)

    def compare(self, name, ours, theirs, what):
        if ours == theirs:
            self.same(name)
        else:
            self.differs(name, f"{what}: ours {ours!r}, theirs {theirs!r}")

    def print(self):
        print("| what | equal | explained | unexplained |\n|---|---|---|---|")
        for name in self.subjects:
            rules = "; ".join(f"{count}: {rule}" for rule, count in self.explained[name].items())
            print(f"| {name} | {self.equal[name]} | {rules or 0} | {len(self.unexplained[name])} |")
        for name in self.subjects:
            for what in self.unexplained[name][:10]:
                print(f"unexplained, {name}: {what}")
        return not any(self.unexplained.values())


# ---- our side: the text symbol file


class Function:
    def __init__(self, section, address, length, param_size, name):
        self.section, self.address, self.length = section, address, length
        self.param_size, self.name = param_size, name
        self.lines = []  # (address, size, line, file number)
        self.inlines = []  # (address, length, line, file number, depth, name)


class Text:
    def __init__(self, text):
        self.module = []
        self.sections = {}
        self.files = {}
        self.functions = []
        self.publics = []  # (address, name)
        self.stack_win = []
        self.cfi_init = []  # (address, size)
        self.cfi = []  # the text after the address
        for line in text.split("\n"):
            self.read(line)

    def read(self, line):
        word, _, rest = line.partition(" ")
        if word == "MODULE":
            self.module = rest.split(" ", 3)
        elif word == "INFO" and rest.startswith("SECTION"):
            fields = rest.split()
            self.sections[int(fields[1], 16)] = tuple(int(fields[i], 16) for i in (3, 5, 7))
        elif word == "FILE":
            number, _, name = rest.partition(" ")
            self.files[int(number)] = name
        elif word == "FUNC":
            place, length, param_size, name = rest.split(" ", 3)
            section, address = place.split(":")
            numbers = (int(n, 16) for n in (section, address, length, param_size))
            self.functions.append(Function(*numbers, name))
        elif word == "PUBLIC":
            address, _, name = rest.split(" ", 2)
            self.publics.append((int(address, 16), name))
        elif word == "I":
            fields = rest.split(" ", 5)
            numbers = (int(fields[i], base) for i, base in enumerate((16, 16, 10, 10, 16)))
            self.functions[-1].inlines.append((*numbers, fields[5]))
        elif word == "STACK":
            self.read_stack(rest)
        elif line and line[0] in "0123456789abcdef" and self.functions:
            address, size, number, file = line.split(" ")
            self.functions[-1].lines.append((int(address, 16), int(size, 16), int(number), int(file)))

    def read_stack(self, rest):
        if rest.startswith("WIN"):
            self.stack_win.append(rest[4:])
        elif rest.startswith("CFI INIT"):
            fields = rest.split(" ", 4)
            self.cfi_init.append((int(fields[2], 16), int(fields[3], 16)))
        else:
            self.cfi.append(rest.split(" ", 2)[2])


# ---- comparisons


def compare_identity(report, text, pdb):
    summary = run(PDBUTIL, "dump", "--summary", pdb)
    guid = re.search(r"GUID: \{([0-9A-F-]+)\}", summary)[1].replace("-", "")
    dbi = run(PDBUTIL, "pdb2yaml", "--dbi-stream", pdb)
    age = int(re.search(r"DbiStream:.*?Age: +(\d+)", dbi, re.S)[1])
    machine = re.search(r"MachineType: +(\w+)", dbi)[1]
    report.compare("identifier", text.module[2], f"{guid}{age:x}", "debug identifier")
    words = {"Amd64": "x86_64", "x86": "x86"}
    report.compare("identifier", text.module[1], words.get(machine, "unknown"), "machine")


def compare_sections(report, text, sections):
    for number in sorted(set(sections) | set(text.sections)):
        report.compare("sections", text.sections.get(number), sections.get(number), number)


def compare_files(report, text, pdb):
    ours, theirs = set(text.files.values()), read_files(pdb)
    report.same("files", len(ours & theirs))
    for name in ours ^ theirs:
        report.differs("files", name)


def clean(name):
    return name.replace(" __ptr64", "").replace("__cdecl", "")


class Expected:
    """All symbols at one address."""

    def __init__(self):
        self.symbols = []
        self.blocks = []


def gather(symbols, sections):
    table = collections.defaultdict(Expected)
    for symbol in symbols:
        rva = symbol.offset + (sections[symbol.section][0] if symbol.section else 0)
        table[(symbol.section, rva)].symbols.append(symbol)
    return table


def attach_blocks(report, table, blocks, sections):
    """Gives each block to the first function at or after its start."""
    keys = sorted(table)
    for block in blocks if keys else []:
        start = (block.section, block.offset + (sections[block.section][0] if block.section else 0))
        at = min(bisect.bisect_left(keys, start), len(keys) - 1)
        if keys[at] != start:
            report.because("line blocks", "starts at no function, goes to the next one")
        table[keys[at]].blocks.append(block)


def expected_lines(function, block, start):
    """(address, size, line) as a function prints a block's entries."""
    offsets = [offset for offset, _ in block.lines]
    over = max(offsets[-1] - function.length, 0)
    adjust = (over + 15) // 16 * 16
    ends = offsets[1:] + [adjust + function.length]
    return [((start - adjust + offset) & 0xFFFFFFFF, (end - offset) & 0xFFFFFFFF, line)
            for (offset, line), end in zip(block.lines, ends)]


def accepted_block(blocks):
    """The first one stays, but one at offset 0 gives way to the next."""
    for block in blocks:
        if block.offset != 0:
            return block
    return blocks[-1] if blocks else None


def compare_functions(report, text, table, types, places):
    ours = {(f.section, f.address): f for f in text.functions}
    publics = dict(text.publics)
    if len(ours) != len(text.functions):
        report.differs("functions", "two lines at one address")
    for key, expected in table.items():
        function = ours.pop(key, None)
        if function is None:
            names = {s.name for s in expected.symbols if s.type_index == 0 and s.length == 0}
            if publics.get(key[1]) in names:
                report.because("functions", "a thunk without parent prints as PUBLIC",
                               len(expected.symbols))
            else:
                report.differs("functions", f"not printed: {expected.symbols[0].name}")
            continue
        compare_function(report, text, function, expected, types, places)
    for function in ours.values():
        report.differs("functions", f"only ours: {function.name}")


def compare_function(report, text, function, expected, types, places):
    report.because("functions", "folded: one record an address", len(expected.symbols) - 1)
    for symbol in expected.symbols:
        name = clean(symbol.name)
        if symbol.type_index != 0:
            name += types.render(symbol.type_index, True)[0]
        if (name, symbol.length) == (function.name, function.length):
            report.same("functions")
            report.same("signatures" if symbol.type_index else "names without type")
            compare_inlines(report, text, function, symbol, types, places)
            break
    else:
        first = expected.symbols[0]
        signature = types.render(first.type_index, True)[0]
        report.differs("functions", f"{function.name!r} {function.length:x}, theirs "
                                    f"{first.name!r}{signature} {first.length:x}")
        return
    compare_lines(report, text, function, expected)


def compare_inlines(report, text, function, symbol, types, places):
    names = [types.id_name(site.inlinee) for site in symbol.sites if site]
    if None in names:
        report.because("functions with inline sites", "an inlinee without a name: no I lines")
        if function.inlines:
            report.differs("I lines", f"{function.name}: unexpected")
        return
    theirs = inline_lines(function.address, symbol.sites, names, places)
    ours = [(a, length, line, text.files.get(file), depth, name)
            for a, length, line, file, depth, name in function.inlines]
    if ours != theirs:
        differing = [pair for pair in zip(ours, theirs) if pair[0] != pair[1]][:1]
        report.differs("I lines", f"{function.name}: {len(ours)} and {len(theirs)}, {differing}")
    elif names:
        report.same("functions with inline sites")
        report.same("I lines", len(ours))


def compare_lines(report, text, function, expected):
    block = accepted_block(expected.blocks)
    if block is None or not block.lines:
        if function.lines:
            report.differs("functions with lines", f"{function.name}: unexpected")
        return
    report.because("line blocks", "the function has one already", len(expected.blocks) - 1)
    lines = expected_lines(function, block, function.address)
    ours = [line[:3] for line in function.lines]
    files = {text.files.get(line[3]) for line in function.lines}
    if ours == lines and files == {block.file}:
        report.same("functions with lines")
        report.same("line records", len(lines))
        report.same("first lines")
    elif not ours and all(s.type_index == 0 for s in expected.symbols):
        report.because("functions with lines", "a function without a type prints none")
    else:
        report.differs("functions with lines", f"{function.name}: {ours[:2]} {files}, theirs "
                                               f"{lines[:2]} {block.file}")


def compare_publics(report, text, pdb, table, sections):
    ours = dict(text.publics)
    functions = {rva for _, rva in table}
    seen = set()
    theirs = read_publics(pdb)
    if not theirs:
        report.because("publics", "not compared: the PDB has no index of public symbols", len(ours))
        return
    by_address = collections.defaultdict(set)
    for section, offset, name in theirs:
        by_address[offset + (sections[section][0] if section in sections else 0)].add(name)
    for address, names in by_address.items():
        seen.add(address)
        report.because("publics", "one record an address", len(names) - 1)
        if address in functions:
            thunk = address in ours
            report.because("publics", "a thunk of a module stands there" if thunk
                           else "a function of a module stands there")
        elif ours.get(address) in names:
            report.same("publics")
        else:
            report.differs("publics", f"{address:x}: ours {ours.get(address)}, theirs {names}")
    for address in set(ours) - seen - functions:
        report.differs("publics", f"only ours: {address:x} {ours[address]}")


def compare_frame_data(report, text, pdb):
    dump = run(PDBUTIL, "dump", "--fpo", pdb).split("New FPO Data")
    expected, last = {}, (0, 0, 0)
    for line in dump[-1].split("\n"):
        fields = [f.strip() for f in line.split("|", 10)]
        if len(fields) != 11 or not re.fullmatch("[0-9A-F]{8}", fields[0]):
            continue
        start, (code, locals_, params, stack, prolog, saved) = int(fields[0], 16), map(int, fields[1:7])
        key = (start, code, prolog)
        if key == last or (start, code) in expected:
            report.because("frame data", "repeats a record")
        else:
            program = fields[10]
            expected[(start, code)] = (f"4 {start:x} {code:x} {prolog:x} 0 {params:x} {saved:x} "
                                       f"{locals_:x} {stack:x} 1 {program}").strip()
        last = key
    ours = [line.strip() for line in text.stack_win if line.startswith("4")]
    theirs = [expected[key] for key in sorted(expected)]
    for mine, line in zip(ours, theirs):
        report.compare("frame data", mine, line, "record")
    if len(ours) != len(theirs):
        report.differs("frame data", f"{len(ours)} lines, theirs {len(theirs)}")


def compare_unwind(report, text, image):
    headers = run(READOBJ, "--file-headers", image)
    base = int(re.search(r"ImageBase: (0x[0-9A-F]+)", headers)[1], 16)
    size = int(re.search(r"ExceptionTableSize: (0x[0-9A-F]+)", headers)[1], 16)
    if "Arch: x86_64" not in headers:
        report.compare("unwind entries", len(text.cfi), 0, "STACK CFI lines of a 32-bit image")
        return
    report.compare("unwind entries", len(text.cfi_init), size // 12, "number of entries")
    rules = read_rules(image, base)
    starts = {(int(a, 16), int(b, 16)) for a, b in re.findall(
        r"Start Address: 0x([0-9a-f]+)\n +End Address: 0x([0-9a-f]+)",
        run(OBJDUMP, "--unwind-info", image))}
    for (address, length), rule in zip(text.cfi_init, text.cfi):
        key = (address, address + length)
        if key in rules:
            report.compare("unwind rules", rule, rules[key], f"{address:x}")
        elif key in starts:
            report.because("unwind rules", "address and size alone: chained, and llvm-readobj fails before it")
        else:
            report.differs("unwind rules", f"only ours: {address:x}")


def main(program, pdb, image=None):
    options = ["-e", image] if image else []
    done = subprocess.run([program, *options, pdb], stdout=subprocess.PIPE)
    if done.returncode != 0:
        sys.exit(f"{program} failed on {pdb}")
    text = Text(done.stdout.decode("utf-8", "replace"))
    report = Report()
    sections = read_sections(pdb)
    compare_identity(report, text, pdb)
    compare_sections(report, text, sections)
    compare_files(report, text, pdb)
    table = gather(read_symbols(pdb), sections)
    blocks, skipped = read_blocks(pdb)
    report.because("line blocks", "a further file of its subsection", skipped)
    attach_blocks(report, table, blocks, sections)
    compare_functions(report, text, table, Types(pdb), read_inlinees(pdb))
    compare_publics(report, text, pdb, table, sections)
    compare_frame_data(report, text, pdb)
    if image:
        compare_unwind(report, text, image)
    print(f"\n{pdb.rsplit('/', 1)[-1]}\n")
    return 0 if report.print() else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
