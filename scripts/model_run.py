#!/usr/bin/env python3
"""model_run.py PROGRAM [FRAMES] [SEED]: random frames through the agent (PROGRAM is zent_replay) and through its model
(model_agent.py). The lines, the log from the level warn up, each in its order, and the end of the process must be the
same; a difference is shown with the shortest input that was found for it. model_run.py PROGRAM --self-test: models with a fault are told from the agent."""
import os
import random
import resource
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

import model_agent
from model_agent import LEAVE, QUERY, REPORT_V1, REPORT_V2, REPORT_V3, Settings, dotted

POOLS = [1, 2, 3, 8, 30, 64, 300, 1000, 5000]
LIMIT_S = 600  # for a batch


class Pair:
    """Agent and model on one input. The agent runs while the model computes."""

    def __init__(self, program, model=model_agent.run):
        self.program, self.model = program, model
        self.folder = tempfile.mkdtemp(prefix="zent-model-")
        self.log = os.path.join(self.folder, "log")
        self.list = os.path.join(self.folder, "list")

    def close(self):
        shutil.rmtree(self.folder)

    def command(self, settings):
        words = [self.program, "-T", "-i", "replay", "-l", self.log, "-L", "warn"]
        words += ["-g", dotted(settings.low)] if settings.low else []
        words += ["-G", dotted(settings.high)] if settings.high else []
        if settings.listed is not None:
            with open(self.list, "w", encoding="ascii") as out:
                out.writelines(dotted(group) + "\n" for group in settings.listed)
            words += ["-F", self.list]
        return words

    def taken_log(self):
        """The lines of the log without time and process; the file is gone."""
        with open(self.log, encoding="ascii", errors="replace") as got:
            lines = [line[max(line.find("("), 0):].replace(f"[{self.list}]", "[LIST]") for line in got]
        os.unlink(self.log)
        return lines

    def compare(self, settings, script):
        """None, or what differs; and the model's lines, log and end."""
        with tempfile.TemporaryFile(dir=self.folder) as given, tempfile.TemporaryFile(dir=self.folder) as got:
            for seconds, frames in script:
                given.write(b"W" + struct.pack("<I", 1000 * seconds))
                for frame in frames:
                    given.write(b"F" + struct.pack("<I", len(frame)) + frame)
            given.seek(0)
            with subprocess.Popen(self.command(settings), stdin=given, stdout=got, stderr=subprocess.PIPE, text=True,
                                  errors="replace", env={**os.environ, "ZENT_FEATURES": settings.features()}) as child:
                try:
                    lines, log, end = self.model(settings, script)
                    complaint = child.communicate(timeout=LIMIT_S)[1]
                finally:
                    child.kill()  # one that does not end would be waited for
            got.seek(0)
            theirs = got.read().decode("ascii", "replace").splitlines(keepends=True)
        status = "abort" if child.returncode == -signal.SIGABRT else child.returncode
        found = first_difference("line", theirs, lines) or first_difference("log line", self.taken_log(), log)
        if status != end:
            found = f"{found or 'same lines'}; the agent ends with {status}, the model with {end}\n{complaint}"
        return found, lines, log, end


def first_difference(what, theirs, ours):
    if theirs == ours:
        return None
    at = next((n for n, (a, b) in enumerate(zip(theirs, ours)) if a != b), min(len(theirs), len(ours)))
    said = [repr(of[at]) if at < len(of) else "nothing more" for of in (theirs, ours)]
    return f"{what} {at + 1}: the agent has {said[0]}, the model {said[1]}"


class Maker:
    """Batches of random settings and frames."""

    def __init__(self, rng, size):
        self.rng = rng
        self.size = size
        self.pool = self.make_pool(min(rng.choice(POOLS), size * 2))
        self.settings = self.make_settings()
        self.hostile = rng.random() < 0.04  # reports of group 0.0.0.0, which may end the process
        self.cuts = rng.choice([0, 0.02, 0.3])
        listed = self.settings.listed or []
        if self.hostile or len(set(listed)) < len(listed):
            self.size = min(self.size, 300)  # what follows the end is not read

    def make_pool(self, count):
        rng = self.rng
        style = rng.randrange(4)
        base = 0xE0000000 | rng.getrandbits(28)
        if style == 0:    # anywhere
            pick = lambda: 0xE0000000 | rng.getrandbits(28)
        elif style == 1:  # last octets on both sides of 128
            pick = lambda: base & 0xFFFF0000 | rng.getrandbits(16)
        elif style == 2:  # last octets at the edges
            pick = lambda: base & 0xFF000000 | rng.getrandbits(16) << 8 | rng.choice([0, 1, 127, 128, 129, 255])
        else:             # none far apart
            pick = lambda: base & 0xFF000000 | rng.getrandbits(17) << 7 & 0xFFFF00 | rng.getrandbits(7)
        return [pick() for _ in range(count)]

    def make_settings(self):
        rng = self.rng
        half = lambda: rng.random() < 0.5
        settings = Settings(exact=half(), igmpv3=half(), immediate=half(),
                            expire=rng.choice([0, 0, 10, 11, 60, 260, 86400]))
        if rng.random() < 0.3:
            return settings
        bounds = sorted([rng.choice(self.pool), 0xE0000000 | rng.getrandbits(28)])
        way = rng.randrange(8)
        settings.low = bounds[0] if way & 1 else 0
        settings.high = bounds[1] if way & 2 else 0
        if way & 4:
            share = rng.random()
            settings.listed = self.make_list(rng.random())
        return settings

    def make_list(self, share):
        """Each group once, and now and then one twice, in an order of no kind."""
        listed = sorted({group for group in self.pool if self.rng.random() < share})
        if listed and self.rng.random() < 0.1:
            listed.append(self.rng.choice(listed))
        self.rng.shuffle(listed)
        return listed

    def group(self):
        rng = self.rng
        if rng.random() < 0.97:
            return rng.choice(self.pool)
        if rng.random() < 0.5:
            return rng.choice([0xDFFFFFFF, 0xE0000000, 0xE0000001, 0xEFFFFFFF, 0xF0000000, 0x7F000001, 0xFFFFFFFF, 1])
        return rng.getrandbits(32) if not self.hostile else 0

    def message(self, asking):
        rng = self.rng
        dice = rng.random()
        if asking and dice < 0.03:
            return struct.pack(">BBHI", QUERY, rng.getrandbits(8), 0, 0 if rng.random() < 0.8 else self.group())
        kind = (REPORT_V2 if dice < 0.45 else LEAVE if dice < 0.66 else REPORT_V1 if dice < 0.75 else
                REPORT_V3 if dice < 0.97 else rng.getrandbits(8) if dice < 0.995 or not asking else QUERY)
        if kind == QUERY and not asking:
            kind = 0
        if kind == REPORT_V3:
            return self.report_v3()
        return struct.pack(">BBHI", kind, rng.getrandbits(8), rng.getrandbits(16), self.group())

    def report_v3(self):
        rng = self.rng
        count = rng.choice([0, 1, 1, 1, 1, 2, 3, 10]) if rng.random() < 0.98 else rng.randrange(400)
        records = []
        for _ in range(count):
            sources = rng.choice([0, 0, 0, 1, 1, 2, 20])
            words = 0 if rng.random() < 0.9 else rng.choice([1, 2, 255])
            kind = rng.randrange(1, 7) if rng.random() < 0.97 else rng.getrandbits(8)
            claimed = sources if rng.random() < 0.99 else rng.choice([0, sources + 1, 65535])
            records.append(struct.pack(">BBHI", kind, words, claimed, self.group()) + rng.randbytes(4 * (sources + words)))
        told = count if rng.random() < 0.96 else rng.choice([0, max(count - 1, 0), count + 1, 65535])
        return struct.pack(">BBHHH", REPORT_V3, 0, 0, rng.choice([0, 0, 0xE000]), told) + b"".join(records)

    def frame(self, asking):
        rng = self.rng
        message = self.message(asking)
        words = rng.choice([6, 6, 6, 5, 5, rng.randrange(5, 16)])
        total = 4 * words + len(message)
        ip = bytearray(struct.pack(">BBHHHBBHII", 0x40 | words, 0xC0, total, rng.getrandbits(16), 0, 1, 2, 0,
                                   rng.getrandbits(32), rng.getrandbits(32)) + rng.randbytes(4 * words - 20))
        ether = bytearray(12) + b"\x08\x00"
        if rng.random() < 0.1:
            self.bend(ether, ip)
        frame = bytes(ether + ip) + message
        if rng.random() < 0.3:
            frame += bytes(rng.randrange(47)) if rng.random() < 0.5 else rng.randbytes(rng.randrange(47))
        if rng.random() < self.cuts:
            frame = frame[:rng.randrange(len(frame) + 1)]
        return frame

    def bend(self, ether, ip):
        """One thing that is not as it should be, or not as usual."""
        rng = self.rng
        way = rng.randrange(7)
        if way == 0:
            ether[12:14] = rng.choice([b"\x86\xdd", b"\x08\x06", b"\x81\x00", b"\x00\x08"])
        elif way == 1:
            ip[0] = rng.getrandbits(4) << 4 | ip[0] & 15
        elif way == 2:
            ip[0] = 0x40 | rng.getrandbits(4)
        elif way == 3:
            ip[9] = rng.choice([0, 1, 2, 3, 6, 17, 255])
        elif way == 4:
            ip[2:4] = struct.pack(">H", rng.choice([0, 19, 20, 27, 28, 32, 33, 40, 44, 9000, 65535]))
        elif way == 5:
            ip[6:8] = struct.pack(">H", rng.choice([1, 0x1FFF, 0x2000, 0x4000, 0x8000, 0x2001]))
        else:
            ip[4:6] = rng.choice([b"\x16\x00", b"\x22\x00", b"\x17\x16"])

    @staticmethod
    def zero_report(frame):
        """Whether a frame is, or may be cut to, a report of group 0.0.0.0."""
        if len(frame) < 34:
            return False
        start = 14 + 4 * (frame[14] & 15)
        message = frame[start:start + 8].ljust(8, b"\0")
        return message[0] in (REPORT_V1, REPORT_V2) and not any(message[4:])

    def script(self):
        rng = self.rng
        script, left = [], self.size
        asking = rng.random() < 0.7
        burst = rng.choice([1, 5, 50, 400])
        limit = self.settings.expire or 10
        while left > 0:
            if rng.random() < 0.1:
                asking = not asking
            frames = [self.frame(asking) for _ in range(min(left, rng.randrange(burst + 1)))]
            if not self.hostile:
                frames = [frame for frame in frames if not self.zero_report(frame)]
            wait = rng.choice([0, 1, 1, 2, 5, limit // 3]) if rng.random() < 0.9 else max(0, limit + rng.randrange(-2, 3))
            script.append((wait, frames))
            left -= max(len(frames), 1)
        return script


def pieces(items, differs):
    """The fewest items that still differ, by leaving out ever smaller pieces."""
    size = max(len(items) // 2, 1)
    while True:
        start, smaller = 0, False
        while start < len(items):
            tried = items[:start] + items[start + size:]
            if differs(tried):
                items, smaller = tried, True
            else:
                start += size
        if size == 1 and not smaller:
            return items
        size = max(size // 2, 1)


def simpler_settings(settings):
    """Each with one thing less."""
    plain = Settings()
    for name, value in vars(settings).items():
        if value != getattr(plain, name):
            yield Settings(**{**vars(settings), name: getattr(plain, name)})


def as_items(script):
    """Waits and frames in one row, so that each can be left out."""
    return [item for seconds, frames in script for item in (seconds, *frames)]


def as_script(items):
    script = []
    for item in items:
        if isinstance(item, int):
            script.append((item, []))
        else:
            script = script or [(0, [])]
            script[-1][1].append(item)
    return script


def shrink(pair, settings, script):
    """The shortest settings and script that were found to differ: items, settings, list, then bytes of the frames."""
    differs = lambda items, of: pair.compare(of, as_script(items))[0] is not None
    items = pieces(as_items(script), lambda tried: differs(tried, settings))
    again = True
    while again:
        again = False
        for tried in simpler_settings(settings):
            if differs(items, tried):
                settings, again = tried, True
                break
    if settings.listed:
        vary = lambda listed: Settings(**{**vars(settings), "listed": listed})
        settings = vary(pieces(settings.listed, lambda listed: differs(items, vary(listed))))
    for place, item in enumerate(items):
        while not isinstance(item, int) and item and differs(
                items[:place] + [item[:-1]] + items[place + 1:], settings):
            item = items[place] = item[:-1]
    return settings, as_script(pieces(items, lambda tried: differs(tried, settings)))


def show(pair, settings, script):
    print(f"  ZENT_FEATURES={settings.features()} {' '.join(pair.command(settings)[1:])}")
    if settings.listed is not None:
        print(f"  list: {' '.join(map(dotted, settings.listed))}")
    for seconds, frames in script:
        print(f"  wait {seconds} s")
        for frame in frames:
            print(f"  frame {frame.hex()}")
    found, lines, _, _ = pair.compare(settings, script)
    print(f"  {found}\n  the model's lines: {''.join(lines).split(chr(10))[:-1]}")


def batches(frames, seed):
    """Each batch from a seed of its own, so that it can be made again alone."""
    number, most = 0, max(frames // 8, 1)
    while frames > 0:
        rng = random.Random(f"{seed}/{number}")
        maker = Maker(rng, min(frames, most, rng.choice([40, 300, 300, 1500, 1500, 8000])))
        script = maker.script()
        frames -= sum(len(part) for _, part in script)
        yield number, maker.settings, script
        number += 1


def compare_all(pair, frames, seed):
    start, lines, told, given, aborted, refused, batch = time.monotonic(), 0, 0, 0, 0, 0, 0
    for batch, settings, script in batches(frames, seed):
        try:
            found, expected, log, end = pair.compare(settings, script)
        except subprocess.TimeoutExpired:
            print(f"model: seed {seed}, batch {batch}: the agent has not ended in {LIMIT_S} s")
            return False
        lines += len(expected)
        told += len(log)
        given += sum(len(part) for _, part in script)
        aborted += end == "abort"
        refused += end == 2
        if found:
            print(f"model: seed {seed}, batch {batch} differs: {found}\nThe shortest input found:", flush=True)
            show(pair, *shrink(pair, settings, script))
            return False
    print(f"model: {given} frames in {batch + 1} batches (seed {seed}), {lines} lines, {told} of the log, {aborted} batches "
          f"ended by abort, {refused} by a refused list: no difference, {time.monotonic() - start:.1f} s")
    return True


class DeafToLeaves(model_agent.Agent):
    def leave(self, group):
        pass


class Uncomplaining(model_agent.Agent):
    def complain(self, level, text):
        pass


class HearsVersion3Always(model_agent.Agent):
    def frame(self, frame):
        plain, self.settings.igmpv3 = self.settings.igmpv3, True
        super().frame(frame)
        self.settings.igmpv3 = plain


class TotalOrder(model_agent.Table):
    """A table that hides nothing."""

    def find(self, key):
        chain, _, _ = super().find(key)
        for place, record in enumerate(chain):
            if record[0] == key:
                return chain, place, True
        return chain, len(chain), False


class FindsAll(model_agent.Agent):
    def __init__(self, settings):
        super().__init__(settings)
        self.joined = TotalOrder(512)


def faulty(agent_class):
    return lambda settings, script: model_agent.run(settings, script, agent_class)


def self_test(program):
    """A comparison that finds nothing would be no comparison: each of these has to be found, in so many frames."""
    failed = False
    for fault, most in ((DeafToLeaves, 2), (Uncomplaining, 1), (HearsVersion3Always, 2), (FindsAll, 8)):
        pair = Pair(program, faulty(fault))
        result = None
        for number in range(200):
            maker = Maker(random.Random(f"self-test/{number}"), 1200 if fault is FindsAll else 150)
            if fault is FindsAll and len(maker.pool) < 1000:
                continue
            maker.settings, maker.hostile = Settings(), False
            script = maker.script()
            if pair.compare(maker.settings, script)[0]:
                result = shrink(pair, maker.settings, script)
                break
        count = sum(len(part) for _, part in result[1]) if result else None
        good = count is not None and count <= most
        print(f"{fault.__name__}: {count} frames show it" + ("" if good else f", FAILED: at most {most} were expected"))
        failed = failed or not good
        pair.close()
    return not failed


def main():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))  # an abort is an outcome here
    if sys.argv[2:] == ["--self-test"]:
        return self_test(sys.argv[1])
    if not 2 <= len(sys.argv) <= 4:
        sys.exit(__doc__)
    frames = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
    seed = sys.argv[3] if len(sys.argv) > 3 else str(random.SystemRandom().randrange(10**6))
    pair = Pair(sys.argv[1])
    try:
        return compare_all(pair, frames, seed)
    finally:
        pair.close()


if __name__ == "__main__":
    sys.exit(not main())
