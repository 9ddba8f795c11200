#!/usr/bin/env python3
"""fault_sites.py SOURCE_DIRECTORY: what scripts/fault_sites.py makes of return addresses, of lists that fit or do not, and
of what a sanitizer says."""
import os
import pathlib
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(sys.argv[1]).absolute() / "scripts"))
sys.dont_write_bytecode = True
import fault_sites  # noqa: E402, the path comes first
from fault_sites import Place, Site, Sites, Stack, Tests  # noqa: E402

CLOSE = Site("lib/syswrap.cpp", 10, "close")
OPEN = Site("lib/syswrap.cpp", 40, "open")
USED = Site("lib/util.cpp", 20, "W_close")
OTHER = Site("lib/util.cpp", 30, "W_open")
PLACES = {  # the second is inlined in the first
    1: [Place("operator()", "lib/syswrap.cpp", 10), Place("checked<W_close::{lambda()#1}>", "lib/detail/checked.h", 5)],
    2: [Place("W_close", "lib/syswrap.cpp", 12)],
    3: [Place("open_it", "lib/util.cpp", 20), Place("start", "lib/util.cpp", 90)],
    4: [Place("start", "lib/util.cpp", 30)],
    5: [],
}


def entry(lines, reason="cannot fail", file="lib/util.cpp"):
    return {"file": file, "lines": lines, "reason": reason}


def stack(call, *offsets):
    return Stack("kind", call, tuple(("/build/t", offset) for offset in offsets))


LISTS = {  # name: (sites without failure, entries, what the comparison says, or nothing)
    "each has its reason": ({USED, OTHER}, [entry(["line 20", "line 30"])], ""),
    "nothing is left": (set(), [], ""),
    "one is missing": ({USED, OTHER}, [entry(["line 20"])],
                       "lib/util.cpp:30: W_open: was never failed, and is not in the list: line 30"),
    "another file's": ({USED}, [entry(["line 20"], file="lib/log.cpp")], "lib/util.cpp:20: W_close: was never failed"),
    "one was failed": ({USED}, [entry(["line 20", "line 30"])], "line 30: is in the list, but was failed, or is gone"),
    "two entries for one": ({USED}, [entry(["line 20"]), entry(["line 20"])], "line 20: is in the list, but"),
    "failed by a test": ({Site("lib/util.cpp", 20, "prctl")}, [{**entry(["line 20"]), "test": "util_limits_test"}], ""),
    "not failed by that test": ({USED}, [{**entry(["line 20"]), "test": "util_limits_test"}], "does not wrap W_close"),
    "no reason": ({USED}, [entry(["line 20"], reason="")], "has no reason"),
}

STACKS = {  # name: (stack, the sites that have failed with it)
    "a checked call and who called it": (stack("close", 1, 2, 3, 4), {CLOSE, USED}),
    "a test wraps the call": (stack("close", 5, 1, 2, 5, 3), {CLOSE, USED}),
    "another call at such an address": (stack("malloc", 1, 2, 3), set()),
    "a caller of another checked call": (stack("close", 1, 2, 4, 3), {CLOSE}),
    "nothing of ours": (stack("close", 5), set()),
}

FRAMES = {  # what stands in the report: whether that is a finding
    "#0 0x1 in close\n#1 0x2 in open_it lib/util.cpp:20\n#2 0x3 in Body tests/lib/util_test.cpp:9\n": True,
    "#0 0x1 in Body tests/lib/util_test.cpp:9\n#1 0x2 in open_it lib/util.cpp:20\n": False,
    "#0 0x1 in somewhere\n": True,
}


def main():
    wrong = []
    for name, (never, entries, wanted) in LISTS.items():
        said = "\n".join(fault_sites.compare(never, entries, lambda site: f"line {site.line}"))
        if (wanted not in said) or (not wanted and said):
            wrong.append(f"{name}: {said!r}")
    sites = Sites.__new__(Sites)
    sites.places, sites.every = fault_sites.Places(), {CLOSE, USED, OTHER, OPEN}
    sites.places.known = {("/build/t", offset): places for offset, places in PLACES.items()}
    for name, (seen, failed) in STACKS.items():
        if sites.of(seen) != failed:
            wrong.append(f"{name}: {sites.of(seen)}")
        if fault_sites.stack_of(fault_sites.line_of(seen).split(" ")[1:]) != seen:
            wrong.append(f"{name}: does not come back from its line")
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "asan.1")
        for text, is_finding in FRAMES.items():
            pathlib.Path(path).write_text(text, encoding="ascii")
            if bool(Tests.sanitizer(path)) != is_finding:
                wrong.append(f"sanitizer: {text!r}: {Tests.sanitizer(path)}")
    print("\n".join(wrong) or "fault sites: all cases as wanted")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
