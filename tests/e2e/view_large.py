#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Measures the page of `runeflow view` on a large database, and while it follows a capture at full speed.

Usage: view_large.py PATH_OF_RUNEFLOW [DB...] [--records N] [--seconds N] [--strict]

Without DB, generates one of N (1,000,000) records. Prints each figure beside the limit that a quiet machine of two
cores keeps. A figure fails if it exceeds four times its limit, because machines that run tests are busy; with --strict,
if it exceeds the limit.
"""

import argparse
import contextlib
import pathlib
import random
import subprocess
import sys
import tempfile
import threading
import time

import view_logs
from browser import Browser, count_of, viewing
from run import Checks, running, wait_until

WORD = "connect"
MB = 1_000_000

# Installed before the page's own scripts: the longest tasks, and when the timeline first stands.
WATCH = """
window.tasks = [];
new PerformanceObserver((list) => { for (const task of list.getEntries()) window.tasks.push(Math.round(task.duration)); }).observe({type: 'longtask', buffered: true});
window.timelineAt = 0;
const look = () => {
  if (/in all/.test(document.querySelector('#timeline')?.getAttribute('aria-label') ?? '')) window.timelineAt = performance.now();
  else requestAnimationFrame(look);
};
requestAnimationFrame(look);
"""

# Puts the scroll bar at a share of its range. Returns the milliseconds until every row in view has its record.
JUMP = """
const grid = document.querySelector('[role=grid]');
const begin = performance.now();
grid.scrollTop = (grid.scrollHeight - grid.clientHeight) * given[0];
await new Promise((done) => {
  const look = () => {
    const head = document.querySelector('.head').getBoundingClientRect().bottom;
    const rows = [...document.querySelectorAll('.rows > *')].map((row) => [row, row.getBoundingClientRect()]);
    const seen = rows.filter(([, box]) => box.bottom > head && box.top < innerHeight);
    if (seen.length > 5 && seen.every(([row]) => row.dataset.tone !== undefined)) done();
    else requestAnimationFrame(look);
  };
  requestAnimationFrame(look);
});
return performance.now() - begin;
"""

# Types a word. Returns the milliseconds until its first matches are marked in the list.
ASK = """
const input = document.querySelector('#query');
const begin = performance.now();
input.value = given[0];
input.dispatchEvent(new Event('input', {bubbles: true}));
await new Promise((done) => {
  const look = () => document.querySelector('.rows mark') ? done() : requestAnimationFrame(look);
  look();
});
return performance.now() - begin;
"""


class Report:
    def __init__(self, checks, slack):
        self.checks = checks
        self.slack = slack

    def __call__(self, what, figure, limit, unit):
        text = f"{what}: {figure:,.0f} {unit} (limit {limit:,} {unit})"
        self.checks.check(text, figure <= limit * self.slack, f"exceeds {self.slack} times the limit")


def measure_reading(program, folder, database, report):
    total = count_of(program, database, "")
    print(f"{database}: {total:,} records")
    with viewing(program, folder, database) as server, Browser() as page:
        page.command("Page.addScriptToEvaluateOnNewDocument", source=WATCH)
        page.open(server.address)
        first, timeline = [], []
        for _ in range(3):
            page.driver.refresh()
            page.ready()
            first.append(page.js("return performance.getEntriesByName('ready')[0].startTime"))
            timeline.append(page.until("the timeline stands", "return window.timelineAt"))
        report("first rows", sorted(first)[1], 300, "ms")
        report("timeline", sorted(timeline)[1], 1000, "ms")
        wait_until_idle(page)
        rng = random.Random(1)
        jumps = sorted(page.eval_async(JUMP, rng.random()) for _ in range(20))
        report("any place of the list, slowest of 20", jumps[-1], 100, "ms")
        words = []
        for _ in range(3):
            page.query("")
            page.count_becomes(total)
            wait_until_idle(page)
            words.append(page.eval_async(ASK, WORD))
        report(f"first matches of {WORD!r}, typed", sorted(words)[1], 200, "ms")
        matches = page.count()
        report.checks.check("the count is that of the command", matches == count_of(program, database, WORD), matches)
        wait_until_idle(page)
        jumps = sorted(page.eval_async(JUMP, rng.random()) for _ in range(20))
        report(f"any place of {matches:,} matches, slowest of 20", jumps[-1], 100, "ms")
        page.query("")
        page.count_becomes(total)
        page.js("window.tasks.length = 0")
        for _ in range(200):
            page.js("document.querySelector('[role=grid]').scrollTop += 150")
        report("longest task while scrolling", max(page.js("return window.tasks") + [0]), 100, "ms")
        report("page heap", page.heap_bytes() / MB, 100, "MB")
        report("server memory, largest", server.resident_bytes() / MB, 100, "MB")
        report.checks.check("no message on the console", not page.messages())


def wait_until_idle(page):
    page.settled()
    page.eval_async("await new Promise((done) => setTimeout(done, 300)); await fetch(location.pathname + 'api/v1/info')")


def measure_following(program, folder, seconds, report):
    """A capture at nice 10 that is fed without a pause, under a cap, so that its oldest records are deleted meanwhile."""
    database = folder / "followed.db"
    part = folder / "part.log"
    view_logs.phone_log(part, 50_000, seed=1)
    text = part.read_bytes()
    capture = ["nice", "-n", "10", program, "capture", "-", "--db", database, "--format", "logcat", "--max-bytes", "300M"]
    process = subprocess.Popen(capture, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def feed():
        with contextlib.suppress(OSError):
            while True:
                process.stdin.write(text)

    threading.Thread(target=feed, daemon=True).start()
    try:
        wait_until("the capture stores", lambda: database.exists() and count_of(program, database, "") > 10_000)
        with viewing(program, folder, database) as server, Browser() as page:
            page.command("Page.addScriptToEvaluateOnNewDocument", source=WATCH)
            page.open(server.address)
            page.settled()
            page.js("window.tasks.length = 0")
            begin = page.seqs()[-1]
            page.driver.set_script_timeout(seconds + 30)
            page.eval_async("await new Promise((done) => setTimeout(done, given[0] * 1000))", seconds)
            arrived = page.seqs()[-1] - begin
            tasks = page.js("return window.tasks")
            report.checks.check(f"{arrived:,} records followed in {seconds} s, {arrived / seconds:,.0f}/s", arrived > 0)
            report(f"longest task while following ({len(tasks)} over 50 ms)", max(tasks + [0]), 100, "ms")
            report("page heap after following", page.heap_bytes() / MB, 100, "MB")
            report("server memory after following, largest", server.resident_bytes() / MB, 100, "MB")
            report.checks.check("no message on the console", not page.messages())
    finally:
        process.kill()
        process.wait()


# Notes when the row of each "arrival N" first has its record, in milliseconds since 1970.
ARRIVALS = """
window.arrivals = {};
new MutationObserver(() => {
  for (const row of document.querySelectorAll('.rows [data-tone]')) {
    const found = /arrival (\\d+)/.exec(row.textContent);
    if (found) window.arrivals[found[1]] ??= performance.timeOrigin + performance.now();
  }
}).observe(document.querySelector('.rows'), {subtree: true, childList: true, attributes: true});
"""


def measure_arrival(program, folder, report, number=30):
    """Records that come one by one: from the write into the capture's pipe until the page has drawn the row."""
    database = folder / "arriving.db"
    capture = [program, "capture", "-", "--db", database, "--format", "logcat"]
    with running(capture, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as process:

        def send(text):
            process.stdin.write(f"03-17 16:00:00.000  1  1 I Arrival: {text}\n")
            process.stdin.flush()

        for _ in range(50):
            send("before")
        wait_until("the capture stores", lambda: database.exists() and count_of(program, database, "") > 40)
        with viewing(program, folder, database) as server, Browser() as page:
            page.open(server.address)
            page.settled()
            page.js(ARRIVALS)
            sent = []
            for index in range(number):
                time.sleep(0.25 + index * 0.007)  # at any moment between two looks of the server
                sent.append(time.time() * 1000)
                send(f"arrival {index}")
            page.until("all have arrived", "return Object.keys(window.arrivals).length === arguments[0]", number)
            arrived = page.js("return window.arrivals")
            delays = sorted(arrived[str(index)] - begin for index, begin in enumerate(sent))
            print(f"      median {delays[number // 2]:.0f} ms")
            report(f"a new record is in the page, slowest of {number}", delays[-1], 400, "ms")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program", type=pathlib.Path)
    parser.add_argument("databases", type=pathlib.Path, nargs="*")
    parser.add_argument("--records", type=int, default=1_000_000)
    parser.add_argument("--seconds", type=int, default=60, help="how long to follow; 0 leaves that out")
    parser.add_argument("--strict", action="store_true")
    options = parser.parse_args()
    program = options.program.resolve()
    checks = Checks()
    report = Report(checks, 1 if options.strict else 4)
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        databases = [database.resolve() for database in options.databases]
        if not databases:
            log = folder / "large.log"
            view_logs.phone_log(log, options.records)
            databases = [folder / "large.db"]
            subprocess.run([program, "capture", log, "--db", databases[0]], check=True, capture_output=True, timeout=1200)
            log.unlink()
        for database in databases:
            measure_reading(program, folder, database, report)
        measure_arrival(program, folder, report)
        if options.seconds:
            measure_following(program, folder, options.seconds, report)
    print(f"{checks.passed} passed, {checks.failed} failed")
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
