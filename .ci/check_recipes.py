#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Checks the recipes under packaging/ against the CMake files, as far as that goes without their tools.

The Debian control file must name the packages of debian-build.txt. Every other recipe must name the version of the tree, every package that the build finds, and only options that
the build has. conanfile.py must compile, vcpkg.json must be JSON, and runeflow.rb must be Ruby (skipped
aloud if Ruby is not installed).
"""

import json
import pathlib
import re
import shutil
import subprocess
import sys

PACKAGING = pathlib.Path("packaging")
# What each recipe calls a package that CMake finds. The compiler brings Threads; GTest is for the tests,
# which no recipe builds.
NAMES = {
    "SQLite3": ("sqlite3", "sqlite3", "sqlite"),
    "ICU": ("icu", "icu", "icu4c@78"),
    "nlohmann_json": ("nlohmann_json", "nlohmann-json", "nlohmann-json"),
    "fmt": ("fmt", "fmt", "fmt"),
    "spdlog": ("spdlog", "spdlog", "spdlog"),
    "CLI11": ("cli11", "cli11", "cli11"),
    "mimalloc": ("mimalloc", "mimalloc", "mimalloc"),
    "re2": ("re2", "re2", "re2"),
    "CURL": ("libcurl", "curl", "curl"),
    "libmicrohttpd": ("libmicrohttpd", "libmicrohttpd", "libmicrohttpd"),
    "libcurl": ("libcurl", "curl", "curl"),
    "zlib": ("zlib", "zlib", "zlib"),
    "ZLIB": ("zlib", "zlib", "zlib"),
}
FROM_ELSEWHERE = {"Threads", "GTest", "PkgConfig", "Python3"}
# The first two build the library alone.
RECIPES = ("conan/conanfile.py", "vcpkg/vcpkg.json", "homebrew/runeflow.rb")
BUILDS_THE_COMMAND = "homebrew/runeflow.rb"
DEFINED_IN_CODE = {"RUNEFLOW_STATIC_DEFINE"}


def read(name):
    return (PACKAGING / name).read_text(encoding="utf-8")


def packages_found_in(files):
    text = "\n".join(p.read_text(encoding="utf-8") for p in files)
    modules = re.findall(r"pkg_check_modules\(\w+ (?:REQUIRED |IMPORTED_TARGET )*([\w.-]+)", text)
    return set(re.findall(r"find_package\((\w+)", text) + modules) - FROM_ELSEWHERE


def main():
    faults = []
    top = pathlib.Path("CMakeLists.txt")
    for_library = packages_found_in([top, pathlib.Path("runeflow/CMakeLists.txt")])
    folders = ("host", "cli", "viewer", "fleet")
    hosts = [p for p in (pathlib.Path(f, "CMakeLists.txt") for f in folders) if p.exists()]
    for_command = for_library | packages_found_in(hosts)
    cmake = top.read_text(encoding="utf-8")
    version = re.search(r"project\(RuneflowCore VERSION ([\d.]+)", cmake)[1]
    options = set(re.findall(r"\b(?:option|cmake_dependent_option)\((\w+)", cmake))

    for package in sorted(for_command - NAMES.keys()):
        faults.append(f".ci/check_recipes.py: add the names that the recipes have for {package}")
    for index, recipe in enumerate(RECIPES):
        text = read(recipe)
        wanted = for_command if recipe == BUILDS_THE_COMMAND else for_library
        for package in sorted(wanted & NAMES.keys()):
            name = NAMES[package][index]
            if not re.search(rf'["\'(]{re.escape(name)}["\'/]', text):
                faults.append(f"packaging/{recipe}: {name} is missing, which the build finds as {package}")
    control = read("debian/control")
    for package in read("debian-build.txt").split():
        if package != "g++" and not re.search(rf"^ +{re.escape(package)}\b|, {re.escape(package)}\b", control, re.MULTILINE):
            faults.append(f"packaging/debian/control: {package} of packaging/debian-build.txt is missing")
    vcpkg = json.loads(read("vcpkg/vcpkg.json"))
    if vcpkg["version"] != version:
        faults.append(f"packaging/vcpkg/vcpkg.json: the version is not {version}")
    for recipe in ("conan/conanfile.py", "homebrew/runeflow.rb", "debian/changelog"):
        if version not in read(recipe):
            faults.append(f"packaging/{recipe}: does not name the version {version}")

    for recipe in ("conan/conanfile.py", "vcpkg/portfile.cmake", "homebrew/runeflow.rb", "debian/rules"):
        for option in re.findall(r"(?:-D|\b)(RUNEFLOW_[A-Z_]+)\b", read(recipe)):
            if option not in options | DEFINED_IN_CODE:
                faults.append(f"packaging/{recipe}: the build has no option {option}")

    for python in PACKAGING.rglob("*.py"):
        try:
            compile(python.read_text(encoding="utf-8"), str(python), "exec")
        except SyntaxError as error:
            faults.append(f"{python}: {error}")
    if shutil.which("ruby"):
        checked = subprocess.run(["ruby", "-c", PACKAGING / "homebrew/runeflow.rb"], capture_output=True, text=True)
        if checked.returncode != 0:
            faults.append(checked.stderr.strip())
    else:
        print("skipped: the syntax of packaging/homebrew/runeflow.rb, because ruby is not installed")

    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
