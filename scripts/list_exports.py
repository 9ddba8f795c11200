#!/usr/bin/env python3
"""list_exports.py [--write]: the linker's version script of the library, made from its headers: every function and
variable that the headers of the modules declare, by the name that it has in object files. --write puts it into
cmake/exports.map; without it the script tells whether that file is up to date."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
MAP = ROOT / "cmake" / "exports.map"
VERSION = "MORVANE_1.0"
HEAD = """/* Made by scripts/list_exports.py from the headers: what they declare is what the library exports. A name that is
 * added later gets a node of its own behind this one, which then stays as it is: see docs/abi.md. */
"""
TAIL = r'\s*((?:MV_\w+\([^)]*\)|__attribute__\s*\(\(.*?\)\)|__asm__\s*\("\w+"\)|\s)*)$'


def declarations(text):
    """The declarations of a header at its outer level, each on one line without its semicolon."""
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    text = re.sub(r"\\\n", " ", text)
    text = re.sub(r"^\s*#.*$", "", text, flags=re.M)
    while True: # bodies of structures, enums and inline functions
        shorter = re.sub(r"\{[^{}]*\}", "@", text)
        if shorter == text:
            break
        text = shorter
    text = re.sub(r"MV_(BEGIN|END)_DECLS", ";", text)
    for declaration in re.split(r"[;@]", text):
        declaration = " ".join(declaration.split())
        if declaration and not re.match(r"(typedef|static|enum\b[^()]*$|union\b[^()]*$|inline)\b", declaration):
            yield declaration


def symbol(name, rest):
    label = re.search(r'__asm__\s*\("(\w+)"\)', rest)
    return label.group(1) if label else name


def exported(header):
    for declaration in declarations(header.read_text(encoding="utf-8")):
        if found := re.match(r"extern\b.*?\b(\w+)(?:\[[^\]]*\])*" + TAIL, declaration):
            yield symbol(found.group(1), found.group(2))
        elif found := re.match(r"[\w\s*]*?\b(\w+)\s?\((?:[^()]|\([^()]*\))*\)" + TAIL, declaration):
            yield symbol(found.group(1), found.group(2))


def version_script():
    names = set()
    for header in sorted((ROOT / "include").glob("*.h")):
        names |= set(exported(header))
    lines = "".join("    %s;\n" % name for name in sorted(names))
    return "%s%s {\n  global:\n%s  local:\n    *;\n};\n" % (HEAD, VERSION, lines)


if __name__ == "__main__":
    wanted = version_script()
    if "--write" in sys.argv[1:]:
        MAP.write_text(wanted, encoding="utf-8")
    elif MAP.read_text(encoding="utf-8") != wanted:
        sys.exit("%s differs from the headers: run scripts/list_exports.py --write" % MAP.relative_to(ROOT))
    print("%d names" % wanted.count(";\n    ") if wanted else "none")
