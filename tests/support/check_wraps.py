"""Refuses a wrap of a call that nothing makes: the linker is silent about it, and the test that counts on it tests nothing.

usage: check_wraps.py WRAPS LIBRARY SUPPORT_OBJECTS
Each line of the file WRAPS: a program, the calls it wraps, its own objects, objects of the product that it links;
tabs between them, semicolons within.
"""
import re
import subprocess
import sys
from collections import defaultdict


def symbols(path):
    """What each object of a file defines and what it calls: {object: (defined, undefined)}."""
    result = defaultdict(lambda: (set(), set()))
    text = subprocess.run(["nm", "-A", "-P", path], check=True, capture_output=True, text=True).stdout
    for line in text.splitlines():
        place, name, kind = re.match(r"(.*?): (\S+) (\S)", line).groups()
        result[place][1 if kind in "Uw" else 0].add(name)
    return result


def linked(roots, members):
    """The members of the library that a linker takes for the roots."""
    taken = {}
    wanted = set().union(*(undefined for _, undefined in roots))
    while True:
        more = {place: sets for place, sets in members.items() if place not in taken and sets[0] & wanted}
        if not more:
            return taken.values()
        taken.update(more)
        wanted |= set().union(*(undefined for _, undefined in more.values()))


def main():
    wraps, library, support = sys.argv[1:]
    members = symbols(library)
    known = {}

    def load(paths):
        for path in filter(lambda path: path.endswith(".o"), paths.split(";")): # not a precompiled header
            known[path] = known.get(path) or list(symbols(path).values())
            yield from known[path]

    count = 0
    lost = []
    for line in filter(None, open(wraps).read().split("\n")):
        program, calls, own, product = line.split("\t")
        theirs = list(load(product))
        theirs += linked([*load(own), *load(support), *theirs], members)
        called = set().union(*(undefined for _, undefined in theirs))
        for call in calls.split(";"):
            count += 1
            # A fortified call may stand for the plain one, and the other way round; and where runs are counted, the
            # compiler's own, which makes the plain one.
            name = call.removeprefix("!")
            plain = re.sub(r"^__(\w+)_chk$", r"\1", name)
            made = bool(called & {name, plain, f"__{plain}_chk", f"__gcov_{plain}"})
            if made == call.startswith("!"):
                lost.append(f"{program} wraps {name}, which {'something' if made else 'nothing'} that it links calls")
    print("\n".join(lost) or f"{count} wrapped calls are as their tests say")
    if lost or count == 0:
        sys.exit(1)


main()
