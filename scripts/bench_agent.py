#!/usr/bin/env python3
"""Drives the watchers and the flood for scripts/bench_agent: bench_agent.py BUILD_DIR ROUNDS. Medians are printed.

With a third argument, a file, they go there instead, for scripts/bench --check: JOB, PEER and figure, by tabs; the
immediate mode is then left out.
"""
import math
import os
import re
import resource
import signal
import statistics
import subprocess
import sys
import tempfile
import time

from segment import AGENT_END, HOST_END, Peer

BUILD, ROUNDS = sys.argv[1], int(sys.argv[2])
FIGURES = sys.argv[3] if len(sys.argv) > 3 else None
CHANGES, REPEATS = 400_000, 1_000_000
FEATURES = {"ZENT_FEATURES": "exact,immediate,igmpv3"}
LATENCY_JOINS = 100
FOLDER = tempfile.TemporaryDirectory(prefix="zent-bench-")


class Watcher:
    """A program that watches the segment. Its output goes to a file; ready and counted say how it tells of itself."""

    def __init__(self, name):
        self.name = name
        self.out = f"{FOLDER.name}/{name}.out"
        fifo = f"{FOLDER.name}/{name}.log"
        if os.path.exists(fifo):
            os.unlink(fifo)
        os.mkfifo(fifo)
        self.fifo = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
        commands = {
            "zent": [f"{BUILD}/zent", "-T", "-i", AGENT_END, "-l", fifo, "-L", "info"],
            "zent norm": [f"{BUILD}/zent", "-T", "-i", AGENT_END, "-l", "/dev/null", "-L", "norm"],
            "zent immediate": [f"{BUILD}/zent", "-T", "-i", AGENT_END, "-l", "/dev/null", "-L", "norm"],
            "tcpdump": ["tcpdump", "-i", AGENT_END, "-n", "igmp"],
            "least": [f"{BUILD}/bench/agent_least", AGENT_END],
            "least lines": [f"{BUILD}/bench/agent_least", AGENT_END, "lines"],
        }
        self.errors = os.open(fifo, os.O_WRONLY)
        start = time.monotonic()
        environment = os.environ | (FEATURES if name == "zent immediate" else {})
        self.process = subprocess.Popen(commands[name], stdout=open(self.out, "w"), stderr=self.errors, env=environment)
        self.text = ""
        word = {"zent": "is running as", "tcpdump": "listening on", "least": "ready", "least lines": "ready"}.get(name)
        while word and word not in self.text:
            self.read()
        if word is None:
            time.sleep(0.5)
        self.startup_ms = (time.monotonic() - start) * 1000

    def read(self):
        try:
            self.text += os.read(self.fifo, 65536).decode()
        except BlockingIOError:
            pass

    def memory_mb(self):
        with open(f"/proc/{self.process.pid}/status") as f:
            return int(re.search(r"VmHWM:\s+(\d+)", f.read()).group(1)) / 1024

    def stop(self):
        """Waits until the capture's last buffer has come, ends the program. Gives processor seconds and what it saw."""
        time.sleep(5.5)
        self.memory = self.memory_mb()
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        self.read()
        os.close(self.fifo)
        os.close(self.errors)
        cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
        if self.name.startswith("least"):
            seen = int(self.text.split()[-1])
        else:
            with open(self.out) as f:
                seen = sum(1 for _ in f)
        return cpu, seen


def flood(count, rate, mode):
    done = subprocess.run(PEER.inside(f"{BUILD}/bench/agent_flood", HOST_END, str(count), str(rate), mode),
                          check=True, stdout=subprocess.PIPE, text=True)
    return float(done.stdout.split()[1])


def run_once(name, count, rate, mode):
    watcher = Watcher(name)
    reached = flood(count, rate, mode)
    cpu, seen = watcher.stop()
    return {"startup": watcher.startup_ms, "memory": watcher.memory, "cpu_us": cpu / count * 1e6, "seen": seen,
            "rate": reached}


def median(rows, key):
    return statistics.median(row[key] for row in rows)


def latency(name, command, environment):
    """Single joins of a stock host: microseconds from the frame to the watcher's line, and from the call to the frame."""
    reading, writing = os.pipe()
    watcher = subprocess.Popen(command, stdout=writing, stderr=subprocess.DEVNULL, env=os.environ | environment)
    os.close(writing)
    time.sleep(1)  # none of them says that it is ready where that could be read
    done = subprocess.run(PEER.inside(f"{BUILD}/bench/agent_latency", HOST_END, str(LATENCY_JOINS), str(reading)),
                          check=True, stdout=subprocess.PIPE, text=True, pass_fds=[reading])
    watcher.send_signal(signal.SIGTERM)
    watcher.wait()
    os.close(reading)
    line, line_max, host, host_max = (float(word) for word in done.stdout.split())
    print(f"frame to line  {name:15} median {line:6.0f} us  maximum {line_max:6.0f} us   (the host's own delay: "
          f"median {host / 1000:.1f} ms, maximum {host_max / 1000:.1f} ms)")
    return line


def immediate(rounds):
    command = f"echo {LATENCY_JOINS} >/proc/sys/net/ipv4/igmp_max_memberships"  # one socket for all
    subprocess.run(PEER.inside("sh", "-c", command), check=True)
    ratios = []
    for _ in range(max(rounds, 1)):
        ours = latency("zent immediate", [f"{BUILD}/zent", "-T", "-i", AGENT_END, "-l", "/dev/null", "-L", "norm"],
                       FEATURES)
        theirs = latency("tcpdump -l", ["tcpdump", "-l", "--immediate-mode", "-i", AGENT_END, "-n", "-v", "igmp"], {})
        ratios.append(ours / theirs)  # with -v it names the group, or its line could not be told from another
    print(f"frame to line  zent immediate / tcpdump -l --immediate-mode: {statistics.median(ratios):.2f}")
    row = run_once("zent immediate", 1_000_000, 100_000, "changes")
    print(f"changes  at {row['rate'] / 1000:6.0f}k/s for 10 s  zent immediate  {row['cpu_us'] * 1000:.0f} ns/packet  "
          f"peak {row['memory']:.1f} MB  seen {row['seen']} of 1000000")


def startups(names):
    """Milliseconds from start to capture."""
    times = {name: [] for name in names}
    for _ in range(ROUNDS * 4):
        for name in names:
            watcher = Watcher(name)
            times[name].append(watcher.startup_ms)
            watcher.process.kill()
            watcher.process.wait()
            os.close(watcher.fifo)
            os.close(watcher.errors)
    return {name: statistics.median(found) for name, found in times.items()}


def flooded(names, mode, count, rate):
    rows = {name: [] for name in names}
    for _ in range(ROUNDS):
        for name in names:
            rows[name].append(run_once(name, count, rate, mode))
    return rows


def least_of(mode):
    """The least work beside which a flood is watched: of changes each is told by a line, as the agent does."""
    return "least lines" if mode == "changes" else "least"


# Of changes at these rates a second is asked whether a line is lost, and at which of them what a change costs (0: as
# fast as the generator goes).
CHANGE_RATES, COST_RATES = (0, 100_000, 200_000, 400_000, 800_000), (0, 100_000, 200_000)


def figures(path):
    """The figures of bench/aims. A side that loses at each rate has none: its time for one is infinite."""
    found = [("start", name, ms) for name, ms in startups(("zent", "tcpdump", "least")).items()]
    lossless = {}
    for rate in CHANGE_RATES:
        for name, rows in flooded(("zent norm", least_of("changes")), "changes", CHANGES, rate).items():
            if rate in COST_RATES:
                found.append((f"changes {rate}", name, median(rows, "cpu_us")))
            reached = median(rows, "rate") if all(row["seen"] == CHANGES for row in rows) else 0
            lossless[name] = max(lossless.get(name, 0), reached)
    for rate in (0, 100_000):
        for name, rows in flooded(("zent norm", least_of("repeats")), "repeats", REPEATS, rate).items():
            found.append((f"repeats {rate}", name, median(rows, "cpu_us")))
    found += [("rate", name, 1 / rate if rate > 0 else math.inf) for name, rate in lossless.items()]
    with open(path, "w") as f:
        for job, name, value in found:
            f.write(f"{job}\t{'ours' if name.startswith('zent') else name.split()[0]}\t{value}\n")


def main():
    immediate(ROUNDS)
    if ROUNDS == 0:
        return
    print(f"rounds: {ROUNDS}; all figures are medians")
    for name, ms in startups(("zent", "tcpdump", "least")).items():
        print(f"start-up to capture  {name:10} {ms:8.1f} ms")
    for mode, count, rate in (("changes", CHANGES, 0), ("changes", CHANGES, 100_000), ("changes", CHANGES, 200_000),
                              ("repeats", REPEATS, 0)):
        for name, rows in flooded(("zent norm", "tcpdump", least_of(mode)), mode, count, rate).items():
            seen = [row["seen"] for row in rows]
            print(f"{mode:8} at {median(rows, 'rate') / 1000:6.0f}k/s  {name:11} "
                  f"{median(rows, 'cpu_us') * 1000:8.0f} ns/packet  peak {median(rows, 'memory'):6.1f} MB  "
                  f"seen {min(seen)}..{max(seen)} of {count}")


PEER = Peer("cat")
try:
    PEER.join_segment()
    figures(FIGURES) if FIGURES else main()
finally:
    PEER.close()
