#!/usr/bin/env python3
"""The work of scripts/faults, which says what the options are: programs under tests/faults/faults.c, one run for each
call that can fail, many runs at once on one private segment. To be run by "unshare -n", as root."""
import argparse
import collections
import ctypes
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

import fault_sites
import faults_programs

UP_LIMIT = 30      # until a program waits for events, or has ended
END_LIMIT = 20     # from SIGTERM to the end
LEAK_LIMIT = 60    # the same where LeakSanitizer looks then
ONCE_LIMIT = 5     # complaints that do not show again
FOREIGN_END = re.compile(r"process \d+ is ended by|ends by itself with|ends with -?\d+ and without a word")
PR_SET_CHILD_SUBREAPER = 36
LEAKS = os.path.abspath(os.path.join(os.path.dirname(__file__), "../tests/faults/leaks.txt"))

# By kind of the shim, what the manual pages name and a kernel may answer to a call whose arguments are right: no EBADF,
# EFAULT, ENOTSOCK and the like. EINVAL stands where such a call may meet it. EAI codes and libpcap's are results, not errno.
FILE_ERRORS = ("EACCES EEXIST EINTR EISDIR ELOOP EMFILE ENAMETOOLONG ENFILE ENOENT ENOMEM ENOSPC ENOTDIR ENXIO EROFS "
               "EPERM EDQUOT")
ERRORS = {
    "alloc": "ENOMEM", "mmap": "ENOMEM EAGAIN EACCES ENFILE EPERM EINVAL EOVERFLOW", "munmap": "EINVAL",
    "open": FILE_ERRORS, "memfd": "EMFILE ENFILE ENOMEM EPERM EINVAL", "fopen": FILE_ERRORS, "fopencookie": "ENOMEM",
    "readdir": "ENOENT EOVERFLOW", "read": "EIO EINTR EAGAIN EISDIR", "fgets": "EIO",
    "write": "EIO EINTR EAGAIN ENOSPC EDQUOT EFBIG EPIPE", "print": "EIO ENOSPC EFBIG EAGAIN EPIPE",
    "close": "EIO EINTR ENOSPC EDQUOT", "fclose": "EIO ENOSPC",
    "stat": "EACCES ENOENT ENOMEM ELOOP EOVERFLOW ENOTDIR ENAMETOOLONG",
    "readlink": "EACCES EINVAL EIO ELOOP ENAMETOOLONG ENOENT ENOMEM ENOTDIR",
    "rename": "EACCES ENOENT ENOSPC EROFS", "unlink": "EACCES EBUSY ENOENT EIO EROFS EISDIR ENOTDIR EPERM",
    "truncate": "EINVAL EIO EFBIG EROFS", "fsync": "EIO ENOSPC EDQUOT EROFS EINVAL", "seek": "ESPIPE EINVAL",
    "chdir": "EACCES ELOOP ENOENT ENOTDIR EIO ENOMEM",
    "getcwd": "EACCES ENOENT ENOMEM ERANGE", "fcntl": "EACCES EAGAIN EDEADLK EINTR EINVAL EMFILE ENOLCK EPERM",
    "fcntl64": "EAGAIN EINVAL ENOLCK", "ioctl": "EINVAL ENOTTY EPERM ENODEV", "dup": "EMFILE EINTR EBUSY",
    "pipe": "EMFILE ENFILE", "socket": "EACCES EAFNOSUPPORT EINVAL EMFILE ENFILE ENOBUFS ENOMEM EPROTONOSUPPORT EPERM",
    "setsockopt": "EACCES EADDRINUSE EADDRNOTAVAIL EINVAL ENOBUFS ENODEV ENOMEM ENOPROTOOPT EPERM",
    "getsockopt": "ENOPROTOOPT EINVAL", "bind": "EACCES EADDRINUSE EADDRNOTAVAIL EINVAL ENOMEM",
    "connect": "EACCES EADDRINUSE EADDRNOTAVAIL EAGAIN ECONNREFUSED EINPROGRESS EINTR ENETUNREACH ETIMEDOUT EPERM",
    "listen": "EADDRINUSE", "accept": "EAGAIN ECONNABORTED EINTR EMFILE ENFILE ENOBUFS ENOMEM EPERM EPROTO",
    "shutdown": "ENOTCONN EINVAL", "sockname": "ENOBUFS ENOTCONN",
    "send": "EACCES EAGAIN ECONNREFUSED EINTR EMSGSIZE ENETUNREACH ENETDOWN EHOSTUNREACH ENOBUFS ENOMEM EPERM EPIPE",
    "recv": "EAGAIN ECONNREFUSED EINTR ENOMEM",
    "getaddrinfo": "EAI_AGAIN EAI_FAIL EAI_FAMILY EAI_MEMORY EAI_NONAME EAI_SYSTEM EAI_SERVICE EAI_SOCKTYPE EAI_BADFLAGS "
                   "EAI_NODATA EAI_ADDRFAMILY",
    "getnameinfo": "EAI_AGAIN EAI_FAIL EAI_MEMORY EAI_SYSTEM", "getifaddrs": "EACCES EMFILE ENOBUFS ENOMEM",
    "gethostname": "ENAMETOOLONG", "getrandom": "EAGAIN EINTR ENOSYS",
    "ifname": "ENXIO ENODEV", "fork": "EAGAIN ENOMEM ENOSYS", "waitpid": "ECHILD EINTR", "thread": "EAGAIN EPERM",
    "setsid": "EPERM",
    "setuid": "EAGAIN EINVAL EPERM ENOMEM", "passwd": "EINTR EIO EMFILE ENFILE ENOMEM ERANGE", "sigaction": "EINVAL",
    "setitimer": "EINVAL", "process": "EPERM EINTR EINVAL ENOMEM EFAULT", "rlimit": "EINVAL EPERM",
    "clock": "EINVAL EPERM", "localtime": "EOVERFLOW",
    "epoll": "EMFILE ENFILE ENOMEM EINVAL", "epoll_ctl": "EEXIST EINVAL ENOENT ENOMEM ENOSPC EPERM",
    "eventfd": "EMFILE ENFILE ENODEV ENOMEM",
    "inotify": "EMFILE ENFILE ENOMEM ENOSPC EACCES ENOENT EINVAL", "wait": "EINTR EINVAL ENOMEM",
    "pcap_lookupnet": "EIO", "pcap_open": "EIO", "pcap_set": "PCAP_ERROR_ACTIVATED PCAP_ERROR",
    "pcap_activate": "PCAP_ERROR PCAP_ERROR_NO_SUCH_DEVICE PCAP_ERROR_PERM_DENIED PCAP_ERROR_IFACE_NOT_UP "
                     "PCAP_ERROR_RFMON_NOTSUP",
    "pcap_compile": "EIO", "pcap_setfilter": "EIO", "pcap_setnonblock": "EIO", "pcap_fd": "EIO", "pcap_dispatch": "EIO",
}
RESULTS = {"PCAP_ERROR": -1, "PCAP_ERROR_ACTIVATED": -4, "PCAP_ERROR_NO_SUCH_DEVICE": -5, "PCAP_ERROR_RFMON_NOTSUP": -6,
           "PCAP_ERROR_PERM_DENIED": -8, "PCAP_ERROR_IFACE_NOT_UP": -9}


def lasting(errors):
    """Those that a call is made to fail with from some time on: the first, and those upon which programs try again."""
    return errors[:1] + [error for error in errors[1:] if error in ("EINTR", "EAGAIN")]


def code_of(name):
    import errno
    return RESULTS[name] if name in RESULTS else getattr(socket, name) if name.startswith("EAI") else getattr(errno, name)


class Fault:
    """One kind, one code, "only" or "on", counted from 1; of one call site alone, where a stack is given."""

    def __init__(self, kind, error, on, nth, stack=None):
        self.kind, self.error, self.on, self.nth, self.stack = kind, error, on, nth, stack

    def __str__(self):
        where = f" of {self.stack.call}" if self.stack else ""
        return f"{self.kind} {self.nth}{' and on' if self.on else ''}{where} {self.error}"

    def code(self):
        return code_of(self.error)

    def environment(self):
        env = {"FAULTS_KIND": self.kind, "FAULTS_NTH": str(self.nth), "FAULTS_CODE": str(self.code())}
        if self.stack:
            env["FAULTS_STACK"] = fault_sites.line_of(self.stack)
        return {**env, "FAULTS_ON": "1"} if self.on else env


SOUND = Fault("none", "EIO", False, 1)


class Report:
    """What the shim wrote of a run."""

    def __init__(self, path):
        self.hits, self.children, self.parents, self.ends = [], [], set(), {}
        self.counts = collections.Counter()
        self.stacks = []
        self.waits, self.ended, self.signals, self.frames = set(), set(), set(), set()
        try:
            with open(path, encoding="ascii", errors="replace") as file:
                lines = file.read().split("\n")[:-1]
        except FileNotFoundError:
            lines = []
        for line in lines:
            word, *rest = line.split(" ")
            if word == "hit":
                self.hits.append((int(rest[0]), rest[1], rest[2], int(rest[3], 16)))
            elif word == "within":
                self.frames |= set(map(fault_sites.address_of, rest))
            elif word == "stack":
                self.stacks.append(fault_sites.stack_of(rest))
            elif word == "child":
                self.children.append(int(rest[1]))
                self.parents.add(int(rest[0]))
            elif word == "waits":
                self.waits.add(int(rest[0]))
            elif word == "signal":
                self.signals.add(int(rest[0]))
            elif word == "call":
                self.counts[rest[0]] += 1
            elif word == "end" and len(rest) == 1:
                self.ended.add(int(rest[0]))
            elif word == "end":
                self.ends.setdefault(int(rest[0]), []).append((int(rest[1]), rest[2]))


class Run:
    """A process of a program, with the processes that it starts."""

    def __init__(self, program, fault, folder, shim):
        self.program, self.fault, self.folder = program, fault, folder
        self.report_path = os.path.join(folder, "report")
        self.unsettled = False
        self.left = []  # processes, after the end
        self.status = {}  # of each process: as of waitpid
        env = {**os.environ, **program.environment(self), **fault.environment(), "FAULTS_REPORT": self.report_path,
               "LD_PRELOAD": shim, "ASAN_OPTIONS": f"verify_asan_link_order=0:log_path={folder}/asan",
               "UBSAN_OPTIONS": f"log_path={folder}/asan",
               "LSAN_OPTIONS": f"print_suppressions=0:suppressions={LEAKS}"}
        os.mkdir(folder)
        os.chmod(folder, 0o777)
        with open(self.report_path, "w", encoding="ascii"):
            os.chmod(self.report_path, 0o666)  # the program may become another user
        self.prepared = program.prepare(self)
        with open(os.path.join(folder, "out"), "wb") as out, open(os.path.join(folder, "err"), "wb") as err:
            self.child = subprocess.Popen(program.command(self), env=env, stdin=program.input(self), stdout=out,
                                          stderr=err, cwd=folder)
        self.first = self.child.pid

    def path(self, name):
        return os.path.join(self.folder, name)

    def text(self, name):
        try:
            with open(self.path(name), encoding="utf-8", errors="replace") as file:
                return file.read()
        except (FileNotFoundError, IsADirectoryError):
            return ""

    def report(self):
        return Report(self.report_path)

    def processes(self):
        return [self.first] + self.report().children

    def reap(self):
        """Takes note of what has ended; the processes that still live."""
        alive = []
        for pid in self.processes():
            if pid in self.status:
                continue
            if pid == self.first:
                if self.child.poll() is None:
                    alive.append(pid)
                else:
                    self.status[pid] = self.child.returncode
                continue
            try:
                done, status = os.waitpid(pid, os.WNOHANG)
            except ChildProcessError:  # its parent lives, and takes it
                if os.path.exists(f"/proc/{pid}"):
                    alive.append(pid)
                continue
            if done == pid:
                self.status[pid] = os.waitstatus_to_exitcode(status)
            else:
                alive.append(pid)
        return alive

    def note_and_end(self):
        """What is to be known before SIGTERM, which it gets."""
        alive = self.reap()
        self.lasted = bool(alive)
        self.hits_before_end = len(self.report().hits)
        if alive and self.program.main_process(self) not in alive:
            self.left += [fault_sites.command_of(pid) for pid in alive]
        self.signal(signal.SIGTERM)

    def signal(self, signo):
        for pid in self.reap():
            try:
                os.kill(pid, signo)
            except ProcessLookupError:
                pass


class Batch:
    """Runs that go side by side: all begin, then what the program is to do happens to all, then all end."""

    def __init__(self, shim, folder):
        self.shim, self.folder, self.count = shim, folder, 0
        self.end_limit = LEAK_LIMIT if "/asan/" in os.path.abspath(shim) else END_LIMIT
        self.known = fault_sites.descendants()

    def go(self, program, faults):
        self.known |= program.helpers()
        runs = []
        for fault in faults:
            self.count += 1
            runs.append(Run(program, fault, os.path.join(self.folder, str(self.count)), self.shim))
        for run in self.wait(runs, program.settled, UP_LIMIT):
            run.unsettled = True
        program.act(runs, self.wait)
        for run in runs:
            run.note_and_end()
        self.wait(runs, lambda run: not run.reap(), self.end_limit)
        for run in runs:
            run.stuck = bool(run.reap())
            run.signal(signal.SIGKILL)
        self.wait(runs, lambda run: not run.reap(), self.end_limit)
        self.end_others(runs)
        program.rest()
        return runs

    def end_others(self, runs):
        """Ends what the runs have left besides the processes that the shim knows of: each is one too many. What helps to
        write a finding of a sanitizer ends by itself."""
        end = time.monotonic() + self.end_limit
        others = fault_sites.descendants() - self.known
        while others and time.monotonic() < end:
            time.sleep(0.1)
            others = fault_sites.descendants() - self.known
        for pid in others:
            whose = [run for run in runs if fault_sites.has_setting(pid, f"FAULTS_REPORT={run.report_path}")]
            for run in whose or runs:
                run.left.append(fault_sites.command_of(pid))
            fault_sites.kill(pid)

    @staticmethod
    def wait(runs, condition, limit):
        """Until the condition holds of each run, at most so long: the judge sees which of them it does not hold of."""
        end = time.monotonic() + limit
        waiting = list(runs)
        while waiting and time.monotonic() < end:
            waiting = [run for run in waiting if not condition(run)]
            if waiting:
                time.sleep(0.1)
        return waiting


class Series:
    """The faults of one kind with one code: N grows until a run has no hit, and beyond the calls of a sound run: threads
    make a run have more or fewer."""

    def __init__(self, kind, error, on, expected, step):
        self.kind, self.error, self.on, self.step = kind, error, on, step
        self.next, self.least, self.known, self.open = 1, expected, expected + 1, True

    def take(self):
        fault = Fault(self.kind, self.error, self.on, self.next)
        self.next += self.step
        return fault

    def can_take(self):
        return self.open and self.next <= self.known

    def note(self, fault, hit):
        if not hit:
            self.open = self.open and fault.nth < self.least
        elif fault.nth + self.step > self.known:
            self.known += 4 * self.step


class Tally:
    def __init__(self):
        self.runs, self.ends, self.hits, self.findings = 0, collections.Counter(), collections.Counter(), []
        self.once = 0

    def is_good(self):
        return not self.findings and self.once <= ONCE_LIMIT

    @staticmethod
    def failed_at(binary, report):
        """The functions around the failed calls of the program itself, inlined ones too."""
        def text_of(addresses):
            offsets = sorted({offset - 1 for thing, offset in addresses
                              if os.path.basename(thing) == os.path.basename(binary)})[:100]
            return fault_sites.text_of("addr2line", "-Cfie", binary, given="\n".join(f"{o:x}" for o in offsets))

        signals = "".join(f"signal {signo}\n" for signo in sorted(report.signals))
        return faults_programs.Failed(signals + text_of([(thing, offset) for _, _, thing, offset in report.hits]),
                                      text_of(report.frames))

    @staticmethod
    def is_listed(run, failed, complaint):
        return any(entry.speaks_of(run, failed, complaint) for entry in faults_programs.LISTED)

    def judge(self, run):
        """What is wrong with a run, and as what it counts. Where only a library's own memory failed, how it ends is its own
        affair; what it leaves is not."""
        complaints, report = run.program.judge(run), run.report()
        failed = self.failed_at(run.program.binary, report) if complaints else None
        kept = [text for text in complaints if not self.is_listed(run, failed, text)]
        left = kept
        if not run.lasted and run.fault.kind == "alloc" and report.hits and not run.program.has_own_hit(run):
            left = [text for text in kept if not FOREIGN_END.match(text)]
        if len(left) < len(kept):
            return left, "foreign"
        return left, "listed" if len(left) < len(complaints) else "run"

    def add(self, run, batch):
        """Counts a run and tells what is wrong with it; whether its folder is to be kept. A finding is what shows again where
        the run is alone, since machines are busy; what does not is told too, and there may be little of it."""
        left, counts_as = self.judge(run)
        self.runs += 1
        self.hits[run.fault.kind] += bool(run.report().hits)
        if left:
            again = batch.go(run.program, [run.fault])[0]
            left_again, counts_as = self.judge(again)
            if left_again:
                self.note(again, left_again)
                return True
            self.once += 1
            for complaint in left:
                print(f"ONCE {run.program.name}: {run.fault}: {complaint} ({run.folder})", flush=True)
            shutil.rmtree(again.folder)
        self.ends[counts_as] += 1
        return bool(left)

    def note(self, run, complaints):
        for complaint in complaints:
            self.findings.append((run.program.name, str(run.fault), complaint, run.folder))
            print(f"FINDING {run.program.name}: {run.fault}: {complaint} ({run.folder})", flush=True)
        for _, call, thing, offset in run.report().hits[:3]:
            print(f"    {call} at {os.path.basename(thing)}+{offset:x}", flush=True)


def sound_runs(program, batch, kind):
    """A run without faults, from which is learned what the others are judged by, and one that tells its calls. Once more
    where it fails: machines are busy."""
    for _ in range(2):
        sound = batch.go(program, [SOUND, Fault(kind, "EIO", False, 1)])
        program.learn(sound[0])
        complaints = program.judge(sound[0])
        if not complaints:
            return sound
    raise SystemExit(f"{program.name} does not work even without faults: {complaints[0]}; see {sound[0].folder}")


def sweep_sites(program, batch, tally, sites, options):
    """One fault at each call site that a sound run comes by and where nothing has failed yet."""
    sound = sound_runs(program, batch, "sites")
    stacks = [stack for stack in sound[1].report().stacks if stack.kind in ERRORS]
    sites.learn(stacks)
    faults, planned = [], set()
    for stack in stacks:
        if sites.of(stack) & sites.missing() - planned:
            planned |= sites.of(stack)
            faults.append(Fault(stack.kind, ERRORS[stack.kind].split()[0], False, 1, stack))
    for begin in range(0, len(faults), program.at_once):
        for run in batch.go(program, faults[begin:begin + program.at_once]):
            if run.report().hits:
                sites.failed |= sites.of(run.fault.stack)
            if not tally.add(run, batch) and not options.keep:
                shutil.rmtree(run.folder)


def sweep(program, batch, tally, options):
    counts = sound_runs(program, batch, "count")[1].report().counts
    open_series = []
    step = {kind: max(1, count // 50) if options.quick else 1 for kind, count in counts.items()}
    for kind in ERRORS if not options.kind else options.kind:
        if counts[kind] == 0:
            continue
        errors = ERRORS[kind].split()
        once = errors[:1] if options.quick else errors
        open_series += [Series(kind, error, False, counts[kind], step[kind]) for error in once]
        if not options.quick:
            open_series += [Series(kind, error, True, counts[kind], step[kind]) for error in lasting(errors)]
    while True:
        faults = []
        for series in open_series:
            while len(faults) < program.at_once and series.can_take():
                fault = series.take()
                fault.series = series
                faults.append(fault)
        if not faults:
            return
        for run in batch.go(program, faults):
            run.fault.series.note(run.fault, bool(run.report().hits))
            if not tally.add(run, batch) and not options.keep:
                shutil.rmtree(run.folder)


def sweep_all(options, programs, batch, tally):
    for program in programs:
        before, runs = time.monotonic(), tally.runs
        sweep(program, batch, tally, options)
        print(f"{program.name}: {tally.runs - runs} runs, {time.monotonic() - before:.0f} s", flush=True)


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("--sites", action="store_true")
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--shim")
    parser.add_argument("--kind", action="append", choices=sorted(ERRORS), metavar="KIND")
    parser.add_argument("names", nargs="*")
    return parser.parse_args()


def all_sites(options, programs, batch, tally, folder):
    """The whole of --sites; whether a site is without failure and without reason."""
    sites = fault_sites.Sites(options.build, batch.shim, [f"{options.build}/libmorvane.so", f"{options.build}/zent"])
    for program in programs:
        before = len(sites.failed)
        sweep_sites(program, batch, tally, sites, options)
        print(f"{program.name}: {len(sites.failed) - before} sites", flush=True)
    tests = fault_sites.Tests(sites, folder, lambda kind: code_of(ERRORS[kind].split()[0]) if kind in ERRORS else None, 6)
    before = len(sites.failed)
    count, ways = tests.look()
    runs = tests.fail(ways)
    tests.close()
    print(f"{count} tests, and {runs} runs of them with a fault: {len(sites.failed) - before} sites", flush=True)
    tally.findings += tests.findings
    complaints = fault_sites.compare(sites.missing(), fault_sites.load_list("tests/fault_sites.toml"),
                                     fault_sites.source_line)
    print("\n".join(complaints))
    print(f"{len(sites.every)} call sites that can fail, {len(sites.failed)} of them failed")
    return bool(complaints)


def chosen(options, programs):
    """The programs whose names begin so; a name that is none's is a mistake, and so is a choice without any run."""
    for name in options.names:
        if not any(program.name.startswith(name) for program in programs):
            sys.exit(refuse(f"no program has a name that begins with \"{name}\"; there are: "
                                    f"{', '.join(program.name for program in programs)}"))
    return [program for program in programs if not options.names or program.name.startswith(tuple(options.names))]


def refuse(text):
    print(f"faults: {text}", file=sys.stderr)
    return 2


def summary(tally, seconds):
    lines = [f"{kind:16} {count:6}" for kind, count in sorted(tally.hits.items())]
    return "\n".join([*lines, f"{tally.runs} runs, {sum(tally.hits.values())} of them with a fault, {len(tally.findings)} "
                      f"findings, {tally.ends['foreign']} ends within libraries that had no memory, {tally.ends['listed']} "
                      f"listed, {tally.once} complaints that did not show again ({ONCE_LIMIT} may), {seconds:.0f} s"])


def main():
    options = arguments()
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    world = faults_programs.World()
    tally, start, refused, keep = Tally(), time.monotonic(), False, True
    folder = tempfile.mkdtemp(prefix="zent-faults-")
    os.chmod(folder, 0o755)
    batch = Batch(os.path.abspath(options.shim or f"{options.build}/tests/faults/libzent_faults.so"), folder)
    try:
        programs = chosen(options, list(faults_programs.programs(options.build, world, options.quick)))
        if options.sites:
            refused = all_sites(options, programs, batch, tally, folder)
        else:
            sweep_all(options, programs, batch, tally)
        keep = options.keep or not tally.is_good() or tally.once > 0
    finally:
        world.close()
        if not keep or not os.listdir(folder):
            shutil.rmtree(folder, ignore_errors=True)
    print(summary(tally, time.monotonic() - start))
    if tally.runs == 0 and not options.sites:
        return refuse("there was nothing to run")
    return 0 if tally.is_good() and not refused else 1


if __name__ == "__main__":
    sys.exit(main())
