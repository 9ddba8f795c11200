#!/usr/bin/env python3
"""The work of scripts/mutants, which says what the options are. A mutant costs one compilation without optimisation and
one link: its object goes in front of the library, or in the place of the original's, in the test program's own link. One of
a header is compiled into each source that includes it, one source at a time, and the tests of that source are run.

An entry of tests/mutants.toml, the list of those that nothing can see: file, reason, and lines as they stand in the source,
a "-" in front of the one that is changed, behind it a "+" and what it becomes; several "+" are several mutants:

    [[survivor]]
    file = "lib/name.cpp"
    reason = "why nothing can see it"
    lines = '''
      if (first_call() == 0) {
    -     return last > 0;
    +     return last >= 0;
    '''

It is found by its text, so that it survives changes elsewhere; lines around it tell it from others like it."""
import argparse
import collections
import concurrent.futures
import glob
import json
import os
import random
import re
import shlex
import subprocess
import sys
import tempfile
import time
import tomllib

from coverage_check import places

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Test programs of the agent are named after what they look at; those of the library after the module.
AGENT_TESTS = {
    "capture": ["capture_setup_test", "capture_features_test", "lifecycle_test", "zent_replay"],
    "config": ["config_test", "zent_replay"],
    "expire": ["capture_features_test", "zent_replay"],
    "features": ["features_test", "zent_replay"],
    "lifecycle": ["lifecycle_test", "zent_replay"],
    "meta": ["meta_test"],
    "packet": ["packet_test", "packet_v3_test", "zent_replay"],
    "reporter": ["reporter_test", "packet_test", "zent_replay"],
    "scope": ["scope_test", "zent_replay"],
    "usage": ["usage_test"],
    "zent": ["zent_replay"],
}
LIBRARY_TESTS = {"libmeta": ["meta_test"]}

RELATIONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
SWAPPED = {"&&": "||", "||": "&&", "+": "-", "-": "+"}


HEADERS = ["lib/detail/*.h", "agent/*.h", "include/xvdat.h"]  # those with code
UNITS = ["lib/*.cpp", "agent/*.cpp", "common/meta.cpp"]
BOUNDED = ["prlimit", f"--data={4 << 30}"]  # a fault may ask for memory without end
IN_TESTS = {"include/xvdat.h": "tests/lib/xvdat*_test.cpp"}  # what a header has for its users, the tests compile


def files_of(patterns):
    return sorted(path for pattern in patterns for path in glob.glob(pattern, root_dir=ROOT))


def name_of(path):
    """How a source is chosen: without its folder, and without its ending unless it is a header."""
    return os.path.basename(path).removesuffix(".cpp")


def sources():
    return {name_of(path): path for path in sorted(files_of(UNITS) + files_of(HEADERS))}


def included(path):
    return set(re.findall(r'#include "(?:\w+/)*(\w+\.h)"', read_source(path)))


def units_of(path):
    """What is compiled to see a change of this source."""
    if path.endswith(".cpp"):
        return [path]
    wanted, size = {os.path.basename(path)}, 0
    while size < len(wanted):
        size = len(wanted)
        wanted |= {os.path.basename(header) for header in files_of(HEADERS) if included(header) & wanted}
    return files_of([IN_TESTS.get(path, "")]) + [unit for unit in files_of(UNITS) if included(unit) & wanted]


def programs_of(path):
    """The test programs of what is compiled."""
    module = name_of(path)
    if path.startswith("tests/"):
        return [module]
    if not path.startswith("lib/"):
        return AGENT_TESTS[module]
    if module in LIBRARY_TESTS:
        return LIBRARY_TESTS[module]
    own = glob.glob(f"tests/lib/{module}_test.cpp", root_dir=ROOT)
    parts = glob.glob(f"tests/lib/{module}_*_test.cpp", root_dir=ROOT)
    return [os.path.basename(test)[:-4] for test in sorted(own + parts)]


def without_texts(text):
    """The source with comments and literals blanked, character for character."""
    pattern = r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])\''
    return re.sub(pattern, lambda m: re.sub(r"[^\n]", "\x01", m.group()), text, flags=re.S)


def changed_result(value):
    return {"true": "false", "false": "true", "nullptr": None, "{}": None}.get(
        value, str(int(value) + 1) if re.fullmatch(r"-?\d+", value) else "{}")


def mutants_of_line(code):
    """(first column, last column, text in its place) of each."""
    found = []
    for m in re.finditer(r" (<=|>=|==|!=|<|>) ", code):
        found.append((m.start(1), m.end(1), RELATIONS[m.group(1)]))
    for m in re.finditer(r" (&&|\|\||\+|-) ", code):
        if "&&" != m.group(1) or not re.search(r"\b(auto|operator)\W*$", code[:m.start()]):
            found.append((m.start(1), m.end(1), SWAPPED[m.group(1)]))
    for m in re.finditer(r"(?<![\w.'])(\d+)(?![\w.'x])", code):
        found.append((m.start(), m.end(), str(int(m.group()) + 1)))
    m = re.fullmatch(r"\s+((?:\w+(?:\.|->|::))*\w+\([^{}]*\);)", code)
    if m and not m.group(1).startswith(("return", "static_assert", "sizeof")):
        found.append((m.start(1), m.end(1), ";"))
    m = re.fullmatch(r"\s+(?:\} else )?(?:if|while) \((.*)\) \{", code)
    if m and ";" not in m.group(1) and not re.match(r"(const |auto |int |size_t |ssize_t )", m.group(1)):
        found.append((m.start(1), m.end(1), f"!({{}})"))
    m = re.fullmatch(r"\s+(?:case .*: )?return (.+);", code)
    if m and changed_result(m.group(1)):
        found.append((m.start(1), m.end(1), changed_result(m.group(1))))
    return found


class Mutant:
    def __init__(self, path, line, columns, new):
        self.module, self.path, self.line, self.columns, self.new = name_of(path), path, line, columns, new

    def apply(self):
        lines = read_source(self.path).split("\n")
        text = lines[self.line - 1]
        first, last = self.columns
        lines[self.line - 1] = text[:first] + self.new.replace("{}", text[first:last], self.new == "!({})") + text[last:]
        self.before, self.after = text.strip(), lines[self.line - 1].strip()
        return f'#line 1 "{os.path.join(ROOT, self.path)}"\n' + "\n".join(lines)


def read_source(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        return file.read()


def explained_by(entry, source):
    """The mutants that an entry of the list speaks for, as (file, line, new text), or what is wrong with it."""
    lines = [(line[:1], line[1:].strip()) for line in entry["lines"].strip("\n").split("\n")]
    kept = [(sign, text) for sign, text in lines if sign != "+"]
    found = places([text for _, text in kept], source)
    name = f"{entry['file']}: {lines[0][1]}"
    if not entry.get("reason"):
        return None, f"{name}: has no reason"
    if [sign for sign, _ in kept].count("-") != 1 or len(kept) == len(lines):
        return None, f"{name}: shows no line and what it becomes"
    if len(found) != 1:
        return None, f"{name}: stands {len(found)} times in the source: " + ("show more of it" if found else "it is gone")
    line = found[0] + [sign for sign, _ in kept].index("-")
    return {(entry["file"], line, text) for sign, text in lines if sign == "+"}, None


def read_list():
    """All mutants that the list explains, and complaints about it."""
    with open(os.path.join(ROOT, "tests", "mutants.toml"), "rb") as file:
        entries = tomllib.load(file).get("survivor", [])
    known, complaints, files = set(), [], set(sources().values())
    for entry in entries:
        if entry["file"] not in files:
            complaints.append(f"{entry['file']}: is no source that can be chosen")
            continue
        mutants, complaint = explained_by(entry, [line.strip() for line in read_source(entry["file"]).split("\n")])
        known |= mutants or set()
        complaints += [complaint] if complaint else []
    return known, complaints


def all_mutants(path):
    text = without_texts(read_source(path))
    found = []
    for number, code in enumerate(text.split("\n"), 1):
        if code.startswith((" ", "\t")):  # what stands at the left edge declares
            found += [Mutant(path, number, (first, last), new) for first, last, new in mutants_of_line(code)]
    return found


def planted(order):
    path, line, old, new = order.split(":", 3)
    if sources().get(name_of(path)) != path:
        sys.exit(f"{path} is no source that can be chosen")
    at = read_source(path).split("\n")[int(line) - 1].find(old)
    if at < 0:
        sys.exit(f"{path}:{line} has no '{old}'")
    return Mutant(path, int(line), (at, at + len(old)), new)


class Build:
    """The commands of a configured and built tree."""

    def __init__(self, preset):
        self.tree = os.path.join(ROOT, "build", preset)
        self.compiles = {}
        with open(os.path.join(self.tree, "compile_commands.json"), encoding="utf-8") as file:
            for entry in json.load(file):
                self.compiles.setdefault(os.path.relpath(entry["file"], ROOT), shlex.split(entry["command"]))
        self.links = {}

    def find_links(self, programs):
        for program in programs:
            name = f"tests/model/{program}" if program == "zent_replay" else f"tests/{program}"
            listed = subprocess.run(["ninja", "-C", self.tree, "-t", "commands", "-s", name], check=True,
                                    capture_output=True, text=True).stdout
            self.links[program] = shlex.split(listed.strip().split("\n")[-1].split(" && ")[1])

    def compile(self, unit, output, changed=None, optimised=False):
        """Compiles a source as it is, or with a change (path, file with the changed text) of itself or of a header. Its
        guard keeps the sound header out behind the changed one."""
        words = [w for w in self.compiles[unit] if w not in ("-g", "-Werror") and not w.startswith("-D_FORTIFY_SOURCE")]
        if not optimised:
            words = ["-O0" if re.fullmatch(r"-O\d", w) else w for w in words]
        path, text = changed or (unit, os.path.join(ROOT, unit))
        words[words.index("-o") + 1] = output
        words[words.index("-c") + 1] = text if path == unit else os.path.join(ROOT, unit)
        words += ["-w", "-I", os.path.join(ROOT, os.path.dirname(path))]
        if path != unit:
            words += ["-include", text]
        return subprocess.run(words, cwd=self.tree, capture_output=True, check=False).returncode == 0

    def link(self, program, path, mutant, output):
        words = list(self.links[program])
        original = [i for i, w in enumerate(words) if w.endswith(f"/{path.removeprefix('tests/')}.o")]
        if original:
            words[original[0]] = mutant
        else:  # nothing asks the library for what is defined already
            words.insert(words.index("libmorvane.a"), mutant)
        words[words.index("-o") + 1] = output
        done = subprocess.run(words, cwd=self.tree, capture_output=True, check=False, text=True)
        if done.returncode != 0:
            sys.exit(f"{program} cannot be linked: {done.stderr}")


class Trial:
    """One process of one mutant after the other; several run at once, each with a folder of its own."""

    def __init__(self, build):
        self.build = build
        self.took = {}  # seconds that a program takes with a sound object of a source
        self.apart = {}  # tests of the programs whose tests need a process each

    def run(self, program, path, obj, folder, limit):
        """'passes' where all tests pass, otherwise 'fails', or 'slow' where they do not end in time."""
        binary = os.path.join(folder, program)
        self.build.link(program, path, obj, binary)
        if program == "zent_replay":
            model = os.path.join(ROOT, "scripts", "model_run.py")
            return self.end_of([sys.executable, "-B", model, binary, "8000", "26"], limit)
        words = [binary, "--gtest_fail_fast", "--gtest_brief=1"]
        if program in self.apart:
            ends = (self.end_of([*words, f"--gtest_filter={test}"], limit) for test in self.apart[program])
            return next((end for end in ends if end != "passes"), "passes")
        return self.end_of(words, limit)

    def end_of(self, words, limit):
        child = subprocess.Popen([*BOUNDED, *words], cwd=os.path.join(self.build.tree, "tests"),
                                 stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                 start_new_session=True)
        try:
            return "fails" if child.wait(limit) else "passes"
        except subprocess.TimeoutExpired:
            os.killpg(child.pid, 9)
            child.wait()
            return "slow"

    def sound(self, unit):
        """What is compiled has to pass as it is: how long does it take?"""
        with tempfile.TemporaryDirectory(prefix="zent-mutants-") as folder:
            obj = os.path.join(folder, "sound.o")
            if not self.build.compile(unit, obj):
                sys.exit(f"{unit} does not compile")
            for program in programs_of(unit):
                self.took[unit, program], end = self.timed(program, unit, obj, folder)
                if end == "fails":
                    self.apart[program] = self.tests_of(os.path.join(folder, program))
                    self.took[unit, program], end = self.timed(program, unit, obj, folder)
                if end != "passes":
                    sys.exit(f"{program} {end} with the sound {unit}")

    def timed(self, program, unit, obj, folder):
        start = time.monotonic()
        end = self.run(program, unit, obj, folder, 600)
        return time.monotonic() - start, "is too slow" if end == "slow" else end

    @staticmethod
    def tests_of(binary):
        listed = subprocess.run([binary, "--gtest_list_tests"], capture_output=True, text=True, check=True).stdout
        found, suite = [], ""
        for line in listed.split("\n"):
            words = line.split()
            if words and not line.startswith(" "):
                suite = words[0]
            elif words:
                found.append(suite + words[0])
        return found

    def judge(self, mutant):
        """'killed', 'slow' (its tests do not end), 'survives', 'no program' (it does not compile) or 'equal' (the optimised
        code is the same)."""
        with tempfile.TemporaryDirectory(prefix="zent-mutants-") as folder:
            text, obj = os.path.join(folder, os.path.basename(mutant.path)), os.path.join(folder, "mutant.o")
            with open(text, "w", encoding="utf-8") as file:
                file.write(mutant.apply())
            for unit in units_of(mutant.path):
                if not self.build.compile(unit, obj, (mutant.path, text)):
                    return "no program"
                for program in programs_of(unit):
                    end = self.run(program, unit, obj, folder, 20 + 10 * self.took[unit, program])
                    if end != "passes":
                        return "killed" if end == "fails" else end
            same = all(self.same_code(unit, (mutant.path, text), folder) for unit in units_of(mutant.path))
            return "equal" if same else "survives"

    def same_code(self, unit, changed, folder):
        texts = []
        for name, change in (("a.o", changed), ("b.o", None)):
            out = os.path.join(folder, name)
            self.build.compile(unit, out, change, optimised=True)
            shown = subprocess.run(["objdump", "-drs", "-j", ".text", "-j", ".rodata", out], capture_output=True,
                                   check=False).stdout
            texts.append(shown.split(b"\n", 3)[-1])
        return texts[0] == texts[1]


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("-n", type=int, default=60)
    parser.add_argument("-s", type=int, default=random.randrange(10**6))
    parser.add_argument("-p", action="append", default=[])
    parser.add_argument("-b", default="release")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--programs", action="store_true")
    parser.add_argument("modules", nargs="*")
    return parser.parse_args()


def drawn(options, modules):
    """Evenly: a module's turn comes again when each other has had its turn, as long as it has any left."""
    rng = random.Random(options.s)
    heaps = []
    for path in modules.values():
        heap = all_mutants(path)
        rng.shuffle(heap)
        heaps.append(heap)
    rng.shuffle(heaps)
    while True:
        for heap in heaps:
            if heap:
                yield heap.pop()
        if not any(heaps):
            return


class Tally:
    """What became of the mutants, by module."""

    def __init__(self, modules, explained, all_shown):
        self.counts = {name: collections.Counter() for name in modules}
        self.explained, self.all_shown = explained, all_shown

    def add(self, mutant, result):
        known = (mutant.path, mutant.line, mutant.after) in self.explained
        if result == "survives" and known:
            result = "explained"
        self.counts[mutant.module][result] += 1
        if result in ("survives", "slow") or self.all_shown or (known and result == "killed"):
            note = ", though it is explained" if known and result == "killed" else ""
            print(f"{result}{note}: {mutant.path}:{mutant.line}\n  - {mutant.before}\n  + {mutant.after}", flush=True)

    def of(self, *results):
        return sum(counts[result] for counts in self.counts.values() for result in results)

    def tried(self):
        return self.of("killed", "slow", "explained", "survives")

    def show(self):
        for name, counts in self.counts.items():
            rest = (("slow", "do not end"), ("explained", "explained"), ("survives", "SURVIVE"))
            told = "".join(f", {counts[what]} {text}" for what, text in rest if counts[what])
            print(f"{name}: {counts['killed']} of {counts['killed'] + sum(counts[what] for what, _ in rest)}{told}")
        print(f"{self.tried()} mutants in {len(self.counts)} modules: {self.of('killed')} killed "
              f"({100 * self.of('killed') / max(self.tried(), 1):.1f} %), {self.of('slow')} whose tests did not end in time, "
              f"{self.of('explained')} survive and are explained, "
              f"{self.of('survives')} survive; besides, {self.of('equal')} that change no code and "
              f"{self.of('no program')} that do not compile")


def try_all(trial, modules, chosen, wanted, tally):
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        list(pool.map(trial.sound, sorted({unit for path in modules.values() for unit in units_of(path)})))
        open_ones = {}
        while True:
            # What does not compile is no mutant: another is drawn.
            while len(open_ones) < os.cpu_count() and len(open_ones) + tally.tried() < wanted:
                mutant = next(chosen, None)
                if mutant is None:
                    break
                open_ones[pool.submit(trial.judge, mutant)] = mutant
            if not open_ones:
                return
            for done in concurrent.futures.wait(open_ones, return_when="FIRST_COMPLETED").done:
                tally.add(open_ones.pop(done), done.result())


def main():
    options = arguments()
    explained, complaints = read_list()
    if complaints:
        sys.exit("tests/mutants.toml:\n" + "\n".join(complaints))
    if options.list:
        print(f"mutants: {len(explained)} are explained")
        return 0
    known = sources()
    plants = [planted(order) for order in options.p]
    names = [m.module for m in plants] if plants else options.modules or list(known)
    unknown = [name for name in names if name not in known]
    if unknown:
        sys.exit(f"no such module: {', '.join(unknown)}; there are {', '.join(known)}")
    modules = {name: known[name] for name in dict.fromkeys(names)}
    programs = sorted({p for path in modules.values() for unit in units_of(path) for p in programs_of(unit)})
    if options.programs:
        print(" ".join(programs))
        return 0

    build = Build(options.b)
    build.find_links(programs)
    start = time.monotonic()
    tally = Tally(modules, explained, bool(plants))
    try_all(Trial(build), modules, iter(plants or drawn(options, modules)), len(plants) or options.n, tally)
    tally.show()
    print(f"seed {options.s}, {time.monotonic() - start:.0f} s")
    return 1 if tally.of("survives") else 0


if __name__ == "__main__":
    sys.exit(main())
