#!/usr/bin/env bash
# The upstream host side: the daemon reports the merged state of its downstream links on up0
# as one MLDv2 host would (state-change records, each sent robustness = 2 times: the first at
# once, the retransmission an Unsolicited Report Interval, 1 s, later; answers to the upstream
# querier's queries at once), and the snooping
# bridge upstream forwards a group to the router only because of those reports.
#
# The bridge's port toward the router has `mcast_flood off`: traffic for a group reaches up0
# only once the bridge's mdb lists the group on that port, that is, once the daemon reported
# it. What the daemon sends is seen in a capture of the router namespace decoded by tools/mldlab.py
# (the daemon's raw-socket reports carry a non-zero flow label, the router kernel's own MLD
# reports 0); what the bridge learned in `bridge mdb`; what flows in real UDP datagrams counted
# by the listening applications on the hosts and by tcpdump on the bridge side of up0.
#
# Lab configuration: robustness 2, query interval 4 s, query response interval 1 s, last
# listener query interval 1 s and count 2.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

LOG=$T_WORK/daemon.log

G1=ff0e::7531 P1=5001 # h1 joins and leaves it (checks 1, 2)
G2=ff0e::7532 P2=5002 # h2 joins it in check 3 and keeps it while up0 goes and comes back
G4=ff3e::4321 P4=5004 # h1 joins it from the source host's global address only
G7=ff0e::7537 P7=5007 # h1 joins it under VERBOSE 1
MANY=ff0e::a:         # the 1,000 groups ff0e::a:1 .. ff0e::a:3e8
N_MANY=1000
RATE=20 # datagrams a second to each group from the source host

SETUP_OK=0
J1=0 L1=0

# ---------------------------------------------------------------------------------------------
# helpers of this file

# us TIME: seconds since the epoch with six decimals (the receivers' and the UDP captures'
# times) as microseconds (the decoded MLD captures' times).
us() { printf '%s' "${1/./}"; }

# nth_record N TYPE GROUP SOURCES SINCE_US: time of the N-th such record of the daemon (or nothing).
nth_record() {
  up_daemon_reports | up_records "$2" "$3" "$4" | awk -v t="$5" -v n="$1" '$1 >= t && ++i == n { print; exit }'
}

# queries_on IFNAME GROUP SOURCES FROM_US TO_US: number of queries the router sent on IFNAME for
# GROUP (SOURCES "-" for group-specific ones without sources, else the exact list) in the window.
queries_on() {
  up_decode | awk -v i="$1" -v g="$2" -v s="$3" -v a="$4" -v b="$5" '
    $2 == i && $3 == "out" && $4 == "query" && $8 == g && $1 >= a && $1 <= b &&
      ((s == "-" && $9 == "") || $9 == s) { n++ } END { print n + 0 }'
}

# wait_until_us T_US: wait until the clock passed T_US (a bounded wait that gives a record that
# must not come one more tick to show up; it never decides a check by itself).
wait_until_us() {
  local left=$(($1 - $(lab_now_us)))
  [[ $left -gt 0 ]] && sleep "$(awk -v u="$left" 'BEGIN { printf "%.3f", u / 1000000 }')"
  return 0
}

# udp_quiet GROUP SECONDS: no datagram to GROUP reached up0 for SECONDS (the watch ran that long).
udp_quiet() {
  local last
  last=$(us "$(flow_wire up0 "$1" | tail -n 1)")
  [[ -n $last ]] && [[ $(($(lab_now_us) - last)) -ge $(($2 * 1000000)) ]]
}

# marked_query_seen MRC: a general query with that Maximum Response Code reached up0.
marked_query_seen() {
  up_decode | awk -v u="$LAB_UPSTREAM" -v m="$1" '$2 == u && $3 == "in" && $4 == "query" && $7 == m && $8 == "::" { f = 1 } END { exit !f }'
}

# router_general_query_after IFNAME T_US: sets GQ_US to the time of the router's first general
# query on IFNAME at or after T_US; false when there is none yet.
GQ_US=0
router_general_query_after() {
  GQ_US=$(up_decode | awk -v i="$1" -v t="$2" '$2 == i && $3 == "out" && $4 == "query" && $8 == "::" && $1 >= t { print $1; exit }')
  [[ -n $GQ_US ]]
}

# log_lines_above PATTERN N: the daemon's log has more than N lines with PATTERN.
log_lines_above() { [[ $(grep -c -- "$1" "$LOG") -gt $2 ]]; }

# copies_a_second_apart FIRST_US SECOND_US: a retransmission follows its first copy an
# Unsolicited Report Interval (1 s) later, never in the same instant (0.9-1.5 s: a loaded test
# machine may hold the daemon back a little).
copies_a_second_apart() { [[ $(($2 - $1)) -ge 900000 && $(($2 - $1)) -le 1500000 ]]; }

# ---------------------------------------------------------------------------------------------
# checks

# 1. A host joins G1 (MLDv2, any source): the daemon reports CHANGE_TO_EXCLUDE{} for G1 on up0
# twice, a second apart, and no more; the bridge lists G1 on the router's port; G1's
# datagrams reach up0 only after that report and flow on to h1.
join_reported_and_forwarded() {
  t_need_setup || return 1
  up_capture_start "$T_WORK/cap-12.pcap" || fail "cannot capture in the router namespace" || return 1
  flow_wire_start up0 "$LAB_UP" "$LAB_RT_PORT" || fail "cannot watch UDP on up0" || return 1
  flow_recv_start "$LAB_H1" "$G1" "$P1" || fail "the listener on h1 did not start" || return 1
  J1=$(us "$(flow_joined_at "$LAB_H1" "$G1")")
  if ! lab_wait_for 5 up_has_records 2 4 "$G1" - "$J1"; then
    fail "5 s after h1 joined $G1 the daemon sent $(up_count_records 4 "$G1" - "$J1") CHANGE_TO_EXCLUDE{} records for it on up0 (want 2)"
    up_show_reports "$J1"
    return 1
  fi
  local r1 r2 first_up first_host n
  r1=$(nth_record 1 4 "$G1" - "$J1") r2=$(nth_record 2 4 "$G1" - "$J1")
  lab_wait_for 10 up_mdb_has "$G1" ||
    fail "10 s after the report the bridge's mdb has no $G1 on $LAB_RT_PORT: [$(up_mdb | tr '\n' ';')]" || return 1
  lab_wait_for 15 flow_has_received "$LAB_H1" "$G1" 10 ||
    fail "h1 got $(flow_received_count "$LAB_H1" "$G1") datagrams for $G1 in 15 s (want 10 or more)" || return 1
  first_up=$(us "$(flow_wire up0 "$G1" | head -n 1)")
  first_host=$(us "$(flow_received "$LAB_H1" "$G1" | head -n 1)")
  [[ -n $first_up ]] || fail "h1 got datagrams but none was seen on up0" || return 1
  # With flooding off, a datagram on up0 before the report would mean the bridge forwarded G1
  # for some other reason, and the check could not tell that the report made it do so.
  [[ $first_up -ge $r1 ]] ||
    fail "a $G1 datagram reached up0 $(up_ms "$first_up" "$r1") ms before the daemon's report: the bridge floods to $LAB_RT_PORT" || return 1
  copies_a_second_apart "$r1" "$r2" || fail "the two CHANGE_TO_EXCLUDE{} copies are $(up_ms "$r1" "$r2") ms apart (want 1 s)" || return 1
  # A third copy would come a second after the second: give it 3.5 s to show up.
  wait_until_us $((r1 + 3500000))
  n=$(up_count_records 4 "$G1" '*' "$J1")
  [[ $n -eq 2 ]] || { fail "the daemon sent $n CHANGE_TO_EXCLUDE records for $G1 (want robustness = 2)"; up_show_reports "$J1"; return 1; }
  say "road of a join: h1 joined $G1 -> CHANGE_TO_EXCLUDE{} on up0 $(up_ms "$J1" "$r1") ms (copy 2 at $(up_ms "$J1" "$r2") ms)"
  say "road of a join: h1 joined $G1 -> first datagram on up0 $(up_ms "$J1" "$first_up") ms, at h1 $(up_ms "$J1" "$first_host") ms"
  say "mdb: $(up_mdb_line "$G1")"
}

# 2. h1 leaves G1: the router's group-specific queries on dn1 go unanswered, then the daemon
# reports CHANGE_TO_INCLUDE{} for G1 twice; the bridge prunes G1 from the router's port and
# G1's datagrams stop reaching up0.
leave_reported_and_traffic_stops() {
  t_need_setup || return 1
  [[ $J1 -gt 0 && -n ${FLOW_RECV_PID[$LAB_H1/$G1]:-} ]] || fail "h1 never joined $G1 (check 1 failed)" || return 1
  up_mdb_has "$G1" || fail "the bridge does not list $G1 before the leave (check 1 failed)" || return 1
  flow_recv_stop "$LAB_H1" "$G1"
  L1=$(us "$(flow_left_at "$LAB_H1" "$G1")")
  [[ -n $L1 ]] || fail "the listener did not leave" || return 1
  if ! lab_wait_for 10 up_has_records 2 3 "$G1" - "$L1"; then
    fail "10 s after h1 left $G1 the daemon sent $(up_count_records 3 "$G1" - "$L1") CHANGE_TO_INCLUDE{} records for it (want 2)"
    up_show_reports "$L1"
    return 1
  fi
  local c1 c2 nq n last pruned_us wild
  c1=$(nth_record 1 3 "$G1" - "$L1") c2=$(nth_record 2 3 "$G1" - "$L1")
  nq=$(queries_on dn1 "$G1" - "$L1" "$c1")
  [[ $nq -ge 2 ]] ||
    fail "before its CHANGE_TO_INCLUDE{} the router sent $nq group-specific queries for $G1 on dn1 (want 2, the last listener query count)" || return 1
  copies_a_second_apart "$c1" "$c2" || fail "the two CHANGE_TO_INCLUDE{} copies are $(up_ms "$c1" "$c2") ms apart (want 1 s)" || return 1
  lab_wait_for 10 up_mdb_lacks "$G1" ||
    fail "10 s after the CHANGE_TO_INCLUDE{} the bridge still lists $G1: $(up_mdb_line "$G1")" || return 1
  pruned_us=$(lab_now_us)
  lab_wait_for 15 udp_quiet "$G1" 2 ||
    fail "$G1 datagrams still reach up0 15 s after the bridge pruned it (last at $(flow_wire up0 "$G1" | tail -n 1))" || return 1
  wait_until_us $((c1 + 3500000))
  n=$(up_count_records 3 "$G1" '*' "$L1")
  [[ $n -eq 2 ]] || { fail "the daemon sent $n CHANGE_TO_INCLUDE records for $G1 (want 2)"; up_show_reports "$L1"; return 1; }
  n=$(up_count_records 4 "$G1" '*' "$J1")
  [[ $n -eq 2 ]] || fail "$n CHANGE_TO_EXCLUDE records for $G1 between the join and now (want the 2 of the join)" || return 1
  # The daemon's whole-group mark (::) never goes upstream as a source, whatever its timer did.
  wild=$(up_daemon_reports | awk -v t="$L1" '$1 >= t' | tr ' ' '\n' | grep -E "^[1-6]/$G1/(.*,)?::(,|$)" | sort | uniq -c | awk '{ printf "%s%s copies of %s", (NR > 1 ? "; " : ""), $1, $2 }')
  [[ -z $wild ]] || fail "after the leave the daemon reported the unspecified address :: as a source of $G1 upstream: $wild" || return 1
  last=$(us "$(flow_wire up0 "$G1" | tail -n 1)")
  say "road of a leave: h1 left $G1 -> $nq group-specific queries on dn1 -> CHANGE_TO_INCLUDE{} on up0 $(up_ms "$L1" "$c1") ms (copy 2 at $(up_ms "$L1" "$c2") ms)"
  say "road of a leave: h1 left $G1 -> mdb entry gone by $(up_ms "$L1" "$pruned_us") ms -> last datagram on up0 $(up_ms "$L1" "$last") ms"
  up_capture_stop
}

# 3. The upstream querier's general query is answered within a second with current-state
# records: MODE_IS_EXCLUDE{} for G2, which h2 listens to, and nothing EXCLUDE for G1, which
# nobody wants any more. The query is sent by tools/mldlab.py from the bridge (its own periodic
# queries come every 125 s); an unusual Maximum Response Code marks it, and a source address
# above the bridge's keeps the bridge the querier (the last check needs its queries). Any
# query of the bridge's own seen meanwhile must be answered the same way.
query_answered_with_current_state() {
  t_need_setup || return 1
  up_capture_start "$T_WORK/cap-3.pcap" || fail "cannot capture in the router namespace" || return 1
  flow_recv_start "$LAB_H2" "$G2" "$P2" || fail "the listener on h2 did not start" || return 1
  local j2 tq tr answer q n=0 bad settled
  j2=$(us "$(flow_joined_at "$LAB_H2" "$G2")")
  lab_wait_for 5 up_has_records 2 4 "$G2" - "$j2" || fail "no CHANGE_TO_EXCLUDE{} for $G2 after h2 joined it" || return 1
  # The daemon's upstream state holds G2 from its report on; a query before that is answered
  # with the state before (the bridge may happen to ask then), so only later ones count.
  settled=$(nth_record 2 4 "$G2" - "$j2")
  lab_wait_for 10 up_mdb_has "$G2" || fail "the bridge does not list $G2" || return 1
  # The retransmission pass has run once the second copy is out: the next records are answers.
  up_query 1234 >/dev/null ||
    fail "cannot send a query from the bridge: $(tail -n 1 "$T_WORK/query.err")" || return 1
  lab_wait_for 5 marked_query_seen 1234 ||
    fail "the query from the bridge never reached up0" || return 1
  # Every general query on up0 (the marked one and any of the bridge's own) and the daemon's
  # first report after it that carries G2.
  while read -r tq; do
    n=$((n + 1))
    if ! lab_wait_for 3 up_has_records 1 2 "$G2" - "$tq"; then
      fail "no MODE_IS_EXCLUDE{} for $G2 within 3 s of the general query at $tq"
      up_show_reports "$tq"
      return 1
    fi
    answer=$(up_daemon_reports | awk -v t="$tq" -v g="$G2" '$1 >= t && index($0 " ", " 2/" g "/ ") { print; exit }')
    tr=${answer%% *}
    [[ $((tr - tq)) -le 1000000 ]] ||
      fail "the general query at $tq was answered after $(up_ms "$tq" "$tr") ms (want within 1000 ms)" || return 1
    bad=$(tr ' ' '\n' <<<"$answer" | awk -F/ 'NR > 7 && NF == 3 && $1 != 1 && $1 != 2')
    [[ -z $bad ]] || fail "the answer to the query holds state-change records: $bad ($answer)" || return 1
    if grep -q " 2/$G1/ " <<<"$answer "; then
      fail "the answer says MODE_IS_EXCLUDE for $G1, which h1 left: $answer"
      return 1
    fi
    q=$(up_decode | awk -v t="$tq" -v u="$LAB_UPSTREAM" '$1 == t && $2 == u && $4 == "query" { print $7; exit }')
    say "general query (MRC $q) at $tq answered after $(up_ms "$tq" "$tr") ms, records: $(cut -d' ' -f8- <<<"$answer")"
  done < <(up_decode | awk -v u="$LAB_UPSTREAM" -v t="$settled" '$2 == u && $3 == "in" && $4 == "query" && $8 == "::" && $1 > t { print $1 }')
  [[ $n -ge 1 ]] || fail "no general query on up0" || return 1
  up_capture_stop
}

# 4. A source-specific join (MCAST_JOIN_SOURCE_GROUP) of G4 from the source host's address S
# makes the daemon's INCLUDE state gain S: ALLOW_NEW_SOURCES{S} twice, nothing EXCLUDE. The host
# drops it: the router's group-and-source-specific queries for S on dn1 go unanswered, S's timer
# runs out and the daemon reports BLOCK_OLD_SOURCES{S} twice.
source_specific_join_and_leave() {
  t_need_setup || return 1
  local s=$LAB_SRC_ADDR1 j4 l4 a1 a2 b1 b2 nq n
  up_capture_start "$T_WORK/cap-4.pcap" || fail "cannot capture in the router namespace" || return 1
  flow_recv_start "$LAB_H1" "$G4" "$P4" --source "$s" || fail "the source-specific listener on h1 did not start" || return 1
  j4=$(us "$(flow_joined_at "$LAB_H1" "$G4")")
  if ! lab_wait_for 5 up_has_records 2 5 "$G4" "$s" "$j4"; then
    fail "5 s after h1 joined ($s, $G4) the daemon sent $(up_count_records 5 "$G4" "$s" "$j4") ALLOW_NEW_SOURCES{$s} records (want 2)"
    up_show_reports "$j4"
    return 1
  fi
  a1=$(nth_record 1 5 "$G4" "$s" "$j4") a2=$(nth_record 2 5 "$G4" "$s" "$j4")
  copies_a_second_apart "$a1" "$a2" || fail "the two ALLOW copies are $(up_ms "$a1" "$a2") ms apart (want 1 s)" || return 1
  if lab_wait_for 10 flow_has_received "$LAB_H1" "$G4" 1; then
    say "($s, $G4): $(flow_received_count "$LAB_H1" "$G4") datagrams reached h1; mdb: $(up_mdb | awk -v g="$G4" '$2 == g' | tr '\n' ';')"
  else
    say "($s, $G4): no datagram reached h1 within 10 s; mdb: $(up_mdb | awk -v g="$G4" '$2 == g' | tr '\n' ';')"
  fi
  wait_until_us $((a1 + 3500000))
  n=$(up_count_records 5 "$G4" '*' "$j4")
  [[ $n -eq 2 ]] || { fail "$n ALLOW_NEW_SOURCES records for $G4 after the join (want 2)"; up_show_reports "$j4"; return 1; }
  for n in 2 4; do
    [[ $(up_count_records "$n" "$G4" '*' "$j4") -eq 0 ]] ||
      fail "the daemon reported $G4 in EXCLUDE mode (record type $n) for a source-specific join" || { up_show_reports "$j4"; return 1; }
  done
  flow_recv_stop "$LAB_H1" "$G4"
  l4=$(us "$(flow_left_at "$LAB_H1" "$G4")")
  [[ -n $l4 ]] || fail "the listener did not leave" || return 1
  if ! lab_wait_for 10 up_has_records 2 6 "$G4" "$s" "$l4"; then
    fail "10 s after h1 dropped ($s, $G4) the daemon sent $(up_count_records 6 "$G4" "$s" "$l4") BLOCK_OLD_SOURCES{$s} records (want 2)"
    up_show_reports "$l4"
    return 1
  fi
  b1=$(nth_record 1 6 "$G4" "$s" "$l4") b2=$(nth_record 2 6 "$G4" "$s" "$l4")
  nq=$(queries_on dn1 "$G4" "$s" "$l4" "$b1")
  [[ $nq -ge 1 ]] ||
    fail "the daemon blocked $s upstream without asking dn1 first (no query for ($s, $G4) on dn1 in the $(up_ms "$l4" "$b1") ms before)" || return 1
  copies_a_second_apart "$b1" "$b2" || fail "the two BLOCK copies are $(up_ms "$b1" "$b2") ms apart (want 1 s)" || return 1
  wait_until_us $((b1 + 3500000))
  n=$(up_count_records 6 "$G4" '*' "$l4")
  [[ $n -eq 2 ]] || { fail "$n BLOCK_OLD_SOURCES records for $G4 after the leave (want 2)"; up_show_reports "$l4"; return 1; }
  say "road of a source: join -> ALLOW{$s} $(up_ms "$j4" "$a1") ms; leave -> $nq queries for it on dn1 -> BLOCK{$s} $(up_ms "$l4" "$b1") ms"
  up_capture_stop
}

# 5. 1,000 groups joined on dn1 with hand-made reports (50 CHANGE_TO_EXCLUDE{} records each,
# from h1): the daemon reports every one of them twice and the bridge lists all 1,000 on the
# router's port.
MANY_SENT=0
thousand_groups_reach_the_mdb() {
  t_need_setup || return 1
  local t_all n first_in last_in first_out last_out
  up_capture_start "$T_WORK/cap-5.pcap" || fail "cannot capture in the router namespace" || return 1
  lab_send_mld_report "$LAB_H1" --per-report 50 "to_ex:$MANY*$N_MANY" 2>"$T_WORK/many.err" || fail "cannot send the reports: $(tail -n 1 "$T_WORK/many.err")" || return 1
  MANY_SENT=1
  if ! lab_wait_for 60 up_mdb_at_least "$MANY" "$N_MANY"; then
    fail "60 s after the reports the bridge lists $(up_mdb_count_prefix "$MANY") of the $N_MANY groups on $LAB_RT_PORT"
    return 1
  fi
  t_all=$(lab_now_us)
  # The second copies went out in the same ticks as the first ones; give stragglers a second,
  # then let the decoder finish the capture.
  wait_until_us $((t_all + 1500000))
  up_capture_stop
  read -r first_in last_in < <(up_decode | awk '$2 == "dn1" && $3 == "in" && $4 == "report" && $7 == 50 { if (!f) f = $1; l = $1 } END { print (f ? f : 0), (l ? l : 0) }')
  read -r first_out last_out < <(up_daemon_reports | awk -v p="4/$MANY" 'index($8, p) == 1 { if (!f) f = $1; l = $1 } END { print (f ? f : 0), (l ? l : 0) }')
  [[ $first_in -gt 0 ]] || fail "the hand-made reports are not in the capture of dn1" || return 1
  say "$N_MANY groups: 20 reports of 50 records on dn1 within $(up_ms "$first_in" "$last_in") ms;" \
    "the daemon's CHANGE_TO_EXCLUDE{} reports on up0 from $(up_ms "$first_in" "$first_out") to $(up_ms "$first_in" "$last_out") ms;" \
    "all $N_MANY in the bridge's mdb on $LAB_RT_PORT by $(up_ms "$first_in" "$t_all") ms (after the first report)"
  n=$(up_daemon_reports | awk -v p="4/$MANY" '{ for (i = 8; i <= NF; i++) if (index($i, p) == 1) print $i }' |
    sort | uniq -c | awk '{ c[$1]++ } END { for (k in c) printf "%s copies: %d groups; ", k, c[k] }')
  say "CHANGE_TO_EXCLUDE{} records for the $N_MANY groups on up0: $n"
  [[ $n == "2 copies: $N_MANY groups; " ]] ||
    fail "want every one of the $N_MANY groups reported twice; got $n" || return 1
}

# 5b. The same host leaves the 1,000 groups (CHANGE_TO_INCLUDE{} records): after the router's
# queries the daemon reports them left and the bridge empties its mdb of them.
thousand_groups_leave_the_mdb() {
  t_need_setup || return 1
  [[ $MANY_SENT -eq 1 ]] || fail "the groups were never joined (check 5 failed)" || return 1
  local t0
  t0=$(lab_now_us)
  lab_send_mld_report "$LAB_H1" --per-report 50 "to_in:$MANY*$N_MANY" 2>"$T_WORK/many.err" || fail "cannot send the reports: $(tail -n 1 "$T_WORK/many.err")" || return 1
  if ! lab_wait_for 60 up_mdb_at_most "$MANY" 0; then
    fail "60 s after the leaves the bridge still lists $(up_mdb_count_prefix "$MANY") of the groups on $LAB_RT_PORT"
    return 1
  fi
  say "$N_MANY groups left on dn1 -> none left in the bridge's mdb after $(up_ms "$t0" "$(lab_now_us)") ms"
}

# 6. up0 goes away (its veth deleted: a link deletion for the daemon) and a new up0 is made,
# attached to the bridge again. The daemon keeps running and takes up the new link; it reports
# G2, which h2 still listens to, on the new up0 by itself (its host state on that link is new:
# RFC 3810 section 6.1 asks for a state-change report then), and G2 is forwarded again.
#
# The bridge sends a general query on a port the moment it comes up, before the daemon can have
# a socket on the new up0, and its next one 31 s later: a report within 5 s of the new up0
# becoming a MIF is the daemon's own doing. When there is none, the test asks with a general
# query from the bridge, as the querier would at its next turn, so that forwarding over the new
# link is still checked.
T_NEW=0 T_MIF=0
REMADE=0
upstream_relink_survived() {
  t_need_setup || return 1
  [[ -n ${FLOW_RECV_PID[$LAB_H2/$G2]:-} ]] || fail "h2 does not listen to $G2 (check 3 failed)" || return 1
  lab_wait_for 10 flow_has_received "$LAB_H2" "$G2" 5 || fail "h2 gets no $G2 traffic before up0 goes" || return 1
  local n_del
  up_capture_start "$T_WORK/cap-6.pcap" || fail "cannot capture in the router namespace" || return 1
  n_del=$(grep -c 'MRT_DEL_VIF' "$LOG")
  ip -n "$(lab_ns "$LAB_RT")" link del "$LAB_UPSTREAM" || fail "cannot delete up0" || return 1
  # The kernel removes the MIF itself; the daemon's own MRT6_DEL_MIF then fails with this line,
  # which shows that it acted on the deletion.
  lab_wait_for 15 log_lines_above MRT_DEL_VIF "$n_del" ||
    fail "15 s after up0 was deleted the daemon has not acted on it (no MRT_DEL_VIF line); MIFs [$(t_mif_table)]" || return 1
  t_daemon_alive || fail "the daemon ended after up0 was deleted" || return 1
  T_NEW=$(lab_now_us)
  lab_make_upstream up && up_learn_ifnames && lab_wait_ll "$LAB_RT" "$LAB_UPSTREAM" || fail "cannot make a new up0" || return 1
  REMADE=1
  lab_wait_for 30 lab_has_mif "$LAB_UPSTREAM" ||
    fail "30 s after the new up0 appeared it is no MIF; MIFs [$(t_mif_table)]" || return 1
  T_MIF=$(lab_now_us)
  lab_all_links_are_mifs || fail "MIFs [$(t_mif_table)] do not match the links [$(lab_router_links | tr '\n' ' ')]" || return 1
  t_daemon_alive || fail "the daemon ended" || return 1
  say "up0 deleted and made again; the new up0 is MIF $(lab_mif_index "$LAB_UPSTREAM") $(up_ms "$T_NEW" "$T_MIF") ms after it was made"
}

# g2_report_time SINCE_US: time of the daemon's first report on up0 with G2 in EXCLUDE mode
# (MODE_IS_EXCLUDE or CHANGE_TO_EXCLUDE, no sources) at or after SINCE_US, or nothing.
g2_report_time() {
  { up_daemon_reports | up_records 2 "$G2" -; up_daemon_reports | up_records 4 "$G2" -; } |
    awk -v t="$1" '$1 >= t' | sort -n | head -n 1
}

# wait_for_g2_again UNTIL_US: until G2 was reported on the new up0 and h2 got datagrams again,
# or the time is up; sets G2_REPORT_US and G2_TRAFFIC_US (0: not seen).
G2_REPORT_US=0 G2_TRAFFIC_US=0 G2_COUNT_NEW=''
wait_for_g2_again() {
  [[ -n $G2_COUNT_NEW ]] || G2_COUNT_NEW=$(flow_received_count "$LAB_H2" "$G2")
  while true; do
    [[ $G2_REPORT_US -eq 0 ]] && G2_REPORT_US=$(g2_report_time "$T_NEW") && G2_REPORT_US=${G2_REPORT_US:-0}
    if [[ $G2_TRAFFIC_US -eq 0 ]] && flow_has_received "$LAB_H2" "$G2" $((G2_COUNT_NEW + 3)); then
      G2_TRAFFIC_US=$(us "$(flow_received "$LAB_H2" "$G2" | tail -n 1)")
    fi
    [[ $G2_REPORT_US -gt 0 && $G2_TRAFFIC_US -gt 0 ]] && return 0
    [[ $(lab_now_us) -ge $1 ]] && return 1
    sleep 0.2
  done
}

reported_again_on_new_upstream() {
  [[ $REMADE -eq 1 && $T_MIF -gt 0 ]] || fail "no new up0 (the previous check failed)" || return 1
  wait_for_g2_again $((T_MIF + 5000000))
  local q
  q=$(up_decode | awk -v u="$LAB_UPSTREAM" -v t="$T_NEW" '$2 == u && $3 == "in" && $4 == "query" && $1 >= t { printf "+%.1f s ", ($1 - t) / 1000000 }')
  say "queries heard on the new up0 (from its making): ${q:-none}"
  if [[ $G2_REPORT_US -gt 0 ]]; then
    say "the daemon reported $G2 on the new up0 $(up_ms "$T_NEW" "$G2_REPORT_US") ms after the link was made ($(up_ms "$T_MIF" "$G2_REPORT_US") ms after it became a MIF)"
    return 0
  fi
  # Ask as the querier would at its next turn (see above), for the check that follows.
  up_query 2345 >/dev/null || say "cannot send a query from the bridge"
  fail "the daemon sent nothing for $G2 on the new up0 within 5 s of taking it up (MIF at +$(up_ms "$T_NEW" "$T_MIF") ms); it has the state (h2 still listens) but waits to be asked"
  up_show_reports "$T_NEW"
  return 1
}

forwarded_again_after_upstream_returns() {
  [[ $REMADE -eq 1 && $T_MIF -gt 0 ]] || fail "no new up0 (a previous check failed)" || return 1
  wait_for_g2_again $(($(lab_now_us) + 10000000))
  local tq
  tq=$(up_decode | awk -v u="$LAB_UPSTREAM" '$2 == u && $3 == "in" && $4 == "query" && $7 == 2345 { print $1; exit }')
  if [[ -n $tq && $G2_REPORT_US -gt 0 ]]; then
    say "the general query sent from the bridge reached the new up0 $(up_ms "$T_NEW" "$tq") ms after it was made; the daemon answered with $G2 $(up_ms "$tq" "$G2_REPORT_US") ms later"
  fi
  [[ $G2_TRAFFIC_US -gt 0 ]] ||
    fail "no $G2 datagram reached h2 after the new up0 (reported at ${G2_REPORT_US}, mdb: $(up_mdb_line "$G2"))" || return 1
  say "$G2 datagrams reach h2 again $(up_ms "$T_NEW" "$G2_TRAFFIC_US") ms after the new up0 was made"
  t_daemon_alive || fail "the daemon ended" || return 1
  up_capture_stop
}

# 7. VERBOSE 1: around every MLD message it receives the daemon prints the receiving link's
# listener database ("BEFORE HANDLING RCVD MSG", "AFTER HANDLING RCVD MSG"), the join's AFTER
# dump lists the new group; a host-state change prints "Group Host State for Group <addr>".
# The reports heard on dn1 and dn2 are counted in a capture and must match the dumps.
verbose_dumps() {
  [[ $SETUP_OK == 1 ]] || fail "no lab (the set-up failed)" || return 1
  local conf=$T_WORK/mld-verbose.conf vlog=$T_WORK/daemon-verbose.log w0 off j7 summary
  local i pairs dumps heard bad
  # No traffic and no listener left from the checks before: forwarded datagrams count as the
  # router's multicast output, and start-up is over only once that is quiet.
  flow_stop_all
  if t_daemon_alive; then
    lab_stop_daemon TERM 10 || fail "the first daemon did not end on SIGTERM" || return 1
  fi
  lab_write_conf "$conf" VERBOSE=1
  grep -qx 'VERBOSE 1' "$conf" || fail "cannot write a VERBOSE 1 configuration" || return 1
  up_capture_start "$T_WORK/cap-7.pcap" || fail "cannot capture in the router namespace" || return 1
  lab_start_daemon -c "$conf" -l "$vlog" || fail "the daemon did not start with VERBOSE 1" || return 1
  lab_wait_started 40 || fail "the VERBOSE daemon did not finish starting up" || return 1
  # The router was quiet for 2.5 s: nothing is in flight; dumps from here on are counted.
  w0=$(lab_now_us)
  off=$(stat -c %s "$vlog")
  flow_recv_start "$LAB_H1" "$G7" "$P7" || fail "the listener on h1 did not start" || return 1
  j7=$(us "$(flow_joined_at "$LAB_H1" "$G7")")
  lab_wait_for 10 up_mdb_has "$G7" || fail "the bridge does not list $G7 after h1 joined it" || return 1
  # End the window in a quiet moment: 1.5 s after a general query of the router on dn1 (the
  # hosts answer within the 1 s response interval; the next query is 4 s after it), at least
  # 2 s after the join (the host's own repetition of its report).
  lab_wait_for 15 router_general_query_after dn1 $((j7 + 2000000)) ||
    fail "no general query of the router on dn1 after the join" || return 1
  wait_until_us $((GQ_US + 1500000))
  lab_stop_daemon TERM 10 || fail "the VERBOSE daemon did not end on SIGTERM" || return 1
  up_capture_stop
  tail -c +$((off + 1)) "$vlog" >"$T_WORK/verbose-window.log"
  # One line per dump: "B IFNAME HAS_G7" / "A IFNAME HAS_G7" / "H GROUP OLD_MODE NEW_MODE".
  summary=$(awk -v g="$G7" '
    /<=+BEFORE HANDLING RCVD MSG=+>/ { kind = "B"; ifn = "?"; has = 0; next }
    /<=+AFTER HANDLING RCVD MSG=+>/ { kind = "A"; ifn = "?"; has = 0; next }
    kind != "" && $1 == "Interface" { ifn = $2 }
    kind != "" && index($0, " addr " g " ") { has = 1 }
    kind != "" && /^=+$/ { print kind, ifn, has; kind = "" }
    /<-+Group Host State for Group / { h = $0; sub(/.*for Group /, "", h); sub(/-+>.*/, "", h); hs = 1; modes = ""; next }
    hs && $1 == "MODE" { modes = modes " " $2 }
    hs && /^ *<-+> *$/ { print "H", h modes; hs = 0 }' "$T_WORK/verbose-window.log")
  printf '%s\n' "$summary" >"$T_WORK/verbose-summary.txt"
  pairs=$(awk '$1 != "H"' <<<"$summary" | awk '
    $1 == "B" { if (open) bad++; open = 1; ifn = $2; next }
    $1 == "A" { if (!open || $2 != ifn) bad++; else n++; open = 0 }
    END { if (open) bad++; print n + 0, bad + 0 }')
  read -r i bad <<<"$pairs"
  [[ $i -gt 0 ]] || fail "no BEFORE/AFTER HANDLING RCVD MSG dump at all in the window" || { show_file "$T_WORK/verbose-window.log" 20 "VERBOSE output"; return 1; }
  [[ $bad -eq 0 ]] || fail "$bad dumps not paired as BEFORE then AFTER for the same link" || { show_file "$T_WORK/verbose-summary.txt" 30 "dumps"; return 1; }
  # Each report heard on a downstream link has its pair of dumps for that link.
  for i in dn1 dn2; do
    heard=$(up_decode | awk -v t="$w0" -v i="$i" '$1 >= t && $2 == i && $3 == "in" && ($4 == "report" || $4 == "query" || $4 == "v1")' | wc -l)
    dumps=$(awk -v i="$i" '$1 == "B" && $2 == i' <<<"$summary" | wc -l)
    say "$i: $heard MLD messages heard, $dumps BEFORE/AFTER dump pairs"
    [[ $heard -eq $dumps ]] || fail "$i heard $heard MLD messages but the daemon printed $dumps dump pairs for it" || return 1
  done
  grep -q "^B dn1 0$" <<<"$summary" && grep -q "^A dn1 1$" <<<"$summary" ||
    fail "no AFTER HANDLING RCVD MSG dump of dn1 listing $G7 (a group line with addr $G7)" || { show_file "$T_WORK/verbose-summary.txt" 30 "dumps"; return 1; }
  awk -v g="$G7" '$1 == "B" || $1 == "A" { if (prev_b && $1 == "A" && $3 == 1) found = 1; prev_b = ($1 == "B" && $3 == 0) } END { exit !found }' <<<"$summary" ||
    fail "no received message whose BEFORE dump lacks $G7 and whose AFTER dump lists it (the join)" || return 1
  grep -q "^H $G7 0 1$" <<<"$summary" ||
    fail "no 'Group Host State for Group $G7' dump with old mode 0 and new mode 1; host-state dumps: $(grep '^H' <<<"$summary" | tr '\n' ';')" || return 1
  say "VERBOSE: $(grep -c '^B' <<<"$summary") dump pairs, host-state dumps: $(grep '^H' <<<"$summary" | tr '\n' ';')"
}

# ---------------------------------------------------------------------------------------------
# set-up and the run

setup() {
  t_lab_up sources snoop && t_start 40 || return 1
  flow_send_start --rate "$RATE" --hops 8 "$LAB_SRC_ADDR1,$G1,$P1" "$LAB_SRC_ADDR1,$G2,$P2" "$LAB_SRC_ADDR1,$G4,$P4" "$LAB_SRC_ADDR1,$G7,$P7"
  SETUP_OK=1
}

START_US=$(lab_now_us)
T_REASON=
if setup; then
  say "lab up, daemon started, the source sends $RATE datagrams/s to $G1 $G2 $G4 $G7 ($(elapsed_ms "$START_US") ms)"
else
  say "set-up failed: $T_REASON"
  show_file "$LOG" 20 "daemon output"
fi
check join_reported_upstream_as_change_to_exclude_and_forwarded join_reported_and_forwarded
check leave_reported_as_change_to_include_and_traffic_stops leave_reported_and_traffic_stops
check upstream_query_answered_within_1s_with_current_state query_answered_with_current_state
check source_specific_join_and_leave_reported_as_allow_and_block source_specific_join_and_leave
check thousand_downstream_groups_reach_the_bridge_mdb thousand_groups_reach_the_mdb
check thousand_downstream_groups_leave_the_bridge_mdb thousand_groups_leave_the_mdb
check daemon_takes_up_a_recreated_upstream_link upstream_relink_survived
check groups_reported_again_on_recreated_upstream reported_again_on_new_upstream
check traffic_forwarded_again_after_upstream_returns forwarded_again_after_upstream_returns
up_capture_stop
check verbose_dumps_around_messages_and_host_state_changes verbose_dumps

t_end "$LOG"
say "lab time: $(elapsed_ms "$START_US") ms"
exit 0
