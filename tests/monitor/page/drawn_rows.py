#!/usr/bin/python3
"""Prints "GROUP AGENT" of each row that headless Chromium draws while the table of groups is scrolled from its top to
its end: drawn_rows.py URL. Exit code 77: there is no browser."""

import sys

from zentmon_run import open_browser, wait_for

ROWS = """
const done = arguments[1];
document.getElementById('groups').scrollTop = arguments[0];
requestAnimationFrame(() => requestAnimationFrame(() => done(
  [...document.querySelectorAll('#groups tbody tr:not(.gap)')].map(row => [row.cells[0].innerText.trim(),
                                                                            row.cells[1].innerText.trim()].join(' ')))));
"""


def main():
    try:
        browser = open_browser()
    except (ImportError, OSError) as error:
        print(f"skipped: {error}")
        return 77
    try:
        browser.get(sys.argv[1])
        wait_for(lambda: browser.execute_script("return document.body.dataset.link === 'live' && store.loaded"), "the page")
        height, step = browser.execute_script(
            "const all = document.getElementById('groups'); return [all.scrollHeight, all.clientHeight / 2]")
        rows, top = {}, 0
        while top < height:
            rows.update(dict.fromkeys(browser.execute_async_script(ROWS, top)))
            top += step
        print("\n".join(rows))
    finally:
        browser.quit()
    return 0


if __name__ == "__main__":
    sys.exit(main())
