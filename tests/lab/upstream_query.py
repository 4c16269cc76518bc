#!/usr/bin/python3
"""Send one MLDv2 general query (RFC 3810 section 5.1) with scapy, as the upstream querier would.

    upstream_query.py --iface br0 --mrc CODE [--group GROUP] [--src ADDRESS]

From ADDRESS (default the interface's link-local address) to ff02::1 (to GROUP for a group-specific query), hop
limit 1, Router Alert. CODE is the Maximum Response Code; an unusual value lets a capture tell
this query from the querier's own. A Linux bridge that is the querier takes a query from its
own address, or a lower one, for another querier's and stops its own queries for the querier
interval (255 s); a source above its address (e.g. fe80::ffff:ffff:ffff:fffe) leaves it the
querier. Prints the time it was handed to the kernel (microseconds
since the epoch).

Run it with /usr/bin/python3 (Debian's scapy lives in the system Python).
"""

import argparse
import socket
import sys
import time

from scapy.all import Ether, conf, sendp
from scapy.arch import in6_getifaddr
from scapy.data import IPV6_ADDR_LINKLOCAL
from scapy.layers.inet6 import ICMPv6MLQuery2, IPv6, IPv6ExtHdrHopByHop, RouterAlert
from scapy.pton_ntop import inet_pton
from scapy.utils6 import in6_getnsmac


def link_local_of(iface):
    for address, scope, name in in6_getifaddr():
        if name == iface and scope == IPV6_ADDR_LINKLOCAL:
            return address
    raise SystemExit("upstream_query.py: %s has no link-local address" % iface)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--iface", required=True)
    parser.add_argument("--mrc", type=int, required=True)
    parser.add_argument("--group", default="::")
    parser.add_argument("--src")
    args = parser.parse_args()
    if not 0 <= args.mrc <= 0x7FFF:
        raise SystemExit("upstream_query.py: --mrc 0..32767 (exact values only)")
    conf.verb = 0
    dst = "ff02::1" if args.group == "::" else args.group
    ip = IPv6(src=args.src or link_local_of(args.iface), dst=dst, hlim=1) / IPv6ExtHdrHopByHop(options=[RouterAlert(value=0)])
    query = ICMPv6MLQuery2(mrd=args.mrc, mladdr=args.group, QRV=2, QQIC=125)
    packet = Ether(dst=in6_getnsmac(inet_pton(socket.AF_INET6, dst))) / ip / query
    sent_us = time.time_ns() // 1000
    sendp(packet, iface=args.iface)
    print(sent_us)
    return 0


if __name__ == "__main__":
    sys.exit(main())
