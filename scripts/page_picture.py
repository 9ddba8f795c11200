#!/usr/bin/python3
"""Makes docs/zentmon.png: the page of a running zentmon, with lines of several agents for a while.

page_picture.py ZENTMON FILE [SECONDS [THEME]] takes the picture after so many seconds (300) of lines, in the theme
"light" or "dark". It needs the packages chromium, chromium-driver, python3-selenium and fonts-inter.
"""

import math
import os
import random
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "monitor", "page"))
sys.dont_write_bytecode = True
from zentmon_run import Zentmon, open_browser, wait_for  # noqa: E402 (the path comes first)

AGENTS = {"127.0.20.1": "studio-north", "127.0.20.2": "studio-south", "127.0.20.3": "hall-1", "127.0.20.4": "hall-2",
          "127.0.20.5": "lobby", "127.0.20.6": "control-room"}


def group(number):
    return f"239.{1 + number % 3}.{number // 97 % 4}.{1 + number % 97}"


class Viewers:
    """Joins and leaves as viewers make them: more and fewer of them in waves."""

    def __init__(self, zentmon):
        self.zentmon = zentmon
        self.random = random.Random(7)
        self.joined = {agent: set() for agent in AGENTS}
        for agent, groups in self.joined.items():
            groups.update(group(self.random.randrange(400)) for _ in range(45))
            zentmon.join(agent, *groups)

    def step(self, seconds):
        lively = 0.6 + 0.5 * math.sin(seconds / 23) + 0.3 * math.sin(seconds / 7)
        for agent, groups in self.joined.items():
            if self.random.random() < lively * 0.22:
                new = group(self.random.randrange(400))
                if new not in groups:
                    groups.add(new)
                    self.zentmon.join(agent, new)
            if len(groups) > 30 and self.random.random() < lively * 0.2:
                old = self.random.choice(sorted(groups))
                groups.remove(old)
                self.zentmon.leave(agent, old)


def main():
    program, file = sys.argv[1:3]
    seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 300
    theme = sys.argv[4] if len(sys.argv) > 4 else "light"
    names = [option for address, name in AGENTS.items() for option in ("--name", f"{address}={name}")]
    with Zentmon(program, names) as zentmon:
        viewers = Viewers(zentmon)
        browser = open_browser("1440,1310")
        try:
            browser.get(zentmon.url)
            browser.execute_script("setTheme(arguments[0])", theme)
            wait_for(lambda: browser.execute_script("return document.body.dataset.link") == "live", "the stream")
            begun = time.monotonic()
            while time.monotonic() - begun < seconds:
                viewers.step(time.monotonic() - begun)
                time.sleep(0.5)
            time.sleep(3)  # what has just come is no longer marked as new
            browser.save_screenshot(file)
        finally:
            browser.quit()
    print(f"{file}: {os.path.getsize(file)} bytes")


if __name__ == "__main__":
    main()
