#!/usr/bin/env python3
"""static_check.py LIST FINDINGS ...: holds what cppcheck and g++ -fanalyzer tell against the list of exceptions.

A finding is a line like "lib/name.cpp:12:3: warning: text [CWE-401] [-Wanalyzer-malloc-leak]". An entry of the list:

    [[exception]]
    file = "lib/name.cpp"
    finding = "-Wanalyzer-malloc-leak"
    line = "return 0;"
    reason = "why it is none"

It is found by the text of its line, blanks aside, so that it survives changes elsewhere. An entry without a finding is
refused as well."""
import re
import sys
import tomllib

FINDING = re.compile(r"(?P<file>[^\s:]+):(?P<line>\d+):(?:\d+:)? warning: (?P<text>.*) \[(?P<id>[\w -]+)\]")


def findings(texts, read):
    """Each once: (file, kind, text of the line) and how it is told."""
    told = {}
    for line in (line for text in texts for line in text.split("\n")):
        if ": warning: " not in line:
            continue
        match = FINDING.fullmatch(line.strip())
        if match is None:
            told[line] = line  # one without a place has no exception
            continue
        source = read(match["file"])[int(match["line"]) - 1].strip()
        told[match["file"], match["id"], source] = f"{match['file']}:{match['line']}: {match['text']} [{match['id']}]"
    return told


def check(texts, entries, read):
    """All complaints."""
    told = findings(texts, read)
    complaints = []
    known = set()
    for entry in entries:
        key = entry["file"], entry["finding"], entry["line"].strip()
        name = f"{entry['file']}: {entry['finding']}: {entry['line'].strip()}"
        if not entry.get("reason"):
            complaints.append(f"{name}: has no reason")
        if key in known:
            complaints.append(f"{name}: is listed twice")
        elif key not in told:
            complaints.append(f"{name}: is not found any more")
        known.add(key)
    return complaints + [text for key, text in told.items() if key not in known]


def read_text(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def main():
    with open(sys.argv[1], "rb") as file:
        entries = tomllib.load(file).get("exception", [])
    complaints = check([read_text(path) for path in sys.argv[2:]], entries, lambda path: read_text(path).split("\n"))
    print("\n".join(complaints) or f"static: nothing found but the {len(entries)} exceptions of {sys.argv[1]}")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
