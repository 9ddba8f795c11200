#!/usr/bin/env python3
"""fuzz_cover.py [--missing] BUILD LIST: how much of its module the corpora of each module's targets reach.

BUILD is a build of the fuzz targets with clang's counters in it. What counts is the edges, the two sides of each
condition, of those that some input can reach: LIST (fuzz/unreached.toml) says which ones none can, each with its
reason. An entry is about whole functions, or about lines:

    [[unreached]]
    file = "lib/name.cpp"
    reason = "why no input reaches them"
    functions = ["first", "second"]

    [[unreached]]
    file = "lib/name.cpp"
    reason = "why no input does that"
    lines = '''
    1> if (first_call() != 0) {
     >   return -1;
    '''

A ">" marks a line that no input comes to, "1>" one that is run and of whose edges so many are never taken. Marks are
found by their text, so that they survive changes elsewhere; lines around them tell them from others like them, and an
empty line stands between one place and the next. An entry that is reached after all or whose text is gone is refused,
and so is a module with less than EDGES_WANTED percent. What counts is what the module's targets reach together; where
there are several, what each reaches alone is told besides. Edges of a line of the log or of an assertion do not count
(scripts/log_lines)."""
import argparse
import json
import os
import re
import subprocess
import sys
import tomllib
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field

from coverage_check import places, read_lines

EDGES_WANTED = 95.0
LOG_LINES = "scripts/log_lines"

# A module, the headers that are a part of it, and the targets that are about it.
MODULES = {
    "agent/config.cpp": "options",
    "agent/packet.cpp": "frame igmp3",
    "agent/scope.cpp": "group_list",
    "lib/dgram.cpp": "dgram",
    "lib/dstream.cpp": "dstream rtp",
    "lib/fdio.cpp": "recv_fd transfer",
    "lib/gkh.cpp": "nkht skht",
    "lib/log.cpp": "log_line",
    "lib/mpegts.cpp": "mpegts",
    "lib/rqs.cpp lib/detail/inotify_records.h": "inotify loop",
    "lib/rtp.cpp": "rtp",
    "lib/strops.cpp": "strops",
    "lib/uri.cpp lib/detail/uri_text.h": "uri",
    "lib/webops.cpp lib/detail/http_head.h lib/detail/net_url.h": "http_compose http_request http_response",
    "lib/xvdat.cpp include/xvdat.h": "xvdat",
    "monitor/http_head.cpp": "monitor_http",
    "monitor/line.cpp": "monitor_line",
}

EXPANSION = 1  # the kind of a region where a macro stands


@dataclass
class Function:
    name: str
    first: int
    last: int
    runs: int


@dataclass
class Source:
    """What was counted in one file, and what of that no input reaches."""
    text: list
    lines: dict = field(default_factory=dict)     # number to count
    branches: dict = field(default_factory=dict)  # place to the counts of its sides
    functions: list = field(default_factory=list)
    without: set = field(default_factory=set)     # lines that are taken out as a whole
    partly: set = field(default_factory=set)      # lines whose missing sides are taken out

    def missing(self, line):
        """The sides on that line that were not taken."""
        return [(place, side) for place, counts in self.branches.items() if place[0] == line
                for side, count in zip(("true", "false"), counts) if count == 0]


# ---- reading what clang has counted ----


def short_names(mangled):
    """What stands in the source: no namespace without a name, no types; of a lambda the function around it."""
    plain = [name.rpartition(":")[2] for name in mangled]
    told = subprocess.run(["c++filt"], input="\n".join(plain), capture_output=True, text=True, check=True).stdout
    for name in told.split("\n"):
        name = name.replace("(anonymous namespace)::", "")
        while name != (name := re.sub(r"<[^<>]*>", "", name)):
            pass
        yield re.split(r"\(|::\$|::'lambda", name)[0].split(" ")[-1]


def line_counts(segments):
    """Of each line with code how often it was run, the way llvm-cov counts."""
    starts = {}
    for segment in segments:
        starts.setdefault(segment[0], []).append(segment)
    counts, wrapped = {}, None
    for line in range(min(starts, default=0), max(starts, default=-1) + 1):
        here = starts.get(line, [])
        entries = [count for _, _, count, counted, is_entry, is_gap in here if counted and is_entry and not is_gap]
        skipped = here and not here[0][3] and here[0][4]
        if not skipped and (entries or (wrapped and wrapped[3])):
            counts[line] = max(entries + [wrapped[2] if wrapped and wrapped[3] else 0])
        wrapped = here[-1] if here else wrapped
    return counts


def root_of(number, position, expansions):
    """The place in the source itself at which something within macros stands."""
    while number in expansions:
        number, *position = expansions[number]
    return number, tuple(position)


def is_folded(branch, regions):
    """Whether a condition is none, being constant: it was come to and has no counts."""
    start, end = tuple(branch[0:2]), tuple(branch[2:4])
    around = [region for region in regions if region[5] == branch[6] and tuple(region[0:2]) <= start and
              end <= tuple(region[2:4]) and region[7] == 0]
    innermost = max(around, key=lambda region: (region[0], region[1], -region[2], -region[3]), default=None)
    return branch[4] == branch[5] == 0 and innermost is not None and innermost[4] > 0


def add_function(function, name, sources):
    """Enters a function's conditions; those of its instances and of its copies in several programs are added."""
    files, regions = function["filenames"], function["regions"]
    expansions = {region[6]: (region[5], region[0], region[1]) for region in regions if region[7] == EXPANSION}
    own = next(number for number in range(len(files)) if number not in expansions)
    source = sources.get(relative(files[own]))
    if source is None:
        return
    body = [region for region in regions if region[5] == own]
    source.functions.append(Function(name, body[0][0], max(region[2] for region in body), function["count"]))
    for branch in function["branches"]:
        number, position = root_of(branch[6], branch[0:2], expansions)
        if number == own and not is_folded(branch, regions):
            counts = source.branches.setdefault((*position, *branch[0:4]), [0, 0])
            counts[0] += branch[4]
            counts[1] += branch[5]


def relative(path):
    return os.path.relpath(path) if os.path.isabs(path) else os.path.normpath(path)


def read_export(export, files, log_lines):
    """The sources of a module; without what a line of the log and an assertion come to at each place."""
    data = export["data"][0]
    sources = {file: Source(read_lines(file)) for file in files}
    for file in data["files"]:
        if source := sources.get(relative(file["filename"])):
            source.lines = line_counts(file["segments"])
    names = short_names([function["name"] for function in data["functions"]])
    for function, name in zip(data["functions"], names):
        add_function(function, name, sources)
    for source in sources.values():
        source.branches = {place: counts for place, counts in source.branches.items()
                           if not log_lines.match(source.text[place[0] - 1])}
    return sources


def replay(build, target):
    """Runs a target over its corpus."""
    profile = f"{build}/{target}.profraw"
    told = subprocess.run([f"{build}/fuzz/{target}_fuzz", "-runs=0", f"fuzz/corpus/{target}"], check=False,
                          env={**os.environ, "LLVM_PROFILE_FILE": profile}, stderr=subprocess.PIPE,
                          stdout=subprocess.DEVNULL)
    if told.returncode != 0:
        raise SystemExit(f"{told.stderr.decode(errors='replace')}{target}: fails on its corpus")
    return profile


def replay_all(build):
    """The profile of each target; some stand under more than one module."""
    targets = sorted({target for targets in MODULES.values() for target in targets.split()})
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        return dict(zip(targets, pool.map(lambda target: replay(build, target), targets)))


def export_of(build, name, targets, profiles):
    """What these targets have run, together."""
    merged = f"{build}/{name}.profdata"
    subprocess.run(["llvm-profdata-14", "merge", "-o", merged, *(profiles[target] for target in targets)], check=True)
    programs = [word for target in targets for word in ("-object", f"{build}/fuzz/{target}_fuzz")]
    told = subprocess.run(["llvm-cov-14", "export", *programs[1:], "-instr-profile", merged], check=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    sys.stderr.write(told.stderr.decode(errors="replace"))
    return json.loads(told.stdout)


@dataclass
class Measured:
    together: dict  # of each file of the module its Source
    alone: dict     # the same of each target, where there are several


def measure(build, module, profiles, log_lines):
    targets, files = MODULES[module].split(), module.split()
    name = files[0].replace("/", "_")

    def sources(name, targets):
        return read_export(export_of(build, name, targets, profiles), files, log_lines)

    alone = {target: sources(f"{name}-{target}", [target]) for target in targets} if len(targets) > 1 else {}
    return Measured(sources(name, targets), alone)


# ---- the list ----


def without_functions(entry, source):
    complaints = []
    for name in entry.get("functions", []):
        found = [function for function in source.functions if function.name == name]
        if not found:
            complaints.append(f"{entry['file']}: {name}() is gone")
        if any(function.runs for function in found):
            complaints.append(f"{entry['file']}: {name}() is reached after all")
        for function in found:
            source.without |= set(range(function.first, function.last + 1))
    return complaints


def without_line(name, mark, number, source):
    """Takes out what a mark speaks of; what is wrong with it, or None."""
    missing, where = len(source.missing(number)), f"{name}:{number}"
    if mark == "":
        source.without.add(number)
        if number not in source.lines:
            return f"{where}: is no code: {source.text[number - 1].strip()}"
        return f"{where}: is reached after all: {source.text[number - 1].strip()}" if source.lines[number] else None
    source.partly.add(number)
    return f"{where}: {missing} edges are not reached, {mark} are listed" if missing != int(mark) else None


def without_lines(entry, block, source):
    marked = [re.fullmatch(r"(?:(\d*)>)?\s*(.*)", line.strip()) for line in block.strip().split("\n")]
    texts = [match[2] for match in marked]
    found = places(texts, [line.strip() for line in source.text])
    if len(found) != 1:
        return [f"{entry['file']}: stands {len(found)} times in the source: {texts[0]}"]
    complaints = [without_line(entry["file"], match[1], found[0] + at, source)
                  for at, match in enumerate(marked) if match[1] is not None]
    if not complaints:
        return [f"{entry['file']}: marks no line: {texts[0]}"]
    return [complaint for complaint in complaints if complaint]


def apply_entry(entry, sources):
    """What is wrong with an entry."""
    if not entry.get("reason"):
        return [f"{entry['file']}: an entry has no reason"]
    source = sources.get(entry["file"])
    if source is None:
        return [f"{entry['file']}: is no part of a module"]
    complaints = without_functions(entry, source)
    for block in re.split(r"\n\s*\n", entry.get("lines", "")):
        if block.strip():
            complaints += without_lines(entry, block, source)
    return complaints


# ---- the report ----


def sides(source):
    """The sides that some input can reach."""
    return [(place, side) for place, counts in source.branches.items() for side, count in enumerate(counts)
            if place[0] not in source.without and (count or place[0] not in source.partly)]


def reached(places_and_sides, source):
    return sum(source.branches.get(place, (0, 0))[side] > 0 for place, side in places_and_sides)


def edges(source):
    """How many sides some input can reach, and how many of them are reached."""
    wanted = sides(source)
    return len(wanted), reached(wanted, source)


def lines(source):
    counts = [count for number, count in source.lines.items() if number not in source.without]
    return len(counts), sum(count > 0 for count in counts)


def percent(wanted, done):
    return 100.0 * done / wanted if wanted else 0.0


def show_missing(file, source):
    called = {function.first for function in source.functions if function.runs}
    idle = {(function.first, function.name) for function in source.functions}  # of a template one for each instance
    for first, name in sorted(one for one in idle if one[0] not in called | source.without):
        print(f"{file}:{first}: {name}() is not called")
    for place in sorted(source.branches):
        number = place[0]
        if number in source.without | source.partly or source.lines.get(number) == 0:
            continue  # of what is not run at all the line says enough
        for side, count in zip(("true", "false"), source.branches[place]):
            if count == 0:
                print(f"{file}:{number}:{place[1]}: never {side}: {source.text[number - 1].strip()}")
    for number, count in sorted(source.lines.items()):
        if count == 0 and number not in source.without:
            print(f"{file}:{number}: not run: {source.text[number - 1].strip()}")


def told_alone(measured):
    """What each of several targets reaches of the same edges."""
    wanted = {file: sides(source) for file, source in measured.together.items()}
    total = sum(map(len, wanted.values()))
    return ", ".join(f"{target} alone {percent(total, sum(reached(wanted[file], own[file]) for file in wanted)):.1f} %"
                     for target, own in measured.alone.items())


def report(module, measured):
    """Prints the line of a module; what is wrong with it."""
    totals = [[sum(numbers) for numbers in zip(*map(kind, measured.together.values()))] for kind in (edges, lines)]
    cells = [f"{percent(*total):5.1f} % of {total[0]:4d} {name}" for total, name in zip(totals, ("edges", "lines"))]
    name = module.split()[0]
    print(f"{name:22} {'  '.join(cells)}  ({told_alone(measured) or MODULES[module]})")
    if totals[0][0] == 0:
        return [f"{name}: has no edges, nothing of it was counted"]
    if percent(*totals[0]) < EDGES_WANTED:
        return [f"{name}: {percent(*totals[0]):.1f} % of the edges are reached, {EDGES_WANTED:.0f} % are wanted"]
    return []


def unknown_targets():
    known = {target for targets in MODULES.values() for target in targets.split()}
    targets = {name.removesuffix("_fuzz.cpp") for name in os.listdir("fuzz") if name.endswith("_fuzz.cpp")}
    return [f"{target}: stands under no module" for target in sorted(targets - known)]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--missing", action="store_true")
    parser.add_argument("build")
    parser.add_argument("list")
    options = parser.parse_args()
    log_lines = re.compile(read_lines(LOG_LINES)[0])
    profiles = replay_all(options.build)
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        measured = dict(zip(MODULES, pool.map(lambda module: measure(options.build, module, profiles, log_lines), MODULES)))
    sources = {file: source for module in measured.values() for file, source in module.together.items()}
    with open(options.list, "rb") as file:
        entries = tomllib.load(file).get("unreached", [])
    complaints = unknown_targets() + [complaint for entry in entries for complaint in apply_entry(entry, sources)]
    for module, own in measured.items():
        if options.missing:
            for file, source in own.together.items():
                show_missing(file, source)
        complaints += report(module, own)
    print("\n".join(complaints) or f"fuzz cover: {len(entries)} entries say what no input reaches")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
