#!/usr/bin/python3
"""Join a multicast group on one interface, as an application would, and count the UDP
datagrams that arrive for it.

    upstream_listen.py --iface eth0 --group GROUP [--source SOURCE] --port PORT --status FILE

Any-source joins use MCAST_JOIN_GROUP, source-specific ones MCAST_JOIN_SOURCE_GROUP (level
IPPROTO_IPV6 = 41, option 46), with struct group_req / group_source_req laid out by ctypes
for this machine's ABI (sockaddr_storage is aligned like unsigned long, so on 64-bit hosts
4 bytes of padding follow the interface index). The host's kernel then sends the MLD reports.

Signals: SIGUSR1 leaves the group (MCAST_LEAVE_GROUP / MCAST_LEAVE_SOURCE_GROUP, the socket stays
open and keeps counting), SIGUSR2 joins it again, SIGTERM ends the program.

FILE is replaced (written aside, then renamed) whenever something changed, with lines
"KEY VALUE": join_us (time of the last join, microseconds since the epoch), leave_us (of the
last leave, 0 while joined), count, first_us and last_us (first and last datagram, 0 before
any), count_since_join (datagrams since the last join), first_since_join_us.
"""

import argparse
import ctypes
import os
import signal
import socket
import sys
import time

IPPROTO_IPV6 = 41
MCAST_JOIN_GROUP = 42
MCAST_LEAVE_GROUP = 45
MCAST_JOIN_SOURCE_GROUP = 46
MCAST_LEAVE_SOURCE_GROUP = 47


class SockaddrStorage(ctypes.Structure):
    # glibc: sa_family_t ss_family; char __ss_padding[...]; unsigned long __ss_align; (128 bytes)
    _fields_ = [
        ("ss_family", ctypes.c_ushort),
        ("ss_padding", ctypes.c_ubyte * (128 - ctypes.sizeof(ctypes.c_ushort) - ctypes.sizeof(ctypes.c_ulong))),
        ("ss_align", ctypes.c_ulong),
    ]


class GroupReq(ctypes.Structure):
    _fields_ = [("gr_interface", ctypes.c_uint32), ("gr_group", SockaddrStorage)]


class GroupSourceReq(ctypes.Structure):
    _fields_ = [
        ("gsr_interface", ctypes.c_uint32),
        ("gsr_group", SockaddrStorage),
        ("gsr_source", SockaddrStorage),
    ]


def sockaddr_in6(address):
    """A sockaddr_storage holding struct sockaddr_in6 for ADDRESS (port 0, scope 0)."""
    ss = SockaddrStorage()
    raw = bytearray(28)
    raw[0:2] = socket.AF_INET6.to_bytes(2, sys.byteorder)  # sin6_family, host order
    raw[8:24] = socket.inet_pton(socket.AF_INET6, address)  # sin6_addr
    ctypes.memmove(ctypes.addressof(ss), bytes(raw), len(raw))
    return ss


def now_us():
    return time.time_ns() // 1000


class Listener:
    def __init__(self, args):
        self.args = args
        self.ifindex = socket.if_nametoindex(args.iface)
        self.sock = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.sock.bind(("::", args.port))
        self.sock.settimeout(0.05)
        self.state = {"join_us": 0, "leave_us": 0, "count": 0, "first_us": 0, "last_us": 0,
                      "count_since_join": 0, "first_since_join_us": 0}
        self.joined = False
        self.dirty = True

    def request(self):
        if self.args.source:
            req = GroupSourceReq()
            req.gsr_interface = self.ifindex
            req.gsr_group = sockaddr_in6(self.args.group)
            req.gsr_source = sockaddr_in6(self.args.source)
            return MCAST_JOIN_SOURCE_GROUP, MCAST_LEAVE_SOURCE_GROUP, bytes(req)
        req = GroupReq()
        req.gr_interface = self.ifindex
        req.gr_group = sockaddr_in6(self.args.group)
        return MCAST_JOIN_GROUP, MCAST_LEAVE_GROUP, bytes(req)

    def join(self):
        if self.joined:
            return
        join, _, req = self.request()
        self.state["join_us"] = now_us()
        self.sock.setsockopt(IPPROTO_IPV6, join, req)
        self.state["leave_us"] = 0
        self.state["count_since_join"] = 0
        self.state["first_since_join_us"] = 0
        self.joined = True
        self.dirty = True

    def leave(self):
        if not self.joined:
            return
        _, leave, req = self.request()
        self.state["leave_us"] = now_us()
        self.sock.setsockopt(IPPROTO_IPV6, leave, req)
        self.joined = False
        self.dirty = True

    def received(self):
        t = now_us()
        s = self.state
        s["count"] += 1
        s["count_since_join"] += 1
        if not s["first_us"]:
            s["first_us"] = t
        if not s["first_since_join_us"]:
            s["first_since_join_us"] = t
        s["last_us"] = t
        self.dirty = True

    def write(self):
        if not self.dirty:
            return
        path = self.args.status
        tmp = path + ".tmp"
        with open(tmp, "w") as f:
            for key, value in self.state.items():
                f.write("%s %d\n" % (key, value))
        os.replace(tmp, path)
        self.dirty = False


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--iface", required=True)
    parser.add_argument("--group", required=True)
    parser.add_argument("--source")
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--status", required=True)
    args = parser.parse_args()

    listener = Listener(args)
    wanted = {"leave": False, "join": False, "stop": False}

    def on_signal(signum, _frame):
        if signum == signal.SIGUSR1:
            wanted["leave"] = True
        elif signum == signal.SIGUSR2:
            wanted["join"] = True
        else:
            wanted["stop"] = True

    for signum in (signal.SIGUSR1, signal.SIGUSR2, signal.SIGTERM, signal.SIGINT):
        signal.signal(signum, on_signal)

    listener.join()
    listener.write()
    last_write = 0.0
    while not wanted["stop"]:
        if wanted["leave"]:
            wanted["leave"] = False
            listener.leave()
            listener.write()
        if wanted["join"]:
            wanted["join"] = False
            listener.join()
            listener.write()
        try:
            listener.sock.recvfrom(2048)
            listener.received()
        except socket.timeout:
            pass
        if time.monotonic() - last_write >= 0.05:
            listener.write()
            last_write = time.monotonic()
    listener.write()
    return 0


if __name__ == "__main__":
    sys.exit(main())
