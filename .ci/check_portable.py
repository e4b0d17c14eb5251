#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Finds extensions of Linux and glibc outside the folders that may use them.

usage: check_portable.py [--self-test]

Only runeflow/platform/ and the folder of the command, cli/, hold code for one system. Everything else
uses what POSIX and the BSDs have, so that it compiles on macOS.
A name behind its own #ifdef is allowed.
"""

import pathlib
import re
import sys

FOLDERS = ("runeflow", "host", "viewer", "fleet", "examples")
ALLOWED = pathlib.PurePath("runeflow/platform")
NAMES = re.compile(
    r"\b("
    r"accept4|dup3|pipe2|ppoll|recvmmsg|sendmmsg|splice|tee|vmsplice|copy_file_range|sendfile64?|memfd_create"
    r"|signalfd\w*|eventfd\w*|epoll_\w+|inotify_\w+|timerfd_\w+|prctl|syscall|getrandom|gettid|sched_\w+affinity"
    r"|posix_fadvise|fallocate|readahead|statx|renameat2|openat2|close_range|closefrom"
    r"|posix_spawn_file_actions_addclosefrom_np|pthread_\w+_np|strchrnul|memrchr|memmem|mempcpy|strerrorname_np"
    r"|secure_getenv|get_current_dir_name|program_invocation_\w+|program_invocation_short_name"
    r"|SOCK_CLOEXEC|SOCK_NONBLOCK|MSG_NOSIGNAL|MSG_CMSG_CLOEXEC|POLLRDHUP|F_[GS]ETPIPE_SZ|F_OFD_\w+"
    r"|O_PATH|O_TMPFILE|O_NOATIME|O_DIRECT|st_[amc]tim|TCP_CORK|TCP_QUICKACK|SO_PEERCRED|CLOCK_BOOTTIME"
    r"|move_only_function|__GLIBC\w*|__gnu_cxx|__linux__"
    r")\b"
    r"|<(?:linux/[^>]*|sys/(?:epoll|eventfd|inotify|prctl|sendfile|signalfd|syscall|sysinfo|timerfd)\.h)>"
    r"|\"/proc/"
)
COMMENT = re.compile(r"//[^\n]*")


def faults_in(name, text):
    code = COMMENT.sub("", text)
    guarded = set(re.findall(r"#ifdef (\w+)", text))
    for number, line in enumerate(code.split("\n"), 1):
        for found in NAMES.finditer(line):
            if found[0] not in guarded:
                yield f"{name}:{number}: {found[0]} is no part of POSIX or of both C++ libraries; use or add a function in {ALLOWED}/"


def self_test():
    """Each of these lines holds one fault; the last holds none."""
    for line in ("::pipe2(ends, O_CLOEXEC);", "#include <sys/signalfd.h>", "status.st_mtim.tv_sec",
                 "std::move_only_function<void()> f;", 'open("/proc/self/maps")'):
        if len(list(faults_in("x", line))) != 1:
            return [f"not found: {line}"]
    return list(faults_in("x", "status.st_mtime; ::pipe(ends);  // not pipe2: Linux alone has it"))


def main():
    if sys.argv[1:] == ["--self-test"]:
        faults = self_test()
    else:
        sources = [p for folder in FOLDERS for p in sorted(pathlib.Path(folder).rglob("*")) if p.suffix in (".h", ".cpp")]
        faults = [
            fault
            for path in sources
            if ALLOWED not in path.parents
            for fault in faults_in(path, path.read_text(encoding="utf-8"))
        ]
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
