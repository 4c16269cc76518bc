#!/usr/bin/python3
"""A storm of MLD messages from one host link, for tools/bench.sh: valid MLDv2 reports (joins,
source changes and leaves of 3000 groups from 100 hosts) mixed half and half with malformed
ones that still carry a correct ICMPv6 checksum (so the kernel hands them to the router): record
counts and source counts beyond the message, truncated records, unknown record types, auxiliary
data, non-multicast groups, lists over the per-list limit, MLDv1 messages and queries of odd
length from a host.

    storm_send.py --iface IF --seconds S [--rate PPS]

Runs in the host's namespace (ip netns exec), sends paced bursts for S seconds and prints one
JSON object with what it sent. Run it with /usr/bin/python3 as root.
"""

import argparse
import json
import random
import socket
import sys
import time

import mldwire as w


def host(k):
    return "fe80::5:%x" % k


def group(k):
    return "ff0e::5:%x" % k


def source(k):
    return "2001:db8:5::%x" % k


def valid(rng):
    g = group(rng.randrange(1, 3001))
    kind = rng.randrange(5)
    if kind == 0:
        recs = [w.record(w.TO_EX, g)]
    elif kind == 1:
        recs = [w.record(w.IS_EX, g, [source(rng.randrange(1, 200)) for _ in range(3)])]
    elif kind == 2:
        recs = [w.record(w.ALLOW, g, [source(rng.randrange(1, 200))])]
    elif kind == 3:
        recs = [w.record(w.BLOCK, g, [source(rng.randrange(1, 200))])]
    else:
        recs = [w.record(w.TO_IN, g)]
    return w.report(recs)


def malformed(rng):
    g = group(rng.randrange(1, 3001))
    kind = rng.randrange(10)
    if kind == 0:
        return w.report([w.record(w.TO_EX, g)], nrec=200)
    if kind == 1:
        return w.report([w.record(w.IS_IN, g, [source(1)], nsrc=60000)])
    if kind == 2:
        return w.report([w.record(w.TO_EX, "2001:db8::1"), w.record(w.TO_EX, g)])
    if kind == 3:
        return w.report([w.record(9, g), w.record(0, g)])
    if kind == 4:
        return w.report([w.record(w.ALLOW, g, [source(2)], aux=255), w.record(w.TO_EX, g)])
    if kind == 5:
        return w.report([w.record(w.TO_EX, g)])[:10]
    if kind == 6:
        return w.report([w.record(w.TO_EX, g, [source(k) for k in range(1, 81)])])
    if kind == 7:
        return bytes([131 + rng.randrange(2), 0, 0, 0, 0, 0, 0, 0]) + bytes(16)[:rng.randrange(17)]
    if kind == 8:
        return bytes([130, 0, 0, 0, 0, 1, 0, 0]) + bytes(18)
    return w.report([w.record(w.IS_IN, g, [source(3)], nsrc=2)])


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--iface", required=True)
    p.add_argument("--seconds", type=float, required=True)
    p.add_argument("--rate", type=int, default=20000)
    a = p.parse_args()
    rng = random.Random(1)
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    s.bind((a.iface, 0))
    mac = s.getsockname()[4]
    frames = []
    for i in range(4000):
        icmp = valid(rng) if i % 2 == 0 else malformed(rng)
        frames.append(w.icmpv6_frame(mac, host(rng.randrange(1, 101)), w.ALL_MLDV2_ROUTERS, icmp))
    sent = errors = 0
    burst = max(1, a.rate // 100)
    t0 = time.time()
    while time.time() - t0 < a.seconds:
        for _ in range(burst):
            try:
                s.send(frames[sent % len(frames)])
                sent += 1
            except OSError:
                errors += 1
        ahead = t0 + sent / a.rate - time.time()
        if ahead > 0:
            time.sleep(ahead)
    secs = time.time() - t0
    print(json.dumps({"reports": sent, "valid": (sent + 1) // 2, "malformed": sent // 2,
                      "send_errors": errors, "rate": round(sent / secs)}))
    return 0


if __name__ == "__main__":
    sys.exit(main())
