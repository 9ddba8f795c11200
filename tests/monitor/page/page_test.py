#!/usr/bin/python3
"""The page of zentmon in headless Chromium: page_test.py ZENTMON [NAME ...]. Exit code 77: skipped."""

import sys
import time
import traceback

from zentmon_run import Zentmon, open_browser, wait_for

SKIPPED = 77
HALL, LOBBY = "127.0.0.11", "127.0.0.12"


class Page:
    def __init__(self, browser, url):
        self.browser = browser
        browser.get(url)
        self.until(lambda: self.run("return document.body.dataset.link") == "live", "the stream to be there")

    def run(self, script, *arguments):
        return self.browser.execute_script(script, *arguments)

    def until(self, condition, what):
        return wait_for(condition, what)

    def groups(self):
        """What is drawn: rows of texts."""
        return self.run("""return [...document.querySelectorAll('#groups tbody tr:not(.gap)')]
            .map(row => [...row.cells].map(cell => cell.innerText.trim()))""")

    def names(self):
        return [row[0] for row in self.groups()]

    def agents(self):
        return self.run("""return [...document.querySelectorAll('#agents tbody tr:not(.gap)')]
            .map(row => [...row.cells].map(cell => cell.innerText.trim()))""")

    def events(self):
        return self.run("return [...document.querySelectorAll('#events li')].map(item => item.innerText.split('\\n'))")

    def text(self, name):
        return self.run("return document.getElementById(arguments[0]).innerText", name)

    def filter(self, text):
        field = self.browser.find_element("id", "filter")
        field.clear()
        self.run("arguments[0].dispatchEvent(new Event('input'))", field)
        field.send_keys(text)

    def sort(self, title):
        self.run("""[...document.querySelectorAll('#groups th button')]
            .find(button => button.textContent === arguments[0]).click()""", title)

    def sorted_by(self):
        return self.run("""return [...document.querySelectorAll('#groups th[aria-sort]')]
            .map(head => [head.innerText.trim(), head.getAttribute('aria-sort')])""")


def join_appears_and_leave_disappears(zentmon, browser):
    page = Page(browser, zentmon.url)
    assert "Nothing is joined" in page.text("groups"), page.text("groups")
    assert "No agent has reported yet" in page.text("agents"), page.text("agents")
    zentmon.join(HALL, "239.1.0.1", "239.1.0.2")
    page.until(lambda: page.names() == ["239.1.0.1", "239.1.0.2"], "both groups to appear")
    page.until(lambda: page.text("n-groups") == "2" and page.text("n-agents") == "1", "the figures")
    zentmon.leave(HALL, "239.1.0.1")
    page.until(lambda: page.names() == ["239.1.0.2"], "the group to disappear")
    page.until(lambda: page.events()[0][1:3] == ["leave", "239.1.0.1"], "the event")
    assert [event[1] for event in page.events()] == ["leave", "join", "join"], page.events()
    page.until(lambda: page.text("n-joins") == "2" and page.text("n-leaves") == "1", "the rates")
    assert page.run("return document.getElementById('plot-joins').getAttribute('d')") != ""
    assert "2 joins and 1 leave" in page.run("return document.getElementById('plot').getAttribute('aria-label')")


def the_page_equals_groups_json(zentmon, browser):
    zentmon.join(HALL, *[f"239.1.0.{i}" for i in range(1, 9)])
    zentmon.join(LOBBY, *[f"239.1.0.{i}" for i in range(5, 13)])
    page = Page(browser, zentmon.url)
    expected = [[row["group"], row["agent"]] for row in zentmon.json("groups.json")["groups"]]
    assert len(expected) == 16
    page.until(lambda: [row[:2] for row in page.groups()] == expected, "the page to equal groups.json")


def the_filter_takes_prefixes_networks_and_agents(zentmon, browser):
    zentmon.join(HALL, "239.1.0.1", "239.1.0.10", "239.2.0.1", "239.11.0.1")
    zentmon.join(LOBBY, "239.1.0.1")
    page = Page(browser, zentmon.url)
    page.until(lambda: len(page.groups()) == 5, "all groups")
    for text, count in (("239.1.", 3), ("239.1", 4), ("239.1.0.1", 2), ("239.0.0.0/14", 4), ("127.0.0.12", 1),
                        ("239.1. 127.0.0.11", 2), ("lab", 5), ("LAB 239.2.", 1), ("nobody", 0), ("", 5)):
        page.filter(text)
        page.until(lambda count=count: len(page.groups()) == count, f"{count} groups for {text!r}")
        total = zentmon.json("groups.json?filter=" + text.replace("/", "%2F").replace(" ", "+"))["total"]
        assert total == count, f"{text!r}: the server counts {total}"
    page.filter("nobody")
    page.until(lambda: "No joined group matches" in page.text("groups"), "the empty state")
    page.browser.find_element("css selector", "#groups .empty button").click()
    page.until(lambda: len(page.groups()) == 5, "all groups again")


def columns_sort_both_ways(zentmon, browser):
    zentmon.join(HALL, "239.1.0.10", "239.1.0.9")
    zentmon.join(LOBBY, "239.1.0.100")
    page = Page(browser, zentmon.url)
    page.until(lambda: page.names() == ["239.1.0.9", "239.1.0.10", "239.1.0.100"], "the order of numbers")
    page.sort("Group")
    page.until(lambda: page.names() == ["239.1.0.100", "239.1.0.10", "239.1.0.9"], "the order turned round")
    assert page.sorted_by() == [["Group", "descending"]], page.sorted_by()
    page.sort("Agent")
    page.until(lambda: [row[1] for row in page.groups()] == [HALL, HALL, LOBBY], "the order of agents")
    page.sort("Agent")
    page.until(lambda: [row[1] for row in page.groups()] == [LOBBY, HALL, HALL], "the agents turned round")
    zentmon.leave(HALL, "239.1.0.9")
    zentmon.join(HALL, "239.1.0.9")
    page.sort("Joins")
    page.until(lambda: page.groups()[0][0] == "239.1.0.9" and page.groups()[0][3] == "2", "the largest first")


def it_reconnects_after_a_restart(zentmon, browser):
    zentmon.join(HALL, "239.1.0.1")
    page = Page(browser, zentmon.url)
    page.until(lambda: page.names() == ["239.1.0.1"], "the group")
    zentmon.stop()
    page.until(lambda: page.text("link") == "Reconnecting", "the page to see it")
    zentmon.start()
    zentmon.join(HALL, "239.1.0.7")
    page.until(lambda: page.names() == ["239.1.0.7"], "the groups of the new life alone")
    page.until(lambda: page.text("link") == "Live", "the page to be live")
    zentmon.join(HALL, "239.1.0.8")
    page.until(lambda: page.names() == ["239.1.0.7", "239.1.0.8"], "an event of the new life")


def silence_is_told_and_ends(zentmon, browser):
    zentmon.join(HALL, "239.1.0.1")
    page = Page(browser, zentmon.url)
    assert not page.run("return document.getElementById('notice').checkVisibility()")
    told = page.run("heardMs -= 26000; watch(); return document.getElementById('notice').innerText")
    assert "connection to zentmon is lost" in told, told  # as if nothing had come for so long
    assert page.run("return document.getElementById('notice').getAttribute('role')") == "alert"
    page.until(lambda: page.text("link") == "Live", "the next ping or the new stream")
    page.until(lambda: not page.run("return document.getElementById('notice').checkVisibility()"), "no notice")


# Puts a function between the page and the answers to its requests, before its own script is read.
BETWEEN_ANSWERS = """
const plain = window.fetch;
window.fetch = async (...request) => {
    const response = await plain(...request);
    const between = %s;
    const data = await between(String(request[0]), await response.json());
    return { ok: response.ok, status: response.status, json: async () => data };
};
"""


class AnswersThrough:
    def __init__(self, browser, function):
        self.browser = browser
        source = {"source": BETWEEN_ANSWERS % function}
        self.script = browser.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", source)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.browser.execute_cdp_cmd("Page.removeScriptToEvaluateOnNewDocument", self.script)


def events_that_overtake_the_first_answer_are_counted(zentmon, browser):
    zentmon.join(HALL, "239.1.0.1")
    held = """async (url, data) => {
        if (url.includes('activity.json')) { await new Promise((go) => { window.letGo = go; }); }
        return data;
    }"""
    with AnswersThrough(browser, held):
        page = Page(browser, zentmon.url)
        page.until(lambda: page.run("return typeof window.letGo") == "function", "the answer to be on its way")
        zentmon.join(HALL, "239.1.0.2")
        page.until(lambda: page.names() == ["239.1.0.1", "239.1.0.2"], "the event to come first")
        page.run("window.letGo()")
        page.until(lambda: page.text("n-joins") == "2", "both joins to be counted")
        page.until(lambda: [event[2] for event in page.events()] == ["239.1.0.2", "239.1.0.1"], "both events, once")


def an_agent_loaded_anew_takes_no_event_from_the_load_of_all(zentmon, browser):
    zentmon.join(HALL, "239.1.0.1")
    held = """async (url, data) => {
        const name = ['agent=', 'activity.json'].find((part) => url.includes(part));
        if (window.holds && name) { await new Promise((go) => { window.letGo[name] = go; }); }
        return data;
    }"""
    with AnswersThrough(browser, held):
        page = Page(browser, zentmon.url)
        page.until(lambda: page.names() == ["239.1.0.1"] and page.text("n-joins") == "1", "the first load")
        page.run("window.holds = true; window.letGo = {}; reloadAgent(arguments[0]).then(() => { window.isThere = true; })",
                 HALL)
        page.until(lambda: page.run("return 'agent=' in window.letGo"), "the agent's groups to be on their way")
        page.run("load()")
        page.until(lambda: page.run("return 'activity.json' in window.letGo"), "the activity to be on its way")
        page.run("window.letGo['agent=']()")
        page.until(lambda: page.run("return window.isThere === true"), "the agent's groups")
        zentmon.join(HALL, "239.1.0.2")
        page.until(lambda: page.names() == ["239.1.0.1", "239.1.0.2"], "the event to come before the activity")
        page.run("window.letGo['activity.json']()")
        page.until(lambda: page.text("n-joins") == "2", "both joins to be counted")


def events_ahead_of_the_known_clock_are_counted(zentmon, browser):
    with AnswersThrough(browser, "(url, data) => ({ ...data, now: data.now - 30 })"):
        page = Page(browser, zentmon.url)
        page.until(lambda: page.text("version") != "", "the activity")
        page.run("setClock = () => {}; clockOffset = -30")
        zentmon.join(HALL, "239.1.0.1")
        page.until(lambda: page.names() == ["239.1.0.1"], "the group")
        page.until(lambda: page.text("n-joins") == "1", "the join to be counted")


def ten_thousand_groups_are_drawn_as_they_are_seen(zentmon, browser):
    groups = [f"239.{i >> 8 & 255}.{i & 255}.1" for i in range(10000)]
    zentmon.join(HALL, *groups)
    page = Page(browser, zentmon.url)
    page.until(lambda: page.text("n-groups") == "10,000", "all groups")
    page.until(lambda: page.run("return document.querySelector('#groups table').ariaRowCount") == "10001", "the count")
    assert len(page.groups()) < 100, len(page.groups())
    page.run("document.getElementById('groups').scrollTop = 1e9")
    page.until(lambda: page.names()[-1] == "239.39.15.1", "the last one")
    last = page.run("return document.querySelector('#groups tbody tr:nth-last-child(2)').ariaRowIndex")
    assert last == "10001", last
    zentmon.leave(HALL, "239.39.15.1")
    page.until(lambda: page.names()[-1] == "239.39.14.1", "it to disappear")
    longest = page.run("""const begun = performance.now(); showGroups(); return performance.now() - begun""")
    print(f"    10,000 groups are filtered, sorted and drawn in {longest:.0f} ms")


def keys_are_enough(zentmon, browser):
    from selenium.webdriver.common.keys import Keys
    zentmon.join(HALL, "239.1.0.1", "239.2.0.1")
    page = Page(browser, zentmon.url)
    page.until(lambda: len(page.groups()) == 2, "the groups")
    body = browser.find_element("tag name", "body")
    body.send_keys("/")
    page.until(lambda: page.run("return document.activeElement.id") == "filter", "the filter to be reached")
    browser.switch_to.active_element.send_keys("239.2.")
    page.until(lambda: page.names() == ["239.2.0.1"], "the filtered group")
    page.until(lambda: page.text("status") == "1 group shown", "what a screen reader is told")
    browser.switch_to.active_element.send_keys(Keys.ESCAPE)
    page.until(lambda: len(page.groups()) == 2, "all groups")
    browser.switch_to.active_element.send_keys(Keys.TAB)
    assert page.run("return document.activeElement.id") == "groups"  # the table's own scrolling
    browser.switch_to.active_element.send_keys(Keys.TAB)
    assert page.run("return document.activeElement.textContent") == "Group"
    browser.switch_to.active_element.send_keys(Keys.ENTER)
    page.until(lambda: page.names() == ["239.2.0.1", "239.1.0.1"], "the order by key")


def nothing_comes_from_elsewhere(zentmon, browser):
    zentmon.join(HALL, "239.1.0.1")
    page = Page(browser, zentmon.url)
    page.until(lambda: page.names() == ["239.1.0.1"], "the group")
    urls = page.run("return performance.getEntriesByType('resource').map(entry => entry.name)")
    assert urls and all(url.startswith(zentmon.url) for url in urls), urls
    links = page.run("return [...document.links].map(link => link.href)")
    assert links and all(link.startswith(zentmon.url) for link in links), links


TESTS = (join_appears_and_leave_disappears, the_page_equals_groups_json, the_filter_takes_prefixes_networks_and_agents,
         columns_sort_both_ways, it_reconnects_after_a_restart, silence_is_told_and_ends,
         events_that_overtake_the_first_answer_are_counted, an_agent_loaded_anew_takes_no_event_from_the_load_of_all,
         events_ahead_of_the_known_clock_are_counted,
         ten_thousand_groups_are_drawn_as_they_are_seen, keys_are_enough, nothing_comes_from_elsewhere)


def run_test(test, program, browser):
    begun = time.monotonic()
    try:
        with Zentmon(program) as zentmon:
            test(zentmon, browser)
            messages = [entry for entry in browser.get_log("browser")
                        if entry["level"] == "SEVERE" and "net::ERR" not in entry["message"]]
            assert not messages, f"the browser's console: {messages}"
            browser.get("about:blank")
    except Exception:  # pylint: disable=broad-except
        traceback.print_exc()
        print(f"FAILED {test.__name__}")
        return False
    print(f"ok     {test.__name__} ({time.monotonic() - begun:.1f} s)")
    return True


def main():
    try:
        browser = open_browser()
    except (ImportError, OSError) as error:
        print(f"skipped: {error} (packages chromium, chromium-driver, python3-selenium)")
        return SKIPPED
    try:
        chosen = [test for test in TESTS if not sys.argv[2:] or test.__name__ in sys.argv[2:]]
        results = [run_test(test, sys.argv[1], browser) for test in chosen]
    finally:
        browser.quit()
    print(f"{sum(results)} passed, {len(results) - sum(results)} failed")
    return 0 if results and all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
