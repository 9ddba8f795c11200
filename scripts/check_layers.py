#!/usr/bin/env python3
"""Holds the module graph of ARCHITECTURE.md against the #include lines of lib/, common/ and agent/."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent


def stated_graph():
    text = (ROOT / "ARCHITECTURE.md").read_text(encoding="utf-8")
    block = re.search(r"```layers\n(.*?)```", text, re.S)
    if not block:
        sys.exit("ARCHITECTURE.md: no ```layers block")
    graph = {}
    for line in block.group(1).splitlines():
        name, _, needs = line.partition(":")
        graph[name.strip()] = set(needs.split())
    return graph


def included(path):
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        match = re.match(r'\s*#\s*include\s+"(?:detail/)?([\w/]+)\.h"', line)
        if match:
            yield number, match.group(1), "detail/" in line


def module_files():
    for pattern in ("lib/*.cpp", "include/*.h", "common/*"):
        for path in sorted(ROOT.glob(pattern)):
            yield path.stem, path
    for path in sorted(ROOT.glob("agent/*")):
        yield "zent", path


def main():
    graph = stated_graph()
    errors = []
    for module, path in module_files():
        if path.suffix not in (".cpp", ".h"):
            continue
        if module not in graph:
            errors.append(f"{path.relative_to(ROOT)}: module {module} is not in the graph")
            continue
        for number, other, detail in included(path):
            own = other == module or (module == "zent" and (ROOT / "agent" / f"{other}.h").exists())
            if not own and not detail and other not in graph[module]:
                errors.append(f"{path.relative_to(ROOT)}:{number}: {module} must not include {other}")
    for name in graph:
        for other in graph[name]:
            if other not in graph:
                errors.append(f"ARCHITECTURE.md: {name} needs {other}, which is not in the graph")
    print("\n".join(errors) if errors else f"{len(graph)} modules, no include outside the graph")
    return 1 if errors else 0


sys.exit(main())
