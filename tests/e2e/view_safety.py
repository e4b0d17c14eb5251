# SPDX-License-Identifier: MIT
"""Checks of the page against what does not wish it well: log text, other pages, other programs at the database."""

import contextlib
import http.server
import os
import sqlite3
import subprocess
import threading

import view_logs
from browser import Browser, viewing
from run import wait_until

HAS_ACTED = "return window.acted !== undefined || document.querySelector('.rows img, .rows script, .rows svg, .rows iframe, .rows a, #detail img, #detail script, #detail iframe, #detail a, #facets img') !== null"
INVISIBLE = "[\\u0000-\\u0008\\u000b-\\u001f\\u007f-\\u009f\\u202a-\\u202e\\u2066-\\u2069\\u200e\\u200f\\u2028\\u2029]"


def check_attacks(stage):
    log = stage.folder / "attack.log"
    view_logs.attacking_log(log)
    database = stage.folder / "attack.db"
    subprocess.run([stage.program, "capture", log, "--db", database, "--format", "logcat"], check=True, capture_output=True, timeout=60)
    number = 2 * len(view_logs.ATTACKS)
    with stage.page(database) as page:
        stage.equal("attacks: all records", page.count(), number + 1)
        rows = page.rows()
        stage.equal("attacks: markup is shown as text", rows[0][-1], view_logs.ATTACKS[0])
        stage.equal("attacks: a tag with markup is shown as text", rows[1][2][:23], view_logs.ATTACKING_TAG[:23])
        stage.check("attacks: a row holds 1,000 characters of a long message", 1000 <= len(rows[-1][-1]) < 1100, len(rows[-1][-1]))
        check_harmless(stage, page, "the list")
        escaped = next(row[-1] for row in rows if "txt.exe" in row[-1])
        stage.check("attacks: format characters are shown as on a terminal", "\\u202e" in escaped and "\\u2066" in escaped, escaped)
        stage.check("attacks: so are escape sequences", any("\\x1b" in row[-1] for row in rows))
        isolated = page.js("return [...document.querySelectorAll('.rows .message')].every((cell) => cell.querySelector('bdi') && getComputedStyle(cell.querySelector('bdi')).unicodeBidi === 'isolate')")
        stage.check("attacks: each message is an isolated run of direction", isolated)
        page.until("the facets stand", "return document.querySelectorAll('.facet').length > 6")
        page.js("[...document.querySelectorAll('.facet')].find((e) => /img/.test(e.textContent)).click()")
        page.count_becomes(number // 2)
        check_harmless(stage, page, "a condition")
        page.query("script")
        page.until("the word is marked", "return document.querySelector('.rows mark')?.textContent === 'script'")
        check_harmless(stage, page, "marks")
        page.query("")
        page.count_becomes(number + 1)
        for place in range(number):
            page.js("document.querySelector(`#row-${arguments[0]}`).click()", place + 1)
            page.until("the record opens", "return document.querySelector('#detail').dataset.seq === String(arguments[0])", place + 1)
            check_harmless(stage, page, f"the opened record {place + 1}", quiet=True)
        stage.picture(page, "attacks")
        check_long(stage, page, number + 1)


def check_harmless(stage, page, where, quiet=False):
    acted = page.js(HAS_ACTED)
    hidden = page.js(f"return new RegExp('{INVISIBLE}').test(document.body.textContent)".replace("\\u", "\\\\u"))
    if not quiet or acted or hidden:
        stage.check(f"attacks: nothing acts in {where}", not acted)
        stage.check(f"attacks: no control or format character in {where}", not hidden)


def check_long(stage, page, seq):
    page.js("window.longest = 0; new PerformanceObserver((list) => { for (const task of list.getEntries()) window.longest = Math.max(window.longest, task.duration); }).observe({type: 'longtask'})")
    page.focus_list()
    page.js("document.querySelector(`#row-${arguments[0]}`).click()", seq)
    page.until("the long message opens", "return document.querySelector('#detail').dataset.seq === String(arguments[0])", seq)
    length = page.js("return document.querySelector('#detail pre').textContent.length")
    stage.check("attacks: the first part of a message of 10 MB", 10_000 <= length <= 40_000, length)
    page.click("#detail [data-action=more]")
    page.until("more of the message is loaded", "return document.querySelector('#detail pre').textContent.length > arguments[0]", length)
    stage.check("attacks: the rest comes in pieces", page.js("return document.querySelector('#detail pre').textContent.length") < 400_000)
    check_harmless(stage, page, "a message of 10 MB")
    print(f"      longest task while a message of 10 MB opens: {page.js('return window.longest'):.0f} ms")


# A page from another loopback port that tries to read and to start a capture. It learns the secret path, which it could
# not guess, and still gets nothing.
STRANGER = """<!doctype html><title>waiting</title><script>
const base = new URLSearchParams(location.search).get('base');
const tries = {
  read: () => fetch(base + 'api/v1/info').then((r) => r.text()),
  credentials: () => fetch(base + 'api/v1/records?before=9', {credentials: 'include'}).then((r) => r.text()),
  blind: () => fetch(base + 'api/v1/captures', {method: 'POST', mode: 'no-cors', credentials: 'include', body: '{}'}).then((r) => r.type === 'opaque' ? Promise.reject() : r.text()),
  capture: () => fetch(base + 'api/v1/captures', {method: 'POST', credentials: 'include', headers: {'Content-Type': 'application/json'},
    body: JSON.stringify({source: 'dlt', host: '127.0.0.1', database: 'stolen.db'})}).then((r) => r.text()),
  script: () => new Promise((done, fail) => { const s = document.createElement('script'); s.src = base + 'page/main.js'; s.onload = () => done('loaded'); s.onerror = fail; document.head.append(s); }),
  frame: () => new Promise((done, fail) => { const f = document.createElement('iframe'); f.src = base; f.onload = () => { try { done(f.contentDocument.body.textContent || Promise.reject()); } catch { fail(); } }; document.body.append(f); }),
  stream: () => new Promise((done, fail) => { const e = new EventSource(base + 'api/v1/events', {withCredentials: true}); e.addEventListener('state', (m) => done(m.data)); e.onerror = () => { e.close(); fail(); }; }),
};
const got = {};
addEventListener('load', async () => {
  for (const [name, attempt] of Object.entries(tries)) {
    try { got[name] = String(await attempt()).slice(0, 80); } catch {}
  }
  window.got = got;
  document.title = 'done';
});
</script>"""


@contextlib.contextmanager
def stranger():
    class Handler(http.server.BaseHTTPRequestHandler):
        cookies = []

        def do_GET(self):
            Handler.cookies.append(self.headers.get("Cookie"))
            self.send_response(200)
            self.send_header("Content-Type", "text/html")
            self.end_headers()
            self.wfile.write(STRANGER.encode())

        def log_message(self, *_):
            pass

    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        try:
            yield f"http://127.0.0.1:{server.server_port}/", Handler.cookies
        finally:
            server.shutdown()


def check_strangers(stage):
    database = stage.capture("phone", stage.phone)
    with viewing(stage.program, stage.folder, database) as server, stranger() as (address, cookies), Browser() as browser:
        browser.open(server.address)
        base = browser.js("return location.origin + location.pathname")
        browser.driver.switch_to.new_window("tab")
        browser.driver.get(f"{address}?base={base}")
        browser.until("the stranger has tried everything", "return document.title === 'done'")
        stage.equal("strangers: a page from another port gets nothing", browser.js("return window.got"), {})
        stage.check("strangers: no capture was started", not (stage.folder / "stolen.db").exists())
        stage.check("strangers: another port receives no cookie", not any(cookies), cookies)
        browser.driver.close()
        browser.driver.switch_to.window(browser.driver.window_handles[0])

        with viewing(stage.program, stage.folder, database) as second:
            browser.driver.switch_to.new_window("tab")
            browser.open(second.address)
            browser.driver.switch_to.window(browser.driver.window_handles[0])
            browser.driver.refresh()
            browser.ready()
            stage.check("strangers: two servers do not disturb each other", browser.count() == stage.counts(database, ""))
        with Browser() as other:
            other.open(server.address)
            other.query("connect")
            browser.query("failed")
            other.count_becomes(stage.counts(database, "connect"))
            browser.count_becomes(stage.counts(database, "failed"))
            stage.check("strangers: two browsers at once", True)


def check_replaced(stage):
    """What another program does to the opened database is said in the page."""
    original = stage.capture("phone", stage.phone)
    small = stage.folder / "small.log"
    small.write_text("".join(stage.phone.read_text().splitlines(keepends=True)[:50]))
    for name, act, sentence, expected in (
        ("cleared", lambda path: subprocess.run([stage.program, "clear", path, "--yes"], check=True, capture_output=True, timeout=30), "cleared", 0),
        ("replaced", lambda path: os.replace(stage.capture("small", small), path), "replaced", 50),
        ("deleted", lambda path: path.unlink(), "", None),
    ):
        path = stage.folder / f"{name}.db"
        with contextlib.closing(sqlite3.connect(original)) as connection:
            connection.execute("VACUUM INTO ?", (str(path),))
        with stage.page(path) as page:
            page.count()
            act(path)
            page.until("the banner says it", "return !document.querySelector('#banner').hidden")
            said = page.text("#banner span")
            stage.check(f"replaced: a database that is {name} is said", sentence in said, said)
            stage.picture(page, name)
            if name == "replaced":
                page.click("#remedy")
            if expected is not None:
                page.count_becomes(expected)
                page.until("the list follows", "return document.querySelectorAll('.rows [data-seq]').length >= arguments[0]", min(expected, 10))
