"""Compares the ARM64 unwind codes that the converter decodes with those of llvm-readobj.

  check_arm64_codes.py DUMP_ARM64_UNWIND IMAGE

Called by scripts/check_against_llvm for ARM64 images. Prints counts; ends with status 1 when an
entry differs. Entries that llvm-readobj does not decode, and packed prologs that it calls invalid,
are counted apart. Of packed entries it prints no epilog.
"""

import re
import subprocess
import sys

from llvm_dumps import run

READOBJ = "llvm-readobj-19"

# Codes that the converter does not support.
UNSUPPORTED = re.compile(
    r"trap frame|machine frame|context|clear unwound|reserved|Bad opcode|unknown", re.I)


def register_name(name):
    return {"lr": "x30", "fp": "x29"}.get(name, name)


def effect(text):
    """One instruction as llvm-readobj prints it, in the form of dump_arm64_unwind."""
    text = text.strip()
    if text in ("nop", "end", "end_c"):
        return {"nop": "nop", "end": "end", "end_c": "|"}[text]
    if text in ("pacibsp", "autibsp"):
        return "sign"
    if text in ("save next", "restore next"):
        return "next"
    found = re.fullmatch(r"(?:sub|add) (?:sp, )?sp, #(\d+)", text)
    if found:
        return "alloc!" + found[1]
    found = re.fullmatch(r"mov (?:fp|x29), sp|mov sp, (?:fp|x29)", text)
    if found:
        return "fp@0"
    found = re.fullmatch(r"add (?:fp|x29), sp, #(\d+)|sub sp, (?:fp|x29), #(\d+)", text)
    if found:
        return "fp@" + (found[1] or found[2])
    found = re.fullmatch(r"(?:stp|str|ldp|ldr) (\w+)(?:, (\w+))?, "
                         r"\[sp(?:, #(-?\d+))?\](!)?(?:, #(\d+))?", text)
    if not found:
        return None
    first, second, offset, pre_indexed, post = found.groups()
    amount = abs(int(offset or 0)) if pre_indexed else int(post or 0)
    if pre_indexed and amount == 0:  # a packed entry whose frame is too small
        return None
    if first in ("x0", "x2", "x4", "x6") and second:  # homed parameters of packed entries
        return f"alloc!{amount}" if amount else "nop"
    names = [register_name(name) for name in (first, second) if name]
    place = 0 if pre_indexed or post else int(offset or 0)
    return "save_" + "_".join(names) + f"@{place}" + (f"!{amount}" if amount else "")


def resolve_next(codes):
    """Puts the registers of the following pair in the places of each run of save_next."""
    out = list(codes)
    for i, code in enumerate(codes):
        if code != "next":
            continue
        steps = 1
        while i + steps < len(codes) and codes[i + steps] == "next":
            steps += 1
        following = (codes + [""])[i + steps] or ""
        pair = re.fullmatch(r"save_([xdq])(\d+)_[xdq]\d+@(\d+)(!\d+)?", following)
        if not pair:
            return None
        file, first = pair[1], int(pair[2]) + 2 * steps
        offset = int(pair[3]) + steps * (32 if file == "q" else 16)
        out[i] = f"save_{file}{first}_{file}{first + 1}@{offset}"
    return out


def sequence(lines):
    """The effects of a list of printed codes. None: one that has no known form."""
    effects = [effect(re.sub(r"^.*?; ", "", line)) for line in lines]
    if None in effects or not effects or effects[-1] != "end":
        return None
    effects = resolve_next(effects[:-1])
    # Printed up to the end of the record; nothing follows the first end.
    return None if effects is None else " ".join(effects)


def block(text, name):
    found = re.search(name + r" \[\n(.*?)\n +\]\n", text, re.S)
    return [line for line in found[1].split("\n") if line.strip()] if found else []


def epilogs(part, length):
    """(start, effects) in bytes of the epilogs of a full record."""
    if "EpiloguePacked: Yes" in part:
        # Not printed when it shares the codes of the prolog.
        name = "Epilogue" if "Epilogue [" in part else "Prologue"
        codes = sequence(block(part, name))
        if codes is None:
            return None
        own, part, _ = f" {codes} ".partition(" | ")
        return [(length - 4 * (len(own.split()) + (0 if part else 1)), codes)]
    out = []
    for scope in part.split("EpilogueScope {")[1:]:
        start = 4 * int(re.search(r"StartOffset: (\d+)", scope)[1])
        out.append((start, sequence(block(scope, "Opcodes"))))
    return out


def read_llvm(image):
    """[(begin, length, line of dump_arm64_unwind, None or "unsupported", is packed)]"""
    text = run(READOBJ, "--unwind", image)
    base = int(re.search(r"ImageBase: (0x[0-9A-F]+)", run(READOBJ, "--file-headers", image))[1], 16)
    for part in text.split("RuntimeFunction {")[1:]:
        begin = int(re.search(r"Function: .*?(0x[0-9A-F]+)\)?\n", part)[1], 16) - base
        length = int(re.search(r"FunctionLength: (\d+)", part)[1])
        packed = "Fragment: " in part
        prolog = sequence(block(part, "Prologue"))
        line = None if prolog is None else f" {prolog}".rstrip()
        if not packed and line is not None:
            scopes = epilogs(part, length)
            if scopes is None or any(codes is None for _, codes in scopes):
                line = None
            else:
                for start, codes in scopes:
                    line += f" at {start:x}" + (f" {codes}" if codes else "")
        reason = "unsupported" if line is None and UNSUPPORTED.search(part) else None
        yield begin, length, line, reason, packed


def read_ours(dump, image):
    done = subprocess.run([dump, image], stdout=subprocess.PIPE, check=True)
    for line in done.stdout.decode().splitlines():
        begin, length, codes = re.fullmatch(r"(\w+) (\w+)(.*)", line).groups()
        yield int(begin, 16), int(length, 16), codes


def main(dump, image):
    theirs, ours = list(read_llvm(image)), list(read_ours(dump, image))
    counts = {"equal": 0, "unsupported by both": 0, "undecided": 0}
    differences = []
    if len(theirs) != len(ours):
        differences.append(f"entries: ours {len(ours)}, theirs {len(theirs)}")
    for (begin, length, line, reason, packed), mine in zip(theirs, ours):
        codes = mine[2]
        if packed:
            codes = re.sub(r" at .*", "", codes)
        if reason and codes.strip() == reason:
            counts["unsupported by both"] += 1
        elif line is None and not reason:
            counts["undecided"] += 1
        elif mine[:2] == (begin, length) and codes == line:
            counts["equal"] += 1
        else:
            differences.append(f"{begin:x} {length:x}\n  ours   {mine[2]}\n  theirs {line}")
    print(f"{image}: " + ", ".join(f"{n} {what}" for what, n in counts.items())
          + f", {len(differences)} different")
    for text in differences[:10]:
        print(text)
    return 1 if differences else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
