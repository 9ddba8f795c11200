#!/usr/bin/env python3
"""Holds the pieces of docs/guide.md against examples/guide_daemon.c: check_guide.py; --fix takes them from there."""
import pathlib
import re
import sys
import textwrap

ROOT = pathlib.Path(__file__).resolve().parent.parent
GUIDE = ROOT / "docs" / "guide.md"
SOURCE = ROOT / "examples" / "guide_daemon.c"


def pieces():
    text = SOURCE.read_text(encoding="utf-8")
    found = re.findall(r"/\* guide: (?!end)(\w+) \*/\n(.*?)/\* guide: end \*/\n", text, re.S)
    return {name: textwrap.dedent(body).strip("\n") for name, body in found}


def main():
    source = pieces()
    used = set()

    def put(match):
        name = match.group(1)
        used.add(name)
        if name not in source:
            sys.exit(f"{GUIDE.name}: no piece {name} in {SOURCE.name}")
        return f"<!-- piece: {name} -->\n```c\n{source[name]}\n```"

    text = GUIDE.read_text(encoding="utf-8")
    whole = re.sub(r"<!-- piece: (\w+) -->\n```c\n(?:.*?\n)??```", put, text, flags=re.S)
    if missing := set(source) - used:
        sys.exit(f"{GUIDE.name}: not shown: {', '.join(sorted(missing))}")
    if sys.argv[1:] == ["--fix"]:
        GUIDE.write_text(whole, encoding="utf-8")
    elif whole != text:
        sys.exit(f"{GUIDE.name} does not show {SOURCE.name} as it is: scripts/check_guide.py --fix")
    print(f"{len(used)} pieces")


main()
