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

PDBUTIL = "llvm-pdbutil-19"
READOBJ = "llvm-readobj-19"
OBJDUMP = "llvm-objdump-19"


def run(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return done.stdout.decode("utf-8", "replace")


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
        self.inlines = []  # names


class Text:
    def __init__(self, text):
        self.module = []
        self.sections = {}
        self.files = {}
        self.functions = []
        self.publics = []  # (address, name)
        self.stack_win = []
        self.cfi_init = []  # (address, size)
        self.cfi = []  # the text behind the address
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
            self.functions[-1].inlines.append(fields[5])
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


# ---- their side: llvm-pdbutil


def records(dump):
    """Splits a dump into records: the line that starts one and its further lines."""
    current = []
    for line in dump.split("\n"):
        if re.match(r" +(0x)?[0-9A-F]+ \| [SL][F]?_", line):
            if current:
                yield current
            current = [line]
        elif current:
            if line.startswith("  Mod ") or line.startswith("Mod "):
                yield current
                current = []
            else:
                current.append(line)
    if current:
        yield current


def name_of(record):
    found = re.search(r"`(.*)`", record)
    return found.group(1) if found else ""


class Symbol:
    def __init__(self, section, offset, length, type_index, name):
        self.section, self.offset, self.length = section, offset, length
        self.type_index, self.name = type_index, name
        self.inlinees = []


def read_symbols(pdb):
    """Procedures and thunks of all modules, in order, with the ids of their inline sites."""
    symbols = []
    current = None
    for record in records(run(PDBUTIL, "dump", "--symbols", pdb)):
        head, text = record[0], "\n".join(record)
        place = re.search(r"addr = (\d+):(\d+)", text)
        if "| S_GPROC32 " in head or "| S_LPROC32 " in head:
            length = int(re.search(r"code size = (\d+)", text).group(1))
            found = re.search(r"type = `(0x[0-9A-F]+|<no type>)", text)
            type_index = 0 if found.group(1) == "<no type>" else int(found.group(1), 16)
            current = Symbol(int(place[1]), int(place[2]), length, type_index, name_of(head))
            symbols.append(current)
        elif "| S_THUNK32 " in head:
            length = int(re.search(r"size = (\d+), addr", text).group(1))
            nested = re.search(r"parent = (\d+)", text).group(1) != "0"
            symbols.append(Symbol(int(place[1]), int(place[2]), length if nested else 0, 0,
                                  name_of(head)))
            current = None
        elif "| S_INLINESITE " in head and current:
            current.inlinees.append(int(re.search(r"inlinee = (0x[0-9A-F]+)", text).group(1), 16))
    return symbols


class Block:
    """The first file's block of a line subsection."""

    def __init__(self, section, offset, file):
        self.section, self.offset, self.file = section, offset, file
        self.lines = []  # (offset from the start of the block, line)


def read_blocks(pdb):
    blocks, skipped = [], 0
    file, block, key = "", None, None
    for line in run(PDBUTIL, "dump", "-l", pdb).split("\n"):
        place = re.match(r" +([0-9A-F]{4}):([0-9A-F]{8})-([0-9A-F]{8}), line/addr", line)
        entries = re.findall(r"(\d+|NSI|ASI|[0-9A-F]+) ([0-9A-F]{8})", line)
        if line.startswith("Mod "):
            key = None
        elif place:
            new_key = place.groups()
            if new_key == key:
                skipped, block = skipped + 1, None
            else:
                key = new_key
                block = Block(int(place[1], 16), int(place[2], 16), file)
                blocks.append(block)
        elif re.search(r" \((MD5|SHA-1|SHA-256|no checksum)", line):
            file = re.sub(r" \((MD5|SHA-1|SHA-256|no checksum).*$", "", line)
        elif block is not None and entries:
            block.lines += [(int(address, 16) - block.offset, line_number(number))
                            for number, address in entries]
    return blocks, skipped


def line_number(text):
    """Numbers that stand for 'always step into' and 'never step into' are printed by name."""
    return {"ASI": 0xFEEFEE, "NSI": 0xF00F00}.get(text) or int(text)


def read_sections(pdb):
    dump = run(PDBUTIL, "dump", "--section-headers", pdb).split("Original Section Headers")[0]
    sections = {}
    for part in dump.split("SECTION HEADER #")[1:]:
        def field(label):
            return int(re.search(r"([0-9A-F]+) " + label, part).group(1), 16)
        number = int(part.split("\n")[0], 16)
        sections[number] = (field("virtual address"), field("size of raw data"), field("flags"))
    return sections


def read_files(pdb):
    yaml = run(PDBUTIL, "pdb2yaml", "--modules", "--module-files", "--subsections=fc", pdb)
    names = re.findall(r"FileName: +(.*)", yaml)
    return {n[1:-1].replace("''", "'") if n.startswith("'") else n for n in names}


def read_publics(pdb):
    found = []
    for record in records(run(PDBUTIL, "dump", "--publics", pdb)):
        text = "\n".join(record)
        place = re.search(r"flags = (.*), addr = (\d+):(\d+)", text)
        if place and place[1] == "function":
            found.append((int(place[2]), int(place[3]), name_of(record[0])))
    return found


class Types:
    """Type and id records as llvm-pdbutil decodes them, rendered by the rules of FUNC lines."""

    PRIMITIVES = {
        3: "void", 8: "long", 18: "long", 16: "signed char", 104: "signed char", 17: "short",
        114: "short", 19: "__int64", 118: "__int64", 20: "s128", 120: "s128",
        32: "unsigned char", 105: "unsigned char", 33: "unsigned short", 115: "unsigned short",
        34: "unsigned long", 35: "unsigned __int64", 119: "unsigned __int64", 48: "bool",
        49: "bool", 50: "bool", 51: "bool", 64: "float", 65: "double", 66: "long double",
        67: "f128", 112: "char", 113: "wchar_t", 116: "int", 117: "unsigned int", 36: "u128",
        121: "u128"}

    def __init__(self, pdb):
        self.types = self.read(run(PDBUTIL, "dump", "--types", pdb))
        self.ids = self.read(run(PDBUTIL, "dump", "--ids", pdb))

    @staticmethod
    def read(dump):
        table = {}
        for record in records(dump):
            head = re.match(r" +0x([0-9A-F]+) \| (LF_\w+)", record[0])
            if head:
                table[int(head[1], 16)] = (head[2], record)
        return table

    @staticmethod
    def index(text, label):
        found = re.search(label + r" = (0x[0-9A-F]+|<no type>)", text)
        return 0 if found[1] == "<no type>" else int(found[1], 16)

    def primitive(self, index):
        text = self.PRIMITIVES.get(index & 0xFF)
        if text is None:
            return "!Unknown!"
        return text + (" *" if (index >> 8) & 6 else "")

    def render(self, index, top):
        """The text, and whether it is a function's."""
        if index == 0:
            return "...", False
        if index not in self.types:
            return self.primitive(index), False
        leaf, record = self.types[index]
        text = "\n".join(record)
        if leaf == "LF_ARGLIST":
            items = [re.match(r" +(0x[0-9A-F]+|<no type>)", line) for line in record[1:]]
            indices = [0 if i[1] == "<no type>" else int(i[1], 16) for i in items if i]
            return "(" + ",".join(self.render(i, top)[0] for i in indices) + ")", False
        if leaf in ("LF_PROCEDURE", "LF_MFUNCTION"):
            return self.render(self.index(text, "param list"), False)[0], True
        if leaf == "LF_MODIFIER":
            modifiers = re.search(r"modifiers = (.*)", text)[1].strip()
            suffix = {"const": " const", "volatile": " volatile",
                      "unaligned": " unaligned"}.get(modifiers, "")
            return self.render(self.index(text, "referent"), False)[0] + suffix, False
        if leaf == "LF_POINTER":
            return self.render_pointer(text), False
        if leaf == "LF_ARRAY":
            return self.render_array(text), False
        if leaf in ("LF_CLASS", "LF_STRUCTURE", "LF_UNION", "LF_ENUM", "LF_ALIAS"):
            return self.type_name(leaf, text, record), False
        return self.primitive(index), False

    def render_pointer(self, text):
        rendered, function = self.render(self.index(text, "referent"), False)
        mode = re.search(r"mode = ([^,]*)", text)[1]
        marker = {"pointer": " *", "ref": " &", "data member pointer": "::*",
                  "ptr to data member": "::*", "member func pointer": "::",
                  "ptr to member func": "::", "rvalue ref": " &&"}.get(mode, "?" + mode)
        options = re.search(r"opts = ([^,\n]*)", text)[1]
        if not function:
            rendered += marker
        return (rendered + (" const" if "const" in options else "")
                + (" volatile" if "volatile" in options else ""))

    def render_array(self, text):
        size = int(re.search(r"size: (\d+)", text)[1])
        element = int(re.search(r"element type: (0x[0-9A-F]+)", text)[1], 16)
        # A size of 0x8000 or more is preceded by its leaf, which is what the text shows.
        shown = size if size < 0x8000 else (0x8002 if size < 0x10000 else 0x8004)
        return f"{self.render(element, False)[0]}[{shown}]"

    @staticmethod
    def type_name(leaf, text, record):
        name = name_of(record[0])
        size = re.search(r"sizeof (\d+)", text)
        if leaf in ("LF_ENUM", "LF_ALIAS") or size is None or int(size[1]) < 0x8000:
            return name
        # The name begins inside a long size: its bytes come first, and a zero byte ends it.
        value = int(size[1])
        raw = value.to_bytes(2 if value < 0x10000 else 4, "little") + name.encode()
        return raw.split(b"\0")[0].decode("utf-8", "replace")

    def id_name(self, index):
        """What an inlinee is called, or None where its record gives no name that is used."""
        leaf, record = self.ids.get(index, ("", []))
        if leaf != "LF_FUNC_ID":
            return None
        text = "\n".join(record)
        found = re.search(r"name = (.*), type = (0x[0-9A-F]+), ", text)
        return found[1] + self.render(int(found[2], 16), False)[0]


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


def compare_functions(report, text, table, types):
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
        compare_function(report, text, function, expected, types)
    for function in ours.values():
        report.differs("functions", f"only ours: {function.name}")


def compare_function(report, text, function, expected, types):
    report.because("functions", "folded: one record an address", len(expected.symbols) - 1)
    for symbol in expected.symbols:
        name = clean(symbol.name)
        if symbol.type_index != 0:
            name += types.render(symbol.type_index, True)[0]
        if (name, symbol.length) == (function.name, function.length):
            report.same("functions")
            report.same("signatures" if symbol.type_index else "names without type")
            compare_inlines(report, function, symbol, types)
            break
    else:
        first = expected.symbols[0]
        signature = types.render(first.type_index, True)[0]
        report.differs("functions", f"{function.name!r} {function.length:x}, theirs "
                                    f"{first.name!r}{signature} {first.length:x}")
        return
    compare_lines(report, text, function, expected)


def compare_inlines(report, function, symbol, types):
    names = [types.id_name(i) for i in symbol.inlinees]
    if None in names:
        report.because("functions with inline sites", "an inlinee without a name: no I lines")
        names = []
    elif names:
        # A site without a code range prints nothing.
        extra = set(function.inlines) - set(names)
        missing = set(names) - set(function.inlines)
        if extra or missing:
            report.differs("functions with inline sites",
                           f"{function.name}: extra {extra}, missing {missing}")
        else:
            report.same("functions with inline sites")
    if not names and function.inlines:
        report.differs("functions with inline sites", f"{function.name}: unexpected")


def compare_lines(report, text, function, expected):
    block = accepted_block(expected.blocks)
    if block is None or not block.lines:
        report.compare("functions with lines", function.lines, [], function.name)
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


# ---- unwind data

SCRATCH = {"RAX", "RCX", "RDX", "R8", "R9", "R10", "R11"}


class Frame:
    """What the codes of a function's unwind info, and of those chained to it, sum up to."""

    def __init__(self):
        self.stack = 0
        self.ra = 8
        self.frame_at = None
        self.saved = {}

    def push(self, register):
        if register not in SCRATCH:
            self.saved["$" + register.lower()] = self.stack
        self.stack += 8

    def save(self, register, offset):
        if register not in SCRATCH:
            self.saved["$" + register.lower()] = offset

    def rule(self, uses_frame, frame_offset):
        size = self.stack + 8
        order = sorted(self.saved, key=lambda name: (name != "$rbp", name))
        if not uses_frame:
            return f".cfa: $rsp {size} +" + "".join(
                f" {name}: $rsp {self.saved[name]} + ^" for name in order)
        return f".cfa: $rbp {size - frame_offset - self.frame_at} +" + "".join(
            f" {name}: .cfa {size - self.saved[name]} - ^" for name in order)


def apply_code(frame, line):
    """One code as llvm-readobj prints it."""
    found = re.search(r"0x[0-9A-F]+: (\w+) ?(?:reg=(\w+))?(?:, )?(?:size=|offset=)?(\w+)?", line)
    if not found:
        return
    operation, register, number = found.groups()
    value = int(number, 0) if number and re.fullmatch(r"0x[0-9A-Fa-f]+|\d+", number) else 0
    if operation == "PUSH_NONVOL":
        frame.push(register)
    elif operation in ("ALLOC_SMALL", "ALLOC_LARGE"):
        frame.stack += value
    elif operation == "SET_FPREG":
        frame.frame_at = frame.stack
    elif operation.startswith("SAVE_NONVOL"):
        frame.save(register, value)
    elif operation == "PUSH_MACHFRAME":
        frame.ra += 80
        frame.stack += 88 if "errcode=yes" in line else 80


def read_frames(image, base):
    """(begin, end) and rule of every function that llvm-readobj gets to."""
    frames = {}
    dump = run(READOBJ, "--unwind", image)
    for part in re.split(r"\n  RuntimeFunction \{", dump)[1:]:
        if "\n  }" not in part:
            continue
        begin = int(re.search(r"StartAddress:.*\(0x([0-9A-F]+)\)", part)[1], 16) - base
        end = int(re.search(r"EndAddress:.*\(0x([0-9A-F]+)\)", part)[1], 16) - base
        frame = Frame()
        for line in part.split("\n"):
            apply_code(frame, line)
        register = re.search(r"FrameRegister: (\S+)", part)[1]
        offset = re.search(r"FrameOffset: (\S+)", part)[1]
        frames[(begin, end)] = (frame.ra, frame.rule(
            register != "-", 0 if offset == "-" else 16 * int(offset, 16)))
    return frames


def compare_unwind(report, text, image):
    headers = run(READOBJ, "--file-headers", image)
    base = int(re.search(r"ImageBase: (0x[0-9A-F]+)", headers)[1], 16)
    size = int(re.search(r"ExceptionTableSize: (0x[0-9A-F]+)", headers)[1], 16)
    frames = read_frames(image, base)
    if "Arch: x86_64" not in headers:
        report.compare("unwind entries", len(text.cfi), 0, "STACK CFI lines of a 32-bit image")
        return
    report.compare("unwind entries", len(text.cfi_init), size // 12, "number of entries")
    starts = {(int(a, 16), int(b, 16)) for a, b in re.findall(
        r"Start Address: 0x([0-9a-f]+)\n +End Address: 0x([0-9a-f]+)",
        run(OBJDUMP, "--unwind-info", image))}
    for (address, length), rule in zip(text.cfi_init, text.cfi):
        key = (address, address + length)
        if key in frames:
            report.compare("unwind rules", rule, frames[key][1], f"{address:x}")
        elif key in starts:
            report.because("unwind rules", "address and size alone: llvm-readobj ends before it")
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
    compare_functions(report, text, table, Types(pdb))
    compare_publics(report, text, pdb, table, sections)
    compare_frame_data(report, text, pdb)
    if image:
        compare_unwind(report, text, image)
    print(f"\n{pdb.rsplit('/', 1)[-1]}\n")
    return 0 if report.print() else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
