#!/usr/bin/python3
"""Prints "GROUP AGENT" of each row that headless Chromium draws while the table of groups is scrolled from its top to
its end: drawn_rows.py URL. Exit code 77: there is no browser."""

import sys

from zentmon_run import open_browser, wait_for

LIMIT_S = 200  # generous: it only ends what hangs

# The walk is one script: on a loaded machine each question to the browser takes its time.
ROWS = """
const done = arguments[0], table = document.getElementById('groups'), rows = new Set();
const drawn = then => requestAnimationFrame(() => requestAnimationFrame(then));
const look = () => {
  for (const row of table.querySelectorAll('tbody tr:not(.gap)'))
    rows.add(row.cells[0].innerText.trim() + ' ' + row.cells[1].innerText.trim());
  if (table.scrollTop + table.clientHeight >= table.scrollHeight - 1)
    return done([...rows]);
  table.scrollTop += table.clientHeight / 2;
  drawn(look);
};
table.scrollTop = 0;
drawn(look);
"""


def main():
    try:
        browser = open_browser()
    except (ImportError, OSError) as error:
        print(f"skipped: {error}")
        return 77
    try:
        browser.set_script_timeout(LIMIT_S)
        browser.get(sys.argv[1])
        wait_for(lambda: browser.execute_script("return document.body.dataset.link === 'live' && store.loaded"), "the page")
        print("\n".join(browser.execute_async_script(ROWS)))
    finally:
        browser.quit()
    return 0


if __name__ == "__main__":
    sys.exit(main())
