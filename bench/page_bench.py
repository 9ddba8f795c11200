#!/usr/bin/python3
"""From an agent's datagram to the row that is painted in the browser's table: page_bench.py ZENTMON [SAMPLES].

Both clocks are this machine's. With an empty table, and with 10,000 groups in it; half of the samples are joins, half
leaves. Prints median, 90th percentile and largest in milliseconds.
"""

import os
import random
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "monitor", "page"))
sys.dont_write_bytecode = True
from zentmon_run import Zentmon, open_browser, wait_for  # noqa: E402 (the path comes first)

AGENT, PROBE = "127.0.30.1", "127.0.30.2"
GROUP = "224.9.9.9"  # it stands at the top of the table

# Notes when the group is painted, or its place is painted without it.
OBSERVE = """
window.painted = [];
const there = () => [...document.querySelectorAll('#groups td.main')].some(cell => cell.textContent === arguments[0]);
const look = there.bind(null);
let before = look();
new MutationObserver(() => {
  const now = look();
  if (now !== before) {
    before = now;
    requestAnimationFrame(() => window.painted.push(Date.now()));
  }
}).observe(document.querySelector('#groups tbody'), {childList: true, subtree: true, characterData: true});
"""


def sample(zentmon, browser, word):
    seen = browser.execute_script("return painted.length")
    agent = zentmon.sockets[PROBE]
    begun = time.time() * 1000
    agent.sendto(f"{word} UDP://{GROUP}\n".encode(), ("127.0.0.1", zentmon.lines_port))
    wait_for(lambda: browser.execute_script("return painted.length") > seen, f"the {word} to be painted")
    return browser.execute_script("return painted[painted.length - 1]") - begun


def measure(zentmon, browser, samples, what):
    browser.get(zentmon.url)
    wait_for(lambda: browser.execute_script("return document.body.dataset.link === 'live' && store.loaded"), "the page")
    browser.execute_script(OBSERVE.replace("arguments[0]", f"'{GROUP}'"))
    times = []
    for i in range(samples):
        time.sleep(0.2 + random.random() * 0.2)
        times.append(sample(zentmon, browser, "LEAVE" if i % 2 else "JOIN"))
    times.sort()
    print(f"{what}: median {statistics.median(times):.0f} ms, 90 % {times[int(samples * 0.9)]:.0f} ms, "
          f"largest {times[-1]:.0f} ms ({samples} events)")


def main():
    samples = int(sys.argv[2]) if len(sys.argv) > 2 else 40
    with Zentmon(sys.argv[1]) as zentmon:
        zentmon.join(PROBE, "239.255.0.1")
        browser = open_browser()
        try:
            measure(zentmon, browser, samples, "few groups")
            zentmon.join(AGENT, *[f"239.{i >> 8 & 255}.{i & 255}.1" for i in range(10_000)])
            measure(zentmon, browser, samples, "10,000 groups")
        finally:
            browser.quit()


if __name__ == "__main__":
    main()
