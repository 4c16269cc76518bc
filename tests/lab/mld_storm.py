#!/usr/bin/python3
"""Send crafted MLDv2 reports, valid and malformed mixed, as fast as possible.

    mld_storm.py --iface IF --duration SECONDS [--seed N] [--pool N]

Builds a pool of Ethernet frames (IPv6, mostly with the hop-by-hop Router Alert option, ICMPv6
type 143 with a correct checksum, so that the receiving kernel hands every one of them to the
router's raw socket) and sends them round and round through a packet socket until DURATION
seconds have passed. Their contents vary at random (seeded, so a run can be repeated):

  - reporter (source) addresses: random link-local ones, the interface's own, ::, global ones;
  - destinations ff02::16 (most), ff02::2;  hop limit 1 (most), 2, 255;
  - record types 1-6 and odd ones (0, 7, 8, 255), aux data lengths 0 or not, codes 0 or not;
  - groups: random global-scope, random link-scope, a small set that keeps coming back (so
    that members and sources pile up to the daemon's limits), unicast addresses;
  - source counts 0-3, up to 80 (beyond the per-list limit), and counts beyond the packet's end;
  - record counts beyond the records present (up to 65535), 0, and messages of 4-7 bytes.

Prints "START TIME" (epoch seconds) when the sending begins and "SENT N FRAMES IN T s RATE r/s"
at the end. Run it with /usr/bin/python3.
"""

import argparse
import os
import random
import socket
import struct
import sys
import time

ETH_P_IPV6 = 0x86DD
MAX_PAYLOAD = 1500 - 40  # the link MTU less the IPv6 header


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return (~total) & 0xFFFF


def rand_addr(rng, prefix):
    return prefix + bytes(rng.getrandbits(8) for _ in range(16 - len(prefix)))


def multicast_mac(dst):
    return b"\x33\x33" + dst[12:16]


class Builder:
    def __init__(self, rng, own_ll, own_mac):
        self.rng = rng
        self.own_ll = own_ll
        self.own_mac = own_mac
        # Groups that come back again and again (members and sources accumulate on them).
        self.hot = [bytes.fromhex("ff0e0000000000000000000000ee%04x" % i) for i in range(32)]

    def group(self):
        r = self.rng.random()
        if r < 0.55:
            return rand_addr(self.rng, b"\xff\x0e")
        if r < 0.65:
            return rand_addr(self.rng, b"\xff\x3e\x00\x00")
        if r < 0.75:
            return rand_addr(self.rng, b"\xff\x02")
        if r < 0.92:
            return self.rng.choice(self.hot)
        return rand_addr(self.rng, b"\x20\x01\x0d\xb8")  # not multicast

    def source(self):
        r = self.rng.random()
        if r < 0.8:
            return rand_addr(self.rng, b"\x20\x01\x0d\xb8\x00\x0f")
        if r < 0.9:
            return bytes(16)
        return rand_addr(self.rng, b"")

    def record(self, room):
        rng = self.rng
        rtype = rng.choice([1, 2, 3, 4, 5, 6] * 4 + [0, 7, 8, 255])
        r = rng.random()
        if r < 0.6:
            nsrc = rng.randint(0, 3)
        elif r < 0.8:
            nsrc = rng.randint(4, 80)
        else:
            nsrc = rng.randint(0, 65535)  # very likely beyond the packet
        present = min(nsrc, max(0, (room - 20) // 16))
        if rng.random() < 0.3:
            present = rng.randint(0, present)
        aux = 0 if rng.random() < 0.9 else rng.randint(1, 255)
        rec = struct.pack("!BBH", rtype, aux, nsrc) + self.group()
        rec += b"".join(self.source() for _ in range(present))
        if aux and rng.random() < 0.5:
            rec += bytes(rng.getrandbits(8) for _ in range(min(aux * 4, max(0, room - len(rec)))))
        return rec[:room]

    def frame(self):
        rng = self.rng
        r = rng.random()
        if r < 0.7:
            src = rand_addr(rng, b"\xfe\x80" + bytes(6))
        elif r < 0.8:
            src = self.own_ll
        elif r < 0.85:
            src = bytes(16)
        else:
            src = rand_addr(rng, b"\x20\x01\x0d\xb8\x00\x0e")
        dst = socket.inet_pton(socket.AF_INET6, "ff02::16" if rng.random() < 0.9 else "ff02::2")
        hlim = 1 if rng.random() < 0.85 else rng.choice([2, 255])
        router_alert = rng.random() < 0.9
        hbh = bytes([58, 0, 5, 2, 0, 0, 1, 0]) if router_alert else b""
        room = MAX_PAYLOAD - len(hbh) - 8
        want = rng.choice([1, 1, 2, 3, 5, 10, 40])
        body = b""
        count = 0
        while count < want and len(body) < room - 20:
            body += self.record(room - len(body))
            count += 1
        r = rng.random()
        if r < 0.75:
            nrec = count
        elif r < 0.9:
            nrec = rng.randint(count, 65535)
        else:
            nrec = rng.randint(0, count)
        code = 0 if rng.random() < 0.95 else rng.randint(1, 255)
        icmp = struct.pack("!BBHHH", 143, code, 0, 0, nrec) + body
        if rng.random() < 0.02:
            icmp = icmp[: rng.randint(4, 7)]
        pseudo = src + dst + struct.pack("!I", len(icmp)) + b"\0\0\0\x3a"
        csum = checksum(pseudo + icmp)
        icmp = icmp[:2] + struct.pack("!H", csum) + icmp[4:]
        payload = hbh + icmp
        nh = 0 if router_alert else 58
        ip = struct.pack("!IHBB", 6 << 28, len(payload), nh, hlim) + src + dst
        return multicast_mac(dst) + self.own_mac + struct.pack("!H", ETH_P_IPV6) + ip + payload


def own_addresses(iface):
    mac = bytes.fromhex(open("/sys/class/net/%s/address" % iface).read().strip().replace(":", ""))
    ll = None
    with open("/proc/net/if_inet6") as f:
        for line in f:
            parts = line.split()
            if parts[5] == iface and parts[0].startswith("fe80"):
                ll = bytes.fromhex(parts[0])
    if ll is None:
        raise SystemExit("mld_storm.py: %s has no link-local address" % iface)
    return ll, mac


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--iface", required=True)
    parser.add_argument("--duration", type=float, required=True)
    parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(4), "big"))
    parser.add_argument("--pool", type=int, default=8192)
    args = parser.parse_args()
    rng = random.Random(args.seed)
    ll, mac = own_addresses(args.iface)
    builder = Builder(rng, ll, mac)
    pool = [builder.frame() for _ in range(args.pool)]
    print("POOL %d frames, seed %d, %d bytes on average" % (len(pool), args.seed, sum(map(len, pool)) // len(pool)), flush=True)
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_IPV6))
    s.bind((args.iface, 0))
    sent = 0
    print("START %.6f" % time.time(), flush=True)
    start = time.monotonic()
    end = start + args.duration
    i = 0
    n = len(pool)
    while True:
        # Look at the clock every 256 frames only.
        for _ in range(256):
            try:
                s.send(pool[i])
                sent += 1
            except OSError:
                pass  # the queue is full: go on with the next frame
            i += 1
            if i == n:
                i = 0
        if time.monotonic() >= end:
            break
    took = time.monotonic() - start
    print("SENT %d FRAMES IN %.1f s RATE %d/s" % (sent, took, sent / took), flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
