#!/usr/bin/env python3
"""exports.py LIBRARY LISTING_SCRIPT: the shared library exports what its headers declare, under the version of its
node, and nothing else; and the version script is what the listing script makes of the headers."""
import re
import subprocess
import sys

library, listing = sys.argv[1:3]
up_to_date = subprocess.run([sys.executable, listing], capture_output=True, text=True)
if up_to_date.returncode != 0:
    sys.exit(up_to_date.stdout + up_to_date.stderr)

sys.path.insert(0, listing.rpartition("/")[0])
import list_exports  # noqa: E402

declared = set(re.findall(r"^    (\w+);$", list_exports.version_script(), re.M))
symbols = {}
for line in subprocess.run(["nm", "-D", "--with-symbol-versions", "--defined-only", library], check=True,
                           capture_output=True, text=True).stdout.splitlines():
    name, _, version = line.split()[-1].partition("@@")
    symbols[name] = version
symbols.pop(list_exports.VERSION, None) # the node itself
if len(declared) < 300:
    sys.exit("nothing to compare: %d names" % len(declared))
unversioned = sorted(name for name, version in symbols.items() if version != list_exports.VERSION)
stray, missing = sorted(set(symbols) - declared), sorted(declared - set(symbols))
if stray or missing or unversioned:
    sys.exit("exported and not declared: %s\ndeclared and not exported: %s\nwithout version: %s" % (stray, missing,
                                                                                                   unversioned))
print("%d symbols" % len(symbols))
