#!/usr/bin/env python3
# SPDX-License-Identifier: MIT

"""Measures `runeflow ship` and `runeflow query` with a million records and two ClickHouse servers.

Usage: fleet_large.py PATH_OF_RUNEFLOW [LOG]

LOG holds logcat text; without it, a million lines are generated. Prints one line per check, with
the figures above it. The exit code is 0 if all checks pass, 1 if a check fails, and 2 if an
argument or a program is missing. Times of a machine that does other work are no measurement.
"""

import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from fleet import MOST_MEMORY, TABLE, Fleet
from fleet_servers import CLUSTER, PROGRAM, two_servers
from run import Checks, Database

MILLION = 1_000_000
ROUNDS = 3
TIMES_AS_FAST = 3
MOST_SECONDS = 1  # for the newest matches
LONG_MESSAGES = 256
LONG_BYTES = 10_000_000
LIMIT = 900  # seconds; of any command

SENTENCES = (
    "connect wifi network %d state CONNECTED reason=%d",
    "GC freed %dKB, 42%% free 5129K/8775K, paused %dms total",
    "Start proc %d:com.android.systemui/u0a%d for service",
    "onReceive battery level=%d temperature=%d plugged=0",
    "I/O error on /data/app/base-%d.apk at block %d, disk retries",
    "GET https://example.org/api/v2/items/%d?page=%d took a while",
)


def generated_log(path):
    """Writes lines of 115 bytes on average, as devices log them."""
    chance = random.Random(15)
    with open(path, "w") as log:
        for i in range(MILLION):
            second = i // 100
            stamp = f"{second // 3600 % 24:02}:{second // 60 % 60:02}:{second % 60:02}.{i % 1000:03}"
            text = SENTENCES[i % len(SENTENCES)] % (chance.randrange(100_000), chance.randrange(500))
            needle = " needle" if i % 50_000 == 7 else ""
            log.write(
                f"03-17 {stamp} {1000 + i % 37:5} {2000 + i % 211:5} {'VDIWEF'[i % 6]} "
                f"Component{i % 41}: {text} seq {i}{needle}\n"
            )


def timed(arguments):
    """Runs a command. Returns its wall time, its processor time, its peak memory and its result."""
    before = time.monotonic()
    process = subprocess.Popen(
        list(map(str, arguments)), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
    )
    output = process.stdout.read()
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    seconds = time.monotonic() - before
    return seconds, usage.ru_utime + usage.ru_stime, usage.ru_maxrss << 10, process.returncode, output


def names_by_shard(fleet):
    """Returns names of captures that go to the shards in turn, one for each round."""
    names = {0: [], 1: []}
    for i in range(100):
        shard = int(fleet.servers[0].ask(f"SELECT cityHash64('large/{i}') % 2"))
        names[shard].append(f"large/{i}")
    return [names[i % 2][i] for i in range(ROUNDS)]


def check_speed(checks, fleet, folder, log):
    best = {}
    database = None
    names = names_by_shard(fleet)
    peak = 0
    with checks.scenario("fleet: shipping against capturing") as name:
        for i in range(ROUNDS):
            if database:
                for file in folder.glob("large.db*"):
                    file.unlink()
            database = Database(folder, "large")
            runs = (
                ("capture", [fleet.program, "capture", log, "--db", database.path]),
                ("ship", [fleet.program, "ship", database.path, "--to", fleet.url, "--name", names[i]]),
            )
            for what, arguments in runs:
                seconds, processor, memory, code, output = timed(arguments)
                print(f"    {what}: {seconds:.2f} s, {processor:.2f} s of processor, {memory >> 20} MB")
                if code != 0:
                    raise OSError(f"{arguments}: {output}")
                best[what] = min(best.get(what, seconds), seconds)
                if what == "ship":
                    peak = max(peak, memory)
        ratio = best["capture"] / best["ship"]
        print(f"    {ratio:.2f} times as fast; {peak >> 20} MB at most")
        checks.check(name, ratio >= TIMES_AS_FAST and peak < MOST_MEMORY, f"{ratio:.2f}, {peak} bytes")
    return database


def check_size(checks, fleet, database):
    with checks.scenario("fleet: bytes per record") as name:
        rows, stored = 0, 0
        for server in fleet.servers:
            server.ask("OPTIMIZE TABLE default.logs_local FINAL")
            answer = server.ask(
                "SELECT sum(rows), sum(bytes_on_disk) FROM system.parts "
                "WHERE table = 'logs_local' AND active"
            )
            rows, stored = (a + int(b) for a, b in zip((rows, stored), answer.split()))
        local = database.path.stat().st_size
        print(f"    {stored / rows:.0f} bytes per record; the local database {local / MILLION:.0f}")
        checks.check(name, rows >= MILLION)


def check_long_messages(checks, fleet, folder):
    with checks.scenario(f"fleet: {LONG_MESSAGES} messages of 10 MB") as name:
        database = Database(folder, "long")
        log = folder / "long.log"
        with open(log, "w") as file:
            for i in range(LONG_MESSAGES):
                text = (f"word{i} " * (LONG_BYTES // 6))[:LONG_BYTES]
                file.write(f"03-17 16:00:00.{i:03}  1  2 I Long: {text}\n")
        fleet.must("capture", log, "--db", database.path, "--format", "logcat")
        log.unlink()
        seconds, processor, memory, code, output = timed(
            [fleet.program, "ship", database.path, "--to", fleet.url, "--name", "long"]
        )
        print(f"    {seconds:.1f} s, {processor:.1f} s of processor, {memory >> 20} MB")
        stored = fleet.servers[0].ask(
            f"SELECT uniqExact(seq), min(length(message)) FROM {TABLE} WHERE capture = 'long'"
        )
        same = stored.split() == [str(LONG_MESSAGES), str(LONG_BYTES)]
        checks.check(name, code == 0 and same and memory < MOST_MEMORY, (output, stored, memory))


def check_newest(checks, fleet):
    with checks.scenario("fleet: the newest 20 matches") as name:
        shards = [int(s.ask("SELECT count() FROM default.logs_local")) for s in fleet.servers]
        print(f"    records on the shards: {shards}")
        slowest = 0
        for query in ("needle", "disk level:warn", "conn NOT tag:Component3", "battery OR nosuchword", "nosuchword"):
            times = []
            for _ in range(3):
                seconds, _, _, code, output = timed(
                    [fleet.program, "query", fleet.url, query, "--last", 20]
                )
                if code not in (0, 1):
                    raise OSError(output)
                times.append(seconds)
            print(f"    {query}: {min(times):.2f} to {max(times):.2f} s, {output.count(chr(10))} lines")
            slowest = max(slowest, sorted(times)[len(times) // 2])
        checks.check(name, slowest < MOST_SECONDS and all(shards), f"{slowest:.2f} s, {shards}")


def main():
    if len(sys.argv) not in (2, 3) or not os.access(sys.argv[1], os.X_OK):
        print("usage: fleet_large.py PATH_OF_RUNEFLOW [LOG]", file=sys.stderr)
        return 2
    if not shutil.which(PROGRAM):
        print(f"{PROGRAM} not found; install the packages in packaging/debian-e2e.txt", file=sys.stderr)
        return 2
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # ends the servers, too
    checks = Checks()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        log = pathlib.Path(sys.argv[2]) if len(sys.argv) > 2 else folder / "large.log"
        if not log.exists():
            generated_log(log)
        with checks.scenario("fleet"), two_servers(folder) as servers:
            fleet = Fleet(pathlib.Path(sys.argv[1]).resolve(), servers)
            for server in servers:
                fleet.must("ship", "--create", "--cluster", CLUSTER, "--to", f"{server.url}/{TABLE}")
            database = check_speed(checks, fleet, folder, log)
            check_newest(checks, fleet)
            check_size(checks, fleet, database)
            check_long_messages(checks, fleet, folder)
    print(f"{checks.passed} passed, {checks.failed} failed")
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
