#!/usr/bin/env python3
"""valgrind_run.py BUILD PATTERN: runs each test of a build whose name matches under valgrind, as many at once as there
are processors, and shows what valgrind tells of it: an invalid access, or a choice or a call that rests on a value that
was never set. Leaks are left to the sanitizer build. A test that fails as such is only named: valgrind makes it slow,
opens descriptors and needs address space, and the same test passes without it."""
import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys
import tempfile

BEGIN, END = "==== finding ====", "==== its end ===="
VALGRIND = ["valgrind", "--quiet", "--leak-check=no", "--track-origins=yes", f"--error-markers={BEGIN},{END}"]
LIMIT = 600  # seconds


def tests(build, pattern):
    """Name and command of each test."""
    told = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1", "-R", pattern], check=True,
                          capture_output=True, text=True).stdout
    return [(test["name"], test["command"]) for test in json.loads(told)["tests"] if "command" in test]


def run(test, folder):
    """Whether the test passed, and what valgrind told of its processes."""
    name, command = test
    reports = pathlib.Path(tempfile.mkdtemp(dir=folder))
    try:
        result = subprocess.run([*VALGRIND, f"--log-file={reports}/%p", *command], capture_output=True, timeout=LIMIT)
        passed = result.returncode == 0
    except subprocess.TimeoutExpired:
        passed = False
    texts = [path.read_text(errors="replace") for path in sorted(reports.iterdir())]
    return name, passed, len(texts), [text for text in texts if BEGIN in text]


def main():
    build, pattern = sys.argv[1:]
    processes = 0
    failed, found = [], []
    with tempfile.TemporaryDirectory() as folder, concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        all_tests = tests(build, pattern)
        for name, passed, count, told in pool.map(lambda test: run(test, folder), all_tests):
            processes += count
            if told:
                found.append(name)
                print(f"{name}:", *told, sep="\n", flush=True)
            elif not passed:
                failed.append(name)
    if failed:
        print(f"{len(failed)} tests do not pass under valgrind, which told nothing of them:", *failed, sep="\n  ")
    print(f"valgrind: {len(all_tests)} tests, {processes} processes, findings in {len(found)}")
    return 1 if found or not all_tests else 0


if __name__ == "__main__":
    sys.exit(main())
