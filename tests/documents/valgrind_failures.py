#!/usr/bin/env python3
"""valgrind_failures.py SOURCE_DIRECTORY: what scripts/valgrind_run.py says of tests that pass, fail, hang or are found out, and
of lists that fit or do not. A valgrind that does as it is told, and a ctest that knows a few tests, stand in for the real."""
import json
import os
import pathlib
import subprocess
import sys
import tempfile

SCRIPTS = pathlib.Path(sys.argv[1]).absolute() / "scripts"

VALGRIND = """\
#!/bin/sh
while [ "${1#--}" != "$1" ]; do
    case $1 in --log-file=*) log=${1#--log-file=} ;; esac
    shift
done
[ "$REPORT" = none ] || printf '%s' "$REPORT" >"${log%\\%p}$$"
exec "$@"
"""
RUN = """\
import pathlib, sys
sys.dont_write_bytecode = True
sys.path.insert(0, sys.argv.pop(1))
import valgrind_run
valgrind_run.LIST = pathlib.Path("list.toml")
valgrind_run.LIMIT = float(sys.argv.pop(1))
sys.exit(valgrind_run.main())
"""
LONG, SHORT = 600, 1  # seconds that a test may take

PASSES, FAILS = ("lib.A.passes", "true"), ("lib.A.fails", "exit 3")
HANGS = ("lib.A.hangs", "sleep 1000 & echo $! >pid; wait")
AT_HOME = ("lib.A.at_home", '[ "$WHO" = me ] && [ -e here ]')
FINDING = "==== finding ====\nConditional jump\n==== its end ====\n"

CASES = {  # name: (tests, listed, reason, report of valgrind, what the program says, and how it ends)
    "all pass": ([PASSES], [], "why", "", "1 tests, 1 processes, findings in 0", 0),
    "no report": ([PASSES], [], "why", "none", "lib.A.passes: valgrind left no report", 1),
    "a finding": ([PASSES], [], "why", FINDING, "lib.A.passes: valgrind found something", 1),
    "a failure": ([PASSES, FAILS], [], "why", "", "lib.A.fails: ends with 3, valgrind tells nothing: not listed", 1),
    "a listed failure": ([PASSES, FAILS], ["lib.A.fails"], "why", "", "lib.A.fails: ends with 3, as listed", 0),
    "a finding in a listed one": ([FAILS], ["lib.A.fails"], "why", FINDING, "lib.A.fails: valgrind found something", 1),
    "a listed one passes": ([PASSES], ["lib.A.passes"], "why", "", "lib.A.passes: passes, though it is listed", 0),
    "no reason": ([FAILS], ["lib.A.fails"], "", "", "lib.A.fails: no reason is given", 1),
    "listed twice": ([FAILS], ["lib.A.fails"] * 2, "why", "", "lib.A.fails: is listed twice", 1),
    "listed and gone": ([PASSES], ["lib.A.gone"], "why", "", "lib.A.gone: is listed, and there is no such test", 1),
    "no test": ([], [], "why", "", "there are no tests", 1),
    "folder and environment": ([AT_HOME], [], "why", "", "findings in 0", 0),
}


def told_by_ctest(folder, tests):
    properties = [{"name": "WORKING_DIRECTORY", "value": str(folder / "tests")}, {"name": "ENVIRONMENT", "value": ["WHO=me"]}]
    return json.dumps({"tests": [{"name": name, "command": ["sh", "-c", script], "properties": properties}
                                 for name, script in tests]})


def prepare(folder, tests, listed, reason):
    for name in ("bin", "tests"):
        (folder / name).mkdir(exist_ok=True)
    (folder / "tests" / "here").touch()
    (folder / "told.json").write_text(told_by_ctest(folder, tests))
    for name, text in (("valgrind", VALGRIND), ("ctest", f"#!/bin/sh\ncat {folder}/told.json\n")):
        (folder / "bin" / name).write_text(text)
        (folder / "bin" / name).chmod(0o755)
    entry = f'[[failure]]\ntests = {json.dumps(listed)}\nreason = "{reason}"\n' if listed else ""
    (folder / "list.toml").write_text(entry)


def run(folder, report, limit, *part):
    environment = {**os.environ, "PATH": f"{folder}/bin:{os.environ['PATH']}", "REPORT": report}
    return subprocess.run([sys.executable, "-c", RUN, SCRIPTS, str(limit), ".", "lib", *part], cwd=folder, env=environment,
                          text=True, capture_output=True, check=False)


def expect(name, result, told, code):
    if result.returncode != code or told not in result.stdout:
        sys.exit(f"{name}: ended with {result.returncode}\n{result.stdout}{result.stderr}")


def is_running(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except FileNotFoundError:
        return False


with tempfile.TemporaryDirectory() as directory:
    tree = pathlib.Path(directory)
    for case, (chosen, names, why, written, says, end) in CASES.items():
        prepare(tree, chosen, names, why)
        expect(case, run(tree, written, LONG), says, end)
    prepare(tree, [HANGS], [], "why")
    started = tree / "tests" / "pid"
    while not started.exists():  # on a busy machine it may be ended before it has begun
        expect("a test that hangs", run(tree, "", SHORT), "lib.A.hangs: does not end within 1.0 s, valgrind tells nothing", 1)
    if is_running(started.read_text().strip()):
        sys.exit("what a test that hangs has started is not ended")
    prepare(tree, [PASSES, FAILS], [], "why")
    expect("the other part", run(tree, "", LONG, "1/2"), "part 1/2, 1 tests", 0)
    expect("the part with the failure", run(tree, "", LONG, "2/2"), "part 2/2, 1 tests", 1)
print(f"{len(CASES) + 3} cases")
