#!/usr/bin/env python3
"""Drives and watches the agents of scripts/soak: soak_run.py ZENT SECONDS."""
import contextlib
import fcntl
import os
import random
import select
import subprocess
import sys
import tempfile
import time

from segment import AGENT_END, HOST_END, LEAVE, REPORT, Frames, Peer, bad_frame, message, open_link, wait_for

GROUPS = [f"239.1.{n // 100}.{n % 100}" for n in range(500)]  # last octets below 128: the plain tables hide none
ROUND = 2 * len(GROUPS)  # changes: each group is joined, each is left
PER_BURST, BURSTS_A_SECOND = 500, 40
BAD_PER_BURST = PER_BURST // 20
MEMORY_KB, COST = 64, 1.10  # what a run may grow by
SHORT_S, SHORT_COST = 300, 1.25  # the tenth of a short run is short too, and its cost moves with the machine
SLICE_S = 0.25
PIPE_BYTES = 1 << 20
QUIET_S = 6  # the plain capture hands packets over after 5 s


# ---- the host --------------------------------------------------------------------------------------------------------

def bursts():
    """Rounds of changes as bursts with bad frames among them, which differ from round to round."""
    chance = random.Random(2026)
    changes = [message(kind, group) for kind in (REPORT, LEAVE) for group in GROUPS]
    rows = []
    for _ in range(20):
        for first in range(0, ROUND, PER_BURST):
            row = changes[first:first + PER_BURST]
            for _ in range(BAD_PER_BURST):
                row.insert(chance.randrange(len(row) + 1), bad_frame(chance))
            rows.append(Frames(row))
    return rows


def host_main(seconds):
    """Sends the bursts in time. One that is late is followed by the next after half the usual time: what a pause of
    this process has cost is made up, but not at once."""
    take_turns()
    sys.stdin.readline()  # the segment is laid, the agents capture
    rows, link = bursts(), open_link(HOST_END)
    pause = 1 / BURSTS_A_SECOND
    due = time.monotonic()
    for n in range(seconds * BURSTS_A_SECOND):
        rows[n % len(rows)].send(link)
        due += pause
        time.sleep(max(due - time.monotonic(), pause / 2))
    print("done", flush=True)
    sys.stdin.read()


def take_turns():
    """On one processor, where no process of the soak interrupts another: a burst is sent, then each agent takes it as a
    whole. What a line costs would otherwise depend on how often an agent is woken."""
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})


def spent(process):
    """Nanoseconds that a process was on a processor."""
    return int(read_text(f"/proc/{process.pid}/schedstat").split()[0])


def read_text(path):
    with open(path) as file:
        return file.read()


# ---- the agents ------------------------------------------------------------------------------------------------------

class Agent:
    """An agent, what it has to print, and what it costs."""
    expected = "".join(f"{word} UDP://{group}\n" for word in ("JOIN", "LEAVE") for group in GROUPS).encode()

    def __init__(self, zent, name, features, folder):
        self.name = name
        log = f"{folder}/{name}.log"
        # At info, so that every complaint about a bad frame is written.
        self.process = subprocess.Popen([zent, "-T", "-i", AGENT_END, "-g", "239.1.0.0", "-l", log, "-L", "info"],
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                        preexec_fn=take_turns, env=os.environ | {"ZENT_FEATURES": features})
        self.out = self.process.stdout.fileno()
        fcntl.fcntl(self.out, fcntl.F_SETPIPE_SZ, PIPE_BYTES)  # a pause of this process is not the agent's
        self.wrong = None  # the first line that should not be
        self.rounds, self.at = 0, 0  # what has come
        self.samples = []
        wait_for(lambda: os.path.exists(log) and "is running as" in read_text(log), 10, f"the {name} agent")

    def read(self):
        """Takes what there is and holds it against what must come."""
        part = os.read(self.out, PIPE_BYTES)
        while part and self.wrong is None:
            want = self.expected[self.at:self.at + len(part)]
            if not part.startswith(want):
                n = next((i for i, pair in enumerate(zip(part, want)) if pair[0] != pair[1]), 0)
                self.wrong = f"behind {self.lines()} lines came {part[max(n - 40, 0):n + 40]!r}"
            part = part[len(want):]
            self.at += len(want)
            if self.at == len(self.expected):
                self.rounds, self.at = self.rounds + 1, 0

    def lines(self):
        return self.rounds * ROUND + self.expected[:self.at].count(b"\n")

    def sample(self, host):
        """Lines so far, kilobytes of memory, open descriptors, nanoseconds on a processor, and those of the host."""
        place = f"/proc/{self.process.pid}"
        memory = next(int(line.split()[1]) for line in read_text(f"{place}/status").splitlines() if "VmRSS" in line)
        self.samples.append((self.lines(), memory, len(os.listdir(f"{place}/fd")), spent(self.process), spent(host)))

    def end(self):
        self.process.terminate()
        return self.process.wait()

    def cost(self, samples):
        """Nanoseconds for a line between the first of some samples and the last, and those of the host for its frame."""
        first, last = samples[0], samples[-1]
        lines = max(last[0] - first[0], 1)
        return (last[3] - first[3]) / lines, (last[4] - first[4]) / lines

    def verdicts(self, changes, cost):
        """Whether each thing is good, with its figures."""
        tenth, half = max(len(self.samples) // 10, 8), len(self.samples) // 2
        memory = [sample[1] for sample in self.samples]
        grown = max(memory[half:]) - memory[half]
        descriptors = sorted({sample[2] for sample in self.samples[1:]})
        (first, host_first), (last, host_last) = self.cost(self.samples[:tenth]), self.cost(self.samples[-tenth:])
        yield self.wrong is None and self.lines() == changes, f"{self.lines()} lines of {changes}" + (
            f"; {self.wrong}" if self.wrong else "")
        yield grown <= MEMORY_KB, f"{memory[half]} kB of memory at half time, {grown} kB more later (at most {MEMORY_KB})"
        yield len(descriptors) == 1, f"{' or '.join(map(str, descriptors))} descriptors"
        # The host does the same work all the time: the machine itself gets faster and slower by so much, though not for
        # both by the same. An agent that gets slower does so by its own cost and beside the host's.
        own, beside = last / first, last / host_last / first * host_first
        yield min(own, beside) <= cost, (
            f"{first:.0f} ns a line in the first tenth, {last:.0f} ns in the last, {own:.2f} times; the host's own "
            f"{host_first:.0f} and {host_last:.0f}, {beside:.2f} times beside it (the less at most {cost:.2f})")


def watch(agents, host, seconds):
    """Reads and samples until the host is done and nothing more comes. Gives the seconds until the host was done."""
    sources = {agent.out: agent for agent in agents} | {host.stdout.fileno(): None}
    start = quiet = next_sample = time.monotonic()
    sending, sent_in = True, 0
    while sending or time.monotonic() - quiet < QUIET_S:
        for source in select.select(list(sources), [], [], 0.05)[0]:
            if sources[source] is None:
                sending = False
                sent_in = time.monotonic() - start
                del sources[source]
            else:
                sources[source].read()
            quiet = time.monotonic()
        if sending and time.monotonic() >= next_sample:
            next_sample += SLICE_S
            for agent in agents:
                agent.sample(host)
        if time.monotonic() - start > 2 * seconds + 60:
            raise SystemExit("soak: the host does not come to an end")
    return sent_in


def main():
    zent, seconds = sys.argv[1], int(sys.argv[2])
    with contextlib.suppress(PermissionError):  # other work on the machine is not what is asked about
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))
    good = True
    cost = SHORT_COST if seconds < SHORT_S else COST
    changes = seconds * BURSTS_A_SECOND * PER_BURST
    peer = Peer(sys.executable, __file__, "--host", str(seconds))
    with tempfile.TemporaryDirectory(prefix="zent-soak-", dir="/dev/shm") as folder:  # no agent waits for a disk
        try:
            peer.join_segment()
            agents = [Agent(zent, "plain", "", folder), Agent(zent, "featured", "exact,immediate,igmpv3", folder)]
            peer.process.stdin.write("go\n")
            peer.process.stdin.flush()
            sent_in = watch(agents, peer.process, seconds)
            codes = [agent.end() for agent in agents]
        finally:
            peer.close()
    print(f"{changes} changes and {changes // 20} bad frames, sent in {sent_in:.1f} s")
    for agent, code in zip(agents, codes):
        for fine, text in [*agent.verdicts(changes, cost), (code == 0, f"exit code {code}")]:
            print(f"{agent.name:9} {'ok ' if fine else 'BAD'} {text}")
            good = good and fine
    return 0 if good else 1


if __name__ == "__main__":
    if sys.argv[1:2] == ["--host"]:
        host_main(int(sys.argv[2]))
    else:
        sys.exit(main())
