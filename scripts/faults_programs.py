"""The programs of scripts/faults: how each is started, what happens to it, and what a run may look like that had a
fault."""
import concurrent.futures
import http.server
import os
import re
import signal
import socket
import subprocess
import threading
import time

import segment
from segment import AGENT_END, Peer

GROUPS = ["239.1.1.1", "239.1.1.2", "239.1.1.3"]
LINES_LIMIT = 8  # the kernel hands packets over after 5 s
HEARD_LIMIT = 20  # for zentmon to have what it is told

HOST = """
import socket, struct, sys
members = None
for line in sys.stdin:
    if members:
        members.close()
    members = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    for group in line.split():
        members.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                           socket.inet_aton(group) + socket.inet_aton("10.9.0.2"))
    print("joined", flush=True)
"""


class Page(http.server.BaseHTTPRequestHandler):
    """What fetch fetches."""

    def do_GET(self):
        self.send_response(200)
        self.end_headers()
        self.wfile.write(b"page\n")

    def log_message(self, *words):
        pass


class World:
    """The segment: the programs on one end, on the other a kernel host that speaks IGMPv2."""

    def __init__(self):
        self.host = Peer("python3", "-c", HOST)
        self.host.join_segment()
        self.web = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Page)
        threading.Thread(target=self.web.serve_forever, daemon=True).start()
        subprocess.run(self.host.inside("sysctl", "-qw", "net.ipv4.conf.all.force_igmp_version=2"), check=True)

    def join(self):
        """The host leaves what it was in, and joins the groups."""
        self.host.process.stdin.write(" ".join(GROUPS) + "\n")
        self.host.process.stdin.flush()
        assert self.host.process.stdout.readline() == "joined\n"

    def close(self):
        self.web.shutdown()
        self.host.close()


# Endings that stand in the documents, or that cannot happen: kind, function of the failed call, program, complaint (each
# a regular expression), and the reason.
LISTED = [
    ("clock", ".*", ".*", "SIGABRT", "timeop.h: a clock that fails ends the process; CLOCK_MONOTONIC cannot"),
    ("rlimit", ".*", ".*", "SIGABRT: getrusage", "rusage_ops.h ends the process as well; no valid call fails"),
    ("alloc", "xvec_reserve|xvlst_reserve|xvec_expand|hcreate", ".*", "SIGABRT",
     "rqs.h: exhausted memory for the lists of the loop ends the process"),
    ("alloc", "W_calloc", "file_server|recorder", "SIGABRT", "fdio.h: new_transfer_spec without memory ends the process"),
    ("alloc", "usock_open", ".*", "SIGABRT", "wopen.h: memory for a copy of the path"),
    ("setuid", "run_as_user_id", "agent.*", "without a reason", "util.h: no line is logged"),
    ("sigaction", ".*", ".*", "SIGTERM|its pid file|ends with -?1", "sigaction fails for no signal that is used"),
    ("fgets", ".*", "agent.*", "goes on with", "an error while the list is read counts as its end"),
    ("fgets", ".*", "zentctl lint", "ends with 0",
     "the agent's loader reads a copy in memory here, whose read cannot fail"),
    ("epoll_ctl", "rqs_rm_fd", ".*", "does not end|SIGKILL", "the kernel refuses only what was never added"),
    ("wait", ".*", ".*", "ends with|ends by itself", "a wait that fails otherwise than by a signal ends the loop"),
    ("wait", ".*", "agent.*", "goes on with", "libpcap waits on where poll is interrupted, for ever if it always is"),
    ("print", "fflush|flush|app_run|take_packets", "agent.*", "goes on with",
     "lines that could not be written stay in the buffer of the standard output, for the next time"),
    ("write", "Bell::ring", "zentmon", "leaves /log open",
     "an eventfd takes each ring; unheard, the thread of the log keeps its file where the process ends"),
    ("wait", ".*", "zentmon", "leaves", "a thread that cannot be waited for is left as it is, with its files"),
    ("pcap_dispatch", ".*", "zentctl.*", "without a reason", "the reason would stand in libpcap's handle"),
    ("pcap_.*", ".*", ".*", "leaves anon_inode",
     "libpcap keeps its eventfd where a handle is closed that was never activated"),
    ("epoll_ctl|wait", ".*", "file_server", "leaves (/file|socket)", "what is open at its end ends with the process"),
    ("write|truncate|fcntl|alloc", ".*", "file_server|guide_daemon|recorder", "its pid file",
     "a pid file that could not be made may be another process's: it stays"),
]


def count_of_targets(ends):
    """Open descriptors by what they lead to, without the numbers of sockets and pipes."""
    found = {}
    for _, target in ends:
        name = target.split(":[")[0]
        found[name] = found.get(name, 0) + 1
    return found


class Program:
    """What is common: how a process may end, and what it may leave."""

    at_once = 100
    always_tidy = False
    statuses = ()        # exit codes of a start that failed
    lossy = ()           # kinds whose failure may lose what the program is there for
    silent = ()          # kinds that need not be told

    def __init__(self, name, binary):
        self.name, self.binary = name, os.path.abspath(binary)
        self.base = {}

    def environment(self, run):
        return {}

    def prepare(self, run):
        return None

    def settled(self, run):
        """It has ended, or waits for what comes."""
        alive = run.reap()
        return not alive or bool(run.report().waits.intersection(alive))

    def act(self, runs, wait):
        pass

    def learn(self, run):
        """The descriptors that are open at the end of a sound run."""
        for ends in run.report().ends.values():
            for target, count in count_of_targets(self.neutral(run, ends)).items():
                self.base[target] = max(count, self.base.get(target, 0))

    @staticmethod
    def neutral(run, ends):
        return [(fd, target.replace(run.folder, "")) for fd, target in ends if "/err" not in target and "/out" not in target]

    def main_process(self, run):
        return run.first

    def told(self, run):
        return run.text("err") + run.text("log")

    def has_own_hit(self, run):
        """Whether a call of the program itself has failed, not only calls of libraries. What "new" asks for is its own."""
        things = [os.path.basename(thing) for _, _, thing, _ in run.report().hits]
        return any(thing == os.path.basename(self.binary) or thing.startswith("libstdc++.so") for thing in things)

    def judge(self, run):
        found = [f"sanitizer: {' '.join(run.text(name).split()[:60])}" for name in os.listdir(run.folder)
                 if name.startswith("asan.")]
        if run.unsettled:
            found.append(f"neither runs nor ends: {sorted(run.report().waits)} of {run.processes()}")
        if run.stuck:
            found.append("does not end at SIGTERM")
        for pid, status in run.status.items():
            if status < 0:
                found.append(f"process {pid} is ended by {signal.Signals(-status).name}: {self.told(run)[-300:]}")
        if found:
            return found
        status = run.status.get(self.main_process(run))
        if run.lasted and status != 0 and not (run.report().hits and status in self.statuses):
            found.append(f"ends with {status} at SIGTERM: {self.told(run)[-300:]}")
        if not run.lasted and status not in self.statuses:
            found.append(f"ends by itself with {status}: {self.told(run)[-300:]}")
        if not run.lasted and status != 0 and not self.told(run) and run.fault.kind != "print":
            found.append(f"ends with {status} and without a word")
        elif not run.lasted and status != 0 and self.reason_missing(run):
            found.append(f"ends with {status} and without a reason: {self.told(run)[-300:]}")
        return found + self.left_open(run) + self.judge_own(run)

    def left_open(self, run):
        """An end that went wrong leaves to the kernel what it had; the agent takes down all that stands."""
        if not run.lasted and not self.always_tidy:
            return []
        report = run.report()
        return [f"leaves {target} open"
                for pid, ends in report.ends.items() if pid in report.ended and run.fault.kind not in ("none", "close")
                for target, count in count_of_targets(self.neutral(run, ends)).items()
                if count > self.base.get(target, 0)]

    def reason_missing(self, run):
        """Whether a failed call of the program's own ended it, and the reason is not told."""
        code, told = run.fault.code(), self.told(run)
        words = [f"ERROR({code})", os.strerror(abs(code)), "FAILED", "ailed", "error", "memory", "bad_alloc", "refuse", "annot",
                 "not ", "pcap_dispatch() ERROR", "no ", "another", "nothing", "fault of libpcap",
                 "No such device", "monitor mode"]
        return self.has_own_hit(run) and run.fault.kind != "print" and not any(word in told for word in words)

    def judge_own(self, run):
        return []


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as asked:
        asked.bind(("127.0.0.1", 0))
        return asked.getsockname()[1]


class Tool(Program):
    """A program that comes to its end by itself. What it makes, on its standard output or in a file, is the same whenever
    it ends with 0 as without faults."""

    unmarked = ("print", "fgets")  # faults.c leaves no mark on the stream, as the kernel's refusal would

    def __init__(self, name, binary, words, statuses, files=(), env=(), result="out"):
        super().__init__(name, binary)
        self.words, self.statuses, self.files, self.env = words, statuses, dict(files), dict(env)
        self.result = result
        self.sound_status, self.made = None, None

    def environment(self, run):
        return self.env

    def prepare(self, run):
        for name, text in self.files.items():
            with open(run.path(name), "w", encoding="ascii") as out:
                out.write(text)

    def command(self, run):
        return [self.binary, *self.words]

    def settled(self, run):
        return not run.reap()

    def told(self, run):
        return run.text("err") + run.text("out")

    def learn(self, run):
        super().learn(run)
        self.sound_status, self.made = run.status.get(run.first), self.made_by(run)

    def made_by(self, run):
        """What it made, without the numbers of processes."""
        return re.sub(r"\bprocess \d+", "process", run.text(self.result))

    def judge_own(self, run):
        if run.status.get(run.first) != 0 or (run.fault.kind in self.unmarked and not run.fault.on):
            return []
        if self.sound_status != 0:
            return [f"ends with 0, and with {self.sound_status} without faults"]
        made = self.made_by(run)
        return [] if made == self.made else [f"ends with 0, and has made: {made[-300:]!r}"]


class Querier(Tool):
    """zentctl query: one at a time on an interface, so that each run of a batch has an interface of its own."""

    at_once = 40

    def __init__(self, *words):
        super().__init__(*words)
        self.count = 0

    def prepare(self, run):
        super().prepare(run)
        place = self.count % self.at_once
        if self.count == place:
            segment.lay_pair(f"query{place}", f"peer{place}", f"10.8.{place}.1")
        self.count += 1
        return f"query{place}"

    def command(self, run):
        return [*super().command(run), run.prepared]


class Service(Program):
    """A program that serves until SIGTERM. Its words name its port {port}; touch() is what happens to it."""

    at_once = 40

    def __init__(self, name, binary, words, statuses, kind=socket.SOCK_STREAM, ask=b"", append="", has_pid=False):
        super().__init__(name, binary)
        self.words, self.statuses, self.kind, self.ask, self.append = words, statuses, kind, ask, append
        self.has_pid = has_pid

    def prepare(self, run):
        with open(run.path("file"), "w", encoding="ascii") as out:
            out.write("first\n")
        return {"port": free_port(self.kind), "other": free_port(socket.SOCK_STREAM)}

    def command(self, run):
        return [self.binary, *(word.format(**run.prepared) for word in self.words)]

    def touch(self, run):
        if self.append:
            with open(run.path("file"), "a", encoding="ascii") as out:
                out.write(self.append)
        if not self.ask:
            return
        with socket.socket(socket.AF_INET, self.kind) as peer:
            peer.settimeout(1)
            try:
                peer.connect(("127.0.0.1", run.prepared["port"]))
                peer.send(self.ask)
                if self.kind == socket.SOCK_STREAM:
                    peer.recv(4096)
            except OSError:
                pass  # what it was to be has failed

    def act(self, runs, wait):
        with concurrent.futures.ThreadPoolExecutor(16) as pool:
            list(pool.map(self.touch, [run for run in runs if run.reap()]))

    def main_process(self, run):
        report = run.report()
        leaves = [pid for pid in report.children if pid not in report.parents]
        return leaves[0] if self.has_pid and leaves else run.first

    def judge_own(self, run):
        if self.has_pid and os.path.exists(run.path("pid")) and run.fault.kind != "unlink":
            return ["leaves its pid file"]
        return []


class Monitor(Service):
    """zentmon. It has heard what it is told once its page shows the group; where one call alone fails it is told again
    until it has."""

    at_once = 80

    def touch(self, run):
        run.heard = False
        end = time.monotonic() + (0 if run.fault.on else HEARD_LIMIT)
        while not run.heard and run.reap():
            super().touch(run)
            run.heard = self.ask.split(b"/")[-1].strip() in self.page(run)
            if time.monotonic() >= end:
                return
            time.sleep(0.02)

    @staticmethod
    def page(run):
        got = b""
        try:
            with socket.create_connection(("127.0.0.1", run.prepared["other"]), 1) as peer:
                peer.settimeout(1)
                peer.send(b"GET /groups.json HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
                while piece := peer.recv(65536):
                    got += piece
        except OSError:
            pass  # what was to answer has failed
        return got

    def judge_own(self, run):
        return ["goes on without what it is told"] if run.lasted and not run.fault.on and not run.heard else []


class Agent(Program):
    always_tidy = True
    statuses = (2, 12)
    lossy = ("alloc", "send", "print", "pcap_dispatch")

    def __init__(self, binary, world, daemon, relay, listed, user, features):
        words = [word for word, is_on in (("daemon", daemon), ("-R", relay), ("-F", listed), ("-u", user),
                                          ("features", features)) if is_on]
        super().__init__("agent" + "".join(f" {word}" for word in words), binary)
        self.world, self.daemon, self.relay, self.listed, self.user = world, daemon, relay, listed, user
        self.features = features
        self.at_once = 80 if features else 250  # a ring of packets has 16 MB with them

    def environment(self, run):
        return {"ZENT_FEATURES": "exact,immediate,igmpv3,expire=260"} if self.features else {}

    def prepare(self, run):
        if self.listed:
            with open(run.path("list"), "w", encoding="ascii") as out:
                out.writelines(group + "\n" for group in GROUPS)
        if not self.relay:
            return None
        receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        receiver.bind(("127.0.0.1", 0))
        run.got = ""
        return receiver

    def command(self, run):
        words = [self.binary, "-i", AGENT_END, "-l", run.path("log"), "-p", run.path("pid")]
        words += [] if self.daemon else ["-T"]
        words += ["-R", "127.0.0.1:%d" % run.prepared.getsockname()[1]] if self.relay else []
        words += ["-F", run.path("list")] if self.listed else []
        return words + (["-u", "nobody"] if self.user else [])

    def lines(self, run):
        if not self.relay:  # a daemon's standard output has become its pid file
            return run.text("out") + run.text("pid")
        try:
            while True:
                run.got += run.prepared.recv(2048).decode()
        except BlockingIOError:
            return run.got

    def has_all(self, run):
        lines = self.lines(run)
        return all(f"JOIN UDP://{group}\n" in lines for group in GROUPS)

    def act(self, runs, wait):
        if any(run.reap() for run in runs):
            self.world.join()
        wait(runs, lambda run: self.has_all(run) or not run.reap(), LINES_LIMIT)
        for run in runs:
            run.joins = self.lines(run).count("JOIN UDP://")
            if run.prepared:
                run.prepared.close()

    def main_process(self, run):
        """A daemon's is the one at the end of its forks."""
        report = run.report()
        leaves = [pid for pid in report.children if pid not in report.parents]
        return leaves[0] if self.daemon and leaves else run.first

    def judge_own(self, run):
        found, hits = [], run.report().hits
        if self.daemon and run.report().children and run.status.get(run.first) != 0:
            found.append(f"the starter of a daemon sees {run.status.get(run.first)}")
        if run.lasted and run.joins < 3 and (run.fault.kind not in self.lossy or run.joins + len(hits) < 3) and (
                self.has_own_hit(run) or run.fault.kind != "alloc"):  # libpcap may have lost its ears
            found.append(f"goes on with {run.joins} joins of 3")
        if os.path.exists(run.path("pid")) and run.fault.kind != "unlink":
            found.append("leaves its pid file")
        return found


def agents(binary, world, quick):
    # Each pair of settings, with and without, in eight.
    for daemon, relay, listed, user, features in (
            (0, 0, 0, 0, 0), (1, 1, 1, 1, 1)) if quick else (
            (0, 0, 0, 0, 0), (0, 0, 1, 1, 1), (0, 1, 0, 1, 1), (0, 1, 1, 0, 0),
            (1, 0, 0, 1, 0), (1, 0, 1, 0, 1), (1, 1, 0, 0, 1), (1, 1, 1, 1, 0)):
        yield Agent(binary, world, daemon, relay, listed, user, features)
    if not quick:
        yield Tool("agent that is refused", binary, ["-i", AGENT_END], (2,), env={"ZENT_FEATURES": "none"})


def monitors(build):
    words = ["--listen", "127.0.0.1:{port}", "--http", "127.0.0.1:{other}", "--db", "db", "--json", "--log", "log"]
    yield Monitor("zentmon", f"{build}/zentmon", words, (64, 69, 71, 77), socket.SOCK_DGRAM,
                  b"JOIN UDP://239.1.1.1\n")


def tools(build):
    binary, statuses = f"{build}/tools/zentctl", (0, 1, 2)
    listed = {"list": "".join(group + "\n" for group in GROUPS)}
    yield Tool("zentctl lint", binary, ["lint", "list"], statuses, listed)
    yield Tool("zentctl expand", binary, ["expand", "239.1.0.0/28"], statuses)
    yield Tool("zentctl check", binary, ["check", "--watch", "1", "--list", "list", AGENT_END], statuses, listed)
    yield Querier("zentctl query", binary, ["query", "--once"], statuses)


def examples(build, world):
    def at(name):
        return f"{build}/examples/{name}"

    get = b"GET /ping HTTP/1.0\r\n\r\n"
    yield Service("echo_server", at("echo_server"), ["-p", "{port}"], (1, 2), ask=b"text\n")
    yield Service("line_server", at("line_server"), ["-p", "{port}"], (1, 2), ask=b"text\n")
    yield Service("file_server", at("file_server"), ["-p", "pid", "-l", "log", "127.0.0.1", "{port}", "."], (1, 2),
                  ask=b"GET /file HTTP/1.0\r\n\r\n", has_pid=True)
    yield Service("guide_daemon", at("guide_daemon"), ["-T", "-p", "pid", "-l", "log", "{port}"], (1, 2), ask=get,
                  has_pid=True)
    yield Service("recorder", at("recorder"), ["-p", "pid", "-l", "log", "127.0.0.1", "{port}", "stream"], (1, 2),
                  socket.SOCK_DGRAM, b"datagram", has_pid=True)
    yield Service("follow", at("follow"), ["file"], (1, 2), append="second\n")
    yield Service("watch_rotate", at("watch_rotate"), ["log", "file"], (1, 2), append="second\n")
    yield Service("mcast_receive", at("mcast_receive"), ["-i", AGENT_END, "udp://239.5.5.5:{port}"], (1, 2),
                  socket.SOCK_DGRAM)
    yield Tool("fd_pass", at("fd_pass"), ["file"], (0, 1, 2), {"file": "first\n"})
    yield Tool("index_query", at("index_query"), ["index", "500"], (0, 1, 2), {"index": "0 10 100 1.0 2.0\n"})
    yield Tool("fetch to stdout", at("fetch"), [f"http://127.0.0.1:{world.web.server_port}/"], (0, 1, 2))
    yield Tool("fetch", at("fetch"), ["-o", "body", f"http://127.0.0.1:{world.web.server_port}/"], (0, 1, 2),
               result="body")


def programs(build, world, quick):
    yield from agents(os.path.join(build, "zent"), world, quick)
    yield from monitors(build)
    yield from tools(build)
    yield from examples(build, world)
