"""The programs of scripts/faults: how each is started, what happens to it, and what a run may look like that had a
fault."""
import concurrent.futures
import contextlib
import functools
import http.server
import itertools
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import typing

import segment
from segment import AGENT_ADDRESS, AGENT_END, Peer

GROUPS = ["239.1.1.1", "239.1.1.2", "239.1.1.3"]
LINES_LIMIT = 20  # the kernel hands packets over after 5 s, and a machine may be busy
ANSWER_LIMIT = 2  # for one answer of a service

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


PORTS = itertools.cycle(range(10000, 32000))  # none of those that the kernel gives away; nobody else is in the namespace

# The program of zentmon --exec: it adds a line to a file of its working directory.
HOOK = r"""
#include <stdio.h>
#include <stdlib.h>

int main(void)
{
    FILE* file = fopen("hooked", "a");
    if (file == NULL) {
        return 1;
    }
    fprintf(file, "%s %s\n", getenv("ZENT_EVENT"), getenv("ZENT_GROUP"));
    return fclose(file) == 0 ? 0 : 1;
}
"""


class Page(http.server.BaseHTTPRequestHandler):
    """What fetch fetches."""

    def do_GET(self):
        self.send_response(200)
        self.end_headers()
        with contextlib.suppress(ConnectionError):  # a client that a fault has ended
            self.wfile.write(b"page\n")

    def log_message(self, *words):
        pass


def page_at(port):
    """The table of groups of a zentmon, or what there is of it."""
    got = b""
    try:
        with socket.create_connection(("127.0.0.1", port), 1) as peer:
            peer.settimeout(1)
            peer.send(b"GET /groups.json HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
            while piece := peer.recv(65536):
                got += piece
    except OSError:
        pass  # what was to answer has failed
    return got


class World:
    """The segment: the programs on one end, on the other a kernel host that speaks IGMPv2."""

    def __init__(self):
        self.host = Peer("python3", "-c", HOST)
        self.host.join_segment()
        self.web = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Page)
        threading.Thread(target=self.web.serve_forever, daemon=True).start()
        subprocess.run(self.host.inside("sysctl", "-qw", "net.ipv4.conf.all.force_igmp_version=2"), check=True)
        self.build = None  # where the programs are
        self.folder = tempfile.mkdtemp(prefix="zent-faults-world-")
        os.chmod(self.folder, 0o755)

    @functools.cached_property
    def feed(self):
        return Feed(self.build)

    @functools.cached_property
    def broker(self):
        return Broker(self.folder)

    @functools.cached_property
    def hook(self):
        """A static program, which no library can stand in front of."""
        path = os.path.join(self.folder, "hook")
        subprocess.run(["cc", "-static", "-O1", "-x", "c", "-o", path, "-"], input=HOOK, text=True, check=True)
        return path

    def join(self, groups=GROUPS):
        """The host leaves what it was in, and joins the groups."""
        self.host.process.stdin.write(" ".join(groups) + "\n")
        self.host.process.stdin.flush()
        assert self.host.process.stdout.readline() == "joined\n"

    def close(self):
        self.web.shutdown()
        self.host.close()
        for helper in ("broker", "feed"):
            if helper in self.__dict__:  # it was asked for
                self.__dict__[helper].close()
        shutil.rmtree(self.folder)


class Broker:
    """An MQTT broker, and all that it was told."""

    def __init__(self, folder):
        self.port, self.heard = next(PORTS), set()
        settings = os.path.join(folder, "mosquitto.conf")
        with open(settings, "w", encoding="ascii") as out:
            out.write(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nlog_type error\nuser root\n")
        self.processes = [subprocess.Popen(["mosquitto", "-c", settings], stderr=subprocess.DEVNULL)]
        segment.wait_for(self.answers, segment.LIMIT_S, "the MQTT broker")
        self.listener = subprocess.Popen(["mosquitto_sub", "-p", str(self.port), "-t", "#", "-F", "%t %p"],
                                         stdout=subprocess.PIPE, text=True)
        self.processes.append(self.listener)
        threading.Thread(target=self.listen, daemon=True).start()

    def answers(self):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as peer:
            return peer.connect_ex(("127.0.0.1", self.port)) == 0

    def listen(self):
        for line in self.listener.stdout:
            topic, _, payload = line.partition(" ")
            if payload.strip():
                self.heard.add(topic)

    def close(self):
        for process in self.processes:
            process.kill()
            process.wait()


class Feed:
    """A zentmon that nothing fails in, for what asks one."""

    def __init__(self, build):
        self.listens, self.serves = next(PORTS), next(PORTS)
        self.processes = [subprocess.Popen([f"{build}/zentmon", "--listen", f"127.0.0.1:{self.listens}", "--http",
                                            f"127.0.0.1:{self.serves}", "--loglevel", "err"])]
        self.url = f"http://127.0.0.1:{self.serves}"
        self.speaker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)  # one for all: each port is a life of an agent
        self.groups = itertools.count(1)
        segment.wait_for(lambda: page_at(self.serves), segment.LIMIT_S, "zentmon")
        for group in GROUPS:
            self.join(group)
        segment.wait_for(lambda: GROUPS[-1].encode() in page_at(self.serves), segment.LIMIT_S, "zentmon's groups")

    def join(self, group):
        self.speaker.sendto(f"JOIN UDP://{group}\n".encode(), ("127.0.0.1", self.listens))

    def join_another(self):
        """A group that none has joined yet."""
        number = next(self.groups)
        group = f"239.2.{number // 256}.{number % 256}"
        self.join(group)
        return group

    def close(self):
        self.speaker.close()
        self.processes[0].kill()
        self.processes[0].wait()


class Failed(typing.NamedTuple):
    """Where the calls failed, each a text of functions and places."""

    at: str      # the functions that made them, or "signal N" where it was the action of that signal that could not be set
    within: str  # those and all around them, up to main()


class Listed(typing.NamedTuple):
    """An ending that stands in the documents, or that cannot happen: regular expressions, and the reason."""

    kind: str
    function: str
    program: str
    complaint: str
    reason: str
    error: str = ".*"
    on: bool = False  # only where all that follow fail too
    within: str = ""

    def speaks_of(self, run, failed, complaint):
        return bool(re.fullmatch(self.kind, run.fault.kind) and re.fullmatch(self.error, run.fault.error) and
                    (run.fault.on or not self.on) and re.search(self.function, failed.at, re.S) and
                    re.search(self.within, failed.within, re.S) and re.match(self.program, run.program.name) and
                    re.search(self.complaint, complaint, re.S))


LISTED = [
    Listed("alloc", "^$", ".*", r"leaves (anon_inode|socket) open: out of dynamic memory in yy\w+\(\)",
           "libpcap ends the process from within pcap_compile"),
    Listed("alloc", "^$", ".*",
           r"sanitizer: .*SEGV .*#0 0x\w+ (\(/lib/\S*/libpcap\.so|in nss_database_check_reload_and_get )",
           "libpcap and the C library use memory that they did not get"),
    Listed("alloc", "^$", "agent.*", "goes on with 0 joins",
           "libpcap has no memory for the name of a file of the interface, tells of no failure, and hears nothing"),
    Listed("clock", ".*", ".*", "SIGABRT", "timeop.h: a clock that fails ends the process; CLOCK_MONOTONIC cannot"),
    Listed("rlimit", ".*", ".*", "SIGABRT: getrusage", "rusage_ops.h ends the process as well; no valid call fails"),
    Listed("alloc", "xvec_reserve|xvlst_reserve|xvec_expand|hcreate", ".*", "SIGABRT",
           "rqs.h: exhausted memory for the lists of the loop ends the process"),
    Listed("alloc", "W_calloc", "file_server|recorder", "SIGABRT",
           "fdio.h: new_transfer_spec without memory ends the process"),
    Listed("munmap", "xvlst_reset", "echo_server", "SIGABRT",
           "xvdat.h: a mapping that cannot be unmapped ends the process"),
    Listed("alloc", "usock_open", ".*", "SIGABRT", "wopen.h: memory for a copy of the path"),
    Listed("setuid", "run_as_user_id", "agent.*", "without a reason", "util.h: no line is logged"),
    Listed("sigaction", r"signal 15\b", ".*", "is ended by SIGTERM|does not end at SIGTERM",
           "sigaction fails for no signal that is used; what SIGTERM does is not set then"),
    Listed("fgets", ".*", "agent.*", "goes on with", "an error while the list is read counts as its end"),
    Listed("fgets", ".*", "zentctl lint", "ends with 0",
           "the agent's loader reads a copy in memory here, whose read cannot fail"),
    Listed("read", ".*", "zentmon stdin", "no client gets",
           "zentmon(8): an error of the standard input is its end, and is told",
           error="EIO|EISDIR", within="StreamIntake"),
    Listed("epoll_ctl", "rqs_rm_fd", ".*", "does not end|SIGKILL", "the kernel refuses only what was never added"),
    Listed("wait", ".*", ".*", "ends with|ends by itself", "a wait that fails otherwise than by a signal ends the loop",
           error="EINVAL|ENOMEM"),
    Listed("wait", ".*", "agent.*", "goes on with", "libpcap waits on where poll is interrupted, for ever if it always is",
           error="EINTR", on=True),
    Listed("print", "fflush|flush|app_run|take_packets", "agent.*", "goes on with",
           "lines that could not be written stay in the buffer of the standard output, for the next time"),
    Listed("write", "Bell::ring", "zentmon", r"leaves (/log|anon_inode) open|no client gets",
           "an eventfd takes each ring; unheard, a thread sleeps on, with its files"),
    Listed("read|write", ".*", "zentmon", r"leaves \S+ open",
           "what is only ever interrupted, or told to wait, is tried on by its thread, until the process ends",
           error="EINTR|EAGAIN", on=True),
    Listed("write", "JsonOutput::write_all", "zentmon (stdin|settings)", "no client gets",
           "a reader that is gone is told, and does not come back", error="EPIPE"),
    Listed("read", ".*", "zentmon settings", "neither runs nor ends|ended by SIGHUP",
           "the C++ library reads on where a read is interrupted, for ever if it always is", error="EINTR", on=True),
    Listed("alloc", ".*", "zentctl (groups|watch)", "is ended by SIGABRT: terminate called",
           "the destructor of a value of nlohmann's JSON asks for memory", within="nlohmann"),
    Listed("localtime", "time_text", "zentctl (groups|watch)", "ends with 0, and has made",
           "a time that no calendar has is shown in seconds"),
    Listed("connect", "W_connect", "zentmon outputs", "without a reason",
           "the address of a datagram socket is set at once", error="EINPROGRESS"),
    Listed("wait", ".*", "zentmon", r"leaves \S+ open", "a thread that cannot be waited for is left as it is, with its files"),
    Listed("pcap_dispatch", ".*", "zentctl.*", "without a reason", "the reason would stand in libpcap's handle"),
    Listed("pcap_.*", ".*", ".*", "leaves anon_inode",
           "libpcap keeps its eventfd where a handle is closed that was never activated"),
    Listed("epoll_ctl|wait|fcntl", ".*", "file_server", "leaves (/file|socket)",
           "what is open at its end ends with the process"),
    Listed("write|truncate|fcntl", ".*", "file_server|guide_daemon|recorder", "its pid file",
           "a pid file that could not be made may be another process's: it stays", within="create_pidfile"),
]


ORDINARY = re.compile(r"\((WRN|NRM|INF|DBG|SCT)\)")  # the levels of a log's lines that tell of no error


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
    reasons = ("FAILED", "ailed", "error", "memory", "bad_alloc", "refuse", "annot", "not ", "pcap_dispatch() ERROR", "no ",
               "another", "nothing", "fault of libpcap", "No such device", "monitor mode")  # beside the name of the error

    def __init__(self, name, binary):
        self.name, self.binary = name, os.path.abspath(binary)
        self.base = {}      # {(whether of the main process, target): open descriptors}
        self.sound = ()     # how a run without faults ends, and what it tells

    def environment(self, run):
        return {}

    def prepare(self, run):
        return None

    def helpers(self):
        """The processes that its runs need beside them."""
        return set()

    def input(self, run):
        """Its standard input."""
        return subprocess.DEVNULL

    def settled(self, run):
        """It has ended, or waits for what comes."""
        alive = run.reap()
        return not alive or bool(run.report().waits.intersection(alive))

    def act(self, runs, wait):
        pass

    def rest(self):
        """After the end of the runs."""

    def learn(self, run):
        """The descriptors that are open at the end of a sound run, and its end."""
        self.sound, self.base = self.end_of(run), {}
        for pid, ends in run.report().ends.items():
            for target, count in count_of_targets(self.neutral(run, ends)).items():
                key = pid == self.main_process(run), target
                self.base[key] = max(count, self.base.get(key, 0))

    def end_of(self, run):
        return run.lasted, run.status.get(self.main_process(run)), self.told(run).replace(run.folder, "")

    @staticmethod
    def neutral(run, ends):
        """Without what each program is given at its start."""
        return [(fd, target.replace(run.folder, "")) for fd, target in ends
                if (fd, target) != (0, "/dev/null") and "/err" not in target and "/out" not in target]

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
        found += [f"leaves a process: {text}" for text in run.left]
        for pid, status in run.status.items():
            if status < 0:
                found.append(f"process {pid} is ended by {signal.Signals(-status).name}: {self.told(run)[-300:]}")
        return found or self.judge_end(run) + self.left_open(run) + self.judge_own(run)

    def judge_end(self, run):
        """The exit code, and what is told of it. A run that has obeyed SIGTERM may fail while it ends."""
        status, tail = run.status.get(self.main_process(run)), self.told(run)[-300:]
        if status == 0 and (run.lasted or status in self.statuses):
            return []
        if status not in self.statuses:
            return [f"ends with {status} at SIGTERM: {tail}" if run.lasted else f"ends by itself with {status}: {tail}"]
        if run.lasted and run.hits_before_end < len(run.report().hits):
            return []
        if run.fault.kind != "print" and not self.told(run):
            return [f"ends with {status} and without a word"]
        if self.reason_missing(run):
            return [f"ends with {status} and without a reason: {tail}"]
        return []

    def left_open(self, run):
        """An end that went wrong leaves to the kernel what it had; the agent takes down all that stands."""
        if not run.lasted and not self.always_tidy:
            return []
        report, main = run.report(), self.main_process(run)
        return [f"leaves {target} open: {self.told(run)[-100:]}"
                for pid, ends in report.ends.items() if pid in report.ended and run.fault.kind != "none"
                for target, count in count_of_targets(self.neutral(run, ends)).items()
                if count > self.base.get((pid == main, target), 0)]

    def reason_missing(self, run):
        """Whether a failed call of the program's own ended it, and the reason is not told."""
        if run.fault.kind == "print" or not self.has_own_hit(run) or self.end_of(run) == self.sound:
            return False
        told = "\n".join(line for line in self.told(run).split("\n") if not ORDINARY.search(line))
        code = run.fault.code()
        return not any(word in told for word in (f"ERROR({code})", os.strerror(abs(code)), *self.reasons))

    def judge_own(self, run):
        return []


class Tool(Program):
    """A program that comes to its end by itself. What it makes, on its standard output or in a file, is the same whenever
    it ends with 0 as without faults."""

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
        if run.status.get(run.first) != 0:
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


def soon(condition, limit=ANSWER_LIMIT):
    """Whether it holds within the limit."""
    end = time.monotonic() + limit
    while not (holds := condition()) and time.monotonic() < end:
        time.sleep(0.02)
    return holds


class Service(Program):
    """A program that serves until SIGTERM. Its words name its port {port}. meet() is a client, the count-th, and tells
    whether he got what is right: after the first one others come until one does. Who goes on after a single fault must
    serve them."""

    at_once = 40
    served_limit = 20

    def __init__(self, name, binary, words, statuses, client=None, kind=socket.SOCK_STREAM, has_pid=False):
        super().__init__(name, binary)
        self.words, self.statuses, self.client, self.kind = words, statuses, client, kind
        self.has_pid = has_pid

    def prepare(self, run):
        with open(run.path("file"), "w", encoding="ascii") as out:
            out.write("first\n")
        return {"port": next(PORTS), "other": next(PORTS)}

    def command(self, run):
        return [self.binary, *(word.format(**run.prepared) for word in self.words)]

    def meet(self, run, count):
        return self.client(run, count)

    def touch(self, run):
        self.meet(run, 1)
        end = time.monotonic() + (0 if run.fault.on else self.served_limit)
        for count in range(2, 1000):
            run.served = self.meet(run, count)
            if run.served or not run.reap() or time.monotonic() >= end:
                return

    def act(self, runs, wait):
        with concurrent.futures.ThreadPoolExecutor(16) as pool:
            list(pool.map(self.touch, [run for run in runs if run.reap()]))

    def main_process(self, run):
        report = run.report()
        leaves = [pid for pid in report.children if pid not in report.parents]
        return leaves[0] if self.has_pid and leaves else run.first

    def judge_own(self, run):
        found = []
        if self.has_pid and os.path.exists(run.path("pid")) and run.fault.kind != "unlink":
            found.append("leaves its pid file")
        if run.lasted and not run.fault.on and not run.served:
            found.append("goes on, and no client gets what is right any more")
        return found


def asking(words, answer):
    """A client of a server: the answer, a regular expression, must come back."""
    def meet(run, _):
        got, end = b"", time.monotonic() + ANSWER_LIMIT
        try:
            with socket.create_connection(("127.0.0.1", run.prepared["port"]), ANSWER_LIMIT) as peer:
                peer.sendall(words)
                while not re.search(answer, got, re.S) and (piece := peer.recv(4096)):
                    got += piece
                    peer.settimeout(max(0.01, end - time.monotonic()))
        except OSError:
            pass  # what was to answer has failed
        return re.search(answer, got, re.S) is not None
    return meet


def appending(shows):
    """Who watches a file: it grows, and that must show."""
    def meet(run, count):
        with open(run.path("file"), "a", encoding="ascii") as out:
            out.write(f"line {count}\n")
        return soon(lambda: shows(run))
    return meet


def sending(address, shows):
    """Who takes datagrams: one comes, and must show."""
    def meet(run, count):
        text = f"datagram {count:04}\n".encode()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as peer:
            peer.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(AGENT_ADDRESS))
            peer.bind(("", 0))
            try:
                peer.sendto(text, (address, run.prepared["port"]))
            except OSError:
                return False  # of a port that was closed
            return soon(lambda: shows(run, text.decode(), peer.getsockname()[1]))
    return meet


class Recorder(Service):
    def judge_own(self, run):
        found = super().judge_own(run)
        if run.status.get(run.first) == 0 and run.fault.kind != "print":
            lines = [line.split() for line in run.text("stream.idx").splitlines()]
            if sum(int(line[1]) * int(line[2]) for line in lines) != len(run.text("stream")):
                found.append("its index is not that of its file")
        return found


class Asker(Tool):
    """zentctl groups, which asks a zentmon for groups that do not change."""

    def __init__(self, binary, world):
        super().__init__("zentctl groups", binary, ["groups", "--filter", "239.1.1."], (0, 1, 2))
        self.world = world

    def helpers(self):
        return {process.pid for process in self.world.feed.processes}

    def command(self, run):
        return [*super().command(run), self.world.feed.url]


class Watcher(Service):
    """zentctl watch, which must tell what a zentmon tells it."""

    def __init__(self, binary, world):
        super().__init__("zentctl watch", binary, ["watch", "{url}"], (1, 2))
        self.world = world

    def helpers(self):
        return {process.pid for process in self.world.feed.processes}

    def prepare(self, run):
        return {"url": self.world.feed.url}

    def meet(self, run, count):
        group = self.world.feed.join_another()
        return soon(lambda: f"  {group}  " in run.text("out"))


class Monitor(Service):
    """zentmon: each client tells of one more group, which must show wherever it gives something out."""

    at_once = 80

    def __init__(self, name, binary, words):
        super().__init__(name, binary, [*words, "--log", "log"], (64, 69, 71, 77), kind=socket.SOCK_DGRAM)

    def meet(self, run, count):
        group = f"239.1.1.{count}"
        self.tell(run, f"JOIN UDP://{group}\n".encode())
        return soon(lambda: self.shows(run, group))

    def tell(self, run, line):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as peer:
            try:
                peer.sendto(line, ("127.0.0.1", run.prepared["port"]))
            except OSError:
                pass  # of a port that was closed

    def shows(self, run, group):
        return f'"{group}"'.encode() in page_at(run.prepared["other"]) and f'"{group}"' in run.text("out")


class Outputs(Monitor):
    """zentmon that tells a program, another receiver and a broker."""

    served_limit = 60  # its pauses between connections grow to 30 s

    def __init__(self, binary, world):
        super().__init__("zentmon outputs", binary, [
            "--listen", "127.0.0.1:{port}", "--http", "none", "--exec", "{hook}", "--forward", "127.0.0.1:{onward}",
            "--mqtt", "127.0.0.1:{broker}", "--mqtt-prefix", "faults", "--instance", "{instance}"])
        self.world = world

    def helpers(self):
        return {process.pid for process in self.world.broker.processes}

    def prepare(self, run):
        run.got, run.receiver = "", socket.socket(socket.AF_INET, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        run.receiver.bind(("127.0.0.1", 0))
        return {**super().prepare(run), "hook": self.world.hook, "onward": run.receiver.getsockname()[1],
                "broker": self.world.broker.port, "instance": os.path.basename(run.folder)}

    def shows(self, run, group):
        try:
            while True:
                run.got += run.receiver.recv(2048).decode()
        except BlockingIOError:
            pass
        return (f"JOIN UDP://{group}\n" in run.got and f"join {group}\n" in run.text("hooked") and
                f"faults/{run.prepared['instance']}/127.0.0.1/{group}" in self.world.broker.heard)

    def act(self, runs, wait):
        super().act(runs, wait)
        for run in runs:
            run.receiver.close()


class Stdin(Monitor):
    """zentmon that takes lines from a pipe; at the end that ends first."""

    def __init__(self, binary):
        super().__init__("zentmon stdin", binary, [
            "--stdin", "--listen", "127.0.0.1:{port}", "--http", "127.0.0.1:{other}", "--json"])

    def prepare(self, run):
        run.pipe = os.pipe()
        return super().prepare(run)

    def input(self, run):
        return run.pipe[0]

    def tell(self, run, line):
        os.write(run.pipe[1], line)

    def act(self, runs, wait):
        super().act(runs, wait)
        for run in runs:
            os.close(run.pipe[0])
            os.close(run.pipe[1])


class Settings(Monitor):
    """zentmon that has its settings from a file, which changes before each client."""

    def __init__(self, binary):
        super().__init__("zentmon settings", binary, ["--config", "settings"])

    @staticmethod
    def write(run, ports, name):
        with open(run.path("next"), "w", encoding="ascii") as out:
            out.write(f"listen 127.0.0.1:{ports['port']}\nhttp = 127.0.0.1:{ports['other']}\njson\n"
                      f"allow 127.0.0.0/8\nname 127.0.0.1={name}\n")
        os.rename(run.path("next"), run.path("settings"))

    def prepare(self, run):
        ports = super().prepare(run)
        self.write(run, ports, "name0")
        return ports

    def meet(self, run, count):
        self.write(run, run.prepared, f"name{count}")
        run.signal(signal.SIGHUP)
        return super().meet(run, count) and soon(lambda: f'"name{count}"'.encode() in page_at(run.prepared["other"]))


class Agent(Program):
    always_tidy = True
    statuses = (2, 12)
    reasons = ("FAILED", "ailed", "memory", "annot", "error at line", "pcap_dispatch() ERROR", "fault of libpcap",
               "No such device", "monitor mode")

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

    def groups(self, run):
        """What is reported, in order. In a pid file the first line goes on behind the number."""
        return re.findall(r"((?:JOIN|LEAVE) UDP://\S+)\n", self.lines(run))

    def act(self, runs, wait):
        if any(run.reap() for run in runs):
            self.world.join()
        wait(runs, lambda run: self.has_all(run) or not run.reap(), LINES_LIMIT)
        for run in runs:
            run.joins = self.groups(run)

    def rest(self):
        self.world.join([])  # or the next runs would hear the host repeat its reports

    def main_process(self, run):
        """A daemon's is the one at the end of its forks."""
        report = run.report()
        leaves = [pid for pid in report.children if pid not in report.parents]
        return leaves[0] if self.daemon and leaves else run.first

    def judge_own(self, run):
        found, hits = [], run.report().hits
        if self.daemon and run.report().children and run.status.get(run.first) != 0:
            found.append(f"the starter of a daemon sees {run.status.get(run.first)}")
        found += self.judge_reports(run, len(hits))
        if os.path.exists(run.path("pid")) and run.fault.kind != "unlink":
            found.append("leaves its pid file")
        if run.prepared:
            run.prepared.close()
        return found

    def judge_reports(self, run, hits):
        """A run that goes on has reported each group once, before SIGTERM, or has told of the one that it could not join
        or report; nothing else is reported by any run. What a stream does not take can be told nowhere."""
        wanted = {f"JOIN UDP://{group}": group for group in GROUPS}
        missing = set(wanted) - set(run.joins)
        untold = [line for line in missing if not self.is_told(run, wanted[line])]
        found = []
        if run.lasted and len(missing if run.fault.kind == "print" else untold) > (hits if run.fault.kind == "print" else 0):
            found.append(f"goes on with {3 - len(missing)} joins of 3")
        all_of_them = max(run.joins, self.groups(run), key=len)  # a pid file that has them is gone by now
        if len(set(all_of_them)) < len(all_of_them) or not set(wanted).issuperset(all_of_them):
            found.append(f"reports {all_of_them}")
        return found

    def is_told(self, run, group):
        number = int.from_bytes(socket.inet_aton(group), "little")
        return any(text in self.told(run) for text in (f"error adding group {number:04x}\n",
                                                       f"failed to relay: JOIN UDP://{group}\n"))


def agents(binary, world, quick):
    # Each pair of settings, with and without, in eight.
    for daemon, relay, listed, user, features in (
            (0, 0, 0, 0, 0), (1, 1, 1, 1, 1)) if quick else (
            (0, 0, 0, 0, 0), (0, 0, 1, 1, 1), (0, 1, 0, 1, 1), (0, 1, 1, 0, 0),
            (1, 0, 0, 1, 0), (1, 0, 1, 0, 1), (1, 1, 0, 0, 1), (1, 1, 1, 1, 0)):
        yield Agent(binary, world, daemon, relay, listed, user, features)
    if not quick:
        yield Tool("agent that is refused", binary, ["-i", AGENT_END], (2,), env={"ZENT_FEATURES": "none"})


def monitors(build, world):
    binary = f"{build}/zentmon"
    yield Monitor("zentmon", binary, ["--listen", "127.0.0.1:{port}", "--http", "127.0.0.1:{other}", "--db", "db",
                                      "--json"])
    yield Outputs(binary, world)
    yield Stdin(binary)
    yield Settings(binary)
    yield Asker(f"{build}/tools/zentctl", world)
    yield Watcher(f"{build}/tools/zentctl", world)


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

    yield Service("echo_server", at("echo_server"), ["-p", "{port}"], (1, 2), asking(b"text\n", b"^text\n"))
    yield Service("line_server", at("line_server"), ["-p", "{port}"], (1, 2), asking(b"text\n", b"1: text\n"))
    yield Service("file_server", at("file_server"), ["-p", "pid", "-l", "log", "127.0.0.1", "{port}", "."], (1, 2),
                  asking(b"GET /file HTTP/1.0\r\n\r\n", b"^HTTP/1.. 200 .*\r\n\r\nfirst\n$"), has_pid=True)
    yield Service("guide_daemon", at("guide_daemon"), ["-T", "-p", "pid", "-l", "log", "{port}"], (1, 2),
                  asking(b"GET /ping HTTP/1.0\r\n\r\n", b"^HTTP/1.. 200 .*\r\n\r\n"), has_pid=True)
    yield Recorder("recorder", at("recorder"), ["-p", "pid", "-l", "log", "-m", "1", "127.0.0.1", "{port}", "stream"],
                   (1, 2), sending("127.0.0.1", lambda run, text, _: text in run.text("stream")),
                   socket.SOCK_DGRAM, has_pid=True)
    yield Service("follow", at("follow"), ["file"], (1, 2), appending(lambda run: run.text("out") == run.text("file")))
    yield Service("watch_rotate", at("watch_rotate"), ["log", "file"], (1, 2), appending(
        lambda run: f"file has {os.path.getsize(run.path('file'))} bytes" in run.text("log")))
    yield Service("mcast_receive", at("mcast_receive"), ["-i", AGENT_END, "udp://239.5.5.5:{port}"], (1, 2),
                  sending("239.5.5.5", lambda run, text, port: f"{len(text)} bytes from {AGENT_ADDRESS}:{port}\n"
                          in run.text("out")), socket.SOCK_DGRAM)
    yield Tool("fd_pass", at("fd_pass"), ["file"], (0, 1, 2), {"file": "first\n"})
    yield Tool("index_query", at("index_query"), ["index", "500"], (0, 1, 2), {"index": "0 10 100 1.0 2.0\n"})
    yield Tool("fetch to stdout", at("fetch"), [f"http://127.0.0.1:{world.web.server_port}/"], (0, 1, 2))
    yield Tool("fetch", at("fetch"), ["-o", "body", f"http://127.0.0.1:{world.web.server_port}/"], (0, 1, 2),
               result="body")


def programs(build, world, quick):
    world.build = build
    yield from agents(os.path.join(build, "zent"), world, quick)
    yield from monitors(build, world)
    yield from tools(build)
    yield from examples(build, world)
