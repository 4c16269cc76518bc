#!/usr/bin/python3
"""Send UDP multicast from one interface, steadily, until SIGTERM.

    upstream_send.py --iface eth0 [--src ADDRESS] --rate N [--hlim 8] GROUP/PORT...

Every GROUP/PORT gets N datagrams a second. The hop limit is above 1 (default 8): Linux
forwards a multicast packet only when its hop limit is above 1. --src binds the socket to that
address of the interface (the source the packets carry).
"""

import argparse
import signal
import socket
import sys
import time


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--iface", required=True)
    parser.add_argument("--src")
    parser.add_argument("--rate", type=float, default=20.0)
    parser.add_argument("--hlim", type=int, default=8)
    parser.add_argument("targets", nargs="+", metavar="GROUP/PORT")
    args = parser.parse_args()

    targets = []
    for text in args.targets:
        group, port = text.rsplit("/", 1)
        socket.inet_pton(socket.AF_INET6, group)
        targets.append((group, int(port)))

    ifindex = socket.if_nametoindex(args.iface)
    sock = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, ifindex)
    sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, args.hlim)
    sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_LOOP, 0)
    if args.src:
        sock.bind((args.src, 0))

    stop = {"now": False}

    def on_term(_signum, _frame):
        stop["now"] = True

    signal.signal(signal.SIGTERM, on_term)
    signal.signal(signal.SIGINT, on_term)

    period = 1.0 / args.rate
    seq = 0
    next_time = time.monotonic()
    while not stop["now"]:
        payload = ("%d %d" % (seq, time.time_ns() // 1000)).encode()
        for group, port in targets:
            try:
                sock.sendto(payload, (group, port, 0, ifindex))
            except OSError:
                pass  # no buffer space for a moment: the next round goes out anyway
        seq += 1
        next_time += period
        delay = next_time - time.monotonic()
        if delay > 0:
            time.sleep(delay)
        else:
            next_time = time.monotonic()
    return 0


if __name__ == "__main__":
    sys.exit(main())
