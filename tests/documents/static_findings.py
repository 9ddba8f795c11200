#!/usr/bin/env python3
"""static_findings.py SOURCE_DIRECTORY: what scripts/static_check.py says of findings and of lists that fit or do not."""
import pathlib
import subprocess
import sys
import tempfile

CHECK = pathlib.Path(sys.argv[1]).absolute() / "scripts" / "static_check.py"

SOURCE = "int first(void* at)\n{\n    free(at);\n    return 0;\n}\n"
LEAK = "lib/a.cpp:4:12: warning: leak of 'x' [CWE-401] [-Wanalyzer-malloc-leak]\n"
SCOPE = "lib/a.cpp:3: warning: The scope of 'at' can be reduced. [cppcheck variableScope]\n"
NOTES = "lib/a.cpp:3:5: note: freed here\n    3 |     free(at);\n"
FREES = ("lib/a.cpp", "-Wanalyzer-malloc-leak", "return 0;", "it is the caller's")
SCOPES = ("lib/a.cpp", "cppcheck variableScope", "  free(at);", "it cannot")

CASES = {  # name: (findings, entries, what the program says, or nothing where the list fits)
    "nothing found": ([NOTES, ""], [], ""),
    "each has its reason": ([LEAK + NOTES + LEAK, SCOPE], [FREES, SCOPES], ""),
    "one is not listed": ([LEAK, SCOPE], [FREES], "lib/a.cpp:3: The scope of 'at' can be reduced. [cppcheck variableScope]"),
    "another kind at a listed line": ([LEAK.replace("malloc", "file")], [FREES], "lib/a.cpp:4: leak of 'x' [CWE-401] [-Wanalyzer-file-leak]"),
    "the listed kind at another line": ([LEAK, LEAK.replace(":4:", ":3:")], [FREES], "lib/a.cpp:3: leak of 'x'"),
    "one is gone": ([LEAK], [FREES, SCOPES], "cppcheck variableScope: free(at);: is not found any more"),
    "no reason": ([LEAK], [FREES[:3] + ("",)], "has no reason"),
    "listed twice": ([LEAK], [FREES, FREES], "is listed twice"),
    "a finding without a place": (["cc1plus: warning: leak [CWE-401] [-Wanalyzer-malloc-leak]\n"], [], "cc1plus: warning: leak"),
}


def run(folder, found, entries):
    (folder / "lib").mkdir(exist_ok=True)
    (folder / "lib" / "a.cpp").write_text(SOURCE)
    names = [f"found{number}.txt" for number in range(len(found))]
    for name, text in zip(names, found):
        (folder / name).write_text(text)
    (folder / "list.toml").write_text("".join(
        f'[[exception]]\nfile = "{file}"\nfinding = "{finding}"\nline = "{line}"\nreason = "{reason}"\n'
        for file, finding, line, reason in entries))
    return subprocess.run([sys.executable, CHECK, "list.toml", *names], cwd=folder, text=True, capture_output=True)


with tempfile.TemporaryDirectory() as directory:
    for case, (found, listed, says) in CASES.items():
        result = run(pathlib.Path(directory), found, listed)
        if result.stderr or (result.returncode != 0) != bool(says) or says not in result.stdout:
            sys.exit(f"{case}: ended with {result.returncode}\n{result.stdout}{result.stderr}")
print(f"{len(CASES)} cases")
