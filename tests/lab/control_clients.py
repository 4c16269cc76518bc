#!/usr/bin/python3
"""Clients of the daemon's control socket, good and hostile.

    control_clients.py ask SOCKET [REQUEST]
        Sends REQUEST (default "status json") and a newline, reads the reply to its end and
        prints "MS BYTES" (the milliseconds from connect to the end of the reply) on the first
        line, then the reply.
    control_clients.py hostile SOCKET SECONDS
        For SECONDS: 100 connections that send nothing, then rounds of garbage lines, requests of
        a megabyte and half-sent requests, each on fresh connections, as fast as they go.
        Prints "ROUNDS N REFUSED M" (connections the daemon closed or refused).

Run it with /usr/bin/python3.
"""

import socket
import sys
import time


def connect(path):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(10)
    s.connect(path)
    return s


def ask(path, request):
    start = time.monotonic()
    s = connect(path)
    s.sendall(request.encode() + b"\n")
    reply = b""
    while True:
        chunk = s.recv(65536)
        if not chunk:
            break
        reply += chunk
    s.close()
    print(f"{(time.monotonic() - start) * 1000:.1f} {len(reply)}")
    sys.stdout.write(reply.decode(errors="replace"))
    return 0


def hostile(path, seconds):
    silent = []
    refused = 0
    for _ in range(100):
        try:
            silent.append(connect(path))
        except OSError:
            refused += 1
    end = time.monotonic() + seconds
    rounds = 0
    while time.monotonic() < end:
        for payload in (b"garbage\x00\xff\n", b"x" * 1000000, b"stat"):
            try:
                s = connect(path)
                s.settimeout(0.2)
                s.sendall(payload)
                s.recv(100)
                s.close()
            except OSError:
                refused += 1
        rounds += 1
    for s in silent:
        s.close()
    print(f"ROUNDS {rounds} REFUSED {refused}")
    return 0


def main():
    if len(sys.argv) >= 3 and sys.argv[1] == "ask":
        return ask(sys.argv[2], sys.argv[3] if len(sys.argv) > 3 else "status json")
    if len(sys.argv) == 4 and sys.argv[1] == "hostile":
        return hostile(sys.argv[2], float(sys.argv[3]))
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
