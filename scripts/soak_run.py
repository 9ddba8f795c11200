#!/usr/bin/env python3
"""Drives and watches the agents of scripts/soak: soak_run.py ZENT SECONDS. It is the first process of namespaces of its
own, so that nothing outlives it."""
import collections
import contextlib
import fcntl
import os
import random
import re
import select
import statistics
import subprocess
import sys
import time

from segment import (AGENT_END, HOST_END, LEAVE, REPORT, REPORT_V3, Frames, Peer, bad_frame, message, open_link, run,
                     wait_for)

KINDS = {"plain": "", "featured": "exact,immediate,igmpv3"}
GROUPS = [f"239.1.{n // 100}.{n % 100}" for n in range(500)]  # last octets below 128: the plain tables hide none
READY = "239.2.0.0"  # joined before all others, and stays so
ROUND = 2 * len(GROUPS)  # changes: each group is joined, each is left
PER_BURST, BURSTS_A_SECOND = 500, 40
BAD_PER_BURST = PER_BURST // 20
MEMORY_KB, COST = 64, 1.08  # what a run may grow by
SHORT_S, SHORT_COST = 300, 1.15  # a short run has less to take the median of
FEW = 10  # with fewer slices to compare, in a run below 30 s, the cost is told and not judged
YOUNG_FROM, COMPARED = 0.75, 0.2  # when the young agents are started, and for which part at the end they are compared
SLICE_S = 0.25
PIPE_BYTES = 1 << 20
QUIET_S = 6  # the plain capture hands packets over after 5 s
HOST, FIRST, SECOND = 3, 2, 1  # priorities of those that take turns
FOLDER = "/dev/shm"  # no agent waits for a disk
LIMIT_S = 30  # for an agent to capture, or to end


# ---- the host --------------------------------------------------------------------------------------------------------

def bursts():
    """Rounds of changes as bursts with bad frames among them, which differ from round to round."""
    chance = random.Random(2026)
    changes = [message(kind, group) for kind in (REPORT, LEAVE) for group in GROUPS]
    for _ in range(20):
        for first in range(0, ROUND, PER_BURST):
            row = changes[first:first + PER_BURST]
            for _ in range(BAD_PER_BURST):
                row.insert(chance.randrange(len(row) + 1), bad_frame(chance))
            yield row


def host_main(seconds):
    """Sends the bursts in time. One that is late is followed by the next after half the usual time: what a pause of
    this process has cost is made up, but not at once."""
    take_turns(HOST)
    sys.stdin.readline()  # the segment is laid, the agents capture
    rows, link = [Frames(row) for row in bursts()], open_link(HOST_END)
    pause = 1 / BURSTS_A_SECOND
    due = time.monotonic()
    for n in range(seconds * BURSTS_A_SECOND):
        rows[n % len(rows)].send(link)
        due += pause
        time.sleep(max(due - time.monotonic(), pause / 2))
    print("done", flush=True)
    sys.stdin.read()


def broken_reports(seconds):
    """How many reports of version 3 the host sends: all of them are broken."""
    counts = [sum(frame[34:35] == bytes([REPORT_V3]) for frame in row) for row in bursts()]
    return sum(counts[n % len(counts)] for n in range(seconds * BURSTS_A_SECOND))


def take_turns(priority):
    """On one processor, where a burst is sent before an agent takes it, and each agent takes it as a whole. What a line
    costs would otherwise depend on how often an agent is woken."""
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    set_priority(0, priority)


def set_priority(pid, priority):
    """Other work on the machine is not what is asked about; where it must not be kept away the soak goes on beside it."""
    with contextlib.suppress(PermissionError):
        os.sched_setscheduler(pid, os.SCHED_FIFO, os.sched_param(priority))


def read_text(path):
    with open(path, errors="replace") as file:
        return file.read()


# ---- the agents ------------------------------------------------------------------------------------------------------

Sample = collections.namedtuple("Sample", "lines memory descriptors spent")


class Agent:
    """An agent, what it has to print, and what it costs."""
    expected = "".join(f"{word} UDP://{group}\n" for word in ("JOIN", "LEAVE") for group in GROUPS).encode()
    first = expected[:expected.index(b"\n") + 1]

    def __init__(self, zent, kind, is_young):
        self.name, self.is_young = f"young {kind}" if is_young else kind, is_young
        self.log = f"{FOLDER}/{self.name.replace(' ', '-')}.log"
        # At warn, so that a complaint about a bad frame is written and nothing else.
        self.process = subprocess.Popen([zent, "-T", "-i", AGENT_END, "-g", "239.1.0.0", "-l", self.log, "-L", "warn"],
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                        preexec_fn=lambda: take_turns(SECOND), env=os.environ | {"ZENT_FEATURES": KINDS[kind]})
        self.out = self.process.stdout.fileno()
        fcntl.fcntl(self.out, fcntl.F_SETPIPE_SZ, PIPE_BYTES)  # a pause of this process is not the agent's
        self.early, self.begun = b"", False  # what came in front of the first whole round
        self.wrong = None  # the first line that should not be
        self.rounds, self.at = 0, 0  # what has come
        self.samples = []

    def read(self):
        """Takes what there is and holds it against what must come."""
        part = os.read(self.out, PIPE_BYTES)
        if not part:
            self.gone()
        if not self.begun:
            self.early += part
            self.begun = self.first in self.early
            part = self.early[self.early.index(self.first):] if self.begun else b""
        while part and self.wrong is None:
            want = self.expected[self.at:self.at + len(part)]
            if not part.startswith(want):
                n = next((i for i, pair in enumerate(zip(part, want)) if pair[0] != pair[1]), 0)
                self.wrong = f"behind {self.lines()} lines came {part[max(n - 40, 0):n + 40]!r}"
            part = part[len(want):]
            self.at += len(want)
            if self.at == len(self.expected):
                self.rounds, self.at = self.rounds + 1, 0

    def captures(self):
        return f"JOIN UDP://{READY}\n".encode() in self.early

    def lines(self):
        return self.rounds * ROUND + self.expected[:self.at].count(b"\n")

    def gone(self):
        """There is no use in going on without an agent."""
        try:
            how = f"ended with {self.process.wait(LIMIT_S)}"
        except subprocess.TimeoutExpired:
            how = "closed its output"
        raise SystemExit(f"soak: the {self.name} agent {how} behind {self.lines()} lines; its log ends with "
                         f"{read_text(self.log)[-300:]!r}")

    def sample(self):
        """Lines so far, kilobytes of memory, open descriptors, nanoseconds on a processor."""
        place = f"/proc/{self.process.pid}"
        memory = re.search(r"VmRSS:\s+(\d+)", read_text(f"{place}/status"))
        if memory is None:  # a process that has ended has none
            self.gone()
        self.samples.append(Sample(self.lines(), int(memory.group(1)), len(os.listdir(f"{place}/fd")),
                                   int(read_text(f"{place}/schedstat").split()[0])))

    def code(self):
        """Its exit code."""
        try:
            return self.process.wait(LIMIT_S)
        except subprocess.TimeoutExpired:
            return f"none in {LIMIT_S} s"

    def kill(self):
        self.process.kill()
        self.process.wait()

    def costs(self, part):
        """Nanoseconds for a line between some samples and the second behind each, so that each agent was first in one
        half; None where no line came."""
        part = part[::2]
        return [(b.spent - a.spent) / (b.lines - a.lines) if b.lines > a.lines else None for a, b in zip(part, part[1:])]


def verdicts(agent, changes, complaints):
    """Whether each thing is good, with its figures."""
    memory = [sample.memory for sample in agent.samples]
    half = len(memory) // 2
    grown = max(memory[half:]) - memory[half]
    descriptors = sorted({sample.descriptors for sample in agent.samples[1:]})
    log = read_text(agent.log).splitlines()
    others = [line for line in log if ": IGMPv3 report ends within record 1 of " not in line]
    yield agent.wrong is None and agent.lines() == changes, f"{agent.lines()} lines of {changes}" + (
        f"; {agent.wrong}" if agent.wrong else "")
    yield len(log) == complaints and not others, f"{len(log)} complaints of {complaints}" + (
        f"; {others[0]}" if others else "")
    yield grown <= MEMORY_KB, f"{memory[half]} kB of memory at half time, {grown} kB more later (at most {MEMORY_KB})"
    yield len(descriptors) == 1, f"{' or '.join(map(str, descriptors))} descriptors"


def verdict_beside(agent, young, most):
    """What a line costs, beside an agent that was started late, in the same slices of time: the machine itself gets
    faster and slower, for both of them alike."""
    count = min(max(int(len(agent.samples) * COMPARED), 8), len(young.samples))
    pairs = zip(agent.costs(agent.samples[-count:]), young.costs(young.samples[-count:]))
    pairs = [pair for pair in pairs if all(pair)]
    begun = [cost for cost in agent.costs(agent.samples[:count]) if cost]
    if not pairs or not begun:
        return False, "no lines to compare the costs of"
    old, new = (statistics.median(costs) for costs in zip(*pairs))
    ratio = statistics.median(a / b for a, b in pairs)
    limit = f"at most {most:.2f}" if len(pairs) >= FEW else "too few slices to judge"
    return ratio <= most or len(pairs) < FEW, (
        f"{old:.0f} ns a line at the end, {new:.0f} for an agent that was started late: {ratio:.2f} times ({limit}); "
        f"{statistics.median(begun):.0f} at the start")


# ---- the run ---------------------------------------------------------------------------------------------------------

def wait_for_captures(agents, peer):
    """Until each of them has told of a group that is joined again and again."""
    link, ready = peer.open_link(), Frames([message(REPORT, READY)])

    def all_capture():
        ready.send(link)
        waiting = {agent.out: agent for agent in agents if not agent.captures()}
        for source in select.select(list(waiting), [], [], 0.05)[0]:
            waiting[source].read()
        return not waiting

    wait_for(all_capture, LIMIT_S, "the agents' first lines")
    link.close()


def watch(agents, host, seconds, start_young):
    """Reads and samples until the host is done and nothing more comes. Gives the seconds until the host was done."""
    start = quiet = next_sample = time.monotonic()
    sent_in, turn = None, False
    while sent_in is None or time.monotonic() - quiet < QUIET_S:
        sources = {agent.out: agent for agent in agents}
        for source in select.select([*sources, *([host.stdout] if sent_in is None else [])], [], [], 0.05)[0]:
            quiet = time.monotonic()
            if source in sources:
                sources[source].read()
            elif host.stdout.readline() == "done\n":
                sent_in = quiet - start
            else:
                raise SystemExit(f"soak: the host has come to an early end, with {host.wait(LIMIT_S)}")
        now = time.monotonic()
        if sent_in is None and now >= next_sample:
            next_sample += SLICE_S
            turn = not turn
            for agent in agents:
                agent.sample()
                # The first to take a burst warms the caches for the second.
                set_priority(agent.process.pid, FIRST if turn == agent.is_young else SECOND)
        if not agents[-1].is_young and now - start >= seconds * YOUNG_FROM:
            start_young()
        if now - start > 2 * seconds + 60:
            raise SystemExit("soak: the host does not come to an end")
    return sent_in


def soak(zent, seconds, agents):
    """Runs host and agents, which are put into a list: at first one of each kind, then the young ones. Gives the seconds
    that the host took, and the agents' exit codes."""
    def start(is_young):
        agents.extend(Agent(zent, kind, is_young) for kind in KINDS)

    peer = Peer(sys.executable, __file__, "--host", str(seconds))
    try:
        peer.join_segment()
        start(False)
        wait_for_captures(agents, peer)
        peer.process.stdin.write("go\n")
        peer.process.stdin.flush()
        sent_in = watch(agents, peer.process, seconds, lambda: start(True))
        for agent in agents:
            agent.process.terminate()
        return sent_in, [agent.code() for agent in agents]
    finally:
        peer.close()
        for agent in agents:
            agent.kill()


def judge(agents, seconds):
    """Whether each thing about each agent is good, with its figures."""
    changes = seconds * BURSTS_A_SECOND * PER_BURST
    most = COST if seconds >= SHORT_S else SHORT_COST
    old, young = agents[:len(KINDS)], agents[len(KINDS):]
    for agent, other, complaints in zip(old, young, (0, broken_reports(seconds))):  # the plain one reads none of them
        for verdict in (*verdicts(agent, changes, complaints), verdict_beside(agent, other, most)):
            yield agent, *verdict
    for agent in young:
        yield agent, agent.wrong is None and agent.rounds > 0 and agent.at == 0, (
            f"{agent.rounds} whole rounds and {agent.at} bytes" + (f"; {agent.wrong}" if agent.wrong else ""))


def main():
    zent, seconds = sys.argv[1], int(sys.argv[2])
    run("mount", "-t", "tmpfs", "none", FOLDER)  # of this namespace alone
    set_priority(0, SECOND)
    agents, changes = [], seconds * BURSTS_A_SECOND * PER_BURST
    sent_in, codes = soak(zent, seconds, agents)
    os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))  # nothing waits for the figures
    print(f"{changes} changes and {changes // 20} bad frames, sent in {sent_in:.1f} s")
    found = [*judge(agents, seconds), *((agent, code == 0, f"exit code {code}") for agent, code in zip(agents, codes))]
    for agent, fine, text in found:
        print(f"{agent.name:14} {'ok ' if fine else 'BAD'} {text}")
    return 0 if all(fine for _, fine, _ in found) else 1


if __name__ == "__main__":
    if sys.argv[1:2] == ["--host"]:
        host_main(int(sys.argv[2]))
    else:
        sys.exit(main())
