#!/usr/bin/env python3
"""manual.py MANUAL HEADERS LIBRARY CC: the pages of the library's calls are all there, clean, and true: each exported
function has one, mandoc finds nothing, and each SYNOPSIS compiles beside the header that it names."""
import pathlib
import re
import subprocess
import sys
import tempfile

manual, headers, library, compiler = sys.argv[1:5]
pages = sorted(pathlib.Path(manual).glob("man[37]/*"))
written = [p for p in pages if not p.read_text(encoding="utf-8").startswith(".so ")]
failures = []

exported = set()
for line in subprocess.run(["nm", "-D", "--defined-only", library], check=True, capture_output=True,
                           text=True).stdout.splitlines():
    kind, name = line.split()[-2:]
    if kind in "Tt":
        exported.add(re.sub(r"^morvane_(chomp)$", r"\1", name.split("@")[0]))
titles = {p.name.split(".")[0] for p in pages}
failures += [f"{name} has no page" for name in sorted(exported - titles)]
if len(exported) < 300 or len(written) < 200:
    failures.append(f"nothing to compare: {len(exported)} functions, {len(written)} pages")

for page in pages:
    alias = re.match(r"\.so (\S+)", page.read_text(encoding="utf-8"))
    if alias and not (pathlib.Path(manual) / alias.group(1)).exists():
        failures.append(f"{page.name}: no {alias.group(1)}")
lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", *map(str, written)], capture_output=True, text=True,
                      check=False)
failures += lint.stdout.splitlines()[:20]


def synopsis(text):
    """Header and prototypes as a reader would copy them."""
    header = re.search(r"^\.In (\S+)", text, re.M).group(1)
    prototypes = []
    for result, name, body in re.findall(r"^\.Ft ([^\n]*)\n\.Fo (\w+)\n(.*?)\.Fc", text, re.M | re.S):
        parameters = ", ".join(re.findall(r'^\.Fa "(.*)"$', body, re.M))
        prototypes.append(f"{result} {name}({parameters});")
    return header, prototypes


with tempfile.TemporaryDirectory() as folder:
    root = pathlib.Path(folder)
    (root / "morvane").symlink_to(pathlib.Path(headers).resolve())
    program, checked = "", 0
    for page in (p for p in written if p.parent.name == "man3"):
        text = page.read_text(encoding="utf-8")
        header, prototypes = synopsis(text)
        program += f"#include <{header}>\n"
        inline = set(re.findall(r"static inline[^;{]*?\b(\w+)\(",
                                (root / header).read_text(encoding="utf-8")))
        for prototype in prototypes:
            name = re.search(r"(\w+)\(", prototype).group(1)
            program += f"{'static ' if name in inline else ''}{prototype}\n"
            checked += 1
    source = root / "synopsis.c"
    source.write_text(program, encoding="utf-8")
    done = subprocess.run([compiler, "-std=gnu11", "-fsyntax-only", "-I", folder, source], capture_output=True, text=True,
                          check=False)
    if done.returncode != 0:
        failures += done.stderr.splitlines()[:20]
    if checked < 300:
        failures.append(f"only {checked} prototypes found")

print("\n".join(failures) if failures else f"{len(exported)} functions, {len(written)} pages, {checked} prototypes")
sys.exit(1 if failures else 0)
