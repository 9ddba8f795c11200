#!/usr/bin/env python3
"""Holds ARCHITECTURE.md against the #include lines of lib/, common/ and agent/: the graph of modules has every edge
that is used and no other, one loop, floors as drawn; and a private header is included by its owners alone."""
import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else __file__).resolve()
ROOT = ROOT if ROOT.is_dir() else ROOT.parent.parent
DETAIL = ROOT / "lib" / "detail"
LOOP = {"log", "timeop"}  # the one that is real: time text for the log, log lines of the clock
HOME = "zent"  # the agent is one module


def block(name):
    """The lines of a fenced block of ARCHITECTURE.md: name and what stands behind its colon."""
    text = (ROOT / "ARCHITECTURE.md").read_text(encoding="utf-8")
    found = re.search(r"```%s\n(.*?)```" % name, text, re.S)
    if not found:
        sys.exit("ARCHITECTURE.md: no ```%s block" % name)
    return [(line.partition(":")[0].strip(), line.partition(":")[2].split()) for line in found.group(1).splitlines()]


def included(path):
    """Line, name and whether it is private, of each header of ours that the file includes."""
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        match = re.match(r'\s*#\s*include\s+"(detail/)?([\w/]+)\.h"', line)
        if match:
            private = bool(match.group(1)) or (path.parent == DETAIL and (DETAIL / (match.group(2) + ".h")).exists())
            yield number, match.group(2), private


def module_files():
    for pattern in ("lib/*.cpp", "include/*.h", "common/*"):
        for path in sorted(ROOT.glob(pattern)):
            yield path.stem, path
    for path in sorted(ROOT.glob("agent/*")):
        yield HOME, path


def reach(path, private, public):
    """Adds what a file includes, through private headers too, to the two tables: name -> where."""
    for number, other, is_private in included(path):
        where = f"{path.relative_to(ROOT)}:{number}"
        if not is_private:
            public.setdefault(other, where)
        elif other not in private:
            private[other] = where
            if (DETAIL / (other + ".h")).exists():
                reach(DETAIL / (other + ".h"), private, public)


def check_edges(graph, owners):
    used = {module: set() for module in graph}
    owned = {header: set() for header in owners}
    for module, path in module_files():
        if path.suffix not in (".cpp", ".h"):
            continue
        if module not in graph:
            yield f"{path.relative_to(ROOT)}: module {module} is not in the graph"
            continue
        private, public = {}, {}
        reach(path, private, public)
        for other, where in public.items():
            if other == module or (module == HOME and (ROOT / "agent" / f"{other}.h").exists()):
                continue
            used[module].add(other)
            if other not in graph[module]:
                yield f"{where}: {module} must not include {other}"
        for header, where in private.items():
            owned.setdefault(header, set()).add(module)
            if header in owners and "all" not in owners[header] and module not in owners[header]:
                yield f"{where}: {module} is not among the owners of detail/{header}.h"
    for module, needs in graph.items():
        for other in sorted(needs - used[module]):
            yield f"ARCHITECTURE.md: {module} does not use {other}"
        for other in sorted(needs - set(graph)):
            yield f"ARCHITECTURE.md: {module} needs {other}, which is not in the graph"
    for header, modules in owners.items():
        for module in sorted(set(modules) - {"all"} - owned[header]):
            yield f"ARCHITECTURE.md: {module} does not include detail/{header}.h"
    stand = {path.stem for path in DETAIL.glob("*.h")}
    for header in sorted(stand - set(owners)):
        yield f"lib/detail/{header}.h: has no owner in ARCHITECTURE.md"
    for header in sorted(set(owners) - stand):
        yield f"ARCHITECTURE.md: there is no lib/detail/{header}.h"


def reachable(graph, start):
    seen, todo = set(), list(graph[start])
    while todo:
        module = todo.pop()
        if module in graph and module not in seen:
            seen.add(module)
            todo += graph[module]
    return seen


def check_loops(graph):
    below = {module: reachable(graph, module) for module in graph}
    for module in sorted(graph):
        loop = {module} | {other for other in below[module] if module in below[other]}
        if module in below[module] and loop != LOOP and module == min(loop):
            yield f"ARCHITECTURE.md: a loop of {' '.join(sorted(loop))}"


def check_floors(graph, floors):
    level = {module: -number for number, (_, modules) in enumerate(floors) for module in modules}
    for module, needs in graph.items():
        if module not in level:
            yield f"ARCHITECTURE.md: {module} stands on no floor"
            continue
        for other in sorted(needs & set(level)):
            if level[other] >= level[module] and {module, other} != LOOP:
                yield f"ARCHITECTURE.md: {module} stands on or below the floor of {other}, which it needs"
    for module in sorted(set(level) - set(graph)):
        yield f"ARCHITECTURE.md: {module} on the floors is not in the graph"


def main():
    graph = {module: set(needs) for module, needs in block("layers")}
    owners = dict(block("owners"))
    errors = [*check_edges(graph, owners), *check_loops(graph), *check_floors(graph, block("floors"))]
    print("\n".join(errors) if errors else f"{len(graph)} modules, {sum(map(len, graph.values()))} edges, all in use, "
          f"one loop; {len(owners)} private headers with their owners")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
