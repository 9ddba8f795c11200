#!/usr/bin/env python3
"""layers.py SOURCE_TREE: scripts/check_layers.py passes this tree and refuses each kind of fault planted in a copy."""
import pathlib
import shutil
import subprocess
import sys
import tempfile

tree = pathlib.Path(sys.argv[1])


def complaint(root):
    run = subprocess.run([sys.executable, str(tree / "scripts" / "check_layers.py"), str(root)], capture_output=True,
                         text=True)
    return run.stdout + run.stderr if run.returncode != 0 else ""


def edit(root, path, old, new):
    text = (root / path).read_text(encoding="utf-8")
    if old not in text:
        sys.exit("%s lacks %r: the test must follow it" % (path, old))
    (root / path).write_text(text.replace(old, new, 1), encoding="utf-8")


FAULTS = [
    ("strops must not include log", [("lib/strops.cpp", '#include "strops.h"\n', '#include "strops.h"\n#include "log.h"\n')]),
    ("gkh does not use libmeta", [("ARCHITECTURE.md", "gkh: mvtypes\n", "gkh: mvtypes libmeta\n")]),
    ("a loop of", [("ARCHITECTURE.md", "timeop: mvtypes log clk ktime\n", "timeop: mvtypes log clk ktime rqs\n"),
                   ("lib/timeop.cpp", '#include "timeop.h"\n', '#include "timeop.h"\n#include "rqs.h"\n')]),
    ("strops is not among the owners of detail/tmlock.h",
     [("lib/strops.cpp", '#include "strops.h"\n', '#include "strops.h"\n#include "detail/tmlock.h"\n')]),
    ("strops does not include detail/tmlock.h", [("ARCHITECTURE.md", "tmlock: log timeop", "tmlock: log strops timeop")]),
    ("has no owner", [("ARCHITECTURE.md", "tmlock: log timeop\n", "")]),
    ("there is no lib/detail/nothing.h", [("ARCHITECTURE.md", "tmlock: log timeop\n", "tmlock: log timeop\nnothing: log\n")]),
    ("stands on or below the floor of", [("ARCHITECTURE.md", "event loop: rqs\n", ""),
                                         ("ARCHITECTURE.md", "ground: libmeta", "ground: rqs libmeta")]),
    ("stands on no floor", [("ARCHITECTURE.md", "event loop: rqs\n", "")]),
]

if text := complaint(tree):
    sys.exit("the tree itself: " + text)
for expected, edits in FAULTS:
    with tempfile.TemporaryDirectory() as place:
        root = pathlib.Path(place)
        for part in ("lib", "include", "common", "agent"):
            shutil.copytree(tree / part, root / part)
        shutil.copy(tree / "ARCHITECTURE.md", root)
        for path, old, new in edits:
            edit(root, path, old, new)
        if expected not in complaint(root):
            sys.exit("not refused: %s; said: %s" % (expected, complaint(root) or "nothing"))
print("%d faults refused" % len(FAULTS))
