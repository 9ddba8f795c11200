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
PR_SET_CHILD_SUBREAPER = 36
LEAKS = os.path.abspath(os.path.join(os.path.dirname(__file__), "../tests/faults/leaks.txt"))

# What the manual pages name, by kind of the shim. EAI codes and libpcap's codes are results, not errno.
FILE_ERRORS = "EACCES EEXIST EINTR EISDIR ELOOP EMFILE ENAMETOOLONG ENFILE ENOENT ENOMEM ENOSPC ENOTDIR ENXIO EROFS EPERM EDQUOT"
ERRORS = {
    "alloc": "ENOMEM", "mmap": "ENOMEM EAGAIN EACCES ENFILE EPERM EINVAL EOVERFLOW", "munmap": "EINVAL",
    "open": FILE_ERRORS, "fopen": FILE_ERRORS, "read": "EIO EINTR EAGAIN EISDIR", "fgets": "EIO",
    "write": "EIO EINTR EAGAIN ENOSPC EDQUOT EFBIG EPIPE", "print": "EIO ENOSPC EFBIG EAGAIN EPIPE",
    "close": "EIO EINTR ENOSPC EDQUOT", "fclose": "EIO ENOSPC", "stat": "EACCES ENOENT ENOMEM ELOOP EOVERFLOW",
    "rename": "EACCES ENOENT ENOSPC EROFS", "unlink": "EACCES EBUSY ENOENT EIO EROFS",
    "truncate": "EINVAL EIO EFBIG EROFS", "seek": "ESPIPE EINVAL", "chdir": "EACCES ELOOP ENOENT ENOTDIR EIO ENOMEM",
    "getcwd": "EACCES ENOENT ENOMEM ERANGE", "fcntl": "EACCES EAGAIN EDEADLK EINTR EINVAL EMFILE ENOLCK EPERM",
    "fcntl64": "EAGAIN EINVAL ENOLCK", "ioctl": "EINVAL ENOTTY EPERM ENODEV", "dup": "EMFILE EINTR EBUSY",
    "pipe": "EMFILE ENFILE", "socket": "EACCES EAFNOSUPPORT EINVAL EMFILE ENFILE ENOBUFS ENOMEM EPROTONOSUPPORT EPERM",
    "setsockopt": "EACCES EADDRINUSE EADDRNOTAVAIL EINVAL ENOBUFS ENODEV ENOMEM ENOPROTOOPT EPERM",
    "getsockopt": "ENOPROTOOPT EINVAL", "bind": "EACCES EADDRINUSE EADDRNOTAVAIL EINVAL ENOMEM",
    "connect": "EACCES EADDRNOTAVAIL EAGAIN ECONNREFUSED EINTR ENETUNREACH ETIMEDOUT EPERM",
    "listen": "EADDRINUSE", "accept": "EAGAIN ECONNABORTED EINTR EMFILE ENFILE ENOBUFS ENOMEM EPERM",
    "sockname": "ENOBUFS ENOTCONN",
    "send": "EACCES EAGAIN ECONNREFUSED EINTR EMSGSIZE ENETUNREACH ENETDOWN EHOSTUNREACH ENOBUFS ENOMEM EPERM EPIPE",
    "recv": "EAGAIN ECONNREFUSED EINTR ENOMEM", "getaddrinfo": "EAI_AGAIN EAI_FAIL EAI_FAMILY EAI_MEMORY EAI_NONAME EAI_SYSTEM",
    "getnameinfo": "EAI_AGAIN EAI_FAIL EAI_MEMORY EAI_SYSTEM", "getifaddrs": "EACCES EMFILE ENOBUFS ENOMEM",
    "ifname": "ENXIO ENODEV", "fork": "EAGAIN ENOMEM ENOSYS", "thread": "EAGAIN EPERM", "setsid": "EPERM",
    "setuid": "EAGAIN EINVAL EPERM ENOMEM", "passwd": "EINTR EIO EMFILE ENFILE ENOMEM ERANGE", "sigaction": "EINVAL",
    "setitimer": "EINVAL", "process": "EPERM EINTR EINVAL ENOMEM EFAULT", "rlimit": "EINVAL EPERM",
    "clock": "EINVAL EPERM", "localtime": "EOVERFLOW",
    "epoll": "EMFILE ENFILE ENOMEM EINVAL", "epoll_ctl": "EEXIST EINVAL ENOMEM ENOSPC EPERM", "eventfd": "EMFILE ENFILE ENODEV ENOMEM",
    "inotify": "EMFILE ENFILE ENOMEM ENOSPC EACCES ENOENT EINVAL", "wait": "EINTR EINVAL ENOMEM",
    "pcap_lookupnet": "EIO", "pcap_open": "EIO", "pcap_set": "PCAP_ERROR_ACTIVATED PCAP_ERROR",
    "pcap_activate": "PCAP_ERROR PCAP_ERROR_NO_SUCH_DEVICE PCAP_ERROR_PERM_DENIED PCAP_ERROR_IFACE_NOT_UP PCAP_ERROR_RFMON_NOTSUP",
    "pcap_compile": "EIO", "pcap_setfilter": "EIO", "pcap_dispatch": "EIO",
}
RESULTS = {"PCAP_ERROR": -1, "PCAP_ERROR_ACTIVATED": -4, "PCAP_ERROR_NO_SUCH_DEVICE": -5, "PCAP_ERROR_RFMON_NOTSUP": -6,
           "PCAP_ERROR_PERM_DENIED": -8, "PCAP_ERROR_IFACE_NOT_UP": -9}


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
        self.waits = set()
        self.ended = set()
        try:
            with open(path, encoding="ascii", errors="replace") as file:
                lines = file.read().split("\n")[:-1]
        except FileNotFoundError:
            lines = []
        for line in lines:
            word, *rest = line.split(" ")
            if word == "hit":
                self.hits.append((int(rest[0]), rest[1], rest[2], int(rest[3], 16)))
            elif word == "stack":
                self.stacks.append(fault_sites.stack_of(rest))
            elif word == "child":
                self.children.append(int(rest[1]))
                self.parents.add(int(rest[0]))
            elif word == "waits":
                self.waits.add(int(rest[0]))
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
            self.child = subprocess.Popen(program.command(self), env=env, stdin=subprocess.DEVNULL, stdout=out,
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

    def go(self, program, faults):
        runs = []
        for fault in faults:
            self.count += 1
            runs.append(Run(program, fault, os.path.join(self.folder, str(self.count)), self.shim))
        for run in self.wait(runs, program.settled, UP_LIMIT):
            run.unsettled = True
        program.act(runs, self.wait)
        for run in runs:
            run.lasted = bool(run.reap())
            run.signal(signal.SIGTERM)
        self.wait(runs, lambda run: not run.reap(), END_LIMIT)
        for run in runs:
            run.stuck = bool(run.reap())
            run.signal(signal.SIGKILL)
        self.wait(runs, lambda run: not run.reap(), END_LIMIT)
        return runs

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

    def functions_of(self, binary, report):
        """The functions around the failed calls of the program itself, inlined ones too."""
        offsets = {offset - 1 for _, _, thing, offset in report.hits if os.path.basename(thing) == os.path.basename(binary)}
        if not offsets:
            return ""
        return subprocess.run(["addr2line", "-Cfie", binary, *(f"{offset:x}" for offset in sorted(offsets)[:20])],
                              capture_output=True, text=True, check=False).stdout

    @staticmethod
    def is_listed(run, functions, complaint):
        return any(re.fullmatch(kind, run.fault.kind) and re.search(function, functions, re.S) and
                   re.match(program, run.program.name) and re.search(text, complaint, re.S)
                   for kind, function, program, text, _ in faults_programs.LISTED)

    def judge(self, run):
        """What is wrong with a run, and as what it counts. Where only a library's own memory failed, its end is its own."""
        complaints, report = run.program.judge(run), run.report()
        if complaints and not run.lasted and run.fault.kind == "alloc" and report.hits and not run.program.has_own_hit(run):
            return [], "foreign"
        functions = self.functions_of(run.program.binary, report) if complaints else ""
        left = [text for text in complaints if not self.is_listed(run, functions, text)]
        return left, "listed" if len(left) < len(complaints) else "run"

    def add(self, run, batch):
        """Counts a run and tells what is wrong with it: what shows again where it runs alone, since machines are busy."""
        left, counts_as = self.judge(run)
        if left:
            again = batch.go(run.program, [run.fault])[0]
            left, counts_as = self.judge(again)
            if not left:
                counts_as = "once"
                shutil.rmtree(again.folder)
        self.runs += 1
        self.ends[counts_as] += 1
        self.hits[run.fault.kind] += bool(run.report().hits)
        for complaint in left:
            self.findings.append((run.program.name, str(run.fault), complaint, run.folder))
            print(f"FINDING {run.program.name}: {run.fault}: {complaint} ({run.folder})", flush=True)
            for _, call, thing, offset in run.report().hits[:3]:
                print(f"    {call} at {os.path.basename(thing)}+{offset:x}", flush=True)
        return left


def sound_runs(program, batch, kind):
    """A run without faults, from which is learned what the others are judged by, and one that tells its calls."""
    sound = batch.go(program, [SOUND, Fault(kind, "EIO", False, 1)])
    program.learn(sound[0])
    for complaint in program.judge(sound[0]):
        raise SystemExit(f"{program.name} does not work even without faults: {complaint}; see {sound[0].folder}")
    return sound


def sweep_sites(program, batch, tally, sites):
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
            if not tally.add(run, batch):
                shutil.rmtree(run.folder)


def sweep(program, batch, tally, options):
    counts = sound_runs(program, batch, "count")[1].report().counts
    open_series = []
    step = {kind: max(1, count // 50) if options.quick else 1 for kind, count in counts.items()}
    for kind in ERRORS if not options.kind else options.kind:
        if counts[kind] == 0:
            continue
        errors = ERRORS[kind].split()
        open_series += [Series(kind, error, False, counts[kind], step[kind]) for error in (errors[:1] if options.quick else errors)]
        if not options.quick:
            open_series.append(Series(kind, errors[0], True, counts[kind], step[kind]))
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
    parser.add_argument("--kind", action="append")
    parser.add_argument("names", nargs="*")
    return parser.parse_args()


def all_sites(options, programs, batch, tally, folder):
    """The whole of --sites; whether a site is without failure and without reason."""
    sites = fault_sites.Sites(options.build, batch.shim, [f"{options.build}/libmorvane.so", f"{options.build}/zent"])
    for program in programs:
        before = len(sites.failed)
        sweep_sites(program, batch, tally, sites)
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


def main():
    options = arguments()
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    world = faults_programs.World()
    tally, start, refused = Tally(), time.monotonic(), False
    folder = tempfile.mkdtemp(prefix="zent-faults-")
    os.chmod(folder, 0o755)
    programs = [p for p in faults_programs.programs(options.build, world, options.quick)
                if not options.names or any(p.name.startswith(name) for name in options.names)]
    batch = Batch(os.path.abspath(options.shim or f"{options.build}/tests/faults/libzent_faults.so"), folder)
    try:
        if options.sites:
            refused = all_sites(options, programs, batch, tally, folder)
        else:
            sweep_all(options, programs, batch, tally)
    finally:
        world.close()
        if not tally.findings and not options.keep:
            shutil.rmtree(folder, ignore_errors=True)
    print("\n".join(f"{kind:16} {count:6}" for kind, count in sorted(tally.hits.items())))
    print(f"{tally.runs} runs, {sum(tally.hits.values())} of them with a fault, {len(tally.findings)} findings, "
          f"{tally.ends['foreign']} ends within libraries that had no memory, {tally.ends['listed']} listed, "
          f"{tally.ends['once']} complaints that did not show again, {time.monotonic() - start:.0f} s")
    return 1 if tally.findings or refused else 0


if __name__ == "__main__":
    sys.exit(main())
