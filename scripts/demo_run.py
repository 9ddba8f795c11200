#!/usr/bin/env python3
"""The demo itself; scripts/demo runs it inside a private network namespace.

This process makes a second namespace with a host in it, joins the two by a veth pair and runs the agent on its own
end. The host lives as long as the pipe from here does, so nothing can be left behind.
"""
import json
import os
import random
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import urllib.request

from segment import AGENT_ADDRESS, AGENT_END, HOST_ADDRESS, HOST_END, Peer, wait_for

RELAY = ("127.0.0.1", 4554)
FEATURES = "exact,immediate,igmpv3"
LIMIT_S = 12  # for a batch of lines: the capture hands packets over at least every 5 s


# ---- the host ------------------------------------------------------------------------------------

def host_main():
    """Obeys lines on stdin: join GROUP, leave GROUP, version N."""
    members = {}
    for line in sys.stdin:
        verb, word = line.split()
        if verb == "join":
            sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            index = socket.if_nametoindex(HOST_END)
            sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            struct.pack("4s4si", socket.inet_aton(word), bytes(4), index))
            members.setdefault(word, []).append(sock)
        elif verb == "leave":
            for sock in members.pop(word, []):
                sock.close()
        elif verb == "version":
            for place in ("all", HOST_END):
                with open(f"/proc/sys/net/ipv4/conf/{place}/force_igmp_version", "w") as f:
                    f.write(word)
        print("done", flush=True)


class Host(Peer):
    def __init__(self):
        super().__init__(sys.executable, __file__, "--host")
        self.join_segment()

    def do(self, what):
        self.process.stdin.write(what + "\n")
        self.process.stdin.flush()
        if self.process.stdout.readline() != "done\n":
            raise SystemExit(f"demo: the host could not {what}")


# ---- this side -----------------------------------------------------------------------------------

def tell(text=""):
    print(text, flush=True)


class Agent:
    """zent in the foreground. Its lines come from stdout, or from the relay's socket."""

    def __init__(self, binary, folder, name, relay=None, features="", at=AGENT_END, to=None, inside=lambda *c: c):
        self.log = f"{folder}/{name}.log"  # one a run: the old one must not look ready
        arguments = ["-T", "-i", at, "-l", self.log, "-L", "info"]
        if relay or to:
            arguments += ["-R", to or "%s:%d" % RELAY]
        setting = f"ZENT_FEATURES={features} " if features else ""
        tell(f"$ {setting}zent " + " ".join(arguments))
        self.errors = open(f"{folder}/stderr", "w+")
        self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *inside(binary, *arguments)],
                                        stdout=subprocess.PIPE, stderr=self.errors,
                                        env=os.environ | {"ZENT_FEATURES": features})
        self.relay = relay
        self.lines = []
        self.rest = ""
        wait_for(self.is_capturing, 10, "the capture")

    def is_capturing(self):
        if self.process.poll() is not None:
            self.errors.seek(0)
            raise SystemExit("demo: zent ended early:\n" + self.errors.read())
        try:
            with open(self.log) as f:
                return "is running as" in f.read()
        except FileNotFoundError:
            return False

    def next_line(self, limit):
        source = self.relay or self.process.stdout
        if not self.lines and select.select([source], [], [], limit)[0]:
            received = self.relay.recv(128) if self.relay else os.read(source.fileno(), 4096)
            *complete, self.rest = (self.rest + received.decode()).split("\n")
            self.lines += complete
        return self.lines.pop(0) if self.lines else None

    def show(self, count):
        """Shows the next lines as they come, with a word about the wait."""
        start = time.monotonic()
        waiting = False
        while count > 0:
            line = self.next_line(1.0)
            spent = time.monotonic() - start
            if line:
                digits = 1 if spent >= 1 else 3
                tell(("\n" if waiting else "") + f"    {line:<28} (after {spent:.{digits}f} s)")
                count, waiting = count - 1, False
            elif spent > LIMIT_S:
                raise SystemExit("demo: no line came")
            else:
                text = "    waiting: the capture hands packets over at least every 5 s " if not waiting else "."
                print(text, end="", flush=True)
                waiting = True

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        code = self.process.wait(10)
        tell(f"SIGTERM: zent ended with exit code {code}")

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()


def to_stdout(binary, folder, host, running):
    tell("1. Lines on standard output")
    tell()
    host.do("version 2")
    agent = Agent(binary, folder, "stdout")
    running.append(agent)
    tell("A host joins 239.1.1.1 (twice), 239.1.1.2 and 239.1.1.3, by IGMPv2:")
    for group in ("239.1.1.1", "239.1.1.1", "239.1.1.2", "239.1.1.3"):
        host.do(f"join {group}")
    agent.show(3)
    tell("It leaves 239.1.1.2, and joins 239.1.1.4 by IGMPv1, in which nobody says goodbye:")
    host.do("leave 239.1.1.2")
    host.do("version 1")
    host.do("join 239.1.1.4")
    agent.show(2)
    agent.stop()
    for group in ("239.1.1.1", "239.1.1.3", "239.1.1.4"):
        host.do(f"leave {group}")  # or their repeated reports would turn up below


def with_features(binary, folder, host, running):
    tell()
    tell("2. Beside it: the agent with its features on, and a host that nobody has touched")
    tell()
    host.do("version 0")  # what the kernel comes with: IGMPv3
    agent = Agent(binary, folder, "features", features=FEATURES)
    running.append(agent)
    tell("The host joins 239.1.1.1 and 239.1.1.200, by IGMPv3 as stock systems do:")
    host.do("join 239.1.1.1")
    host.do("join 239.1.1.200")
    agent.show(2)
    tell("It leaves 239.1.1.200:")
    host.do("leave 239.1.1.200")
    agent.show(1)
    agent.stop()
    host.do("leave 239.1.1.1")


def to_relay(binary, folder, host, running):
    tell()
    tell("3. Lines as datagrams to a relay")
    tell()
    relay = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    relay.bind(RELAY)
    host.do("version 2")
    agent = Agent(binary, folder, "relay", relay)
    running.append(agent)
    tell("The host joins 239.1.1.5 and 239.1.1.6; what the relay receives:")
    host.do("join 239.1.1.5")
    host.do("join 239.1.1.6")
    agent.show(2)
    tell("It leaves 239.1.1.5:")
    host.do("leave 239.1.1.5")
    agent.show(1)
    agent.stop()
    host.do("leave 239.1.1.6")
    relay.close()


# ---- zentmon -------------------------------------------------------------------------------------

class Monitor:
    """zentmon, with its page here, or at a socket that was opened outside before the namespaces were made."""

    def __init__(self, binary, folder, page):
        arguments = ["--listen", f"0.0.0.0:{RELAY[1]}=segment", "--name", "127.0.0.1=this-side",
                     "--name", f"{HOST_ADDRESS}=that-side", "--log", f"{folder}/zentmon.log"]
        tell("$ zentmon " + " ".join(arguments))
        command = [binary, *arguments]
        environment = dict(os.environ)
        if page is not None:  # as a service manager hands it over: descriptor 3, for this process alone
            environment |= {"LISTEN_FDS": "1", "LISTEN_FDNAMES": "page"}
            command = ["bash", "-c", f'LISTEN_PID=$$ exec "$@" 3<&{page}', "bash", *command]
        self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command], env=environment,
                                        pass_fds=() if page is None else (page,))
        if page is None:
            wait_for(self.answers, 10, "zentmon")

    def get(self, path):
        with urllib.request.urlopen(f"http://127.0.0.1:8580/{path}", timeout=10) as answer:
            return answer.read().decode()

    def answers(self):
        try:
            return self.get("healthz") == "ok\n"
        except OSError:
            return False

    def show(self, path, total):
        """Waits until so many groups are there, and shows the answer."""
        wait_for(lambda: json.loads(self.get(path))["total"] == total, LIMIT_S, f"{total} groups")
        tell(f"$ curl -s 'http://127.0.0.1:8580/{path}'")
        tell("".join("    " + line + "\n" for line in self.get(path).splitlines()).rstrip())

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        tell(f"SIGTERM: zentmon ended with exit code {self.process.wait(10)}")

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()


def start_two_agents(binary, folder, host, running):
    running.append(Agent(binary, folder, "this", features=FEATURES, to="127.0.0.1:%d" % RELAY[1]))
    running.append(Agent(binary, folder, "that", features=FEATURES, to=f"{AGENT_ADDRESS}:{RELAY[1]}", at=HOST_END,
                         inside=host.inside))
    return running[-2:]


def to_zentmon(binary, folder, host, running):
    tell()
    tell("4. Two agents, one on each side of the segment, and zentmon, which receives their lines")
    tell()
    zentmon = os.path.join(os.path.dirname(binary), "zentmon")
    if not os.path.exists(zentmon):
        tell("zentmon was not built: its libraries are missing here")
        return
    host.do("version 0")
    monitor = Monitor(zentmon, folder, None)
    running.append(monitor)
    agents = start_two_agents(binary, folder, host, running)
    tell("The host joins 239.1.1.7 and 239.1.1.8; both agents see it:")
    host.do("join 239.1.1.7")
    host.do("join 239.1.1.8")
    monitor.show("groups.json?filter=239.1.1.0/24", 4)
    tell("It leaves 239.1.1.8:")
    host.do("leave 239.1.1.8")
    monitor.show("groups.json?filter=239.1.1.0/24", 2)
    for program in (*agents, monitor):
        program.stop()
    host.do("leave 239.1.1.7")


def page_until_stopped(binary, folder, host, running, page):
    """Viewers come and go until Ctrl-C, for somebody who looks at the page."""
    host.do("version 0")
    running.append(Monitor(os.path.join(os.path.dirname(binary), "zentmon"), folder, page.fileno()))
    start_two_agents(binary, folder, host, running)
    tell()
    tell("The page: http://%s:%d/    (Ctrl-C ends it all)" % page.getsockname())
    joined = []
    while running[0].process.poll() is None:
        if len(joined) < 12 or random.random() < 0.5:
            group = f"239.1.{random.randrange(4)}.{random.randrange(1, 255)}"
            if group not in joined and len(joined) < 19:  # a kernel's host may hold 20
                joined.append(group)
                host.do(f"join {group}")
        else:
            host.do("leave " + joined.pop(random.randrange(len(joined))))
        time.sleep(random.random())


def open_page_and_enter(arguments):
    """Opens the page's socket out here, where a browser is, and goes on in a network namespace of its own."""
    page = socket.socket()
    page.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        page.bind(("127.0.0.1", 8580))
    except OSError:
        page.bind(("127.0.0.1", 0))
    page.listen(128)
    page.set_inheritable(True)
    unshare = ["unshare", "-n"] if os.geteuid() == 0 else ["unshare", "-rn"]
    os.execvp("unshare", [*unshare, sys.executable, __file__, *arguments, f"--page-fd={page.fileno()}"])


def main():
    running = []
    page = None
    if sys.argv[-1] == "--page":
        open_page_and_enter(sys.argv[1:-1])
    if sys.argv[-1].startswith("--page-fd="):
        page = socket.socket(fileno=int(sys.argv[-1].split("=")[1]))
    host = Host()
    folder = tempfile.mkdtemp(prefix="zent-demo-")
    try:
        if page:
            page_until_stopped(sys.argv[1], folder, host, running, page)
            return
        to_stdout(sys.argv[1], folder, host, running)
        with_features(sys.argv[1], folder, host, running)
        to_relay(sys.argv[1], folder, host, running)
        to_zentmon(sys.argv[1], folder, host, running)
        tell()
        tell("Done; the namespaces are gone with this process.")
    except KeyboardInterrupt:
        tell("\nStopped.")
        return 130
    finally:
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # once is enough
        for agent in running:
            agent.close()
        host.close()
        shutil.rmtree(folder)
    return 0


if __name__ == "__main__":
    if sys.argv[1:] == ["--host"]:
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        host_main()
    else:
        signal.signal(signal.SIGTERM, lambda *_: (_ for _ in ()).throw(KeyboardInterrupt()))
        sys.exit(main())
