#!/usr/bin/env python3
"""exports.py LIBRARY HEADER_DIRECTORY: the shared library exports the operations that its headers declare, and
nothing else. A name counts as declared if it stands outside comments in a header; a declared function that is not
exported is one that the library forgot (inline functions and macros are no declarations)."""
import pathlib
import re
import subprocess
import sys

library, headers = sys.argv[1:3]
code = ""
with_source = ""  # the headers whose module is there
for header in sorted(pathlib.Path(headers).glob("*.h")):
    text = re.sub(r"/\*.*?\*/", " ", header.read_text(), flags=re.S)
    text = re.sub(r"\\\n", " ", text)
    text = re.sub(r"^\s*#.*$", "", text, flags=re.M)
    code += text
    if (header.parent.parent / "lib" / (header.stem + ".cpp")).exists():
        with_source += text

symbols = set()
for line in subprocess.run(["nm", "-D", "--defined-only", library], check=True, capture_output=True,
                           text=True).stdout.splitlines():
    symbols.add(line.split()[-1].split("@")[0])

declared = set(re.findall(r"[A-Za-z_]\w*", code))
stray = sorted(symbols - declared)

# Prototypes: a type, a name, a list of parameters and at once a semicolon or an attribute.
prototypes = set(re.findall(r"^(?!\s|static|typedef|return)[\w\s*]*?\b(\w+)\([^;{}]*\)\s*(?:MV_\w+\([^)]*\)|"
                            r"__attribute__\s*\(\(.*?\)\))?\s*;", with_source, flags=re.M))
missing = sorted(prototypes - symbols)

if not symbols or len(prototypes) < 50:
    sys.exit("nothing to compare: %d symbols, %d prototypes" % (len(symbols), len(prototypes)))
if stray or missing:
    sys.exit("exported and not declared: %s\ndeclared and not exported: %s" % (stray, missing))
print("%d symbols, %d prototypes" % (len(symbols), len(prototypes)))
