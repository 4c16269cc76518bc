"""MLD on the wire for the benchmark: Ethernet frames of MLDv2 reports built from raw bytes
(fast enough for bursts of thousands of records), and parsing of captured frames."""

import socket
import struct

IS_IN, IS_EX, TO_IN, TO_EX, ALLOW, BLOCK = 1, 2, 3, 4, 5, 6
ALL_MLDV2_ROUTERS = "ff02::16"
MAC_ALL_MLDV2_ROUTERS = bytes.fromhex("333300000016")
# Hop-by-hop header: next header ICMPv6, Router Alert (MLD), PadN.
HOP_BY_HOP = bytes([58, 0, 5, 2, 0, 0, 1, 0])


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return ~s & 0xFFFF


def icmpv6_frame(mac, src, dst, icmp, dst_mac=MAC_ALL_MLDV2_ROUTERS):
    """An Ethernet frame carrying `icmp` (checksum field zero) from src to dst, hop limit 1,
    Router Alert, with the ICMPv6 checksum filled in."""
    s6 = socket.inet_pton(socket.AF_INET6, src)
    d6 = socket.inet_pton(socket.AF_INET6, dst)
    pseudo = s6 + d6 + struct.pack("!I3xB", len(icmp), 58)
    c = checksum(pseudo + icmp)
    icmp = icmp[:2] + struct.pack("!H", c) + icmp[4:]
    payload = HOP_BY_HOP + icmp
    ip = struct.pack("!IHBB", 6 << 28, len(payload), 0, 1) + s6 + d6
    return dst_mac + mac + struct.pack("!H", 0x86DD) + ip + payload


def record(rtype, group, sources=(), nsrc=None, aux=0):
    srcs = b"".join(socket.inet_pton(socket.AF_INET6, s) for s in sources)
    n = len(sources) if nsrc is None else nsrc
    return struct.pack("!BBH", rtype, aux, n) + socket.inet_pton(socket.AF_INET6, group) + srcs


def report(records, nrec=None):
    n = len(records) if nrec is None else nrec
    return struct.pack("!BBHHH", 143, 0, 0, 0, n) + b"".join(records)


def reports(mac, src, groups, rtype, per_report=70):
    """Frames joining `groups`, `per_report` records each (70 fit a 1500-byte link)."""
    out = []
    for i in range(0, len(groups), per_report):
        recs = [record(rtype, g) for g in groups[i:i + per_report]]
        out.append(icmpv6_frame(mac, src, ALL_MLDV2_ROUTERS, report(recs)))
    return out


def ipv6_of(frame):
    """Header fields and upper-layer payload of an IPv6 frame (hop-by-hop header skipped)."""
    if len(frame) < 54 or frame[12:14] != b"\x86\xdd":
        return None
    ip = frame[14:]
    nh, payload = ip[6], ip[40:]
    if nh == 0 and len(payload) >= 8:
        nh, payload = payload[0], payload[(payload[1] + 1) * 8:]
    flow = struct.unpack("!I", ip[0:4])[0] & 0xFFFFF
    return {"nh": nh, "flow": flow, "payload": payload,
            "src": socket.inet_ntop(socket.AF_INET6, ip[8:24]),
            "dst": socket.inet_ntop(socket.AF_INET6, ip[24:40])}


def report_records(frame, daemon_only=False):
    """(type, group, nsrc) of every record of an MLDv2 report; with daemon_only, only of the
    daemon's reports (they carry a flow label; the router kernel's own reports do not)."""
    ip = ipv6_of(frame)
    if ip is None or ip["nh"] != 58 or (daemon_only and ip["flow"] == 0):
        return []
    p = ip["payload"]
    if len(p) < 8 or p[0] != 143:
        return []
    out, off = [], 8
    for _ in range(struct.unpack("!H", p[6:8])[0]):
        if off + 20 > len(p):
            break
        rtype, aux, nsrc = struct.unpack("!BBH", p[off:off + 4])
        out.append((rtype, socket.inet_ntop(socket.AF_INET6, p[off + 4:off + 20]), nsrc))
        off += 20 + 16 * nsrc + 4 * aux
    return out


def daemon_records(frame):
    return report_records(frame, daemon_only=True)


def report_groups(frame):
    """The groups of every record of any MLDv2 report (a host's own included)."""
    return [g for _, g, _ in report_records(frame)]


def is_general_query(frame):
    ip = ipv6_of(frame)
    if ip is None or ip["nh"] != 58:
        return False
    p = ip["payload"]
    return len(p) >= 24 and p[0] == 130 and p[8:24] == bytes(16)
