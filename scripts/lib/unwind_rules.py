"""STACK CFI rules from the unwind data of an image as llvm-readobj prints it."""

import re

from llvm_dumps import run

READOBJ = "llvm-readobj-19"
OBJDUMP = "llvm-objdump-19"

SCRATCH = {"RAX", "RCX", "RDX", "R8", "R9", "R10", "R11"}


class Frame:
    """What the codes of a function's unwind info, and of those chained to it, sum up to."""

    def __init__(self):
        self.stack = 0
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
        frame.stack += 88 if "errcode=yes" in line else 80


class Info:
    """The unwind info of one entry, and the address of the one that it is chained to."""

    def __init__(self, part):
        own, _, chained = part.partition("Chained {")
        self.codes = own.split("\n")
        self.frame_register = re.search(r"FrameRegister: (\S+)", own)[1]
        offset = re.search(r"FrameOffset: (\S+)", own)[1]
        self.frame_offset = 0 if offset == "-" else 16 * int(offset, 16)
        self.address = unwind_address(own)
        self.chained = unwind_address(chained) if chained else None


def unwind_address(text):
    return int(re.search(r"UnwindInfoAddress:.*\(0x([0-9A-F]+)\)", text)[1], 16)


def read_rules(image, base):
    """The rule of every function, by (begin, end), that llvm-readobj gets to."""
    entries, infos = {}, {}
    for part in re.split(r"\n  RuntimeFunction \{", run(READOBJ, "--unwind", image))[1:]:
        if "\n  }" not in part:
            continue
        begin = int(re.search(r"StartAddress:.*\(0x([0-9A-F]+)\)", part)[1], 16) - base
        end = int(re.search(r"EndAddress:.*\(0x([0-9A-F]+)\)", part)[1], 16) - base
        entries[(begin, end)] = info = Info(part)
        infos[info.address] = info
    rules = read_unchained_rules(image)
    rules.update((key, rule_of(info, infos)) for key, info in entries.items())
    return {key: rule for key, rule in rules.items() if rule is not None}


def rule_of(top, infos):
    """The codes of a chain add up. None when a part of the chain is not known."""
    frame, info = Frame(), top
    while True:
        for line in info.codes:
            apply_code(frame, line)
        if info.chained is None:
            return frame.rule(top.frame_register != "-", top.frame_offset)
        if info.chained not in infos:
            return None
        info = infos[info.chained]


SLOTS = {"UOP_SaveNonVol": 2, "UOP_SaveNonVolBig": 3, "UOP_SaveXMM128": 2, "UOP_SaveXMM128Big": 3}


def read_unchained_rules(image):
    """The same from llvm-objdump, which reads every entry but shows no chains: None for those."""
    rules = {}
    for part in run(OBJDUMP, "--unwind-info", image).split("Function Table:")[1:]:
        def field(label):
            found = re.search(label + r": (\S+)", part)
            return found and int(found[1], 0)
        codes = re.findall(r"0x[0-9a-f]+: (UOP_\w+) ?(\S*) ?(?:\[(\w+)\])?", part)
        slots = sum(SLOTS.get(code[0], 1) for code in codes if code[0] != "UOP_AllocLarge")
        frame = Frame()
        for operation, operand, offset in codes:
            if operation == "UOP_PushNonVol":
                frame.push(operand)
            elif operation.startswith("UOP_SaveNonVol"):
                frame.save(operand, int(offset, 0))
            elif operation == "UOP_AllocLarge":
                # Of the two forms, the one with two slots has its size in units of 8 bytes.
                frame.stack += int(operand) * (8 if field("Number of Codes") - slots == 2 else 1)
            elif operation == "UOP_AllocSmall":
                frame.stack += int(operand)
            elif operation == "UOP_SetFPReg":
                frame.frame_at = frame.stack
        rule = frame.rule("Frame register" in part, field("Frame offset") or 0)
        key = (field("Start Address"), field("End Address"))
        rules[key] = None if "ChainInfo" in part else rule
    return rules
