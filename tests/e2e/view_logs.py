# SPDX-License-Identifier: MIT
"""Generates the logs that the tests of the page show: text with the shape of a phone's, and a DLT recording."""

import itertools
import pathlib
import random
import struct

SAMPLE = pathlib.Path(__file__).resolve().parents[2] / "examples" / "sample.log"


def phone_log(path, lines, seed=7):
    """Writes `lines` lines of threadtime text over a little more than a day. Tags, levels and messages are those of the
    sample, the order is random, and the time goes in bursts as on a device."""
    rng = random.Random(seed)
    sample = [line for line in SAMPLE.read_text("utf-8").splitlines() if line[:1].isdigit()]
    with open(path, "w", encoding="utf-8", newline="\n") as log:
        millisecond = 16 * 3_600_000
        step = 26 * 3_600_000 / lines
        for number in range(lines):
            quiet = (0.6, 2.2, 1, 0.5)[number // 1700 % 4]
            millisecond += rng.expovariate(1 / (step * quiet))
            log.write(f"{stamp(int(millisecond))}{rng.choice(sample)[18:]} #{number}\n")


def stamp(millisecond):
    day, rest = divmod(millisecond, 86_400_000)
    return f"03-{17 + day:02} {rest // 3_600_000:02}:{rest // 60_000 % 60:02}:{rest // 1000 % 60:02}.{rest % 1000:03}"


def dlt_recording(path, messages):
    """Writes a recording of verbose messages of four applications. Every tenth has three lines."""
    rng = random.Random(3)
    apps = [("NAVI", "ROUT"), ("NAVI", "MAPS"), ("MEDI", "PLAY"), ("SYS", "JOUR"), ("CLIM", "SENS")]
    texts = ("route recalculated after detour", "tile cache miss, loading", "playback started", "service restarted", "تم التوصيل بالسيارة", "temperature 21.5 °C")
    with open(path, "wb") as recording:
        for number in range(messages):
            app, context = rng.choice(apps)
            text = f"{rng.choice(texts)} {number}"
            if number % 10 == 9:
                text += "\nat first frame\n\tat second frame"
            level = rng.choices((1, 2, 3, 4, 5, 6), (1, 4, 12, 60, 20, 3))[0]
            recording.write(dlt_message(number, app, context, level, text))


def dlt_message(number, app, context, level, text):
    four = lambda name: name.encode().ljust(4, b"\0")
    payload = text.encode() + b"\0"
    argument = struct.pack("<IH", 0x8200, len(payload)) + payload  # a UTF-8 string
    extended = struct.pack("BB", level << 4 | 1, 1) + four(app) + four(context)
    standard = four("ECU1") + struct.pack(">I", number * 10)
    length = 4 + len(standard) + len(extended) + len(argument)
    header = struct.pack(">BBH", 0x35, number % 256, length)  # version 1, extended header, ECU, timestamp
    storage = b"DLT\x01" + struct.pack("<II", 1_773_760_000 + number // 20, number % 20 * 50_000) + four("ECU1")
    return storage + header + standard + extended + argument


ATTACKS = (
    "<script>window.acted = 'script'</script>",
    "<img src=x onerror=\"window.acted = 'img'\">",
    "<svg onload=\"window.acted = 'svg'\"></svg><iframe srcdoc=\"<script>parent.acted = 1</script>\">",
    "<a href=\"javascript:window.acted='link'\">javascript:window.acted='link'</a>",
    "'\"><b onmouseover=window.acted=1>&lt;b&gt;</b> ${window.acted = 1} {{constructor.constructor('acted=1')()}}",
    "\x1b]0;title\x07\x1b[31mred\x1b[0m \x9b2J",
    "user \u202etxt.exe\u202c \u2066\u2067 \u200f end \u2028 next \U000e0041",
)
ATTACKING_TAG = "<img src=x onerror=acted=1>"
LONG = 10 * 1024 * 1024


def attacking_log(path):
    with open(path, "w", encoding="utf-8", newline="\n") as log:
        for number, text in enumerate(itertools.chain(ATTACKS, ATTACKS)):
            tag = ATTACKING_TAG if number % 2 else "attack"
            log.write(f"{stamp(number * 1000)}  1000  1001 W {tag}: {text}\n")
        log.write(f"{stamp(60_000)}  1000  1001 E long: begin {'<b>x</b> ' * (LONG // 9)} end\n")
