#!/usr/bin/env python3
"""valgrind_run.py BUILD PATTERN [PART/PARTS]: runs each test of a build whose name matches under valgrind, as many at
once as there are processors, and shows what valgrind tells of it: an invalid access, or a choice or a call that rests on
a value that was never set. Leaks are left to the sanitizer build.

A test that fails though valgrind tells nothing is one that valgrind changes: it is slow, opens descriptors and needs
address space. Each of them stands with its reason in tests/valgrind.toml:

    [[failure]]
    tests = ["lib.Module.does_this", "lib.Module.does_that"]
    reason = "why they fail under valgrind alone"

Any other one is refused, and so is one of which valgrind left no report. What a failed test wrote is kept in
BUILD/valgrind-failed."""
import concurrent.futures
import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import tomllib

BEGIN, END = "==== finding ====", "==== its end ===="
VALGRIND = ["valgrind", "--quiet", "--leak-check=no", "--track-origins=yes", f"--error-markers={BEGIN},{END}"]
LIMIT = 600  # seconds
LIST = pathlib.Path(__file__).parent.parent / "tests" / "valgrind.toml"
STEP = 50  # tests between two lines that tell how far it is


class Test:
    def __init__(self, told):
        properties = {entry["name"]: entry["value"] for entry in told["properties"]}
        self.name, self.command = told["name"], told["command"]
        self.folder = properties.get("WORKING_DIRECTORY")
        self.environment = dict(setting.split("=", 1) for setting in properties.get("ENVIRONMENT", []))


class Result:
    """What became of a test: how it failed (empty: it passed), how many reports there are, and those that tell something."""

    def __init__(self, test, failure, reports):
        self.test, self.failure, self.count = test, failure, len(reports)
        self.told = [text for text in reports if BEGIN in text]


def find_tests(build, pattern):
    told = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1", "-R", pattern], check=True,
                          capture_output=True, text=True).stdout
    return [Test(test) for test in json.loads(told)["tests"] if "command" in test]


def ends(child):
    """How it failed, if it did."""
    try:
        code = child.wait(LIMIT)
        return f"ends with {code}" if code else ""
    except subprocess.TimeoutExpired:
        os.killpg(child.pid, signal.SIGKILL)
        child.wait()
        return f"does not end within {LIMIT} s"


def run(test, folder, kept):
    reports = pathlib.Path(tempfile.mkdtemp(dir=folder))
    written = kept / (test.name.replace("/", "_") + ".txt")
    with written.open("wb") as output:
        child = subprocess.Popen([*VALGRIND, f"--log-file={reports}/%p", *test.command], cwd=test.folder,
                                 env={**os.environ, **test.environment}, stdin=subprocess.DEVNULL, stdout=output,
                                 stderr=subprocess.STDOUT, start_new_session=True)
        failure = ends(child)
    if not failure:
        written.unlink()
    return Result(test, failure, [path.read_text(errors="replace") for path in sorted(reports.iterdir())])


def run_all(tests, folder, kept):
    """The results, as they come."""
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        open_ones = [pool.submit(run, test, folder, kept) for test in tests]
        for number, done in enumerate(concurrent.futures.as_completed(open_ones), 1):
            yield done.result()
            if number % STEP == 0:
                print(f"{number} of {len(tests)} tests", flush=True)


def explained(entries, names):
    """The tests that the list speaks for, and what is wrong with it."""
    known, complaints = set(), []
    for entry in entries:
        if not entry.get("reason"):
            complaints.append(f"{', '.join(entry['tests'])}: no reason is given")
        for name in entry["tests"]:
            if name in known:
                complaints.append(f"{name}: is listed twice")
            elif name not in names:
                complaints.append(f"{name}: is listed, and there is no such test")
            known.add(name)
    return known, complaints


def judge(results, known):
    """What is to be told of them, and what is wrong with them."""
    notes, complaints = [], []
    for result in results:
        name = result.test.name
        if result.count == 0:
            complaints.append(f"{name}: valgrind left no report")
        if result.told:
            complaints.append(f"{name}: valgrind found something")
        elif result.failure and name in known:
            notes.append(f"{name}: {result.failure}, as listed")
        elif result.failure:
            complaints.append(f"{name}: {result.failure}, valgrind tells nothing: not listed")
        elif name in known:
            notes.append(f"{name}: passes, though it is listed")
    return sorted(notes), sorted(complaints)


def part_of(tests, text):
    part, parts = (int(number) for number in text.split("/"))
    if not 1 <= part <= parts:
        sys.exit(f"there is no part {text}")
    return tests[part - 1::parts]


def main():
    build, pattern, part = sys.argv[1:] if len(sys.argv) > 3 else [*sys.argv[1:], "1/1"]
    all_tests = find_tests(build, pattern)
    with LIST.open("rb") as file:
        known, complaints = explained(tomllib.load(file).get("failure", []), {test.name for test in all_tests})
    tests = part_of(all_tests, part)
    kept = pathlib.Path(build) / "valgrind-failed"
    kept.mkdir(exist_ok=True)
    results = []
    with tempfile.TemporaryDirectory() as folder:
        for result in run_all(tests, folder, kept):
            results.append(result)
            if result.told:
                print(f"{result.test.name}:", *result.told, sep="\n", flush=True)
            elif result.failure or result.count == 0:
                print(f"{result.test.name}: {result.failure or 'no report'}", flush=True)
    notes, wrong = judge(results, known)
    complaints += wrong if tests else ["there are no tests"]
    for line in notes + complaints:
        print(line)
    print(f"valgrind: part {part}, {len(tests)} tests, {sum(result.count for result in results)} processes, "
          f"findings in {sum(bool(result.told) for result in results)}, {len(notes)} listed, {len(complaints)} complaints")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
