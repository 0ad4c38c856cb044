"""Converts fixtures, files and seeded mutants of the fixtures with two builds of symforge, and
prints what differs in output bytes, symbol trees, messages and ends."""

import argparse
import collections
import glob
import multiprocessing
import os
import random
import resource
import shutil
import sys
import tempfile
import zlib

import input_mutants as mutants
import paired_run
from paired_run import Case

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
IMAGE_ENDS = (".exe", ".dll")
SHOWN = 8  # differences of each kind

WRONG_USAGE = (
    (), ("-h",), ("-v",), ("-x", "a"), ("-s",), ("-e",), ("-r",), ("-i",), ("-b",), ("-r", "in"),
    ("a", "b", "c"), ("a", "missing"), ("-s", "tree", "a", "tree"), ("-s", "missing", "a"),
    ("-e", "a.exe"), ("-e", "a.exe", "-r", "in", "tree"), ("-r", "missing", "tree"),
    ("-e", "a.exe", "-s", "missing"), ("-e", "missing", "-s", "tree"), ("-hv",), ("-vh",),
    ("missing",), ("missing.pdb",), ("in",), ("-b", "in"), ("empty.pdb",), ("-b", "empty.pdb"),
    ("empty.pdb", "tree"), ("--", "-a"), ("a.sym", "-b"), ("-r", "in", "-s", "tree", "-b"))


class Seed:
    """A fixture: the bytes of an input and of its image, and the structure that mutations use."""

    def __init__(self, name, content, image=None):
        self.name, self.content, self.image = name, content, image
        self.pdb = mutants.Pdb(content) if image else None


Seeds = collections.namedtuple("Seeds", "pdbs texts symbs images")


def read(path):
    with open(path, "rb") as file:
        return file.read()


def image_beside(pdb):
    """The exe or dll of the same name, or nothing."""
    found = (pdb[:-4] + end for end in IMAGE_ENDS)
    return next((path for path in found if os.path.exists(path)), None)


def fixture_files():
    patterns = ("fixtures/*.pdb", "fixtures/*.sym", "tests/data/*.sym", "fuzz/corpus/*/*")
    return [path for pattern in patterns for path in sorted(glob.glob(os.path.join(ROOT, pattern)))]


def load_seeds(symb_files):
    pdbs = [Seed(os.path.basename(path), read(path), read(image_beside(path)))
            for path in sorted(glob.glob(os.path.join(ROOT, "fixtures/*.pdb")))]
    texts = [Seed(os.path.basename(path), read(path))
             for pattern in ("fixtures/*.sym", "tests/data/r*.sym")
             for path in sorted(glob.glob(os.path.join(ROOT, pattern)))]
    symbs = [Seed(os.path.basename(path), read(path)) for path in symb_files]
    images = [mutants.Image(seed.image) for seed in pdbs]
    return Seeds(pdbs, texts, symbs, images)


# ---- Sound inputs --------------------------------------------------------------------------------


def compare_pdb(case, pdb, image):
    """Every mode over a PDB; `image` is the name of the image beside it or None."""
    case.run("-i", pdb)
    if case.run(pdb, output="x.sym"):
        compare_text(case)
    if case.run("-b", pdb, output="x.symb"):
        compare_symb(case)
    for options in ((), ("-b",), ("-i", "-b")):
        case.make_folder("tree")
        case.run(*options, "-s", "tree", pdb)
        case.run(*options, pdb, "tree")
        case.compare_tree("tree", " ".join(["into a tree", *options]))
    if image:
        compare_image_apart(case, "apart/" + pdb, image)


def compare_image_apart(case, pdb, image):
    """The image given with -e, and the image alone with either form of symbol file in the tree."""
    case.run("-e", image, pdb)
    case.run("-b", "-e", image, pdb)
    for form in ((), ("-b",)):
        for alone in ((), ("-b",)):
            case.make_folder("tree")
            case.run(*form, pdb, "tree")
            case.run(*alone, "-e", image, "-s", "tree")
            case.run(*alone, "-e", image, "-s", "tree")
            case.compare_tree("tree", " ".join(["image alone", *form, *alone]))


def compare_text(case):
    """Every mode over x.sym."""
    case.run("x.sym")
    if case.run("-b", "x.sym", output="text.symb"):
        case.run("text.symb")
    case.make_folder("tree")
    case.run("x.sym", "tree")
    case.run("-b", "x.sym", "tree")
    case.compare_tree("tree", "text into a tree")


def compare_symb(case):
    """Every mode over x.symb."""
    case.run("x.symb")
    case.run("-b", "x.symb")
    case.make_folder("tree")
    case.run("x.symb", "tree")
    case.run("-b", "x.symb", "tree")
    case.compare_tree("tree", "SYMB into a tree")


def compare_batch(case, options):
    case.make_folder("tree")
    case.run("-r", *options, "in", "tree")
    case.compare_tree("tree", " ".join(["batch", *options]))


def compare_file(case, path):
    """A sound input in every mode that it has. Links take the place of copies."""
    with open(path, "rb") as file:
        start = file.read(6)
    if start == b"MODULE":
        case.put("x.sym", path)
        case.put("in/x.sym", path)
        compare_text(case)
    elif start[:4] == b"SYMB":
        case.put("x.symb", path)
        case.put("in/x.sym", path)
        compare_symb(case)
    elif start[:2] == b"MZ":
        case.put("x.exe", path)
        case.put("in/x.exe", path)
        case.make_folder("tree")
        case.run("-e", "x.exe", "-s", "tree")
        case.compare_tree("tree", "image alone")
    else:
        # Under their own names: the tree has a place for the name that the image knows.
        image, pdb = image_beside(path), os.path.basename(path)
        for folder in ("", "apart/", "in/"):
            case.put(folder + pdb, path)
        if image:
            case.put(os.path.basename(image), image)
            case.put("in/" + os.path.basename(image), image)
        compare_pdb(case, pdb, image and os.path.basename(image))
    for options in ((), ("-b", "-i")):
        compare_batch(case, options)


def compare_usage(case):
    """Command lines, most of them wrong."""
    case.put("a", b"")
    case.put("empty.pdb", b"")
    case.put("a.sym", b"MODULE windows x86_64 1 a.pdb\n")
    case.put("in/a.sym", b"MODULE windows x86_64 1 a.pdb\n")
    case.make_folder("tree")
    for arguments in WRONG_USAGE:
        case.run(*arguments)
    case.compare_tree("tree", "wrong usage")


def compare_fixture_batch(case):
    for path in fixture_files():
        for name in filter(None, (path, path.endswith(".pdb") and image_beside(path))):
            case.put("in/" + os.path.relpath(name, ROOT), name)
    for options in ((), ("-b",), ("-i",)):
        compare_batch(case, options)


# ---- Mutants -------------------------------------------------------------------------------------


class MutantRuns:
    """The runs over a mutant. One stops at its first difference, as the rest would follow from it;
    a form that another mutant has led to already is not read again."""

    def __init__(self, seeds):
        self.seeds, self.read_before = seeds, set()

    def is_new(self, content):
        digest = zlib.crc32(content), len(content)
        known = digest in self.read_before
        self.read_before.add(digest)
        return not known

    def pdb(self, rng, case, rebuild=False):
        seed = rng.choice(self.seeds.pdbs)
        change = mutants.rebuild_pdb if rebuild else mutants.mutate_pdb
        content, said = change(rng, seed.pdb)
        case.name += f" of {seed.name}: {said}"
        case.damaged = not rebuild
        case.put("x.pdb", content)
        if rng.random() < 0.8:
            case.put("x.exe", seed.image)
        case.run("x.pdb", output="x.sym")
        if not case.differences and rng.random() < 0.3:
            case.run("-i", "x.pdb")
        if case.differences or not self.is_new(case.read("x.sym")):
            return
        case.make_folder("tree")
        case.run("-b", "x.pdb", "tree")
        if not case.differences:
            case.compare_tree("tree", "into a tree")
        if not case.differences and case.run("-b", "x.sym", output="x.symb"):
            case.run("x.symb")

    def rebuilt(self, rng, case):
        self.pdb(rng, case, rebuild=True)

    def image(self, rng, case):
        weights = [5 if image.unwind else 1 for image in self.seeds.images]
        index = rng.choices(range(len(weights)), weights)[0]
        seed = self.seeds.pdbs[index]
        content, said = mutants.mutate_image(rng, self.seeds.images[index])
        case.name += f" of the image of {seed.name}: {said}"
        case.put("x.exe", content)
        case.put("x.pdb", seed.content)
        case.put("apart/" + seed.name, seed.content)
        case.run("x.pdb")
        if case.differences or rng.random() < 0.5:
            return
        form = rng.choice(((), ("-b",)))
        case.make_folder("tree")
        case.run(*form, "apart/" + seed.name, "tree")
        case.run(*rng.choice(((), ("-b",))), "-e", "x.exe", "-s", "tree")
        if not case.differences:
            case.compare_tree("tree", "image alone")

    def text(self, rng, case):
        seed = rng.choice(self.seeds.texts)
        content, said = mutants.mutate_text(rng, seed.content)
        case.name += f" of {seed.name}: {said}"
        case.put("x.sym", content)
        if case.run("-b", "x.sym", output="x.symb") and not case.differences:
            case.run("x.symb")
        if not case.differences and rng.random() < 0.3:
            case.run("x.sym")
            case.make_folder("tree")
            case.run(*rng.choice(((), ("-b",))), "x.sym", "tree")
            if not case.differences:
                case.compare_tree("tree", "text into a tree")

    def symb(self, rng, case):
        seed = rng.choice(self.seeds.symbs)
        content, said = mutants.mutate_symb(rng, seed.content)
        case.name += f" of {seed.name}: {said}"
        case.put("x.symb", content)
        case.run("x.symb")
        if not case.differences and rng.random() < 0.4:
            case.make_folder("tree")
            case.run(*rng.choice(((), ("-b",))), "x.symb", "tree")
            if not case.differences:
                case.compare_tree("tree", "SYMB into a tree")

    def batch(self, rng, case):
        """A folder with mutants of all kinds; sound and damaged files pair by their identifiers."""
        case.name += " folder"
        for seed, image in zip(self.seeds.pdbs, self.seeds.images):
            pdb = mutants.mutate_pdb(rng, seed.pdb)[0] if rng.random() < 0.5 else seed.content
            case.put(f"in/{seed.name}", pdb)
            damaged = rng.random() < 0.5
            name = seed.name[:-4] + rng.choice((".exe", ".DLL", "_signed.exe"))
            case.put(f"in/images/{name}",
                     mutants.mutate_image(rng, image)[0] if damaged else seed.image)
        text, symb = rng.choice(self.seeds.texts), rng.choice(self.seeds.symbs)
        case.put("in/text.sym", mutants.mutate_text(rng, text.content)[0])
        case.put("in/symb.SYM", mutants.mutate_symb(rng, symb.content)[0])
        case.make_folder("tree")
        case.run(*rng.choice(((), ("-b",), ("-i",))), "-r", "in", "tree")
        if not case.differences:
            case.compare_tree("tree", "batch")


SHARES = (("pdb", 45), ("rebuilt", 8), ("image", 12), ("text", 18), ("symb", 15), ("batch", 2))


def compare_mutant(runs, case, seed, number):
    rng = random.Random(f"{seed}:{number}")
    kind = rng.choices([name for name, _ in SHARES], [share for _, share in SHARES])[0]
    case.name = f"mutant {number} ({kind})"
    getattr(runs, kind)(rng, case)


# ---- The whole comparison ------------------------------------------------------------------------

Result = collections.namedtuple("Result", "differences runs limited unstable kept")
worker = None


class Worker:
    """One process of the pool, with a folder of its own."""

    def __init__(self, programs, scratch, seeds, options):
        self.scratch, self.options, self.runs = scratch, options, MutantRuns(seeds)
        self.kept = collections.Counter()
        self.unlimited_memory = any(map(paired_run.is_sanitized, programs))
        self.folder = self.make_folder(programs)
        self.old_twice = self.make_folder([programs[0], programs[0]])

    def make_folder(self, programs):
        folder = tempfile.mkdtemp(dir=self.scratch)
        for side, program in zip(paired_run.SIDES, programs):
            os.makedirs(os.path.join(folder, side))
            os.symlink(program, os.path.join(folder, side, "symforge"))
        return folder

    def case(self, folder, name, limits, damaged):
        if self.unlimited_memory:
            limits = paired_run.Limits(0, limits.file_size, limits.seconds)
        return Case(folder, name, limits, damaged)

    def mutant(self, folder, number):
        case = self.case(folder, "", paired_run.MUTANT_LIMITS, True)
        compare_mutant(self.runs, case, self.options.seed, number)
        return case

    def differs_from_itself(self, number):
        """Whether the old build has several results for a mutant: it may print an address or memory
        that it never wrote."""
        self.runs.read_before.clear()
        return any(self.mutant(self.old_twice, number).differences for _ in range(3))

    def keep(self, case, number):
        """Keeps the folders of a case that differs and may be shown, without the large files."""
        kinds = {difference.what for difference in case.differences}
        if all(self.kept[kind] >= SHOWN for kind in kinds):
            return None
        self.kept.update(kinds)
        kept = os.path.join(self.scratch, "differences", str(number))
        for side in paired_run.SIDES:
            shutil.copytree(case.path(side), os.path.join(kept, side), symlinks=True,
                            ignore=lambda folder, names: [
                                name for name in names
                                if os.lstat(os.path.join(folder, name)).st_size > 1 << 24])
        return kept

    def compare(self, task):
        number, kind, what = task
        if kind == "mutant":
            case = self.mutant(self.folder, what)
            if case.differences and case.damaged and self.differs_from_itself(what):
                return Result([], case.runs, case.limited, case.name, None)
        else:
            case = self.case(self.folder, what, paired_run.SOUND_LIMITS, False)
            if kind == "file":
                compare_file(case, what)
            else:
                {"usage": compare_usage, "batch": compare_fixture_batch}[kind](case)
        return Result(case.differences, case.runs, case.limited, None, self.keep(case, number))


def start_worker(*arguments):
    global worker
    os.umask(0o022)
    worker = Worker(*arguments)
    options = worker.options
    paired_run.OPTIONS.update(old=options.option, new=(*options.option, *options.new_option))


def compare(task):
    return worker.compare(task)


class Report:
    """Counts what was compared, and prints what differs as it comes."""

    def __init__(self, options):
        self.options = options
        self.inputs = self.runs = self.limited = 0
        self.faults, self.cleaner, self.unstable = [], [], []
        self.shown = collections.Counter()

    def add(self, result):
        self.inputs += 1
        self.runs += result.runs
        self.limited += result.limited
        if result.unstable:
            self.unstable.append(result.unstable)
        for difference in result.differences:
            excused = difference.cleaner and self.options.allow_cleaner
            (self.cleaner if excused else self.faults).append(difference)
            if not excused and self.shown[difference.what] < SHOWN:
                self.show(difference, result.kept)

    def show(self, difference, kept):
        self.shown[difference.what] += 1
        print(f"\n{difference.what}: {difference.case}\n  {difference.command}\n  kept in {kept}")
        for line in difference.details[:12]:
            print("    " + line)
        if len(difference.details) > 12:
            print(f"    and {len(difference.details) - 12} lines more")
        sys.stdout.flush()

    @staticmethod
    def count(differences):
        kinds = collections.Counter(difference.what for difference in differences)
        return ", ".join(f"{number} {kind}" for kind, number in sorted(kinds.items()))

    def finish(self):
        more = len(self.faults) - self.shown.total()
        if more:
            print(f"\n{more} differences more are not shown.")
        if self.cleaner:
            print("\nDamaged inputs on which the old build was ended by a signal, or the new one "
                  "refuses:")
            for difference in self.cleaner[:SHOWN]:
                details = " / ".join(difference.details[:3])
                print(f"  {difference.what}: {difference.case}: {details}")
            print(f"  {len(self.cleaner)} in all ({self.count(self.cleaner)})")
        if self.unstable:
            print("\nDamaged inputs for which the old build has several results, not compared:")
            for name in self.unstable[:SHOWN]:
                print(f"  {name}")
        limited = f", {self.limited} ended by a limit in both" if self.limited else ""
        said = f"DIFFERENT: {self.count(self.faults)}" if self.faults else "no difference"
        print(f"{self.inputs} inputs, {self.runs} runs of each build{limited}: {said}")


def find_program(build):
    """The program of a build folder, or the path itself."""
    path = os.path.realpath(build)
    if os.path.isdir(path):
        path = os.path.join(path, "symforge")
    if not os.path.isfile(path) or not os.access(path, os.X_OK):
        return None
    return path


def make_symb_files(program, folder):
    """SYMB files to mutate, made by the old build of every text that is a seed."""
    os.makedirs(os.path.join(folder, "old", "case"))
    os.symlink(program, os.path.join(folder, "old", "symforge"))
    os.chdir(os.path.join(folder, "old", "case"))
    made = []
    for seed in load_seeds([]).texts:
        with open("x.sym", "wb") as file:
            file.write(seed.content)
        name = os.path.splitext(seed.name)[0] + ".symb"
        paired_run.spawn(["-b", "x.sym"], name, "messages", paired_run.SOUND_LIMITS)
        if os.path.getsize(name) == 0:
            sys.exit(f"{program} makes no SYMB file of {seed.name}")
        made.append(os.path.abspath(name))
    return made


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="compare_builds", description=__doc__,
        epilog="Status 0: no difference; 1: differences; 2: wrong usage. A mutant depends on SEED "
        "and its number alone.")
    parser.add_argument("old", metavar="OLD_BUILD", help="a build folder or a program")
    parser.add_argument("new", metavar="NEW_BUILD")
    parser.add_argument("files", metavar="FILE", nargs="*",
                        help="a further input (a PDB is taken with the image beside it)")
    parser.add_argument("-m", dest="mutants", metavar="COUNT", type=int, default=3000,
                        help="mutants of the fixtures (default 3000)")
    parser.add_argument("--no-fixtures", action="store_true",
                        help="compare the FILEs and the mutants alone")
    parser.add_argument("-s", dest="seed", metavar="SEED", type=int, default=1)
    parser.add_argument("-j", dest="jobs", metavar="JOBS", type=int, default=os.cpu_count())
    parser.add_argument("--option", action="append", default=[],
                        help="an option of all runs, as --option=--standard")
    parser.add_argument("--new-option", action="append", default=[],
                        help="an option of all runs of NEW_BUILD, as --new-option=-j2")
    parser.add_argument("--allow-cleaner", action="store_true",
                        help="list mutants separately, not as differences, on which OLD_BUILD is "
                        "ended by a signal or NEW_BUILD ends with status 1 and a message")
    options = parser.parse_intermixed_args()
    programs = [find_program(build) for build in (options.old, options.new)]
    for build, program in zip((options.old, options.new), programs):
        if not program:
            parser.error(f"there is no program symforge in {build}")
    for path in options.files:
        if not os.path.isfile(path) or not os.access(path, os.R_OK):
            parser.error(f"{path} is no file that can be read")
    if options.mutants < 0 or options.jobs < 1:
        parser.error("COUNT must be 0 or more, JOBS 1 or more")
    return options, programs


def tasks(options):
    files = [os.path.realpath(path) for path in options.files]
    listed = [("file", path) for path in files]
    if not options.no_fixtures:
        listed += [("file", path) for path in fixture_files()]
        listed += [("usage", "command lines"), ("batch", "all fixtures")]
    listed += [("mutant", number) for number in range(options.mutants)]
    return [(number, *task) for number, task in enumerate(listed)]


def main():
    options, programs = parse_arguments()
    work = tasks(options)
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    scratch = tempfile.mkdtemp(prefix="compare_builds.")
    report = Report(options)
    try:
        seeds = load_seeds(make_symb_files(programs[0], os.path.join(scratch, "seeds")))
        with multiprocessing.get_context("fork").Pool(
                options.jobs, start_worker, (programs, scratch, seeds, options)) as pool:
            for result in pool.imap(compare, work):
                report.add(result)
                if sys.stderr.isatty():
                    print(f"\r{report.inputs} of {len(work)}", end="\r", file=sys.stderr)
        report.finish()
    finally:
        for name in os.listdir(scratch):
            if name != "differences" or not report.faults:
                shutil.rmtree(os.path.join(scratch, name))
        if not report.faults:
            os.rmdir(scratch)
    return 1 if report.faults else 0


if __name__ == "__main__":
    sys.exit(main())
