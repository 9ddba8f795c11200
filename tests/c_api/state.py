#!/usr/bin/env python3
"""state.py ARCHIVE ARCHITECTURE.md: the table of state names the modules whose objects have writable variables, and
no other module."""
import re
import subprocess
import sys

archive, document = sys.argv[1:3]
CONSTANT = re.compile(r"_ZT|_ZGV|DW\.ref|__asan|__odr|\.|_ubsan|__gcov|__tsan")  # what compilers put there

with open(document, encoding="utf-8") as text:
    section = text.read().partition("## Where state lives")[2].partition("\n## ")[0]
told = set(re.findall(r"^\| (\w+) \|", section, re.M)) - {"module", "meta"}  # meta is the agent's

stateful, module = {}, ""
for line in subprocess.run(["objdump", "-t", archive], check=True, capture_output=True, text=True).stdout.splitlines():
    if found := re.match(r"(\w+)\.cpp\.o:", line):
        module = found.group(1)
    elif found := re.search(r" O (\.(?:t?bss|t?data)(?:\.(?!rel)\S+)?)\s+[0-9a-f]+\s+(?:\.hidden )?(\S+)$", line):
        if not CONSTANT.match(found.group(2)) and "g_llctx" not in found.group(2):
            stateful.setdefault(module, []).append(found.group(2))
if len(stateful) < 5:
    sys.exit("only %d modules have variables: nothing to compare" % len(stateful))
if set(stateful) != told:
    sys.exit("not in the table of state: %s\nin it without state: %s" % (
        {name: stateful[name] for name in sorted(set(stateful) - told)}, sorted(told - set(stateful))))
print("%d modules with state, all in the table" % len(stateful))
