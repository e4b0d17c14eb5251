#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Checks every #include of the tree against the table of folders in docs/architecture.md.

usage: check_includes.py [ROOT]      checks the tree at ROOT (default: the current folder)
       check_includes.py --self-test plants faults in copies of the tree and expects to find them

A folder may include itself and the folders that it stands on, directly or through others. Hosts and
examples include public headers of the library only. A public header (one of the library whose name
does not end in _p.h) includes the standard library and other public headers only. The folders of
the table must not stand on each other in a circle.
"""

import pathlib
import re
import shutil
import sys
import tempfile

LIBRARY = "runeflow/"
GENERATED = "runeflow/platform/export.h"  # by CMake, in the build folder
SEES_PRIVATE_HEADERS = ("runeflow/", "tests", "fuzz", "bench")
INCLUDE = re.compile(r'^\s*#\s*include\s*(?:"([^"]+)"|<([^>]+)>)', re.MULTILINE)
ROW = re.compile(r"^\| `([^`]+)` \|[^|]*\|([^|]*)\|$", re.MULTILINE)


def read_table(root):
    """Returns the folders that each folder of the table stands on directly."""
    page = (root / "docs/architecture.md").read_text(encoding="utf-8")
    return {
        folder.rstrip("/"): re.findall(r"`([^`]+)`", below)
        for folder, below in ROW.findall(page)
    }


def closure(table, folder, path=()):
    """Returns all folders that `folder` stands on. Raises ValueError for a circle."""
    if folder in path:
        raise ValueError("circle: " + " -> ".join((*path[path.index(folder):], folder)))
    below = set(table[folder])
    for lower in table[folder]:
        below |= closure(table, lower, (*path, folder))
    return below


def folder_of(file, table):
    """Returns the folder of the table that holds the file, or None."""
    return next((str(parent) for parent in file.parents if str(parent) in table), None)


def is_public(header):
    return header.startswith(LIBRARY) and header.endswith(".h") and not header.endswith("_p.h")


def faults_of(root):
    table = read_table(root)
    faults = [
        f"docs/architecture.md: `{folder}` stands on `{lower}`, which is not in the table"
        for folder, below in table.items()
        for lower in below
        if lower not in table
    ]
    if faults or not table:
        return faults or ["docs/architecture.md: there is no table of folders"]
    try:
        allowed = {folder: closure(table, folder) | {folder} for folder in table}
    except ValueError as circle:
        return [f"docs/architecture.md: {circle}"]

    sources = [p for p in root.rglob("*") if p.suffix in (".h", ".cpp")]
    for source in sorted(sources):
        file = source.relative_to(root)
        if file.parts[0] == "build":
            continue
        folder = folder_of(file, table)
        if folder is None:
            faults.append(f"{file}: its folder is not in the table of docs/architecture.md")
            continue
        for quoted, angled in INCLUDE.findall(source.read_text(encoding="utf-8")):
            faults += [
                f"{file}: {fault}" for fault in judge(root, file, folder, allowed, quoted, angled)
            ]
    return faults


def judge(root, file, folder, allowed, quoted, angled):
    if is_public(str(file)) and (angled and not re.fullmatch(r"[a-z_]+", angled)):
        yield f"a public header includes <{angled}>, which is not the standard library's"
    if not quoted or quoted == GENERATED:
        return
    beside = file.parent / quoted
    target = beside if (root / beside).exists() else pathlib.Path(quoted)
    if not (root / target).exists():
        yield f'"{quoted}" is not in the tree; libraries are included with <>'
        return
    other = folder_of(target, allowed)
    if other not in allowed[folder]:
        yield f'"{quoted}" points upwards: {folder} does not stand on {other}'
    if str(target).endswith("_p.h"):
        if is_public(str(file)):
            yield f'a public header includes the private "{quoted}"'
        elif not folder.startswith(SEES_PRIVATE_HEADERS):
            yield f'"{quoted}" is private to the library'


PLANTED = [
    ("runeflow/platform/thread.cpp", '#include "runeflow/model/log_row.h"', "points upwards"),
    ("runeflow/store/sqlite.cpp", '#include "runeflow/capture/capture_session.h"', "points upwards"),
    ("runeflow/decoders/dlt_decoder.cpp", '#include "runeflow/store/event_store.h"', "upwards"),
    ("host/stream.cpp", '#include "cli/output.h"', "points upwards"),
    ("cli/main.cpp", '#include "runeflow/store/sqlite_p.h"', "is private to the library"),
    ("examples/minimal_host.cpp", '#include "host/failure.h"', "points upwards"),
    ("runeflow/model/log_row.h", "#include <fmt/format.h>", "not the standard library's"),
    ("runeflow/store/event_store.h", "#include <sqlite3.h>", "not the standard library's"),
    ("runeflow/query/log_query.h", '#include "runeflow/platform/unicode_p.h"', "the private"),
    ("cli/main.cpp", '#include "fmt/format.h"', "is not in the tree"),
]


def self_test(root):
    """Plants each fault by itself and returns those that the check misses."""
    missed = []
    with tempfile.TemporaryDirectory() as folder:
        copy = pathlib.Path(folder) / "tree"
        shutil.copytree(root, copy, ignore=shutil.ignore_patterns("build", ".git"))
        for file, line, expected in PLANTED:
            source = copy / file
            text = source.read_text(encoding="utf-8")
            source.write_text(line + "\n" + text, encoding="utf-8")
            found = faults_of(copy)
            source.write_text(text, encoding="utf-8")
            if len(found) != 1 or not found[0].startswith(file) or expected not in found[0]:
                missed.append(f"planted in {file}: {line}\n  found: {found}")
    return missed


def main():
    is_self_test = sys.argv[1:] == ["--self-test"]
    root = pathlib.Path("." if is_self_test else (sys.argv[1:] or ["."])[0])
    faults = self_test(root) if is_self_test else faults_of(root)
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
