#!/usr/bin/env python3
"""coverage_check.py [--branches] [--log LOG] REPORT LIST: holds a report of gcovr (--json) against the list of lines that
no test runs. coverage_check.py --list LIST looks whether each line of the list stands in its source, without counts.

An entry of the list: file, reason, and lines as they stand in the source, a ">" in front of each that is not run:

    [[uncovered]]
    file = "lib/name.cpp"
    reason = "why no test can run it"
    lines = '''
    if (first_call() != 0) {
    >   return -1;
    '''

It is found by its text, so that it survives changes elsewhere; lines around it tell it from others like it.

LOG is what gcovr told. It leaves out what it cannot read; that is refused, unless the count is negative: a process that is
killed while it writes its counters leaves such a count now and then."""
import argparse
import json
import re
import sys
import tomllib

LINES_WANTED = 99.0
BRANCHES_WANTED = 90.0

UNREADABLE = re.compile(r"Unrecognized GCOV output for (\S+)\n(.*?)\n\tThis is indicative", re.S)
NEGATIVE = re.compile(r"-\d+\*?:\s*\d+:|(branch|unconditional)\s+\d+ taken -\d|call\s+\d+ returned -\d|function .* (called|returned) -\d")


def load(path):
    """Of each file the counts of its lines, and those of their branches."""
    with open(path, encoding="ascii") as file:
        files = json.load(file)["files"]
    return {entry["file"]: {line["line_number"]: (line["count"], [branch["count"] for branch in line["branches"]])
                            for line in entry["lines"] if not line["gcovr/noncode"]} for entry in files}


def places(texts, source):
    """Where these lines follow each other, blanks aside; counted from 1."""
    return [start + 1 for start in range(len(source) - len(texts) + 1) if source[start:start + len(texts)] == texts]


def find_entry(entry, source):
    """The numbers of the lines that an entry speaks for, or what is wrong with it."""
    shown = [line.strip() for line in entry["lines"].strip("\n").split("\n")]
    texts = [line.removeprefix(">").strip() for line in shown]
    found = places(texts, source)
    name = f"{entry['file']}: {texts[0]}"
    if not entry.get("reason"):
        return set(), [f"{name}: has no reason"]
    if not any(line.startswith(">") for line in shown):
        return set(), [f"{name}: marks no line"]
    if len(found) != 1:
        return set(), [f"{name}: stands {len(found)} times in the source: " + ("show more of it" if found else "it is gone")]
    return {found[0] + at for at, line in enumerate(shown) if line.startswith(">")}, []


def check_entry(entry, counts, source):
    """The same, where the lines have counts."""
    marked, wrong = find_entry(entry, source)
    wrong += [f"{entry['file']}:{number}: is run: {source[number - 1]}" if counts.get(number, (0,))[0] else
              f"{entry['file']}:{number}: is no code: {source[number - 1]}" for number in sorted(marked)
              if counts.get(number, (1,))[0] or number not in counts]
    return marked, wrong


def check_texts(entries, read):
    """All complaints about entries whose lines have no counts."""
    complaints = []
    for entry in entries:
        try:
            source = [line.strip() for line in read(entry["file"])]
        except FileNotFoundError:
            complaints.append(f"{entry['file']}: there is no such file")
            continue
        complaints += find_entry(entry, source)[1]
    return complaints


def check_log(text):
    """What gcovr could not read: complaints, and how many lines have a negative count."""
    complaints, negative = [], 0
    for file, lines in UNREADABLE.findall(text):
        for line in lines.split("\n"):
            if NEGATIVE.match(line.strip()):
                negative += 1
            else:
                complaints.append(f"{file}: gcovr cannot read: {line.strip()}")
    return complaints, negative


def check(report, entries, read):
    """All complaints; read gives the lines of a file."""
    sources = {file: [line.strip() for line in read(file)] for file in report}
    known = {file: set() for file in report}
    complaints = []
    for entry in entries:
        if entry["file"] not in report:
            complaints.append(f"{entry['file']}: is not in the report")
            continue
        marked, wrong = check_entry(entry, report[entry["file"]], sources[entry["file"]])
        known[entry["file"]] |= marked
        complaints += wrong
    for file, counts in sorted(report.items()):
        complaints += [f"{file}:{number}: no test runs it, and it is not listed: {sources[file][number - 1]}"
                       for number, (count, _) in sorted(counts.items()) if count == 0 and number not in known[file]]
    return complaints


def totals(report):
    """Lines and branches: how many, and how many of them are run."""
    lines = [count for counts in report.values() for count, _ in counts.values()]
    branches = [count for counts in report.values() for _, branch in counts.values() for count in branch]
    return [(len(counts), sum(count > 0 for count in counts)) for counts in (lines, branches)]


def show_branches(report, read):
    for file, counts in sorted(report.items()):
        source = read(file)
        for number, (count, branches) in sorted(counts.items()):
            if count and not all(branches):
                print(f"{file}:{number}: {branches.count(0)} of {len(branches)}: {source[number - 1].strip()}")


def read_text(file):
    with open(file, encoding="utf-8", errors="replace") as source:
        return source.read()


def read_lines(file):
    with open(file, encoding="utf-8") as source:
        return source.read().split("\n")


def only_texts(entries):
    complaints = check_texts(entries, read_lines)
    print("\n".join(complaints) or f"coverage: {len(entries)} entries of the list stand in their sources")
    return 1 if complaints else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--branches", action="store_true")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--log")
    parser.add_argument("files", nargs="+")
    options = parser.parse_args()
    with open(options.files[-1], "rb") as file:
        entries = tomllib.load(file).get("uncovered", [])
    if options.list:
        return only_texts(entries)
    report = load(options.files[0])
    if options.branches:
        show_branches(report, read_lines)
    complaints = check(report, entries, read_lines)
    if options.log:
        wrong, negative = check_log(read_text(options.log))
        complaints += wrong
        print(f"counts that are negative, and left out: {negative}")
    for (count, run), name, wanted in zip(totals(report), ("lines", "branches"), (LINES_WANTED, BRANCHES_WANTED)):
        percent = 100.0 * run / count if count else 0.0
        print(f"{name}: {run} of {count}, {percent:.2f} %")
        if percent < wanted:
            complaints.append(f"{name}: {percent:.2f} % are run, {wanted:.0f} % are wanted")
    print("\n".join(complaints) or f"coverage: each line that is not run has its reason, {len(entries)} entries")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
