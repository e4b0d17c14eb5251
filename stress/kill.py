#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Kills `runeflow` with SIGKILL at random moments and checks the database after each kill.

usage: kill.py RUNEFLOW [N] [--seed SEED] [--kinds KIND,...]

N is the number of kills of each kind (20). A run whose victim ends before the kill is checked and
repeated. The exit code is 0 without findings and 1 with findings; the folder of a run with findings
is kept. A seed repeats the choices of a run, but not its timing.
"""

import argparse
import contextlib
import itertools
import random
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import threading
import time

import stress_support as stress
from stress_support import PATIENCE, Capture

CAPS = ("4M", "6M", "8M")  # reached after 6,000 records or more
MOST_RUNS_PER_KILL = 3
FILES = 4
CHUNKS_PER_FILE = 4
NEXT_WRITER = 3


class AdbServer(threading.Thread):
    """An adb server with one device. Each connection gets the next 2 to 19 chunks of its log."""

    def __init__(self, log, rng):
        super().__init__(daemon=True)
        self.rng = rng
        self.chunks = log.chunks(1)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.address = f"127.0.0.1:{self.listener.getsockname()[1]}"
        self.start()

    def run(self):
        with contextlib.suppress(OSError):  # stop() ends accept()
            while True:
                client, _ = self.listener.accept()
                with client, contextlib.suppress(OSError, ValueError):  # the capture was killed
                    self.serve(client)

    def serve(self, client):
        while True:
            request = client.recv(int(client.recv(4, socket.MSG_WAITALL), 16), socket.MSG_WAITALL)
            client.sendall(b"OKAY")
            if request.startswith(b"host:devices"):
                return client.sendall(b"0015emulator-5554\tdevice\n")
            if request.startswith(b"shell:"):
                break
        for chunk in itertools.islice(self.chunks, self.rng.randrange(2, 20)):
            client.sendall(chunk)

    def stop(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.join(PATIENCE)
        self.listener.close()


class Run:
    """One run in a folder of its own. `faults` collects sentences."""

    clear_seconds = 0.05  # how long the last complete clear took

    def __init__(self, runeflow, log, rng, folder, files):
        folder.mkdir()
        self.runeflow = runeflow
        self.log = log
        self.rng = rng
        self.files = files
        self.database = folder / "killed.db"
        self.faults = []
        self.captures = []
        self.seen = {}  # the newest number of each writer that a reader saw just before the kill
        self.deletes = False  # whether a cap or a clear may delete records
        self.has_killed = False
        self.records = 0

    def capture(self, *arguments, **feed):
        self.deletes |= "--max-bytes" in arguments
        self.captures.append(Capture(self.runeflow, self.database, *arguments, **feed))
        return self.captures[-1]

    def await_moment(self, capture, most, least=0, pause=0.03):
        """Waits until a random number of records is stored. Without `least`, one run in four does
        not wait, so that the kill meets the creation of the database."""
        wanted = self.rng.randrange(least, most)
        waits = least > 0 or self.rng.random() < 0.75
        end = time.monotonic() + PATIENCE
        while waits and stress.last_number(self.database, 1) < wanted:
            if capture.process.poll() is not None or time.monotonic() > end:
                raise RuntimeError(f"a capture did not store {wanted} records in {PATIENCE} s")
        time.sleep(self.rng.uniform(0, pause))

    def kill(self, *processes):
        self.seen = {writer: stress.last_number(self.database, writer) for writer in (1, 2)}
        for process in processes:
            self.has_killed |= process.poll() is None
            process.kill()

    def survive(self, capture, writer=1):
        time.sleep(self.rng.uniform(0, 0.3))
        self.faults += capture.finish()
        self.seen[writer] = capture.fed - 1

    def check(self):
        rows = stress.read_checked(self.database, self.log, self.faults)
        for writer, seen in self.seen.items():
            numbers = [row.number for row in rows if row.writer == writer] or [-1]
            if numbers[-1] < seen and not (self.deletes and numbers == [-1]):
                self.faults.append(f"writer {writer} stored record {seen}, now has {numbers[-1]}")
            if numbers[0] > 0 and not self.deletes:
                self.faults.append(f"the first {numbers[0]} records of writer {writer} are lost")
        if rows:
            conditions = stress.random_conditions(self.rng)
            stress.check_answers(self.runeflow, self.database, rows, conditions, self.faults)
        self.check_next_capture(rows)
        return rows

    def check_next_capture(self, rows):
        following = self.capture(feed=itertools.islice(self.log.chunks(NEXT_WRITER), 2))
        faults = following.finish(at_once=False)
        after = stress.read_checked(self.database, self.log, faults)
        if after[: len(rows)] != rows or len(after) != len(rows) + following.fed:
            faults.append(f"{following.fed} new records make {len(after)} of {len(rows)}")
        conditions = [stress.tag("Net"), stress.word("wifi") & stress.at_least(3)]
        stress.check_answers(self.runeflow, self.database, after, conditions, faults)
        if not self.faults:  # otherwise these are consequences
            self.faults += [f"after the next capture, {fault}" for fault in faults]
        self.records += len(after)


def insert(run):
    capture = run.capture(feed=run.log.chunks(1))
    run.await_moment(capture, 8_000)
    run.kill(capture.process)
    run.faults += capture.wait_killed()
    run.check()


def trim(run):
    capture = run.capture("--max-bytes", run.rng.choice(CAPS), feed=run.log.chunks(1))
    run.await_moment(capture, 20_000)
    run.kill(capture.process)
    run.faults += capture.wait_killed()
    run.check()


def clear(run):
    run.deletes = True
    capture = run.capture(feed=run.log.chunks(1))
    run.await_moment(capture, 8_000, least=1_000)
    before = stress.last_number(run.database, 1)
    start = time.monotonic()
    clearing = run.runeflow.start("clear", "--yes", run.database, stderr=subprocess.DEVNULL)
    time.sleep(run.rng.uniform(0, Run.clear_seconds))
    if run.rng.random() < 0.7:
        run.kill(clearing)
        is_cleared = clearing.wait(PATIENCE) == 0
        run.survive(capture)
    else:
        run.kill(capture.process)
        is_cleared = clearing.wait(PATIENCE) == 0
        Run.clear_seconds = time.monotonic() - start
        run.faults += capture.wait_killed()
        if not is_cleared:
            run.faults.append(f"clear ended with exit code {clearing.returncode}")
    rows = run.check()
    first = rows[0].number if rows else before + 1
    if first <= before and (is_cleared or first > 0):
        end = "ended" if is_cleared else "was killed"
        run.faults.append(f"clear {end} and kept record {first} of the {before + 1} before it")


def chained(run):
    if run.rng.random() < 0.5:
        capture = run.capture(*run.files, *stress.LOGCAT)
        run.await_moment(capture, (FILES - 1) * CHUNKS_PER_FILE * stress.LINES_PER_CHUNK)
        run.kill(capture.process)
    else:
        server = AdbServer(run.log, run.rng)
        try:
            capture = run.capture("--adb", server.address, "--reconnect")
            run.await_moment(capture, 6_000, pause=1.2)  # a lost connection is retried after 1 s
            run.kill(capture.process)
        finally:
            server.stop()
    run.faults += capture.wait_killed()
    run.check()


def concurrent(run):
    cap = run.rng.choice(CAPS)  # the same for both, so that both trim at the same moments
    captures = [run.capture("--max-bytes", cap, feed=run.log.chunks(w)) for w in (1, 2)]
    run.await_moment(captures[0], 12_000)
    victims = run.rng.choice(([captures[0]], [captures[1]], captures))
    run.kill(*(victim.process for victim in victims))
    for writer, capture in enumerate(captures, 1):
        if capture in victims:
            run.faults += capture.wait_killed()
        else:
            run.survive(capture, writer)
    run.check()


KINDS = {kind.__name__: kind for kind in (insert, trim, clear, chained, concurrent)}


def make_files(log, folder):
    folder.mkdir()
    chunks = log.chunks(1)
    files = [folder / f"{index}.log" for index in range(FILES)]
    for file in files:
        file.write_bytes(b"".join(itertools.islice(chunks, CHUNKS_PER_FILE)))
    return files


def kill_all(options, report):
    runeflow = stress.Runeflow(options.runeflow)
    log = stress.Log(random.Random(options.seed))
    files = make_files(log, report.folder / "files")
    kills = dict.fromkeys(options.kinds.split(","), 0)
    records = 0
    for kind, index in itertools.product(kills, range(MOST_RUNS_PER_KILL * options.kills)):
        if kills[kind] == options.kills:
            continue
        folder = report.folder / f"{kind}-{index}"
        run = Run(runeflow, log, random.Random(f"{options.seed} {kind} {index}"), folder, files)
        try:
            KINDS[kind](run)
        except (OSError, RuntimeError, sqlite3.Error, subprocess.TimeoutExpired) as error:
            run.faults.append(str(error))
            runeflow.end_all()
            run.faults += [fault for capture in run.captures for fault in capture.wait_killed()]
        finally:
            runeflow.end_all()
        kills[kind] += run.has_killed
        records += run.records
        for fault in run.faults:
            report.add(f"{kind} run {index}: {fault}", folder)
        if not run.faults:
            shutil.rmtree(folder)
    figures = ", ".join(f"{count} {kind}" for kind, count in kills.items())
    return report.finish(f"{sum(kills.values())} kills ({figures}), {records:,} records")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("runeflow")
    parser.add_argument("kills", nargs="?", type=int, default=20)
    parser.add_argument("--seed", type=int, default=random.randrange(1_000_000))
    parser.add_argument("--kinds", default=",".join(KINDS))
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that what was started ends as well
    with stress.Report("kill", options.seed) as report:
        return kill_all(options, report)


if __name__ == "__main__":
    sys.exit(main())
