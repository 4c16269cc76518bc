#!/usr/bin/python3
"""MLD and multicast on the lab's wire, for tools/lab.sh (which runs it in the lab's namespaces)
and tools/bench/probe.py (which imports it): MLD messages built byte by byte (malformed ones as
easily as good ones) and sent as Ethernet frames, captures decoded, and real UDP multicast.

    mldlab.py report --iface IF [--count N] [--interval S] [--src ADDR] [--dst ADDR] [--hlim N]
                     [--no-router-alert] [--claim N] [--per-report K] RECORD...
        MLDv2 reports (RFC 3810 section 5.2). RECORD is TYPE:GROUP, TYPE:GROUP/SOURCE[,SOURCE...]
        or TYPE:PREFIX*N (N records, for PREFIX1 .. PREFIXN, the last field in hexadecimal), TYPE
        a number or one of is_in, is_ex, to_in, to_ex, allow, block. The records go into one
        report (K a report with --per-report), sent COUNT times INTERVAL seconds apart, by
        default from the interface's link-local address to ff02::16 with hop limit 1 and the
        hop-by-hop Router Alert option, as RFC 3810 section 5 asks of a host. --claim puts N in
        the Number of Mcast Address Records field whatever the report holds.
    mldlab.py query --iface IF --mrc CODE [--group G] [--src ADDR]
        One MLDv2 query (RFC 3810 section 5.1; QRV 2, QQIC 125) to ff02::1 (to G for a
        group-specific one), hop limit 1, Router Alert; prints the time it was sent
        (microseconds since the epoch). CODE is the Maximum Response Code, exact values only.
    mldlab.py storm --iface IF --seconds S [--mix random|bench] [--seed N] [--frames N] [--rate PPS]
        A pool of MLDv2 reports, valid and malformed, all with a correct ICMPv6 checksum (so that
        the receiving kernel hands every one to the router's raw socket), sent round and round
        for S seconds, as fast as they go or PPS a second. --mix random (the lab test): reporter
        addresses, destinations, hop limits, record types, groups and sources, record and source
        counts beyond the message drawn at random; --mix bench (tools/bench.sh): joins, source
        changes and leaves of 3000 groups from 100 hosts, half and half with malformed reports
        of fixed kinds, MLDv1 messages and queries of odd length. The pool is drawn from SEED
        (a run can be repeated). Prints "POOL ...", "START EPOCH" and
        "SENT N FRAMES IN T s RATE R/s ERRORS E".
    mldlab.py send --iface IF --rate PPS [--hops N] [--duration S] FLOW...
        FLOW is SOURCE,GROUP,PORT: datagrams from the local address SOURCE to GROUP:PORT, PPS a
        second each (paced, not in bursts), until DURATION seconds have passed (default: until
        SIGTERM). Payload "seq=N t=TIME". The hop limit (default 16) must be above 1: Linux
        forwards a multicast packet only when its hop limit is above 1.
    mldlab.py recv --iface IF [--iface IF ...] --group G --port P [--source S | --block S ...]
                   [--join-gap S] [--leave-first N] [--log FILE]
        Joins G on IF (any-source with MCAST_JOIN_GROUP, or source-specific with
        MCAST_JOIN_SOURCE_GROUP when --source is given: the host then reports INCLUDE{S};
        --block follows the any-source join with MCAST_BLOCK_SOURCE for each S: EXCLUDE{S...})
        and writes "JOINED TIME" (taken just before the join) and then "TIME SOURCE SEQ" for
        every datagram received, line-buffered. SIGTERM (or SIGINT) closes the sockets (the host
        kernel reports the leave) and ends the program with "LEFT TIME" (taken just before).
        With several interfaces (each one a host of its own, e.g. macvlans) every interface gets
        a socket of its own, bound to it, joined one after another --join-gap seconds apart;
        lines then end in " IFACE". SIGUSR1 closes the sockets of the first --leave-first
        interfaces (their hosts leave) and writes "LEFT_FIRST N TIME".
    mldlab.py decode [--links] [--follow [--writer PID]] [--human] [--key] [--grep TEXT]
                     [--label TEXT] [--t0 EPOCH] [--name ADDR=NAME] FILE...
        The IPv6 packets of pcap files (tcpdump -w; Ethernet, raw, Linux cooked v1 and v2),
        one line each, in capture order. The decoder is written by hand, so that any packet,
        however malformed, gives a line and never an exception; a record cut short at the end
        of a file still being written is left out. Lines (TIME in seconds with microseconds):
            TIME UDP src=S dst=D hlim=H fl=0xF sport=P dport=Q seq=N|-
            TIME MLD src=S dst=D hlim=H fl=0xF ra=0|1 type=130 len=L mrc=M group=G s=0|1 qrv=R qqic=Q nsrc=N srcs=A,B|- v=1|2
            TIME MLD ... type=143 len=L nrec=N recs=TYPE/GROUP/NSRC[/SRC+SRC...],...  (records that fit)
            TIME MLD ... type=131|132 len=L group=G
            TIME ICMP6 src=S dst=D hlim=H fl=0xF type=T len=L
            TIME OTHER src=S dst=D nh=N
        "ra" tells whether a hop-by-hop header with the Router Alert option came first; "fl" is
        the flow label (the daemon's own messages, from its raw sockets, carry a non-zero one;
        the kernel's own MLD reports 0). A query's "v" is 1 for the 24-byte MLDv1 form. "seq" is
        the N of a payload that starts "seq=N " (mldlab.py send).
        --links, for a capture of every link of a namespace (tcpdump -i any -y LINUX_SLL2):
        MLD and UDP only, TIME in microseconds, the interface index and direction of the cooked
        header ("out" for what the namespace sent), record types as numbers, NREC the records
        decoded, a record without sources ending in "/":
            TIME ifINDEX DIR report FLOWLABEL SRC NREC TYPE/GROUP/SRC,SRC TYPE/GROUP/ ...
            TIME ifINDEX DIR query FLOWLABEL SRC MRC GROUP SRC,SRC
            TIME ifINDEX DIR v1 TYPE FLOWLABEL SRC GROUP          (MLDv1 report 131 or done 132)
            TIME ifINDEX DIR udp SRC GROUP PORT
        --follow reads one file while tcpdump writes it, each line flushed at once, until
        SIGTERM or SIGINT or, with --writer, until the process PID (tcpdump) is gone, after a
        last look at what was written. --human puts MLD messages in words, naming the addresses
        given with --name, --key explains the first report and query shown (tools/demo.sh).

Run it with /usr/bin/python3, as root for what sends.
"""

import argparse
import ipaddress
import os
import random
import selectors
import signal
import socket
import struct
import sys
import time

IS_IN, IS_EX, TO_IN, TO_EX, ALLOW, BLOCK = 1, 2, 3, 4, 5, 6
RECORD_TYPES = {"is_in": IS_IN, "is_ex": IS_EX, "to_in": TO_IN, "to_ex": TO_EX, "allow": ALLOW, "block": BLOCK}
ALL_MLDV2_ROUTERS = "ff02::16"
# Hop-by-hop header: next header ICMPv6, Router Alert (value 0: MLD), PadN.
HOP_BY_HOP = bytes([58, 0, 5, 2, 0, 0, 1, 0])
ETH_P_IPV6 = 0x86DD
LINKTYPE_ETHERNET, LINKTYPE_RAW, LINKTYPE_LINUX_SLL, LINKTYPE_LINUX_SLL2 = 1, 101, 113, 276
PACKET_OUTGOING = 4
IPPROTO_IPV6 = 41
MCAST_JOIN_GROUP, MCAST_BLOCK_SOURCE, MCAST_LEAVE_GROUP, MCAST_JOIN_SOURCE_GROUP = 42, 43, 45, 46


def die(message):
    raise SystemExit("mldlab.py: %s" % message)


def a6(address):
    """The 16 bytes of an IPv6 address given as text (or already as bytes)."""
    return address if isinstance(address, bytes) else socket.inet_pton(socket.AF_INET6, address)


def text6(b):
    return str(ipaddress.IPv6Address(bytes(b)))


# ---------------------------------------------------------------------------------------------
# building and sending MLD messages


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return ~s & 0xFFFF


def frame(mac, src, dst, icmp, hlim=1, router_alert=True):
    """An Ethernet frame from `mac` to the multicast MAC of `dst` carrying the ICMPv6 message
    `icmp` (4 bytes or more, checksum field zero: filled in here), with the hop-by-hop Router
    Alert header unless told otherwise."""
    s6, d6 = a6(src), a6(dst)
    c = checksum(s6 + d6 + struct.pack("!I3xB", len(icmp), 58) + icmp)
    payload = (HOP_BY_HOP if router_alert else b"") + icmp[:2] + struct.pack("!H", c) + icmp[4:]
    ip = struct.pack("!IHBB", 6 << 28, len(payload), 0 if router_alert else 58, hlim) + s6 + d6
    return b"\x33\x33" + d6[12:] + mac + struct.pack("!H", ETH_P_IPV6) + ip + payload


def record(rtype, group, sources=(), nsrc=None, aux=0):
    """A multicast address record; `nsrc` and `aux` (32-bit words) set the Number of Sources and
    Aux Data Len fields whatever follows."""
    n = len(sources) if nsrc is None else nsrc
    return struct.pack("!BBH", rtype, aux, n) + a6(group) + b"".join(a6(s) for s in sources)


def report(records, nrec=None, code=0):
    n = len(records) if nrec is None else nrec
    return struct.pack("!BBHHH", 143, code, 0, 0, n) + b"".join(records)


def query(mrc, group="::", qrv=2, qqic=125):
    return struct.pack("!BBHHH", 130, 0, 0, mrc, 0) + a6(group) + struct.pack("!BBH", qrv & 7, qqic, 0)


def reports(mac, src, groups, rtype, per_report=70):
    """Frames with one record of `rtype` for each of `groups`, `per_report` a report (70 fit a
    1500-byte link)."""
    recs = [record(rtype, g) for g in groups]
    return [frame(mac, src, ALL_MLDV2_ROUTERS, report(recs[i:i + per_report])) for i in range(0, len(recs), per_report)]


def link_local(iface):
    with open("/proc/net/if_inet6") as f:
        for line in f:
            addr, _, _, scope, _, name = line.split()
            if name == iface and scope == "20":
                return text6(bytes.fromhex(addr))
    die("%s has no link-local address" % iface)


def packet_socket(iface):
    """A packet socket that sends on `iface` (and receives nothing); its MAC is getsockname()[4]."""
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    s.bind((iface, 0))
    return s


def parse_record(text):
    kind, sep, rest = text.partition(":")
    if not sep:
        die("record %r: want TYPE:GROUP[/SOURCE,...] or TYPE:PREFIX*N" % text)
    rtype = RECORD_TYPES[kind] if kind in RECORD_TYPES else int(kind)
    if "*" in rest:
        prefix, n = rest.rsplit("*", 1)
        return [record(rtype, "%s%x" % (prefix, k)) for k in range(1, int(n) + 1)]
    # Addresses contain ':' themselves, so the sources follow the group after a '/'.
    group, _, sources = rest.partition("/")
    return [record(rtype, group, [s for s in sources.split(",") if s])]


def cmd_report(a):
    recs = [r for text in a.records for r in parse_record(text)]
    k = a.per_report or len(recs)
    s = packet_socket(a.iface)
    src = a.src or link_local(a.iface)
    frames = [frame(s.getsockname()[4], src, a.dst, report(recs[i:i + k], a.claim), a.hlim, not a.no_router_alert)
              for i in range(0, len(recs), k)]
    for i in range(a.count):
        if i:
            time.sleep(a.interval)
        for f in frames:
            s.send(f)
    return 0


def cmd_query(a):
    if not 0 <= a.mrc <= 0x7FFF:
        die("--mrc 0..32767 (exact values only)")
    s = packet_socket(a.iface)
    dst = "ff02::1" if a.group == "::" else a.group
    f = frame(s.getsockname()[4], a.src or link_local(a.iface), dst, query(a.mrc, a.group))
    sent_us = time.time_ns() // 1000
    s.send(f)
    print(sent_us)
    return 0


# ---------------------------------------------------------------------------------------------
# storms of reports


def rand_addr(rng, prefix):
    return prefix + bytes(rng.getrandbits(8) for _ in range(16 - len(prefix)))


class RandomStorm:
    """Reports of every kind, drawn at random:
      - reporter (source) addresses: random link-local ones, the interface's own, ::, global ones;
      - destinations ff02::16 (most), ff02::2;  hop limit 1 (most), 2, 255;
      - record types 1-6 and odd ones (0, 7, 8, 255), aux data lengths 0 or not, codes 0 or not;
      - groups: random global-scope, random link-scope, a small set that keeps coming back (so
        that members and sources pile up to the daemon's limits), unicast addresses;
      - source counts 0-3, up to 80 (beyond the per-list limit), and counts beyond the packet's end;
      - record counts beyond the records present (up to 65535), 0, and messages of 4-7 bytes."""

    ROOM = 1500 - 40  # the link MTU less the IPv6 header

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
        rec = record(rtype, self.group(), [self.source() for _ in range(present)], nsrc, aux)
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
        dst = "ff02::16" if rng.random() < 0.9 else "ff02::2"
        hlim = 1 if rng.random() < 0.85 else rng.choice([2, 255])
        router_alert = rng.random() < 0.9
        room = self.ROOM - (len(HOP_BY_HOP) if router_alert else 0) - 8
        want = rng.choice([1, 1, 2, 3, 5, 10, 40])
        body = []
        size = 0
        while len(body) < want and size < room - 20:
            body.append(self.record(room - size))
            size += len(body[-1])
        r = rng.random()
        if r < 0.75:
            nrec = len(body)
        elif r < 0.9:
            nrec = rng.randint(len(body), 65535)
        else:
            nrec = rng.randint(0, len(body))
        code = 0 if rng.random() < 0.95 else rng.randint(1, 255)
        icmp = report(body, nrec, code)
        if rng.random() < 0.02:
            icmp = icmp[: rng.randint(4, 7)]
        return frame(self.own_mac, src, dst, icmp, hlim, router_alert)


def bench_storm_message(rng, valid):
    """One message of tools/bench.sh's storm: a valid report or a malformed message."""
    g = "ff0e::5:%x" % rng.randrange(1, 3001)

    def source(k):
        return "2001:db8:5::%x" % k

    if valid:
        kind = rng.randrange(5)
        if kind == 0:
            return report([record(TO_EX, g)])
        if kind == 1:
            return report([record(IS_EX, g, [source(rng.randrange(1, 200)) for _ in range(3)])])
        if kind == 2:
            return report([record(ALLOW, g, [source(rng.randrange(1, 200))])])
        if kind == 3:
            return report([record(BLOCK, g, [source(rng.randrange(1, 200))])])
        return report([record(TO_IN, g)])
    kind = rng.randrange(10)
    if kind == 0:
        return report([record(TO_EX, g)], nrec=200)
    if kind == 1:
        return report([record(IS_IN, g, [source(1)], nsrc=60000)])
    if kind == 2:
        return report([record(TO_EX, "2001:db8::1"), record(TO_EX, g)])
    if kind == 3:
        return report([record(9, g), record(0, g)])
    if kind == 4:
        return report([record(ALLOW, g, [source(2)], aux=255), record(TO_EX, g)])
    if kind == 5:
        return report([record(TO_EX, g)])[:10]
    if kind == 6:
        return report([record(TO_EX, g, [source(k) for k in range(1, 81)])])
    if kind == 7:
        return bytes([131 + rng.randrange(2), 0, 0, 0, 0, 0, 0, 0]) + bytes(16)[:rng.randrange(17)]
    if kind == 8:
        return bytes([130, 0, 0, 0, 0, 1, 0, 0]) + bytes(18)
    return report([record(IS_IN, g, [source(3)], nsrc=2)])


def cmd_storm(a):
    s = packet_socket(a.iface)
    mac = s.getsockname()[4]
    rng = random.Random(a.seed)
    if a.mix == "random":
        storm = RandomStorm(rng, a6(link_local(a.iface)), mac)
        pool = [storm.frame() for _ in range(a.frames)]
    else:
        pool = []
        for i in range(a.frames):
            icmp = bench_storm_message(rng, i % 2 == 0)
            pool.append(frame(mac, "fe80::5:%x" % rng.randrange(1, 101), ALL_MLDV2_ROUTERS, icmp))
    print("POOL %d frames, seed %d, %d bytes on average" % (len(pool), a.seed, sum(map(len, pool)) // len(pool)), flush=True)
    sent = errors = i = 0
    burst = max(1, a.rate // 100) if a.rate else 256  # unpaced: a look at the clock every 256 frames
    print("START %.6f" % time.time(), flush=True)
    start = time.monotonic()
    while time.monotonic() - start < a.seconds:
        for _ in range(burst):
            try:
                s.send(pool[i % len(pool)])
                sent += 1
            except OSError:
                errors += 1  # the queue is full: go on with the next frame
            i += 1
        ahead = start + sent / a.rate - time.monotonic() if a.rate else 0
        if ahead > 0:
            time.sleep(ahead)
    took = time.monotonic() - start
    print("SENT %d FRAMES IN %.1f s RATE %d/s ERRORS %d" % (sent, took, sent / took, errors), flush=True)
    return 0


# ---------------------------------------------------------------------------------------------
# real multicast: senders and listening hosts


class Stop:
    """True once SIGTERM or SIGINT came."""

    def __init__(self):
        self.now = False
        for signum in (signal.SIGTERM, signal.SIGINT):
            signal.signal(signum, self.set)

    def set(self, _signum, _frame):
        self.now = True

    def __bool__(self):
        return self.now


def group_req(ifindex, group, source=None):
    """struct group_req / group_source_req of this host's ABI: a 32-bit interface index, then
    struct sockaddr_in6 in sockaddr_storage members aligned like a pointer (4 bytes of padding
    on 64-bit hosts)."""

    def storage(address):
        sin6 = struct.pack("@H", socket.AF_INET6) + bytes(6) + a6(address) + bytes(4)
        return sin6 + bytes(128 - len(sin6))

    data = struct.pack("@I", ifindex) + bytes((-4) % struct.calcsize("P")) + storage(group)
    return data + storage(source) if source is not None else data


def membership(s, ifindex, group, join=True):
    """An any-source join (or leave) of `group` on the socket, as an application makes it."""
    s.setsockopt(IPPROTO_IPV6, MCAST_JOIN_GROUP if join else MCAST_LEAVE_GROUP, group_req(ifindex, group))


def cmd_send(a):
    ifindex = socket.if_nametoindex(a.iface)
    flows = []
    for text in a.flows:
        source, group, port = text.split(",")
        s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
        s.setsockopt(IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, a.hops)
        s.setsockopt(IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, ifindex)
        s.setsockopt(IPPROTO_IPV6, socket.IPV6_MULTICAST_LOOP, 0)
        s.bind((source, 0))
        flows.append((s, (group, int(port), 0, 0)))
    stop = Stop()
    step = 1.0 / a.rate
    start = time.monotonic()
    seq = 0
    while not stop:
        now = time.monotonic()
        if a.duration and now - start >= a.duration:
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


def open_member(a, iface, bind):
    """A socket joined to the group on IFACE as the options say (bound to IFACE when BIND)."""
    ifindex = socket.if_nametoindex(iface)
    s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    if bind:
        s.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, iface.encode())
    s.bind(("::", a.port))
    if a.source:
        s.setsockopt(IPPROTO_IPV6, MCAST_JOIN_SOURCE_GROUP, group_req(ifindex, a.group, a.source))
    else:
        membership(s, ifindex, a.group)
        for source in a.block or []:
            s.setsockopt(IPPROTO_IPV6, MCAST_BLOCK_SOURCE, group_req(ifindex, a.group, source))
    s.setblocking(False)
    return s


def cmd_recv(a):
    out = open(a.log, "w", buffering=1) if a.log else sys.stdout
    many = len(a.iface) > 1
    stop, leave_first = Stop(), []
    signal.signal(signal.SIGUSR1, lambda *_: leave_first.append(1))
    members = []  # [iface, socket or None once it left]
    joined = time.time()
    for i, iface in enumerate(a.iface):
        if i and a.join_gap:
            time.sleep(a.join_gap)
        members.append([iface, open_member(a, iface, many)])
    out.write("JOINED %.6f\n" % joined)
    sel = selectors.DefaultSelector()
    for m in members:
        sel.register(m[1], selectors.EVENT_READ, m)
    while not stop:
        if leave_first:
            leave_first.clear()
            t = time.time()
            for m in members[: a.leave_first]:
                if m[1] is not None:
                    sel.unregister(m[1])
                    m[1].close()
                    m[1] = None
            out.write("LEFT_FIRST %d %.6f\n" % (a.leave_first, t))
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
    t = time.time()
    for m in members:
        if m[1] is not None:
            m[1].close()
    out.write("LEFT %.6f\n" % t)
    return 0


# ---------------------------------------------------------------------------------------------
# decoding captured packets


def ipv6_of(linktype, f):
    """(IPv6 packet, interface index, outgoing) of a captured frame; the packet is None for a
    frame that carries none, the index 0 where the link type tells none."""
    if linktype == LINKTYPE_ETHERNET and len(f) >= 14:
        etype, off = struct.unpack("!H", f[12:14])[0], 14
        if etype == 0x8100 and len(f) >= 18:
            etype, off = struct.unpack("!H", f[16:18])[0], 18
        return (f[off:] if etype == ETH_P_IPV6 else None), 0, False
    if linktype == LINKTYPE_LINUX_SLL and len(f) >= 16 and struct.unpack("!H", f[14:16])[0] == ETH_P_IPV6:
        return f[16:], 0, struct.unpack("!H", f[0:2])[0] == PACKET_OUTGOING
    if linktype == LINKTYPE_LINUX_SLL2 and len(f) >= 20 and struct.unpack("!H", f[0:2])[0] == ETH_P_IPV6:
        return f[20:], struct.unpack("!I", f[4:8])[0], f[10] == PACKET_OUTGOING
    if linktype == LINKTYPE_RAW:
        return f, 0, False
    return None, 0, False


def decode(pkt):
    """The fields of an IPv6 packet as a dict (None for anything else): kind "udp", "mld",
    "icmp6" or "other"; MLD records as (type, group, number of sources, the sources that fit)."""
    if pkt is None or len(pkt) < 40 or pkt[0] >> 4 != 6:
        return None
    plen, nh, hlim = struct.unpack("!HBB", pkt[4:8])
    d = {"kind": "other", "fl": struct.unpack("!I", pkt[0:4])[0] & 0xFFFFF, "hlim": hlim, "ra": 0,
         "src": text6(pkt[8:24]), "dst": text6(pkt[24:40])}
    body = pkt[40:40 + plen]
    first = True
    # Extension headers: hop-by-hop (0), routing (43), destination options (60).
    while nh in (0, 43, 60) and len(body) >= 8:
        hlen = (body[1] + 1) * 8
        if nh == 0 and first:
            opts, i = body[2:hlen], 0
            while i < len(opts):
                if opts[i] == 0:  # Pad1
                    i += 1
                    continue
                if i + 1 >= len(opts):
                    break
                d["ra"] |= opts[i] == 5
                i += 2 + opts[i + 1]
        first = False
        nh, body = body[0], body[hlen:]
    d["nh"], n = nh, len(body)
    if nh == 17 and n >= 8:
        d.update(kind="udp", sport=struct.unpack("!H", body[0:2])[0], dport=struct.unpack("!H", body[2:4])[0], seq="-")
        digits = body[12:].split(b" ", 1)[0] if body[8:12] == b"seq=" else b""
        if digits.isdigit():
            d["seq"] = digits.decode()
        return d
    if nh != 58 or n < 4:
        return d
    mtype = body[0]
    d.update(kind="icmp6", type=mtype, len=n)

    def sources(off, count):
        return [text6(body[s:s + 16]) for s in range(off, min(off + 16 * count, n - 15), 16)]

    if mtype in (130, 131, 132) and n >= 24:
        d.update(kind="mld", group=text6(body[8:24]), mrc=struct.unpack("!H", body[4:6])[0], v=1)
        if mtype == 130 and n >= 28:
            nsrc = struct.unpack("!H", body[26:28])[0]
            d.update(v=2, s=(body[24] >> 3) & 1, qrv=body[24] & 7, qqic=body[25], nsrc=nsrc, srcs=sources(28, nsrc))
    elif mtype == 143 and n >= 8:
        d.update(kind="mld", nrec=struct.unpack("!H", body[6:8])[0], recs=[])
        off = 8
        for _ in range(d["nrec"]):
            if off + 20 > n:
                break
            rtype, auxlen, nsrc = struct.unpack("!BBH", body[off:off + 4])
            d["recs"].append((rtype, text6(body[off + 4:off + 20]), nsrc, sources(off + 20, nsrc)))
            off += 20 + 16 * nsrc + 4 * auxlen
    return d


def decode_frame(f):
    """decode() of an Ethernet frame (a packet socket's)."""
    return decode(ipv6_of(LINKTYPE_ETHERNET, f)[0])


def wire_line(us, d):
    t = "%d.%06d" % divmod(us, 1000000)
    if d["kind"] == "other":
        return "%s OTHER src=%s dst=%s nh=%d" % (t, d["src"], d["dst"], d["nh"])
    common = "src=%s dst=%s hlim=%d fl=0x%x" % (d["src"], d["dst"], d["hlim"], d["fl"])
    if d["kind"] == "udp":
        return "%s UDP %s sport=%d dport=%d seq=%s" % (t, common, d["sport"], d["dport"], d["seq"])
    if d["kind"] == "icmp6":
        return "%s ICMP6 %s type=%d len=%d" % (t, common, d["type"], d["len"])
    mld = "type=%d len=%d" % (d["type"], d["len"])
    if d["type"] == 143:
        recs = ["%d/%s/%d" % r[:3] + ("/" + "+".join(r[3]) if r[3] else "") for r in d["recs"]]
        mld += " nrec=%d recs=%s" % (d["nrec"], ",".join(recs) or "-")
    elif d["type"] == 130:
        mld += " mrc=%d group=%s" % (d["mrc"], d["group"])
        if d["v"] == 2:
            mld += " s=%d qrv=%d qqic=%d nsrc=%d srcs=%s" % (d["s"], d["qrv"], d["qqic"], d["nsrc"], ",".join(d["srcs"]) or "-")
        mld += " v=%d" % d["v"]
    else:
        mld += " group=%s" % d["group"]
    return "%s MLD %s ra=%d %s" % (t, common, d["ra"], mld)


def links_line(us, ifindex, outgoing, d):
    head = [str(us), "if%d" % ifindex, "out" if outgoing else "in"]
    if d["kind"] == "udp":
        return " ".join(head + ["udp", d["src"], d["dst"], str(d["dport"])])
    if d["kind"] != "mld":
        return None
    fl, src = str(d["fl"]), d["src"]
    if d["type"] == 143:
        recs = ["%d/%s/%s" % (r[0], r[1], ",".join(r[3])) for r in d["recs"]]
        return " ".join(head + ["report", fl, src, str(len(recs))] + recs)
    if d["type"] == 130:
        return " ".join(head + ["query", fl, src, str(d["mrc"]), d["group"], ",".join(d.get("srcs", []))])
    return " ".join(head + ["v1", str(d["type"]), fl, src, d["group"]])


REC_NAMES = {1: "IS_IN", 2: "IS_EX", 3: "TO_IN", 4: "TO_EX", 5: "ALLOW", 6: "BLOCK"}


def human(line, names):
    """A decoded line in words (for tools/demo.sh); None for lines it does not describe."""
    parts = line.split(" ")
    kind = parts[1]
    kv = dict(p.split("=", 1) for p in parts[2:] if "=" in p)

    def who(address):
        return names.get(address, address)

    if kind == "UDP":
        return "UDP %s -> %s port %s, hop limit %s" % (who(kv["src"]), kv["dst"], kv["dport"], kv["hlim"])
    if kind != "MLD":
        return None
    head = "%s -> %s:" % (who(kv["src"]), who(kv["dst"]))
    wire = ", hop limit %s%s" % (kv["hlim"], ", Router Alert" if kv.get("ra") == "1" else "")
    mtype = kv["type"]
    if mtype == "130":
        form = "v%s" % kv["v"]
        if kv["group"] == "::":
            what = "general query"
        elif kv.get("nsrc", "0") != "0":
            what = "group-and-source-specific query for %s {%s}" % (kv["group"], kv["srcs"].replace(",", " "))
        else:
            what = "group-specific query for %s" % kv["group"]
        extra = ", QRV %s, QQIC %s" % (kv["qrv"], kv["qqic"]) if kv["v"] == "2" else ""
        return "%s %s %s (%s bytes), max response %s ms%s%s" % (head, form, what, kv["len"], kv["mrc"], extra, wire)
    if mtype == "143":
        recs = []
        for rec in kv["recs"].split(","):
            if rec == "-":
                continue
            f = rec.split("/")
            name = REC_NAMES.get(int(f[0]), "type %s" % f[0])
            srcs = f[3].replace("+", " ") if len(f) > 3 else ""
            recs.append("%s %s {%s}" % (name, f[1], srcs))
        return "%s v2 report, %s record(s): %s%s" % (head, kv["nrec"], ", ".join(recs), wire)
    if mtype == "131":
        return "%s v1 report for %s%s" % (head, kv["group"], wire)
    if mtype == "132":
        return "%s v1 done for %s%s" % (head, kv["group"], wire)
    return None


# Printed (with --key) under the first report and the first query shown, for a reader new to MLD.
KEYS = {
    "143": ["key: a report lists records; TO_EX{} (CHANGE_TO_EXCLUDE, no sources excluded) means",
            "     'send me this group from every source', TO_IN{} (CHANGE_TO_INCLUDE, no sources) means",
            "     'I no longer want it', IS_IN / IS_EX state what the sender holds when a query asks,",
            "     ALLOW / BLOCK add or remove single sources"],
    "130": ["key: a query asks who listens; QRV (querier's robustness variable) is how many times",
            "     messages are repeated against loss, QQIC (querier's query interval code) the",
            "     seconds between general queries, max response how long hosts may take to answer"],
}

PCAP_MAGIC = {b"\xd4\xc3\xb2\xa1": ("<", False), b"\xa1\xb2\xc3\xd4": (">", False),
              b"\x4d\x3c\xb2\xa1": ("<", True), b"\xa1\xb2\x3c\x4d": (">", True)}


def pcap_records(path, follow=False, done=lambda: True):
    """(microseconds, link type, frame) of every whole record of a pcap file. With `follow` the
    file is read as it grows, until done() says so and a last look found nothing more."""
    while follow and not os.path.exists(path) and not done():
        time.sleep(0.05)
    buf, head, last_look = b"", None, False
    with open(path, "rb") as f:
        while True:
            chunk = f.read(65536)
            buf += chunk
            if head is None and len(buf) >= 24:
                if buf[:4] not in PCAP_MAGIC:
                    die("%s is not a pcap file (tcpdump -w writes one)" % path)
                endian, nano = PCAP_MAGIC[buf[:4]]
                head = (endian + "IIII", 1000 if nano else 1, struct.unpack(endian + "I", buf[20:24])[0])
                buf = buf[24:]
            pos = 0
            while head is not None and len(buf) - pos >= 16:
                sec, frac, incl, _ = struct.unpack(head[0], buf[pos:pos + 16])
                if len(buf) - pos < 16 + incl:
                    break
                yield sec * 1000000 + frac // head[1], head[2], buf[pos + 16:pos + 16 + incl]
                pos += 16 + incl
            buf = buf[pos:]
            if chunk:
                continue
            if not follow or last_look:
                return
            if done():
                last_look = True  # what was written before the end is decoded too
            else:
                time.sleep(0.05)


def cmd_decode(a):
    stop = Stop()

    def done():
        if stop or a.writer is None:
            return bool(stop)
        try:
            os.kill(a.writer, 0)
        except ProcessLookupError:
            return True
        except PermissionError:
            pass
        return False

    names = dict(n.split("=", 1) for n in a.name)
    out = sys.stdout
    for path in a.files[:1] if a.follow else a.files:
        try:
            for us, linktype, f in pcap_records(path, a.follow, done):
                pkt, ifindex, outgoing = ipv6_of(linktype, f)
                d = decode(pkt)
                if d is None:
                    continue
                if a.links:
                    line = links_line(us, ifindex, outgoing, d)
                else:
                    line = wire_line(us, d)
                    if a.grep and a.grep not in line:
                        continue
                    text = human(line, names) if a.human else line
                    if text is not None and a.t0:
                        cs = int((us / 1e6 - a.t0) * 100)
                        text = "[%3d.%02ds] %s%s" % (cs // 100, cs % 100, a.label, text)
                    elif text is not None:
                        text = a.label + text
                    mtype = d.get("type") if d["kind"] == "mld" else None
                    if text is not None and a.key and str(mtype) in KEYS:
                        text += "".join("\n" + (" " * 11 if a.t0 else "") + a.label + k for k in KEYS.pop(str(mtype)))
                    line = text
                if line is not None:
                    out.write(line + "\n")
                    if a.follow:
                        out.flush()
        except OSError as error:
            print("mldlab.py: %s" % error, file=sys.stderr)
            return 1
    return 0


# ---------------------------------------------------------------------------------------------
# command line


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = p.add_subparsers(dest="cmd", required=True)
    s = sub.add_parser("report")
    s.add_argument("--iface", required=True)
    s.add_argument("--count", type=int, default=1)
    s.add_argument("--interval", type=float, default=0.0)
    s.add_argument("--src")
    s.add_argument("--dst", default=ALL_MLDV2_ROUTERS)
    s.add_argument("--hlim", type=int, default=1)
    s.add_argument("--no-router-alert", action="store_true")
    s.add_argument("--claim", type=int, help="Number of Mcast Address Records to claim, whatever follows")
    s.add_argument("--per-report", type=int, default=0)
    s.add_argument("records", nargs="+", metavar="RECORD")
    s = sub.add_parser("query")
    s.add_argument("--iface", required=True)
    s.add_argument("--mrc", type=int, required=True)
    s.add_argument("--group", default="::")
    s.add_argument("--src")
    s = sub.add_parser("storm")
    s.add_argument("--iface", required=True)
    s.add_argument("--seconds", type=float, required=True)
    s.add_argument("--mix", choices=("random", "bench"), default="random")
    s.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(4), "big"))
    s.add_argument("--frames", type=int, default=8192)
    s.add_argument("--rate", type=int, default=0)
    s = sub.add_parser("send")
    s.add_argument("--iface", required=True)
    s.add_argument("--rate", type=float, default=100.0)
    s.add_argument("--hops", type=int, default=16)
    s.add_argument("--duration", type=float, default=0.0)
    s.add_argument("flows", nargs="+", metavar="FLOW")
    s = sub.add_parser("recv")
    s.add_argument("--iface", required=True, action="append")
    s.add_argument("--group", required=True)
    s.add_argument("--port", type=int, required=True)
    s.add_argument("--source")
    s.add_argument("--block", action="append", metavar="SOURCE")
    s.add_argument("--join-gap", type=float, default=0.0)
    s.add_argument("--leave-first", type=int, default=0)
    s.add_argument("--log")
    s = sub.add_parser("decode")
    s.add_argument("--links", action="store_true", help="a capture of every link (-i any -y LINUX_SLL2): the links format")
    s.add_argument("--follow", action="store_true", help="one file: decode it as it is written")
    s.add_argument("--writer", type=int, help="(with --follow) end once this process is gone")
    s.add_argument("--human", action="store_true", help="MLD messages in words")
    s.add_argument("--key", action="store_true", help="explain the first report and query shown")
    s.add_argument("--grep", default="", help="only decoded lines holding this text")
    s.add_argument("--label", default="", help="text put before each line")
    s.add_argument("--t0", type=float, default=0.0, help="print times as seconds since this epoch time")
    s.add_argument("--name", action="append", default=[], metavar="ADDR=NAME", help="(with --human) call ADDR NAME")
    s.add_argument("files", nargs="+", metavar="FILE")
    a = p.parse_args()
    if a.cmd == "recv" and a.source and a.block:
        p.error("--source (INCLUDE) and --block (EXCLUDE) do not go together")
    cmds = {"report": cmd_report, "query": cmd_query, "storm": cmd_storm, "send": cmd_send, "recv": cmd_recv,
            "decode": cmd_decode}
    return cmds[a.cmd](a)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except BrokenPipeError:
        sys.exit(0)
