#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Counts the instructions of the library and of bare programs under valgrind's callgrind.

usage: instructions.py PROGRAM            compares the ratios with those kept in instructions.json
       instructions.py PROGRAM --keep     keeps the ratios of this run

PROGRAM is `instruction_count` of the bench preset. The ratio of a piece of work is the number of
instructions of the library divided by that of a bare program, the least code that does the same
work. Unlike times, the numbers do not depend on what else the machine does. A ratio more than 3 %
above the kept one is a failure.
"""

import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

KEPT = pathlib.Path(__file__).with_name("instructions.json")
TOLERANCE = 1.03
RECORDS = 20_480  # as many as instruction_count works on
WORKS = [
    "decode-logcat",
    "decode-dlt",
    "decode-and-insert",
    "fetch-range",
    "newest-matches",
    "parse-and-compile",
]


def instructions(program, side, work, database):
    """Returns the number of instructions that run inside bench_measured()."""
    command = [
        "valgrind",
        "--tool=callgrind",
        "--callgrind-out-file=/dev/null",
        "--toggle-collect=bench_measured",
        program,
        side,
        work,
        database,
    ]
    # A fixed environment: its size moves the stack, and the time zone is read from it.
    environment = {"PATH": os.environ["PATH"], "LC_ALL": "C", "TZ": "UTC0"}
    run = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
    found = re.search(r"Collected : (\d+)", run.stderr)
    if run.returncode != 0 or not found or int(found[1]) == 0:
        sys.exit(f"{' '.join(command)} failed:\n{run.stderr}")
    return int(found[1])


def main():
    if len(sys.argv) not in (2, 3) or sys.argv[2:] not in ([], ["--keep"]):
        sys.exit(__doc__)
    program = sys.argv[1]
    kept = json.loads(KEPT.read_text(encoding="utf-8")) if KEPT.exists() else {}
    ratios = {}
    failures = []
    with tempfile.TemporaryDirectory() as folder:
        database = os.path.join(folder, "a.db")
        subprocess.run([program, "prepare", database], check=True)
        jobs = [(side, work) for work in WORKS for side in ("ours", "bare")]
        with concurrent.futures.ThreadPoolExecutor(max_workers=os.cpu_count()) as pool:
            counts = dict(
                zip(jobs, pool.map(lambda job: instructions(program, *job, database), jobs))
            )
    print(f"{'work':<18} {'instructions':>12} {'bare':>9} {'ratio':>7} {'kept':>7}")
    for work in WORKS:
        ours, bare = counts["ours", work], counts["bare", work]
        ratios[work] = round(ours / bare, 4)
        before = kept.get(work)
        print(
            f"{work:<18} {ours / RECORDS:>12.1f} {bare / RECORDS:>9.1f} {ratios[work]:>7.3f} "
            f"{before or float('nan'):>7.3f}"
        )
        if before is None:
            failures.append(f"{work}: no ratio is kept; run `./dev bench --instructions --keep`")
        elif ratios[work] > before * TOLERANCE:
            failures.append(f"{work}: {ratios[work] / before - 1:.1%} above the kept ratio")
    if sys.argv[2:]:
        KEPT.write_text(json.dumps(ratios, indent=2) + "\n", encoding="utf-8")
        print(f"kept in {KEPT}")
    elif failures:
        sys.exit("\n".join(failures))


if __name__ == "__main__":
    main()
