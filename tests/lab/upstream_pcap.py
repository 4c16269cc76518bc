#!/usr/bin/python3
"""Decode a capture of the router namespace (tcpdump -i any -y LINUX_SLL2 -w FILE ...) into
one line per MLD message or UDP datagram; each packet is dissected by scapy.

    upstream_pcap.py [--follow [--writer PID]] FILE

With --follow the file is read while tcpdump still writes it: packets are decoded as they
arrive, each line is flushed at once, and the program ends on SIGTERM or SIGINT, or once the
process PID (tcpdump) is gone, after it decoded everything written so far. Without it the file is read to its end (a packet cut short
there is left out).

Lines (times in microseconds since the epoch, the capture's own timestamps):

    T ifINDEX DIR report FLOWLABEL SRC NREC TYPE/GROUP/SRC,SRC TYPE/GROUP/ ...
    T ifINDEX DIR query FLOWLABEL SRC MRC GROUP SRC,SRC
    T ifINDEX DIR v1 TYPE FLOWLABEL SRC GROUP          (MLDv1 report 131 or done 132)
    T ifINDEX DIR udp SRC GROUP PORT

INDEX is the interface index of the cooked header, DIR "out" for packets the namespace sent,
"in" for the others. Record types are numbers (1 MODE_IS_INCLUDE ... 6 BLOCK_OLD_SOURCES); a
record without sources ends in "/". NREC counts the records decoded.

Run it with /usr/bin/python3 (Debian's scapy lives in the system Python).
"""

import argparse
import os
import signal
import struct
import sys
import time

from scapy.all import conf
from scapy.layers.inet import UDP
from scapy.layers.inet6 import (
    ICMPv6MLDMultAddrRec,
    ICMPv6MLDone,
    ICMPv6MLQuery,
    ICMPv6MLQuery2,
    ICMPv6MLReport,
    ICMPv6MLReport2,
    IPv6,
)
from scapy.layers.l2 import CookedLinuxV2

LINKTYPE_LINUX_SLL2 = 276
PACKET_OUTGOING = 4
MAGIC = {
    b"\xd4\xc3\xb2\xa1": ("<", 1000),  # little-endian, microseconds
    b"\xa1\xb2\xc3\xd4": (">", 1000),
    b"\x4d\x3c\xb2\xa1": ("<", 1),  # nanoseconds
    b"\xa1\xb2\x3c\x4d": (">", 1),
}


def flat_records(report):
    """The report's records in order. Scapy 2.5 dissects each record's successor as its
    payload (the record class keeps what follows it), so the chain is walked here."""
    out = []
    for rec in report.records:
        while isinstance(rec, ICMPv6MLDMultAddrRec):
            out.append(rec)
            rec = rec.payload
    return out


def records_text(records):
    return ["%d/%s/%s" % (rec.rtype, rec.dst, ",".join(str(s) for s in rec.sources)) for rec in records]


def describe(pkt):
    ip = pkt.getlayer(IPv6)
    if ip is None:
        return None
    if pkt.haslayer(ICMPv6MLReport2):
        records = flat_records(pkt[ICMPv6MLReport2])
        return ["report", str(ip.fl), ip.src, str(len(records))] + records_text(records)
    if pkt.haslayer(ICMPv6MLQuery2):
        q = pkt[ICMPv6MLQuery2]
        return ["query", str(ip.fl), ip.src, str(q.mrd), q.mladdr, ",".join(str(s) for s in q.sources)]
    if pkt.haslayer(ICMPv6MLQuery):
        q = pkt[ICMPv6MLQuery]
        return ["query", str(ip.fl), ip.src, str(q.mrd), q.mladdr, ""]
    if pkt.haslayer(ICMPv6MLReport):
        return ["v1", "131", str(ip.fl), ip.src, pkt[ICMPv6MLReport].mladdr]
    if pkt.haslayer(ICMPv6MLDone):
        return ["v1", "132", str(ip.fl), ip.src, pkt[ICMPv6MLDone].mladdr]
    if pkt.haslayer(UDP):
        return ["udp", ip.src, ip.dst, str(pkt[UDP].dport)]
    return None


class Reader:
    """Reads pcap records from a file that may still grow."""

    def __init__(self, f):
        self.f = f
        self.buf = b""
        self.endian = None
        self.to_us = 1000

    def _fill(self, n):
        while len(self.buf) < n:
            chunk = self.f.read(65536)
            if not chunk:
                return False
            self.buf += chunk
        return True

    def next(self):
        """(time_us, data) of the next whole record, or None when none is complete yet."""
        if self.endian is None:
            if not self._fill(24):
                return None
            magic = self.buf[:4]
            if magic not in MAGIC:
                raise SystemExit("upstream_pcap.py: not a pcap file")
            self.endian, unit = MAGIC[magic]
            self.to_us = unit
            linktype = struct.unpack(self.endian + "I", self.buf[20:24])[0]
            if linktype != LINKTYPE_LINUX_SLL2:
                raise SystemExit("upstream_pcap.py: link type %d, want LINUX_SLL2 (276)" % linktype)
            self.buf = self.buf[24:]
        if not self._fill(16):
            return None
        sec, frac, caplen, _ = struct.unpack(self.endian + "IIII", self.buf[:16])
        if not self._fill(16 + caplen):
            return None
        data = self.buf[16:16 + caplen]
        self.buf = self.buf[16 + caplen:]
        us = sec * 1000000 + (frac // 1000 if self.to_us == 1 else frac)
        return us, data


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--follow", action="store_true")
    parser.add_argument("--writer", type=int)
    parser.add_argument("file")
    args = parser.parse_args()
    conf.verb = 0
    stop = {"now": False}

    def on_signal(_signum, _frame):
        stop["now"] = True

    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)

    def writer_gone():
        if not args.writer:
            return False
        try:
            os.kill(args.writer, 0)
        except ProcessLookupError:
            return True
        except PermissionError:
            return False
        return False

    out = sys.stdout
    with open(args.file, "rb") as f:
        reader = Reader(f)
        while True:
            record = reader.next()
            if record is None:
                if not args.follow or stop["now"] or writer_gone():
                    # One last look: what was written before the stop request is decoded too.
                    record = reader.next()
                    if record is None:
                        break
                else:
                    time.sleep(0.05)
                    continue
            us, data = record
            try:
                pkt = CookedLinuxV2(data)
                fields = describe(pkt)
            except Exception:  # a packet scapy cannot dissect is not MLD we sent or expect
                continue
            if fields is None:
                continue
            direction = "out" if pkt.pkttype == PACKET_OUTGOING else "in"
            out.write(" ".join([str(us), "if%d" % pkt.ifindex, direction] + fields) + "\n")
            out.flush()
    return 0


if __name__ == "__main__":
    sys.exit(main())
