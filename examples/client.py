#!/usr/bin/env python3
"""Calls a service without the library, as described in protocol.md. Exit status: 0, or that page's outcome plus 10."""
import argparse
import hashlib
import os
import socket
import struct
import sys
import time

RECORD = struct.Struct("BB257s")  # type, flag, data
BUSY, PAUSED, REFUSED, ASK, REQUEST, DONE = 2, 4, 5, 7, 8, 9
TIMEOUT, NO_SERVICE, BROKEN, BAD_NAME = 1, 2, 5, 7
REFUSALS = {PAUSED: 3, REFUSED: 4, BUSY: 6}


class Failed(Exception):
    pass  # its argument is the outcome


def socket_path(service):
    if service.startswith("@/"):
        return service[1:]
    number, = struct.unpack(">I", hashlib.sha1(service.encode()).digest()[:4])
    return "/var/run/ks/%X.sock" % number


# Returns when the reply is in the file.
def converse(peer, request, file, extra_fd, deadline):
    while True:
        peer.settimeout(max(deadline - time.monotonic(), 0.001))
        record = peer.recv(RECORD.size, socket.MSG_WAITALL)
        if len(record) < RECORD.size:
            raise Failed(BROKEN)
        kind = record[0]
        if kind == DONE:
            return
        if kind in REFUSALS:
            raise Failed(REFUSALS[kind])
        if kind == ASK:
            descriptors = [file] if extra_fd is None else [file, extra_fd]
            peer.sendall(RECORD.pack(REQUEST, len(descriptors) - 1, request.encode()))
            for descriptor in descriptors:  # each in a separate message
                socket.send_fds(peer, [b"\0"], [descriptor])


def call(service, request, body=b"", seconds=10, extra_fd=None):
    if not 0 < len(service.encode()) <= 64 or len(request.encode()) > 256:
        raise Failed(BAD_NAME)
    with open(os.memfd_create("request"), "r+b", buffering=0) as file:
        file.write(body)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as peer:
            peer.settimeout(seconds)
            error = NO_SERVICE
            try:
                peer.connect(socket_path(service))
                error = BROKEN
                converse(peer, request, file.fileno(), extra_fd, time.monotonic() + seconds)
            except TimeoutError:
                raise Failed(TIMEOUT) from None
            except OSError:
                raise Failed(error) from None
        return os.pread(file.fileno(), os.fstat(file.fileno()).st_size, 0)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("-t", type=float, default=10)
    parser.add_argument("--fd", type=int)
    parser.add_argument("service")
    parser.add_argument("request")
    parser.add_argument("body", nargs="?", default="")
    options = parser.parse_args()
    try:
        sys.stdout.buffer.write(call(options.service, options.request, options.body.encode(), options.t, options.fd))
    except Failed as failed:
        sys.exit(10 + failed.args[0])
