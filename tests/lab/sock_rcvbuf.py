#!/usr/bin/python3
"""Print the largest receive buffer (SO_RCVBUF, bytes) among the raw ICMPv6 sockets of a process.

    sock_rcvbuf.py PID

Each socket descriptor of PID is duplicated into this process with pidfd_getfd(2) (Linux 5.6;
needs the right to ptrace PID, as root has) and asked for its options. Prints 0 when the process
has no raw ICMPv6 socket.
"""

import ctypes
import os
import socket
import sys

SYS_PIDFD_GETFD = 438  # the same number on every architecture


def main():
    pid = int(sys.argv[1])
    libc = ctypes.CDLL(None, use_errno=True)
    pidfd = os.pidfd_open(pid)
    best = 0
    for name in os.listdir("/proc/%d/fd" % pid):
        try:
            if not os.readlink("/proc/%d/fd/%s" % (pid, name)).startswith("socket:"):
                continue
        except OSError:
            continue
        fd = libc.syscall(SYS_PIDFD_GETFD, pidfd, int(name), 0)
        if fd < 0:
            raise SystemExit("pidfd_getfd: %s" % os.strerror(ctypes.get_errno()))
        s = socket.socket(fileno=fd)
        try:
            if s.family == socket.AF_INET6 and s.type == socket.SOCK_RAW and s.proto == 58:
                best = max(best, s.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF))
        finally:
            s.close()
    print(best)


if __name__ == "__main__":
    main()
