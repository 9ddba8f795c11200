"""A private segment for scripts that show or measure the agent: the network namespace that they run in, a second one
with a host in it, and a veth pair between the two. Run the script by "unshare -n"; nothing is left behind."""
import ctypes
import errno
import os
import socket
import struct
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


def lay_pair(name, other, address):
    """A veth pair with both ends in this namespace, and an address on the first."""
    run("ip", "link", "add", name, "type", "veth", "peer", "name", other)
    run("ip", "addr", "add", f"{address}/24", "dev", name)
    run("ip", "link", "set", other, "up")
    run("ip", "link", "set", name, "up")


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

    def open_link(self):
        """A packet socket on the host's end of the segment."""
        own = os.open("/proc/self/ns/net", os.O_RDONLY)
        other = os.open(f"/proc/{self.process.pid}/ns/net", os.O_RDONLY)
        try:
            if LIBC.setns(other, CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns")
            return open_link(HOST_END)
        finally:
            LIBC.setns(own, CLONE_NEWNET)
            os.close(own)
            os.close(other)

    def close(self):
        self.process.kill()
        self.process.wait()


# ---- frames ----------------------------------------------------------------------------------------------------------

REPORT, LEAVE, REPORT_V3 = 0x16, 0x17, 0x22


def frame(group, igmp, head=0x45):
    """An Ethernet frame with an IP packet to a group; igmp is what stands behind the IP header."""
    ethernet = bytes.fromhex("01005e010203020000000002") + b"\x08\x00"
    ip = struct.pack("!BBHHHBBH4s4s", head, 0, 20 + len(igmp), 0, 0, 1, 2, 0, socket.inet_aton(HOST_ADDRESS),
                     socket.inet_aton(group))
    return ethernet + ip + igmp


def message(kind, group):
    """A report or a leave of a group, by version 2."""
    return frame(group, struct.pack("!BBH4s", kind, 0, 0, socket.inet_aton(group)))


def bad_frame(chance):
    """A frame that the capture's filter lets through and that changes no group: cut, of an unknown type, a fragment,
    with a length that lies, or a version 3 report that is broken in its first record."""
    kind = chance.randrange(5)
    body = chance.randbytes(chance.randrange(0, 64))
    if kind == 0:
        return frame("239.255.255.255", b"")
    if kind == 1:
        return frame("239.255.255.255", bytes([chance.choice([0, 1, 0x13, 0x14, 0x21, 0x23, 0x30, 0xff])]) + body)
    if kind == 2:
        return frame("224.0.0.22", struct.pack("!BBHHH", REPORT_V3, 0, 0, 0, 9) + body[:7])
    if kind == 3:
        return frame("224.0.0.22", struct.pack("!BBHHHBBH4s", REPORT_V3, 0, 0, 0, 1, 4, 0, 65535, b"\xef\1\1\1") + body)
    return frame("239.255.255.255", struct.pack("!BBH4s", REPORT, 0, 0, bytes(4)), head=0x4f)


# ---- sending them ----------------------------------------------------------------------------------------------------

LIBC = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNET = 0x40000000


class _Part(ctypes.Structure):
    _fields_ = [("base", ctypes.c_char_p), ("length", ctypes.c_size_t)]


class _Head(ctypes.Structure):
    _fields_ = [("name", ctypes.c_void_p), ("name_length", ctypes.c_uint32), ("parts", ctypes.POINTER(_Part)),
                ("part_count", ctypes.c_size_t), ("control", ctypes.c_void_p), ("control_length", ctypes.c_size_t),
                ("flags", ctypes.c_int)]


class _Message(ctypes.Structure):
    _fields_ = [("head", _Head), ("sent", ctypes.c_uint)]  # the head's own padding lies between the two


class Frames:
    """A row of frames that can be sent many at a time."""

    def __init__(self, frames):
        self.count = len(frames)
        self.parts = (_Part * self.count)(*[_Part(f, len(f)) for f in frames])
        self.messages = (_Message * self.count)()
        size = ctypes.sizeof(_Part)
        for n, one in enumerate(self.messages):
            one.head.parts = ctypes.cast(ctypes.addressof(self.parts) + n * size, ctypes.POINTER(_Part))
            one.head.part_count = 1

    def send(self, link, first=0, count=None):
        """Sends so many of them, from the first one on; what finds no room is tried again."""
        end = self.count if count is None else first + count
        while first < end:
            at = ctypes.byref(self.messages, first * ctypes.sizeof(_Message))
            sent = LIBC.sendmmsg(link.fileno(), at, min(end - first, 256), 0)
            if sent < 0 and ctypes.get_errno() not in (errno.EAGAIN, errno.EINTR, errno.ENOBUFS):
                raise OSError(ctypes.get_errno(), "sendmmsg")
            first += max(sent, 0)


def open_link(name):
    """A packet socket that sends whole frames on an interface of this namespace."""
    link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    link.bind((name, 0))
    return link
