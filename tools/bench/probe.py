#!/usr/bin/python3
"""Measurements for tools/bench.sh: one process with sockets in several lab namespaces, so that
every time is read from the same clock.

    probe.py latency --rt NS --h1 NS --h2 NS --group G --port P --tries N
        Per try: h1 joins G while src sends to it (join to first datagram), h2 joins as a second
        link (late join to first datagram), both leave; then the time from h1's leave to the
        last datagram on h1's link and to the router's first upstream record that changes G to
        INCLUDE. Prints one JSON object.
    probe.py many --rt NS --pid PID --host NS[,NS] --prefix P --count N
        Sends reports joining N groups (P1 .. PN, 70 records a report) from each host at once,
        then waits until every group is in the router's upstream reports and has a (*,G) entry
        forwarding to every reporting link. Prints one JSON object.
    probe.py storm --rt NS --pid PID --h1 NS --h2 NS --seconds S --qi QI
        Runs tools/mldlab.py storm (--mix bench) in h1 for S seconds while watching the router's general queries on
        both links, the daemon's memory and its receive drops. Prints one JSON object.
    probe.py ready --rt NS --links dn1,dn2 --start-file F
        From the time in F (written just before the daemon starts) to every link a MIF and a
        general query on each downstream link, and the start-up query interval seen.
    probe.py hotplug --rt NS --link dn3 --start-file F
        From the time in F (written just before the link is made) to its MIF and first query.
    probe.py churn --rt NS --h1 NS --prefix P [--tries N]
        Joins on h1 while another link's addresses change: join to upstream report, per try.
    probe.py stats --pid PID
        The daemon's CPU ticks, VmRSS and VmHWM, receive drops. Prints one JSON object.

Run it with /usr/bin/python3 as root.
"""

import argparse
import ctypes
import ipaddress
import json
import os
import re
import select
import socket
import struct
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.dirname(HERE))
sys.dont_write_bytecode = True  # no __pycache__ left in the work tree
import mldlab  # noqa: E402
from mldlab import IS_EX, TO_EX, TO_IN, membership  # noqa: E402

CLONE_NEWNET = 0x40000000
ETH_P_ALL = 0x0003
PACKET_OUTGOING = 4
SO_RCVBUFFORCE = 33
SO_TIMESTAMPNS = 35  # also the type of its control message
LIBC = ctypes.CDLL(None, use_errno=True)


def enter(ns):
    """Moves this (single-threaded) process into the named network namespace."""
    fd = os.open("/run/netns/" + ns, os.O_RDONLY)
    try:
        if LIBC.setns(fd, CLONE_NEWNET) != 0:
            raise SystemExit("probe.py: setns %s: %s" % (ns, os.strerror(ctypes.get_errno())))
    finally:
        os.close(fd)


def packet_socket(ns, iface, big=True):
    enter(ns)
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    s.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
    if big:
        s.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
    s.bind((iface, 0))
    s.setblocking(False)
    return s


def receive_stamped(s):
    """One frame with the time the kernel took it (SO_TIMESTAMPNS), not the time it was read:
    a frame read late still says when it passed."""
    data, anc, _, addr = s.recvmsg(65535, 64)
    t = time.time()
    for level, kind, d in anc:
        if level == socket.SOL_SOCKET and kind == SO_TIMESTAMPNS and len(d) >= 16:
            sec, nsec = struct.unpack("@qq", d[:16])
            t = sec + nsec / 1e9
    return t, data, addr


def drain(s):
    """Every frame waiting on a packet socket, as (time, pkttype, bytes)."""
    return [(t, kind, data) for t, kind, data, _ in drain_named(s)]


def udp_to(frame, group):
    d = mldlab.decode_frame(frame)
    return d is not None and d["kind"] == "udp" and d["dst"] == group


def report_records(frame, daemon_only=True):
    """(type, group) of every record of an MLDv2 report; with daemon_only, only of the daemon's
    reports (they carry a flow label; the router kernel's own reports do not)."""
    d = mldlab.decode_frame(frame)
    if d is None or d["kind"] != "mld" or d["type"] != 143 or (daemon_only and d["fl"] == 0):
        return []
    return [r[:2] for r in d["recs"]]


def is_general_query(frame):
    d = mldlab.decode_frame(frame)
    return d is not None and d["kind"] == "mld" and d["type"] == 130 and d["group"] == "::"


def udp_socket(ns, iface, port):
    enter(ns)
    s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("::", port))
    s.setblocking(False)
    return s, socket.if_nametoindex(iface)


def first_datagram(s, timeout):
    deadline = time.time() + timeout
    while time.time() < deadline:
        r, _, _ = select.select([s], [], [], deadline - time.time())
        if r:
            try:
                s.recv(2048)
                return time.time()
            except BlockingIOError:
                continue
    return None


def flush(s):
    while True:
        try:
            s.recv(65535)
        except BlockingIOError:
            return


def watch_leave(wire1, wire2, up, group, t_leave, quiet):
    """After a leave: the last datagram on h1's link, and the first upstream record that
    changes the group to INCLUDE. Ends when both links were quiet for `quiet` seconds."""
    last1 = last2 = t_leave
    to_in = None
    deadline = t_leave + 20
    while time.time() < deadline:
        select.select([wire1, wire2, up], [], [], 0.05)
        for t, _, f in drain(wire1):
            if udp_to(f, group):
                last1 = t
        for t, _, f in drain(wire2):
            if udp_to(f, group):
                last2 = t
        for t, kind, f in drain(up):
            if to_in is None and kind == PACKET_OUTGOING:
                for rtype, g in report_records(f):
                    if g == group and rtype == TO_IN:
                        to_in = t
        now = time.time()
        if to_in is not None and now - max(last1, last2) >= quiet:
            break
    return last1, to_in


def first_upstream_record(frames, group, rtypes):
    """The time of the daemon's first upstream record of one of `rtypes` for `group`."""
    for t, kind, f in frames:
        if kind == PACKET_OUTGOING:
            for rtype, g in report_records(f):
                if g == group and rtype in rtypes:
                    return t
    return None


def wait_upstream_record(up, group, rtypes, timeout):
    deadline = time.time() + timeout
    while time.time() < deadline:
        select.select([up], [], [], 0.01)
        t = first_upstream_record(drain(up), group, rtypes)
        if t is not None:
            return t
    return None


def cmd_latency(a):
    group = str(ipaddress.IPv6Address(a.group))
    r1, if1 = udp_socket(a.h1, "eth0", a.port)
    r2, if2 = udp_socket(a.h2, "eth0", a.port)
    wire1 = packet_socket(a.h1, "eth0")
    wire2 = packet_socket(a.h2, "eth0")
    up = packet_socket(a.rt, "up0")
    res = {"join_ms": [], "join_report_ms": [], "host_report_to_upstream_ms": [], "late_join_ms": [],
           "leave_last_packet_ms": [], "leave_to_in_ms": [], "failures": []}
    for i in range(a.tries):
        flush(r1), flush(r2), drain(wire1), drain(wire2), drain(up)
        t0 = time.time()
        membership(r1, if1, group, True)
        t1 = first_datagram(r1, 5)
        # The report may come after the first datagram (an upstream that still forwards the
        # group from an earlier try): it is waited for, not missed.
        joined = (TO_EX, IS_EX)
        t_rep = first_upstream_record(drain(up), group, joined) or wait_upstream_record(up, group, joined, 2.5)
        t_host = next((t for t, kind, f in drain(wire1)
                       if kind == PACKET_OUTGOING and group in [g for _, g in report_records(f, False)]), None)
        time.sleep(0.2)
        t2 = time.time()
        membership(r2, if2, group, True)
        t3 = first_datagram(r2, 5)
        time.sleep(0.2)
        membership(r2, if2, group, False)
        t_leave = time.time()
        membership(r1, if1, group, False)
        last1, to_in = watch_leave(wire1, wire2, up, group, t_leave, a.quiet)
        if t1 is None or t3 is None or to_in is None:
            res["failures"].append({"try": i, "join": t1 is not None, "late": t3 is not None,
                                    "to_in": to_in is not None})
            continue
        res["join_ms"].append((t1 - t0) * 1000)
        if t_rep is not None:
            res["join_report_ms"].append((t_rep - t0) * 1000)
            if t_host is not None:
                res["host_report_to_upstream_ms"].append((t_rep - t_host) * 1000)
        res["late_join_ms"].append((t3 - t2) * 1000)
        res["leave_last_packet_ms"].append((last1 - t_leave) * 1000)
        res["leave_to_in_ms"].append((to_in - t_leave) * 1000)
    print(json.dumps(res))
    return 0


def mif_indexes(pid):
    """MIF index by link name; `pid` may be "self" for the namespace this process entered."""
    out = {}
    with open("/proc/%s/net/ip6_mr_vif" % pid) as f:
        for line in f.readlines()[1:]:
            fields = line.split()
            out[fields[1]] = int(fields[0])
    return out


def forwarding_groups(pid, groups, mifs):
    """How many of `groups` (full text) have a (*,G) entry forwarding to every MIF of `mifs`."""
    n = 0
    anyaddr = "0000:0000:0000:0000:0000:0000:0000:0000"
    with open("/proc/%d/net/ip6_mr_cache" % pid) as f:
        for line in f:
            fields = line.split()
            if len(fields) < 7 or fields[1] != anyaddr or fields[0] not in groups:
                continue
            oifs = {int(x.split(":")[0]) for x in fields[6:]}
            if mifs <= oifs:
                n += 1
    return n


def raw_drops(pid):
    """Datagrams the kernel dropped because the receive queue of the daemon's router socket
    (its first raw socket, the one MLD is read from) was full."""
    fds = {}
    for fd in os.listdir("/proc/%d/fd" % pid):
        try:
            link = os.readlink("/proc/%d/fd/%s" % (pid, fd))
        except OSError:
            continue
        if link.startswith("socket:["):
            fds[link[8:-1]] = int(fd)
    drops = {}
    with open("/proc/%d/net/raw6" % pid) as f:
        for line in f.readlines()[1:]:
            fields = line.split()
            if fields[9] in fds:
                drops[fds[fields[9]]] = int(fields[-1])
    return drops[min(drops)] if drops else 0


def cmd_many(a):
    hosts = a.host.split(",")
    groups = ["%s%x" % (a.prefix, n) for n in range(1, a.count + 1)]
    want = {str(ipaddress.IPv6Address(g)) for g in groups}
    full = {ipaddress.IPv6Address(g).exploded for g in groups}
    links = None  # looked up while waiting: 1 s after its start a daemon may have no MIF yet
    up = packet_socket(a.rt, "up0")
    senders = []
    for i, ns in enumerate(hosts):
        s = packet_socket(ns, "eth0", big=False)
        src = "fe80::be:%x" % (i + 1)  # the reporting host, as the router records its member
        senders.append((s, mldlab.reports(s.getsockname()[4], src, groups, TO_EX)))
    drops0 = raw_drops(a.pid)
    drain(up)
    t0 = time.time()
    for s, frames in senders:
        for f in frames:
            s.send(f)
    t_sent = time.time()
    seen, n_reports, t_up, t_fwd, fwd = set(), 0, None, None, 0
    next_poll = t0
    while time.time() < t0 + a.timeout and (t_up is None or t_fwd is None):
        select.select([up], [], [], 0.01)
        for t, kind, f in drain(up):
            recs = report_records(f) if kind == PACKET_OUTGOING else []
            n_reports += 1 if recs else 0
            for rtype, g in recs:
                if rtype in (TO_EX, IS_EX) and g in want:
                    seen.add(g)
            if t_up is None and len(seen) == len(want):
                t_up = t
        if links is None:
            mifs = mif_indexes(a.pid)
            if all(l in mifs for l in a.links.split(",")):
                links = {mifs[l] for l in a.links.split(",")}
        if t_fwd is None and links is not None and time.time() >= next_poll:
            fwd = forwarding_groups(a.pid, full, links)
            if fwd == len(full):
                t_fwd = time.time()
            next_poll = time.time() + 0.02
    ms = lambda t: None if t is None else round((t - t0) * 1000, 1)  # noqa: E731
    print(json.dumps({"groups": a.count, "links": len(hosts),
                      "reports_sent": sum(len(f) for _, f in senders),
                      "send_ms": round((t_sent - t0) * 1000, 1), "reported": len(seen),
                      "reported_ms": ms(t_up), "upstream_reports": n_reports, "forwarding": fwd,
                      "forwarding_ms": ms(t_fwd), "receive_drops": raw_drops(a.pid) - drops0}))
    return 0


def queries_on(frames, ifname=None):
    """Times of the router's general queries among captured frames (on `ifname` only, for a
    socket that sees every interface)."""
    return [t for t, kind, f, name in frames
            if kind == PACKET_OUTGOING and (ifname is None or name == ifname) and is_general_query(f)]


def drain_named(s):
    """Every frame waiting on a packet socket, as (time, pkttype, bytes, interface name)."""
    out = []
    while True:
        try:
            t, data, addr = receive_stamped(s)
        except BlockingIOError:
            return out
        out.append((t, addr[2], data, addr[0]))


def all_links_socket(ns):
    enter(ns)
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    s.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 16 << 20)
    s.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
    s.setblocking(False)
    return s


def wait_file_time(path, timeout):
    deadline = time.time() + timeout
    while time.time() < deadline:
        try:
            with open(path) as f:
                return float(f.read())
        except (OSError, ValueError):
            time.sleep(0.005)
    return None


def cmd_ready(a):
    """From the daemon's start (the time bench.sh writes into --start-file just before it starts
    it) to every link a MIF and a general query on every downstream link; and the gap to the
    second general query, the start-up query interval."""
    s = all_links_socket(a.rt)
    print("LISTENING", flush=True)
    t0 = wait_file_time(a.start_file, 30)
    links = a.links.split(",")
    t_mifs, first, second = None, {}, {}
    deadline = time.time() + a.timeout
    while time.time() < deadline and (t_mifs is None or len(second) < len(links)):
        select.select([s], [], [], 0.005)
        for t, kind, f, name in drain_named(s):
            if kind == PACKET_OUTGOING and name in links and is_general_query(f):
                (second if name in first else first).setdefault(name, t)
        if t_mifs is None and set(mif_indexes("self")) >= set(links) | {"up0"}:
            t_mifs = time.time()
    ms = lambda t: None if t is None or t0 is None else round((t - t0) * 1000, 1)  # noqa: E731
    ready = None
    if t_mifs is not None and len(first) == len(links):
        ready = max([t_mifs] + list(first.values()))
    print(json.dumps({"mifs_ms": ms(t_mifs), "first_query_ms": {k: ms(v) for k, v in first.items()},
                      "ready_ms": ms(ready),
                      "startup_query_gap_ms": {k: round((second[k] - first[k]) * 1000, 1)
                                               for k in second if k in first}}))
    return 0


def cmd_hotplug(a):
    """A link added while the daemon runs (bench.sh makes it after writing --start-file): its
    MIF and its first general query."""
    s = all_links_socket(a.rt)
    print("LISTENING", flush=True)
    t0 = wait_file_time(a.start_file, 30)
    t_mif = t_query = None
    deadline = time.time() + a.timeout
    while time.time() < deadline and (t_mif is None or t_query is None):
        select.select([s], [], [], 0.005)
        qs = queries_on(drain_named(s), a.link)
        if t_query is None and qs:
            t_query = qs[0]
        if t_mif is None and a.link in mif_indexes("self"):
            t_mif = time.time()
    ms = lambda t: None if t is None or t0 is None else round((t - t0) * 1000, 1)  # noqa: E731
    print(json.dumps({"mif_ms": ms(t_mif), "first_query_ms": ms(t_query)}))
    return 0


def cmd_churn(a):
    """Joins during address churn on another link (bench.sh adds the addresses): h1 joins a
    fresh group each try; the time to the daemon's upstream report of it."""
    r1, if1 = udp_socket(a.h1, "eth0", a.port)
    up = packet_socket(a.rt, "up0")
    res = {"join_report_ms": [], "failures": 0}
    for i in range(a.tries):
        group = str(ipaddress.IPv6Address(a.prefix + "%x" % (i + 1)))
        drain(up)
        t0 = time.time()
        membership(r1, if1, group, True)
        t = wait_upstream_record(up, group, (TO_EX, IS_EX), 5)
        if t is None:
            res["failures"] += 1
        else:
            res["join_report_ms"].append((t - t0) * 1000)
        time.sleep(a.gap)
    print(json.dumps(res))
    return 0


def proc_stats(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    status = {}
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            k, _, v = line.partition(":")
            status[k] = v.strip()
    kib = lambda k: int(status.get(k, "0 kB").split()[0])  # noqa: E731
    return {"cpu_ticks": int(fields[11]) + int(fields[12]), "hz": os.sysconf("SC_CLK_TCK"),
            "rss_kib": kib("VmRSS"), "hwm_kib": kib("VmHWM"), "receive_drops": raw_drops(pid)}


def cmd_stats(a):
    print(json.dumps(proc_stats(a.pid)))
    return 0


def general_queries(frames):
    return [t for t, kind, f in frames if kind != PACKET_OUTGOING and is_general_query(f)]


def cmd_storm(a):
    q1 = packet_socket(a.h1, "eth0")
    q2 = packet_socket(a.h2, "eth0")
    times = {"dn1": [], "dn2": []}
    before = proc_stats(a.pid)
    sender = subprocess.Popen(["ip", "netns", "exec", a.h1, sys.executable, mldlab.__file__, "storm", "--iface", "eth0",
                               "--mix", "bench", "--seed", "1", "--frames", "4000",
                               "--seconds", str(a.seconds), "--rate", str(a.rate)],
                              stdout=subprocess.PIPE, text=True)
    rss_max, alive = 0, True
    t0 = time.time()
    while sender.poll() is None:
        select.select([q1, q2], [], [], 0.2)
        times["dn1"] += general_queries(drain(q1))
        times["dn2"] += general_queries(drain(q2))
        try:
            rss_max = max(rss_max, proc_stats(a.pid)["rss_kib"])
        except (FileNotFoundError, ProcessLookupError):
            alive = False
    t1 = time.time()
    m = re.search(r"^SENT (\d+) FRAMES .* RATE (\d+)/s ERRORS (\d+)", sender.stdout.read(), re.M)
    n = int(m.group(1)) if m else 0
    sent = {"reports": n, "valid": (n + 1) // 2, "malformed": n // 2, "send_errors": int(m.group(3)),
            "rate": int(m.group(2))} if m else {}
    try:
        after = proc_stats(a.pid)
    except (FileNotFoundError, ProcessLookupError):
        alive, after = False, before
    late = {}
    for link, ts in times.items():
        edges = [t0] + ts + [t1]
        late[link] = round(max(y - x for x, y in zip(edges, edges[1:])) - a.qi, 3)
    dropped = after["receive_drops"] - before["receive_drops"]
    secs = t1 - t0
    print(json.dumps({"seconds": round(secs, 1), "sent": sent, "alive": alive,
                      "receive_drops": dropped,
                      "handled_per_s": round((sent.get("reports", 0) - dropped) / secs),
                      "queries": {k: len(v) for k, v in times.items()},
                      "query_late_s": late, "rss_max_kib": rss_max,
                      "cpu_s": (after["cpu_ticks"] - before["cpu_ticks"]) / after["hz"]}))
    return 0


def load(d, name):
    try:
        with open(os.path.join(d, name + ".json")) as f:
            return json.load(f)
    except (OSError, ValueError):
        return {}


def median_max(values):
    if not values:
        return None, None
    v = sorted(values)
    mid = len(v) // 2
    med = v[mid] if len(v) % 2 else (v[mid - 1] + v[mid]) / 2
    return round(med, 1), round(v[-1], 1)


def verdict(value, limit):
    if value is None:
        return "no"
    return "yes" if value <= limit else "no"


def collect(a):
    """Every figure of a run, with its target where there is one."""
    lat = load(a.dir, "latency")
    rows = []
    for key, what, limit in (("join_ms", "join -> first datagram (ms)", 10),
                             ("join_report_ms", "join -> upstream CHANGE_TO_EXCLUDE (ms)", 5),
                             ("host_report_to_upstream_ms", "host's report -> upstream CHANGE_TO_EXCLUDE (ms)", None),
                             ("late_join_ms", "late join -> first datagram (ms)", 50),
                             ("leave_last_packet_ms", "leave -> last datagram on the link (ms)", None),
                             ("leave_to_in_ms", "leave -> upstream CHANGE_TO_INCLUDE (ms)", None)):
        med, mx = median_max(lat.get(key, []))
        rows.append({"name": key, "what": what, "median": med, "max": mx, "tries": len(lat.get(key, [])),
                     "target": limit and "median <= %d" % limit,
                     "met": verdict(med, limit) if limit else None})
    rd = load(a.dir, "ready")
    gaps = list(rd.get("startup_query_gap_ms", {}).values())
    rows += [
        {"name": "ready_ms", "what": "start -> ready: MIFs, a general query on every link (ms)",
         "value": rd.get("ready_ms"), "detail": "MIFs at %s ms" % rd.get("mifs_ms"), "target": "<= 1500",
         "met": verdict(rd.get("ready_ms"), 1500)},
        {"name": "startup_query_gap_ms", "what": "start-up query interval, QI 8 s (ms)",
         "value": max(gaps) if gaps else None, "detail": "per link %s" % rd.get("startup_query_gap_ms"),
         "target": "2000 +- 50", "met": "yes" if gaps and all(abs(g - 2000) <= 50 for g in gaps) else "no"},
    ]
    hp = load(a.dir, "hotplug")
    rows += [
        {"name": "hotplug_mif_ms", "what": "hot-plugged link -> its MIF (ms)", "value": hp.get("mif_ms"),
         "target": "<= 500", "met": verdict(hp.get("mif_ms"), 500)},
        {"name": "hotplug_query_ms", "what": "hot-plugged link -> its first general query (ms)",
         "value": hp.get("first_query_ms"), "target": "<= 1000", "met": verdict(hp.get("first_query_ms"), 1000)},
    ]
    ch = load(a.dir, "churn")
    med, mx = median_max(ch.get("join_report_ms", []))
    rows.append({"name": "churn_join_report_ms", "what": "join -> upstream report, 20 addresses added 50 ms apart (ms)",
                 "median": med, "max": mx, "tries": len(ch.get("join_report_ms", [])),
                 "target": "max <= 50", "met": verdict(mx, 50)})
    for name, tag in (("many1k", "1,000 groups, 1 link"), ("many10k", "10,000 groups, 2 links"),
                      ("many10k_early", "10,000 groups, 2 links, 1 s after start")):
        m = load(a.dir, name)
        n = m.get("groups", 0)
        ok_up = m.get("reported") == n and n > 0
        rows.append({"name": name + "_reported_ms", "what": tag + ": all reported upstream (ms)",
                     "value": m.get("reported_ms"), "detail": "%s of %s groups, %s reports up, %s receive drops"
                     % (m.get("reported"), n, m.get("upstream_reports"), m.get("receive_drops")),
                     "target": "<= 500" if name == "many10k_early" else "<= 1000",
                     "met": "yes" if ok_up and verdict(m.get("reported_ms"), 500 if name == "many10k_early" else 1000) == "yes" else "no"})
        ok_fwd = m.get("forwarding") == n and n > 0
        rows.append({"name": name + "_forwarding_ms", "what": tag + ": all forwarding (ms)",
                     "value": m.get("forwarding_ms"), "detail": "%s of %s (*,G) entries" % (m.get("forwarding"), n),
                     "target": "all", "met": "yes" if ok_fwd else "no"})
    c0, c1 = load(a.dir, "cpu0"), load(a.dir, "cpu1")
    cpu = None
    if c0 and c1:
        cpu = round(100.0 * (c1["cpu_ticks"] - c0["cpu_ticks"]) / c1["hz"] / a.idle_seconds, 2)
    rows.append({"name": "cpu_idle_10k_percent", "what": "CPU idle, 10,000 groups on 2 links (% of a core)",
                 "value": cpu, "detail": "over %g s" % a.idle_seconds, "target": "< 1",
                 "met": "no" if cpu is None else ("yes" if cpu < 1 else "no")})
    cpu_s = None if cpu is None else round(cpu / 100.0 * 60, 3)
    rows.append({"name": "cpu_idle_10k_s_per_60s", "what": "CPU over 60 s idle, 10,000 groups on 2 links (s)",
                 "value": cpu_s, "detail": "from the row above", "target": "<= 0.05",
                 "met": "no" if cpu_s is None else ("yes" if cpu_s <= 0.05 else "no")})
    for name, f, limit in (("rss_idle_kib", "idle", 2048), ("rss_1k_kib", "rss1k", None),
                           ("rss_10k_kib", "rss10k1", 8192), ("rss_10k_2links_kib", "cpu1", None)):
        v = load(a.dir, f).get("rss_kib")
        rows.append({"name": name, "what": "VmRSS %s (KiB)" % {"idle": "idle, no groups", "rss1k": "1,000 groups",
                                                                 "rss10k1": "10,000 groups, 1 link",
                                                                 "cpu1": "10,000 groups on 2 links"}[f],
                     "value": v, "target": limit and "< %d" % limit,
                     "met": (None if limit is None else ("yes" if v is not None and v < limit else "no"))})
    st, ex = load(a.dir, "storm"), load(a.dir, "storm-exit")
    late = max(st.get("query_late_s", {"-": None}).values(), default=None)
    alive = bool(st.get("alive")) and ex.get("status") == "0"
    rows += [
        {"name": "storm_handled_per_s", "what": "storm: reports handled a second", "value": st.get("handled_per_s"),
         "detail": "sent %s, %s receive drops, daemon CPU %s s" % (st.get("sent", {}).get("reports"),
                                                                  st.get("receive_drops"), st.get("cpu_s"))},
        {"name": "storm_survived", "what": "storm: daemon survived (ran on, exit status 0)", "value": "yes" if alive else "no",
         "target": "yes", "met": "yes" if alive else "no"},
        {"name": "storm_query_late_s", "what": "storm: general queries late by (s)", "value": late,
         "detail": "queries seen %s" % st.get("queries"), "target": "<= 1", "met": verdict(late, 1)},
        {"name": "storm_rss_max_kib", "what": "storm: peak VmRSS (KiB)", "value": st.get("rss_max_kib"),
         "target": "< 8192", "met": "yes" if st.get("rss_max_kib") and st["rss_max_kib"] < 8192 else "no"},
    ]
    return rows


def cmd_table(a):
    rows = collect(a)
    print("%-52s %9s %9s  %-12s %-4s %s" % ("measurement", "median", "max", "target", "met", "notes"))
    for r in rows:
        if "median" in r:
            a1, a2 = r["median"], r["max"]
            note = "%d tries" % r["tries"]
        else:
            a1, a2, note = r.get("value"), "", r.get("detail", "")
        fmt = lambda v: "-" if v is None else str(v)  # noqa: E731
        print("%-52s %9s %9s  %-12s %-4s %s" % (r["what"], fmt(a1), fmt(a2) if a2 != "" else "",
                                                 r.get("target") or "", r.get("met") or "", note))
    result = {"tries": a.tries, "idle_seconds": a.idle_seconds,
              "rows": {r["name"]: {k: v for k, v in r.items() if k != "name"} for r in rows},
              "raw": {n: load(a.dir, n) for n in ("latency", "ready", "hotplug", "churn", "many10k_early",
                                                  "many1k", "many9k", "rss10k1", "many10k", "idle",
                                                  "rss1k", "cpu0",
                                                  "cpu1", "storm", "storm-exit")}}
    with open(a.out, "w") as f:
        json.dump(result, f, indent=1)
    print("figures written to %s" % a.out)
    return 0


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = p.add_subparsers(dest="cmd", required=True)
    s = sub.add_parser("latency")
    for k in ("--rt", "--h1", "--h2", "--group"):
        s.add_argument(k, required=True)
    s.add_argument("--port", type=int, required=True)
    s.add_argument("--tries", type=int, default=20)
    s.add_argument("--quiet", type=float, default=1.5)
    s = sub.add_parser("many")
    for k in ("--rt", "--host", "--links", "--prefix"):
        s.add_argument(k, required=True)
    s.add_argument("--pid", type=int, required=True)
    s.add_argument("--count", type=int, required=True)
    s.add_argument("--timeout", type=float, default=30)
    s = sub.add_parser("storm")
    for k in ("--rt", "--h1", "--h2"):
        s.add_argument(k, required=True)
    s.add_argument("--pid", type=int, required=True)
    s.add_argument("--seconds", type=float, default=30)
    s.add_argument("--qi", type=float, required=True)
    s.add_argument("--rate", type=int, default=20000)
    s = sub.add_parser("table")
    s.add_argument("--dir", required=True)
    s.add_argument("--out", required=True)
    s.add_argument("--tries", type=int, required=True)
    s.add_argument("--idle-seconds", type=float, required=True)
    for name in ("ready", "hotplug"):
        s = sub.add_parser(name)
        s.add_argument("--rt", required=True)
        s.add_argument("--start-file", required=True)
        s.add_argument("--timeout", type=float, default=20)
        s.add_argument("--links" if name == "ready" else "--link", required=True)
    s = sub.add_parser("churn")
    for k in ("--rt", "--h1", "--prefix"):
        s.add_argument(k, required=True)
    s.add_argument("--port", type=int, default=5199)
    s.add_argument("--tries", type=int, default=10)
    s.add_argument("--gap", type=float, default=0.1)
    s = sub.add_parser("stats")
    s.add_argument("--pid", type=int, required=True)
    a = p.parse_args()
    cmds = {"latency": cmd_latency, "many": cmd_many, "storm": cmd_storm, "stats": cmd_stats,
            "table": cmd_table, "ready": cmd_ready, "hotplug": cmd_hotplug, "churn": cmd_churn}
    return cmds[a.cmd](a)


if __name__ == "__main__":
    sys.exit(main())
