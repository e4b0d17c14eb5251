# SPDX-License-Identifier: MIT
"""Drives `runeflow view` and Debian's Chromium for the tests of the page. Every wait ends after PATIENCE seconds."""

import contextlib
import json
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException, WebDriverException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from run import PATIENCE, free_port, running, wait_until

CHROMIUM = "/usr/bin/chromium"
DRIVER = "/usr/bin/chromedriver"
SWITCHES = (
    "--headless=new --no-sandbox --disable-gpu --no-first-run --disable-background-networking "
    "--disable-component-update --disable-sync --disable-extensions --force-color-profile=srgb"
).split()


class Server:
    """A running `runeflow view`. `folder` is where it was started."""

    def __init__(self, process, folder, address):
        self.process = process
        self.folder = folder
        self.address = address

    def resident_bytes(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]) * 1024


@contextlib.contextmanager
def viewing(program, folder, *arguments, environment=None):
    command = [program, "view", *map(str, arguments), "--no-open", "--port", str(free_port())]
    with open(folder / "view.err", "a") as errors:
        with running(command, cwd=folder, stdout=subprocess.PIPE, stderr=errors, env=environment) as process:
            line = process.stdout.readline()
            found = re.search(r"http://\S+", line)
            if not found:
                raise OSError(f"runeflow view printed no address but {line!r}: {(folder / 'view.err').read_text()}")
            yield Server(process, folder, found[0])


class Browser:
    """One browser with a profile of its own."""

    def __init__(self, width=1280, height=800, dark=False):
        self.profile = tempfile.mkdtemp(prefix="runeflow-browser-")
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for switch in (*SWITCHES, f"--user-data-dir={self.profile}", f"--window-size={width},{height}"):
            options.add_argument(switch)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(options=options, service=Service(DRIVER))
        self.driver.set_script_timeout(PATIENCE)
        self.driver.set_page_load_timeout(PATIENCE)
        self.resize(width, height)
        self.emulate(dark)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with contextlib.suppress(WebDriverException):
            self.driver.quit()
        shutil.rmtree(self.profile, ignore_errors=True)

    def command(self, name, **parameters):
        return self.driver.execute_cdp_cmd(name, parameters)

    def resize(self, width, height):
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def emulate(self, dark):
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.command("Emulation.setEmulatedMedia", features=[scheme])

    def js(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def eval_async(self, script, *arguments):
        """Runs the body of an async function and returns its result."""
        body = "const done = arguments[arguments.length - 1]; const given = [...arguments].slice(0, -1);"
        body += f"(async (...given) => {{ {script} }})(...given).then(done, (error) => done('failed: ' + error));"
        return self.driver.execute_async_script(body, *arguments)

    def until(self, what, script, *arguments):
        """Waits until the script returns something true, and returns it."""
        result = None

        def holds():
            nonlocal result
            result = self.js(script, *arguments)
            return result

        wait_until(what, holds)
        return result

    def open(self, address, ready=True):
        self.driver.get(address)
        if ready:
            self.ready()

    def ready(self):
        self.until("the first rows stand", "return document.body.dataset.ready === 'true'")

    def find(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def click(self, selector):
        """Clicks, also if the page draws the element anew meanwhile."""
        can_be_clicked = "const e = document.querySelector(arguments[0]); return e && e.offsetParent !== null && !e.disabled"

        def is_clicked():
            with contextlib.suppress(StaleElementReferenceException):
                if self.js(can_be_clicked, selector):
                    self.find(selector).click()
                    return True

        wait_until(f"{selector} can be clicked", is_clicked)

    def text(self, selector):
        return self.js("return document.querySelector(arguments[0])?.textContent ?? null", selector)

    def attribute(self, selector, name):
        return self.js("return document.querySelector(arguments[0])?.getAttribute(arguments[1]) ?? null", selector, name)

    def press(self, *keys):
        """Presses keys where the focus is."""
        webdriver.ActionChains(self.driver).send_keys(*keys).perform()

    def press_with_shift(self, *keys):
        webdriver.ActionChains(self.driver).key_down(Keys.SHIFT).send_keys(*keys).key_up(Keys.SHIFT).perform()

    def focus_list(self):
        self.js("document.querySelector('[role=grid]').focus()")

    def query(self, text):
        """Types a query as a user would, after emptying the line."""
        self.js("const q = document.querySelector('#query'); q.focus(); q.select()")
        self.press(Keys.DELETE)
        if text:
            self.find("#query").send_keys(text)
        self.until("the query is asked", "return (new URLSearchParams(location.hash.slice(1)).get('q') ?? '') === arguments[0]", text)
        self.js("document.querySelector('#query').blur()")  # closes the completions

    def count(self):
        """Returns the exact number of matches once it stands still."""
        self.settled()
        return int(self.until("the count is exact", "return document.querySelector('#count').dataset.count"))

    def count_becomes(self, number):
        self.until(f"the count is {number:,}", "return document.querySelector('#count').dataset.count === arguments[0]", str(number))

    def settled(self):
        """Waits until every row that is seen has its record."""
        self.until("the rows stand", "return document.body.dataset.ready === 'true' && !document.querySelector('.rows .waiting') && (document.querySelector('.rows [data-tone]') || document.querySelector('#count').dataset.count === '0')")

    def rows(self):
        """Returns [seq, text of the cells] of the rows within the list's frame, top to bottom."""
        return self.js("""
            const grid = document.querySelector('[role=grid]').getBoundingClientRect();
            const head = document.querySelector('.head').getBoundingClientRect();
            return [...document.querySelectorAll('[role=row][data-seq]')]
              .filter((row) => { const box = row.getBoundingClientRect(); return box.bottom > head.bottom + 1 && box.top < grid.bottom - 1; })
              .map((row) => [Number(row.dataset.seq), ...[...row.children].map((cell) => cell.textContent)]);""")

    def seqs(self):
        return [row[0] for row in self.rows()]

    def open_row(self, index):
        """Opens the record of a row that is seen, counted from the top."""
        self.js("document.querySelector(`#row-${arguments[0]}`).click()", self.seqs()[index])

    def selected(self):
        return self.js("return [...document.querySelectorAll('[role=row][aria-selected=true]')].map((row) => Number(row.dataset.seq))")

    def scroll_to(self, share):
        """Puts the scroll bar at a share (0 to 1) of its range and waits for the rows."""
        self.js("const g = document.querySelector('[role=grid]'); g.scrollTop = (g.scrollHeight - g.clientHeight) * arguments[0]", share)
        self.js("return new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done)))")
        self.settled()

    def drag_timeline(self, begin, end):
        plot = self.find("#timeline .plot")
        width = plot.size["width"]
        actions = webdriver.ActionChains(self.driver, duration=50)
        actions.move_to_element_with_offset(plot, (begin - 0.5) * width, 0).click_and_hold()
        actions.move_to_element_with_offset(plot, (begin + end - 1) / 2 * width, 0)
        actions.move_to_element_with_offset(plot, (end - 0.5) * width, 0).release().perform()

    def copied(self):
        """Returns what the page has put on the clipboard."""
        origin = self.js("return location.origin")
        self.command("Browser.grantPermissions", origin=origin, permissions=["clipboardReadWrite", "clipboardSanitizedWrite"])
        return self.eval_async("return await navigator.clipboard.readText()")

    def messages(self):
        """Returns the messages on the console since the last call."""
        return [entry["message"] for entry in self.driver.get_log("browser")]

    def heap_bytes(self):
        self.command("HeapProfiler.enable")
        self.command("HeapProfiler.collectGarbage")
        return self.command("Runtime.getHeapUsage")["usedSize"]

    def screenshot(self, path):
        self.driver.save_screenshot(str(path))


def count_of(program, database, query, *options):
    """Returns what `runeflow query --count` prints."""
    result = subprocess.run([program, "query", database, query, "--count", *options], capture_output=True, text=True, timeout=PATIENCE)
    return int(result.stdout)
