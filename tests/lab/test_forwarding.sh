#!/usr/bin/env bash
# Forwarding with real hosts and real traffic: src sends UDP multicast (hop limit 16, 100
# datagrams a second per flow) from two global addresses, and the bridge sends all of it to the
# router's upstream link (lab_flood_upstream: what the router reports upstream does not matter
# here, and a link without listeners is shown to get nothing while the traffic reaches up0); hosts join and leave with their own
# kernels (MLDv2, MLDv1, source-specific) and count what their sockets receive; tcpdump on every
# downstream link (host side) and on the bridge side of up0 shows what each link really gets,
# including the links that must get nothing; /proc/net/ip6_mr_cache shows the kernel's entries.
#
#   src ── br0 ── up0 [rt] dn1 ── h1, h1b (a macvlan host on the same link)
#                          dn2 ── h2
#                          dn3 ── h3 (force_mld_version=1: an MLDv1 host)
#                         (dn4 ── h4, added after dn3 is deleted)
#
# Lab timers: QUERY_INTERVAL 4, QUERY_RESPONSE_INTERVAL 1000 ms, LAST_LISTENER_QUERY_INTERVAL 1,
# LAST_LISTENER_QUERY_COUNT 2, ROBUSTNESS_VARIABLE 2: GMI 9 s, last listener query time 2 s.
# The router's membership timers tick once a second, so a leave stops a link after 1-2 ticks (and a
# retransmitted leave report of the host restarts that time): the link must go on receiving for
# at least 0.9 s after the leave and stop within 4 s.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

LOG=$T_WORK/daemon.log
GMI=9
S1=$LAB_SRC_ADDR1 S2=$LAB_SRC_ADDR2
G1=ff0e::1:101 P1=5001 # any-source: h1, h2
G2=ff0e::1:102 P2=5002 # two hosts on dn1
G3=ff0e::1:103 P3=5003 # the MLDv1 host
G4=ff3e::1:104 P4=5004 # source-specific
G5=ff0e::1:105 P5=5005 # a link deleted under a listener
LINKS=(dn1 dn2 dn3)
declare -A HOST_OF=([dn1]=$LAB_H1 [dn2]=$LAB_H2 [dn3]=h3) RT_LL=() HOST_LL=()
SETUP_OK=0 FREED_MIF=''
TIMINGS=()

# ---------------------------------------------------------------------------------------------
# helpers

# times_stats A B: of the times on standard input within (A, B]: "COUNT FIRST LAST MAXGAP",
# MAXGAP the longest time without one, A and B included as edges (COUNT 0: "0 - - B-A").
times_stats() {
  awk -v a="$1" -v b="$2" '
    $1 > a && $1 <= b { n++; if (n == 1) first = $1; if ($1 - prev > gap && n > 1) gap = $1 - prev; prev = $1 }
    END {
      if (n == 0) { printf "0 - - %.3f\n", b - a; exit }
      if (first - a > gap) gap = first - a
      if (b - prev > gap) gap = b - prev
      printf "%d %.6f %.6f %.3f\n", n, first, prev, gap
    }'
}

# within A B LOW HIGH: B - A lies in [LOW, HIGH] seconds.
within() { awk -v a="$1" -v b="$2" -v lo="$3" -v hi="$4" 'BEGIN { d = b - a; exit !(d >= lo && d <= hi) }'; }

# left_at HOST GROUP: when the receiver closed its socket (the time of the leave), else now.
left_at() {
  local t
  t=$(flow_left_at "$1" "$2")
  printf '%s' "${t:-$EPOCHREALTIME}"
}

# flowing GROUP SOURCE N: at least N packets of the flow reached the router's upstream link.
flowing() { [[ $(flow_wire up0 "$1" "$2" | wc -l) -ge $3 ]]; }

# mfc_is GROUP ORIGIN OIF_LINKS...: the kernel entry has parent up0 and exactly these output
# links (no links: no entry, or one that forwards to no downstream link).
mfc_is() {
  local group=$1 origin=$2 entry want iif
  shift 2
  entry=$(lab_mfc "$group" "$origin")
  if [[ $# -eq 0 ]]; then
    [[ -z $entry ]] && return 0
    [[ $(lab_mfc_oifs "$group" "$origin") == "$(lab_mif_set up0)" || -z $(lab_mfc_oifs "$group" "$origin") ]]
    return
  fi
  want=$(lab_mif_set "$@") || return 1
  iif=${entry%% *}
  [[ $iif == "$(lab_mif_index up0)" && $(lab_mfc_oifs "$group" "$origin") == "$want" ]]
}

# forwards_to_no_link GROUP: no kernel entry of the group has a downstream link among its outputs.
forwards_to_no_link() {
  local up
  up=$(lab_mif_index up0)
  ! lab_mfc_group "$1" | awk -v up="$up" '{ for (i = 3; i <= NF; i++) if ($i != up) found = 1 } END { exit !found }'
}

# stopped LINK GROUP QUIET: no packet of GROUP on LINK for QUIET seconds (and some before).
stopped() {
  local last
  last=$(flow_wire "$1" "$2" | tail -n 1)
  [[ -n $last ]] && ! within "$last" "$EPOCHREALTIME" 0 "$3"
}

# has_report_for LINK HOST_LL GROUP: a report of the host with a record for GROUP on LINK.
has_report_for() { mld "$1" | grep " src=$2 " | grep " type=143 " | grep -qF "/$3/"; }

has_v1_report() { mld "$1" | grep " src=$2 " | grep -q " type=131 .* group=$3$"; }

# queries_for LINK GROUP: the router's queries for GROUP on LINK.
queries_for() { mld "$1" | grep " src=${RT_LL[$1]} " | grep " type=130 " | grep " group=$2 "; }

# check_specific_queries LINK GROUP HOST_LL RECORD V: a leave report of HOST_LL (decoded record
# RECORD, e.g. "3/G/0", or type=132 for an MLDv1 Done) is answered by the group-specific query
# Q(G) (to G, group G, no sources, MRC 1000, hop limit 1, Router Alert; V 2: 28 bytes, V 1: the
# 24-byte MLDv1 form) at once and once more at the next tick (LAST_LISTENER_QUERY_COUNT 2).
# Sets LEAVE_AT (first leave report) and RETX_GAP.
check_specific_queries() {
  local link=$1 group=$2 host_ll=$3 record=$4 v=$5 leaves gq events verdict line t r len
  len=$([[ $v == 2 ]] && echo 28 || echo 24)
  if [[ $record == type=132 ]]; then
    leaves=$(mld "$link" | grep " src=$host_ll " | grep " type=132 .* group=$group$" | cut -d' ' -f1)
  else
    leaves=$(mld "$link" | grep " src=$host_ll " | grep " type=143 " | grep -E "recs=([^ ]*,)?$record(,| |$)" | cut -d' ' -f1)
  fi
  [[ -n $leaves ]] || fail "no leave report of $host_ll for $group on $link" || return 1
  LEAVE_AT=$(head -n 1 <<<"$leaves")
  gq=$(queries_for "$link" "$group" | grep " dst=$group " | grep -E " nsrc=0 | v=1$")
  [[ -n $gq ]] || fail "no group-specific query for $group on $link after the leave at $LEAVE_AT" || return 1
  while read -r line; do
    [[ $(field mrc <<<"$line") == 1000 && $(field hlim <<<"$line") == 1 && $(field ra <<<"$line") == 1 &&
      $(field len <<<"$line") == "$len" ]] ||
      fail "group-specific query on $link not MRC 1000 / hop limit 1 / Router Alert / $len bytes: $line" || return 1
  done <<<"$gq"
  # Query events: each query, on either kind of link. (An any-source listener's leave is
  # confirmed by the group-specific query alone: :: is never queried as a source.)
  events=$(cut -d' ' -f1 <<<"$gq")
  # A leave report is answered at once, and the answer is retransmitted once, at the next tick
  # (within 1.2 s). A host's repeated leave that arrives while that retransmission is still due
  # starts nothing new (RFC 3810 section 7.6.3.2); one that comes after it starts a new pair.
  verdict=$({
    for r in $leaves; do echo "R $r"; done
    for t in $events; do echo "Q $t"; done
  } | sort -k2,2n | awk '
    $1 == "R" { nr++; rep[nr] = $2; next }
    { nq++; q[nq] = $2 }
    END {
      due = -1  # while a retransmission is due: the time its answer left
      used = 0
      for (i = 1; i <= nr; i++) {
        if (due >= 0 && rep[i] - due <= 1.2) {
          for (j = used + 1; j <= nq; j++) if (q[j] >= rep[i] && q[j] - rep[i] <= 0.2) {
            printf "FAIL the repeated leave report at %s got a query of its own at %s", rep[i], q[j]; exit
          }
          continue
        }
        a = 0
        for (j = used + 1; j <= nq; j++) if (q[j] >= rep[i] && q[j] - rep[i] <= 0.2) { a = j; break }
        if (!a) { printf "FAIL the leave report at %s got no group-specific query within 0.2 s", rep[i]; exit }
        if (a + 1 > nq || q[a + 1] - q[a] > 1.2) { printf "FAIL no retransmission within 1.2 s of the answer at %s", q[a]; exit }
        gap = q[a + 1] - q[a]
        due = q[a]
        used = a + 1
      }
      if (used != nq) { printf "FAIL %d group-specific queries where the leaves asked for %d", nq, used; exit }
      printf "OK %d", gap * 1000
    }')
  [[ $verdict == OK* ]] || fail "$link: ${verdict#FAIL }; leave reports at $(tr '\n' ' ' <<<"$leaves")queries at $(tr '\n' ' ' <<<"$events")" || return 1
  RETX_GAP=${verdict#OK }
  say "$link: $(wc -w <<<"$leaves") leave report(s) of the host, $(wc -l <<<"$gq") group-specific queries for $group; the retransmission ${RETX_GAP} ms after its answer"
  say "  decoded: $(head -n 1 <<<"$gq")"
  line=$(queries_for "$link" "$group" | grep -v " nsrc=0 " | grep -v " v=1" | head -n 1)
  [[ -n $line ]] && say "  also a group-and-source-specific query: $line"
  return 0
}

# ---------------------------------------------------------------------------------------------
# set-up

setup() {
  t_lab_up sources flood || return 1
  lab_add_downstream dn3 h3 || fail "could not add dn3 and h3" || return 1
  lab_add_lan "$LAB_H1" h1b eth0 || fail "could not add h1b on dn1" || return 1
  lab_exec h3 sysctl -qw net.ipv6.conf.eth0.force_mld_version=1 || fail "cannot make h3 an MLDv1 host" || return 1
  local link
  for link in "${LINKS[@]}" up0; do RT_LL[$link]=$(lab_ll_addr "$LAB_RT" "$link"); done
  for link in "${LINKS[@]}"; do HOST_LL[$link]=$(lab_ll_addr "${HOST_OF[$link]}" eth0); done
  HOST_LL[h1b]=$(lab_ll_addr h1b eth0)
  for link in "${LINKS[@]}"; do
    mld_capture_start "$link" "${HOST_OF[$link]}" eth0 || fail "no capture on $link" || return 1
    flow_wire_start "$link" "${HOST_OF[$link]}" eth0 || fail "no capture on $link" || return 1
  done
  flow_wire_start up0 "$LAB_UP" "$LAB_RT_PORT" || fail "no capture on the bridge side of up0" || return 1
  t_start 40 || return 1
  say "MIFs: $(t_mif_table); h1 ${HOST_LL[dn1]} and h1b ${HOST_LL[h1b]} on dn1, h2 ${HOST_LL[dn2]}, h3 ${HOST_LL[dn3]} (MLDv1)"
  SETUP_OK=1
}

# ---------------------------------------------------------------------------------------------
# checks

any_source_join() {
  t_need_setup || return 1
  flow_send_start "$S1,$G1,$P1" "$S2,$G1,$P1"
  flow_wait_more up0 "$G1" 100 "$S1" "$S2" || return 1
  local t0 link stats first
  t0=$EPOCHREALTIME
  for link in "${LINKS[@]}"; do
    [[ $(flow_wire_count "$link" "$G1" '' 0) -eq 0 ]] || fail "$link got $G1 before anybody joined" || return 1
  done
  flow_recv_start "$LAB_H1" "$G1" "$P1" || return 1
  lab_wait_for 5 flow_has_received "$LAB_H1" "$G1" 20 "$S1" && lab_wait_for 3 flow_has_received "$LAB_H1" "$G1" 20 "$S2" ||
    fail "h1 received $(flow_received_count "$LAB_H1" "$G1" "$S1") datagrams from $S1 and $(flow_received_count "$LAB_H1" "$G1" "$S2") from $S2 after joining $G1" || return 1
  first=$(flow_received "$LAB_H1" "$G1" | head -n 1)
  TIMINGS+=("join to first forwarded packet (h1, $G1): $(lab_ms "$(flow_joined_at "$LAB_H1" "$G1")" "$first") ms")
  say "h1 joined $G1; first datagram $(lab_ms "$(flow_joined_at "$LAB_H1" "$G1")" "$first") ms later; from both sources: $(flow_received_count "$LAB_H1" "$G1" "$S1") / $(flow_received_count "$LAB_H1" "$G1" "$S2")"
  within "$(flow_joined_at "$LAB_H1" "$G1")" "$first" 0 1 || fail "h1's first datagram came $(lab_ms "$(flow_joined_at "$LAB_H1" "$G1")" "$first") ms after the join (want under 1 s)" || return 1
  for link in dn2 dn3; do
    stats=$(flow_wire "$link" "$G1" | times_stats 0 "$EPOCHREALTIME")
    [[ ${stats%% *} -eq 0 ]] || fail "$link (no listener) got ${stats%% *} packets of $G1" || return 1
  done
  [[ $(flow_wire_count dn1 "$G1" '' 0) -gt 0 ]] || fail "the dn1 capture saw no packet of $G1 although h1's socket got some" || return 1
  say "kernel entry (*,$G1): Iif and Oifs $(lab_mfc "$G1"); MIFs $(t_mif_table)"
  mfc_is "$G1" :: up0 dn1 || fail "(*,$G1) should have parent up0 and output up0 + dn1: $(lab_mfc_text "$G1")" || return 1
}

late_join() {
  t_need_setup || return 1
  [[ -n $FLOW_SEND_PID ]] || fail "no traffic (the previous check failed)" || return 1
  local first
  flow_recv_start "$LAB_H2" "$G1" "$P1" || return 1
  lab_wait_for 3 flow_has_received "$LAB_H2" "$G1" 10 || fail "h2 received $(flow_received_count "$LAB_H2" "$G1") datagrams within 3 s of joining $G1" || return 1
  first=$(flow_received "$LAB_H2" "$G1" | head -n 1)
  TIMINGS+=("late join to first packet (h2, $G1, traffic flowing): $(lab_ms "$(flow_joined_at "$LAB_H2" "$G1")" "$first") ms")
  say "h2 joined $G1 while traffic flows: first datagram $(lab_ms "$(flow_joined_at "$LAB_H2" "$G1")" "$first") ms later"
  within "$(flow_joined_at "$LAB_H2" "$G1")" "$first" 0 1 || fail "h2's first datagram came $(lab_ms "$(flow_joined_at "$LAB_H2" "$G1")" "$first") ms after its join (want under 1 s)" || return 1
  mfc_is "$G1" :: up0 dn1 dn2 || fail "(*,$G1) should output to up0 + dn1 + dn2: $(lab_mfc_text "$G1")" || return 1
  [[ $(flow_wire_count dn3 "$G1" '' 0) -eq 0 ]] || fail "dn3 (no listener) got $G1" || return 1
}

leave_one() {
  t_need_setup || return 1
  [[ -n $FLOW_SEND_PID ]] || fail "no traffic (an earlier check failed)" || return 1
  local last stats
  flow_recv_stop "$LAB_H1" "$G1"
  lab_wait_for 8 stopped dn1 "$G1" 1.5 || fail "dn1 still gets $G1 8 s after h1 left" || return 1
  check_specific_queries dn1 "$G1" "${HOST_LL[dn1]}" "3/$G1/0" 2 || return 1
  last=$(flow_wire dn1 "$G1" | tail -n 1)
  TIMINGS+=("leave to last packet (h1 leaves $G1, h2 stays): $(lab_ms "$LEAVE_AT" "$last") ms")
  say "h1 left $G1: its link got the last packet $(lab_ms "$LEAVE_AT" "$last") ms after the leave report"
  within "$LEAVE_AT" "$last" 0.9 4 || fail "dn1 got its last $G1 packet $(lab_ms "$LEAVE_AT" "$last") ms after the leave (want 0.9 s to 4 s)" || return 1
  lab_wait_for 3 flow_has_received "$LAB_H2" "$G1" "$(($(flow_received_count "$LAB_H2" "$G1") + 50))" || fail "h2 stopped receiving when h1 left" || return 1
  stats=$(flow_received "$LAB_H2" "$G1" | times_stats "$LEAVE_AT" "$EPOCHREALTIME")
  [[ $(awk '{ print ($4 < 0.5) }' <<<"$stats") == 1 ]] || fail "h2's datagrams paused for ${stats##* } s around h1's leave" || return 1
  mfc_is "$G1" :: up0 dn2 || fail "(*,$G1) should output to up0 + dn2 after h1 left: $(lab_mfc_text "$G1")" || return 1
}

leave_last() {
  t_need_setup || return 1
  [[ -n $FLOW_SEND_PID ]] || fail "no traffic (an earlier check failed)" || return 1
  local t_left last t0 link n
  flow_recv_stop "$LAB_H2" "$G1"
  t_left=$(left_at "$LAB_H2" "$G1")
  lab_wait_for 8 forwards_to_no_link "$G1" || fail "8 s after the last listener left, the kernel still forwards $G1: $(lab_mfc_text "$G1")" || return 1
  lab_wait_for 5 stopped dn2 "$G1" 1 || fail "dn2 still gets $G1 after the last listener left" || return 1
  last=$(flow_wire dn2 "$G1" | tail -n 1)
  say "h2 (the last listener) left $G1: dn2 got the last packet $(lab_ms "$t_left" "$last") ms later; entries now: $(lab_mfc_text "$G1")"
  within "$t_left" "$last" 0.9 4 || fail "dn2 got its last $G1 packet $(lab_ms "$t_left" "$last") ms after the leave (want 0.9 s to 4 s)" || return 1
  # A window of 1.5 s in which the traffic still reaches up0 and no downstream link gets any.
  t0=$EPOCHREALTIME
  n=$(($(flow_wire up0 "$G1" | wc -l) + 150))
  lab_wait_for 5 flowing "$G1" '' "$n" || fail "the traffic stopped reaching up0: the window proves nothing" || return 1
  for link in "${LINKS[@]}"; do
    [[ $(flow_wire_count "$link" "$G1" '' "$t0") -eq 0 ]] || fail "$link got $(flow_wire_count "$link" "$G1" '' "$t0") packets of $G1 after the last listener left" || return 1
  done
  mfc_is "$G1" :: || fail "(*,$G1) still forwards downstream: $(lab_mfc_text "$G1")" || return 1
  flow_send_stop
}

two_hosts_one_link() {
  t_need_setup || return 1
  local t_leave q answer stats gap
  flow_send_start "$S1,$G2,$P2"
  flow_wait_more up0 "$G2" 100 "$S1" || return 1
  flow_recv_start "$LAB_H1" "$G2" "$P2" && flow_recv_start h1b "$G2" "$P2" || return 1
  lab_wait_for 5 flow_has_received "$LAB_H1" "$G2" 20 && lab_wait_for 5 flow_has_received h1b "$G2" 20 ||
    fail "h1 / h1b received $(flow_received_count "$LAB_H1" "$G2") / $(flow_received_count h1b "$G2") datagrams of $G2" || return 1
  flow_recv_stop "$LAB_H1" "$G2"
  t_leave=$(left_at "$LAB_H1" "$G2")
  # Watch for longer than the group membership interval.
  lab_sleep_until "$t_leave" $((GMI + 2))
  q=$(queries_for dn1 "$G2" | grep " nsrc=0 " | awk -v t="$t_leave" '$1 >= t' | head -n 1)
  [[ -n $q ]] || fail "no group-specific query for $G2 on dn1 after h1 left" || return 1
  answer=$(mld dn1 | grep " src=${HOST_LL[h1b]} " | grep -E " recs=([^ ]*,)?2/$G2/0" | awk -v t="${q%% *}" '$1 >= t && $1 <= t + 1.2' | head -n 1)
  [[ -n $answer ]] || fail "h1b did not answer the group-specific query at ${q%% *} with a MODE_IS_EXCLUDE record for $G2 within its 1 s" || return 1
  say "h1 left $G2; the router asked at ${q%% *}; h1b answered $(lab_ms "${q%% *}" "${answer%% *}") ms later: ${answer#* }"
  stats=$(flow_received h1b "$G2" | times_stats "$t_leave" "$EPOCHREALTIME")
  gap=${stats##* }
  say "h1b over the $((GMI + 2)) s after h1's leave: ${stats%% *} datagrams, longest pause ${gap} s"
  awk -v g="$gap" 'BEGIN { exit !(g < 0.5) }' || fail "h1b's datagrams paused for $gap s after h1 left" || return 1
  stats=$(flow_wire dn1 "$G2" | times_stats "$t_leave" "$EPOCHREALTIME")
  awk -v g="${stats##* }" 'BEGIN { exit !(g < 0.5) }' || fail "dn1's packets of $G2 paused for ${stats##* } s after h1 left" || return 1
  mfc_is "$G2" :: up0 dn1 || fail "(*,$G2) should still output to up0 + dn1 after GMI: $(lab_mfc_text "$G2")" || return 1
  flow_recv_stop h1b "$G2"
  flow_send_stop
}

# The last general query on LINK after time T: its decoded line.
general_query_after() { mld "$1" | grep " src=${RT_LL[$1]} " | grep " type=130 .* group=:: " | awk -v t="$2" '$1 > t' | head -n 1; }
has_general_query_after() { [[ -n $(general_query_after "$1" "$2") ]]; }

mldv1_host() {
  t_need_setup || return 1
  local before report t_report q q1 t_done last
  before=$(mld dn3 | grep " src=${RT_LL[dn3]} " | grep " type=130 .* group=:: " | tail -n 1)
  [[ $(field len <<<"$before") == 28 ]] || fail "before the MLDv1 host joins, dn3's general query is not the 28-byte form: ${before:-none seen}" || return 1
  flow_send_start "$S1,$G3,$P3"
  flow_wait_more up0 "$G3" 100 "$S1" || return 1
  flow_recv_start h3 "$G3" "$P3" || return 1
  lab_wait_for 5 flow_has_received h3 "$G3" 20 || fail "the MLDv1 host h3 received $(flow_received_count h3 "$G3") datagrams after joining $G3" || return 1
  lab_wait_for 2 has_v1_report dn3 "${HOST_LL[dn3]}" "$G3"
  report=$(mld dn3 | grep " src=${HOST_LL[dn3]} " | grep " type=131 .* group=$G3$" | head -n 1)
  [[ -n $report ]] || fail "no MLDv1 report of h3 for $G3 on dn3" || return 1
  t_report=${report%% *}
  say "h3 (MLDv1) joined $G3: ${report#* }; first datagram $(lab_ms "$(flow_joined_at h3 "$G3")" "$(flow_received h3 "$G3" | head -n 1)") ms after the join"
  mfc_is "$G3" :: up0 dn3 || fail "(*,$G3) should output to up0 + dn3: $(lab_mfc_text "$G3")" || return 1
  lab_wait_for 7 has_general_query_after dn3 "$t_report" || fail "no general query on dn3 within 7 s of the MLDv1 report" || return 1
  q=$(general_query_after dn3 "$t_report")
  q1=$(general_query_after dn1 "$(awk -v t="${q%% *}" 'BEGIN { printf "%.6f", t - 0.5 }')")
  say "general queries after the MLDv1 report: dn3 $(field len <<<"$q") bytes, dn1 $(field len <<<"$q1") bytes"
  say "  dn3 decoded: $q"
  # An MLDv1 host puts only its own group in MLDv1 mode (RFC 3810 section 8.3.2): the link's
  # queries stay MLDv2, which MLDv1 hosts answer as their own.
  [[ $(field len <<<"$q") == 28 && $(field v <<<"$q") == 2 && $(field dst <<<"$q") == ff02::1 ]] ||
    fail "dn3's general query after the MLDv1 report is not the 28-byte MLDv2 form: $q" || return 1
  [[ $(field len <<<"$q1") == 28 ]] || fail "dn1's general query changed form: ${q1:-none seen}" || return 1
  flow_recv_stop h3 "$G3"
  lab_wait_for 8 stopped dn3 "$G3" 1.5 || fail "dn3 still gets $G3 8 s after the MLDv1 host left" || return 1
  check_specific_queries dn3 "$G3" "${HOST_LL[dn3]}" type=132 2 || return 1
  t_done=$LEAVE_AT
  last=$(flow_wire dn3 "$G3" | tail -n 1)
  say "h3 sent its Done: dn3 got the last packet $(lab_ms "$t_done" "$last") ms later"
  within "$t_done" "$last" 0.9 4 || fail "dn3 got its last $G3 packet $(lab_ms "$t_done" "$last") ms after the Done (want 0.9 s to 4 s)" || return 1
  mfc_is "$G3" :: || fail "(*,$G3) still forwards to a downstream link: $(lab_mfc_text "$G3")" || return 1
  flow_send_stop
}

source_specific_join() {
  t_need_setup || return 1
  local report first link
  flow_send_start "$S1,$G4,$P4" "$S2,$G4,$P4"
  flow_wait_more up0 "$G4" 100 "$S1" "$S2" || return 1
  flow_recv_start "$LAB_H2" "$G4" "$P4" --source "$S1" || return 1
  lab_wait_for 5 flow_has_received "$LAB_H2" "$G4" 20 "$S1" || fail "h2 received $(flow_received_count "$LAB_H2" "$G4" "$S1") datagrams from $S1 after joining ($S1, $G4)" || return 1
  first=$(flow_received "$LAB_H2" "$G4" "$S1" | head -n 1)
  lab_wait_for 2 has_report_for dn2 "${HOST_LL[dn2]}" "$G4"
  report=$(mld dn2 | grep " src=${HOST_LL[dn2]} " | grep " type=143 " | grep -F "/$G4/" | head -n 1)
  say "h2 joined ($S1, $G4): ${report#* }"
  grep -Eq "recs=([^ ]*,)?[135]/$G4/1/$S1(,| |$)" <<<"$report" ||
    fail "h2's report is no INCLUDE-type record for $G4 with source $S1: ${report:-none seen}" || return 1
  TIMINGS+=("source-specific join to first packet (h2, $S1 -> $G4): $(lab_ms "$(flow_joined_at "$LAB_H2" "$G4")" "$first") ms")
  within "$(flow_joined_at "$LAB_H2" "$G4")" "$first" 0 1 || fail "the first datagram from $S1 came $(lab_ms "$(flow_joined_at "$LAB_H2" "$G4")" "$first") ms after the join (want under 1 s)" || return 1
  # Another 1.5 s of both flows.
  lab_wait_for 5 flow_has_received "$LAB_H2" "$G4" "$(($(flow_received_count "$LAB_H2" "$G4" "$S1") + 150))" "$S1" ||
    fail "h2 stopped receiving $S1" || return 1
  say "dn2 got $(flow_wire_count dn2 "$G4" "$S1" 0) packets from $S1 and $(flow_wire_count dn2 "$G4" "$S2" 0) from $S2; up0 got $(flow_wire_count up0 "$G4" "$S2" 0) from $S2"
  [[ $(flow_wire_count dn2 "$G4" "$S2" 0) -eq 0 ]] || fail "dn2 got $(flow_wire_count dn2 "$G4" "$S2" 0) packets from $S2, which h2 did not ask for" || return 1
  for link in dn1 dn3; do
    [[ $(flow_wire_count "$link" "$G4" '' 0) -eq 0 ]] || fail "$link (no listener) got $G4" || return 1
  done
  say "kernel entries of $G4: $(lab_mfc_text "$G4")"
  [[ -z $(lab_mfc "$G4") ]] || fail "a (*,$G4) entry exists for a source-specific listener: $(lab_mfc_text "$G4")" || return 1
  lab_mfc_has_oif "$G4" "$S1" dn2 || fail "($S1, $G4) does not output to dn2: $(lab_mfc_text "$G4")" || return 1
  [[ $(lab_mfc "$G4" "$S1" | cut -d' ' -f1) == "$(lab_mif_index up0)" ]] || fail "($S1, $G4) has not parent up0: $(lab_mfc_text "$G4")" || return 1
  ! lab_mfc_oifs "$G4" "$S1" | tr ' ' '\n' | grep -qvx -e "$(lab_mif_index up0)" -e "$(lab_mif_index dn2)" ||
    fail "($S1, $G4) outputs to links without listener: $(lab_mfc_text "$G4")" || return 1
  mfc_is "$G4" "$S2" || fail "($S2, $G4) forwards downstream: $(lab_mfc_text "$G4")" || return 1
  flow_recv_stop "$LAB_H2" "$G4"
  flow_send_stop
}

link_deleted() {
  t_need_setup || return 1
  local bytes_before t_del stats extra
  flow_send_start "$S1,$G5,$P5"
  flow_wait_more up0 "$G5" 100 "$S1" || return 1
  flow_recv_start h3 "$G5" "$P5" && flow_recv_start "$LAB_H2" "$G5" "$P5" || return 1
  lab_wait_for 5 flow_has_received h3 "$G5" 20 && lab_wait_for 5 flow_has_received "$LAB_H2" "$G5" 20 ||
    fail "h3 / h2 received $(flow_received_count h3 "$G5") / $(flow_received_count "$LAB_H2" "$G5") datagrams of $G5" || return 1
  mfc_is "$G5" :: up0 dn2 dn3 || fail "(*,$G5) should output to up0 + dn2 + dn3: $(lab_mfc_text "$G5")" || return 1
  # Messages may lack a final newline (some start with one instead): compare bytes, not lines.
  bytes_before=$(stat -c %s "$LOG")
  FREED_MIF=$(lab_mif_index dn3)
  t_del=$EPOCHREALTIME
  lab_del_downstream dn3 h3 || fail "could not delete dn3" || return 1
  unset "FLOW_RECV_PID[h3/$G5]" # gone with its namespace
  say "dn3 (MIF $FREED_MIF) deleted while $G5 flows to h3 and h2"
  lab_sleep_until "$t_del" 3
  t_daemon_alive || fail "the daemon ended after dn3 was deleted" || return 1
  stats=$(flow_received "$LAB_H2" "$G5" | times_stats "$t_del" "$EPOCHREALTIME")
  say "h2 over the 3 s after the deletion: ${stats%% *} datagrams, longest pause ${stats##* } s"
  awk -v g="${stats##* }" 'BEGIN { exit !(g < 0.5) }' || fail "h2's datagrams paused for ${stats##* } s when dn3 was deleted" || return 1
  extra=$(tail -c +"$((bytes_before + 1))" "$LOG" | grep -v -e '^$' -e '^MLDRT: Setsockopt error on MRT_DEL_VIF: ' -e '^MLDV2: Fatal- Couldnt send ' | head -n 3)
  say "daemon output since the deletion: $(tail -c +"$((bytes_before + 1))" "$LOG" | grep -v '^$' | sort | uniq -c | tr -s ' ' | tr '\n' ';')"
  [[ -z $extra ]] || fail "unexpected daemon output after the deletion: $extra" || return 1
}

# The kernel hides a deleted MIF in /proc/net/ip6_mr_cache but keeps its place in the entries'
# output sets; the daemon must take the deleted link's listeners out of the (*,G) entry. A new
# link that gets the freed MIF index shows whether it did: it must get nothing of the group.
deleted_links_listeners_released() {
  t_need_setup || return 1
  [[ -n $FLOW_SEND_PID && -n $FREED_MIF ]] || fail "no traffic or no deleted link (the previous check failed)" || return 1
  local t0 n got
  lab_add_downstream dn4 h4 || fail "could not add dn4" || return 1
  flow_wire_start dn4 h4 eth0 || fail "no capture on dn4" || return 1
  lab_wait_for 30 lab_has_mif dn4 || fail "dn4 did not become a MIF within 30 s; MIFs [$(t_mif_table)]" || return 1
  got=$(lab_mif_index dn4)
  [[ $got == "$FREED_MIF" ]] || fail "dn4 got MIF $got, not the freed $FREED_MIF: the check cannot be made" || return 1
  say "dn4 (no listener) got the freed MIF $got; (*,$G5): $(lab_mfc_text "$G5")"
  t0=$EPOCHREALTIME
  n=$(($(flow_wire up0 "$G5" | wc -l) + 150))
  lab_wait_for 5 flowing "$G5" '' "$n" || fail "the traffic stopped reaching up0" || return 1
  [[ $(flow_wire_count dn4 "$G5" '' 0) -eq 0 ]] || fail "dn4, without listeners, got $(flow_wire_count dn4 "$G5" '' 0) packets of $G5 through the deleted link's MIF" || return 1
  mfc_is "$G5" :: up0 dn2 || fail "(*,$G5) should output to up0 + dn2 only: $(lab_mfc_text "$G5"); MIFs [$(t_mif_table)]" || return 1
  # The last listener leaves: no mark of the deleted link may keep the entry.
  flow_recv_stop "$LAB_H2" "$G5"
  lab_wait_for 8 mfc_gone "$G5" || fail "(*,$G5) stays after its last listener left: $(lab_mfc_text "$G5")" || return 1
  [[ $(flow_wire_count dn4 "$G5" '' 0) -eq 0 ]] || fail "dn4 got $(flow_wire_count dn4 "$G5" '' 0) packets of $G5" || return 1
  say "h2 left: (*,$G5) is gone"
  flow_send_stop
}
mfc_gone() { [[ -z $(lab_mfc "$1") ]]; }


check forwarding_setup setup
check any_source_join_forwards_both_sources_to_that_link_only any_source_join
check late_join_receives_within_a_second late_join
check leave_queries_then_stops_that_link_only leave_one
check last_leave_stops_every_link_and_entry leave_last
check two_hosts_on_a_link_one_leaves_link_keeps_the_group two_hosts_one_link
check mldv1_host_join_leave_with_mldv2_queries mldv1_host
check source_specific_join_forwards_that_source_only source_specific_join
check link_with_listener_deleted_while_traffic_flows link_deleted
check deleted_links_listeners_leave_the_group_entry deleted_links_listeners_released

for t in "${TIMINGS[@]}"; do say "timing: $t"; done
t_end "$LOG" 15

exit 0
