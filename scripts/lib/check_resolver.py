"""Asks the resolver about many addresses of one PDB, and compares its answers with a naive scan of
the symbol file's own records and with llvm-symbolizer. See scripts/check_resolver."""

import collections
import json
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile

LOAD_ADDRESS = 0x180000000


class Function:
    def __init__(self, address, size, name):
        self.address, self.size, self.name = address, size, name
        self.lines, self.inlines = [], []

    def holds(self, address):
        return self.address <= address < self.address + self.size


class SymbolFile:
    """The records of a text symbol file in the order of the file, without any index: every question
    is a walk over all of them."""

    def __init__(self, path):
        self.files, self.functions, self.publics, self.cfi = {}, [], {}, []
        current = None
        with open(path, encoding="utf-8", errors="replace", newline="\n") as text:
            for line in text:
                word, _, rest = line.rstrip("\r\n").partition(" ")
                if word == "FILE":
                    number, name = rest.split(" ", 1)
                    self.files.setdefault(int(number), name)
                elif word == "FUNC":
                    rest = rest.removeprefix("m ")
                    address, size, _, name = rest.split(" ", 3)
                    current = Function(int(address.split(":")[-1], 16), int(size, 16), name)
                    self.add_disjoint(self.functions, current)
                elif word == "PUBLIC":
                    current = None
                    address, _, name = rest.removeprefix("m ").split(" ", 2)
                    self.publics.setdefault(int(address, 16), name)
                elif word == "I":
                    address, size, number, file, _, name = rest.split(" ", 5)
                    self.add_nested(current.inlines, (int(address, 16), int(size, 16), name,
                                                      int(number), int(file)))
                elif word == "STACK":
                    if rest.startswith("CFI INIT"):
                        address, size, rules = rest.split(" ", 4)[2:]
                        self.cfi.append([int(address, 16), int(size, 16), rules, {}])
                    elif rest.startswith("CFI"):
                        address, rules = rest.split(" ", 2)[1:]
                        self.cfi[-1][3][int(address, 16)] = rules
                elif word not in ("MODULE", "INFO"):
                    size, number, file = rest.split(" ")[:3]
                    record = (int(word, 16), int(size, 16), int(number), int(file))
                    if record[1] and not any(r[0] < record[0] + record[1] and
                                             record[0] < r[0] + r[1] for r in current.lines):
                        current.lines.append(record)

    @staticmethod
    def add_disjoint(functions, new):
        if new.size and not any(f.address < new.address + new.size and
                                new.address < f.address + f.size for f in functions):
            functions.append(new)

    @staticmethod
    def add_nested(sites, new):
        first, last = new[0], new[0] + new[1]
        for site in sites:
            begin, end = site[0], site[0] + site[1]
            if (begin, end) == (first, last) or begin < first < end < last or first < begin < last < end:
                return
        if new[1]:
            sites.append(new)

    def answer(self, address):
        expected = dict(function_name="", function_base=0, source_file_name="", source_line=0,
                        source_line_base=0)
        below = [f for f in self.functions if f.address <= address]
        nearest = max(below, key=lambda f: f.address, default=None)
        if nearest and nearest.holds(address):
            expected.update(function_name=nearest.name,
                            function_base=LOAD_ADDRESS + nearest.address)
            for begin, size, number, file in nearest.lines:
                if begin <= address < begin + size:
                    expected.update(source_file_name=self.files.get(file, ""), source_line=number,
                                    source_line_base=LOAD_ADDRESS + begin)
            return expected
        publics = [a for a in self.publics if 0 < a <= address]
        if publics and (nearest is None or max(publics) > nearest.address):
            expected.update(function_name=self.publics[max(publics)],
                            function_base=LOAD_ADDRESS + max(publics))
        return expected

    def inlines(self, address):
        for function in self.functions:
            if function.holds(address) and function.lines:
                sites = [s for s in function.inlines if s[0] <= address < s[0] + s[1]]
                return [dict(name=s[2], source_file_name=self.files.get(s[4], ""), source_line=s[3])
                        for s in sorted(sites, key=lambda s: s[1])]
        return []

    def unwind_rules(self, address):
        for begin, size, initial, deltas in self.cfi:
            if begin <= address < begin + size:
                rules = {}
                for text in [initial] + [deltas[a] for a in sorted(deltas) if a <= address]:
                    for name, rule in re.findall(r"(\S+): (.*?)(?= \S+: |$)", text):
                        rules[name] = rule
                return dict(cfa_rule=rules.pop(".cfa", ""), ra_rule=rules.pop(".ra", ""),
                            register_rules=rules)
        return None


def ask(resolver, symbols, addresses):
    questions = "".join(f"{LOAD_ADDRESS + a:x}\n" for a in addresses)
    run = subprocess.run([resolver, symbols, f"{LOAD_ADDRESS:x}"], input=questions,
                         capture_output=True, text=True, check=True)
    if "ERROR" in run.stderr:
        sys.exit("the symbol file did not parse:\n" + run.stderr)
    return [json.loads(line) for line in run.stdout.splitlines()]


def compare(name, addresses, answers, expected):
    different = [(a, g, e) for a, g, e in zip(addresses, answers, expected)
                 if {key: g[key] for key in e} != e]
    print(f"{name:<44} {len(addresses) - len(different):6} equal {len(different):6} different")
    for address, given, wanted in different[:5]:
        print(f"  {address:x}: {given}\n   but expected {wanted}")
    return len(answers) == len(addresses) and not different


def plain(name):
    """A signature's qualified name: without parameters, template arguments and blanks."""
    while re.search(r"<[^<>]*>", name):
        name = re.sub(r"<[^<>]*>", "", name)
    name = name.replace("deleting destructor", "deleting dtor")
    return re.sub(r"\(.*", "", name).replace(" ", "")


def llvm_answers(image, addresses):
    questions = "".join(f"{a:#x}\n" for a in addresses)
    run = subprocess.run(["llvm-symbolizer-19", f"--obj={image}", "--relative-address",
                          "--no-inlines", "--output-style=JSON"],
                         input=questions, capture_output=True, text=True, check=True)
    return [json.loads(line)["Symbol"][0] for line in run.stdout.splitlines()]


def reason_of_difference(file, address, answer, llvm):
    """The reason of an answer that differs from llvm-symbolizer's; None for equal ones."""
    if plain(llvm["FunctionName"]) != plain(answer["function_name"]):
        if not answer["function_name"]:
            return "no function holds the address (padding): LLVM gives the one before"
        if any(plain(f.name) == plain(llvm["FunctionName"]) for f in file.functions):
            return "function: UNEXPLAINED"
        return "functions were folded, and the symbol file has another name of theirs"
    place = (llvm["FileName"].lower(), llvm["Line"])
    if place == (answer["source_file_name"].lower(), answer["source_line"]):
        return None
    if answer["source_line_base"] == LOAD_ADDRESS + address:
        return "several lines begin at the address: LLVM gives the first, an empty range"
    function = next(f for f in file.functions if f.holds(address))
    if place in {(file.files.get(r[3], "").lower(), r[2]) for r in function.lines}:
        return "line: UNEXPLAINED"
    return "the line is of a block that the function does not get: it has the first one of one file"


def compare_with_llvm(image, file, addresses, answers):
    reasons = collections.Counter()
    examples = {}
    for address, answer, llvm in zip(addresses, answers, llvm_answers(image, addresses)):
        reason = reason_of_difference(file, address, answer, llvm) or "equal function, file and line"
        reasons[reason] += 1
        examples.setdefault(reason, f"{address:x}: {answer['function_name']} "
                            f"{answer['source_file_name']}:{answer['source_line']}; LLVM: "
                            f"{llvm['FunctionName']} {llvm['FileName']}:{llvm['Line']}")
    print("llvm-symbolizer:")
    for reason, count in reasons.most_common():
        print(f"  {count:6} {reason}\n         e.g. {examples[reason]}")
    return not any("UNEXPLAINED" in reason for reason in reasons)


def main(symforge, resolver, pdb, image, count):
    with tempfile.TemporaryDirectory() as folder:
        text, symb = os.path.join(folder, "a.sym"), os.path.join(folder, "a.symb")
        for path, option in ((text, []), (symb, ["-b"])):
            with open(path, "wb") as out:
                command = [symforge, *option, *(["-e", image] if image else []), pdb]
                subprocess.run(command, stdout=out, check=True)
        file = SymbolFile(text)
        pick = random.Random(1)
        spread = [f.address + pick.randrange(f.size) for f in file.functions]
        while len(spread) < count:  # also in the gaps after functions
            f = pick.choice(file.functions)
            spread.append(f.address + pick.randrange(f.size + f.size // 8 + 8))
        addresses = spread[:count]

        expected = [file.answer(a) for a in addresses]
        good = True
        answers = ask(resolver, text, addresses)
        good &= compare("text against a scan of the records", addresses, answers, expected)
        good &= compare("  unwind rules", addresses, answers,
                        [dict(cfi=file.unwind_rules(a)) for a in addresses])
        symb_answers = ask(resolver, symb, addresses)
        good &= compare("SYMB against a scan of the records", addresses, symb_answers, expected)
        good &= compare("  inline frames", addresses, symb_answers,
                        [dict(inlines=file.inlines(a)) for a in addresses])
        if image and shutil.which("llvm-symbolizer-19"):
            good &= compare_with_llvm(image, file, addresses, answers)
    return 0 if good else 1


if __name__ == "__main__":
    _, symforge_path, resolver_path, pdb_path, image_path, count_text = sys.argv
    sys.exit(main(symforge_path, resolver_path, pdb_path, image_path, int(count_text)))
