"""The call sites of lib/, agent/ and common/ that can fail, for scripts/faults --sites: which there are, by the
disassembly; which of them a call that failed has been at, by its return addresses; and the tests of library and agent as
programs that come by what is left.

A call can fail if tests/faults/faults.c has it, or if it is a checked call of syswrap.h, which hands such a failure on.
tests/fault_sites.toml has the sites that nothing comes by, each with its reason."""
import collections
import concurrent.futures
import functools
import glob
import os
import re
import shutil
import signal
import subprocess
import tomllib

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CALL = re.compile(r"^ +[0-9a-f]+:\s+(?:call|jmp)\s+[0-9a-f]+ <([A-Za-z_]\w*)(@plt)?>$")
NEXT = re.compile(r"^ +([0-9a-f]+):")
SOURCE = re.compile(r"(?<!tests/)\b((?:lib|agent|common)/[\w/]+\.(?:cpp|h)):(\d+)")
CHECKED = re.compile(r"W_\w+")
FRAME = re.compile(r"\b(lib|agent|common|tests)/[\w/]+\.(?:cpp|h):\d+")
BODY = re.compile(r"(\w+_Test)::TestBody\(\)")
ENDS = re.compile(r"\b(?:ASSERT|log_panic)\(")  # and flush the log on the way: the process ends whatever comes of it
LOOK_LIMIT = 60   # seconds, for all tests of a program
TEST_LIMIT = 30   # for one
WORK_LIMIT = 10   # of processor time, which none needs
TRIES = 4         # tests that are asked to fail a site: not each comes by it each time

Site = collections.namedtuple("Site", "file line call")
Place = collections.namedtuple("Place", "function file line")
Stack = collections.namedtuple("Stack", "kind call frames")  # as the shim tells it; frames are (object, offset)
Way = collections.namedtuple("Way", "seconds command stack")


def text_of(*command, given=None):
    return subprocess.run(command, input=given, capture_output=True, text=True, check=True).stdout


def parents():
    """{process: its parent}, of all that live; those that have ended are taken where this process is to do that."""
    found = {}
    for path in glob.glob("/proc/[0-9]*/stat"):
        try:
            name, _, rest = read(path).rpartition(")")
        except (FileNotFoundError, ProcessLookupError):
            continue
        pid, (state, parent) = int(name.split()[0]), rest.split()[:2]
        if state != "Z":
            found[pid] = int(parent)
        elif int(parent) == os.getpid():
            os.waitpid(pid, os.WNOHANG)
    return found


def descendants():
    """Of this process, those too that have become so where their parents ended."""
    parent_of, found, last = parents(), set(), {os.getpid()}
    while last:
        last = {pid for pid, parent in parent_of.items() if parent in last}
        found |= last
    return found


def kill(pid):
    try:
        os.kill(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass  # it has ended since


def command_of(pid):
    try:
        return f"{pid} {read(f'/proc/{pid}/cmdline')}".replace("\0", " ")
    except (FileNotFoundError, ProcessLookupError):
        return f"{pid}, which has ended since"


def has_setting(pid, text):
    """Whether it was started with that setting in its environment."""
    try:
        return text in read(f"/proc/{pid}/environ").split("\0")
    except OSError:
        return False


def read(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


def address_of(word):
    thing, offset = word.rsplit(":", 1)
    return thing, int(offset, 16)


def stack_of(words):
    """Of the words of a line of the shim."""
    kind, call, *frames = words
    return Stack(kind, call, tuple(map(address_of, frames)))


def line_of(stack):
    """What the shim is to look for."""
    return " ".join(["stack", stack.kind, stack.call, *(f"{thing}:{offset:x}" for thing, offset in stack.frames)])


@functools.cache
def source_lines(file):
    return read(os.path.join(ROOT, file)).split("\n")


def source_line(site):
    return source_lines(site.file)[site.line - 1].strip()


class Places:
    """Functions and places of return addresses, innermost first: one that is inlined stands within another."""

    def __init__(self):
        self.known = {}  # {(object, offset): [Place]}, without what is not of our sources
        self.tests = {}  # {(object, offset): class of the test whose body stands there}

    def learn(self, addresses):
        unknown = collections.defaultdict(set)
        for thing, offset in addresses:
            if (thing, offset) not in self.known:
                unknown[thing].add(offset)
        for thing, offsets in unknown.items():
            if thing.startswith("/"):
                self.ask(thing, sorted(offsets))
            else:  # a program of the system that a test has started
                self.known.update({(thing, offset): [] for offset in offsets})

    def ask(self, thing, offsets):
        text = text_of("addr2line", "-aCfie", thing, given="\n".join(f"{offset - 1:x}" for offset in offsets))
        for offset, part in zip(offsets, re.split(r"^0x[0-9a-f]+\n", text, flags=re.M)[1:], strict=True):
            lines = part.split("\n")
            found = [(function, SOURCE.search(place)) for function, place in zip(lines[::2], lines[1::2])]
            self.known[thing, offset] = [Place(function, place[1], int(place[2])) for function, place in found if place]
            body = BODY.search(part)
            if body:
                self.tests[thing, offset] = body[1]

    def of(self, address):
        return self.known[address]

    def test_of(self, stack):
        """The class of the test within which a call was made."""
        return next((self.tests[frame] for frame in reversed(stack.frames) if frame in self.tests), None)


class Sites:
    def __init__(self, build, shim, binaries):
        self.build, self.shim = os.path.abspath(build), shim
        self.places, self.failed = Places(), set()
        names = {line.split()[2] for line in text_of("nm", "-D", shim).split("\n") if " T " in line}
        self.every = set()
        for binary in map(os.path.abspath, binaries):
            calls = self.calls_in(binary, lambda name: name in names or name.startswith("W_"))
            self.places.learn(calls)
            for address, call in calls.items():
                self.every |= {Site(place.file, place.line, call) for place in self.places.of(address)[:1]}
        self.every = {site for site in self.every if site.call != "fflush" or not ENDS.search(source_line(site))}

    @staticmethod
    def calls_in(binary, can_fail):
        """{return address: name of the called function}"""
        calls, pending = {}, None
        for line in text_of("objdump", "-d", "--no-show-raw-insn", binary).split("\n"):
            at = NEXT.match(line)
            if pending and at:
                calls[binary, int(at[1], 16)] = pending
            call = CALL.match(line)
            pending = call[1] if call and can_fail(call[1]) else None
        return calls

    def learn(self, stacks):
        self.places.learn({frame for stack in stacks for frame in stack.frames})

    def of(self, stack):
        """The sites that have failed where such a call has: its own, and that of the checked call which hands its failure
        on. A test may stand between a call and its site: it wraps the call."""
        ours = [place for frame in stack.frames for place in self.places.of(frame)]
        sites = {Site(place.file, place.line, stack.call) for place in ours[:1]} & self.every
        if sites and ours[0].file == "lib/syswrap.cpp":
            checked = [name[0] for name in (CHECKED.match(place.function) for place in ours) if name]
            callers = [place for place in ours if place.file not in ("lib/syswrap.cpp", "lib/detail/checked.h")]
            sites |= {Site(place.file, place.line, checked[0]) for place in callers[:1] if checked} & self.every
        return sites

    def missing(self):
        return self.every - self.failed


def load_list(path):
    with open(path, "rb") as file:
        return tomllib.load(file).get("never", [])


def wraps(test, call):
    """Whether a test program makes this call itself, and so can make it fail."""
    name = call.removeprefix("W_").lower()
    return any(re.search(rf"^WRAPPED\w*\(.*\b{name}\b", read(path), re.M) for path in glob.glob(f"{ROOT}/tests/*/{test}.cpp"))


def compare(never, entries, line_text):
    """What is wrong with the list, for these sites that were never failed."""
    never, found = set(never), []
    for entry in entries:
        if not entry.get("reason"):
            found.append(f"{entry['file']}: {entry['lines']}: has no reason")
        for text in entry["lines"]:
            spoken = {site for site in never if site.file == entry["file"] and line_text(site) == text}
            if not spoken:
                found.append(f"{entry['file']}: {text}: is in the list, but was failed, or is gone")
            if len({site.line for site in spoken}) > 1:
                found.append(f"{entry['file']}: {text}: stands there more than once: which line is meant?")
            found += [f"{entry['file']}: {text}: {entry['test']} does not wrap {site.call}" for site in spoken
                      if "test" in entry and not wraps(entry["test"], site.call)]
            never -= spoken
    return found + [f"{site.file}:{site.line}: {site.call}: was never failed, and is not in the list: {line_text(site)}"
                    for site in sorted(never)]


# ---- tests as programs -----------------------------------------------------------------------------------------------


class Tests:
    """Each test of library and agent comes by some sites. It need not succeed where a call fails; but nothing of ours
    may crash or loop then."""

    def __init__(self, sites, folder, code_of_kind, jobs):
        self.sites, self.folder, self.code_of_kind = sites, folder, code_of_kind
        self.pool = concurrent.futures.ThreadPoolExecutor(jobs)
        self.count, self.findings = 0, []
        self.others = descendants()

    def programs(self):
        for source in sorted(glob.glob(f"{ROOT}/tests/lib/*_test.cpp") + glob.glob(f"{ROOT}/tests/agent/*_test.cpp")):
            yield os.path.join(self.sites.build, "tests", os.path.basename(source)[:-4])

    @staticmethod
    def names(program):
        """Its tests: {name of the test's class: what selects it}."""
        found, suite = {}, ""
        for line in text_of(program, "--gtest_list_tests").split("\n"):
            name = line.split("#")[0].strip()
            if name and not line.startswith(" "):
                suite = name
            elif name:  # "Prefix/Suite." and "name/0", where a test has parameters
                found[f"{suite.split('/')[-1][:-1]}_{name.split('/')[0]}_Test"] = f"--gtest_filter={suite}{name}"
        return found

    def run(self, number, command, faults):
        """Runs tests under the shim: (its report's lines, what they wrote, complaints, how they ended, their folder)."""
        folder = os.path.join(self.folder, f"test{number}")
        os.mkdir(folder)
        os.chmod(folder, 0o777)
        report = os.path.join(folder, "report")
        with open(report, "w", encoding="ascii"):
            os.chmod(report, 0o666)  # a test may become another user
        env = {**os.environ, **faults, "FAULTS_REPORT": report, "LD_PRELOAD": self.sites.shim, "TMPDIR": folder,
               "ASAN_OPTIONS": f"detect_leaks=0:verify_asan_link_order=0:log_path={folder}/asan",
               "UBSAN_OPTIONS": f"print_stacktrace=1:log_path={folder}/asan"}
        with open(os.path.join(folder, "out"), "wb") as file:
            child = subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL, stdout=file, stderr=file, cwd=folder,
                                     start_new_session=True)
            try:
                status = child.wait(LOOK_LIMIT if len(command) == 1 else TEST_LIMIT)
            except subprocess.TimeoutExpired:
                status = None
            try:
                os.killpg(child.pid, signal.SIGKILL)  # what it has left
            except ProcessLookupError:
                pass
        complaints = []
        if status is None and self.worked(child) > WORK_LIMIT and len(command) > 1:
            complaints.append("goes round in circles")
        if status is not None and status < 0 and status != -signal.SIGABRT:
            complaints.append(f"is ended by {signal.Signals(-status).name}")
        complaints += [text for path in glob.glob(f"{folder}/asan.*") for text in self.sanitizer(path)]
        lines = read(report).split("\n")
        out = read(os.path.join(folder, "out"))
        if not complaints:
            shutil.rmtree(folder)
        return lines, out, complaints, status, folder

    @staticmethod
    def worked(child):
        """The processor time of one that was killed. Of a test that waits for what never comes there is little."""
        _, _, usage = os.wait4(child.pid, 0)
        return usage.ru_utime + usage.ru_stime

    @staticmethod
    def sanitizer(path):
        """What a sanitizer says, if the innermost of our sources is not a test's: tests go on with what they got."""
        text = read(path)
        frame = FRAME.search(text)
        return [] if frame and frame[1] == "tests" else [f"sanitizer: {' '.join(text.split()[:60])}"]

    def look(self):
        """{site: the ways to it, the shortest first}. All tests of a program are run in one process, and alone what does
        not go well so."""
        programs = list(self.programs())
        tests = [self.names(program) for program in programs]
        found = []
        for program, names, result in zip(programs, tests, self.show([(program,) for program in programs])):
            found += self.ways_of(program, names, *result)
            well = self.seconds(result[1])
            alone = [(program, test) for test in names.values() if test not in well]
            for result in self.show(alone):
                found += self.ways_of(program, names, *result)
        ways = collections.defaultdict(list)
        for way in sorted(found, key=lambda way: way.seconds):
            for site in self.sites.of(way.stack):
                ways[site].append(way)
        return sum(map(len, tests)), ways

    def show(self, commands):
        run = functools.partial(self.run, faults={"FAULTS_KIND": "sites"})
        return self.pool.map(run, self.numbers(len(commands)), commands)

    @staticmethod
    def seconds(out):
        """What each test that went well took."""
        return {f"--gtest_filter={name}": int(ms) / 1000
                for name, ms in re.findall(r"^\[ +OK \] (\S+) \((\d+) ms\)", out, re.M)}

    def ways_of(self, program, names, lines, out, *_):
        """Whose call a stack is, the outermost of a test's functions in it says."""
        seconds = self.seconds(out)
        stacks = [stack_of(line.split(" ")[1:]) for line in lines if line.startswith("stack ")]
        self.sites.learn(stacks)
        for stack in stacks:
            test = names.get(self.sites.places.test_of(stack))
            if test in seconds and self.code_of_kind(stack.kind) is not None:
                yield Way(seconds[test], (program, test), stack)

    def close(self):
        """Ends what the tests have left, for instance a daemon in a session of its own."""
        self.pool.shutdown()
        for pid in descendants() - self.others:
            kill(pid)

    def numbers(self, count):
        self.count += count
        return range(self.count - count, self.count)

    def fail(self, ways):
        """Fails each site that is left, by the shortest way that was not tried; the number of runs."""
        runs = 0
        for _ in range(TRIES):
            plan, planned = [], set()
            for site in sorted(self.sites.missing()):
                if site not in planned and ways[site]:
                    plan.append(ways[site].pop(0))
                    planned |= self.sites.of(plan[-1].stack)
            runs += len(plan)
            for way, result in zip(plan, self.pool.map(self.try_way, self.numbers(len(plan)), plan)):
                self.note(way, *result)
        return runs

    def try_way(self, number, way):
        return self.run(number, way.command, {"FAULTS_KIND": way.stack.kind, "FAULTS_STACK": line_of(way.stack),
                                              "FAULTS_CODE": str(self.code_of_kind(way.stack.kind))})

    def note(self, way, lines, _out, complaints, _status, folder):
        if any(line.startswith("hit ") for line in lines):
            self.sites.failed |= self.sites.of(way.stack)
        for complaint in complaints:
            print(f"FINDING {' '.join(way.command)}: {way.stack.call}: {complaint} ({folder})", flush=True)
            self.findings.append(complaint)
