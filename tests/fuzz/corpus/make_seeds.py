#!/usr/bin/python3
"""Writes the seed inputs of the fuzz targets into fuzz_config/, fuzz_netlink/ and fuzz_receive/ beside this file.

Seeds give libFuzzer well-formed starting points: configuration files as routers use them, and
netlink batches as Linux sends them (host byte order, as the fuzz targets run on the build
machine). Run it again after changing it; the seeds are committed.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))

# Linux rtnetlink constants
NLMSG_ERROR, NLMSG_DONE = 2, 3
RTM_NEWLINK, RTM_DELLINK, RTM_NEWADDR, RTM_DELADDR = 16, 17, 20, 21
IFLA_IFNAME, IFLA_MTU = 3, 4
IFA_ADDRESS, IFA_LOCAL = 1, 2
IFF_UP, IFF_LOOPBACK, IFF_MULTICAST = 0x1, 0x8, 0x1000
AF_INET, AF_INET6 = 2, 10


def pad4(b):
    return b + b"\0" * (-len(b) % 4)


def rta(kind, payload):
    return pad4(struct.pack("=HH", 4 + len(payload), kind) + payload)


def nlmsg(kind, body, seq=1):
    return pad4(struct.pack("=IHHII", 16 + len(body), kind, 0x2, seq, 0) + body)


def link(kind, index, name, flags, mtu=1500):
    body = struct.pack("=BBHiII", 0, 0, 1, index, flags, 0xFFFFFFFF)
    body += rta(IFLA_IFNAME, name.encode() + b"\0") + rta(IFLA_MTU, struct.pack("=I", mtu))
    return nlmsg(kind, body)


def addr(kind, index, address, family=AF_INET6, attr=IFA_ADDRESS):
    body = struct.pack("=BBBBI", family, 64, 0x80, 0xFD, index)
    body += rta(attr, address)
    return nlmsg(kind, body)


def ll(last):
    return bytes([0xFE, 0x80] + [0] * 13 + [last])


GLOBAL = bytes([0x20, 0x01, 0x0D, 0xB8] + [0] * 11 + [1])
DONE = nlmsg(NLMSG_DONE, struct.pack("=i", 0))
MC_UP = IFF_UP | IFF_MULTICAST

# fuzz_netlink input: byte 0 bit 0 = first link dump; byte 1 = where the rest is cut into two
# batches (cut = 2 + (size - 2) * byte1 / 256). Zero bytes after the second batch (ignored by the
# netlink walk) make the cut fall exactly between the two batches.
def netlink_input(first_dump, batch1, batch2):
    for filler in range(256):
        rest = batch1 + batch2 + b"\0" * filler
        for b1 in range(256):
            if len(rest) * b1 // 256 == len(batch1):
                return bytes([1 if first_dump else 0, b1]) + rest
    raise ValueError("no cut byte fits")


NETLINK = {
    # start-up: the link dump, then the address dump
    "dump_links_then_addresses": netlink_input(
        True,
        link(RTM_NEWLINK, 1, "lo", IFF_UP | IFF_LOOPBACK, 65536)
        + link(RTM_NEWLINK, 2, "up0", MC_UP)
        + link(RTM_NEWLINK, 3, "down1", MC_UP)
        + link(RTM_NEWLINK, 4, "down2", MC_UP)
        + DONE,
        addr(RTM_NEWADDR, 2, ll(1)) + addr(RTM_NEWADDR, 3, ll(2), attr=IFA_LOCAL)
        + addr(RTM_NEWADDR, 4, GLOBAL) + addr(RTM_NEWADDR, 4, ll(3))
        + addr(RTM_NEWADDR, 4, b"\x0a\x00\x00\x01", family=AF_INET) + DONE,
    ),
    # a running router: a downstream link appears, gets its address, goes down, is deleted
    "link_appears_and_goes": netlink_input(
        False,
        link(RTM_NEWLINK, 2, "up0", MC_UP) + addr(RTM_NEWADDR, 2, ll(1))
        + link(RTM_NEWLINK, 5, "down3", MC_UP) + addr(RTM_NEWADDR, 5, ll(5)),
        link(RTM_NEWLINK, 5, "down3", IFF_MULTICAST) + addr(RTM_DELADDR, 5, ll(5))
        + link(RTM_DELLINK, 5, "down3", IFF_MULTICAST),
    ),
    # the upstream link goes away and comes back
    "upstream_flaps": netlink_input(
        False,
        link(RTM_NEWLINK, 2, "up0", MC_UP) + addr(RTM_NEWADDR, 2, ll(1))
        + link(RTM_NEWLINK, 3, "down1", MC_UP) + addr(RTM_NEWADDR, 3, ll(2))
        + link(RTM_DELLINK, 2, "up0", MC_UP),
        link(RTM_NEWLINK, 2, "up0", MC_UP) + addr(RTM_NEWADDR, 2, ll(1)),
    ),
    # interface indexes beyond the kernel's 16-bit MIF field, long names, an error message
    "odd_indexes_and_names": netlink_input(
        False,
        link(RTM_NEWLINK, 70000, "down7", MC_UP) + addr(RTM_NEWADDR, 70000, ll(7))
        + link(RTM_NEWLINK, 0x7FFFFFFF, "a-name-longer-than-fifteen", MC_UP)
        + addr(RTM_NEWADDR, 0x7FFFFFFF, ll(8)),
        nlmsg(NLMSG_ERROR, struct.pack("=i", -22) + b"\0" * 16),
    ),
}

CONFIG = {
    "typical": b"UPSTREAM_IFNAME up0\nROBUSTNESS_VARIABLE 2\nQUERY_INTERVAL 125\n"
    b"QUERY_RESPONSE_INTERVAL 10000\nLAST_LISTENER_QUERY_INTERVAL 1\n"
    b"LAST_LISTENER_QUERY_COUNT 2\nVERBOSE 1\n",
    "lab": b"UPSTREAM_IFNAME up0\nQUERY_INTERVAL 4\nQUERY_RESPONSE_INTERVAL 1000\n"
    b"LAST_LISTENER_QUERY_INTERVAL 1\nLAST_LISTENER_QUERY_COUNT 2\nROBUSTNESS_VARIABLE 2\n",
    "only_upstream": b"UPSTREAM_IFNAME eth0.2",
    "robustness_zero": b"UPSTREAM_IFNAME up0\r\nROBUSTNESS_VARIABLE 0\r\n",
    "llqc_three_tokens": b"\tLAST_LISTENER_QUERY_COUNT 3 7\nUPSTREAM_IFNAME\t up0 extra\n",
    "numbers": b"QUERY_INTERVAL 4294967297\nQUERY_RESPONSE_INTERVAL -1\nVERBOSE +12x\n"
    b"ROBUSTNESS_VARIABLE   99999999999999999999\nUPSTREAM_IFNAME abcdefghijklmnopqrstuvwxyz\n",
    "comments_and_unknown": b"# a comment\nUNKNOWN 1\n\nUPSTREAM_IFNAME\nUPSTREAM_IFNAME up1\n",
    "long_line": b"UPSTREAM_IFNAME " + b"x" * 3000 + b"\nVERBOSE 1\n",
}

# fuzz_receive input: chunks of [selector][length, 2 bytes big-endian][bytes]; each chunk is one
# datagram of exactly that length. selector & 3 picks the arrival link (0 upstream, 1 and 2
# downstream) or 3 for a kernel upcall.
GROUP = bytes.fromhex("ff0e0000000000000000000000000123")
SRC1 = bytes.fromhex("20010db8000000000000000000000001")
SRC2 = bytes.fromhex("20010db8000000000000000000000002")


def mld_record(kind, sources):
    return struct.pack("!BBH", kind, 0, len(sources)) + GROUP + b"".join(sources)


def mld_report(records):
    return struct.pack("!BBHHH", 143, 0, 0, 0, len(records)) + b"".join(records)


def chunk(selector, body):
    return struct.pack("!BH", selector, len(body)) + body


V1_REPORT = struct.pack("!BBHHH", 131, 0, 0, 0, 0) + GROUP
V1_DONE = struct.pack("!BBHHH", 132, 0, 0, 0, 0) + GROUP
NOCACHE = bytes([0, 1, 0, 0, 0, 0, 0, 0]) + SRC1 + GROUP

RECEIVE = {
    "toex_then_toin": chunk(1, mld_report([mld_record(4, [])]))
    + chunk(1, mld_report([mld_record(3, [])])),
    "allow_block": chunk(1, mld_report([mld_record(5, [SRC1, SRC2])]))
    + chunk(2, mld_report([mld_record(6, [SRC1])])),
    "isex_isin": chunk(1, mld_report([mld_record(2, [SRC1]), mld_record(1, [SRC2])]))
    + chunk(3, NOCACHE),
    "v1_join_leave": chunk(2, V1_REPORT) + chunk(3, NOCACHE) + chunk(2, V1_DONE),
    # Counts that claim more than arrived: twelve ALLOW records, then a 28-byte report with one
    # TO_EX record whose header claims twelve; a record whose sources, and one whose auxiliary
    # data, run past the end; a query whose source count runs past the end; a cut upcall.
    "overstated_counts": chunk(1, mld_report([mld_record(5, [SRC1])] * 12))
    + chunk(1, struct.pack("!BBHHH", 143, 0, 0, 0, 12) + mld_record(4, []))
    + chunk(2, mld_report([mld_record(5, [SRC1, SRC2])])[:-8])
    + chunk(2, mld_report([struct.pack("!BBH", 5, 2, 1) + GROUP + SRC1 + b"\0\0\0\0"]))
    + chunk(0, struct.pack("!BBHHH", 130, 0, 1000, 0, 0) + GROUP + struct.pack("!BBH", 2, 125, 9) + SRC1)
    + chunk(3, NOCACHE[:39]),
}


def write(target, seeds):
    directory = os.path.join(HERE, target)
    os.makedirs(directory, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(directory, name), "wb") as f:
            f.write(data)


write("fuzz_netlink", NETLINK)
write("fuzz_config", CONFIG)
write("fuzz_receive", RECEIVE)
