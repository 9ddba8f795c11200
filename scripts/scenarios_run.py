#!/usr/bin/env python3
"""The scenarios of scripts/scenarios: scenarios_run.py ZENT [quick | list | NAME ...]. It is the first process of a
namespace of its own, so that each daemon becomes its child and nothing outlives it."""
import contextlib
import os
import random
import re
import resource
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

from segment import (AGENT_ADDRESS, AGENT_END, HOST_ADDRESS, HOST_END, LEAVE, REPORT, Frames, Peer, bad_frame, message,
                     run, wait_for)

LIMIT_S = 30  # for whatever must come; a plain capture alone may take 5 s
FEATURES = "exact,immediate,igmpv3"
GROUPS = [f"239.1.{n // 100}.{n % 100}" for n in range(500)]  # last octets below 128: the plain tables hide none
LINE = re.compile(rb"(JOIN|LEAVE) UDP://(\d+\.\d+\.\d+\.\d+)")


class Failure(Exception):
    """An outcome is not the one that is told."""


def check(condition, text):
    if not condition:
        raise Failure(text)


def read_bytes(path):
    """What stands in a file; nothing where there is none, or a device."""
    if not os.path.isfile(path):
        return b""
    try:
        with open(path, "rb") as file:
            return file.read()
    except (FileNotFoundError, ProcessLookupError):  # gone meanwhile
        return b""


def read_text(path):
    return read_bytes(path).decode(errors="replace")


def ended(pid):
    """How a child ended: its exit code, or the signal's number below zero."""
    deadline = time.monotonic() + LIMIT_S
    while time.monotonic() < deadline:
        with contextlib.suppress(ChildProcessError):  # a daemon whose parent, between its starter and it, still lives
            got, status = os.waitpid(pid, os.WNOHANG)
            if got == pid:
                return os.waitstatus_to_exitcode(status)
        time.sleep(0.005)
    raise Failure(f"process {pid} does not end: {read_text(f'/proc/{pid}/wchan')}")


def agents_alive():
    """Numbers of the agents that run in this namespace, dead ones left out."""
    alive = []
    for entry in filter(str.isdigit, os.listdir("/proc")):
        stat = read_text(f"/proc/{entry}/stat")
        if " (zent) " in stat and stat.rpartition(")")[2].split()[0] != "Z":
            alive.append(int(entry))
    return alive


def reap():
    """Takes leave of daemons that have ended."""
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0] != 0:
            pass


class Segment:
    """The veth pair, laid anew for each scenario, and the wire to send frames on."""

    def __init__(self, peer, folder):
        self.peer, self.folder = peer, folder
        peer.join_segment()
        self.wire = peer.open_link()
        self.kept = []

    def path(self, name):
        return os.path.join(self.folder, name)

    def send(self, *frames):
        Frames(frames).send(self.wire)

    def join(self, *groups):
        self.send(*[message(REPORT, group) for group in groups])

    def leave(self, *groups):
        self.send(*[message(LEAVE, group) for group in groups])

    def host(self, *command):
        run(*self.peer.inside(*command))

    def agent(self, *options, **settings):
        agent = Agent(self, *options, **settings)
        self.kept.append(agent)
        return agent

    def close(self):
        for agent in self.kept:
            agent.kill()
        for pid in agents_alive():
            os.kill(pid, signal.SIGKILL)
        self.wire.close()
        subprocess.run(["ip", "link", "del", AGENT_END], stderr=subprocess.DEVNULL, check=False)
        reap()


class Agent:
    """The agent in the foreground: its lines go to a file, its log to another one."""
    number = 0

    def __init__(self, segment, *options, features=FEATURES, out=None, log=None, level="info", before=None, env=(),
                 ready=True):
        Agent.number += 1
        self.segment = segment
        self.out = out or segment.path(f"out{Agent.number}")
        self.log = log or segment.path(f"log{Agent.number}")
        self.err = segment.path(f"err{Agent.number}")
        with open(self.out, "ab") as out_file, open(self.err, "wb") as err_file:
            self.process = subprocess.Popen([ZENT, "-T", "-i", AGENT_END, "-g", "239.0.0.0", "-l", self.log, "-L", level,
                                             *options], stdin=subprocess.DEVNULL, stdout=out_file, stderr=err_file,
                                            preexec_fn=before, env=os.environ | {"ZENT_FEATURES": features} | dict(env))
        self.pid = self.process.pid
        if ready:
            self.wait_log("is running as")

    def wait_log(self, text):
        def is_there():
            check(text in self.log_text() or self.process.poll() is None,
                  f"the agent ended with {self.process.poll()}: {self.log_text()}{read_text(self.err)}")
            return text in self.log_text()
        self.until(is_there, f"[{text}] in the log")

    def until(self, condition, what):
        deadline = time.monotonic() + LIMIT_S
        while not condition():
            check(self.process.poll() is None or condition(), f"no {what}, the agent has ended: {self.log_text()[-300:]}")
            check(time.monotonic() < deadline, f"no {what}; the log ends with {self.log_text()[-300:]!r}")
            time.sleep(0.01)

    def log_text(self):
        return read_text(self.log)

    def has(self, line):
        return f"{line}\n".encode() in read_bytes(self.out)

    def sees(self, group):
        """A fresh join of a group comes through."""
        self.segment.join(group)
        self.until(lambda: self.has(f"JOIN UDP://{group}"), f"JOIN of {group}")

    def ends(self, code=0, signo=signal.SIGTERM):
        """Stops it, or with no signal waits for its own end."""
        if signo:
            self.process.send_signal(signo)
        try:
            got = self.process.wait(LIMIT_S)
        except subprocess.TimeoutExpired:
            raise Failure("the agent does not end") from None
        check(got == code, f"the agent ended with {got}, not {code}: {self.log_text()[-300:]}{read_text(self.err)[-300:]}")

    def memory_kb(self):
        return int(re.search(r"VmHWM:\s+(\d+)", read_text(f"/proc/{self.pid}/status")).group(1))

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()


def start_daemon(segment, *options, log="log", pid="pid", code=0, features=FEATURES):
    """Starts a daemon; its starter sees the code."""
    done = subprocess.run([ZENT, "-i", AGENT_END, "-g", "239.0.0.0", "-l", segment.path(log), "-p", segment.path(pid),
                           "-L", "info", *options], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, env=os.environ | {"ZENT_FEATURES": features}, check=False)
    check(done.returncode == code, f"the starter of a daemon saw {done.returncode}")


def daemon_pid(segment, log="log", pid="pid"):
    """The number of the daemon that holds the pid file, once it runs."""
    def runs():  # a log and a pid file may be those of a daemon that was killed
        number = read_text(segment.path(pid))
        return f"is running as UID=0, pid={number}\n" in read_text(segment.path(log)) and int(number) in agents_alive()
    wait_until(runs, "a daemon that runs")
    return int(read_text(segment.path(pid)))


def wait_until(condition, what):
    deadline = time.monotonic() + LIMIT_S
    while not condition():
        check(time.monotonic() < deadline, f"gave up waiting for {what}")
        time.sleep(0.01)


def whole_lines(data):
    """The lines of an output, each of them whole, joins and leaves of a group by turns; gives their number."""
    check(not data or data.endswith(b"\n"), f"the output ends within a line: {data[-40:]!r}")
    joined = set()
    rows = data.splitlines()
    for row in rows:
        match = LINE.fullmatch(row)
        check(match is not None, f"not a line: {row[:80]!r}")
        word, group = match.groups()
        check((word == b"JOIN") == (group not in joined), f"{row!r} comes out of turn")
        joined ^= {group}
    return len(rows)


def changes(rounds):
    """Rounds of changes: each group is joined, then each is left."""
    return [message(kind, group) for kind in (REPORT, LEAVE) for group in GROUPS] * rounds


# ---- the scenarios: each gives a text with its figures ---------------------------------------------------------------

SCENARIOS = {}


def scenario(function):
    SCENARIOS[function.__name__] = function
    return function


@scenario
def flood_of_a_million_frames(segment, quick):
    """Changes as fast as they go, and one bad frame in ten: both kinds of agent stay in their memory (40 MB), print whole
    lines, joins and leaves by turns, and see the next join."""
    count = 100_000 if quick else 1_000_000
    chance = random.Random(1)
    agents = [segment.agent(features=words) for words in ("", FEATURES)]
    row = changes(10)
    row = Frames([frame for n, change in enumerate(row) for frame in
                  ([change, bad_frame(chance)] if n % 9 == 8 else [change])])
    rounds = range(0, count, row.count)
    for _ in rounds:
        row.send(segment.wire)
    texts = []
    for agent in agents:
        # The buffer may be full still: a host reports more than once.
        agent.until(lambda: segment.join("239.2.1.1") or agent.has("JOIN UDP://239.2.1.1"), "a line behind the flood")
        memory = agent.memory_kb()
        check(memory < 40_000, f"{memory} kB of memory")
        agent.ends()
        texts.append(f"{whole_lines(read_bytes(agent.out))} lines in {memory} kB")
    return f"{10 * 2 * len(GROUPS) * len(rounds)} changes: {', '.join(texts)}"


@scenario
def interface_down_and_up(segment, quick):
    """20 times: the agent goes on, plain or not, and sees a join after each."""
    agents = [segment.agent(features=words) for words in (["", FEATURES] if not quick else [FEATURES])]
    times = 3 if quick else 20
    for n in range(times):
        run("ip", "link", "set", AGENT_END, "down")
        run("ip", "link", "set", AGENT_END, "up")
        wait_for_carrier(segment)
        for agent in agents:
            agent.sees(f"239.2.1.{n}")
    for agent in agents:
        agent.ends()
    return f"{times} times"


@scenario
def carrier_lost_and_back(segment, quick):
    """The agent goes on without a word and sees a join once the carrier is back."""
    agent = segment.agent()
    segment.host("ip", "link", "set", HOST_END, "down")
    wait_until(lambda: "NO-CARRIER" in link_text(AGENT_END), "the loss of the carrier")
    segment.host("ip", "link", "set", HOST_END, "up")
    wait_for_carrier(segment)
    agent.sees("239.2.1.1")
    agent.ends()
    check("ERROR" not in agent.log_text(), agent.log_text())


def link_text(name, *inside):
    return subprocess.run([*inside, "ip", "link", "show", name], stdout=subprocess.PIPE, text=True, check=True).stdout


def wait_for_carrier(segment, name=AGENT_END):
    """Until both ends pass frames."""
    inside = segment.peer.inside()
    wait_until(lambda: "state UP" in link_text(name) and "state UP" in link_text(HOST_END, *inside), "the carrier")


@scenario
def address_taken_and_given(segment, quick):
    """A running agent needs the address no more; a start without it ends with 2 and says so; one with it runs."""
    agent = segment.agent()
    run("ip", "addr", "del", f"{AGENT_ADDRESS}/24", "dev", AGENT_END)
    agent.sees("239.2.1.1")
    refused = segment.agent(ready=False)
    refused.ends(2, None)
    check(f"Invalid interface name: {AGENT_END}" in read_text(refused.err), read_text(refused.err))
    run("ip", "addr", "add", f"{AGENT_ADDRESS}/24", "dev", AGENT_END)
    second = segment.agent()
    for watcher in (agent, second):
        watcher.sees("239.2.1.2")
        watcher.ends()


@scenario
def interface_renamed(segment, quick):
    """An agent that finds the old name gone while the interface is down ends with 2 and the reason; one that noticed the
    going down in time watches on, whatever the name is. The next start needs the new name."""
    agents = [segment.agent(features=words) for words in ("", FEATURES)]
    rename(segment, AGENT_END, "other0")
    try:
        segment.agent(ready=False).ends(2, None)
        segment.join("239.2.1.1")
        for agent in agents:
            wait_until(lambda: agent.process.poll() is not None or agent.has("JOIN UDP://239.2.1.1"), "an end or a line")
            if agent.process.poll() is not None:
                agent.ends(2, None)
                check("(ERR)  app_run: pcap_dispatch() ERROR: " in agent.log_text(), agent.log_text())
    finally:
        rename(segment, "other0", AGENT_END)
    return f"{sum(agent.process.poll() is None for agent in agents)} of {len(agents)} watch on"


def rename(segment, old, new):
    run("ip", "link", "set", old, "down")
    run("ip", "link", "set", old, "name", new)
    run("ip", "link", "set", new, "up")
    wait_for_carrier(segment, new)


@scenario
def interface_deleted(segment, quick):
    """The agent ends with 2 and the reason, plain or not, and a daemon removes its pid file."""
    agents = [segment.agent(features=words) for words in ("", FEATURES, "immediate,expire=10")]
    start_daemon(segment)
    pid = daemon_pid(segment)
    run("ip", "link", "del", AGENT_END)
    for agent in agents:
        agent.ends(2, None)
        check("(ERR)  app_run: pcap_dispatch() ERROR: " in agent.log_text(), agent.log_text())
    check(ended(pid) == 2, "the daemon did not end with 2")
    check(not os.path.exists(segment.path("pid")), "the pid file stayed")


@scenario
def interface_moved_to_another_namespace(segment, quick):
    """The same as a deletion: the agent ends with 2 and the reason."""
    agents = [segment.agent(features=words) for words in ("", FEATURES)]
    run("ip", "link", "set", AGENT_END, "netns", str(segment.peer.process.pid))
    try:
        for agent in agents:
            agent.ends(2, None)
            check("(ERR)  app_run: pcap_dispatch() ERROR: " in agent.log_text(), agent.log_text())
    finally:
        segment.host("ip", "link", "del", AGENT_END)


class Receiver:
    """Whoever takes the datagrams."""

    def __init__(self, address=(AGENT_ADDRESS, 0)):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(address)
        self.socket.settimeout(LIMIT_S)
        self.address = self.socket.getsockname()

    def takes(self, line):
        got = self.socket.recv(256)
        check(got == f"{line}\n".encode(), f"{got!r} came in place of {line}")

    def close(self):
        self.socket.close()


def told(agent):
    """How many lines were sent, by the log, and how many were not."""
    text = agent.log_text()
    return text.count(" bytes sent: "), text.count("failed to relay: ")


@scenario
def receiver_gone_and_back(segment, quick):
    """Lines to a port where nobody listens are lost without a word; the next one arrives when the receiver is back."""
    receiver = Receiver()
    agent = segment.agent("-R", "%s:%d" % receiver.address)
    segment.join("239.2.1.1")
    receiver.takes("JOIN UDP://239.2.1.1")
    receiver.close()
    segment.join(*[f"239.2.2.{n}" for n in range(50)])
    agent.until(lambda: sum(told(agent)) == 51, "word of 51 lines")
    receiver = Receiver(receiver.address)
    segment.leave("239.2.2.1")
    receiver.takes("LEAVE UDP://239.2.2.1")
    receiver.close()
    agent.ends()


@scenario
def route_gone_and_back(segment, quick):
    """Each line without a route is told as failed and lost, its group stays joined; the next one arrives."""
    run("ip", "addr", "add", "10.8.0.1/32", "dev", "lo")  # the segment's own address makes no route of its own
    receiver = Receiver(("10.8.0.1", 0))
    agent = segment.agent("-R", "%s:%d" % receiver.address)
    segment.join("239.2.1.1")
    receiver.takes("JOIN UDP://239.2.1.1")
    run("ip", "addr", "del", "10.8.0.1/32", "dev", "lo")
    run("ip", "route", "add", "unreachable", "10.8.0.1/32")
    segment.join("239.2.1.2")
    agent.wait_log("failed to relay: JOIN UDP://239.2.1.2")
    run("ip", "route", "del", "unreachable", "10.8.0.1/32")
    run("ip", "addr", "add", "10.8.0.1/32", "dev", "lo")
    segment.join("239.2.1.2")
    segment.leave("239.2.1.2")
    receiver.takes("LEAVE UDP://239.2.1.2")
    receiver.close()
    agent.ends()
    run("ip", "addr", "del", "10.8.0.1/32", "dev", "lo")
    return re.search(r"ERROR\(\d+\): .*", agent.log_text()).group()


@scenario
def socket_buffer_full(segment, quick):
    """Datagrams that wait for a neighbour which does not answer fill the buffer: the lines that find no room are told as
    failed and lost, the agent does not wait, and a later line is sent."""
    with open(f"/proc/sys/net/ipv4/neigh/{AGENT_END}/unres_qlen_bytes", "w") as setting:
        setting.write("100000000")
    agent = segment.agent("-R", "10.9.0.77:4554")
    groups = [f"239.2.{n // 100}.{n % 100}" for n in range(1000)]
    start = time.monotonic()
    segment.join(*groups)
    agent.until(lambda: sum(told(agent)) == 1000, "word of 1000 lines")
    spent = time.monotonic() - start
    sent, failed = told(agent)
    check(failed > 0 and "ERROR(11)" in agent.log_text(), "the buffer took everything")
    check(spent < 2.5, f"the lines took {spent:.1f} s, as long as the neighbour was asked for")
    def goes_again():
        segment.leave(groups[0])
        segment.join(groups[0])
        return told(agent)[0] > sent
    wait_until(goes_again, "a line that is sent again")
    agent.ends()
    return f"{sent} sent, {failed} told as failed, in {spent:.2f} s"


@contextlib.contextmanager
def small_disk(segment, *options):
    """A file system of 64 KiB."""
    place = segment.path("disk")
    os.makedirs(place, exist_ok=True)
    run("mount", "-t", "tmpfs", "-o", ",".join(["size=64k", *options]), "none", place)
    try:
        yield place
    finally:
        run("umount", "-l", place)


@scenario
def disk_full_under_the_lines(segment, quick):
    """Lines that find no room are lost in silence, and so is what was left of one; with room again the next ones come."""
    with small_disk(segment) as disk:
        agents = [segment.agent(features=words, out=f"{disk}/out{n}") for n, words in enumerate(["", FEATURES])]
        segment.send(*changes(4))
        for agent in agents:
            agent.until(lambda: agent.log_text().count("bytes output") == 4000, "word of 4000 lines")
        check(os.statvfs(disk).f_bavail == 0, "the disk is not full")
        for agent in agents:
            os.truncate(agent.out, 0)
        for agent in agents:
            agent.sees("239.2.1.1")
            agent.ends()


@scenario
def dev_full_under_the_lines(segment, quick):
    """Nothing can be written, nothing else happens: exit code 0."""
    agents = [segment.agent(features=words, out="/dev/full", level="norm", ready=False) for words in ("", FEATURES)]
    for agent in agents:
        agent.until(lambda: segment.send(*changes(1)) or agent.log_text().count("bytes output") >= 1000, "1000 lines")
        agent.ends()


@scenario
def disk_full_under_the_log(segment, quick):
    """The log is cut, the lines come; so with /dev/full as the log."""
    with small_disk(segment) as disk:
        for words in ("", FEATURES):
            agent = segment.agent(features=words, log=f"{disk}/log", level="info")
            with open(f"{disk}/filler", "wb", buffering=0) as filler, contextlib.suppress(OSError):
                while True:
                    filler.write(bytes(4096))
            segment.send(*[bad_frame(random.Random(n)) for n in range(200)])
            agent.sees("239.2.1.1")
            agent.ends()
            os.unlink(f"{disk}/filler")
            os.unlink(f"{disk}/log")
    agent = segment.agent(log="/dev/full", ready=False)
    wait_until(lambda: segment.join("239.2.1.1") or agent.has("JOIN UDP://239.2.1.1"), "a line")
    agent.ends()


@scenario
def disk_full_under_the_pid_file(segment, quick):
    """A daemon that cannot write its number ends with 2, and the log says why."""
    with small_disk(segment) as disk:
        with open(f"{disk}/filler", "wb", buffering=0) as filler, contextlib.suppress(OSError):
            while True:
                filler.write(bytes(4096))
        start_daemon(segment, pid="disk/pid")
        return fails(segment, "create_pidfile_extra: ")


def fails(segment, word, log="log"):
    """The daemon that was started ends with 2, and the last error of its log has a word in it."""
    wait_until(lambda: "exiting with rc=" in read_text(segment.path(log)), "the end of the daemon")
    wait_until(lambda: not agents_alive(), "the end of the daemon")
    reap()
    text = read_text(segment.path(log))
    check("exiting with rc=2" in text, text)
    errors = [line for line in text.splitlines() if "(ERR)" in line]
    check(any(word in line for line in errors), text)
    return re.sub(r".*\(ERR\)  ", "", errors[0])


@scenario
def disk_read_only(segment, quick):
    """No log, no start: exit code 2 and the reason on stderr; no pid file, no daemon: the log says why."""
    with small_disk(segment) as disk:
        run("mount", "-o", "remount,ro", disk)
        refused = segment.agent(log=f"{disk}/log", ready=False)
        refused.ends(2, None)
        check("Read-only file system" in read_text(refused.err), read_text(refused.err))
        start_daemon(segment, pid="disk/pid")
        return fails(segment, "create_pidfile_extra: ")


@scenario
def log_path_is_a_link_or_a_directory(segment, quick):
    """A link is followed, a directory refused with 2 and the reason on stderr."""
    os.symlink("target", segment.path("link"))
    agent = segment.agent(log=segment.path("link"))
    agent.ends()
    check(os.path.islink(segment.path("link")) and "exiting with rc=0" in read_text(segment.path("target")),
          "the log is not behind the link")
    os.mkdir(segment.path("folder"))
    refused = segment.agent(log=segment.path("folder"), ready=False)
    refused.ends(2, None)
    check("Is a directory" in read_text(refused.err), read_text(refused.err))


@scenario
def pid_path_is_a_link_or_a_directory(segment, quick):
    """A link is followed and itself removed at the end; a directory is refused with 2 and stays."""
    os.symlink("target", segment.path("pid"))
    start_daemon(segment)
    pid = daemon_pid(segment)
    check(int(read_text(segment.path("target"))) == pid, "the number is not behind the link")
    os.kill(pid, signal.SIGTERM)
    check(ended(pid) == 0, "the daemon did not end with 0")
    check(not os.path.lexists(segment.path("pid")) and os.path.exists(segment.path("target")), "what is removed")
    os.mkdir(segment.path("folder"))
    start_daemon(segment, log="log2", pid="folder")
    text = fails(segment, "create_pidfile_extra: ", "log2")
    check(os.path.isdir(segment.path("folder")), "the directory is gone")
    return text


@scenario
def starts_at_once_on_one_pid_file(segment, quick):
    """50 daemons: at least one runs; each of the others finds the lock and ends with 2; a file that a loser removed may
    let another one in. All that run end with 0 at SIGTERM, and no process is left."""
    count = 10 if quick else 50
    for n in range(count):
        subprocess.Popen([ZENT, "-i", AGENT_END, "-g", "239.0.0.0", "-l", segment.path(f"log.{n}"), "-p",
                          segment.path("pid"), "-L", "info"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                         stderr=subprocess.DEVNULL)
    logs = [segment.path(f"log.{n}") for n in range(count)]
    wait_until(lambda: all("is running as" in read_text(log) or "exiting with rc=2" in read_text(log) for log in logs),
               "each start")
    runs = [log for log in logs if "is running as" in read_text(log)]
    check(runs, "none runs")
    for log in set(logs) - set(runs):
        check("is locked (another instance" in read_text(log), read_text(log))
    wait_until(lambda: len(agents_alive()) == len(runs), "the end of the others")
    for pid in agents_alive():
        os.kill(pid, signal.SIGTERM)
    wait_until(lambda: not agents_alive(), "the end of all")
    reap()
    for log in runs:
        check("exiting with rc=0" in read_text(log), read_text(log))
    check(not os.path.exists(segment.path("pid")), "the pid file stayed")
    return f"{len(runs)} of {count} run"


@scenario
def killed_at_random_moments(segment, quick):
    """kill -9: what an agent in the foreground wrote are whole lines; the next daemon takes over pid file and log of the
    one before, and at the end a daemon runs and stops as ever."""
    chance = random.Random(9)
    count = 20 if quick else 200
    row, lines = Frames(changes(1)), 0
    for n in range(count // 2):
        agent = segment.agent(ready=False, features=FEATURES if n % 2 else "")
        end = time.monotonic() + chance.uniform(0, 0.1)
        while time.monotonic() < end:
            row.send(segment.wire)
        agent.ends(-signal.SIGKILL, signal.SIGKILL)
        lines += read_bytes(agent.out).count(b"\n")
        whole_lines(read_bytes(agent.out))
    for n in range(count - count // 2):
        starter = subprocess.Popen([ZENT, "-i", AGENT_END, "-g", "239.0.0.0", "-l", segment.path("log"), "-p",
                                    segment.path("pid")], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        time.sleep(chance.uniform(0, 0.1))
        while agents_alive():
            for pid in agents_alive():
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
        starter.wait()
        reap()
    start_daemon(segment)
    pid = daemon_pid(segment)
    os.kill(pid, signal.SIGTERM)
    check(ended(pid) == 0 and not os.path.exists(segment.path("pid")), "the last one did not end as ever")
    return f"{count} times, {lines} lines"


class Foreground:
    """An agent that is stopped at any moment of its life."""
    number = 0
    daemons_hit = 0

    def __init__(self, segment, out, features, *options):
        Foreground.number += 1
        self.log = segment.path(f"log.{Foreground.number}")
        self.process = subprocess.Popen([ZENT, "-i", AGENT_END, "-g", "239.0.0.0", "-l", self.log, "-L", "info",
                                         *(options or ["-T"])], stdin=subprocess.DEVNULL, stdout=out,
                                        stderr=subprocess.DEVNULL, env=os.environ | {"ZENT_FEATURES": features})

    def hit(self):
        self.process.send_signal(signal.SIGTERM)

    def hit_rest(self):
        pass

    def ended_with(self):
        """None as long as it lives, and then how it ended, which must be one of the ways to do so."""
        code = self.process.poll()
        if code is not None:
            check(code in (0, -signal.SIGTERM), f"an agent ended with {code}")
            check(code == 0 or "is running as" not in read_text(self.log), "the signal ended an agent that ran")
            with contextlib.suppress(FileNotFoundError):
                os.unlink(self.log)
        return code


class Background(Foreground):
    """The same with a daemon: whatever lives of it at that moment, its starter or itself, is hit."""

    def __init__(self, segment, out, features):
        self.pid_file = segment.path("daemon.pid")
        super().__init__(segment, out, features, "-p", self.pid_file, "-R", f"{AGENT_ADDRESS}:9")
        self.known = set()  # those that have had the signal

    def alive(self):
        word = f"\0{self.pid_file}\0".encode()
        return [pid for pid in agents_alive() if word in read_bytes(f"/proc/{pid}/cmdline")]

    def hit(self):
        self.hit_all(self.alive())

    def hit_rest(self):
        self.hit_all(set(self.alive()) - self.known)

    def hit_all(self, pids):
        for pid in pids:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGTERM)
                self.daemons_hit += pid != self.process.pid and pid not in self.known
                self.known.add(pid)

    def ended_with(self):
        if self.process.poll() is None or self.alive():
            return None
        take_orphans()
        if self.alive():  # one that was made while the first look was under way
            return None
        check(not os.path.exists(self.pid_file), "the pid file stayed")
        return super().ended_with()


def take_orphans():
    """Daemons that have ended are children of this process, the first of its namespace; they have handlers from their
    birth on. Those that subprocess has started are its own matter, and in the group of this process."""
    for entry in filter(str.isdigit, os.listdir("/proc")):
        stat = read_text(f"/proc/{entry}/stat")
        state, parent, group = (stat.rpartition(")")[2].split() or ["", 0, 0])[:3]
        if " (zent) " in stat and state == "Z" and int(parent) == os.getpid() and int(group) != os.getpgrp():
            code = os.waitstatus_to_exitcode(os.waitpid(int(entry), 0)[1])
            check(code == 0, f"daemon {entry} ended with {code}")


@scenario
def sigterm_at_random_moments(segment, quick):
    """From exec to exit, one of five a daemon, from the start of its starter: exit code 0, or the signal itself before
    there is a handler; one signal or two; nothing hangs, no other end, no line in part, no pid file, no process left."""
    chance = random.Random(15)
    count, at_once = (200, 4) if quick else (10_000, 4)
    started = time.monotonic()
    for _ in range(5):
        segment.agent().ends()
    usual = (time.monotonic() - started) / 5
    row, ends, daemons, daemons_hit = Frames(changes(1)), {0: 0, -signal.SIGTERM: 0}, 0, 0
    out = segment.path("out")
    running, begun, done = [], 0, 0
    with open(out, "ab") as file:
        while done < count:
            while len(running) < at_once and begun < count:
                # One after the other: what ends without a parent must be of the only daemon.
                is_daemon = 5 * daemons <= begun and not any(isinstance(one, Background) for one, *_ in running)
                features = chance.choice(["", FEATURES, "exact,immediate,igmpv3,expire=10"])
                one = (Background if is_daemon else Foreground)(segment, file, features)
                now = time.monotonic()
                moments = sorted(now + chance.uniform(0, 1.5 * usual * at_once) for _ in range(chance.choice([1, 2])))
                running.append((one, moments, now + LIMIT_S))
                begun, daemons = begun + 1, daemons + is_daemon
            if done % 16 == 0:
                row.send(segment.wire)
            for each in list(running):
                one, moments, limit = each
                if moments and time.monotonic() >= moments[0]:
                    moments.pop(0)
                    one.hit()
                elif not moments:
                    one.hit_rest()
                code = one.ended_with()
                if code is not None:
                    ends[code] += 1
                    done += 1
                    running.remove(each)
                    daemons_hit += one.daemons_hit > 0
                check(time.monotonic() < limit, f"an agent does not end: {read_text(f'/proc/{one.process.pid}/wchan')}")
            time.sleep(0.0005)
    wait_until(lambda: not agents_alive(), "the end of all")
    take_orphans()
    for line in read_bytes(out).splitlines():
        check(LINE.fullmatch(line), f"not a line: {line[:80]!r}")
    return (f"{done} times: {ends[0]} ends with 0, {ends[-signal.SIGTERM]} by the signal, {daemons_hit} of {daemons} "
            f"daemons hit themselves, start to stop {usual * 1000:.0f} ms")


@scenario
def storm_of_signals(segment, quick):
    """SIGALRM (the tick of expire), each sent when the one before has arrived, 1,000 a second and more where the machine
    has no other work, while lines flow into a pipe whose reader is slow: no line is lost or cut."""
    rounds = 10 if quick else 50
    reading, writing = os.pipe()
    with open(segment.path("out"), "wb") as out:
        reader = subprocess.Popen([sys.executable, "-c", SLOW_READER], stdin=reading, stdout=out)
    agent = segment.agent(features=FEATURES + ",expire=86400", out=f"/proc/self/fd/{writing}")
    os.close(reading)
    os.close(writing)
    wait_until(lambda: has_signal(agent.pid, "SigCgt"), "a handler of SIGALRM")
    row, arrived, start, load = changes(1), 0, time.monotonic(), os.getloadavg()[0]
    for _ in range(rounds):
        for first in range(0, len(row), 20):
            Frames(row[first:first + 20]).send(segment.wire)
            for _ in range(SIGNALS):
                agent.process.send_signal(signal.SIGALRM)
                deadline = time.monotonic() + LIMIT_S
                while has_signal(agent.pid, "ShdPnd"):
                    check(time.monotonic() < deadline, "a signal does not arrive")
                arrived += 1
                time.sleep(0.0001)
    rate = arrived / (time.monotonic() - start)
    wait_until(lambda: read_bytes(segment.path("out")).count(b"\n") >= rounds * len(row), "all lines")
    agent.ends()
    reader.wait()
    count = whole_lines(read_bytes(segment.path("out")))
    check(count == rounds * len(row), f"{count} lines of {rounds * len(row)}")
    check(rate >= 1000 or load > IDLE_LOAD, f"{rate:.0f} signals a second at a load of {load:.1f}")
    return f"{count} lines, {arrived} signals, {rate:.0f} a second at a load of {load:.1f}"


SIGNALS = 4  # for each 20 lines
IDLE_LOAD = 0.5


def has_signal(pid, mask):
    """Whether SIGALRM is in a mask of a process: of those that are caught, or that wait to be."""
    found = re.search(mask + r":\s+([0-9a-f]+)", read_text(f"/proc/{pid}/status"))
    check(found is not None, "the agent has ended")
    return int(found.group(1), 16) >> (signal.SIGALRM - 1) & 1 == 1


SLOW_READER = """
import os, time
while part := os.read(0, 512):
    os.write(1, part)
    time.sleep(0.001)
"""


def limited(which, value):
    def set_limit():
        resource.setrlimit(which, (value, value))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    return set_limit


def with_limit(segment, which, value):
    """What an agent with a limit does: "runs" where it sees a join and ends with 0, or its exit code with a reason."""
    agent = segment.agent(before=limited(which, value), ready=False)
    wait_until(lambda: agent.process.poll() is not None or "is running as" in agent.log_text(), "a start or an end")
    if agent.process.poll() is None:
        agent.sees("239.2.1.1")
        agent.ends()
        return "runs"
    check(read_text(agent.err) or agent.log_text(), f"no reason at limit {value}")
    return agent.process.poll()


def steps(outcome, values, allowed):
    """From one of the values on it "runs"; with all that are less it ends in one of the allowed ways."""
    found = []
    for value in values:
        result = outcome(value)
        check(result == "runs" or result in allowed, f"{result} at limit {value}")
        found.append(result)
    at = found.index("runs") if "runs" in found else len(found)
    check("runs" in found and all(result == "runs" for result in found[at:]), f"{found}")
    return f"runs from {values[at]} on, below that ends with {sorted(set(found[:at]))}"


@scenario
def descriptors_limited(segment, quick):
    """From 3 on, one more each time: too few end the start with 2 or by the loader's 127, and say why; enough run."""
    return steps(lambda value: with_limit(segment, resource.RLIMIT_NOFILE, value), range(3, 17), (2, 127))


@scenario
def address_space_limited(segment, quick):
    """In steps: too little ends the start with 2, 12 or by the loader's 127, and says why; enough runs."""
    sizes = [n << 20 for n in ([4, 16, 64, 256] if quick else range(2, 65, 1))]
    return steps(lambda value: with_limit(segment, resource.RLIMIT_AS, value), sizes, (2, 12, 127))


@scenario
def file_size_limited(segment, quick):
    """In steps: a line that reaches beyond the limit ends the agent by SIGXFSZ, for which it has no handler, and what lies
    below the limit is there to the last byte; where all lines fit in it runs. So with the log."""
    lines = b"".join(b"%s UDP://%s\n" % (word, group.encode()) for word in (b"JOIN", b"LEAVE") for group in GROUPS)
    few, all_ = [8192, len(lines)], [0, 1, 19, 20, 21, 4095, 4096, 4097, 8192, len(lines) - 1, len(lines), len(lines) + 1]
    texts = [steps(lambda value: with_room(segment, features, value, lines), values, (-signal.SIGXFSZ,))
             for features, values in ([(FEATURES, few)] if quick else [(FEATURES, all_), ("", few)])]

    def log_with_room(value):
        agent = segment.agent(before=limited(resource.RLIMIT_FSIZE, value), ready=False)
        wait_until(lambda: agent.process.poll() is not None or "is running as" in agent.log_text(), "a start or an end")
        if agent.process.poll() is None:
            agent.ends()
            return "runs"
        check(len(agent.log_text()) == value, f"{len(agent.log_text())} bytes of the log at limit {value}")
        return agent.process.poll()

    return "; ".join([*texts, "the log: " + steps(log_with_room, [0, 10, 65536], (-signal.SIGXFSZ,))])


def with_room(segment, features, value, lines):
    """What an agent does that may write so many bytes more when it runs."""
    agent = segment.agent(features=features, log="/dev/null", ready=False)
    agent.until(lambda: segment.join("239.2.1.1") or agent.has("JOIN UDP://239.2.1.1"), "the first line")
    begun = len(read_bytes(agent.out))
    resource.prlimit(agent.pid, resource.RLIMIT_FSIZE, (begun + value, begun + value))
    segment.send(*changes(1))
    wait_until(lambda: agent.process.poll() is not None or len(read_bytes(agent.out)) == begun + len(lines),
               "the end, or all lines")
    if value >= len(lines):
        agent.ends()
    got = read_bytes(agent.out)[begun:]
    check(got == lines[:value], f"{len(got)} bytes at limit {value}, {got[-40:]!r} at the end")
    return agent.process.wait(LIMIT_S) or "runs"


CLOCK = """
#define _GNU_SOURCE
#include <stdlib.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <time.h>
#include <sys/time.h>
#include <unistd.h>
static long shift(void)
{
    long seconds = 0;
    FILE* from = fopen(getenv("CLOCK_SHIFT"), "r");
    if (from != NULL) {
        if (fscanf(from, "%ld", &seconds) != 1) {
            seconds = 0;
        }
        fclose(from);
    }
    return seconds;
}
int clock_gettime(clockid_t id, struct timespec* now)
{
    int rc = (int)syscall(SYS_clock_gettime, id, now);
    if (rc == 0 && (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE)) {
        now->tv_sec += shift();
    }
    return rc;
}
time_t time(time_t* out)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != NULL) {
        *out = now.tv_sec;
    }
    return now.tv_sec;
}
int gettimeofday(struct timeval* restrict now, void* restrict zone)
{
    struct timespec exact;
    (void)zone;
    clock_gettime(CLOCK_REALTIME, &exact);
    now->tv_sec = exact.tv_sec;
    now->tv_usec = exact.tv_nsec / 1000;
    return 0;
}
"""


@scenario
def clock_set(segment, quick):
    """The wall clock goes back a day, forward a day, beyond 2038: lines come as before, the log has the new time."""
    source, library, shift = (segment.path(name) for name in ("clock.c", "clock.so", "shift"))
    with open(source, "w") as out:
        out.write(CLOCK)
    run("cc", "-O1", "-shared", "-fPIC", "-o", library, source)

    def set_clock(seconds):
        with open(shift + ".new", "w") as out:
            out.write(str(seconds))
        os.rename(shift + ".new", shift)

    set_clock(0)
    agent = segment.agent(features=FEATURES + ",expire=86400", level="info",
                          env={"LD_PRELOAD": library, "CLOCK_SHIFT": shift, "TZ": "UTC"})
    def day(seconds):
        return time.strftime("%Y-%m-%d ", time.gmtime(time.time() + seconds))

    days = []
    for n, seconds in enumerate([-86400, 86400, 20 * 365 * 86400, -40 * 365 * 86400, 0]):
        set_clock(seconds)
        agent.sees(f"239.2.1.{n}")
        broken = message(0x22, "224.0.0.22")[:-2]  # told at warn

        def has_line(seconds=seconds):
            segment.send(broken)
            return agent.log_text().splitlines()[-1].startswith(day(seconds))

        agent.until(has_line, f"a line of {day(seconds)}")
        days.append(day(seconds))
    agent.ends()
    return ", ".join(text.strip() for text in days)


@scenario
def monotonic_clock_far_on(segment, quick):
    """In a time namespace whose monotonic clock is 40 years on: expiry and lines as ever."""
    out, ahead = segment.path("out"), 40 * 365 * 86400
    with open(out, "wb") as file:
        outside = subprocess.Popen(["unshare", "-T", "--monotonic", str(ahead), "--fork", "--kill-child", ZENT, "-T", "-i",
                                    AGENT_END, "-g", "239.0.0.0", "-l", "/dev/null"], stdout=file,
                                   stderr=subprocess.DEVNULL, env=os.environ | {"ZENT_FEATURES": FEATURES + ",expire=10"})
    query = message(0x11, "224.0.0.1")[:-4] + bytes(4)
    wait_until(lambda: segment.join("239.2.1.1") or b"JOIN UDP://239.2.1.1\n" in read_bytes(out), "the join")
    pid, = agents_alive()
    check(os.readlink(f"/proc/{pid}/ns/time") != os.readlink("/proc/self/ns/time"), "the agent has the usual clock")
    offset = re.search(r"monotonic\s+(-?\d+)", read_text(f"/proc/{pid}/timens_offsets"))
    check(offset and int(offset.group(1)) == ahead, f"the agent's clock: {offset and offset.group()}")
    if not quick:
        wait_until(lambda: segment.send(query) or b"LEAVE UDP://239.2.1.1\n" in read_bytes(out), "the leave")
    os.kill(pid, signal.SIGTERM)
    check(outside.wait(LIMIT_S) == 0, f"the agent ended with {outside.returncode}")


@contextlib.contextmanager
def private_dev(segment):
    """A /dev of our own, for a /dev/log of our own."""
    place = segment.path("dev")
    os.mkdir(place)
    run("mount", "-t", "tmpfs", "none", place)
    for name in ("null", "zero", "full", "random", "urandom"):
        open(f"{place}/{name}", "w").close()
        run("mount", "--bind", f"/dev/{name}", f"{place}/{name}")
    run("mount", "--move", place, "/dev")
    try:
        yield
    finally:
        run("umount", "-l", "/dev")


@scenario
def syslog_stalled(segment, quick):
    """A syslog that takes nothing holds a daemon up at the lines of warn and above that go there, and at nothing else;
    when it takes again all goes on, and SIGTERM ends it with 0."""
    with private_dev(segment):
        syslog = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        syslog.bind("/dev/log")
        receiver = Receiver()
        start_daemon(segment, "-R", "%s:%d" % receiver.address)
        pid = daemon_pid(segment)
        segment.join("239.2.1.1")
        receiver.takes("JOIN UDP://239.2.1.1")
        broken = message(0x22, "224.0.0.22")[:-2]
        segment.send(*[broken] * 2000)
        wait_until(lambda: "unix" in read_text(f"/proc/{pid}/wchan") or "sock" in read_text(f"/proc/{pid}/wchan"),
                   "a daemon that waits for syslog")
        segment.join("239.2.1.2")
        syslog.setblocking(False)
        taken = 0
        receiver.socket.settimeout(0.01)
        deadline = time.monotonic() + LIMIT_S
        while time.monotonic() < deadline:
            with contextlib.suppress(BlockingIOError):
                while syslog.recv(4096):
                    taken += 1
            with contextlib.suppress(TimeoutError):
                receiver.takes("JOIN UDP://239.2.1.2")
                break
        check(time.monotonic() < deadline, "the line behind the stall does not come")
        os.kill(pid, signal.SIGTERM)
        check(ended(pid) == 0, "the daemon did not end with 0")
        syslog.close()
        receiver.close()
    return f"{taken} lines taken by syslog"


# ---- the run ---------------------------------------------------------------------------------------------------------

def run_one(name, peer, quick):
    """Whether a scenario ended as it must, which is told."""
    folder = tempfile.mkdtemp(prefix="zent-scenarios-")
    os.chmod(folder, 0o755)
    start = time.monotonic()
    segment = Segment(peer, folder)
    try:
        text, good = SCENARIOS[name](segment, quick) or "", True
    except (Failure, subprocess.CalledProcessError, OSError) as wrong:
        text, good = str(wrong), False
    finally:
        segment.close()
        shutil.rmtree(folder, ignore_errors=True)
    print(f"{'ok  ' if good else 'FAIL'} {name:40} {time.monotonic() - start:6.1f} s  {text}", flush=True)
    return good


def main():
    words = sys.argv[2:]
    if words == ["list"]:
        for name, function in SCENARIOS.items():
            print(f"{name}\n    {' '.join(function.__doc__.split())}")
        return 0
    quick = words[:1] == ["quick"]
    names = words[1 if quick else 0:] or list(SCENARIOS)
    unknown = [name for name in names if name not in SCENARIOS]
    if unknown:
        print(f"scenarios: no such scenario: {' '.join(unknown)}; \"list\" shows them", file=sys.stderr)
        return 2
    run("mount", "--make-rprivate", "/")
    peer = Peer("cat")
    try:
        good = [run_one(name, peer, quick) for name in names]
    finally:
        peer.close()
    print(f"scenarios: {sum(good)} of {len(good)} as told")
    return 0 if all(good) else 1


ZENT = os.path.abspath(sys.argv[1])
sys.exit(main())
