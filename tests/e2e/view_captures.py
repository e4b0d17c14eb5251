# SPDX-License-Identifier: MIT
"""Checks of captures that are started, watched and ended in the page, from a real adb server and a real DLT daemon."""

import json
import subprocess
import threading

from browser import Keys, viewing, Browser
from run import AdbServer, Database, DltDaemon, is_listening, running, wait_until

ADB_PORT = 5037
RUNNING = "return document.querySelector('.captures [data-running=true]')?.dataset.records"


def check_follow(stage):
    """Another process fills the database."""
    database = stage.folder / "live.db"
    fifo = stage.folder / "live.log"
    lines = stage.phone.read_text("utf-8").splitlines(keepends=True)
    capture = [stage.program, "capture", "-", "--db", database, "--format", "logcat"]
    with running(capture, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as process:
        send = lambda part: (process.stdin.write("".join(part)), process.stdin.flush())
        send(lines[:500])
        wait_until("the capture stores", lambda: Database(stage.folder, "live").count() >= 499)
        with stage.page(database) as page:
            first = page.count()
            send(lines[500:600])
            page.until("new records are shown", "return Number(document.querySelector('#count').dataset.count) > arguments[0]", first)
            wait_until("the newest record is in view", lambda: page.seqs()[-1:] == [page.count()])
            stage.check("follow: the newest record is in view", True)
            page.until("the timeline grows", "return document.querySelector('#timeline').getAttribute('aria-label').includes(`${Number(document.querySelector('#count').dataset.count).toLocaleString('en-US')} records in all`)")
            stage.check("follow: the timeline grows", True)
            page.focus_list()
            page.press(Keys.HOME)
            page.until("the list is at its top", "return document.querySelector('#row-1')")
            before = page.count()
            send(lines[600:900])
            page.until("new records are counted", "return !document.querySelector('#new').hidden && Number(document.querySelector('#count').dataset.count) > arguments[0]", before)
            stage.check("follow: the list does not move away", page.seqs()[0] == 1, page.seqs()[:2])
            stage.check("follow: says how many are new", page.text("#new").endswith(" new"), page.text("#new"))
            stage.picture(page, "new")
            page.click("#new")
            page.until("following again", "return document.querySelector('#follow').getAttribute('aria-pressed') === 'true' && document.querySelector('#new').hidden")
            wait_until("the newest record is in view", lambda: page.seqs()[-1:] == [page.count()])
            stage.check("follow: the button goes to the newest", True)
            page.query("connect")
            page.count()
            send(lines[900:1500])
            process.stdin.close()
            process.wait(30)
            page.count_becomes(stage.counts(database, "connect"))
            page.settled()
            stage.check("follow: new matches join a narrowed list", "connect" in page.rows()[-1][-1].lower())


def start_from_page(page, source):
    page.click("#open-sources")
    page.until("the sources are open", "return document.querySelector('#sources').open")
    page.click(source)


def check_adb(stage):
    # The page lists the devices of the adb server on the usual port.
    wait_until(f"no other adb server listens on port {ADB_PORT}", lambda: not is_listening(ADB_PORT))
    with AdbServer(stage.folder, ADB_PORT).running() as adb:
        with viewing(stage.program, stage.folder) as server, Browser() as page:
            page.open(server.address, ready=False)
            page.until("the page starts with the sources", "return document.querySelector('#sources').open")
            stage.check("adb: without a database the page starts with the sources", True)
            with adb.device("--hold", "--chunk", 500) as serial:
                page.click("#sources h3 button")
                page.until("the device is listed", "return [...document.querySelectorAll('.found li')].some((e) => e.dataset.kind === 'adb')")
                listed = subprocess.run([stage.program, "sources", "--json"], capture_output=True, text=True, timeout=60).stdout
                names = sorted(json.loads(line)["name"] for line in listed.splitlines())
                stage.equal("adb: the page lists what the command lists", sorted(page.js("return [...document.querySelectorAll('.found b')].map((e) => e.textContent)")), names)
                set_value(page, "#capture-database", "from-adb.db")
                page.click(".found [data-kind=adb] button")
                page.until("the capture runs", RUNNING)
                database = Database(stage.folder, "from-adb")
                wait_until("the device's log is stored", lambda: database.count() > 1000)
                page.until("the page watches it", "return Number(document.querySelector('.captures [data-capture]').dataset.records) > 1000")
                stage.check("adb: a capture is started and watched in the page", True)
                if stage.pictures:
                    page.screenshot(stage.pictures / "sources.png")
                figures = page.text(".captures .figures")
                stage.check("adb: shows rate and size", "/s" in figures and "iB" in figures, figures)
                page.click(".captures [data-action=end]")
                page.until("the capture has ended", "return !document.querySelector('.captures [data-running=true]')")
                stage.check("adb: the page ends it", True)
                page.js("document.querySelector('#sources').close()")
                page.ready()
                page.count_becomes(database.count())
                stage.check("adb: the list shows its records", True)
            start_from_page(page, "#sources h3 button")
            stage.equal("adb: no message on the console", page.messages(), [])


def set_value(page, selector, text):
    page.js("const e = document.querySelector(arguments[0]); e.value = arguments[1]; e.dispatchEvent(new Event('input', {bubbles: true}))", selector, text)


def captures(page):
    return page.eval_async("return (await (await fetch(location.pathname + 'api/v1/captures')).json()).captures")


def check_dlt(stage):
    daemon = DltDaemon(stage.folder)
    with viewing(stage.program, stage.folder) as server, Browser() as page:
        page.open(server.address, ready=False)
        page.until("the page starts with the sources", "return document.querySelector('#sources').open")
        set_value(page, "#capture-database", "from-dlt.db")
        set_value(page, "#dlt-host", daemon.address)
        page.click("#start-dlt")
        page.until("the page says that no daemon listens", "return [...document.querySelectorAll('#sources .error')].some((e) => !e.hidden && /DLT daemon/.test(e.textContent))")
        stage.check("dlt: a daemon that is not there is said in a sentence", True)
        with daemon.running():
            set_value(page, "#capture-database", "../outside.db")
            page.click("#start-dlt")
            page.until("the page refuses another folder", "return /folder|name/.test(document.querySelector('#sources p.error').textContent)")
            stage.check("dlt: no capture into another folder", not (stage.folder.parent / "outside.db").exists())
            set_value(page, "#capture-database", "from-dlt.db")
            page.click("#start-dlt")
            page.until("the capture runs", RUNNING)
            sender = threading.Thread(target=daemon.send, args=("dlt-example-user", "-n", 200, "-d", 10, "-l", 4, "seen in the page"))
            sender.start()
            page.until("records arrive", "return Number(document.querySelector('.captures [data-capture]').dataset.records) > 100")
            page.js("document.querySelector('#sources').close()")
            page.ready()
            page.settled()
            stage.picture(page, "capturing")
            page.until("the timeline grows", "return / records in all/.test(document.querySelector('#timeline').getAttribute('aria-label'))")
            sender.join(30)
            page.query("app:LOG")
            page.count_becomes(200)
            stage.check("dlt: all messages are counted while the capture runs", True)
            page.click("#open-sources")
            set_value(page, ".captures input", "64M")
            page.click(".captures button.small")
            wait_until("the size cap is set", lambda: captures(page)[0]["maxBytes"] == 64 << 20)
            stage.check("dlt: the page sets the size cap", True)
            page.click(".captures [data-action=end]")
            page.until("the capture has ended", "return !document.querySelector('.captures [data-running=true]')")
            stage.check("dlt: the page ends the capture", True)
        page.until("the database is listed", "return document.querySelector('.databases [data-action=clear]')")
        page.click(".databases [data-action=clear]")
        page.until("the page asks first", "return document.querySelector('#confirm').open")
        page.click("#confirm [data-action=cancel]")
        stage.check("dlt: nothing is deleted without a yes", Database(stage.folder, "from-dlt").count() > 200)
        page.click(".databases [data-action=clear]")
        page.click("#confirm [data-action=sure]")
        page.until("the records are deleted", "return document.querySelector('#count').dataset.count === '0'")
        stage.equal("dlt: the page clears the database", Database(stage.folder, "from-dlt").count(), 0)
        stage.equal("dlt: no message on the console", page.messages(), [])
