#!/usr/bin/env python3
"""Runs one Google Benchmark program with its cases interleaved and prints, job by job, the medians and ratios.

Cases are named Job/ours, Job/PEER or Job/PEER/ARG: what stands before the last name that is not a number is the job.
"""
import json
import subprocess
import sys


def medians(program, *options):
    """{job: {peer: ns}}; further options of the program go before ours."""
    out = subprocess.run(
        [program, "--benchmark_format=json", "--benchmark_repetitions=9", "--benchmark_min_time=0.05", *options,
         "--benchmark_enable_random_interleaving=true", "--benchmark_report_aggregates_only=true"],
        check=True, stdout=subprocess.PIPE).stdout
    table = {}
    for case in json.loads(out)["benchmarks"]:
        if case.get("aggregate_name") != "median":
            continue
        parts = case["run_name"].split("/")
        parts = [p for p in parts if p not in ("real_time", "manual_time")]
        job, who, rest = parts[0], parts[1], parts[2:]
        unit = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[case["time_unit"]]
        time = case["real_time"] if "real_time" in case["run_name"] or "manual_time" in case["run_name"] else case["cpu_time"]
        table.setdefault(" ".join([job, *rest]), {})[who] = time * unit
    return table


def main():
    for job, cases in medians(sys.argv[1]).items():
        ours = cases.get("ours")
        print(f"{job}: ours {ours:.2f} ns" if ours else f"{job}:")
        for who, time in sorted(cases.items(), key=lambda item: item[1]):
            if who != "ours":
                print(f"    {who:32} {time:12.2f} ns" + (f"   ratio {time / ours:.2f}" if ours else ""))


if __name__ == "__main__":
    main()
