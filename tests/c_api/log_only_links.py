#!/usr/bin/env python3
"""log_only_links.py PROGRAM ARCHIVE: a static program that only logs has the log and its clocks of the library in it,
and not the event loop, nor any other module."""
import subprocess
import sys

program, archive = sys.argv[1:3]


def defined(path):
    """Functions of ours, by the object that defines them."""
    objects, current = {}, ""
    for line in subprocess.run(["nm", "--defined-only", path], check=True, capture_output=True,
                               text=True).stdout.splitlines():
        words = line.split()
        if line.endswith(":"):
            current = line[:-1].removesuffix(".cpp.o")
        elif len(words) == 3 and words[1] == "T":
            objects.setdefault(current, set()).add(words[2])
    return objects


linked = defined(program)[""]
modules = {name for name, functions in defined(archive).items() if functions & linked - {"main"}}
if "log_write" not in linked:
    sys.exit("log_write is not in the program: nothing to look at")
if "rqs_event_loop" in linked or modules != {"log", "timeop"}:
    sys.exit("a program that only logs links %s" % " ".join(sorted(modules)))
print("a program that only logs links %s" % " ".join(sorted(modules)))
