#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Captures, reads and clears one database at once for some minutes, and checks it again and again.

usage: soak.py RUNEFLOW [MINUTES] [--seed SEED] [--report-only]

One capture lasts from start to end. Beside it, short captures follow one another. All have the same
cap, and each gets 100 signals a second. Three readers run all the time: one queries, one asks for
values and the summary, one follows. Every few seconds the database is cleared. Every ten seconds
the writers pause, and the database is checked as kill.py does. The exit code is 0 without findings
and 1 with findings. With --report-only, a large write-ahead log is no finding.
"""

import argparse
import contextlib
import itertools
import json
import pathlib
import random
import re
import signal
import subprocess
import sys
import threading
import time

import stress_support as stress
from stress_support import PATIENCE, Capture

CAP = 16 << 20  # bytes, as all sizes here
MOST_USED = CAP * 5 // 4  # a cap is approached batch by batch
MOST_MEMORY = 64_000_000  # of a capture
MOST_DESCRIPTORS = 32  # of a capture
MOST_LOG = 64_000_000 + CAP  # no transaction writes more than the whole database
CHECK_SECONDS = 10
FOLLOWED = stress.word("disk")
# All of these are ignored without a handler. SIGSTOP stands for a stop and a SIGCONT after it,
# which interrupt system calls.
SIGNALS = (signal.SIGCONT, signal.SIGWINCH, signal.SIGURG, signal.SIGCHLD, signal.SIGSTOP)


def row_of(line):
    record = json.loads(line)
    level, writer, number = record["level"], int(record["pid"]), int(record["tid"])
    level = stress.LEVELS.index(level)
    return stress.Row(record["seq"], 0, level, record["tag"], writer, number, record["message"])


class Soak:
    def __init__(self, runeflow, seed, report):
        self.runeflow = runeflow
        self.seed = seed
        self.report = report
        self.log = stress.Log(random.Random(seed))
        self.database = report.folder / "soaked.db"
        self.ends = threading.Event()
        self.flows = threading.Event()  # cleared while the writers pause
        self.flows.set()
        self.turn = threading.Lock()  # held to start or end a capture, to clear and to check
        self.writers = itertools.count()
        self.captures = []  # the running ones
        self.strays = {}  # by command, the printed records that do not match the query
        self.records = self.reads = self.followed = self.clears = self.signals = 0
        self.memory = self.descriptors = self.wal = 0  # peaks

    def fault(self, sentence):
        self.report.add(sentence, self.report.folder)

    def run(self, seconds):
        self.start_capture(chunks=1).feeder.join(PATIENCE)
        self.finish(self.captures[0])
        self.start_capture()
        query = ("query", self.database, FOLLOWED.text, "--follow", "--json")
        self.follower = self.runeflow.start(*query, stdout=subprocess.PIPE)
        roles = (self.chain, self.clear, self.query, self.summarise, self.follow, self.disturb)
        threads = [
            threading.Thread(target=self.guarded, args=(role,), name=role.__name__, daemon=True)
            for role in roles
        ]
        for thread in threads:
            thread.start()
        rng = random.Random(f"{self.seed} check")
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0 and not self.ends.is_set():
            if not self.ends.wait(min(CHECK_SECONDS, left)):
                self.guarded(self.check, rng)
        self.ends.set()
        self.follower.send_signal(signal.SIGINT)
        for thread in threads:
            thread.join(2 * PATIENCE)
            if thread.is_alive():
                self.fault(f"{thread.name} does not end")
        for capture in list(self.captures):  # one, unless a role has failed
            self.guarded(self.finish, capture)
        self.guarded(self.check, rng)
        for command, strays in self.strays.items():
            self.fault(f"{command} printed {len(strays)} records that do not match: {strays[0]}")

    def guarded(self, role, *arguments):
        """Calls a role, with random numbers of its own if it has no arguments. A role that fails
        ends the soak, which would otherwise go on without it."""
        try:
            role(*(arguments or (random.Random(f"{self.seed} {role.__name__}"),)))
        except Exception as error:
            self.fault(f"{role.__name__} failed: {error!r}")
            self.ends.set()

    # Writers

    def feed(self, chunks):
        for chunk in itertools.islice(self.log.chunks(next(self.writers)), chunks):
            self.flows.wait()
            yield chunk

    def start_capture(self, chunks=None):
        options = ("--max-bytes", CAP)
        capture = Capture(self.runeflow, self.database, *options, feed=self.feed(chunks))
        self.captures.append(capture)
        return capture

    def finish(self, capture):
        for sentence in capture.finish():
            self.fault(sentence)
        self.captures.remove(capture)
        self.records += capture.fed

    def chain(self, rng):
        while not self.ends.is_set():
            with self.turn:
                capture = self.start_capture()
            self.ends.wait(rng.uniform(0.2, 4))
            with self.turn:
                self.finish(capture)

    def clear(self, rng):
        while not self.ends.wait(rng.uniform(2, 6)):
            with self.turn:
                self.runeflow.ask("clear", "--yes", self.database)
            self.clears += 1

    # Readers

    def check_match(self, command, condition, row):
        if not condition.matches(row):
            self.strays.setdefault(command, []).append(f"'{condition.text}' prints {row}"[:300])

    def query(self, rng):
        while not self.ends.wait(rng.uniform(0, 0.05)):
            condition = rng.choice(stress.random_conditions(rng))
            query = ("query", self.database, condition.text)
            int(self.runeflow.ask(*query, "--count"))
            lines = self.runeflow.ask(*query, "--json", "--last", 100).splitlines()
            rows = [row_of(line) for line in lines]
            seqs = [row.seq for row in rows]
            if seqs != sorted(set(seqs)):
                self.fault(f"query '{condition.text}' prints the seqs {seqs}")
            for row in rows:
                self.check_match("query", condition, row)
            self.reads += 2

    def summarise(self, rng):
        while not self.ends.wait(rng.uniform(0, 0.05)):
            used = json.loads(self.runeflow.ask("info", self.database, "--json"))["usedBytes"]
            if used > MOST_USED:
                self.fault(f"{used} bytes are used, the cap is {CAP}")
            matching = rng.choice(stress.random_conditions(rng)).text
            field = rng.choice(("tag", "pid", "level"))
            output = self.runeflow.ask("values", self.database, field, "--matching", matching)
            for line in output.splitlines():
                int(line.split(b"\t")[1])
            self.reads += 2

    def follow(self, _):
        with self.follower.stdout as lines:
            for line in lines:
                self.check_match("query --follow", FOLLOWED, row_of(line))
                self.followed += 1
        if self.follower.wait(PATIENCE) != 0 or not self.followed:
            code = self.follower.returncode
            self.fault(f"query --follow printed {self.followed} records, its exit code is {code}")

    # Signals and measurements

    def disturb(self, rng):
        while not self.ends.wait(0.01):
            for capture in list(self.captures):
                number = rng.choice(SIGNALS)
                capture.process.send_signal(number)
                if number == signal.SIGSTOP:
                    capture.process.send_signal(signal.SIGCONT)
                self.signals += 1
                with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it has ended
                    self.measure(pathlib.Path(f"/proc/{capture.process.pid}"))

    def measure(self, process):
        wal = pathlib.Path(f"{self.database}-wal")
        self.wal = max(self.wal, wal.stat().st_size)
        peaks = re.findall(r"VmHWM:\s+(\d+) kB", (process / "status").read_text())
        self.memory = max([self.memory, *(int(peak) << 10 for peak in peaks)])
        self.descriptors = max(self.descriptors, len(list((process / "fd").iterdir())))

    # Checks

    def check(self, rng):
        with self.turn, stress.connected(self.database, "ro") as watcher:
            self.flows.clear()
            try:
                faults = self.check_in_silence(watcher, rng)
            finally:
                self.flows.set()
        for sentence in faults:
            self.fault(sentence)

    def check_in_silence(self, watcher, rng):
        """Waits until nothing is written for half a second. Starts over if something is written
        during the check, because a capture on a busy machine may be late."""
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            version = watcher.execute("PRAGMA data_version").fetchone()
            time.sleep(0.5)
            if watcher.execute("PRAGMA data_version").fetchone() != version:
                continue
            faults = []
            rows = stress.read_checked(self.database, self.log, faults)
            conditions = stress.random_conditions(rng)
            stress.check_answers(self.runeflow, self.database, rows, conditions, faults)
            if watcher.execute("PRAGMA data_version").fetchone() == version:
                return faults
        return [f"the captures write for {PATIENCE} s after the logs paused"]


def soak(options, report):
    runeflow = stress.Runeflow(options.runeflow)
    run = Soak(runeflow, options.seed, report)
    start = time.monotonic()
    try:
        run.run(options.minutes * 60)
    finally:
        run.ends.set()
        runeflow.end_all()
    bounds = [("memory", run.memory, MOST_MEMORY)]
    bounds += [("descriptors", run.descriptors, MOST_DESCRIPTORS)]
    bounds += [] if options.report_only else [("write-ahead log", run.wal, MOST_LOG)]
    for name, peak, most in bounds:
        if peak > most:
            run.fault(f"the {name} of a capture reached {peak}, the bound is {most}")
    return report.finish(
        f"{(time.monotonic() - start) / 60:.1f} min, {run.records:,} records, {run.reads:,} reads, "
        f"{run.clears} clears, {run.signals:,} signals, peak {run.memory // 1_000_000} MB, "
        f"{run.descriptors} descriptors, wal peak {run.wal // 1_000_000} MB"
    )


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("runeflow")
    parser.add_argument("minutes", nargs="?", type=float, default=2)
    parser.add_argument("--seed", type=int, default=random.randrange(1_000_000))
    parser.add_argument("--report-only", action="store_true")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that what was started ends as well
    with stress.Report("soak", options.seed) as report:
        return soak(options, report)


if __name__ == "__main__":
    sys.exit(main())
