#!/usr/bin/python3
"""Real UDP multicast for the lab: a paced sender and a listening receiver.

    mcast_flow.py send --iface IF --rate PPS [--hops N] [--duration S] FLOW...
        FLOW is SOURCE,GROUP,PORT: datagrams from the local address SOURCE to GROUP:PORT. Every
        flow sends PPS datagrams a second (paced, not in bursts) until DURATION seconds have
        passed (default: until SIGTERM). Payload "seq=N t=TIME". The hop limit (default 16) must
        be above 1: Linux forwards a multicast packet only when its hop limit is above 1.

    mcast_flow.py recv --iface IF [--iface IF ...] --group G --port P [--source S | --block S ...]
                       [--join-gap S] [--leave-first N] [--log FILE]
        Joins G on IF (any-source with MCAST_JOIN_GROUP, or source-specific with
        MCAST_JOIN_SOURCE_GROUP when --source is given: the host then reports INCLUDE{S}; --block
        follows the any-source join with MCAST_BLOCK_SOURCE for each S: EXCLUDE{S...}) and
        writes "JOINED TIME" and then "TIME SOURCE SEQ" for every datagram received on the socket,
        line-buffered. SIGTERM (or SIGINT) closes the socket (the host kernel reports the leave)
        and ends the program with "LEFT TIME".
        With several interfaces (each one a host of its own, e.g. macvlans) every interface gets a
        socket of its own, bound to it (SO_BINDTODEVICE: a socket takes only its interface's
        datagrams), joined one after another --join-gap seconds apart; lines then end in
        " IFACE". SIGUSR1 closes the sockets of the first --leave-first interfaces (their hosts
        leave) and writes "LEFT_FIRST N TIME".

Run it with /usr/bin/python3.
"""

import argparse
import selectors
import signal
import socket
import struct
import sys
import time

IPPROTO_IPV6 = 41
MCAST_JOIN_GROUP = 42
MCAST_BLOCK_SOURCE = 43
MCAST_JOIN_SOURCE_GROUP = 46

STOP = False


def on_signal(_signum, _frame):
    global STOP
    STOP = True


def sockaddr_storage_in6(address):
    """struct sockaddr_in6 (family, port, flow info, address, scope id) padded to 128 bytes."""
    sin6 = struct.pack("@H", socket.AF_INET6) + struct.pack("!H", 0) + struct.pack("@I", 0)
    sin6 += socket.inet_pton(socket.AF_INET6, address) + struct.pack("@I", 0)
    return sin6 + bytes(128 - len(sin6))


def group_req(ifindex, group, source=None):
    """struct group_req / group_source_req of this host's ABI: a 32-bit interface index, then
    sockaddr_storage members aligned like a pointer (4 bytes of padding on 64-bit hosts)."""
    pad = (-4) % struct.calcsize("P")
    data = struct.pack("@I", ifindex) + bytes(pad) + sockaddr_storage_in6(group)
    if source is not None:
        data += sockaddr_storage_in6(source)
    return data


def cmd_send(args):
    ifindex = socket.if_nametoindex(args.iface)
    flows = []
    for text in args.flows:
        source, group, port = text.split(",")
        s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
        s.setsockopt(IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, args.hops)
        s.setsockopt(IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, ifindex)
        s.setsockopt(IPPROTO_IPV6, socket.IPV6_MULTICAST_LOOP, 0)
        s.bind((source, 0))
        flows.append((s, (group, int(port), 0, 0)))
    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)
    step = 1.0 / args.rate
    start = time.monotonic()
    seq = 0
    while not STOP:
        now = time.monotonic()
        if args.duration and now - start >= args.duration:
            break
        due = start + seq * step
        if due > now:
            time.sleep(due - now)
            continue
        payload = b"seq=%d t=%.6f " % (seq, time.time())
        for s, dest in flows:
            try:
                s.sendto(payload, dest)
            except OSError:
                pass  # e.g. ENOBUFS; the receivers count what arrives
        seq += 1
    print("SENT %d per flow" % seq, flush=True)
    return 0


def open_member(args, iface, bind):
    """A socket joined to the group on IFACE as the options say (bound to IFACE when BIND)."""
    ifindex = socket.if_nametoindex(iface)
    s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    if bind:
        s.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, iface.encode())
    s.bind(("::", args.port))
    if args.source:
        s.setsockopt(IPPROTO_IPV6, MCAST_JOIN_SOURCE_GROUP, group_req(ifindex, args.group, args.source))
    else:
        s.setsockopt(IPPROTO_IPV6, MCAST_JOIN_GROUP, group_req(ifindex, args.group))
        for source in args.block or []:
            s.setsockopt(IPPROTO_IPV6, MCAST_BLOCK_SOURCE, group_req(ifindex, args.group, source))
    s.setblocking(False)
    return s


def cmd_recv(args):
    out = open(args.log, "w", buffering=1) if args.log else sys.stdout
    many = len(args.iface) > 1
    leave_now = {"first": False}

    def on_usr1(_signum, _frame):
        leave_now["first"] = True

    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)
    signal.signal(signal.SIGUSR1, on_usr1)
    members = []  # [iface, socket or None once it left]
    for i, iface in enumerate(args.iface):
        if i and args.join_gap:
            time.sleep(args.join_gap)
        members.append([iface, open_member(args, iface, many)])
    out.write("JOINED %.6f\n" % time.time())
    sel = selectors.DefaultSelector()
    for m in members:
        sel.register(m[1], selectors.EVENT_READ, m)
    while not STOP:
        if leave_now["first"]:
            leave_now["first"] = False
            for m in members[: args.leave_first]:
                if m[1] is not None:
                    sel.unregister(m[1])
                    m[1].close()
                    m[1] = None
            out.write("LEFT_FIRST %d %.6f\n" % (args.leave_first, time.time()))
        try:
            ready = sel.select(0.1)
        except InterruptedError:
            continue
        for key, _ in ready:
            m = key.data
            try:
                data, peer = m[1].recvfrom(2048)
            except (BlockingIOError, InterruptedError):
                continue
            seq = "-"
            if data.startswith(b"seq="):
                seq = data[4:].split(b" ", 1)[0].decode(errors="replace")
            out.write("%.6f %s %s%s\n" % (time.time(), peer[0], seq, " " + m[0] if many else ""))
    for m in members:
        if m[1] is not None:
            m[1].close()
    out.write("LEFT %.6f\n" % time.time())
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = parser.add_subparsers(dest="cmd", required=True)
    p = sub.add_parser("send")
    p.add_argument("--iface", required=True)
    p.add_argument("--rate", type=float, default=100.0)
    p.add_argument("--hops", type=int, default=16)
    p.add_argument("--duration", type=float, default=0.0)
    p.add_argument("flows", nargs="+", metavar="FLOW")
    p = sub.add_parser("recv")
    p.add_argument("--iface", required=True, action="append")
    p.add_argument("--group", required=True)
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--source")
    p.add_argument("--block", action="append", metavar="SOURCE")
    p.add_argument("--join-gap", type=float, default=0.0)
    p.add_argument("--leave-first", type=int, default=0)
    p.add_argument("--log")
    args = parser.parse_args()
    if args.cmd == "recv" and args.source and args.block:
        parser.error("--source (INCLUDE) and --block (EXCLUDE) do not go together")
    return cmd_send(args) if args.cmd == "send" else cmd_recv(args)


if __name__ == "__main__":
    sys.exit(main())
