#!/usr/bin/env bash
# Source filters, the upstream merge of RFC 3810 section 4.2, the member limit and MLDv1
# compatibility per group, with real kernel hosts and real traffic. src sends UDP multicast
# (100 datagrams a second per flow) from three global addresses S1, S2, S3, and the bridge sends
# all of it to up0 (lab_flood_upstream): what a downstream link does not get, the router held
# back. tcpdump on the host side of every downstream link shows what the link carried.
#
#   src ── br0 ── up0 [rt] dn1 ── h1
#                          dn2 ── h2, and 70 more hosts (macvlans mv0..mv69 in namespace many)
#                          dn3 ── h3, h3b (a macvlan host, force_mld_version=1: MLDv1)
#
# Lab timers: query interval 4 s, query response interval 1 s, last listener query interval 1 s
# and count 2 (a leave is confirmed or undone 2-3 s after it), robustness 2.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

LOG=$T_WORK/daemon.log
S1=$LAB_SRC_ADDR1 S2=$LAB_SRC_ADDR2 S3=$LAB_SRC_ADDR3
G1=ff0e::1:301 P1=5101 # h1: EXCLUDE{S1}
G2=ff0e::1:302 P2=5102 # h1, h2, h3: EXCLUDE{S1}, EXCLUDE{S2}, EXCLUDE{S3}
G3=ff0e::1:303 P3=5103 # the 70 hosts on dn2
G4=ff3e::1:304 P4=5104 # h3: INCLUDE{S1} (source-specific)
G5=ff0e::1:305 P5=5105 # h3b, the MLDv1 host
N_HOSTS=70 LIMIT=64 # the daemon records at most 64 reporting hosts per group
SETUP_OK=0

# ---------------------------------------------------------------------------------------------
# helpers

# link_gets LINK GROUP WANTED... -- UNWANTED...: the link carried at least 50 packets of GROUP
# from each wanted source and none from the others.
link_gets() {
  local link=$1 group=$2 s want=1
  shift 2
  for s in "$@"; do
    [[ $s == -- ]] && { want=0; continue; }
    if [[ $want == 1 ]]; then
      [[ $(flow_wire_count "$link" "$group" "$s" 0) -ge 50 ]] ||
        fail "$link got $(flow_wire_count "$link" "$group" "$s" 0) packets of $group from $s (want 50 or more)" || return 1
    else
      [[ $(flow_wire_count "$link" "$group" "$s" 0) -eq 0 ]] ||
        fail "$link got $(flow_wire_count "$link" "$group" "$s" 0) packets of $group from $s, which its hosts exclude" || return 1
    fi
  done
}

# hosts_with_record LINK GROUP RECORD: the distinct hosts that sent a record RECORD (e.g.
# "3/$G3/0", TO_IN{}; "/$G3/" any) on LINK.
hosts_with_record() {
  mld "$1" | grep ' type=143 ' | grep -F -- "$3" | grep -F "/$2/" | grep -o ' src=[^ ]*' | sort -u | wc -l
}
hosts_at_least() { [[ $(hosts_with_record "$1" "$2" "$3") -ge $4 ]]; }

# router_queries LINK SINCE: the router's queries on LINK after the time SINCE.
router_queries() { mld "$1" | grep " src=$(lab_ll_addr "$LAB_RT" "$1") " | grep ' type=130 ' | awk -v t="$2" '$1 > t'; }
general_query_after() { router_queries "$1" "$2" | grep -q ' group=:: '; }

# recorded_hosts LINK GROUP: the hosts the daemon records for GROUP on LINK, by its status
# ("[N]"; "[]" when the link has no such group).
recorded_hosts() {
  status_json "$T_WORK/status.json" >/dev/null || { echo "no status: $(head -c 200 "$T_WORK/status.json.err")"; return; }
  json_query "$T_WORK/status.json" "[g['hosts'] for l in s['links'] if l['name'] == '$1' for g in l['groups'] if g['group'] == '$2']"
}

# ---------------------------------------------------------------------------------------------
# set-up

setup() {
  t_lab_up sources flood || return 1
  lab_add_downstream dn3 h3 && lab_add_lan h3 h3b eth0 || fail "could not add dn3 with h3 and h3b" || return 1
  lab_exec h3b sysctl -qw net.ipv6.conf.eth0.force_mld_version=1 || fail "cannot make h3b an MLDv1 host" || return 1
  lab_add_lan "$LAB_H2" many $(seq -f 'mv%g' 0 $((N_HOSTS - 1))) || fail "could not put $N_HOSTS hosts on dn2" || return 1
  flow_wire_start up0 "$LAB_UP" "$LAB_RT_PORT" && flow_wire_start dn1 "$LAB_H1" eth0 &&
    flow_wire_start dn2 "$LAB_H2" eth0 && flow_wire_start dn3 h3 eth0 || fail "no UDP capture" || return 1
  local link host
  for link in dn1:"$LAB_H1" dn2:"$LAB_H2" dn3:h3; do
    host=${link#*:} link=${link%%:*}
    mld_capture_start "$link" "$host" eth0 || fail "no MLD capture on $link" || return 1
  done
  t_start 60 || return 1
  say "MIFs: $(t_mif_table); $N_HOSTS hosts more on dn2; h3b (MLDv1) beside h3 on dn3"
  SETUP_OK=1
}

# ---------------------------------------------------------------------------------------------
# checks

# 1. h1 joins G1 and blocks S1: EXCLUDE{S1}. dn1 gets G1 from S2 and nothing from S1 although
# both reach up0; (*,G1) forwards to dn1, (S1,G1) leaves it out. A router that forwarded
# nothing to an EXCLUDE{S1} link fails it, and so does one that ignored the filter and put S1
# on dn1 (the capture shows it, whatever h1's socket drops).
exclude_one_source() {
  t_need_setup || return 1
  flow_send_start "$S1,$G1,$P1" "$S2,$G1,$P1"
  flow_wait_more up0 "$G1" 100 "$S1" "$S2" || return 1
  flow_recv_start "$LAB_H1" "$G1" "$P1" --block "$S1" || return 1
  lab_wait_for 5 flow_has_received "$LAB_H1" "$G1" 30 "$S2" ||
    fail "h1 received $(flow_received_count "$LAB_H1" "$G1" "$S2") datagrams from $S2 after joining $G1 with $S1 blocked" || return 1
  flow_wait_more up0 "$G1" 200 "$S1" || return 1 # 2 s more of S1 on up0
  link_gets dn1 "$G1" "$S2" -- "$S1" || return 1
  say "dn1: $(flow_wire_count dn1 "$G1" "$S2" 0) packets from $S2, none from $S1 (up0: $(flow_wire_count up0 "$G1" "$S1" 0)); entries: $(lab_mfc_text "$G1")"
  lab_mfc_has_oif "$G1" :: dn1 || fail "(*,$G1) does not forward to dn1: $(lab_mfc_text "$G1")" || return 1
  [[ -n $(lab_mfc "$G1" "$S1") ]] && ! lab_mfc_has_oif "$G1" "$S1" dn1 ||
    fail "no ($S1,$G1) entry that leaves dn1 out: $(lab_mfc_text "$G1")" || return 1
  flow_send_stop
}

# 2. Three links exclude S1, S2, S3 for G2, the hosts joining in the same instant: upstream the
# intersection is empty, EXCLUDE{} (CHANGE_TO_EXCLUDE without sources, then MODE_IS_EXCLUDE{} in
# the answer to a query); a router that took one link's list would say TO_EX{S1} and
# IS_EX{S1}, and the bridge upstream would then hold S1 back from every link. Each link gets
# the two sources it does not exclude.
exclude_merge_upstream() {
  t_need_setup || return 1
  up_capture_start "$T_WORK/up.pcap" || fail "cannot capture in the router namespace" || return 1
  flow_send_start "$S1,$G2,$P2" "$S2,$G2,$P2" "$S3,$G2,$P2"
  flow_wait_more up0 "$G2" 100 "$S1" "$S2" "$S3" || return 1
  local first last spread since recs bad tq answer
  flow_recv_launch "$LAB_H1" "$G2" "$P2" --block "$S1"
  flow_recv_launch "$LAB_H2" "$G2" "$P2" --block "$S2"
  flow_recv_launch h3 "$G2" "$P2" --block "$S3"
  flow_recv_joined "$LAB_H1" "$G2" && flow_recv_joined "$LAB_H2" "$G2" && flow_recv_joined h3 "$G2" || return 1
  read -r first last < <(for h in "$LAB_H1" "$LAB_H2" h3; do flow_joined_at "$h" "$G2"; done | sort -n | sed -n '1p;$p' | paste -sd ' ')
  spread=$(awk -v a="$first" -v b="$last" 'BEGIN { printf "%d", (b - a) * 1000 }')
  # The joins must fall within the Unsolicited Report Interval of the first one (its mode record
  # still pending), else the change upstream is EXCLUDE{S1} -> EXCLUDE{}, an ALLOW{S1}.
  [[ $spread -lt 700 ]] || fail "the three joins were ${spread} ms apart (want under 700 ms): one mode record cannot carry them" || return 1
  since=$(awk -v t="$first" 'BEGIN { printf "%d", t * 1000000 }')
  lab_wait_for 5 up_has_records 1 4 "$G2" - "$since" || {
    fail "no CHANGE_TO_EXCLUDE{} for $G2 on up0 within 5 s of the joins; records: $(up_group_records "$G2" "$since" | paste -sd ';')"
    return 1
  }
  sleep 2.5 # the retransmission and anything after it
  recs=$(up_group_records "$G2" "$since")
  say "records for $G2 on up0 since the joins (${spread} ms apart): $(paste -sd ';' <<<"$recs")"
  # After the first TO_EX{}: no mode record with sources, no BLOCK (either would exclude again).
  bad=$(awk '$2 == 4 && $3 == "-" { seen = 1; next } seen && (($2 == 4 && $3 != "-") || $2 == 6)' <<<"$recs")
  [[ -z $bad ]] || fail "after CHANGE_TO_EXCLUDE{} the daemon still excluded a source upstream: $(paste -sd ';' <<<"$bad")" || return 1
  [[ $(tail -n 1 <<<"$recs" | cut -d' ' -f2-) == "4 -" ]] || fail "the last record for $G2 is not CHANGE_TO_EXCLUDE{}: $(tail -n 1 <<<"$recs")" || return 1
  # The state itself, as the answer to a query (an unusual MRC marks it; a source above the
  # bridge's address leaves the bridge the querier).
  tq=$(up_query 1234) || fail "cannot send a query from the bridge: $(tail -n 1 "$T_WORK/query.err")" || return 1
  lab_wait_for 3 up_has_records 1 2 "$G2" '*' "$tq" || fail "no MODE_IS_EXCLUDE for $G2 within 3 s of the query" || return 1
  answer=$(up_group_records "$G2" "$tq" | awk '$2 == 2 { print; exit }')
  [[ ${answer#* } == "2 -" ]] || fail "the query was answered with ${answer#* } for $G2 (want \"2 -\", MODE_IS_EXCLUDE{})" || return 1
  flow_wait_more up0 "$G2" 100 "$S1" "$S2" "$S3" || return 1 # 1 s more of every flow
  link_gets dn1 "$G2" "$S2" "$S3" -- "$S1" && link_gets dn2 "$G2" "$S1" "$S3" -- "$S2" &&
    link_gets dn3 "$G2" "$S1" "$S2" -- "$S3" || return 1
  say "dn1/dn2/dn3 got $G2 from S1: $(flow_wire_count dn1 "$G2" "$S1" 0)/$(flow_wire_count dn2 "$G2" "$S1" 0)/$(flow_wire_count dn3 "$G2" "$S1" 0), S2: $(flow_wire_count dn1 "$G2" "$S2" 0)/$(flow_wire_count dn2 "$G2" "$S2" 0)/$(flow_wire_count dn3 "$G2" "$S2" 0), S3: $(flow_wire_count dn1 "$G2" "$S3" 0)/$(flow_wire_count dn2 "$G2" "$S3" 0)/$(flow_wire_count dn3 "$G2" "$S3" 0)"
  up_capture_stop
  flow_send_stop
}

# 3. 70 hosts on dn2 join G3 one after another; the daemon records 64 of them. The first 64
# leave. The 6 others, beyond the limit when they joined, must get G3 on without a pause once
# the leaves' last-listener queries are over, and the daemon then records those 6. This fails
# when a host beyond the limit is not served (its answers to those queries not taken: the group
# ends, and comes back only with a later report, after a pause), when a leave does not free its
# place, or when the leaves end the group for all.
member_limit() {
  t_need_setup || return 1
  local i ifaces=() t_left last_leave q n gap
  for ((i = 0; i < N_HOSTS; i++)); do ifaces+=(--iface "mv$i"); done
  flow_send_start "$S1,$G3,$P3"
  flow_wait_more up0 "$G3" 100 "$S1" || return 1
  flow_recv_start many "$G3" "$P3" "${ifaces[@]}" --join-gap 0.05 --leave-first "$LIMIT" || return 1
  lab_wait_for 15 hosts_at_least dn2 "$G3" "/$G3/" "$N_HOSTS" ||
    fail "only $(hosts_with_record dn2 "$G3" "/$G3/") of the $N_HOSTS hosts reported $G3 on dn2" || return 1
  n=$(recorded_hosts dn2 "$G3")
  [[ $n == "[$LIMIT]" ]] || fail "the daemon records $n hosts for $G3 on dn2 (want [$LIMIT]): no host is beyond its limit" || return 1
  for ((i = LIMIT; i < N_HOSTS; i++)); do
    lab_wait_for 3 flow_has_received many "$G3" 20 "$S1" "mv$i" || fail "host mv$i received $(flow_received_count many "$G3" "$S1" "mv$i") datagrams of $G3 before any leave" || return 1
  done
  t_left=$EPOCHREALTIME
  flow_recv_signal many "$G3" USR1
  lab_wait_for 10 hosts_at_least dn2 "$G3" "3/$G3/0" "$LIMIT" ||
    fail "only $(hosts_with_record dn2 "$G3" "3/$G3/0") hosts sent TO_IN{} for $G3 after the first $LIMIT left" || return 1
  sleep 1.5 # the hosts' retransmitted leaves
  last_leave=$(mld dn2 | grep ' type=143 ' | grep -F "3/$G3/0" | tail -n 1 | cut -d' ' -f1)
  q=$(router_queries dn2 "$t_left" | grep -c " group=$G3 ")
  [[ $q -ge 1 ]] || fail "no query for $G3 on dn2 after the leaves: the last-listener queries cannot be over" || return 1
  lab_sleep_until "$last_leave" 4
  say "$LIMIT hosts left $G3 (last leave report at $last_leave, $q queries for $G3 since); 4 s later:"
  n=$(flow_wire_count dn2 "$G3" "$S1" "$(awk -v t="$last_leave" 'BEGIN { printf "%.6f", t + 3 }')")
  [[ $n -ge 50 ]] || fail "dn2 got $n packets of $G3 3-4 s after the last leave (want 50 or more)" || return 1
  for ((i = LIMIT; i < N_HOSTS; i++)); do
    [[ $(flow_received many "$G3" "$S1" "mv$i" | awk -v t="$last_leave" '$1 > t + 3' | wc -l) -ge 20 ]] ||
      fail "host mv$i got $(flow_received many "$G3" "$S1" "mv$i" | awk -v t="$last_leave" '$1 > t + 3' | wc -l) datagrams of $G3 3-4 s after the last leave (want 20 or more)" || return 1
  done
  gap=$(flow_wire dn2 "$G3" "$S1" | awk -v a="$t_left" -v b="$EPOCHREALTIME" '
    $1 > a && $1 <= b { if ($1 - a > g) g = $1 - a; a = $1 } END { if (b - a > g) g = b - a; printf "%.3f", g }')
  say "dn2 carried $n packets of $G3 in that second, its longest pause since the leaves ${gap} s; each of mv$LIMIT..mv$((N_HOSTS - 1)) received them"
  awk -v g="$gap" 'BEGIN { exit !(g < 0.5) }' || fail "dn2's packets of $G3 paused for $gap s after the leaves" || return 1
  # The leaves freed their places; the others' answers to the queries took them.
  n=$(recorded_hosts dn2 "$G3")
  [[ $n == "[$((N_HOSTS - LIMIT))]" ]] || fail "after the leaves the daemon records $n hosts for $G3 on dn2 (want [$((N_HOSTS - LIMIT))])" || return 1
  flow_recv_stop many "$G3"
  flow_send_stop
}

# 4. On dn3 an MLDv2 host joins (S1, G4), then an MLDv1 host joins G5. The MLDv1 report puts only
# G5 in MLDv1 mode: h3b gets G5 from both sources, dn3 gets G4 from S1 but never from S2, and
# every query on dn3 after the MLDv1 report is an MLDv2 query (28 bytes or more). h3b joins just
# after the answers to a general query, so that the next general query follows the MLDv1 report
# with no MLDv2 report between them: a router that put the whole link in MLDv1 mode on that
# report would send it in the 24-byte form.
v1_beside_ssm() {
  t_need_setup || return 1
  local t_a tq report t_v1 q short between
  flow_send_start "$S1,$G4,$P4" "$S2,$G4,$P4" "$S1,$G5,$P5" "$S2,$G5,$P5"
  flow_wait_more up0 "$G4" 100 "$S2" && flow_wait_more up0 "$G5" 100 "$S2" || return 1
  flow_recv_start h3 "$G4" "$P4" --source "$S1" || return 1
  t_a=$(awk -v t="$(flow_joined_at h3 "$G4")" 'BEGIN { printf "%.6f", t + 1.2 }')
  lab_wait_for 5 flow_has_received h3 "$G4" 30 "$S1" ||
    fail "h3 received $(flow_received_count h3 "$G4" "$S1") datagrams from $S1 after joining ($S1, $G4)" || return 1
  # A general query after h3's own reports are over (a retransmission within 1 s), its answers
  # (within 1 s), and then h3b's join.
  lab_wait_for 7 general_query_after dn3 "$t_a" ||
    fail "no general query on dn3 within 7 s of h3's join" || return 1
  tq=$(router_queries dn3 "$t_a" | grep ' group=:: ' | head -n 1 | cut -d' ' -f1)
  lab_sleep_until "$tq" 1.2
  flow_recv_start h3b "$G5" "$P5" || return 1
  lab_wait_for 5 flow_has_received h3b "$G5" 30 "$S1" && lab_wait_for 2 flow_has_received h3b "$G5" 30 "$S2" ||
    fail "the MLDv1 host h3b received $(flow_received_count h3b "$G5" "$S1")/$(flow_received_count h3b "$G5" "$S2") datagrams of $G5 from $S1/$S2" || return 1
  report=$(mld dn3 | grep " src=$(lab_ll_addr h3b eth0) " | grep " type=131 .* group=$G5$" | head -n 1)
  [[ -n $report ]] || fail "no MLDv1 report of h3b for $G5 on dn3" || return 1
  t_v1=${report%% *}
  lab_wait_for 7 general_query_after dn3 "$t_v1" || fail "no general query on dn3 within 7 s of the MLDv1 report" || return 1
  q=$(router_queries dn3 "$t_v1" | grep ' group=:: ' | head -n 1)
  between=$(mld dn3 | grep ' type=143 ' | grep -v " src=$(lab_ll_addr "$LAB_RT" dn3) " | awk -v a="$t_v1" -v b="${q%% *}" '$1 > a && $1 < b')
  [[ -z $between ]] || fail "an MLDv2 report came between the MLDv1 report and the next general query: $(head -n 1 <<<"$between")" || return 1
  flow_wait_more up0 "$G4" 100 "$S2" || return 1
  link_gets dn3 "$G4" "$S1" -- "$S2" || return 1
  short=$(router_queries dn3 "$t_v1" | awk '{ for (i = 3; i <= NF; i++) if ($i ~ /^len=/ && substr($i, 5) + 0 < 28) { print; next } }')
  say "h3b's MLDv1 report at $t_v1, the next general query: ${q#* }"
  say "queries on dn3 since: $(router_queries dn3 "$t_v1" | grep -o ' len=[0-9]*' | sort | uniq -c | tr -s ' ' | paste -sd ','); dn3 got $G4 from $S1: $(flow_wire_count dn3 "$G4" "$S1" 0), from $S2: none"
  [[ -z $short ]] || fail "MLDv1 queries on dn3 after the MLDv1 report: $(head -n 1 <<<"$short")" || return 1
  flow_send_stop
}

check filters_setup setup
check exclude_filter_forwards_all_but_the_excluded_source exclude_one_source
check exclude_lists_of_three_links_merge_to_exclude_nothing_upstream exclude_merge_upstream
check hosts_beyond_the_member_limit_served_after_the_others_leave member_limit
check mldv1_host_beside_source_specific_host_queries_stay_mldv2 v1_beside_ssm

t_end "$LOG" 10
exit 0
