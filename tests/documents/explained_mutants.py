#!/usr/bin/env python3
"""explained_mutants.py SOURCE_DIRECTORY: what scripts/mutants_run.py --list says of lists that fit a small source or do not."""
import pathlib
import shutil
import subprocess
import sys
import tempfile

SCRIPTS = pathlib.Path(sys.argv[1]) / "scripts"

SOURCE = """\
int first(int fd)
{
    --count;
    return fd > 0 ? 1 : 0;
}

int second(int fd)
{
    ++count;
    return fd > 0 ? 1 : 0;
}
"""
SECOND = "  ++count;\n- return fd > 0 ? 1 : 0;\n+ return fd >= 0 ? 1 : 0;\n+ return fd > 0 ? 2 : 0;\n"

CASES = {  # name: (file, reason, lines, what the program says)
    "two mutants of a line": ("lib/a.cpp", "why", SECOND, "2 are explained"),
    "a line that begins with a minus": ("lib/a.cpp", "why", "- --count;\n+ ;\n", "1 are explained"),
    "no reason": ("lib/a.cpp", "", SECOND, "has no reason"),
    "the line is gone": ("lib/a.cpp", "why", "- return 7;\n+ return 8;\n", "stands 0 times in the source: it is gone"),
    "the line stands twice": ("lib/a.cpp", "why", "- return fd > 0 ? 1 : 0;\n+ return 0;\n", "stands 2 times"),
    "no line is changed": ("lib/a.cpp", "why", "  --count;\n+ ;\n", "shows no line and what it becomes"),
    "two lines are changed": ("lib/a.cpp", "why", "- --count;\n- return fd > 0 ? 1 : 0;\n+ ;\n", "shows no line"),
    "the line becomes nothing": ("lib/a.cpp", "why", "- --count;\n", "shows no line and what it becomes"),
    "a header": ("lib/detail/a.h", "why", SECOND, "2 are explained"),
    "an unknown file": ("lib/b.cpp", "why", SECOND, "lib/b.cpp: is no source that can be chosen"),
}

with tempfile.TemporaryDirectory() as directory:
    tree = pathlib.Path(directory)
    for name in ("lib", "scripts", "tests"):
        (tree / name).mkdir()
    for name in ("mutants_run.py", "coverage_check.py"):
        shutil.copy(SCRIPTS / name, tree / "scripts")
    (tree / "lib" / "detail").mkdir()
    for name in ("a.cpp", "detail/a.h"):
        (tree / "lib" / name).write_text(SOURCE, encoding="ascii")
    for name, (file, reason, lines, told) in CASES.items():
        (tree / "tests" / "mutants.toml").write_text(
            f'[[survivor]]\nfile = "{file}"\nreason = "{reason}"\nlines = \'\'\'\n{lines}\'\'\'\n', encoding="ascii")
        result = subprocess.run([sys.executable, "-B", tree / "scripts" / "mutants_run.py", "--list"], text=True,
                                capture_output=True)
        if (result.returncode == 0) != told.endswith("are explained") or told not in result.stdout + result.stderr:
            sys.exit(f"{name}: ended with {result.returncode}\n{result.stdout}{result.stderr}")
print(f"{len(CASES)} cases")
