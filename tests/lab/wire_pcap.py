#!/usr/bin/python3
"""Decode the IPv6 packets of a pcap file (tcpdump -w) into one text line each.

    wire_pcap.py FILE [FILE ...]
    wire_pcap.py --follow [--human] [--grep TEXT] [--label TEXT] [--t0 EPOCH] [--name ADDR=NAME] FILE

Lines are "TIME KIND key=value ...", TIME in seconds with microseconds, in capture order. The
decoder is written by hand (no scapy) so that any packet, however malformed, gives a line and
never an exception; a capture still being written may end in a partial record, which is ignored.

    TIME UDP src=S dst=D hlim=H fl=0xF sport=P dport=Q seq=N|-
    TIME MLD src=S dst=D hlim=H fl=0xF ra=0|1 type=130 len=L mrc=M group=G s=0|1 qrv=R qqic=Q nsrc=N srcs=A,B|- v=1|2
    TIME MLD ... type=143 len=L nrec=N recs=TYPE/GROUP/NSRC[/SRC+SRC...],...   (records that fit)
    TIME MLD ... type=131|132 len=L group=G
    TIME ICMP6 src=S dst=D hlim=H fl=0xF type=T len=L
    TIME OTHER src=S dst=D nh=N

"ra" tells whether a hop-by-hop header with the Router Alert option (type 5) came first; "fl" is
the IPv6 flow label (the daemon's own messages, from its raw sockets, carry a non-zero one; the
kernel's own MLD reports carry 0). A query's "v" is 1 for the 24-byte MLDv1 form, 2 otherwise.
UDP payloads written by mcast_flow.py start with "seq=N "; "seq" is that N.

--follow prints the packets of one file as tcpdump writes them (until killed); --human puts
MLD messages in words, naming the addresses given with --name (tools/demo.sh).

Run it with /usr/bin/python3.
"""

import argparse
import ipaddress
import struct
import sys
import time

LINKTYPE_ETHERNET = 1
LINKTYPE_RAW = 101
LINKTYPE_LINUX_SLL = 113


def addr(b):
    return str(ipaddress.IPv6Address(bytes(b)))


def decode_mld(icmp):
    """Key=value text for an MLD message (types 130, 131, 132, 143), None for other ICMPv6."""
    mtype = icmp[0]
    n = len(icmp)
    if mtype == 130 and n >= 24:
        mrc = struct.unpack("!H", icmp[4:6])[0]
        fields = ["type=130", "len=%d" % n, "mrc=%d" % mrc, "group=%s" % addr(icmp[8:24])]
        if n >= 28:
            nsrc = struct.unpack("!H", icmp[26:28])[0]
            srcs = []
            for i in range(nsrc):
                off = 28 + 16 * i
                if off + 16 > n:
                    break
                srcs.append(addr(icmp[off : off + 16]))
            fields += [
                "s=%d" % ((icmp[24] >> 3) & 1),
                "qrv=%d" % (icmp[24] & 7),
                "qqic=%d" % icmp[25],
                "nsrc=%d" % nsrc,
                "srcs=%s" % (",".join(srcs) or "-"),
                "v=2",
            ]
        else:
            fields.append("v=1")
        return " ".join(fields)
    if mtype in (131, 132) and n >= 24:
        return "type=%d len=%d group=%s" % (mtype, n, addr(icmp[8:24]))
    if mtype == 143 and n >= 8:
        nrec = struct.unpack("!H", icmp[6:8])[0]
        recs = []
        off = 8
        for _ in range(nrec):
            if off + 20 > n:
                break
            rtype, auxlen, nsrc = struct.unpack("!BBH", icmp[off : off + 4])
            group = addr(icmp[off + 4 : off + 20])
            srcs = []
            for i in range(nsrc):
                s = off + 20 + 16 * i
                if s + 16 > n:
                    break
                srcs.append(addr(icmp[s : s + 16]))
            text = "%d/%s/%d" % (rtype, group, nsrc)
            if srcs:
                text += "/" + "+".join(srcs)
            recs.append(text)
            off += 20 + 16 * nsrc + 4 * auxlen
        return "type=143 len=%d nrec=%d recs=%s" % (n, nrec, ",".join(recs) or "-")
    return None


def decode_ipv6(pkt):
    if len(pkt) < 40 or pkt[0] >> 4 != 6:
        return None
    flow = struct.unpack("!I", pkt[0:4])[0] & 0xFFFFF
    plen = struct.unpack("!H", pkt[4:6])[0]
    nh = pkt[6]
    hlim = pkt[7]
    src, dst = addr(pkt[8:24]), addr(pkt[24:40])
    body = pkt[40 : 40 + plen]
    ra = 0
    first = True
    # Extension headers: hop-by-hop (0), routing (43), destination options (60).
    while nh in (0, 43, 60) and len(body) >= 8:
        hlen = (body[1] + 1) * 8
        if nh == 0 and first:
            opts = body[2:hlen]
            i = 0
            while i < len(opts):
                if opts[i] == 0:  # Pad1
                    i += 1
                    continue
                if i + 1 >= len(opts):
                    break
                if opts[i] == 5:
                    ra = 1
                i += 2 + opts[i + 1]
        first = False
        nh = body[0]
        body = body[hlen:]
    common = "src=%s dst=%s hlim=%d fl=0x%x" % (src, dst, hlim, flow)
    if nh == 17 and len(body) >= 8:
        sport, dport = struct.unpack("!HH", body[0:4])
        payload = body[8:]
        seq = "-"
        if payload.startswith(b"seq="):
            digits = payload[4:].split(b" ", 1)[0]
            if digits.isdigit():
                seq = digits.decode()
        return "UDP %s sport=%d dport=%d seq=%s" % (common, sport, dport, seq)
    if nh == 58 and len(body) >= 4:
        mld = decode_mld(body)
        if mld is not None:
            return "MLD %s ra=%d %s" % (common, ra, mld)
        return "ICMP6 %s type=%d len=%d" % (common, body[0], len(body))
    return "OTHER src=%s dst=%s nh=%d" % (src, dst, nh)


def records(data):
    """(time, packet bytes) of each complete record of a pcap file, and its link type."""
    if len(data) < 24:
        return 0, []
    magic = data[0:4]
    if magic in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1"):
        endian = "<"
    elif magic in (b"\xa1\xb2\xc3\xd4", b"\xa1\xb2\x3c\x4d"):
        endian = ">"
    else:
        raise SystemExit("wire_pcap.py: not a pcap file (tcpdump -w writes one)")
    nano = magic in (b"\x4d\x3c\xb2\xa1", b"\xa1\xb2\x3c\x4d")
    linktype = struct.unpack(endian + "I", data[20:24])[0]
    out = []
    off = 24
    while off + 16 <= len(data):
        sec, frac, incl, _orig = struct.unpack(endian + "IIII", data[off : off + 16])
        if off + 16 + incl > len(data):
            break
        t = sec + frac / (1e9 if nano else 1e6)
        out.append((t, data[off + 16 : off + 16 + incl]))
        off += 16 + incl
    return linktype, out


def ipv6_of(linktype, frame):
    if linktype == LINKTYPE_ETHERNET:
        if len(frame) < 14:
            return None
        etype = struct.unpack("!H", frame[12:14])[0]
        off = 14
        if etype == 0x8100 and len(frame) >= 18:
            etype = struct.unpack("!H", frame[16:18])[0]
            off = 18
        return frame[off:] if etype == 0x86DD else None
    if linktype == LINKTYPE_LINUX_SLL:
        if len(frame) < 16 or struct.unpack("!H", frame[14:16])[0] != 0x86DD:
            return None
        return frame[16:]
    if linktype == LINKTYPE_RAW:
        return frame
    return None


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


def follow(name, args, names):
    """Print the packets of a pcap file as they are written, until killed."""
    offset = 0
    data = b""
    linktype = None
    endian = "<"
    nano = False
    while True:
        try:
            with open(name, "rb") as f:
                f.seek(offset)
                chunk = f.read()
        except OSError:
            chunk = b""
        if chunk:
            data += chunk
            offset += len(chunk)
        if linktype is None and len(data) >= 24:
            magic = data[0:4]
            endian = ">" if magic in (b"\xa1\xb2\xc3\xd4", b"\xa1\xb2\x3c\x4d") else "<"
            nano = magic in (b"\x4d\x3c\xb2\xa1", b"\xa1\xb2\x3c\x4d")
            linktype = struct.unpack(endian + "I", data[20:24])[0]
            data = data[24:]
        while linktype is not None and len(data) >= 16:
            sec, frac, incl, _orig = struct.unpack(endian + "IIII", data[0:16])
            if len(data) < 16 + incl:
                break
            t = sec + frac / (1e9 if nano else 1e6)
            pkt = ipv6_of(linktype, data[16 : 16 + incl])
            data = data[16 + incl :]
            if pkt is None:
                continue
            line = decode_ipv6(pkt)
            if line is None:
                continue
            line = "%.6f %s" % (t, line)
            if args.grep and args.grep not in line:
                continue
            text = human(line, names) if args.human else line
            if text is None:
                continue
            if args.t0:
                cs = int((t - args.t0) * 100)
                text = "[%3d.%02ds] %s%s" % (cs // 100, cs % 100, args.label, text)
            else:
                text = args.label + text
            sys.stdout.write(text + "\n")
            mtype = next((p[5:] for p in line.split(" ") if p.startswith("type=")), None)
            if args.key and mtype in KEYS:
                for k in KEYS.pop(mtype):
                    sys.stdout.write((" " * 11 if args.t0 else "") + args.label + k + "\n")
            sys.stdout.flush()
        time.sleep(0.1)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--follow", action="store_true", help="one file: print packets as they are written, until killed")
    parser.add_argument("--human", action="store_true", help="(with --follow) MLD messages in words")
    parser.add_argument("--grep", default="", help="(with --follow) only decoded lines holding this text")
    parser.add_argument("--label", default="", help="(with --follow) text put before each line")
    parser.add_argument("--t0", type=float, default=0.0, help="(with --follow) print times as seconds since this epoch time")
    parser.add_argument("--name", action="append", default=[], metavar="ADDR=NAME", help="(with --human) call ADDR NAME")
    parser.add_argument("--key", action="store_true", help="(with --follow) explain the first report and query shown")
    parser.add_argument("files", nargs="+", metavar="FILE")
    args = parser.parse_args()
    if args.follow:
        names = dict(n.split("=", 1) for n in args.name)
        follow(args.files[0], args, names)
        return 0
    for name in args.files:
        try:
            with open(name, "rb") as f:
                data = f.read()
        except OSError as error:
            print("wire_pcap.py: %s" % error, file=sys.stderr)
            return 1
        linktype, recs = records(data)
        for t, frame in recs:
            pkt = ipv6_of(linktype, frame)
            if pkt is None:
                continue
            line = decode_ipv6(pkt)
            if line is not None:
                sys.stdout.write("%.6f %s\n" % (t, line))
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except BrokenPipeError:
        sys.exit(0)
