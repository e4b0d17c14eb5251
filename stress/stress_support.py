# SPDX-License-Identifier: MIT
"""Shared by kill.py and soak.py: generated logs, a filter in plain Python that answers the same
queries as `runeflow query`, running commands, and the checks that every database must pass."""

import contextlib
import datetime
import functools
import itertools
import os
import pathlib
import re
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import threading
import typing
import unicodedata

PATIENCE = 120  # seconds for anything that is awaited, also on a busy machine
LINES_PER_CHUNK = 1000  # one second of a generated log
BODIES = 4093  # a prime, so that every writer uses all bodies
LEVELS = ("Trace", "Debug", "Info", "Warning", "Error", "Fatal")
TAGS = ("ActivityManager", "WifiService", "Zygote", "chatty", "Net", "Disk Cache", "Größe")
# The word at position n, counted from 1, is n times rarer than the first. One "café" is decomposed.
WORDS = (
    "to a id wifi connect failed disk start Connection timeout proc full connected Zürich 42 error "
    "café reason 4096 x7 Überlauf DISK señal ok retry handshake cafe\u0301 naïve diskette конец 日本"
).split()
LOGCAT = ("--format", "logcat")  # the first line may be longer than the sample of the detection
EXPECTED_LINE = re.compile(
    r"runeflow: (\d+ records?, \d+ bytes? in (?!.*not stored).*"
    r"|not connected; trying again .*|connected to .* again)"
)


class Row(typing.NamedTuple):
    seq: int
    ts: int  # microseconds
    level: int
    tag: str
    writer: int
    number: int
    message: str


class Log:
    """Generated logcat text. A line has its writer as its process ID and its number as its thread
    ID, from which the expected content of the record can be computed."""

    def __init__(self, rng):
        self.bodies = [self._body(rng) for _ in range(BODIES)]
        self.texts = [f"{'VDIWEF'[b[0]]} {b[1]:<8}: {b[2]}\n".encode() for b in self.bodies]
        utc = datetime.timezone.utc
        self.start = datetime.datetime(datetime.date.today().year, 1, 2, tzinfo=utc).timestamp()

    @staticmethod
    def _body(rng):
        level = rng.choices(range(6), (10, 30, 40, 12, 7, 1))[0]
        length = rng.choices((rng.randrange(12), 100, 600, 3000), (862, 100, 30, 8))[0]
        words = rng.choices(WORDS, [1 / n for n in range(1, len(WORDS) + 1)], k=length)
        words = [word.upper() if rng.random() < 0.05 else word for word in words]
        return level, rng.choice(TAGS), rng.choice((" ", " ", " ", "=", "/", "_")).join(words)

    def chunks(self, writer, first=0):
        for second in itertools.count(first):
            clock = b"01-02 %02d:%02d:%02d" % (second // 3600 % 24, second // 60 % 60, second % 60)
            lines = [b"--------- beginning of main\n"]  # a banner is no record
            for number in range(second * LINES_PER_CHUNK, (second + 1) * LINES_PER_CHUNK):
                text = self.texts[(number + writer * 977) % BODIES]
                lines.append(b"%s.%03d %5d %5d %s" % (clock, number % 1000, writer, number, text))
            yield b"".join(lines)

    def expected(self, row):
        level, tag, message = self.bodies[(row.number + row.writer * 977) % BODIES]
        ts = int(self.start) * 1_000_000 + row.number % 86_400_000 * 1000
        return Row(row.seq, ts, level, tag, row.writer, row.number, message)


@functools.lru_cache(maxsize=2 * BODIES)
def words_of(text):
    """The words as the full-text index has them: without case and without diacritics."""
    plain = "".join(c for c in unicodedata.normalize("NFD", text) if not unicodedata.combining(c))
    return frozenset(re.findall(r"[^\W_]+", plain.lower()))


class Condition(typing.NamedTuple):
    """The text of a query, and a function that says whether a row matches it."""

    text: str
    matches: typing.Callable

    def __and__(self, other):
        both = lambda row: self.matches(row) and other.matches(row)
        return Condition(f"{self.text} {other.text}", both)

    def __or__(self, other):
        either = lambda row: self.matches(row) or other.matches(row)
        return Condition(f"({self.text} OR {other.text})", either)

    def __sub__(self, other):
        without = lambda row: self.matches(row) and not other.matches(row)
        return Condition(f"{self.text} NOT {other.text}", without)


def word(text):
    (wanted,) = words_of(text)

    @functools.cache
    def is_in(message):
        words = words_of(message)
        return wanted in words or len(text) >= 3 and any(w.startswith(wanted) for w in words)

    return Condition(text, lambda row: is_in(row.message))


def tag(name):
    return Condition(f'tag:"{name}"' if " " in name else f"tag:{name}", lambda row: row.tag == name)


def at_least(level):
    return Condition(f"level:{LEVELS[level].lower()}", lambda row: row.level >= level)


def random_conditions(rng):
    """Ten conditions that together use every part of the query language that is modelled here."""
    a, b, c, d = (word(text) for text in rng.sample(WORDS, 4))
    one, other = (tag(name) for name in rng.sample(TAGS, 2))
    beginning = rng.choice([text for text in WORDS if len(text) > 4])[: rng.randrange(2, 5)]
    writer = rng.randrange(4)
    pid = Condition(f"pid:{writer}", lambda row: row.writer == writer)
    severe = at_least(rng.randrange(3, 6))
    return [
        a, word(beginning), a & b, (a & b) | c, a - (b | c),
        severe - a, one & b, one | (other & d), (a | one) & (c - other), pid & severe,
    ]


class Report:
    """Prints each finding when it is made. Removes its temporary folder if there are none."""

    def __init__(self, name, seed):
        self.name = name
        self.seed = seed
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix=f"runeflow-{name}-"))
        self.findings = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if not self.findings:
            shutil.rmtree(self.folder)

    def add(self, sentence, folder):
        self.findings += 1
        print(f"{self.name}: {sentence} (seed {self.seed}, kept in {folder})", file=sys.stderr)

    def finish(self, figures):
        print(f"{self.name}: {figures}, {self.findings} findings", flush=True)
        return 1 if self.findings else 0


class Runeflow:
    def __init__(self, program):
        self.program = pathlib.Path(program).resolve(strict=True)
        self.environment = os.environ | {"TZ": "UTC0"}  # logcat text gives local time
        self.started = []
        self.lock = threading.Lock()

    def start(self, *arguments, **streams):
        command = [self.program, *map(str, arguments)]
        with self.lock:
            self.started = [process for process in self.started if process.poll() is None]
            self.started.append(subprocess.Popen(command, env=self.environment, **streams))
            return self.started[-1]

    def ask(self, command, *arguments):
        """Runs a command to its end and returns its standard output."""
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        process = self.start(command, *arguments, **pipes)
        output, errors = process.communicate(timeout=PATIENCE)
        # Exit code 1 means that nothing matched, of which a query may say why. Clear reports its
        # success on standard error.
        may_talk = command == "clear" or (command == "query" and process.returncode == 1)
        if process.returncode not in (0, 1) or (errors and not may_talk):
            code, text = process.returncode, errors.decode().strip()
            raise RuntimeError(f"{command} ended with exit code {code}, saying '{text}'")
        return output

    def end_all(self):
        for process in self.started:
            process.kill()
            process.wait()


class Capture:
    """A running capture. If there is a `feed`, a thread writes its chunks to standard input."""

    def __init__(self, runeflow, database, *arguments, feed=None):
        self.errors = database.with_name(f"capture-{len(list(database.parent.glob('*.err')))}.err")
        self.fed = 0  # lines
        self.stops = threading.Event()
        self.feeder = threading.Thread(target=self._write, args=(feed,), daemon=True)
        source = ["-", *LOGCAT] if feed else []
        with open(self.errors, "wb") as errors:
            streams = {"stdin": subprocess.PIPE if feed else None, "stderr": errors}
            arguments = ("capture", *source, *arguments, "--db", database)
            self.process = runeflow.start(*arguments, **streams)
        if feed:
            self.feeder.start()

    def _write(self, feed):
        with contextlib.suppress(BrokenPipeError), self.process.stdin as pipe:
            for chunk in feed:
                pipe.write(chunk)
                pipe.flush()
                self.fed += LINES_PER_CHUNK
                if self.stops.is_set():
                    break

    def wait_killed(self):
        """Waits for the end of a killed capture, and returns sentences about its faults."""
        self.process.wait(PATIENCE)
        lines = self.errors.read_text().splitlines()
        return [f"a capture said '{x}'" for x in lines if not EXPECTED_LINE.fullmatch(x)]

    def finish(self, at_once=True):
        """Ends the feed, at once or at its own end, and then does as wait_killed()."""
        if at_once:
            self.stops.set()
        self.feeder.join(PATIENCE)
        faults = self.wait_killed()
        code, text = self.process.returncode, self.errors.read_text().strip()
        if code != 0 or f"runeflow: {self.fed} record" not in text:
            faults.append(f"a capture of {self.fed} lines ended with exit code {code}: '{text}'")
        return faults


@contextlib.contextmanager
def connected(database, mode):
    options = {"uri": True, "timeout": PATIENCE, "isolation_level": None}
    with contextlib.closing(sqlite3.connect(f"file:{database}?mode={mode}", **options)) as result:
        yield result


def last_number(database, writer):
    """The number of the newest stored record of a writer, or -1."""
    sql = "SELECT s2 FROM events WHERE s1 = ? ORDER BY seq DESC LIMIT 1"
    with contextlib.suppress(sqlite3.OperationalError):  # no database or no tables yet
        with connected(database, "ro") as connection:
            found = connection.execute(sql, (str(writer),)).fetchone()
            return int(found[0]) if found else -1
    return -1


def read_checked(database, log, faults):
    """Returns all rows. Appends a sentence to `faults` for each check that fails."""
    if not database.exists():  # the capture was killed before it made its database
        return []
    with connected(database, "rw") as connection:
        tables = {name for (name,) in connection.execute("SELECT name FROM sqlite_schema")}
        if "events" not in tables:
            return []
        connection.execute("BEGIN IMMEDIATE")  # the index is compared with the rows of one moment
        said = connection.execute("PRAGMA integrity_check").fetchall()
        if said != [("ok",)]:
            faults.append(f"integrity_check says {said[:3]}")
        columns = "seq, ts, level, s0, CAST(s1 AS INTEGER), CAST(s2 AS INTEGER), message"
        rows = [*map(Row._make, connection.execute(f"SELECT {columns} FROM events ORDER BY seq"))]
        check = "INSERT INTO events_fts(events_fts, rank) VALUES('integrity-check', 1)"
        try:
            if rows or "events_fts" in tables:
                connection.execute(check)
        except sqlite3.DatabaseError as error:
            faults.append(f"the full-text index disagrees with the rows: {error}")
        connection.execute("ROLLBACK")
    last = {}
    for before, row in zip([None, *rows], rows):
        if before and row.seq != before.seq + 1:
            faults.append(f"seq {row.seq} follows seq {before.seq}")
        if row.number != last.setdefault(row.writer, row.number - 1) + 1:
            faults.append(f"writer {row.writer}: {row.number} follows {last[row.writer]}")
        last[row.writer] = row.number
        if row != log.expected(row):
            faults.append(f"the log has {log.expected(row)}, the database {row}"[:400])
    return rows


def check_answers(runeflow, database, rows, conditions, faults):
    wrong = []
    for text, matches in conditions:
        expected = [row.seq for row in rows if matches(row)]
        count = int(runeflow.ask("query", database, text, "--count"))
        if count != len(expected):
            wrong.append(f"query '{text}' counts {count} records, the rows hold {len(expected)}")
        output = runeflow.ask("query", database, text, "--json")
        seqs = [int(seq) for seq in re.findall(rb'^\{"seq":(\d+),.*\}$', output, re.MULTILINE)]
        if seqs != expected:
            seq = min(set(seqs) ^ set(expected), default="none")
            wrong.append(f"query '{text}' prints {len(seqs)} records, the first wrong seq is {seq}")
    if wrong:
        faults.append(f"{len(wrong)} of {2 * len(conditions)} answers are wrong: {wrong[0]}")
