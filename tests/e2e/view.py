#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Looks through the page of `runeflow view` with a real browser, headless.

Usage: view.py PATH_OF_RUNEFLOW [--only NAME] [--pictures FOLDER] [--picture FILE]

Prints one line per check; exit codes as in run.py. --only runs one of the groups, --pictures keeps a screenshot of
every state, --picture makes the picture for the README and checks nothing.
"""

import argparse
import contextlib
import os
import pathlib
import shutil
import sqlite3
import subprocess
import sys
import tempfile

from browser import Browser, By, CHROMIUM, DRIVER, Keys, WebDriverException, count_of, viewing
from run import AdbServer, Checks, Database, DltDaemon, free_port, wait_until
import view_captures
import view_logs
import view_safety

LINES = 30_000
MESSAGES = 5_000


class Stage:
    """What the groups of checks share: the program, the captured logs, the report."""

    def __init__(self, program, folder, checks, pictures):
        self.program = program
        self.folder = folder
        self.checks = checks
        self.pictures = pictures
        self.check = checks.check

    def capture(self, name, log):
        database = self.folder / f"{name}.db"
        if not database.exists():
            subprocess.run([self.program, "capture", log, "--db", database], check=True, capture_output=True, timeout=120)
        return database

    @contextlib.contextmanager
    def page(self, database=None, *, hash="", width=1280, height=800, dark=False, quiet=True):
        """A browser that looks at a database; checks at the end that the console stayed empty."""
        with viewing(self.program, self.folder, *([database] if database else [])) as server:
            with Browser(width, height, dark) as browser:
                browser.server = server
                browser.open(server.address, ready=database is not None)
                if hash:
                    browser.js("history.replaceState(null, '', `#${arguments[0]}`)", hash)
                    browser.driver.refresh()
                    browser.ready()
                yield browser
                if quiet:
                    messages = browser.messages()
                    self.check("no message on the console", not messages, messages)

    def picture(self, browser, name):
        if self.pictures:
            browser.settled()
            browser.screenshot(self.pictures / f"{name}.png")

    def counts(self, database, query, *options):
        return count_of(self.program, database, query, *options)

    def equal(self, name, got, expected):
        self.check(name, got == expected, f"expected {expected!r}, got {got!r}")


def wait_equal(stage, name, read, expected):
    """Checks that a value becomes the expected one."""
    got = None

    def holds():
        nonlocal got
        got = read()
        return got == expected

    with contextlib.suppress(TimeoutError):
        wait_until(name, holds)
    stage.equal(name, got, expected)


# --- the list


def check_list(stage):
    database = stage.capture("phone", stage.phone)
    total = stage.counts(database, "")
    with stage.page(database) as page:
        stage.equal("list: the count is that of the command", page.count(), total)
        stage.check("list: opens at the newest records", page.seqs()[-1] == total, page.seqs()[-3:])
        stage.equal("list: says its number of rows", page.attribute("[role=grid]", "aria-rowcount"), str(total + 1))
        stage.equal("list: columns in the descriptor's order", page.js("return [...document.querySelectorAll('[role=columnheader]')].slice(1).map((e) => e.textContent)"), ["Tag", "PID", "L", "Message"])
        stored = sqlite3.connect(database).execute("SELECT s0, s1, message FROM events WHERE seq = ?", (total,)).fetchone()
        row = page.rows()[-1]
        stage.equal("list: a row has the record's fields", (row[2], row[3], row[5]), stored)
        stage.check("list: few rows exist", page.js("return document.querySelectorAll('.rows > *').length") < 200)
        page.scroll_to(0)
        stage.equal("list: the scroll bar's top shows the first record", page.seqs()[0], 1)
        page.scroll_to(0.5)
        middle = page.seqs()
        stage.check("list: the middle of the scroll bar shows the middle", abs(middle[len(middle) // 2] - total / 2) < 30, middle)
        stage.equal("list: consecutive records", middle, list(range(middle[0], middle[0] + len(middle))))
        stage.picture(page, "list-light")
        stage.check("list: names the zone of its times once", "UTC" in page.text("#zone"), page.text("#zone"))
        check_hints(stage, page)
        check_keys(stage, page, total)
        check_dates(stage, page, database)
        check_copy(stage, page, database)


# Columns that no kind of log has yet: a badge, a value that stands out, a column that is not in the list.
COLUMNS = [
    {"name": "kind", "label": "Kind", "column": "s0", "inTable": True, "badge": "antenna", "hero": None},
    {"name": "host", "label": "Host", "column": "s1", "inTable": False, "badge": None, "hero": "here"},
    {"name": "level", "label": "Level", "column": "level", "inTable": True, "badge": None, "hero": None},
]
ROWS = """
const {Columns, Row} = await import(location.pathname + 'page/row.js');
const columns = new Columns(given[0]);
const parent = document.createElement('div');
for (const [seq, fields] of [[1, ['radio', 'here']], [2, ['', 'there']]]) {
  const row = new Row();
  row.show(seq - 1, seq, {seq, time: 0, level: 2, fields, text: 'text', length: 4, marks: []}, columns, ['T', 'D', 'Info'], '', false);
  parent.append(row.node);
}
return [...parent.children].map((row) => [row.classList.contains('hero'), row.querySelector('.badge')?.textContent ?? null, row.children.length]);
"""


def check_hints(stage, page):
    got = page.eval_async(ROWS, COLUMNS)
    stage.equal("list: badge and hero are shown, table fields only", got, [[True, "radio", 4], [False, None, 4]])


def check_keys(stage, page, total):
    page.focus_list()
    page.press(Keys.HOME)
    wait_equal(stage, "keys: Home selects the first record", page.selected, [1])
    page.press(Keys.ARROW_DOWN, Keys.ARROW_DOWN, Keys.ARROW_UP)
    wait_equal(stage, "keys: arrows move by one", page.selected, [2])
    stage.equal("keys: the grid names its active row", page.attribute("[role=grid]", "aria-activedescendant"), "row-2")
    stage.equal("keys: a row says its number", page.attribute("#row-2", "aria-rowindex"), "3")
    page.press(Keys.PAGE_DOWN)
    page.until("the selection has moved", "return document.querySelector('[aria-selected=true]')?.dataset.seq > 2")
    below = page.selected()[0]
    page.press(Keys.PAGE_UP)
    wait_equal(stage, "keys: Page Up undoes Page Down", page.selected, [2])
    stage.check("keys: Page Down moves by a page", 10 < below < 60, below)
    stage.equal("follow: is off away from the end", page.attribute("#follow", "aria-pressed"), "false")
    page.press(Keys.END)
    wait_equal(stage, "keys: End selects the last record", page.selected, [total])
    wait_equal(stage, "follow: is on at the end", lambda: page.attribute("#follow", "aria-pressed"), "true")
    page.press("f")
    wait_equal(stage, "keys: f switches following off", lambda: page.attribute("#follow", "aria-pressed"), "false")
    page.press("/")
    stage.check("keys: / goes to the query", page.js("return document.activeElement.id === 'query'"))
    page.press(Keys.ESCAPE)
    stage.check("keys: Esc goes back to the list", page.js("return document.activeElement.getAttribute('role') === 'grid'"))
    page.press(Keys.ENTER)
    page.until("the record opens", "return !document.querySelector('#detail').hidden")
    stage.equal("keys: Enter opens the selected record", page.attribute("#detail", "data-seq"), str(total))
    page.press(Keys.ARROW_UP)
    wait_equal(stage, "keys: the opened record goes with the selection", lambda: page.attribute("#detail", "data-seq"), str(total - 1))
    page.press(Keys.ESCAPE)
    wait_equal(stage, "keys: Esc closes the record", lambda: page.js("return document.querySelector('#detail').hidden"), True)
    page.press(Keys.HOME)
    wait_equal(stage, "keys: Home again", page.selected, [1])
    page.press_with_shift(Keys.ARROW_DOWN, Keys.ARROW_DOWN)
    wait_equal(stage, "keys: Shift extends the selection", page.selected, [1, 2, 3])


def check_dates(stage, page, database):
    rows = sqlite3.connect(database).execute("SELECT seq, date(ts / 1000000, 'unixepoch', 'localtime') FROM events ORDER BY seq").fetchall()
    change = next(seq for (_, before), (seq, day) in zip(rows, rows[1:]) if day != before)
    page.scroll_to((change - 12) / len(rows))
    page.until("the date stands where it changes", "return document.querySelector('.rows .day')")
    got = page.js("return [...document.querySelectorAll('.rows .day')].map((e) => Number(e.closest('[role=row]').dataset.seq))")
    stage.equal("list: the date stands where the day changes", got, [change])
    stage.check("list: the date in words", "March" in page.text(".rows .day"), page.text(".rows .day"))
    stage.picture(page, "list-date")
    page.click("#microseconds")
    page.until("microseconds are shown", "return /\\.\\d{6}$/.test(document.querySelector('.rows .time').textContent)")
    seq, time = page.js("const row = document.querySelector('.rows [data-seq]'); return [Number(row.dataset.seq), row.querySelector('.time').textContent]")
    stored = sqlite3.connect(database).execute("SELECT strftime('%H:%M:', ts / 1000000, 'unixepoch', 'localtime') || printf('%09.6f', ts % 60000000 / 1e6) FROM events WHERE seq = ?", (seq,)).fetchone()[0]
    stage.equal("list: local time with microseconds", time, stored)
    page.click("#microseconds")


def check_copy(stage, page, database):
    page.focus_list()
    page.press(Keys.HOME)
    wait_equal(stage, "copy: selects", page.selected, [1])
    page.press_with_shift(Keys.ARROW_DOWN)
    wait_equal(stage, "copy: selects two", page.selected, [1, 2])
    page.copied()
    page.press("c")
    page.until("the copy is announced", "return /Copied/.test(document.querySelector('#announce').textContent)")
    lines = subprocess.run([stage.program, "query", database, "", "--first", "2"], capture_output=True, text=True, timeout=30).stdout
    stage.equal("copy: the lines that query prints", page.copied(), lines)


# --- the query line

WORD = "connect"
QUERIES = (
    "connect",
    "level:warn",
    "connect wifi NOT tag:chatty",
    "tag:ActivityManager OR tag:Zygote",
    "(failed OR timeout) level:error",
    "NOT level:info",
    "nosuchwordanywhere",
    'tag:CarService "vehicle speed"',
)


def check_query(stage):
    database = stage.capture("phone", stage.phone)
    with stage.page(database) as page:
        for query in QUERIES:
            expected = stage.counts(database, query)
            page.query(query)
            wait_equal(stage, f"query: the count of {query!r} is that of the command", lambda: page.attribute("#count", "data-count"), str(expected))
            page.settled()
            stage.equal(f"query: {query!r} fills the list", len(page.rows()) > 0, expected > 0)
        page.query("connect NOT tag:chatty")
        page.count_becomes(stage.counts(database, "connect NOT tag:chatty"))
        stage.check("query: says what it understood", "connect" in page.text("#words") and "not" in page.text("#words"), page.text("#words"))
        page.click("#show-plan")
        page.until("the plan is shown", "return document.querySelector('#plan').textContent.length > 10")
        page.click("#show-plan")
        page.settled()
        marks = page.js("return [...document.querySelectorAll('.rows mark')].map((e) => e.textContent.toLowerCase())")
        stage.check("query: the word is marked in every row", len(marks) >= len(page.rows()) and all(mark.startswith("connect") for mark in marks), marks[:5])
        check_rare(stage, page, database)
        check_matching_case(stage, page, database)
        check_filtered_places(stage, page, database)
        check_context(stage, page, database)
        check_outdated(stage, page, database)
        check_completion(stage, page, database)


def check_rare(stage, page, database):
    """Matches that stand far from each other are all in the list, whatever was known before they were counted."""
    for step in (3_001, 131):
        query = " OR ".join(f"#{number}" for number in range(10_017, LINES, step))
        lines = subprocess.run([stage.program, "query", database, query], capture_output=True, text=True, timeout=30).stdout
        expected = [int(line.split("\t")[0]) for line in lines.splitlines()]
        page.query(query)
        page.count_becomes(len(expected))
        page.scroll_to(1)
        shown = page.seqs()
        stage.equal(f"query: the last of {len(expected)} rare matches", shown, expected[-len(shown) :])
        page.scroll_to(0)
        shown = page.seqs()
        stage.equal(f"query: the first of {len(expected)} rare matches", shown, expected[: len(shown)])
    page.query("connect")
    page.until("the number of matches is said to screen readers", "return /matches of/.test(document.querySelector('#announce').textContent)")
    page.js("""window.gaps = 0; window.watcher = new MutationObserver(() => { if (document.querySelector('.rows .waiting')) window.gaps += 1; });
        window.watcher.observe(document.querySelector('.rows'), {subtree: true, childList: true, attributes: true});""")
    page.query("failed")
    page.count_becomes(stage.counts(database, "failed"))
    page.settled()
    stage.equal("query: no row is empty while the answer comes", page.js("window.watcher.disconnect(); return window.gaps"), 0)


def check_matching_case(stage, page, database):
    page.query("Start")
    page.count_becomes(stage.counts(database, "Start"))
    page.click("#match-case")
    wait_equal(stage, "query: matches case on request", lambda: page.attribute("#count", "data-count"), str(stage.counts(database, "Start", "--match-case")))
    page.click("#match-case")


def check_filtered_places(stage, page, database):
    """Any place of a narrowed list shows the matches that belong there."""
    query = "level:warn"
    seqs = [row[0] for row in sqlite3.connect(database).execute("SELECT seq FROM events WHERE level >= 3 ORDER BY seq")]
    page.query(query)
    page.count_becomes(len(seqs))
    for share in (0, 0.37, 0.81, 1):
        page.scroll_to(share)
        shown = page.seqs()
        place = seqs.index(shown[0])
        stage.equal(f"query: matches without a gap at {share:.0%}", shown, seqs[place : place + len(shown)])
        stage.check(f"query: the scroll bar at {share:.0%} stands for the place", abs(place / max(1, len(seqs) - len(shown)) - share) < 0.02, place)


def check_context(stage, page, database):
    page.query("level:error")
    expected = stage.counts(database, "level:error")
    page.count_becomes(expected)
    page.scroll_to(0.5)
    target = page.seqs()[5]
    page.js("document.querySelector(`#row-${arguments[0]}`).click()", target)
    page.click("#detail [data-action=context]")
    page.until("all records are shown", "return document.querySelector('#filter').getAttribute('aria-pressed') === 'false'")
    page.settled()
    wait_equal(stage, "context: the record is selected among all records", page.selected, [target])
    shown = page.seqs()
    stage.check("context: the records around the match", target - 3 in shown and target + 3 in shown, shown)
    wait_equal(stage, "context: the count is still that of the matches", lambda: page.attribute("#count", "data-count"), str(expected))
    stage.equal("context: all records are in the list", page.attribute("[role=grid]", "aria-rowcount"), str(stage.counts(database, "") + 1))
    page.until("matching rows stand out", "return document.querySelector('.rows .matching')")
    stage.picture(page, "context")
    matches = [row[0] for row in sqlite3.connect(database).execute("SELECT seq FROM events WHERE level >= 4 ORDER BY seq")]
    at = matches.index(target)
    page.focus_list()
    page.press("n")
    wait_equal(stage, "keys: n selects the next match", page.selected, [matches[at + 1]])
    page.press("N")
    wait_equal(stage, "keys: N selects the previous match", page.selected, [target])
    page.driver.back()
    wait_equal(stage, "context: Back narrows again", lambda: page.attribute("#filter", "aria-pressed"), "true")
    page.press(Keys.ESCAPE)


def check_outdated(stage, page, database):
    """Letters that are typed faster than answers come: the last one counts."""
    for _ in range(3):
        page.query("")
        for end in range(1, len(WORD) + 1):
            page.js("const q = document.querySelector('#query'); q.value = arguments[0]; q.dispatchEvent(new Event('input', {bubbles: true}))", WORD[:end])
        wait_equal(stage, "query: the newest answer stands", lambda: page.attribute("#count", "data-count"), str(stage.counts(database, WORD)))
        page.settled()
        stage.check("query: so do its rows", all(WORD in row[-1].lower() for row in page.rows()))


def check_completion(stage, page, database):
    page.query("")
    page.find("#query").send_keys("ta")
    page.until("the field is offered", "return [...document.querySelectorAll('#completions li')].some((e) => e.textContent.startsWith('tag:'))")
    page.press(Keys.ARROW_DOWN)
    stage.check("completion: the active offer is named", page.attribute("#query", "aria-activedescendant") == "completion-0")
    page.press(Keys.ENTER)
    page.until("the values are offered", "return document.querySelectorAll('#completions li').length > 3")
    stage.equal("completion: the name is completed", page.js("return document.querySelector('#query').value"), "tag:")
    page.find("#query").send_keys("Wi")
    page.until("values that begin so are offered", "return [...document.querySelectorAll('#completions li')].every((e) => e.textContent.startsWith('Wi')) && document.querySelector('#completions li')")
    stage.picture(page, "completion")
    page.press(Keys.ARROW_DOWN, Keys.TAB)
    wait_equal(stage, "completion: the value is completed and asked", lambda: page.js("return document.querySelector('#query').value.trim()"), "tag:WifiService")
    page.count_becomes(stage.counts(database, "tag:WifiService"))
    page.press(Keys.ESCAPE)
    page.query("")
    page.find("#query").send_keys("level:w")
    page.until("levels are offered", "return document.querySelector('#completions li')?.textContent.startsWith('warning')")
    page.press(Keys.ESCAPE)
    stage.check("completion: Esc closes the offers only", page.js("return document.querySelector('#completions').hidden && document.querySelector('#query').value === 'level:w'"))


# --- timeline, facets, detail, address


def check_timeline(stage):
    database = stage.capture("phone", stage.phone)
    total = stage.counts(database, "")
    with stage.page(database) as page:
        label = page.until("the timeline stands", "const l = document.querySelector('#timeline').getAttribute('aria-label'); return /in all/.test(l) && l")
        stage.check("timeline: says span and total", f"{total:,} records in all" in label and " to " in label, label)
        stage.check("timeline: is stacked by level", page.js("return document.querySelectorAll('#timeline path[data-tone]').length") >= 5)
        page.query(WORD)
        page.until("matches stand in front", "return /matches/.test(document.querySelector('#timeline').getAttribute('aria-label'))")
        stage.check("timeline: all records stand behind the matches", page.js("return document.querySelector('#timeline path').dataset.tone === undefined"))
        page.query("")
        page.count_becomes(total)
        page.until("the matches are gone", "return !/match/.test(document.querySelector('#timeline').getAttribute('aria-label'))")
        page.drag_timeline(0.3, 0.6)
        page.until("a span is chosen", "return new URLSearchParams(location.hash.slice(1)).get('until')")
        begin, end = page.js("const s = new URLSearchParams(location.hash.slice(1)); return [Number(s.get('from')), Number(s.get('until'))]")
        expected = sqlite3.connect(database).execute("SELECT count(*) FROM events WHERE ts >= ? AND ts < ?", (begin, end)).fetchone()[0]
        stage.check("timeline: dragging chooses a part", 0 < expected < total, expected)
        wait_equal(stage, "timeline: the span narrows the count", lambda: page.attribute("#count", "data-count"), str(expected))
        page.scroll_to(0)
        stage.equal("timeline: the span narrows the list", page.seqs()[0], sqlite3.connect(database).execute("SELECT min(seq) FROM events WHERE ts >= ?", (begin,)).fetchone()[0])
        wait_equal(stage, "timeline: the span narrows the level counts", lambda: level_sum(page), expected)
        stage.picture(page, "span")
        page.find("#timeline .plot").click()
        wait_equal(stage, "timeline: a click clears the span", lambda: page.attribute("#count", "data-count"), str(total))
        page.js("document.querySelector('#timeline .plot').focus()")
        page.press(Keys.HOME, Keys.ARROW_RIGHT)
        page.press_with_shift(Keys.ARROW_RIGHT, Keys.ARROW_RIGHT)
        stage.check("timeline: the keyboard says what it would choose", "record" in (page.attribute("#timeline .plot", "aria-valuetext") or ""))
        page.press(Keys.ENTER)
        page.until("a span is chosen by keyboard", "return new URLSearchParams(location.hash.slice(1)).get('until')")
        page.until("the span has a chip", "return !document.querySelector('#span').hidden")
        page.click("#span")
        wait_equal(stage, "timeline: the chip clears the span", lambda: page.attribute("#count", "data-count"), str(total))


def level_sum(page):
    return page.js("return [...document.querySelectorAll('button[data-level] .number')].reduce((sum, e) => sum + Number(e.textContent.replaceAll(',', '')), 0)")


def check_facets(stage):
    database = stage.capture("phone", stage.phone)
    connection = sqlite3.connect(database)
    total = stage.counts(database, "")
    with stage.page(database) as page:
        page.until("the facets stand", "return document.querySelectorAll('.facet').length > 8")
        levels = page.js("return [...document.querySelectorAll('button[data-level]')].map((e) => Number(e.querySelector('.number').textContent.replaceAll(',', '')))")
        by_level = dict(connection.execute("SELECT level, count(*) FROM events GROUP BY level"))
        stage.equal("facets: the counts of the levels", levels, [by_level.get(level, 0) for level in range(6)])
        tag, number = connection.execute("SELECT s0, count(*) FROM events GROUP BY s0 ORDER BY 2 DESC, 1 LIMIT 1").fetchone()
        selector = f".facet[data-condition='tag:{tag}']"
        stage.equal("facets: the most frequent value and its count", page.text(f"{selector} .number"), f"{number:,}")
        for state, query, pressed, expected in (
            ("a click adds the value", f"tag:{tag}", "true", number),
            ("a second click negates it", f"NOT tag:{tag}", "false", total - number),
            ("a third click removes it", "", "false", total),
        ):
            page.click(selector)
            wait_equal(stage, f"facets: {state}", lambda: page.js("return document.querySelector('#query').value"), query)
            page.count_becomes(expected)
            wait_equal(stage, f"facets: {state}, and the button says so", lambda: page.attribute(selector, "aria-pressed"), pressed)
        for state, query, included in (
            ("a click on a level", "level:error", ["error", "fatal"]),
            ("a second click", "NOT level:error", ["trace", "debug", "info", "warning"]),
            ("a third click", "", []),
        ):
            page.click("button[data-level=error]")
            wait_equal(stage, f"facets: {state}", lambda: page.js("return document.querySelector('#query').value"), query)
            page.count_becomes(stage.counts(database, query))
            stage.equal(f"facets: the levels after {state}", page.js("return [...document.querySelectorAll('button[data-level][aria-pressed=true]')].map((e) => e.dataset.level)"), included)
        page.query("connect OR failed")
        page.count_becomes(stage.counts(database, "connect OR failed"))
        page.click("button[data-level=warning]")
        page.count_becomes(stage.counts(database, "(connect OR failed) level:warning"))
        check_query_text(stage, page)


# What a click on a value makes of a query: (query, name, value, expected).
CLICKS = (
    ("", "tag", "Net", "tag:Net"),
    ("", "tag", "Disk Cache", 'tag:"Disk Cache"'),
    ("", "tag", "f(x)", 'tag:"f(x)"'),
    ("tag:Net", "tag", "Net", "NOT tag:Net"),
    ("a TAG:Net b", "tag", "Net", "a NOT tag:Net b"),
    ("a NOT tag:Net b", "tag", "Net", "a b"),
    ("a NOT NOT tag:Net", "tag", "Net", "a NOT tag:Net"),
    ('a tag:"Disk Cache"', "tag", "Disk Cache", 'a NOT tag:"Disk Cache"'),
    ("tag:Net", "tag", "Wifi", "tag:Net tag:Wifi"),
    ("a OR b", "tag", "Net", "(a OR b) tag:Net"),
    ("(a OR b)", "tag", "Net", "(a OR b) tag:Net"),
    ("(a OR tag:Net)", "tag", "Net", "(a OR tag:Net) tag:Net"),
    ("a (b", "tag", "Net", "a (b) tag:Net"),
    ('a "b', "tag", "Net", 'a "b" tag:Net'),
    ('a "x OR y"', "tag", "Net", 'a "x OR y" tag:Net'),
    ('a', "tag", 'say "hi"', "a"),
    ("a", "tag", "", "a"),
)


def check_query_text(stage, page):
    results = page.eval_async("const text = await import(location.pathname + 'page/query_text.js'); return given[0].map(([query, name, value]) => text.cycle(query, name, value))", [list(click[:3]) for click in CLICKS])
    for (query, name, value, expected), got in zip(CLICKS, results):
        stage.equal(f"facets: {value!r} of {name} after {query!r}", got, expected)


def check_detail(stage):
    recording = stage.folder / "car.dlt"
    view_logs.dlt_recording(recording, MESSAGES)
    database = stage.capture("car", recording)
    with contextlib.closing(sqlite3.connect(database)) as connection, connection:
        connection.execute("UPDATE events SET ctx = ? WHERE seq = 10", ('{"userId":"42","url":"http://a/<b>"}',))
    with stage.page(database, hash="at=1") as page:
        stage.equal("dlt: the count is that of the command", page.count(), stage.counts(database, ""))
        stage.equal("dlt: columns in the descriptor's order", page.js("return [...document.querySelectorAll('[role=columnheader]')].slice(1).map((e) => e.textContent)"), ["ECU", "App", "Context", "Type", "Count", "L", "Message"])
        page.query("ctx.userId:42")
        page.count_becomes(1)
        page.query("")
        page.count_becomes(MESSAGES)
        page.scroll_to(0)
        page.js("document.querySelector('#row-10').click()")
        page.until("the record opens", "return document.querySelector('#detail').dataset.seq === '10'")
        facts = page.js("return Object.fromEntries([...document.querySelectorAll('#detail dd[data-name]')].map((e) => [e.dataset.name, e.textContent]))")
        row = sqlite3.connect(database).execute("SELECT ts, s0, s1, s2, s3, s4, s6, message FROM events WHERE seq = 10").fetchone()
        stage.equal("detail: all fields", [facts.get(name) for name in ("microseconds", "ecu", "app", "context", "type", "count", "tmsp")], [str(row[0]), *row[1:7]])
        utc = sqlite3.connect(database).execute("SELECT strftime('%Y-%m-%dT%H:%M:', ts / 1000000, 'unixepoch') || printf('%09.6fZ', ts % 60000000 / 1e6) FROM events WHERE seq = 10").fetchone()[0]
        stage.equal("detail: the time in UTC", facts.get("utc"), utc)
        stage.check("detail: the local time", facts.get("local", "").count(":") >= 2, facts)
        stage.equal("detail: the message with its line breaks", page.text("#detail pre"), row[7])
        stage.equal("detail: the context map", page.js("return [...document.querySelectorAll('#detail .context > *')].map((e) => e.textContent)"), ["url", "http://a/<b>", "userId", "42"])
        stage.picture(page, "detail-dlt")
        page.copied()
        page.click("#detail [data-action=copy]")
        line = subprocess.run([stage.program, "query", database, "ctx.userId:42"], capture_output=True, text=True, timeout=30).stdout
        page.until("the copy is announced", "return /Copied/.test(document.querySelector('#announce').textContent)")
        stage.equal("detail: Copy gives the line that query prints", page.copied(), line)
        page.click("#detail [data-action=link]")
        page.until("the link is announced", "return /link/.test(document.querySelector('#announce').textContent)")
        link = page.copied()
        page.driver.switch_to.new_window("tab")
        page.open(link)
        page.until("the link opens the record", "return document.querySelector('#detail').dataset.seq === '10' && !document.querySelector('#detail').hidden")
        with contextlib.suppress(TimeoutError):
            wait_until("the list shows the record", lambda: 10 in page.seqs())
        stage.check("detail: the link shows it in a second tab", 10 in page.seqs(), page.seqs())


def check_address(stage):
    database = stage.capture("phone", stage.phone)
    with stage.page(database) as page:
        page.query("level:warn connect")
        page.count_becomes(stage.counts(database, "level:warn connect"))
        page.scroll_to(0.4)
        page.click("#microseconds")
        top = page.seqs()[0]
        page.until("the place is in the address", "return location.hash.includes(`at=${arguments[0]}`) && /us=1/.test(location.hash)", top)
        page.driver.refresh()
        page.ready()
        page.settled()
        page.count_becomes(stage.counts(database, "level:warn connect"))
        stage.equal("address: reload restores the query", page.js("return document.querySelector('#query').value"), "level:warn connect")
        wait_equal(stage, "address: reload restores the place", lambda: page.seqs()[:1], [top])
        stage.equal("address: reload restores the switches", page.attribute("#microseconds", "aria-pressed"), "true")
        stage.check("address: carries no token", "token" not in page.driver.current_url, page.driver.current_url)
        page.js("document.querySelector('#filter').click()")
        page.until("the filter is off", "return /show=all/.test(location.hash)")
        page.query("Zygote")
        page.count_becomes(stage.counts(database, "Zygote"))
        page.driver.back()
        wait_equal(stage, "address: Back restores the query", lambda: page.js("return document.querySelector('#query').value"), "level:warn connect")
        page.driver.back()
        wait_equal(stage, "address: Back restores the switch", lambda: page.attribute("#filter", "aria-pressed"), "true")
        page.driver.forward()
        wait_equal(stage, "address: Forward", lambda: page.attribute("#filter", "aria-pressed"), "false")
        with Browser() as stranger:
            stranger.open(page.driver.current_url, ready=False)
            text = stranger.js("return document.body.textContent")
            stage.check("address: elsewhere the page says to open the printed address", "printed" in text, text[:200])


# --- how it looks


def check_look(stage):
    database = stage.capture("phone", stage.phone)
    empty = stage.folder / "empty.db"
    if not empty.exists():
        (stage.folder / "nothing.log").write_text("")
        subprocess.run([stage.program, "capture", stage.folder / "nothing.log", "--db", empty, "--format", "logcat"], capture_output=True, timeout=30)
    for width, dark in ((1280, False), (1280, True), (390, False), (390, True), (360, False), (3000, True)):
        name = f"{width}-{'dark' if dark else 'light'}"
        with stage.page(database, width=width, dark=dark, hash="q=connect NOT tag:chatty") as page:
            page.settled()
            page.until("the facets stand", "return document.querySelectorAll('.facet').length > 8")
            stage.equal(f"look: nothing is wider than {name}", page.js("return document.documentElement.scrollWidth > innerWidth"), False)
            outside = page.js("""return [...document.querySelectorAll('header button, #query, #count, #microseconds, #timeline .plot')]
                .filter((e) => e.offsetParent && (e.getBoundingClientRect().right > innerWidth + 1 || e.getBoundingClientRect().left < 0)).map((e) => e.id)""")
            stage.equal(f"look: every control is inside at {name}", outside, [])
            stage.picture(page, name)
            page.open_row(8)
            page.until("the record opens", "return !document.querySelector('#detail').hidden")
            stage.picture(page, f"{name}-detail")
            stage.check(f"look: rows remain beside the record at {name}", len(page.rows()) > 3)
            if width < 700:
                page.press(Keys.ESCAPE)
                page.click("#open-facets")
                page.until("the facets open", "return document.querySelector('#facets').offsetParent !== null")
                stage.picture(page, f"{name}-facets")
                page.click("button[data-level=error]")
                page.count_becomes(stage.counts(database, "connect NOT tag:chatty level:error"))
            check_contrast(stage, page, name)
            check_names(stage, page, name)
    for dark in (False, True):
        with stage.page(empty if empty.exists() else None, dark=dark) as page:
            stage.check("look: an empty database says so", "No records" in page.text("#empty"), page.text("#empty"))
            stage.picture(page, f"empty-{'dark' if dark else 'light'}")


# Text and what is behind it, by custom property. The controls' outlines need 3:1.
TEXTS = [
    *((ink, ground, 4.5) for ground in ("background", "panel", "row", "accent-background") for ink in ("ink", "dim", "accent", "trace", "debug", "info", "warning", "error", "fatal")),
    ("mark-ink", "mark", 4.5), ("on-accent", "accent", 4.5), ("background", "error", 4.5), ("error", "bad-background", 4.5),
    ("background", "ink", 4.5), ("control-line", "background", 3), ("control-line", "panel", 3),
]


def check_contrast(stage, page, name):
    colours = page.js("const s = getComputedStyle(document.documentElement); return Object.fromEntries(arguments[0].map((n) => [n, s.getPropertyValue('--' + n).trim()]))", sorted({colour for text in TEXTS for colour in text[:2]}))
    weak = [(ink, ground, round(contrast(colours[ink], colours[ground]), 2)) for ink, ground, least in TEXTS if contrast(colours[ink], colours[ground]) < least]
    stage.equal(f"contrast: text is readable in {name}", weak, [])


def luminance(colour):
    parts = [int(colour[at : at + 2], 16) / 255 for at in (1, 3, 5)]
    linear = [part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in parts]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


def contrast(one, other):
    low, high = sorted((luminance(one), luminance(other)))
    return (high + 0.05) / (low + 0.05)


def check_names(stage, page, name):
    """Asks the browser's accessibility tree: everything that takes the focus has a role and a name."""
    nodes = page.command("Accessibility.getFullAXTree")["nodes"]
    value = lambda node, key: (node.get(key) or {}).get("value")
    focusable = [node for node in nodes if not node.get("ignored") and any(p["name"] == "focusable" and p["value"].get("value") for p in node.get("properties", []))]
    nameless = [value(node, "role") for node in focusable if not value(node, "name") and value(node, "role") not in ("RootWebArea", "generic")]
    stage.check(f"names: everything that takes the focus has one in {name}", len(focusable) > 10 and not nameless, nameless)
    roles = {value(node, "role") for node in nodes}
    missing = {"grid", "row", "gridcell", "columnheader", "combobox", "slider", "main", "status"} - roles
    stage.equal(f"names: the roles are understood in {name}", missing, set())


def check_sources_of_page(stage):
    """The files of the page: what is preloaded, and nothing that the security policy would refuse."""
    folder = pathlib.Path(__file__).resolve().parents[2] / "viewer" / "page"
    index = (folder / "index.html").read_text()
    unlisted = [file.name for file in folder.glob("*.js") if f'href="page/{file.name}"' not in index and file.name != "main.js"]
    stage.equal("files: index.html preloads every module", unlisted, [])
    forbidden = [(file.name, word) for file in folder.glob("*.*") for word in ("innerHTML", "outerHTML", "insertAdjacentHTML", "document.write", "eval(", "new Function", "https://") if word in file.read_text()]
    stage.equal("files: no module reads markup from text or loads from elsewhere", forbidden, [])


# --- the picture of the README


def make_picture(stage, path):
    with stage.page(stage.capture("phone", stage.phone), hash="q=(failed OR timeout) level:info", height=720) as page:
        page.settled()
        page.until("the facets stand", "return document.querySelectorAll('.facet').length > 8")
        page.until("the matches stand in the timeline", "return /matches/.test(document.querySelector('#timeline').getAttribute('aria-label'))")
        page.open_row(9)
        page.until("the record opens", "return !document.querySelector('#detail').hidden")
        page.js("document.activeElement.blur()")
        page.settled()
        page.screenshot(path)


def check_picture(stage):
    path = stage.folder / "view.png"
    make_picture(stage, path)
    stage.check("picture: below 200 KB", 20_000 < path.stat().st_size < 200_000, path.stat().st_size)


GROUPS = {
    "files": check_sources_of_page,
    "list": check_list,
    "query": check_query,
    "timeline": check_timeline,
    "facets": check_facets,
    "detail": check_detail,
    "address": check_address,
    "look": check_look,
    "attacks": view_safety.check_attacks,
    "strangers": view_safety.check_strangers,
    "replaced": view_safety.check_replaced,
    "follow": view_captures.check_follow,
    "adb": view_captures.check_adb,
    "dlt": view_captures.check_dlt,
    "picture": check_picture,
}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program", type=pathlib.Path)
    parser.add_argument("--only", choices=GROUPS)
    parser.add_argument("--pictures", type=pathlib.Path)
    parser.add_argument("--picture", type=pathlib.Path)
    options = parser.parse_args()
    if not os.access(options.program, os.X_OK):
        parser.error(f"{options.program} is no program")
    missing = [program for program in (CHROMIUM, DRIVER, "adb", "dlt-daemon") if not shutil.which(program)]
    if missing:
        print(f"{', '.join(missing)} not found; install the packages in packaging/debian-e2e.txt", file=sys.stderr)
        return 2
    if options.pictures:
        options.pictures.mkdir(parents=True, exist_ok=True)
    checks = Checks()
    with tempfile.TemporaryDirectory() as name:
        stage = Stage(options.program.resolve(), pathlib.Path(name), checks, options.pictures)
        stage.phone = stage.folder / "phone.log"
        view_logs.phone_log(stage.phone, LINES)
        if options.picture:
            make_picture(stage, options.picture)
            print(f"{options.picture}: {options.picture.stat().st_size:,} bytes")
            return 0
        for group, check in GROUPS.items():
            if options.only not in (None, group):
                continue
            try:
                check(stage)
            except (OSError, TimeoutError, subprocess.SubprocessError, sqlite3.Error, WebDriverException) as error:
                checks.check(group, False, f"{type(error).__name__}: {error}")
    print(f"{checks.passed} passed, {checks.failed} failed")
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
