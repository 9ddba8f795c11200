#!/usr/bin/env python3
"""The demo itself; scripts/demo runs it inside a private network namespace.

This process makes a second namespace with a host in it, joins the two by a veth pair and runs the agent on its own
end. The host lives as long as the pipe from here does, so nothing can be left behind.
"""
import os
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

from segment import AGENT_END, HOST_END, Peer, wait_for

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

    def __init__(self, binary, folder, name, relay=None, features=""):
        self.log = f"{folder}/{name}.log"  # one a run: the old one must not look ready
        arguments = ["-T", "-i", AGENT_END, "-l", self.log, "-L", "info"]
        if relay:
            arguments += ["-R", "%s:%d" % RELAY]
        setting = f"ZENT_FEATURES={features} " if features else ""
        tell(f"$ {setting}zent " + " ".join(arguments))
        self.errors = open(f"{folder}/stderr", "w+")
        self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", binary, *arguments],
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


def main():
    running = []
    host = Host()
    folder = tempfile.mkdtemp(prefix="zent-demo-")
    try:
        to_stdout(sys.argv[1], folder, host, running)
        with_features(sys.argv[1], folder, host, running)
        to_relay(sys.argv[1], folder, host, running)
        tell()
        tell("Done; the namespaces are gone with this process.")
    except KeyboardInterrupt:
        tell("\nStopped.")
        return 130
    finally:
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
