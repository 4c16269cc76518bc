#!/usr/bin/python3
"""Send hand-made MLDv2 reports for many groups at once, with scapy, as a busy host link would.

    upstream_many.py --iface eth0 --prefix PREFIX --count N [--per-report K] [--type TYPE]

Groups are PREFIX followed by 1 .. N in hexadecimal as the last 16-bit field (PREFIX like
"ff0e::a:", giving ff0e::a:1 ... ff0e::a:3e8 for N = 1000). Each report carries up to K records
(default 50) of TYPE (default to_ex: CHANGE_TO_EXCLUDE with no sources; also to_in, is_ex,
is_in), from the interface's link-local address to ff02::16, hop limit 1, Router Alert, as
RFC 3810 section 5 asks of a host. All reports go out in one burst.

Run it with /usr/bin/python3 (Debian's scapy lives in the system Python).
"""

import argparse
import socket
import sys

from scapy.all import Ether, conf, sendp
from scapy.arch import in6_getifaddr
from scapy.data import IPV6_ADDR_LINKLOCAL
from scapy.layers.inet6 import (
    ICMPv6MLDMultAddrRec,
    ICMPv6MLReport2,
    IPv6,
    IPv6ExtHdrHopByHop,
    RouterAlert,
)
from scapy.pton_ntop import inet_pton
from scapy.utils6 import in6_getnsmac

RECORD_TYPES = {"is_in": 1, "is_ex": 2, "to_in": 3, "to_ex": 4}


def link_local_of(iface):
    for address, scope, name in in6_getifaddr():
        if name == iface and scope == IPV6_ADDR_LINKLOCAL:
            return address
    raise SystemExit("upstream_many.py: %s has no link-local address" % iface)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--iface", required=True)
    parser.add_argument("--prefix", required=True)
    parser.add_argument("--count", type=int, required=True)
    parser.add_argument("--per-report", type=int, default=50)
    parser.add_argument("--type", default="to_ex", choices=sorted(RECORD_TYPES))
    args = parser.parse_args()
    if not 1 <= args.count <= 0xFFFF or not 1 <= args.per_report <= 70:
        raise SystemExit("upstream_many.py: --count 1..65535, --per-report 1..70 (1500-byte links)")

    conf.verb = 0
    groups = ["%s%x" % (args.prefix, n) for n in range(1, args.count + 1)]
    for g in groups:
        inet_pton(socket.AF_INET6, g)
    src = link_local_of(args.iface)
    rtype = RECORD_TYPES[args.type]
    dst = "ff02::16"
    ether = Ether(dst=in6_getnsmac(inet_pton(socket.AF_INET6, dst)))
    packets = []
    for i in range(0, len(groups), args.per_report):
        records = [ICMPv6MLDMultAddrRec(rtype=rtype, dst=g) for g in groups[i:i + args.per_report]]
        ip = IPv6(src=src, dst=dst, hlim=1) / IPv6ExtHdrHopByHop(options=[RouterAlert(value=0)])
        packets.append(ether / ip / ICMPv6MLReport2(records=records))
    sendp(packets, iface=args.iface)
    print("%d groups in %d reports" % (len(groups), len(packets)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
