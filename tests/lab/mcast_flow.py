#!/usr/bin/python3
"""Real UDP multicast for the lab: a paced sender and a listening receiver.

    mcast_flow.py send --iface IF --rate PPS [--hops N] [--duration S] FLOW...
        FLOW is SOURCE,GROUP,PORT: datagrams from the local address SOURCE to GROUP:PORT. Every
        flow sends PPS datagrams a second (paced, not in bursts) until DURATION seconds have
        passed (default: until SIGTERM). Payload "seq=N t=TIME". The hop limit (default 16) must
        be above 1: Linux forwards a multicast packet only when its hop limit is above 1.

    mcast_flow.py recv --iface IF --group G --port P [--source S] [--log FILE]
        Joins G on IF (any-source with MCAST_JOIN_GROUP, or source-specific with
        MCAST_JOIN_SOURCE_GROUP when --source is given: the host then reports INCLUDE{S}) and
        writes "JOINED TIME" and then "TIME SOURCE SEQ" for every datagram received on the socket,
        line-buffered. SIGTERM (or SIGINT) closes the socket (the host kernel reports the leave)
        and ends the program with "LEFT TIME".

Run it with /usr/bin/python3.
"""

import argparse
import signal
import socket
import struct
import sys
import time

IPPROTO_IPV6 = 41
MCAST_JOIN_GROUP = 42
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


def cmd_recv(args):
    out = open(args.log, "w", buffering=1) if args.log else sys.stdout
    ifindex = socket.if_nametoindex(args.iface)
    s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("::", args.port))
    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)
    if args.source:
        s.setsockopt(IPPROTO_IPV6, MCAST_JOIN_SOURCE_GROUP, group_req(ifindex, args.group, args.source))
    else:
        s.setsockopt(IPPROTO_IPV6, MCAST_JOIN_GROUP, group_req(ifindex, args.group))
    out.write("JOINED %.6f\n" % time.time())
    s.settimeout(0.1)
    while not STOP:
        try:
            data, peer = s.recvfrom(2048)
        except socket.timeout:
            continue
        except InterruptedError:
            continue
        seq = "-"
        if data.startswith(b"seq="):
            seq = data[4:].split(b" ", 1)[0].decode(errors="replace")
        out.write("%.6f %s %s\n" % (time.time(), peer[0], seq))
    s.close()
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
    p.add_argument("--iface", required=True)
    p.add_argument("--group", required=True)
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--source")
    p.add_argument("--log")
    args = parser.parse_args()
    return cmd_send(args) if args.cmd == "send" else cmd_recv(args)


if __name__ == "__main__":
    sys.exit(main())
