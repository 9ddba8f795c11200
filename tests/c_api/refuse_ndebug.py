#!/usr/bin/env python3
"""refuse_ndebug.py COMPILER SOURCE_TREE: every source that asserts refuses to be compiled with NDEBUG, so that no
build can lose an assertion in silence."""
import concurrent.futures
import pathlib
import re
import subprocess
import sys

compiler, tree = sys.argv[1], pathlib.Path(sys.argv[2])
MESSAGE = "assertions are part of the behaviour: build without NDEBUG"


def fault(source):
    command = [compiler, "-std=gnu++20", "-E", "-o", "/dev/null", str(source)]
    for part in ("include", "lib", "agent", "common"):
        command.append("-I%s" % (tree / part))
    plain = subprocess.run(command, capture_output=True, text=True)
    if plain.returncode != 0:
        return "%s: does not compile: %s" % (source, plain.stderr)
    without = subprocess.run([*command, "-DNDEBUG"], capture_output=True, text=True)
    if without.returncode == 0 or MESSAGE not in without.stderr:
        return "%s: accepts NDEBUG" % source
    return None


asserting = [source for part in ("lib", "agent", "common") for source in sorted((tree / part).glob("*.cpp"))
             if re.search(r"\bassert\(", source.read_text())]
if len(asserting) < 3:
    sys.exit("only %d sources assert" % len(asserting))
with concurrent.futures.ThreadPoolExecutor(2) as pool:
    faults = [text for text in pool.map(fault, asserting) if text]
if faults:
    sys.exit("\n".join(faults))
print("%d sources refuse NDEBUG" % len(asserting))
