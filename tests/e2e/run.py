#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Captures with the built `runeflow` from a real adb server and a real DLT daemon.

Usage: run.py PATH_OF_RUNEFLOW [large]

All servers listen on free ports of the loopback interface, keep their files in a temporary folder
and are ended with this program. Prints one line per check. The exit code is 0 if all checks pass, 1
if a check fails, and 2 if an argument or a program is missing. packaging/debian-e2e.txt lists the
Debian packages that are needed. With "large" it captures a million records of each kind instead.
"""

import collections
import contextlib
import os
import pathlib
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

DLT_TRAFFIC = pathlib.Path("/usr/lib/libdlt-examples")
LINES = 2000  # in the log on the device; the last has no line end and gives no record
PATIENCE = 60  # time limit of a wait, in seconds


class Checks:
    def __init__(self):
        self.passed = 0
        self.failed = 0

    def check(self, name, condition, detail=""):
        if condition:
            self.passed += 1
            print(f"ok: {name}", flush=True)
        else:
            self.failed += 1
            print(f"FAILED: {name}: {detail}", flush=True)

    @contextlib.contextmanager
    def scenario(self, name):
        try:
            yield name
        except (OSError, TimeoutError, subprocess.SubprocessError, sqlite3.Error) as error:
            self.check(name, False, error)


def wait_until(what, condition):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(f"gave up after waiting {PATIENCE} s until {what}")
        time.sleep(0.02)


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as listener:
        return listener.getsockname()[1]


def is_listening(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def connections_to(port):
    """Returns the number of connections from this machine to the port."""
    rows = pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]
    wanted = f"0100007F:{port:04X}"
    return sum(1 for row in rows if row.split()[2] == wanted and row.split()[3] == "01")


@contextlib.contextmanager
def running(arguments, **options):
    process = subprocess.Popen(arguments, text=True, **options)
    try:
        yield process
    finally:
        process.terminate()
        try:
            process.wait(5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        for pipe in (process.stdout, process.stderr):
            if pipe:
                pipe.close()


class Database:
    def __init__(self, folder, name):
        self.path = folder / f"{name}.db"

    def ask(self, sql):
        with contextlib.closing(sqlite3.connect(self.path, timeout=PATIENCE)) as connection:
            return connection.execute(sql).fetchall()

    def count(self):
        """Returns the number of records, or 0 if the database does not exist yet."""
        try:
            return self.ask("SELECT count(*) FROM events")[0][0]
        except sqlite3.OperationalError:
            return 0

    def count_by_app(self):
        return collections.Counter(dict(self.ask("SELECT s1, count(*) FROM events GROUP BY s1")))


class Runeflow:
    def __init__(self, program):
        self.program = program

    @contextlib.contextmanager
    def capturing(self, database, *source):
        arguments = [self.program, "capture", *map(str, source), "--db", database.path]
        with running(arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
            yield process

    def capture(self, database, *source, patience=2 * PATIENCE):
        with self.capturing(database, *source) as process:
            return finish(process, patience)


def finish(process, patience=2 * PATIENCE):
    """Waits for the process and returns its exit code and its lines on standard error."""
    _, errors = process.communicate(timeout=patience)
    return process.returncode, errors.splitlines()


def ended_in_order(result):
    code, lines = result
    return code == 0 and len(lines) == 1 and "records" in lines[0]


# --- adb


def device_log():
    """Returns threadtime text with CR LF, as some devices print it. The last line has no line end."""
    lines = (
        f"03-17 16:{i // 60:02}:{i % 60:02}.{i % 1000:03}  1702  2395 {'VDIWEF'[i % 6]} T{i % 7}: {i} ü✓"
        for i in range(LINES)
    )
    return "\r\n".join(lines).encode()


class AdbServer:
    def __init__(self, folder, port):
        self.folder = folder
        self.port = port
        self.address = f"127.0.0.1:{port}"
        self.environment = os.environ | {"HOME": str(folder)}  # where adb keeps its keys
        self.log = folder / "device.log"
        self.log.write_bytes(device_log())

    @contextlib.contextmanager
    def running(self):
        arguments = ["adb", "-P", str(self.port), "nodaemon", "server"]
        with open(self.folder / "adb.out", "w") as out:
            with running(arguments, env=self.environment, stdout=out, stderr=out):
                wait_until("the adb server listens", lambda: is_listening(self.port))
                yield self

    def ask(self, service):
        """Sends a request and returns the whole answer.

        The adb command is not used here, because it starts a server if none is running.
        """
        with socket.create_connection(("127.0.0.1", self.port), PATIENCE) as server:
            server.sendall(f"{len(service):04x}{service}".encode())
            return b"".join(iter(lambda: server.recv(4096), b"")).decode()

    @contextlib.contextmanager
    def device(self, *options, state="device"):
        program = pathlib.Path(__file__).with_name("stand_in_device.py")
        arguments = [sys.executable, program, self.log, *map(str, options)]
        with running(arguments, stdout=subprocess.PIPE) as process:
            serial = f"127.0.0.1:{process.stdout.readline().strip()}"
            self.ask(f"host:connect:{serial}")
            known = f"{serial}\t{state}"
            wait_until(f"the device is '{state}'", lambda: known in self.ask("host:devices"))
            try:
                yield serial
            finally:
                with contextlib.suppress(OSError):
                    self.ask(f"host:disconnect:{serial}")


def check_adb_streams(checks, runeflow, folder, adb):
    for chunk in (997, 1):
        with checks.scenario(f"adb: every record of packets of {chunk} bytes is stored") as name:
            database = Database(folder, f"adb-{chunk}")
            with adb.device("--chunk", chunk):
                result = runeflow.capture(database, "--adb", adb.address)
            complete = ended_in_order(result) and database.count() == LINES - 1
            checks.check(name, complete, f"{result}, {database.count()} records")

    with checks.scenario("adb: the capture ends in order if the device disappears") as name:
        database = Database(folder, "adb-lost")
        with adb.device("--chunk", 1000, "--drop-after", 20000):
            result = runeflow.capture(database, "--adb", adb.address)
        arrived = adb.log.read_bytes()[:20000].count(b"\n")
        kept = ended_in_order(result) and database.count() == arrived
        checks.check(name, kept, f"{result}, {database.count()} of {arrived} records")

    with checks.scenario("adb: the capture ends in order on an interrupt") as name:
        database = Database(folder, "adb-interrupted")
        source = ("--adb", adb.address)
        with adb.device("--hold"), runeflow.capturing(database, *source) as capture:
            wait_until("records are stored", lambda: database.count() > 0)
            capture.send_signal(signal.SIGINT)
            result = finish(capture)
        checks.check(name, ended_in_order(result), result)


def check_adb_refusals(checks, runeflow, folder, adb):
    def refused(name, sentence, *source):
        code, lines = runeflow.capture(Database(folder, "adb-refused"), *source)
        said = code == 2 and len(lines) == 1 and sentence in lines[0]
        checks.check(f"adb: {name}", said, (code, lines))

    with checks.scenario("adb: refusals"):
        address = ("--adb", adb.address)
        refused("no device", "No Android devices or emulators are attached", *address)
        with adb.device():
            refused("an unknown serial", "nosuch", *address, "--serial", "nosuch")
            refused("a command that the device refuses", "closed", *address, "--command", "ls")
        with adb.device("--unauthorized", state="unauthorized") as serial:
            refused("an unauthorized device", f"Device {serial} is 'unauthorized'", *address)
        nobody = f"127.0.0.1:{free_port()}"
        refused("no server", f"No adb server is listening on {nobody}", "--adb", nobody)


# --- DLT

DAEMON_CONFIGURATION = """\
SendContextRegistration = 1
ECUId = ECU1
LoggingMode = 0
LoggingLevel = 6
TimeOutOnSend = 4
RingbufferMinSize = 500000
RingbufferMaxSize = 10000000
RingbufferStepSize = 500000
ControlSocketPath = {folder}/dlt-control.sock
ContextLogLevel = 6
ContextTraceStatus = 1
BindAddress = ::ffff:127.0.0.1
"""


class DltDaemon:
    """A daemon on a fixed port. Entering running() again restarts it on the same port."""

    def __init__(self, folder):
        self.folder = folder
        self.port = free_port()
        self.address = f"127.0.0.1:{self.port}"
        self.environment = os.environ | {"DLT_PIPE_DIR": str(folder)}
        (folder / "dlt.conf").write_text(DAEMON_CONFIGURATION.format(folder=folder))

    @contextlib.contextmanager
    def running(self):
        arguments = ["dlt-daemon", "-c", self.folder / "dlt.conf", "-t", self.folder]
        arguments += ["-p", str(self.port)]
        with open(self.folder / "dlt.out", "a") as out:
            with running(arguments, env=self.environment, stdout=out, stderr=out) as process:
                wait_until("the DLT daemon listens", lambda: is_listening(self.port))
                yield process

    @contextlib.contextmanager
    def witness(self):
        """Waits until the capture is connected, then connects a Witness.

        From then on, the daemon sends every message to both.
        """
        wait_until("the capture is connected", lambda: connections_to(self.port) == 1)
        with Witness(self.port) as witness:
            # The daemon accepts clients in the order of their connections: the capture first.
            wait_until("the daemon sends a message", lambda: witness.count_by_app.total() > 0)
            yield witness

    def send(self, program, *options):
        arguments = [DLT_TRAFFIC / program, *map(str, options)]
        subprocess.run(
            arguments, env=self.environment, capture_output=True, check=True, timeout=PATIENCE
        )


    def send_lines(self, count):
        """Sends messages 20 ms apart. Returns when the daemon has sent them to its clients."""
        with self.witness() as witness:
            self.send("dlt-example-user", "-n", count, "-d", 20, "-l", 4, "one of many")
            wait_until("the daemon has sent the messages", lambda: witness.count_by_app["LOG"] >= count)


class Witness(threading.Thread):
    """A plain client of the daemon.

    Splits the stream into messages by their length and counts them by application ID.
    """

    def __init__(self, port):
        super().__init__(daemon=True)
        self.count_by_app = collections.Counter()
        self.last_arrival = time.monotonic()
        self.client = socket.create_connection(("127.0.0.1", port), PATIENCE)
        self.client.settimeout(None)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.client.shutdown(socket.SHUT_RDWR)
        self.join(PATIENCE)
        self.client.close()

    def receive(self):
        try:
            return self.client.recv(65536)
        except ConnectionError:  # the daemon has ended
            return b""

    def run(self):
        pending = b""
        while piece := self.receive():
            self.last_arrival = time.monotonic()
            pending += piece
            while len(pending) >= 4 and len(pending) >= (length := self.length(pending)):
                self.count_by_app[self.app(pending)] += 1
                pending = pending[length:]

    @staticmethod
    def length(message):
        return max(4, int.from_bytes(message[2:4], "big"))

    @staticmethod
    def app(message):
        flags = message[0]
        if not flags & 1:  # without an extended header
            return None
        start = 4 + 4 * sum(1 for bit in (4, 8, 16) if flags & bit) + 2
        return message[start : start + 4].rstrip(b"\0").decode("latin-1")

    def await_silence(self):
        wait_until("the daemon is silent", lambda: time.monotonic() - self.last_arrival > 1)


def check_dlt_burst(checks, runeflow, daemon, database):
    with checks.scenario("dlt: every message of a burst is stored") as name:
        with daemon.running() as process:
            with runeflow.capturing(database, "--dlt", daemon.address) as capture:
                with daemon.witness() as witness:
                    daemon.send("dlt-test-multi-process", *"-m 500 -p 4 -t 4 -l 60 -d 1 -f 1".split())
                    witness.await_silence()
                    process.terminate()
                    result = finish(capture)
        seen, stored = witness.count_by_app, database.count_by_app()
        detail = f"sent {dict(seen)}, stored {dict(stored)}"
        # The daemon itself logs that the witness connects. The capture may receive such messages
        # when the witness does not receive them yet.
        own = ("DLTD", "DA1")
        complete = all(stored.pop(app, 0) >= seen.pop(app, 0) for app in own)
        checks.check(name, complete and seen.total() > 1000 and seen == stored, detail)
        checks.check("dlt: the capture ends in order if the daemon ends", ended_in_order(result), result)


def check_dlt_reconnect(checks, runeflow, daemon, database):
    with checks.scenario("dlt: the capture reconnects to a restarted daemon") as name:
        with contextlib.ExitStack() as stack:
            first = stack.enter_context(daemon.running())
            source = ("--dlt", daemon.address, "--reconnect")
            capture = stack.enter_context(runeflow.capturing(database, *source))
            daemon.send_lines(20)
            first.terminate()
            first.wait(PATIENCE)
            stack.enter_context(daemon.running())
            daemon.send_lines(20)
            wait_until("records of both runs are stored", lambda: database.count_by_app()["LOG"] > 20)
            capture.send_signal(signal.SIGINT)
            code, lines = finish(capture)
        in_order = code == 0 and len(lines) > 1 and "records" in lines[-1]
        checks.check(name, in_order, (code, lines))


def check_dlt_absent(checks, runeflow, database):
    with checks.scenario("dlt: no daemon"):
        code, lines = runeflow.capture(database, "--dlt", f"127.0.0.1:{free_port()}")
        said = code == 2 and len(lines) == 1 and "no DLT daemon is listening" in lines[0]
        checks.check("dlt: no daemon", said, (code, lines))


# --- a million records

MILLION = 1_000_000
LONG = 900  # seconds


def large_log():
    for i in range(MILLION):
        clock = f"03-17 {i // 3_600_000:02}:{i // 60_000 % 60:02}:{i // 1000 % 60:02}.{i % 1000:03}"
        word = "needle" if i % 1000 == 7 else f"w{i % 977}"
        yield f"{clock}  1702  2395 {'VDIWEF'[i % 6]} T{i % 7}: {i} {word} connect wifi\n".encode()


def large_recording():
    """One verbose DLT message with one string for each record, each with a storage header."""
    for i in range(MILLION):
        text = (f"{i} needle" if i % 1000 == 7 else f"{i} connect").encode() + b"\0"
        payload = (0x200).to_bytes(4, "little") + len(text).to_bytes(2, "little") + text
        message = bytes((0x21, i % 256)) + (14 + len(payload)).to_bytes(2, "big")
        message += b"\x41\x01APP\0CTX\0" + payload
        yield b"DLT\x01" + (i // 1000).to_bytes(4, "little") + bytes(4) + b"ECU1" + message


def check_large(checks, runeflow, folder, adb):
    adb.log.write_bytes(b"".join(large_log()))
    recording = folder / "large.dlt"
    with open(recording, "wb") as file:
        file.writelines(large_recording())
    cap = 64 << 20

    def check(name, *source, kept=MILLION):
        with checks.scenario(name):
            database = Database(folder, "large-" + name.split()[0])
            code, lines = runeflow.capture(database, *source, patience=LONG)
            (first, last, count), = database.ask("SELECT min(seq), max(seq), count(*) FROM events")
            query = (runeflow.program, "query", database.path, "needle", "--count")
            found = int(subprocess.run(query, capture_output=True, timeout=PATIENCE).stdout)
            expected = sum(1 for i in range(first - 1, last) if i % 1000 == 7)
            complete = code == 0 and last == MILLION and count == last - first + 1
            complete = complete and found == expected and (count == kept or kept is None)
            checks.check(name, complete, f"{lines}, {count} records, {found} of {expected} found")
            return database

    with adb.device():
        check("adb a million records", "--adb", adb.address)
    check("file a million records", adb.log)
    check("dlt a million records", recording)
    capped = check("capped a million records", adb.log, "--max-bytes", cap, kept=None)
    used = capped.ask(
        "SELECT (page_count - freelist_count) * page_size "
        "FROM pragma_page_count, pragma_freelist_count, pragma_page_size"
    )[0][0]
    checks.check("capped below its cap", used <= cap, f"{used} of {cap} bytes")


def missing():
    programs = ["adb", "dlt-daemon", DLT_TRAFFIC / "dlt-example-user"]
    return [str(program) for program in programs if not shutil.which(program)]


def main():
    is_large = sys.argv[2:] == ["large"]
    if len(sys.argv) != 2 + is_large or not os.access(sys.argv[1], os.X_OK):
        print("usage: run.py PATH_OF_RUNEFLOW [large]", file=sys.stderr)
        return 2
    if missing():
        print(
            f"{', '.join(missing())} not found; install the packages in packaging/debian-e2e.txt",
            file=sys.stderr,
        )
        return 2
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # ends the servers, too
    checks = Checks()
    runeflow = Runeflow(pathlib.Path(sys.argv[1]).resolve())
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        with checks.scenario("adb server"), AdbServer(folder, free_port()).running() as adb:
            if is_large:
                check_large(checks, runeflow, folder, adb)
            else:
                check_adb_refusals(checks, runeflow, folder, adb)
                check_adb_streams(checks, runeflow, folder, adb)
        if not is_large:
            daemon = DltDaemon(folder)
            check_dlt_burst(checks, runeflow, daemon, Database(folder, "dlt-burst"))
            check_dlt_reconnect(checks, runeflow, daemon, Database(folder, "dlt-reconnect"))
            check_dlt_absent(checks, runeflow, Database(folder, "dlt-absent"))
    print(f"{checks.passed} passed, {checks.failed} failed")
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
