"""What llvm-pdbutil reads in a PDB, as plain records."""

import collections
import re
import subprocess

PDBUTIL = "llvm-pdbutil-19"


def run(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return done.stdout.decode("utf-8", "replace")


def records(dump):
    """Splits a dump into records: the line that starts one and its further lines."""
    current = []
    for line in dump.split("\n"):
        if re.match(r" *(0x)?[0-9A-F]+ \| [SL][F]?_", line):
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


Site = collections.namedtuple("Site", "inlinee annotations")


class Symbol:
    def __init__(self, section, offset, length, type_index, name):
        self.section, self.offset, self.length = section, offset, length
        self.type_index, self.name = type_index, name
        self.sites = []  # Site, or None for the end of one


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
            inlinee = int(re.search(r"inlinee = (0x[0-9A-F]+)", text).group(1), 16)
            encoded = "".join(re.findall(r"^ {10,}((?:[0-9A-F]{2})+)(?: |$)", text, re.M))
            current.sites.append(Site(inlinee, bytes.fromhex(encoded)))
        elif "| S_INLINESITE_END " in head and current:
            current.sites.append(None)
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


def read_inlinees(pdb):
    """Line and file name of each inlinee: the first entry of all modules."""
    table = {}
    for index, line, file in re.findall(r"^ +0x([0-9A-F]+) \| +(\d+) \| (.*)$",
                                        run(PDBUTIL, "dump", "--il", pdb), re.M):
        file = re.sub(r" \((MD5|SHA-1|SHA-256|no checksum).*$", "", file)
        table.setdefault(int(index, 16), (int(line), file))
    return table


def line_number(text):
    """Numbers that stand for 'always step into' and 'never step into' are printed by name."""
    return {"ASI": 0xFEEFEE, "NSI": 0xF00F00}.get(text) or int(text)


def read_sections(pdb):
    dump = run(PDBUTIL, "dump", "--section-headers", pdb).split("Original Section Headers")[0]
    sections = {}
    for part in dump.split("SECTION HEADER #")[1:]:
        def field(label):
            return int(re.search(r"([0-9A-F]+) " + label, part).group(1), 16)
        number = int(part.split("\n")[0])
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
        # The name begins inside a long size, whose bytes precede it, and a zero byte ends it.
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
