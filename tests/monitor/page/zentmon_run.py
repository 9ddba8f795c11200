"""Runs a zentmon for the scripts that look at its page: ports of its own, lines of several agents."""

import itertools
import json
import os
import shutil
import socket
import subprocess
import tempfile
import time
import urllib.request


def wait_for(condition, what, limit=180):
    """Waits until condition() is true; its result."""
    end = time.monotonic() + limit
    while time.monotonic() < end:
        try:
            result = condition()
        except OSError:
            result = None
        if result:
            return result
        time.sleep(0.02)
    raise AssertionError(f"waited {limit} s for: {what}")


PORTS = itertools.cycle(range(30_000 + os.getpid() % 40 * 64, 30_064 + os.getpid() % 40 * 64))


def free_port(kind):
    """A port of this process's own, below those that the system gives out to anybody."""
    for port in itertools.islice(PORTS, 64):
        with socket.socket(socket.AF_INET, kind) as probe:
            if kind == socket.SOCK_STREAM:  # a connection that is over does not hold its port
                probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue
    raise AssertionError("no free port")


class Zentmon:
    """A zentmon on loopback. Agents are loopback addresses, each with a socket of its own, as processes have."""

    def __init__(self, program, options=()):
        self.program = program
        self.options = list(options)
        self.lines_port = free_port(socket.SOCK_DGRAM)
        self.http_port = free_port(socket.SOCK_STREAM)
        self.folder = tempfile.mkdtemp(prefix="zentmon-")
        self.sockets = {}
        self.process = None
        self.start()

    def start(self):
        self.process = subprocess.Popen(
            [self.program, "--listen", f"127.0.0.1:{self.lines_port}=lab", "--http", f"127.0.0.1:{self.http_port}",
             "--log", os.path.join(self.folder, "log"), *self.options])
        wait_for(lambda: self.get("healthz") == b"ok\n", "zentmon to answer")

    def stop(self):
        self.process.terminate()
        assert self.process.wait(180) == 0

    def close(self):
        for agent in self.sockets.values():
            agent.close()
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.folder)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    @property
    def url(self):
        return f"http://127.0.0.1:{self.http_port}/"

    def get(self, path):
        with urllib.request.urlopen(self.url + path, timeout=180) as answer:
            return answer.read()

    def json(self, path):
        return json.loads(self.get(path))

    def send(self, address, lines):
        """Lines of an agent, in datagrams of at most 200 lines; waits until all of them are taken."""
        agent = self.sockets.get(address)
        if agent is None:
            agent = self.sockets[address] = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            agent.bind((address, 0))
        before = self.taken(address)
        for i in range(0, len(lines), 200):
            text = "".join(line + "\n" for line in lines[i:i + 200])
            agent.sendto(text.encode(), ("127.0.0.1", self.lines_port))
        wait_for(lambda: self.taken(address) >= before + len(lines), f"{len(lines)} lines of {address}")

    def taken(self, address):
        return sum(a["joins"] + a["leaves"] for a in self.json("agents.json")["agents"] if a["address"] == address)

    def join(self, address, *groups):
        self.send(address, [f"JOIN UDP://{group}" for group in groups])

    def leave(self, address, *groups):
        self.send(address, [f"LEAVE UDP://{group}" for group in groups])


def open_browser(size="1440,1100", extra=()):
    """Headless Chromium. ImportError or OSError where browser, driver or selenium are missing."""
    from selenium import webdriver
    from selenium.webdriver.chrome.options import Options
    from selenium.webdriver.chrome.service import Service
    browser, driver = shutil.which("chromium"), shutil.which("chromedriver")
    if not browser or not driver:
        raise OSError("chromium or chromedriver is not installed")
    options = Options()
    options.binary_location = browser
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     f"--window-size={size}", *extra):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service(driver), options=options)
