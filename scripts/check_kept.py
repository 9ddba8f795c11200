#!/usr/bin/env python3
"""Holds docs/kept-quirks.md, the marks "Kept:" in the sources and the tests named kept_* together.

Each entry of the document names its tests in a comment behind it, and each such test is named by an entry. A module
has a mark for each of its entries, and a module with a mark has entries. Names are compared without case and
underscores."""
import collections
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent


def plain(name):
    return name.replace("_", "").lower()


def entries():
    """(module, first words, names of its tests) of each entry of the document."""
    text = (ROOT / "docs/kept-quirks.md").read_text(encoding="utf-8")
    for section in re.split(r"^## ", text, flags=re.M)[1:]:
        module, _, body = section.partition("\n")
        for entry in re.split(r"^- ", body, flags=re.M)[1:]:
            words, _, names = entry.partition("<!--")
            yield module.strip(), " ".join(words.split())[:60], re.findall(r"\bkept_\w+", names)


def tests():
    """The names of the tests, as they are written, by their plain form."""
    found = {}
    for path in sorted(ROOT.glob("tests/**/*")):
        if path.suffix in (".cpp", ".c"):
            for name in re.findall(r"^TEST(?:_F|_P)?\(\s*\w+,\s*(kept_\w+)", path.read_text(encoding="utf-8"), re.M):
                found[plain(name)] = name
    return found


def sources_of(module):
    """Where the marks of a module may stand: its own files, and the private headers that they include."""
    if module == "agent":
        return sorted(ROOT.glob("agent/*"))
    own = [ROOT / f"common/{module}.cpp", ROOT / f"lib/{module}.cpp", ROOT / f"include/{module}.h"]
    own = [path for path in own if path.exists()]
    private = set()
    for path in own:
        private |= set(re.findall(r'#include "(detail/\w+\.h)"', path.read_text(encoding="utf-8")))
    return own + [ROOT / "lib" / name for name in sorted(private)]


def marks_in(path):
    return len(re.findall(r"\bKept:", path.read_text(encoding="utf-8")))


def main():
    errors = []
    known, named, count = tests(), set(), collections.Counter()
    for module, words, names in entries():
        count[module] += 1
        if not names:
            errors.append(f"docs/kept-quirks.md: {module}: no test is named behind \"{words}\"")
        for name in names:
            named.add(plain(name))
            if plain(name) not in known:
                errors.append(f"docs/kept-quirks.md: {module}: there is no test {name}")
    for name in sorted(set(known) - named):
        errors.append(f"{known[name]}: no entry of docs/kept-quirks.md names this test")
    covered = set()
    for module in count:
        paths = sources_of(module)
        covered |= set(paths)
        marks = sum(marks_in(path) for path in paths)
        if marks < count[module]:
            errors.append(f"{module}: {count[module]} entries in docs/kept-quirks.md and {marks} marks in its sources")
    for pattern in ("agent/*.*", "common/*.*", "lib/*.cpp", "lib/detail/*.h", "include/*.h", "monitor/*.*", "tools/*.*"):
        for path in sorted(ROOT.glob(pattern)):
            if path not in covered and marks_in(path):
                errors.append(f"{path.relative_to(ROOT)}: a mark, and no entry of its module in docs/kept-quirks.md")
    print("\n".join(errors) if errors else f"{sum(count.values())} quirks, each with its marks and tests")
    return 1 if errors else 0


sys.exit(main())
