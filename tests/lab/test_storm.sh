#!/usr/bin/env bash
# A report storm: h1 sends crafted MLDv2 reports as fast as it can for 30 s (tools/mldlab.py
# storm: valid and malformed mixed — random groups, sources and reporter addresses,
# record and source counts beyond the packet, odd record types, aux data). The daemon must stay
# up, keep its general queries on another link (dn2) on time (QUERY_INTERVAL ± 1 s), keep its
# resident memory (VmRSS, /proc) under 16 MiB, and real hosts' joins afterwards (right after the
# storm, and once the storm's groups have had their membership interval) must still be
# forwarded (real UDP from src, which the bridge sends to up0 whatever the router reported). A
# LAN host must not be able to fill the router's log: the daemon prints each message text at
# most once a second, so its output stays under 100 KB for the whole storm.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

LOG=$T_WORK/daemon.log
STORM_SECONDS=30
QUERY_INTERVAL=4 GMI=9
RSS_LIMIT_KB=16384
MIN_RATE=1000 # reports a second that must reach the router for the storm to count
SEED=${MLD_STORM_SEED:-$((RANDOM * 32768 + RANDOM))}
G=ff0e::5:1 P=5051
SETUP_OK=0 STORM_OK=0 STORM_RAN=0 SAMPLER=''
T_START='' T_END='' RT_DN2='' CPU_END=0

# raw_drops: what each raw ICMPv6 socket of the router (the daemon's: the router socket and one
# per link, every one of them given each report) dropped for want of room, by inode.
raw_drops() { ip netns exec "$(lab_ns "$LAB_RT")" awk 'NR > 1 { printf "%s%s:%s", (NR > 2 ? " " : ""), $(NF - 3), $NF }' /proc/net/raw6; }

# queries_dn2: times of the router's general queries on dn2.
queries_dn2() { mld dn2 | grep " MLD src=$RT_DN2 .* type=130 .* group=:: " | cut -d' ' -f1; }
third_query_seen() { [[ $(queries_dn2 | wc -l) -ge 3 ]]; }
query_after() { [[ -n $(queries_dn2 | awk -v t="$1" '$1 > t') ]]; }

setup() {
  [[ -x $LAB_PYTHON ]] && "$LAB_PYTHON" -c 'import socket' || fail "$LAB_PYTHON cannot run" || return 1
  t_lab_up sources flood || return 1
  RT_DN2=$(lab_ll_addr "$LAB_RT" dn2)
  mld_capture_start dn2 "$LAB_H2" eth0 || fail "no capture on dn2" || return 1
  t_start 40 || return 1
  SETUP_OK=1
}

storm() {
  [[ $SETUP_OK == 1 ]] || fail "the set-up failed" || return 1
  local r0 r1 c0 c1 d0 d1 hz sent took
  # VmRSS of the daemon every 0.2 s, until the end of the test.
  (
    while [[ -r /proc/$LAB_DAEMON_PID/status ]]; do
      awk '/^VmRSS:/ { print $2 }' "/proc/$LAB_DAEMON_PID/status" 2>/dev/null
      sleep 0.2
    done
  ) >"$T_WORK/rss.txt" &
  SAMPLER=$!
  hz=$(getconf CLK_TCK)
  r0=$(lab_counter "$LAB_RT" dn1 Icmp6InMLDv2Reports) c0=$(lab_cpu_ticks "$LAB_DAEMON_PID") d0=$(raw_drops)
  # The storm begins once the start-up queries are over: the third general query on dn2 comes
  # at the steady QUERY_INTERVAL.
  lab_wait_for 30 third_query_seen || fail "fewer than 3 general queries on dn2 within 30 s of the start" || return 1
  say "storm: $STORM_SECONDS s of crafted reports from h1 on dn1 (seed $SEED; MLD_STORM_SEED=$SEED repeats it)"
  lab_mldlab "$LAB_H1" storm --iface eth0 --seconds "$STORM_SECONDS" --seed "$SEED" >"$T_WORK/storm.log" 2>&1 || fail "the storm sender failed: $(tail -c 300 "$T_WORK/storm.log")" || return 1
  T_END=$EPOCHREALTIME
  STORM_RAN=1
  T_START=$(awk '$1 == "START" { print $2 }' "$T_WORK/storm.log")
  [[ -n $T_START ]] || fail "the storm sender did not say when it started: $(head -c 300 "$T_WORK/storm.log")" || return 1
  r1=$(lab_counter "$LAB_RT" dn1 Icmp6InMLDv2Reports) c1=$(lab_cpu_ticks "$LAB_DAEMON_PID") d1=$(raw_drops)
  CPU_END=$c1
  sent=$(sed -nE 's/^SENT ([0-9]+) .*/\1/p' "$T_WORK/storm.log")
  took=$(awk -v a="$T_START" -v b="$T_END" 'BEGIN { printf "%.1f", b - a }')
  say "$(grep '^POOL' "$T_WORK/storm.log")"
  say "h1 sent ${sent:-?} frames ($(sed -nE 's/.*RATE ([0-9]+).*/\1/p' "$T_WORK/storm.log")/s); $((r1 - r0)) reports reached the router's dn1 in $took s ($(awk -v n=$((r1 - r0)) -v t="$took" 'BEGIN { printf "%d", n / t }') reports/s)"
  say "drops of the daemon's raw sockets (inode:count) before the storm [$d0], after [$d1]"
  [[ -n $c1 ]] && say "the daemon used $(((c1 - c0) * 1000 / hz)) ms of CPU during the storm"
  # A daemon that ended has left ff02::16 on its links: its reports stopped arriving.
  t_daemon_alive || fail "the daemon ended during the storm: $(tail -c 300 "$LOG" | tr '\n' ' ')" || return 1
  awk -v n=$((r1 - r0)) -v t="$took" -v m="$MIN_RATE" 'BEGIN { exit !(n / t >= m) }' ||
    fail "only $((r1 - r0)) reports reached the router in $took s (want $MIN_RATE/s): the load was not applied" || return 1
  STORM_OK=1
  t_daemon_alive || fail "the daemon ended during the storm" || return 1
}

need_storm() { [[ $STORM_OK == 1 ]] || fail "the storm did not run"; }

stays_up() {
  [[ $STORM_RAN == 1 ]] || fail "the storm did not run" || return 1
  sleep 2 # a crash while the queued reports are worked off counts too
  t_daemon_alive || fail "the daemon ended after the storm" || return 1
  local crash
  crash=$(grep -a -m 3 -i -e 'sanitizer' -e 'segmentation' -e 'abort' -e 'runtime error' "$LOG")
  [[ -z $crash ]] || fail "the daemon reported: $crash" || return 1
  say "daemon output during the storm: $(wc -c <"$LOG") bytes; distinct lines: $(tr -s '\n' <"$LOG" | sed 's/^ *//' | sort | uniq -c | sort -rn | head -n 6 | awk '{ $1 = $1 "x"; print }' | tr '\n' ';')"
}

log_stays_small() {
  [[ $STORM_RAN == 1 ]] || fail "the storm did not run" || return 1
  local bytes
  bytes=$(wc -c <"$LOG")
  [[ $bytes -lt 100000 ]] || fail "the daemon printed $bytes bytes during the storm (want under 100 KB)" || return 1
  grep -q "more like this in the last second" "$LOG" || fail "no message says how many like it were held back: the storm caused no repeated message, so the check shows nothing" || return 1
}

queries_on_time() {
  need_storm || return 1
  local times gaps bad n
  # The first query after the storm closes the window.
  lab_wait_for 20 query_after "$T_END" || fail "no general query on dn2 within 20 s after the storm; queries at $(queries_dn2 | tr '\n' ' ')" || return 1
  # From the last query before the storm (the start-up queries, a quarter of the query interval
  # apart, are over by then) to the first one after it.
  times=$(queries_dn2 | awk -v a="$T_START" '$1 < a { last = $0; next } { if (last != "") print last; last = ""; print }' |
    awk -v b="$T_END" 'done { next } { print } $1 > b { done = 1 }')
  n=$(wc -l <<<"$times")
  gaps=$(awk 'NR > 1 { printf "%s%.2f", (NR > 2 ? " " : ""), $1 - prev } { prev = $1 }' <<<"$times")
  say "general queries on dn2 around the storm: $n, gaps [$gaps] s"
  bad=$(awk -v q="$QUERY_INTERVAL" 'NR > 1 { d = $1 - prev; if (d < q - 1 || d > q + 1) { printf "%.2f s", d; exit } } { prev = $1 }' <<<"$times")
  [[ -z $bad ]] || fail "a gap of $bad between general queries on dn2 (want $QUERY_INTERVAL ± 1 s): [$gaps]" || return 1
  [[ $n -ge $((STORM_SECONDS / QUERY_INTERVAL + 1)) ]] || fail "only $n general queries on dn2 around the $STORM_SECONDS s storm" || return 1
}

memory() {
  need_storm || return 1
  local peak hwm
  peak=$(sort -n "$T_WORK/rss.txt" | tail -n 1)
  hwm=$(awk '/^VmHWM:/ { print $2 }' "/proc/$LAB_DAEMON_PID/status" 2>/dev/null)
  [[ -n $peak && $(wc -l <"$T_WORK/rss.txt") -ge 50 ]] || fail "too few VmRSS samples ($(wc -l <"$T_WORK/rss.txt"))" || return 1
  say "daemon memory: VmRSS before the storm $(head -n 1 "$T_WORK/rss.txt") kB, peak of $(wc -l <"$T_WORK/rss.txt") samples $peak kB, VmHWM ${hwm:-?} kB (limit $RSS_LIMIT_KB kB)"
  [[ $peak -lt $RSS_LIMIT_KB ]] || fail "VmRSS reached $peak kB (limit $RSS_LIMIT_KB kB)" || return 1
  [[ -z $hwm || $hwm -lt $RSS_LIMIT_KB ]] || fail "VmHWM is $hwm kB (limit $RSS_LIMIT_KB kB)" || return 1
}

# The real host joins right after the storm, while the daemon still works off what the storm
# left behind; whether its datagrams come is looked at after the other checks.
start_join() {
  flow_send_start "$LAB_SRC_ADDR1,$G,$P"
  flow_recv_launch "$LAB_H2" "$G" "$P"
}

join_after_storm() {
  need_storm || return 1
  t_daemon_alive || fail "the daemon is gone" || return 1
  [[ -n ${FLOW_RECV_PID[$LAB_H2/$G]:-} ]] || fail "no receiver was started" || return 1
  local joined first limit=$((GMI + QUERY_INTERVAL + 2))
  flow_recv_joined "$LAB_H2" "$G" || return 1
  joined=$(flow_joined_at "$LAB_H2" "$G")
  say "h2 joined $G $(lab_ms "$T_END" "$joined") ms after the storm ended"
  # Groups the storm left behind may hold the database at its limit until their timers run out
  # (GMI); the host repeats its report in its answers to the general queries.
  if ! lab_wait_for "$(awk -v j="$joined" -v l="$limit" -v now="$EPOCHREALTIME" 'BEGIN { w = j + l - now; printf "%d", (w < 1 ? 1 : w + 0.999) }')" flow_has_received "$LAB_H2" "$G" 10; then
    fail "h2 got no forwarded datagram within $limit s of joining $G after the storm; kernel entry: [$(lab_mfc "$G")]; daemon CPU since the storm $(($(lab_cpu_ticks "$LAB_DAEMON_PID") - CPU_END)) ticks"
    return 1
  fi
  first=$(flow_received "$LAB_H2" "$G" | head -n 1)
  say "join after the storm to first forwarded datagram: $(lab_ms "$joined" "$first") ms"
}

# Once the storm's groups have had their membership interval, h1, the storm's own host, joins
# another group on the storm's link: by then the daemon works off the storm's leftovers (their
# timers run out), and a join must still be forwarded at once.
G2=ff0e::5:2 P2=5052
later_join() {
  need_storm || return 1
  t_daemon_alive || fail "the daemon is gone" || return 1
  local joined first
  lab_sleep_until "$T_END" $((GMI + 4))
  flow_send_start "$LAB_SRC_ADDR1,$G,$P" "$LAB_SRC_ADDR1,$G2,$P2" # the sender of G2 beside G's
  flow_recv_start "$LAB_H1" "$G2" "$P2" || return 1
  joined=$(flow_joined_at "$LAB_H1" "$G2")
  say "h1 joined $G2 $(lab_ms "$T_END" "$joined") ms after the storm ended (daemon CPU since the storm: $(($(lab_cpu_ticks "$LAB_DAEMON_PID") - CPU_END)) ticks of $(getconf CLK_TCK)/s)"
  if ! lab_wait_for 3 flow_has_received "$LAB_H1" "$G2" 10; then
    fail "h1 got no forwarded datagram within 3 s of joining $G2 $(lab_ms "$T_END" "$joined") ms after the storm; kernel entry: [$(lab_mfc "$G2")]; daemon CPU since the storm $(($(lab_cpu_ticks "$LAB_DAEMON_PID") - CPU_END)) ticks"
    return 1
  fi
  first=$(flow_received "$LAB_H1" "$G2" | head -n 1)
  say "join $GMI s after the storm to first forwarded datagram: $(lab_ms "$joined" "$first") ms"
}

check storm_setup setup
check storm_of_crafted_reports_reaches_the_router storm
[[ $STORM_OK == 1 ]] && start_join
check daemon_stays_up_through_the_storm stays_up
check storm_output_stays_under_100KB log_stays_small
check general_queries_on_another_link_stay_on_time queries_on_time
check resident_memory_stays_under_16MiB memory
check real_join_right_after_the_storm_forwards join_after_storm
check real_join_a_membership_interval_after_the_storm_forwards later_join

flow_stop_all

# With the database full of the storm's groups, SIGTERM still ends the daemon cleanly and soon:
# the last timer pass and the release of every link's groups are work on each group once.
stops_cleanly() {
  need_storm || return 1
  t_daemon_alive || fail "the daemon is gone" || return 1
  local start
  start=$(lab_now_us)
  lab_stop_daemon TERM 10 || fail "the daemon did not end within 10 s of SIGTERM" || return 1
  say "the daemon ended $((($(lab_now_us) - start) / 1000)) ms after SIGTERM, status $LAB_DAEMON_STATUS"
  [[ $LAB_DAEMON_STATUS == 0 ]] || fail "exit status $LAB_DAEMON_STATUS (want 0)"
}
check sigterm_after_the_storm_ends_the_daemon_cleanly stops_cleanly
lab_stop "$SAMPLER"
show_file "$LOG" 5 "daemon output"

exit 0
