#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""A stand-in for an Android device: the device end of adb's transport protocol, over TCP.

An adb server that connects to the stand-in lists it like any device. A shell command that begins
with "logcat" prints the file given as argument; every other service is refused. A packet is a header
of six little-endian 32-bit words (command, two arguments, length and byte sum of the data, the
complement of the command), followed by the data. A stream sends one packet of data and then waits
for its OKAY.

Prints its port on the first line. Runs until it is ended or until --drop-after makes it exit.
"""

import argparse
import os
import socket
import struct
import threading

VERSION = 0x01000001  # from this version on, the receiver ignores the byte sum
MAX_DATA = 256 * 1024
HEADER = struct.Struct("<6I")
AUTH_TOKEN = 1
AUTH_SIGNATURE = 2


def word(name):
    return int.from_bytes(name, "little")


CNXN, AUTH, OPEN, OKAY, WRTE, CLSE = map(word, (b"CNXN", b"AUTH", b"OPEN", b"OKAY", b"WRTE", b"CLSE"))


class ConnectionLost(Exception):
    pass


class Connection:
    """A connection to one adb server. The dictionaries are keyed by our id of a stream."""

    def __init__(self, server, options, log):
        self.server = server
        self.options = options
        self.log = log
        self.room = MAX_DATA
        self.remote = {}  # the server's id of the stream
        self.rest = {}  # the part of the log that the stream still has to send
        self.last_id = 0

    def run(self):
        with self.server:
            self.server.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            try:
                while True:
                    self.handle(*self.receive())
            except (ConnectionLost, OSError):
                pass

    def receive(self):
        command, first, second, length, _, _ = HEADER.unpack(self.read(HEADER.size))
        if length > MAX_DATA:
            raise ConnectionLost
        return command, first, second, self.read(length)

    def read(self, count):
        data = bytearray()
        while len(data) < count:
            piece = self.server.recv(count - len(data))
            if not piece:
                raise ConnectionLost
            data += piece
        return bytes(data)

    def send(self, command, first, second, data=b""):
        header = HEADER.pack(command, first, second, len(data), sum(data), command ^ 0xFFFFFFFF)
        self.server.sendall(header + data)

    def handle(self, command, first, second, data):
        if command == CNXN:
            self.room = min(second, MAX_DATA)
            self.introduce()
        elif command == AUTH and first == AUTH_SIGNATURE:
            # Rejects the signature by asking for another one. A public key gets no answer, as if the
            # user had not accepted it yet.
            self.send(AUTH, AUTH_TOKEN, 0, os.urandom(20))
        elif command == OPEN:
            self.open(first, data.rstrip(b"\0").decode())
        elif command == OKAY and second in self.remote:
            self.print_more(second)
        elif command == WRTE and second in self.remote:
            self.send(OKAY, second, first)
        elif command == CLSE:
            self.remote.pop(second, None)

    def introduce(self):
        if self.options.unauthorized:
            self.send(AUTH, AUTH_TOKEN, 0, os.urandom(20))
        else:
            banner = "device::ro.product.name=stand_in;ro.product.model=Stand_In;ro.product.device=none;"
            self.send(CNXN, VERSION, MAX_DATA, banner.encode())

    def open(self, remote, service):
        if not service.startswith("shell:logcat"):
            self.send(CLSE, 0, remote)
            return
        self.last_id += 1
        self.remote[self.last_id] = remote
        self.rest[self.last_id] = memoryview(self.log)
        self.send(OKAY, self.last_id, remote)
        self.print_more(self.last_id)

    def print_more(self, stream):
        rest = self.rest[stream]
        if self.options.drop_after is not None and len(self.log) - len(rest) >= self.options.drop_after:
            os._exit(0)
        piece = bytes(rest[: min(self.options.chunk, self.room)])
        self.rest[stream] = rest[len(piece) :]
        if piece:
            self.send(WRTE, stream, self.remote[stream], piece)
        elif not self.options.hold:
            self.send(CLSE, stream, self.remote.pop(stream))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("log", help="the file that logcat prints")
    parser.add_argument("--port", type=int, default=0, help="port to listen on; 0 takes a free one")
    parser.add_argument("--chunk", type=int, default=MAX_DATA, help="largest number of bytes per packet")
    parser.add_argument("--drop-after", type=int, help="exit after sending at least this many bytes")
    parser.add_argument("--unauthorized", action="store_true", help="accept no key from the server")
    parser.add_argument("--hold", action="store_true", help="keep the stream open at the end of the log")
    options = parser.parse_args()
    with open(options.log, "rb") as file:
        log = file.read()
    with socket.create_server(("127.0.0.1", options.port)) as listener:
        print(listener.getsockname()[1], flush=True)
        while True:
            server, _ = listener.accept()
            threading.Thread(target=Connection(server, options, log).run, daemon=True).start()


if __name__ == "__main__":
    main()
