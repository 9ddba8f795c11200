"""A private segment for scripts that show or measure the agent: the network namespace that they run in, a second one
with a host in it, and a veth pair between the two. Run the script by "unshare -n"; nothing is left behind."""
import os
import subprocess
import time

AGENT_END, HOST_END = "seg0", "host0"
AGENT_ADDRESS, HOST_ADDRESS = "10.9.0.1", "10.9.0.2"
LIMIT_S = 10  # for the second namespace to appear


def run(*command):
    subprocess.run(command, check=True)


def wait_for(condition, limit, what):
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            raise SystemExit(f"gave up waiting for {what}")
        time.sleep(0.01)


class Peer:
    """The host: a command in a network namespace of its own. It must end by itself where its standard input does."""

    def __init__(self, *command):
        self.process = subprocess.Popen(["unshare", "-n", *command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)
        own = os.readlink("/proc/self/ns/net")
        wait_for(lambda: os.readlink(f"/proc/{self.process.pid}/ns/net") != own, LIMIT_S, "the second namespace")

    def inside(self, *command):
        """The command line that runs a command in the host's namespace."""
        return ["nsenter", "-t", str(self.process.pid), "-n", *command]

    def join_segment(self):
        """Lays the veth pair: AGENT_END here, HOST_END there, both up and with an address."""
        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", AGENT_END, "type", "veth", "peer", "name", HOST_END, "netns", str(self.process.pid))
        run("ip", "addr", "add", f"{AGENT_ADDRESS}/24", "dev", AGENT_END)
        run("ip", "link", "set", AGENT_END, "up")
        run(*self.inside("ip", "addr", "add", f"{HOST_ADDRESS}/24", "dev", HOST_END))
        run(*self.inside("ip", "link", "set", HOST_END, "up"))
        run(*self.inside("ip", "route", "add", "224.0.0.0/4", "dev", HOST_END))

    def close(self):
        self.process.kill()
        self.process.wait()
