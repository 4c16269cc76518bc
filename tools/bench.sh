#!/usr/bin/env bash
# Speed and scale of the real daemon in the lab (tools/lab.sh), as root:
#
#   bash tools/bench.sh            prints a table and writes the same figures to bench-results.json
#
# The upstream is a snooping bridge whose port toward the router floods nothing (mcast_flood off,
# as an ISP's access switch behaves): traffic reaches the router only once the bridge heard the
# router's report, so the upstream report is part of every latency.
#
# What it measures (each latency over MLD_BENCH_TRIES tries, median and maximum):
#   - start to ready (every link a MIF, a general query on every downstream link) and the
#     start-up query interval (query interval 8 s: 2 s); a link hot-plugged while the daemon
#     runs to its MIF and its first general query; a join while 20 addresses are added to
#     another link 50 ms apart to the upstream report;
#   - a host joins a group while src sends it 100 datagrams a second: join to first datagram and
#     to the upstream CHANGE_TO_EXCLUDE;
#     a second link joins while the traffic flows: late join to first datagram; both leave:
#     leave to the last datagram on the link, leave to the router's upstream CHANGE_TO_INCLUDE;
#   - 10,000 groups joined on two links at once 1 s after the daemon started, 1,000 groups
#     joined on one link and 10,000 groups joined on two links at once (crafted
#     MLDv2 reports, 70 records each): time from the first report until every group is in the
#     router's upstream reports (a capture of up0) and until every group has a (*,G) entry
#     forwarding to every reporting link (/proc/net/ip6_mr_cache), and the receive drops;
#   - the daemon's CPU time (user + system, /proc/PID/stat) over MLD_BENCH_IDLE_SECONDS idle
#     with those 10,000 groups on two links, and its resident memory (VmRSS) idle, at 1,000
#     and at 10,000 groups on one link (9,000 more joined after the 1,000), and at 10,000 on two;
#   - a storm of valid and malformed reports from one link for MLD_BENCH_STORM_SECONDS at
#     MLD_BENCH_STORM_RATE a second: reports handled a second (sent minus the socket's drops),
#     whether the daemon lived through it, how late the general queries came, peak memory.
#
# Daemon settings: robustness 2, query interval 125 s, query response interval 10 s, last
# listener query interval 1 s and count 2 (so a leave takes 2-3 s by design); the storm runs
# with a query interval of 5 s so that several general queries fall into it.
#
# Environment: MLD_DAEMON (default build/mldproxyd, built when missing), MLD_BENCH_OUT
# (bench-results.json), MLD_BENCH_TRIES (20), MLD_BENCH_IDLE_SECONDS (60),
# MLD_BENCH_STORM_SECONDS (30), MLD_BENCH_STORM_RATE (20000).

set -u
export LC_ALL=C
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT" || exit 1

OUT=${MLD_BENCH_OUT:-$ROOT/bench-results.json}
TRIES=${MLD_BENCH_TRIES:-20}
IDLE_SECONDS=${MLD_BENCH_IDLE_SECONDS:-60}
STORM_SECONDS=${MLD_BENCH_STORM_SECONDS:-30}
STORM_RATE=${MLD_BENCH_STORM_RATE:-20000}
STORM_QI=5
export MLD_LAB_PREFIX=mldbench-$$-
export MLD_LAB_STATE=/run/mldlab/bench-$$
# shellcheck source=tools/lab.sh
. "$ROOT/tools/lab.sh"

WORK=$(mktemp -d /tmp/mldbench.XXXXXX) || exit 1
LAB_WORK=$WORK

say() { printf 'bench: %s\n' "$*" >&2; }

cleanup() {
  flow_stop_all
  lab_down >/dev/null 2>&1
  rm -rf -- "$LAB_STATE" "$WORK"
}
trap cleanup EXIT

need() {
  if [[ $(id -u) -ne 0 ]]; then
    echo "tools/bench.sh needs root (network namespaces, MRT6)" >&2
    exit 1
  fi
  local tool
  for tool in ip tcpdump "$LAB_PYTHON"; do
    command -v "$tool" >/dev/null || { echo "tools/bench.sh needs $tool (bash tools/test.sh packages)" >&2; exit 1; }
  done
  if [[ -z ${MLD_DAEMON:-} && ! -x build/mldproxyd ]]; then
    say "building build/mldproxyd"
    cmake -S . -B build -DCMAKE_BUILD_TYPE=MinSizeRel -DMLD_TESTS=OFF >/dev/null &&
      cmake --build build -j"${MLD_JOBS:-2}" >/dev/null || exit 1
  fi
}

start_daemon() { # QUERY_INTERVAL [nowait]
  [[ -n $LAB_DAEMON_PID ]] && stop_daemon
  lab_write_conf "$WORK/mld.conf" QUERY_INTERVAL="$1" QUERY_RESPONSE_INTERVAL=10000
  lab_start_daemon -c "$WORK/mld.conf" -l "$WORK/daemon-$1-$RANDOM.log" || { say "the daemon did not start"; exit 1; }
  [[ ${2:-} == nowait ]] || lab_wait_started 60 || { say "the daemon did not start"; exit 1; }
}

# The upstream bridge sends the router only what the router's reports asked for. Its mdb takes
# the 20,000 groups of the runs below: at Linux's default of 4,096 entries a bridge turns
# snooping off, and with flooding off the router would then get nothing at all.
snoop_upstream() {
  lab_snoop_upstream && ip -n "$(ns "$LAB_UP")" link set br0 type bridge mcast_hash_max 65536
}

bench_startup() {
  say "start-up (query interval 8 s), a hot-plugged link, joins during address churn"
  lab_with_probe ready "$WORK/ready.json" --links dn1,dn2 -- start_daemon 8 nowait
  lab_with_probe hotplug "$WORK/hotplug.json" --link dn3 -- lab_add_downstream dn3 h3
  lab_joins_during_churn "$WORK/churn.json"
  stop_daemon
}

stop_daemon() {
  lab_stop_daemon TERM 10 || say "the daemon did not stop on SIGTERM"
  LAB_DAEMON_PID=''
}

ns() { lab_ns "$1"; }

# Latency rows: src sends 100 datagrams a second to one group throughout.
bench_latency() {
  local group=ff0e::b:1 port=5101
  flow_send_start "$LAB_SRC_ADDR1,$group,$port"
  sleep 1
  say "latency: $TRIES tries of join, late join and leave"
  lab_probe latency --rt "$(ns "$LAB_RT")" --h1 "$(ns "$LAB_H1")" --h2 "$(ns "$LAB_H2")" \
    --group "$group" --port "$port" --tries "$TRIES" >"$WORK/latency.json"
  flow_send_stop
}

# many COUNT HOSTS LINKS PREFIX FILE: COUNT groups joined at once on the links.
bench_many() {
  say "$1 groups joined at once on $3"
  lab_probe many --rt "$(ns "$LAB_RT")" --pid "$LAB_DAEMON_PID" --host "$2" --links "$3" \
    --prefix "$4" --count "$1" >"$5"
}

stats() { lab_probe stats --pid "$LAB_DAEMON_PID" >"$1"; }

main() {
  need
  say "lab up (namespaces $MLD_LAB_PREFIX*), daemon $LAB_DAEMON"
  lab_up && lab_add_source_addrs && snoop_upstream || { say "the lab could not be built"; exit 1; }

  bench_startup

  start_daemon 125
  stats "$WORK/idle.json"
  bench_latency

  start_daemon 125 nowait
  sleep 1
  bench_many 10000 "$(ns "$LAB_H1"),$(ns "$LAB_H2")" dn1,dn2 ff0e::f: "$WORK/many10k_early.json"

  start_daemon 125
  bench_many 1000 "$(ns "$LAB_H1")" dn1 ff0e::a: "$WORK/many1k.json"
  sleep 3
  stats "$WORK/rss1k.json"
  bench_many 9000 "$(ns "$LAB_H1")" dn1 ff0e::d: "$WORK/many9k.json"
  sleep 3
  stats "$WORK/rss10k1.json"

  start_daemon 125
  bench_many 10000 "$(ns "$LAB_H1"),$(ns "$LAB_H2")" dn1,dn2 ff0e::c: "$WORK/many10k.json"
  sleep 5 # the upstream retransmissions are over
  stats "$WORK/cpu0.json"
  say "idle for ${IDLE_SECONDS}s with 10,000 groups on 2 links"
  sleep "$IDLE_SECONDS"
  stats "$WORK/cpu1.json"

  start_daemon "$STORM_QI"
  sleep "$STORM_QI"
  say "storm for ${STORM_SECONDS}s"
  lab_probe storm --rt "$(ns "$LAB_RT")" --pid "$LAB_DAEMON_PID" --h1 "$(ns "$LAB_H1")" \
    --h2 "$(ns "$LAB_H2")" --seconds "$STORM_SECONDS" --qi "$STORM_QI" --rate "$STORM_RATE" \
    >"$WORK/storm.json"
  stop_daemon
  echo "{\"status\": \"${LAB_DAEMON_STATUS:-none}\"}" >"$WORK/storm-exit.json"

  lab_probe table --dir "$WORK" --out "$OUT" --tries "$TRIES" --idle-seconds "$IDLE_SECONDS"
}

main "$@"
