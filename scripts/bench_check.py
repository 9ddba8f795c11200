#!/usr/bin/env python3
"""Holds the benchmarks to bench/aims for scripts/bench --check: bench_check.py BUILD_DIR NAME ..."""
import math
import os
import re
import subprocess
import sys
import tempfile

from bench_table import medians

RUNS = 3
AIM = re.compile(r"([a-z]+)\s+(\S+)\s+(\S+)\s+([0-9.]+)")


class Aim:
    def __init__(self, row, program, job, peer, wanted):
        self.row, self.program, self.job, self.peer, self.wanted = row, program, job, peer, float(wanted)

    def cases(self):
        """The names of the two benchmarks, as a regular expression."""
        job, *rest = self.job.split("/")
        return "/".join([job, f"(ours|{self.peer})", *rest])

    def ratio(self, table):
        cases = table.get(self.job.replace("/", " "), {})
        return cases[self.peer] / cases["ours"] if cases.get(self.peer, math.inf) < math.inf and "ours" in cases else None


def read_aims(path):
    aims, row = [], ""
    with open(path) as f:
        for number, line in enumerate((line.strip() for line in f), 1):
            if line.startswith("["):
                row = line.strip("[]")
            elif line and not line.startswith("#"):
                found = AIM.fullmatch(line)
                if not found:
                    sys.exit(f"{path}:{number}: not an aim: {line}")
                aims.append(Aim(row, *found.groups()))
    return aims


def run_program(build, program, aims):
    """The tables of RUNS runs of a benchmark's cases that have an aim."""
    chosen = "|".join(sorted({aim.cases() for aim in aims}))
    options = [f"--benchmark_filter=^({chosen})(/real_time|/manual_time)?$", "--benchmark_repetitions=5",
               "--benchmark_min_time=0.03"]
    return [medians(f"{build}/bench/{program}_bench", *options) for _ in range(RUNS)]


def run_agent(build):
    """The same of the agent: its driver leaves its figures in the shape of a benchmark's table, one a line."""
    if os.geteuid() != 0:
        return []
    with tempfile.NamedTemporaryFile("r") as figures:
        subprocess.run(["unshare", "-n", "python3", "scripts/bench_agent.py", build, str(RUNS), figures.name], check=True,
                       stdout=subprocess.DEVNULL)
        table = {}
        for line in figures:
            job, who, value = line.split("\t")
            table.setdefault(job, {})[who] = float(value)
    return [table]


def main():
    build, names = sys.argv[1], sys.argv[2:]
    aims = [aim for aim in read_aims("bench/aims") if aim.program in names]
    missed, row = 0, None
    for program in dict.fromkeys(aim.program for aim in aims):
        ours = [aim for aim in aims if aim.program == program]
        tables = run_agent(build) if program == "agent" else run_program(build, program, ours)
        for aim in ours:
            if aim.row != row:
                row = aim.row
                print(f"{row}")
            ratios = [ratio for ratio in (aim.ratio(table) for table in tables) if ratio is not None]
            what = f"{aim.job} to {aim.peer}"
            if not ratios:
                print(f"    absent         of {aim.wanted:5.2f}  {what}")
                continue
            held = max(ratios) >= aim.wanted
            missed += 0 if held else 1
            print(f"    {'holds ' if held else 'MISSED'}  {max(ratios):5.2f}  of {aim.wanted:5.2f}  {what}", flush=True)
    print(f"{missed} of {len(aims)} aims are missed" if missed else "no aim is missed")
    return 1 if missed else 0


sys.exit(main())
