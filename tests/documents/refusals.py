#!/usr/bin/env python3
"""refusals.py SOURCE_DIRECTORY: a block that nobody has classified, or planned, is refused by check_commands --list."""
import pathlib
import shutil
import subprocess
import sys
import tempfile

source = pathlib.Path(sys.argv[1])

CASES = {  # name: (file, what is put at its end, what is told)
    "nothing": ("README.md", "", ""),
    "a fence without a language": ("README.md", "```\nzent -T\n```\n", "says not what it is"),
    "a fence of an unknown language": ("docs/guide.md", "```zsh\nzent -T\n```\n", "says not what it is"),
    "an indented block": ("CONTRIBUTING.md", "\n    scripts/new\n", "says not what it is"),
    "a display without a mark": ("man/zent.8", ".Dl zent -T\n", "says not what it is"),
    "a literal block without a mark": ("man/zentmon.8", ".Bd -literal\nzentmon\n.Ed\n", "says not what it is"),
    "commands without an entry": ("docs/page.md", "```sh\ncurl http://127.0.0.1:8580/\n```\n", "is not about it"),
    "an entry without commands": ("tests/documents/commands.toml", '[[block]]\nin = "README.md"\nstarts = "gone"\n',
                                  "no such block"),
    "an entry of no document": ("tests/documents/commands.toml", '[[block]]\nin = "gone.md"\nstarts = "x"\n',
                                "no document of ours"),
}

with tempfile.TemporaryDirectory() as directory:
    tree = pathlib.Path(directory)
    for folder in ("docs", "man", "tests/documents"):
        shutil.copytree(source / folder, tree / folder)
    for file in ("README.md", "CONTRIBUTING.md", "scripts/check_commands"):
        (tree / file).parent.mkdir(exist_ok=True)
        shutil.copy(source / file, tree / file)
    for name, (file, added, told) in CASES.items():
        before = (tree / file).read_bytes()
        (tree / file).write_bytes(before + b"\n" + added.encode())
        result = subprocess.run([sys.executable, tree / "scripts" / "check_commands", "--list"], text=True,
                                capture_output=True)
        (tree / file).write_bytes(before)
        if (result.returncode != 0) != bool(told) or told not in result.stderr:
            sys.exit(f"{name}: ended with {result.returncode}\n{result.stdout}{result.stderr}")
print(f"{len(CASES)} cases")
