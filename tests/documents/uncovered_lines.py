#!/usr/bin/env python3
"""uncovered_lines.py SOURCE_DIRECTORY: what scripts/coverage_check.py says of a small report and of lists that fit or do not."""
import json
import pathlib
import subprocess
import sys
import tempfile

CHECK = pathlib.Path(sys.argv[1]).absolute() / "scripts" / "coverage_check.py"

SOURCE = """\
int first(int fd)
{
    if (fd < 0) {
        report();
        return -1;
    }
    return 0;
}

int second(int fd)
{
    if (fd > 9) {
        return -1;
    }
    return 1;
}
"""
COUNTS = {3: 5, 4: 0, 5: 0, 7: 5, 12: 3, 13: 0, 15: 3}  # of each line that is code
FIRST = ("lib/a.cpp", "cannot fail", "  if (fd < 0) {\n>     report();\n>     return -1;\n")
SECOND = ("lib/a.cpp", "cannot be above", "if (fd > 9) {\n> return -1;\n")

CASES = {  # name: (entries, what the program says, or nothing where the list fits)
    "each line has its reason": ([FIRST, SECOND], ""),
    "an entry is missing": ([FIRST], "lib/a.cpp:13: no test runs it, and it is not listed: return -1;"),
    "a line is not marked": ([SECOND, ("lib/a.cpp", "why", "report();\n> return -1;")], "lib/a.cpp:4: no test runs it"),
    "a marked line is run": ([FIRST, SECOND, ("lib/a.cpp", "why", "> return 0;")], "lib/a.cpp:7: is run: return 0;"),
    "a marked line is no code": ([FIRST, SECOND, ("lib/a.cpp", "why", "> int first(int fd)")], "lib/a.cpp:1: is no code"),
    "the text is gone": ([FIRST, SECOND, ("lib/a.cpp", "why", "> return 7;")], "stands 0 times"),
    "the text stands twice": ([FIRST, SECOND, ("lib/a.cpp", "why", "> return -1;\n}")], "stands 2 times"),
    "no reason": ([FIRST, ("lib/a.cpp", "", SECOND[2])], "has no reason"),
    "nothing marked": ([FIRST, SECOND, ("lib/a.cpp", "why", "return 0;")], "marks no line"),
    "an unknown file": ([FIRST, SECOND, ("lib/b.cpp", "why", "> return 0;")], "lib/b.cpp: is not in the report"),
}


def report(counts, branches):
    lines = [{"line_number": number, "count": count, "gcovr/noncode": False,
              "branches": [{"count": taken} for taken in branches] if number == 3 else []}
             for number, count in counts.items()]
    lines.append({"line_number": 6, "count": 0, "gcovr/noncode": True, "branches": []})
    # So many lines of another file that three of this one are below one in a hundred.
    more = [{"line_number": number, "count": 1, "gcovr/noncode": False, "branches": []} for number in range(1, 401)]
    return {"files": [{"file": "lib/a.cpp", "lines": lines}, {"file": "agent/b.cpp", "lines": more}]}


# What gcovr tells of lines that it cannot read.
LOG = """\
(WARNING) Unrecognized GCOV output for lib/a.cpp
\t          -3:   12:    if (fd > 9)
\t  branch  1 taken -2 (fallthrough){more}
\tThis is indicative of a gcov output parse error.
(WARNING) Exception during parsing:
"""


def run(folder, entries, counts, branches, *options):
    for name, text in (("lib/a.cpp", SOURCE), ("agent/b.cpp", "\n" * 400),
                       ("report.json", json.dumps(report(counts, branches))),
                       ("list.toml", "".join(f'[[uncovered]]\nfile = "{file}"\nreason = "{reason}"\nlines = \'\'\'\n{lines}\'\'\'\n'
                                             for file, reason, lines in entries))):
        (folder / name).parent.mkdir(exist_ok=True)
        (folder / name).write_text(text)
    files = ["list.toml"] if "--list" in options else ["report.json", "list.toml"]
    return subprocess.run([sys.executable, CHECK, *options, *files], cwd=folder, text=True, capture_output=True)


def expect(name, result, told):
    if result.stderr or (result.returncode != 0) != bool(told) or told not in result.stdout:
        sys.exit(f"{name}: ended with {result.returncode}\n{result.stdout}{result.stderr}")


with tempfile.TemporaryDirectory() as directory:
    tree = pathlib.Path(directory)
    for case, (listed, says) in CASES.items():
        expect(case, run(tree, listed, COUNTS, [1, 1]), says)
    expect("too few branches", run(tree, [FIRST, SECOND], COUNTS, [1] * 8 + [0] * 2), "branches: 80.00 % are run, 90 % are wanted")
    none = {number: 0 for number in COUNTS}
    expect("too few lines", run(tree, [FIRST, SECOND], none, [1, 1]), "lines: 98.28 % are run, 99 % are wanted")

    (tree / "log.txt").write_text(LOG.format(more=""))
    negative = run(tree, [FIRST, SECOND], COUNTS, [1, 1], "--log", "log.txt")
    expect("negative counts", negative, "")
    if "left out: 2\n" not in negative.stdout:
        sys.exit(f"negative counts are not told:\n{negative.stdout}")
    (tree / "log.txt").write_text(LOG.format(more="\n\t  branch  1 taken often"))
    expect("a line that cannot be read", run(tree, [FIRST, SECOND], COUNTS, [1, 1], "--log", "log.txt"),
           "lib/a.cpp: gcovr cannot read: branch  1 taken often")

    expect("the texts alone", run(tree, [FIRST], none, [1, 1], "--list"), "")
    for case, says in (("the text is gone", "stands 0 times"), ("the text stands twice", "stands 2 times"),
                       ("no reason", "has no reason"), ("an unknown file", "lib/b.cpp: there is no such file")):
        expect(f"{case}, alone", run(tree, CASES[case][0], none, [1, 1], "--list"), says)
print(f"{len(CASES) + 9} cases")
