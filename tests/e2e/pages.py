#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs the commands that README.md and the pages in docs/ show, and compares what they print.

Usage: pages.py PATH_OF_RUNEFLOW [PAGE…]

A block of commands is indented by four spaces. A line that begins with a program of PROGRAMS is a
command; the lines below it, if any, are the beginning of what it prints, where … stands for any
text. Each page gets a folder with a log and an empty HOME. Real servers on the loopback interface
take the places of the addresses that a page names. A command that would run for ever is interrupted
after it has had time to answer. Prints one line per command. The exit code is 0 if all checks pass,
1 if a check fails, and 2 if an argument or a program is missing.
"""

import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile

import fleet_servers
import run

TREE = pathlib.Path(__file__).resolve().parents[2]
PROGRAMS = {"runeflow", "./dev", "cmake", "sqlite3", "curl", "sleep", "sudo", "apt"}
ENDLESS = re.compile(r"--follow|--reconnect|runeflow view|capture --(adb|dlt)")
SECONDS = 3  # for a command that does not end by itself

# What a page calls "the log": the sample and what the examples look for.
MORE_LINES = """\
05-17 09:00:00.001  1290  1290 W StorageManager: disk full on /data, 0 bytes left
05-17 09:00:00.002  1290  1290 E AndroidRuntime: crash: java.lang.NullPointerException
"""


def blocks_of(page):
    """Returns the indented blocks of a page as lists of lines. Fenced blocks have other tests."""
    blocks, block, is_fenced = [], [], False
    for line in [*page.read_text().splitlines(), "end"]:
        is_fenced ^= line.startswith("```")
        if line.startswith("    ") and not is_fenced:
            block.append(line[4:])
        elif line or not block:
            if block:
                blocks.append(block)
            block = []
        else:
            block.append("")
    return blocks


def first_word(line):
    return re.sub(r"^\w+=\S+ ", "", line).split(" ", 1)[0]


def is_command(line):
    return first_word(line) in PROGRAMS


def commands_of(block):
    """Returns (command, expected lines) for each command of a block.

    A block that starts a process in the background is one command, because its lines share a shell.
    """
    while block and not block[-1]:
        block = block[:-1]
    if any(re.search(r"\s&$", line) for line in block):
        return [("\n".join(line for line in block if line and line[0] not in "{ "), [])]
    found = []
    for line in block:
        if is_command(line):
            found.append((line, []))
        elif found:
            found[-1][1].append(line)
    return found


def matches(expected, printed):
    """Whether the printed text begins with the expected lines."""
    while expected and not expected[-1]:
        expected = expected[:-1]
    pattern = "\n".join(
        ".*?".join(re.escape(part) for part in line.rstrip().split("…")) for line in expected
    )
    return re.match(pattern, re.sub(r"[ \t]+$", "", printed, flags=re.M), re.S) is not None


class Pages:
    def __init__(self, program, folder, checks):
        self.program = program
        self.folder = folder
        self.checks = checks
        self.places = []  # (what a page says, what takes its place)
        self.group = None  # the processes of the present command
        bin_folder = folder / "bin"
        bin_folder.mkdir()
        (bin_folder / "runeflow").symlink_to(program)
        # The program that docs/fleet.md feeds is not in Debian.
        (bin_folder / "vector").write_text("#!/bin/sh\nexec head -n 1\n")
        (bin_folder / "vector").chmod(0o755)
        self.environment = os.environ | {
            "HOME": str(folder / "home"),
            "PATH": f"{bin_folder}:{os.environ['PATH']}",
            "TZ": "UTC",
            "DISPLAY": "",  # opens no browser
        }

    def check_page(self, page):
        here = self.folder / page.stem
        here.mkdir()
        (self.folder / "home").mkdir(exist_ok=True)
        (here / "examples").symlink_to(TREE / "examples")
        sample = (TREE / "examples/sample.log").read_text()
        (here / "phone.log").write_text(sample + MORE_LINES)
        for block in blocks_of(page):
            for command, expected in commands_of(block):
                self.check(page.name, here, command, expected)

    def check(self, page, here, command, expected):
        name = f"{page}: {command.splitlines()[0].split(' #')[0].strip()}"
        if re.match(r"\./dev\b", command):
            known = re.findall(r"^cmd_(\w+)\(\)", (TREE / "dev").read_text(), re.M)
            self.checks.check(name, command.split()[1] in known, "dev has no such command")
            return
        if re.match(r"(sudo )?apt\b", command):
            print(f"skipped: {name} (./dev package installs the packages in a bare system)")
            return
        if "[--" in command:  # a synopsis
            options = re.findall(r"--[\w-]+", command)
            _, out, _ = self.run(re.sub(r" \[.*", " --help", command), here)
            self.checks.check(name, options and all(option in out for option in options), out)
            return
        self.make_databases(here, command)
        code, out, errors = self.run(self.in_place(command), here)
        endless = ENDLESS.search(command) or "vector" in command
        good = code == 0 or (endless and code in (130, -signal.SIGINT))
        self.checks.check(name, good, f"exit code {code}: {errors.strip()[-500:]}")
        if expected:
            self.checks.check(f"{name}: prints what the page shows", matches(expected, out + errors), out + errors)

    def in_place(self, command):
        for said, real in self.places:
            command = command.replace(said, real)
        # The usual port may be taken.
        return re.sub(r"runeflow view\b", f"runeflow view --port {run.free_port()}", command)

    def make_databases(self, here, command):
        """Makes the databases that a command reads and no command above it has made."""
        for word in re.findall(r"(?<![\w/=.:])(\w+)\.db\b", command):
            database = here / f"{word}.db"
            if f"--db {word}.db" in command or f"--to {word}.db" in command or database.exists():
                continue
            if re.search(rf"(>|export .*|copy\.db.*){word}\.db", command):
                continue
            arguments = [self.program, "capture", "phone.log", "--db", database]
            subprocess.run(arguments, cwd=here, env=self.environment, capture_output=True, check=True)

    def run(self, command, here):
        if command.startswith("cmake"):
            here = TREE
        process = subprocess.Popen(
            ["bash", "-c", command],
            cwd=here,
            env=self.environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
        endless = ENDLESS.search(command)
        self.group = process.pid
        try:
            out, errors = process.communicate(timeout=SECONDS if endless else 10 * run.PATIENCE)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGINT)
            try:
                out, errors = process.communicate(timeout=run.PATIENCE)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                out, errors = process.communicate()
                return "none: it did not end on an interrupt", out, errors
        with contextlib.suppress(ProcessLookupError):  # what the command left in the background
            os.killpg(process.pid, signal.SIGTERM)
        return process.returncode, out, errors


def pages_named(names):
    pages = [TREE / "README.md", *sorted((TREE / "docs").glob("*.md"))]
    return [page for page in pages if not names or page.name in names]


def main():
    if len(sys.argv) < 2 or not os.access(sys.argv[1], os.X_OK):
        print("usage: pages.py PATH_OF_RUNEFLOW [PAGE…]", file=sys.stderr)
        return 2
    absent = [name for name in ("jq", "curl", "sqlite3") if not shutil.which(name)] + run.missing()
    if absent:
        print(
            f"{', '.join(absent)} not found; install the packages in packaging/debian-e2e.txt",
            file=sys.stderr,
        )
        return 2
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # ends the servers, too
    checks = run.Checks()
    with tempfile.TemporaryDirectory() as name, contextlib.ExitStack() as stack:
        folder = pathlib.Path(name)
        pages = Pages(pathlib.Path(sys.argv[1]).resolve(), folder, checks)
        adb = stack.enter_context(run.AdbServer(folder, run.free_port()).running())
        stack.enter_context(adb.device("--hold"))
        daemon = run.DltDaemon(folder)
        stack.enter_context(daemon.running())
        engine = stack.enter_context(fleet_servers.two_servers(folder))[0]
        pages.places = [
            ("--adb", f"--adb {adb.address}"),
            ("192.0.2.7", daemon.address),
            ("http://ch1:8123", engine.url),
            ("--cluster NAME", f"--cluster {fleet_servers.CLUSTER}"),
            ("runeflow clear", "runeflow clear --yes"),  # nobody can be asked
            ("build/plain", "build/release"),  # the same options; built already
        ]
        try:
            for page in pages_named(sys.argv[2:]):
                pages.check_page(page)
        finally:  # also if a signal ends this program
            with contextlib.suppress(ProcessLookupError, TypeError):
                os.killpg(pages.group, signal.SIGKILL)
    print(f"{checks.passed} passed, {checks.failed} failed")
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
