"""count_tests.py CTEST BUILD_DIRECTORY LEAST: the build has at least so many tests, each with a name of its own in
snake_case behind its suite."""
import re
import subprocess
import sys

ctest, build, least = sys.argv[1:]
listing = subprocess.run([ctest, "--test-dir", build, "-N"], check=True, capture_output=True, text=True).stdout
names = re.findall(r"^ *Test +#\d+: (\S+)", listing, re.M)
faults = [f"{name}: there are two" for name in {name for name in names if names.count(name) > 1}]
for name in names:
    case = name.rsplit(".", 1)[-1].split("/")[0] # behind the last slash stands a parameter
    if name.split(".")[0] not in ("c_api", "fuzz") and re.search("[A-Z]", case):
        faults.append(f"{name}: not in snake_case")
    if name.endswith("_NOT_BUILT"):
        faults.append(f"{name}: not built")
if len(names) < int(least):
    faults.append(f"{len(names)} tests, where at least {least} are to be")
print("\n".join(faults) or f"{len(names)} tests")
sys.exit(bool(faults))
