#!/usr/bin/python3
"""Send hand-made MLDv2 reports (RFC 3810 section 5.2) from one interface, with scapy.

    mld_report.py --iface eth0 [--count N] [--interval SECONDS] [--src ADDR] [--dst ADDR]
                  [--hlim N] [--no-router-alert] [--claim N] RECORD...

RECORD is TYPE:GROUP or TYPE:GROUP/SOURCE[,SOURCE...], TYPE a number 1-6 or one of
is_in, is_ex, to_in, to_ex, allow, block. All records go into one report. By default the
report is sent once from the interface's link-local address to ff02::16 with hop limit 1 and
the hop-by-hop Router Alert option, as RFC 3810 section 5 requires of a host. --claim puts N
in the Number of Mcast Address Records field whatever the report holds.

Run it with /usr/bin/python3 (Debian's scapy lives in the system Python).
"""

import argparse
import socket
import sys

from scapy.all import Ether, conf, sendp
from scapy.layers.inet6 import (
    ICMPv6MLDMultAddrRec,
    ICMPv6MLReport2,
    IPv6,
    IPv6ExtHdrHopByHop,
    RouterAlert,
)
from scapy.arch import in6_getifaddr
from scapy.data import IPV6_ADDR_LINKLOCAL
from scapy.utils6 import in6_getnsmac
from scapy.pton_ntop import inet_pton

RECORD_TYPES = {"is_in": 1, "is_ex": 2, "to_in": 3, "to_ex": 4, "allow": 5, "block": 6}


def parse_record(text):
    parts = text.split(":", 1)
    if len(parts) != 2:
        raise ValueError("record %r: want TYPE:GROUP[/SOURCE,...]" % text)
    rtype_text, rest = parts
    rtype = RECORD_TYPES.get(rtype_text)
    if rtype is None:
        rtype = int(rtype_text)
    # Addresses contain ':' themselves, so the sources follow the group after a '/'.
    if "/" in rest:
        group, sources_text = rest.split("/", 1)
        sources = [s for s in sources_text.split(",") if s]
    else:
        group, sources = rest, []
    for address in [group] + sources:
        inet_pton(socket.AF_INET6, address)  # raises on a malformed address
    return ICMPv6MLDMultAddrRec(rtype=rtype, dst=group, sources=sources)


def link_local_of(iface):
    for address, scope, name in in6_getifaddr():
        if name == iface and scope == IPV6_ADDR_LINKLOCAL:
            return address
    raise SystemExit("mld_report.py: %s has no link-local address" % iface)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--iface", required=True)
    parser.add_argument("--count", type=int, default=1)
    parser.add_argument("--interval", type=float, default=0.0)
    parser.add_argument("--src")
    parser.add_argument("--dst", default="ff02::16")
    parser.add_argument("--hlim", type=int, default=1)
    parser.add_argument("--no-router-alert", action="store_true")
    parser.add_argument("--claim", type=int, help="Number of Mcast Address Records to claim, whatever follows")
    parser.add_argument("records", nargs="+", metavar="RECORD")
    args = parser.parse_args()

    conf.verb = 0
    records = [parse_record(r) for r in args.records]
    src = args.src or link_local_of(args.iface)
    ip = IPv6(src=src, dst=args.dst, hlim=args.hlim)
    if not args.no_router_alert:
        ip = ip / IPv6ExtHdrHopByHop(options=[RouterAlert(value=0)])
    report = ICMPv6MLReport2(records=records)
    if args.claim is not None:
        report.records_number = args.claim
    packet = Ether(dst=in6_getnsmac(inet_pton(socket.AF_INET6, args.dst))) / ip / report
    sendp(packet, iface=args.iface, count=args.count, inter=args.interval)
    return 0


if __name__ == "__main__":
    sys.exit(main())
