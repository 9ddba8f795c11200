"""A model of the agent: frames in, lines and complaints of the log out. Written from the documents (README.md, man/zent.8, docs/formats.md,
docs/kept-quirks.md, docs/decisions.md) by someone who had not read the sources, and to stay so: where model and agent
differ the documents decide. scripts/model runs the two side by side."""
import socket
import struct

MASK64 = (1 << 64) - 1
QUERY, REPORT_V1, REPORT_V2, LEAVE, REPORT_V3 = 0x11, 0x12, 0x16, 0x17, 0x22
MODE_IS_INCLUDE, MODE_IS_EXCLUDE, CHANGE_TO_INCLUDE, CHANGE_TO_EXCLUDE, ALLOW_NEW_SOURCES = range(1, 6)
ETHER = 14          # bytes of an Ethernet header
LEAST = ETHER + 20  # a frame that is shorter is not looked at


class Settings:
    """What command line and environment say. Groups are numbers in host byte order, 0 for a bound that is not set;
    listed is None without a list; expire is 0 for never."""

    def __init__(self, exact=False, igmpv3=False, immediate=False, expire=0, low=0, high=0, listed=None):
        self.exact, self.igmpv3, self.immediate, self.expire = exact, igmpv3, immediate, expire
        self.low, self.high, self.listed = low, high, listed

    def features(self):
        words = [word for word in ("exact", "immediate", "igmpv3") if getattr(self, word)]
        return ",".join(words + ([f"expire={self.expire}"] if self.expire else []))


class Ended(Exception):
    """The process ended: with an exit code, or by "abort"."""


def dotted(group):
    return socket.inet_ntoa(struct.pack(">I", group))


def is_multicast(group):
    return group & 0xF0000000 == 0xE0000000


def tw_shift(key):
    x = key & MASK64
    x = ((x << 21) - x - 1) & MASK64
    x ^= x >> 24
    x = x * 265 & MASK64
    x ^= x >> 14
    x = x * 21 & MASK64
    x ^= x >> 28
    return (x + (x << 31)) & MASK64


class Table:
    """Sorted chains, compared by the wrapping difference of the keys' low 32 bits: no total order, so that a far key
    in front hides others behind it."""

    def __init__(self, capacity):
        slots = 1
        while slots * 2 <= capacity * 3 // 2:
            slots *= 2
        self.chains = [[] for _ in range(slots)]
        self.known = {}  # chains by key: the hash is slow here

    def find(self, key):
        """Chain, place, whether the key stands there."""
        chain = self.known.get(key)
        if chain is None:
            chain = self.known[key] = self.chains[tw_shift(key) & (len(self.chains) - 1)]
        for place, record in enumerate(chain):
            difference = (record[0] - key) & 0xFFFFFFFF
            if difference < 0x80000000:
                return chain, place, difference == 0
        return chain, len(chain), False

    def get(self, key):
        chain, place, found = self.find(key)
        return chain[place] if found else None

    def add(self, key, value):
        """The record that is there already, or None for a new one."""
        if key == 0:
            raise Ended("abort")
        chain, place, found = self.find(key)
        if found:
            return chain[place]
        chain.insert(place, [key, value])
        return None

    def remove(self, key):
        chain, place, found = self.find(key)
        if found:
            del chain[place]
        return found

    def records(self):
        return [record for chain in self.chains for record in chain]


class Agent:
    """The agent from its start. wait() is a wait of the capture with the frames that it hands over."""

    def __init__(self, settings, now=1000):
        self.settings = settings
        self.lines = []
        self.log = []  # its lines from the level warn up, without time and process
        self.now = self.checked = now  # seconds
        self.snaplen = 2048 if settings.immediate else 8192
        self.scope = None
        self.joined = Table(max(4096, len(settings.listed or [])) if settings.exact else 512)
        self.asked = None    # time of the last general query
        self.resumed = None  # time of the query that ended the last silence

    def read_list(self):
        """The list, which is refused where a group that can be found stands there already."""
        listed, exact = self.settings.listed, self.settings.exact
        if listed is None:
            return
        scope = Table(max(len(listed), 1) if exact else 512)
        for number, group in enumerate(listed, 1):
            raw = socket.ntohl(group)  # zero-extended
            if scope.add(group if exact else raw, None):
                self.log.append(f"(ERR)  load_group_list: [LIST] duplicate at line {number}: ({raw}) {dotted(group)}\n")
                raise Ended(2)
        self.scope = scope

    def key(self, group):
        """Of a group that was heard: its address in network byte order, sign-extended."""
        if self.settings.exact:
            return group
        raw = socket.ntohl(group)
        return raw - (1 << 32) if raw & 0x80000000 else raw

    def in_scope(self, group):
        low, high = self.settings.low, self.settings.high
        if self.scope is None and not low and not high:
            return True
        if (low or high) and low <= group and (not high or group <= high):
            return True
        return self.scope is not None and self.scope.get(self.key(group)) is not None

    def wait(self, seconds, frames):
        self.now += seconds
        for frame in frames:
            self.frame(frame)
        if self.settings.expire and self.now - self.checked >= 1:
            self.checked = self.now
            self.expire()

    def frame(self, frame):
        frame = frame[:self.snaplen]
        if len(frame) < LEAST:
            return self.complain("ERR", f"packet is too small: {len(frame)} bytes")
        if frame[12:14] != b"\x08\x00":
            return self.complain("ERR", f"got non-IP packet: type={struct.unpack_from('<H', frame, 12)[0]:02x}")
        if frame[14] >> 4 != 4:
            return self.complain("ERR", f"non-IPv4: {frame[14] >> 4:x}")
        if frame[23] != 2:
            return self.complain("ERR", f"proto={frame[23]} - non-IGMP packet")
        start = ETHER + 4 * (frame[14] & 15)
        kind, group = struct.unpack(">B3xI", frame[start:start + 8].ljust(8, b"\0"))  # not captured: zero
        total, fragment = struct.unpack_from(">H2xH", frame, ETHER + 2)
        first = fragment & 0x1FFF == 0  # or no fragment at all
        end = min(len(frame), ETHER + total)
        if self.settings.expire and kind == QUERY and group == 0 and first and start + 8 <= end:
            self.query()
        if self.settings.igmpv3 and kind == REPORT_V3:
            if first:
                self.report_v3(frame, start, end)
        elif not self.settings.exact or is_multicast(group):
            if self.in_scope(group):
                self.message(kind, group)

    def complain(self, level, text):
        self.log.append(f"({level})  on_pcap_pkt: {text}\n")

    def message(self, kind, group):
        if kind in (REPORT_V1, REPORT_V2):
            self.join(group)
        elif kind == LEAVE:
            self.leave(group)

    def join(self, group):
        record = self.joined.add(self.key(group), self.now)
        if record is None:
            self.lines.append(f"JOIN UDP://{dotted(group)}\n")
        else:
            record[1] = self.now

    def leave(self, group):
        if self.joined.remove(self.key(group)):
            self.lines.append(f"LEAVE UDP://{dotted(group)}\n")

    def report_v3(self, frame, start, end):
        if end - start < 8:
            return self.complain("WRN", f"IGMPv3 report of {max(end - start, 0)} bytes is too small")
        place = start + 8
        count = struct.unpack_from(">H", frame, start + 6)[0]
        for number in range(1, count + 1):
            if end - place < 8:
                return self.complain("WRN", f"IGMPv3 report ends within record {number} of {count}")
            kind, words, sources, group = struct.unpack_from(">BBHI", frame, place)
            place += 8 + 4 * (sources + words)
            if place > end:
                return self.complain("WRN", f"IGMPv3 report ends within record {number} of {count}")
            self.record(kind, sources, group)

    def record(self, kind, sources, group):
        if not is_multicast(group) or not self.in_scope(group):
            return
        if kind in (MODE_IS_EXCLUDE, CHANGE_TO_EXCLUDE):
            self.join(group)
        elif kind in (MODE_IS_INCLUDE, CHANGE_TO_INCLUDE, ALLOW_NEW_SOURCES) and sources:
            self.join(group)
        elif kind == CHANGE_TO_INCLUDE:
            self.leave(group)

    def suspended(self):
        return self.asked is None or self.now - self.asked >= self.settings.expire

    def query(self):
        if self.suspended():
            self.resumed = self.now
        self.asked = self.now

    def group_of(self, key):
        return key if self.settings.exact else socket.htonl(key & 0xFFFFFFFF)

    def expire(self):
        if self.suspended():
            return
        over = [key for key, heard in self.joined.records()
                if self.now - max(heard, self.resumed) >= self.settings.expire]
        for key in over:
            self.leave(self.group_of(key))


def run(settings, script, agent_class=Agent):
    """The lines of a script, a list of (seconds, frames), those of the log, and the end: an exit code, or "abort"."""
    agent = agent_class(settings)
    try:
        agent.read_list()
        for seconds, frames in script:
            agent.wait(seconds, frames)
    except Ended as ended:
        return agent.lines, agent.log, ended.args[0]
    return agent.lines, agent.log, 0
