"""Pictures of measurements, for docs/performance.md.

bench_pictures.py PROGRAM WORK TABLES FOLDER: PROGRAM is symforge, WORK a folder for temporary files
with the generated PDBs and lookups.csv, the output of the lookup benchmarks, TABLES the tables
that process_bench has printed. Writes FOLDER/*.svg and prints what it has measured as tables.
"""

import csv
import io
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
COLOURS = ("#1f6fb2", "#d1622b", "#3d8f4f", "#8a4fb0", "#b8922a", "#5b6770", "#c04a6e", "#2b9aa0",
           "#7a5c3e", "#9aa832", "#264653", "#e8b04a")
WIDTH, HEIGHT = 720, 400
LEFT, RIGHT, TOP, BOTTOM = 110, 210, 52, 50

# Steps of a conversion, and the functions that they consist of.
STEPS = {
    "default": (
        ("type records", ("TypeTable::load(",)),
        ("public symbols", ("PublicFunctions::getGlobalFunctions(",)),
        ("source files", ("SourceFiles::gatherFiles(",)),
        ("functions of modules", ("getModuleFunctions(",)),
        ("lines and inlinees", ("resolveFunctionLines(", "InlineeLines::resolveInlineFunctions(")),
        ("order, parameter sizes", ("sortFunctions(", "mergeGlobals(", "resolveParamSizes(")),
        ("printing", ("FunctionPrinter::printFunctions(",)),
        ("unwind data", ("printUnwindData(",))),
    "standard": (
        ("type records", ("TypeTable::load(",)),
        ("public symbols", ("PublicFunctions::getGlobalFunctions(",)),
        ("source files", ("SourceFiles::gatherFiles(",)),
        ("functions of modules", ("FunctionCollector::collectPart(",)),
        ("layout", ("FunctionLayout::place(",)),
        ("names, lines and calls", ("FunctionReader::read(",)),
        ("printing", ("LinePrinter::print(",)),
        ("unwind rules", ("writeX64UnwindRules(",))),
}


def escaped(text):
    return text.replace("&", "&amp;").replace("<", "&lt;")


class Picture:
    """An SVG with a title, drawn on white, so that it can be read on any page."""

    def __init__(self, title):
        self.parts = [
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
            'font-family="sans-serif" font-size="12">',
            f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>']
        self.text(LEFT, 22, title, size=15)

    def text(self, x, y, text, anchor="start", size=12):
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" '
                          f'font-size="{size}">{escaped(text)}</text>')

    def line(self, points, colour, width=2.0):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" '
                          f'stroke-width="{width}"/>')

    def dot(self, x, y, colour):
        self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" fill="{colour}"/>')

    def box(self, x, y, width, height, colour):
        self.parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" '
                          f'height="{height:.1f}" fill="{colour}"/>')

    def key(self, number, name):
        y = TOP + 10 + 20 * number
        self.box(WIDTH - RIGHT + 15, y - 9, 11, 11, COLOURS[number % len(COLOURS)])
        self.text(WIDTH - RIGHT + 32, y, name)

    def write(self, path):
        path.write_text("\n".join(self.parts + ["</svg>"]) + "\n", encoding="utf-8")


def round_up(value):
    """The next of 1, 2, 5, 10, 20, 50 ..."""
    step = 1e-3
    while True:
        for factor in (1, 2, 5):
            if step * factor >= value:
                return step * factor
        step *= 10


def short(number):
    for unit, name in ((1e6, " M"), (1e3, " k")):
        if number >= unit:
            return f"{number / unit:g}{name}"
    return f"{number:.3g}"


def curves(title, x_title, y_title, series, path):
    """`series`: name -> [(x, y)]. The distances along x are equal, as sizes grow by factors."""
    places = sorted({x for points in series.values() for x, _ in points})
    highest = max(y for points in series.values() for _, y in points)
    step = round_up(highest / 6)
    top = step * (int(highest / step) + 1)
    width, height = WIDTH - LEFT - RIGHT, HEIGHT - TOP - BOTTOM

    def at(x, y):
        share = places.index(x) / max(len(places) - 1, 1)
        return LEFT + share * width, HEIGHT - BOTTOM - y / top * height

    picture = Picture(title)
    for i in range(int(round(top / step)) + 1):
        y = HEIGHT - BOTTOM - i * step / top * height
        picture.line([(LEFT, y), (LEFT + width, y)], "#dddddd", 1)
        picture.text(LEFT - 8, y + 4, short(round(i * step, 6)), "end")
    for x in places:
        picture.text(at(x, 0)[0], HEIGHT - BOTTOM + 18, short(x), "middle")
    picture.text(LEFT + width / 2, HEIGHT - 12, x_title, "middle")
    picture.text(LEFT - 8, TOP - 12, y_title, "end")
    for number, (name, points) in enumerate(series.items()):
        colour = COLOURS[number % len(COLOURS)]
        picture.line([at(x, y) for x, y in sorted(points)], colour)
        for x, y in points:
            picture.dot(*at(x, y), colour)
        picture.key(number, name)
    picture.write(path)


def bars(title, rows, path):
    """`rows`: name -> [(part, share)], each drawn as one bar of parts."""
    picture = Picture(title)
    names = []
    width = WIDTH - LEFT - RIGHT
    height = (HEIGHT - TOP - BOTTOM) / len(rows)
    for row, (name, parts) in enumerate(rows.items()):
        x = LEFT
        y = TOP + 15 + row * height
        picture.text(LEFT - 8, y + height / 2 - 10, name, "end")
        for part, share in parts:
            if part not in names:
                names.append(part)
            colour = COLOURS[names.index(part) % len(COLOURS)]
            picture.box(x, y, share * width, height - 40, colour)
            if share > 0.05:
                picture.text(x + share * width / 2, y + height - 25, f"{100 * share:.0f} %", "middle", 10)
            x += share * width
    for number, name in enumerate(names):
        picture.key(number, name)
    picture.write(path)


def table(header, rows):
    print("\n| " + " | ".join(header) + " |\n|" + "---|" * len(header))
    for row in rows:
        print("| " + " | ".join(str(cell) for cell in row) + " |")


def rows_of(tables, columns):
    """Cells of the table rows with so many columns."""
    for line in tables.splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if len(cells) == columns:
            yield cells


def draw_ratios(tables, folder):
    sizes = {cells[0]: float(cells[1]) for cells in rows_of(tables, 4)
             if re.fullmatch(r"[\d.]+", cells[1])}
    series = {}
    for cells in rows_of(tables, 8):
        if cells[0] in sizes and re.fullmatch(r"[\d.]+", cells[4]):
            series.setdefault(cells[1], []).append((sizes[cells[0]], float(cells[4])))
    curves("Time of a conversion over the floor", "PDB, MB", "ratio", series, folder / "ratios.svg")


def instruction_shares(program, pdb, options, steps, work):
    """Inclusive instructions of each step, as shares of all."""
    out = work / "callgrind.out"
    subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", program,
                    "--no-sandbox", *options, pdb], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)
    text = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", out],
                          check=True, capture_output=True, text=True).stdout
    found, total = {}, 0
    for count, function in re.findall(r"^ *([\d,]+) \([ \d.]+%\) +(.*)$", text, re.M):
        number = int(count.replace(",", ""))
        if "PROGRAM TOTALS" in function:
            total = number
        for name, wanted in steps:
            # A function can be listed once more for its recursion or its cold part.
            for each in wanted:
                if "symforge_internal::" + each in function:
                    found[name, each] = max(found.get((name, each), 0), number)
    shares = [(name, sum(found.get((name, each), 0) for each in wanted) / total)
              for name, wanted in steps]
    return shares + [("rest", 1 - sum(share for _, share in shares))]


def draw_phases(program, work, folder):
    rows = {f"{mode}, {size} MB": instruction_shares(
                program, work / f"generated{size}.pdb",
                ["--standard"] if mode == "standard" else [], steps, work)
            for mode, steps in STEPS.items() for size in (5, 98)}
    table(("mode", "step", "share of instructions"),
          [(name, step, f"{100 * share:.1f} %") for name, parts in rows.items()
           for step, share in parts])
    bars("Share of the steps of PDB to text (instructions)", rows, folder / "steps.svg")


LOOKUPS = {"lookup": "SYMB", "lookup_indexed": "with index", "lookup_array": "index, arrays"}


def draw_lookups(csv_file, folder):
    """The output of the lookup benchmarks: NAME/functions:N/sites:N, BM_LookupAddress/N."""
    text = csv_file.read_text(encoding="utf-8")
    series = {}
    for row in csv.reader(io.StringIO(text[text.index("name,"):])):
        name, *sizes = row[0].split("/")
        if name == "name":
            column = row.index("items_per_second")
            continue
        functions, sites = ([int(size.split(":")[-1]) for size in sizes] + [0])[:2]
        if name in LOOKUPS:
            label = f"{LOOKUPS[name]}, {sites or 'no'} sites"
        elif name == "BM_LookupAddress":
            label = "text module"
        else:
            continue
        series.setdefault(label, []).append((functions, float(row[column])))
    table(("lookups", "functions", "a second"),
          [(name, x, f"{y:.0f}") for name, points in series.items() for x, y in points])
    curves("Lookups at random addresses", "functions of the module", "a second", series,
           folder / "lookups.svg")


def make_pairs(folder, count):
    """Pairs of the fixture engine64 with identifiers of their own."""
    pdb = (ROOT / "fixtures/engine64.pdb").read_bytes()
    exe = (ROOT / "fixtures/engine64.exe").read_bytes()
    at = exe.index(b"RSDS") + 4
    identifier = exe[at:at + 16]
    for i in range(count):
        changed = i.to_bytes(4, "little") + identifier[4:]
        (folder / f"p{i:05}.pdb").write_bytes(pdb.replace(identifier, changed))
        (folder / f"p{i:05}.exe").write_bytes(exe.replace(identifier, changed))


def draw_batch(program, work, folder):
    count, rounds = 300, 3
    pairs = work / "pairs"
    pairs.mkdir()
    make_pairs(pairs, count)
    series = {"default": [], "standard": []}
    for jobs in sorted({1, 2, os.cpu_count() or 1, 2 * (os.cpu_count() or 1)}):
        for mode, points in series.items():
            best = 0.0
            for _ in range(rounds):
                tree = work / "tree"
                tree.mkdir()
                options = ["--standard", "--no-sync"] if mode == "standard" else []
                begin = time.monotonic()
                subprocess.run([program, *options, "-j", str(jobs), "-r", pairs, tree], check=True,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                best = max(best, count / (time.monotonic() - begin))
                shutil.rmtree(tree)
            points.append((jobs, best))
    table(("batch of 300 small pairs", "-j", "pairs a second"),
          [(name, x, f"{y:.0f}") for name, points in series.items() for x, y in points])
    curves("Batch of small pairs", "-j", "pairs a second", series, folder / "batch.svg")


def main(arguments):
    program, work, tables, folder = (pathlib.Path(each) for each in arguments)
    folder.mkdir(parents=True, exist_ok=True)
    draw_ratios(tables.read_text(encoding="utf-8"), folder)
    draw_phases(program, work, folder)
    draw_lookups(work / "lookups.csv", folder)
    draw_batch(program, work, folder)


if __name__ == "__main__":
    main(sys.argv[1:])
