#!/usr/bin/env bash
# What the daemon tells the networks around it: link-scope groups stay on their link, a change
# of many sources reaches the upstream whole, the unspecified address :: (the daemon's own mark
# for "the whole group") never appears as a source in anything it sends, and an ordinary leave
# leaves no line in its log; a report is read only as far as it arrived, so a short report that
# claims many records never replays the records an earlier report left in the receive buffer.
#
# Real hosts' kernels send the reports where they can (a new address's solicited-node group,
# application joins and leaves); tools/mldlab.py sends what no kernel host sends (twelve sources at
# once, :: as a source, a leave repeated within a few milliseconds). What the daemon sends is
# seen in a capture of the router namespace (its reports carry a non-zero flow label, the
# router kernel's own 0), what the bridge learned in `bridge mdb`.
#
# Lab configuration: robustness 2, query interval 4 s, query response interval 1 s, last
# listener query interval 1 s and count 2.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

LOG=$T_WORK/daemon.log

H1_ADDR=2001:db8:7::1234 # h1 takes this address: its kernel joins the solicited-node group
GS=ff02::1:ff00:1234     # ... ff02::1:ff00:1234
GL=ff02::db8:1           # an application on h1 joins this link-scope group
GC=ff0e::7541            # and this global one, which is proxied (shows the daemon listened)
GA=ff0e::7542            # h2 (hand-made) allows 3 sources, then 12 more
GW=ff0e::7543            # an application on h1 joins and leaves (any source)
GX=ff0e::7544            # h2 (hand-made) sends CHANGE_TO_EXCLUDE with :: as its source
GD=ff0e::7545            # h2 (hand-made) joins, then leaves twice within milliseconds
GB=ff0e::7546            # h2 (hand-made) allows one source, then blocks it twice within milliseconds
SB=2001:db8:9::1
GR=ff0e::b:1 # h2 (hand-made) sends a short TO_EX for it claiming twelve records, right after ...
GR_EARLIER=() # ... h1 (hand-made) sent twelve ALLOW records for ff0e::a:1 ... ff0e::a:c
for i in 1 2 3 4 5 6 7 8 9 a b c; do GR_EARLIER+=("ff0e::a:$i"); done

THREE=2001:db8:9::1,2001:db8:9::2,2001:db8:9::3
TWELVE=2001:db8:9::4,2001:db8:9::5,2001:db8:9::6,2001:db8:9::7,2001:db8:9::8,2001:db8:9::9
TWELVE+=,2001:db8:9::a,2001:db8:9::b,2001:db8:9::c,2001:db8:9::d,2001:db8:9::e,2001:db8:9::f

SETUP_OK=0

# ---------------------------------------------------------------------------------------------
# helpers of this file



# heard_on IFNAME TYPE GROUP SINCE_US: number of reports that reached the router on IFNAME
# with a record of TYPE for GROUP since then (what the hosts sent, as the daemon got it).
heard_on() {
  up_decode | awk -v i="$1" -v t="$2" -v g="$3" -v s="$4" '
    $1 >= s && $2 == i && $3 == "in" && $4 == "report" {
      for (k = 8; k <= NF; k++) { split($k, f, "/"); if (f[1] == t && f[2] == g) { n++; break } }
    } END { print n + 0 }'
}
heard_at_least() { [[ $(heard_on "$2" "$3" "$4" "$5") -ge $1 ]]; }

# upstream_mentions GROUP: the daemon's records on up0 that name GROUP, one per line.
upstream_mentions() {
  up_daemon_reports | tr ' ' '\n' | awk -F/ -v g="$1" 'NF == 3 && $2 == g'
}

# allow_with_sources GROUP SOURCES SINCE_US: the daemon sent an ALLOW_NEW_SOURCES record for
# GROUP since then that carries every one of SOURCES (comma-separated), in any order. (It may
# carry more: a change still being retransmitted goes out with the next one.)
allow_with_sources() {
  up_daemon_reports | awk -v g="$1" -v want="$2" -v s="$3" '
    BEGIN { n = split(want, w, ",") }
    $1 >= s {
      for (k = 8; k <= NF; k++) {
        if (split($k, f, "/") != 3 || f[1] != 5 || f[2] != g) continue
        m = split(f[3], got, ",")
        delete have
        for (i = 1; i <= m; i++) have[got[i]] = 1
        ok = 1
        for (i = 1; i <= n; i++) if (!(w[i] in have)) ok = 0
        if (ok) found = 1
      }
    } END { exit !found }'
}

# mdb_sources GROUP: the source entries the bridge holds for GROUP on the router's port.
mdb_sources() { up_mdb | awk -v p="$LAB_RT_PORT" -v g="$1" '$1 == p && $2 == g && $3 != ""' | wc -l; }
mdb_sources_at_least() { [[ $(mdb_sources "$1") -ge $2 ]]; }

# queries_for IFNAME GROUP SINCE_US: group-specific queries (no sources) the router sent on
# IFNAME for GROUP since then.
queries_for() {
  up_decode | awk -v i="$1" -v g="$2" -v s="$3" '
    $1 >= s && $2 == i && $3 == "out" && $4 == "query" && $8 == g && $9 == "" { n++ } END { print n + 0 }'
}
queries_at_least() { [[ $(queries_for "$2" "$3" "$4") -ge $1 ]]; }

# source_queries_for IFNAME GROUP SOURCE SINCE_US: queries the router sent on IFNAME for GROUP
# listing exactly SOURCE since then.
source_queries_for() {
  up_decode | awk -v i="$1" -v g="$2" -v q="$3" -v s="$4" '
    $1 >= s && $2 == i && $3 == "out" && $4 == "query" && $8 == g && $9 == q { n++ } END { print n + 0 }'
}

# unspecified_sources: every message the router namespace sent (queries and reports, on any
# link) that lists :: as a source, one per line.
unspecified_sources() {
  up_decode | awk '$3 == "out" && $4 == "query" && $9 != "" {
      n = split($9, s, ","); for (i = 1; i <= n; i++) if (s[i] == "::") { print; next }
    }
    $3 == "out" && $4 == "report" {
      for (k = 8; k <= NF; k++) {
        if (split($k, f, "/") != 3 || f[3] == "") continue
        n = split(f[3], s, ","); for (i = 1; i <= n; i++) if (s[i] == "::") { print; next }
      }
    }'
}

# ---------------------------------------------------------------------------------------------
# checks

# 1. h1 takes a global address (its kernel joins the solicited-node group ff02::1:ff00:1234 and
# reports it) and an application on h1 joins ff02::db8:1 and ff0e::7541. The daemon hears all
# three reports on dn1 and reports only ff0e::7541 upstream; the link-scope groups get no
# kernel forwarding entry either.
link_scope_groups_stay_on_their_link() {
  t_need_setup || return 1
  local t0 rec
  t0=$(lab_now_us)
  ip -n "$(lab_ns "$LAB_H1")" -6 addr add "$H1_ADDR/64" dev eth0 nodad ||
    fail "cannot give h1 the address $H1_ADDR" || return 1
  flow_recv_start "$LAB_H1" "$GL" 5011 || fail "the listener of $GL on h1 did not start" || return 1
  flow_recv_start "$LAB_H1" "$GC" 5012 || fail "the listener of $GC on h1 did not start" || return 1
  lab_wait_for 10 heard_at_least 1 dn1 4 "$GS" "$t0" ||
    fail "h1's kernel never reported $GS on dn1 (the check cannot show what the daemon does with it)" || return 1
  lab_wait_for 10 heard_at_least 1 dn1 4 "$GL" "$t0" ||
    fail "h1's kernel never reported $GL on dn1" || return 1
  lab_wait_for 10 up_has_records 2 4 "$GC" - "$t0" ||
    fail "10 s after h1 joined $GC the daemon had not reported it upstream twice (it did not get h1's reports?)" ||
    { up_show_reports "$t0"; return 1; }
  # The link-scope reports came before or with the one for $GC; two more ticks for any late copy.
  sleep 2.5
  rec=$(upstream_mentions "$GS"; upstream_mentions "$GL")
  [[ -z $rec ]] || fail "the daemon reported link-scope groups upstream: $(tr '\n' ' ' <<<"$rec")" || return 1
  [[ -z $(lab_mfc_group "$GS")$(lab_mfc_group "$GL") ]] ||
    fail "kernel forwarding entries for link-scope groups: [$(lab_mfc_group "$GS"; lab_mfc_group "$GL")]" || return 1
  [[ -n $(lab_mfc "$GC") ]] || fail "no (*,G) entry for $GC although it was reported" || return 1
  say "h1's reports of $GS and $GL heard on dn1 ($(heard_on dn1 4 "$GS" "$t0") and $(heard_on dn1 4 "$GL" "$t0")), none reported upstream; $GC reported and forwarded ($(lab_mfc "$GC"))"
}

# 2. h2 allows three sources of ff0e::7542, then twelve more in one ALLOW record: the daemon's
# ALLOW upstream carries all twelve, and the bridge lists all fifteen sources on its port.
twelve_sources_on_top_of_three_heard_whole() {
  t_need_setup || return 1
  local t0 t1
  t0=$(lab_now_us)
  lab_send_mld_report "$LAB_H2" "allow:$GA/$THREE" >/dev/null 2>>"$T_WORK/report.err" || fail "cannot send the report from h2" || return 1
  lab_wait_for 5 allow_with_sources "$GA" "$THREE" "$t0" ||
    fail "the daemon did not report the first three sources of $GA upstream" || { up_show_reports "$t0"; return 1; }
  t1=$(lab_now_us)
  lab_send_mld_report "$LAB_H2" "allow:$GA/$TWELVE" >/dev/null 2>>"$T_WORK/report.err" || fail "cannot send the report from h2" || return 1
  lab_wait_for 5 heard_at_least 1 dn2 5 "$GA" "$t1" || fail "the twelve-source ALLOW never reached dn2" || return 1
  lab_wait_for 5 allow_with_sources "$GA" "$TWELVE" "$t1" ||
    fail "the daemon's ALLOW for $GA upstream did not carry the twelve new sources" || { up_show_reports "$t1"; return 1; }
  lab_wait_for 10 mdb_sources_at_least "$GA" 15 ||
    fail "the bridge holds $(mdb_sources "$GA") sources of $GA on $LAB_RT_PORT (want 15): $(up_mdb_line "$GA")" || return 1
  say "ALLOW of 12 on top of 3: all 12 in the daemon's upstream ALLOW, the bridge holds $(mdb_sources "$GA") sources of $GA"
}

# 3. An application on h1 joins ff0e::7543 and leaves it (its kernel sends CHANGE_TO_INCLUDE{}
# twice); h2 joins ff0e::7545 and sends its leave twice 20 ms apart, and allows one source of
# ff0e::7546 and blocks it twice 20 ms apart (each second copy comes before the router's
# retransmission, which once printed "numSrc and list inconsistent 1 0"). Each leave is
# confirmed with queries and reported upstream; the daemon's log gains no line.
leave_leaves_no_line() {
  t_need_setup || return 1
  local t0 tl lines_before lines_after
  lines_before=$(wc -l <"$LOG")
  t0=$(lab_now_us)
  flow_recv_start "$LAB_H1" "$GW" 5013 || fail "the listener of $GW on h1 did not start" || return 1
  lab_send_mld_report "$LAB_H2" "to_ex:$GD" "allow:$GB/$SB" >/dev/null 2>>"$T_WORK/report.err" || fail "cannot send the report from h2" || return 1
  lab_wait_for 5 up_has_records 2 4 "$GW" - "$t0" || fail "the join of $GW was not reported upstream" || return 1
  lab_wait_for 5 up_has_records 2 4 "$GD" - "$t0" || fail "the join of $GD was not reported upstream" || return 1
  lab_wait_for 5 up_has_records 2 5 "$GB" "$SB" "$t0" || fail "the join of $GB from $SB was not reported upstream" || return 1
  tl=$(lab_now_us)
  flow_recv_stop "$LAB_H1" "$GW"
  [[ -n $(flow_left_at "$LAB_H1" "$GW") ]] || fail "the listener did not leave $GW" || return 1
  lab_send_mld_report "$LAB_H2" --count 2 --interval 0.02 "to_in:$GD" "block:$GB/$SB" >/dev/null 2>>"$T_WORK/report.err" ||
    fail "cannot send the report from h2" || return 1
  lab_wait_for 5 heard_at_least 2 dn1 3 "$GW" "$tl" || fail "h1's kernel did not send its two leave copies" || return 1
  lab_wait_for 5 heard_at_least 2 dn2 3 "$GD" "$tl" || fail "dn2 did not get h2's two leave copies" || return 1
  lab_wait_for 10 up_has_records 2 3 "$GW" - "$tl" || fail "the leave of $GW was not reported upstream" || { up_show_reports "$tl"; return 1; }
  lab_wait_for 10 up_has_records 2 3 "$GD" - "$tl" || fail "the leave of $GD was not reported upstream" || { up_show_reports "$tl"; return 1; }
  lab_wait_for 10 up_has_records 2 6 "$GB" "$SB" "$tl" || fail "the block of $SB in $GB was not reported upstream" || { up_show_reports "$tl"; return 1; }
  queries_at_least 2 dn1 "$GW" "$tl" || fail "$(queries_for dn1 "$GW" "$tl") group-specific queries for $GW on dn1 (want 2)" || return 1
  queries_at_least 2 dn2 "$GD" "$tl" || fail "$(queries_for dn2 "$GD" "$tl") group-specific queries for $GD on dn2 (want 2)" || return 1
  [[ $(source_queries_for dn2 "$GB" "$SB" "$tl") -ge 2 ]] ||
    fail "$(source_queries_for dn2 "$GB" "$SB" "$tl") queries for $SB in $GB on dn2 (want 2 or more)" || return 1
  sleep 1
  lines_after=$(wc -l <"$LOG")
  if grep -q 'numSrc' "$LOG" || [[ $lines_after -ne $lines_before ]]; then
    fail "the leaves left lines in the daemon's log ($lines_before lines before, $lines_after after)"
    show_file "$LOG" 10 "daemon output"
    return 1
  fi
  say "leaves of $GW (h1's kernel) and $GD (twice in 20 ms): $(queries_for dn1 "$GW" "$tl") and $(queries_for dn2 "$GD" "$tl") group-specific queries, CHANGE_TO_INCLUDE{} upstream; block of $SB in $GB (twice in 20 ms): $(source_queries_for dn2 "$GB" "$SB" "$tl") source-specific queries, BLOCK upstream; no log line"
}

# 4. h2 names :: as the source of a CHANGE_TO_EXCLUDE for ff0e::7544. The daemon reports the
# group upstream without it, and nothing the router sent during the whole run (the queries of
# check 3's leaves included) lists :: as a source.
no_unspecified_source_sent() {
  t_need_setup || return 1
  local t0 bad
  t0=$(lab_now_us)
  lab_send_mld_report "$LAB_H2" "to_ex:$GX/::" >/dev/null 2>>"$T_WORK/report.err" || fail "cannot send the report from h2" || return 1
  lab_wait_for 5 heard_at_least 1 dn2 4 "$GX" "$t0" || fail "the report naming :: never reached dn2" || return 1
  lab_wait_for 5 up_has_records 2 4 "$GX" '*' "$t0" ||
    fail "the daemon did not report $GX upstream" || { up_show_reports "$t0"; return 1; }
  sleep 2.5 # the retransmissions of everything still pending
  up_capture_stop
  [[ $(queries_for dn1 "$GW" 0) -ge 2 ]] ||
    fail "the capture holds no queries of check 3's leave: it cannot show that they lack ::" || return 1
  bad=$(unspecified_sources)
  [[ -z $bad ]] || fail "messages with :: as a source: $(head -n 5 <<<"$bad" | tr '\n' ';')" || return 1
  say "$(up_decode | awk '$3 == "out" && ($4 == "query" || $4 == "report")' | wc -l) queries and reports sent, none lists ::; $GX reported as $(upstream_mentions "$GX" | sort -u | tr '\n' ' ')"
}

# ---------------------------------------------------------------------------------------------
# set-up and the run

setup() {
  t_lab_up snoop && t_start 40 || return 1
  up_capture_start "$T_WORK/cap.pcap" || fail "cannot capture in the router namespace" || return 1
  SETUP_OK=1
}

START_US=$(lab_now_us)

# 5. h1 sends a report of twelve ALLOW records (ff0e::a:1 with seven sources, ff0e::a:2 ...
# ff0e::a:c with one each) on dn1; right after it, h2 sends on dn2 a 140-byte report with one
# TO_EX record (seven sources) for ff0e::b:1 whose header claims twelve records. Both arrive in
# the router's one receive buffer, the second over the first: the rest of the earlier report,
# from byte 140 on, is never read again, so dn2 gets ff0e::b:1 and none of the twelve groups.
short_report_replays_nothing() {
  t_need_setup || return 1
  local recs=() g i=1 groups seven=2001:db8:b::1,2001:db8:b::2,2001:db8:b::3,2001:db8:b::4
  seven+=,2001:db8:b::5,2001:db8:b::6,2001:db8:b::7
  # The first record has seven sources, like the short report's one record: the earlier
  # report's second record then starts just where the short report ends.
  for g in "${GR_EARLIER[@]}"; do
    if [[ $i -eq 1 ]]; then recs+=("allow:$g/$seven"); else recs+=("allow:$g/2001:db8:a::$i"); fi
    i=$((i + 1))
  done
  lab_send_mld_report "$LAB_H1" "${recs[@]}" >/dev/null 2>>"$T_WORK/report.err" || fail "cannot send the report from h1" || return 1
  lab_send_mld_report "$LAB_H2" --claim 12 "to_ex:$GR/$seven" >/dev/null 2>>"$T_WORK/report.err" || fail "cannot send the report from h2" || return 1
  sleep 1
  status_json "$T_WORK/status.json" >/dev/null
  groups=$(json_query "$T_WORK/status.json" "'\\n'.join(l['name'] + ':' + ','.join(sorted(g['group'] for g in l['groups']
    if g['group'].startswith('ff0e::a:') or g['group'] == 'ff0e::b:1')) for l in s['links'] if l['name'] in ('dn1', 'dn2'))")
  say "groups the two reports left: $(tr '\n' ' ' <<<"$groups")"
  grep -qx "dn1:ff0e::a:1,ff0e::a:2,ff0e::a:3,ff0e::a:4,ff0e::a:5,ff0e::a:6,ff0e::a:7,ff0e::a:8,ff0e::a:9,ff0e::a:a,ff0e::a:b,ff0e::a:c" <<<"$groups" ||
    fail "dn1 does not hold the twelve groups of h1's report: $groups" || return 1
  grep -qx "dn2:$GR" <<<"$groups" || fail "dn2 holds more than the short report's $GR: $groups" || return 1
}

T_REASON=
if setup; then
  say "lab up, daemon started ($(elapsed_ms "$START_US") ms)"
else
  say "set-up failed: $T_REASON"
  show_file "$LOG" 20 "daemon output"
fi
check link_scope_groups_never_reported_upstream link_scope_groups_stay_on_their_link
check twelve_source_allow_on_top_of_three_heard_whole_upstream twelve_sources_on_top_of_three_heard_whole
check ordinary_leaves_leave_no_log_line leave_leaves_no_line
check short_report_never_replays_an_earlier_one short_report_replays_nothing
check no_unspecified_address_as_a_source_in_any_message no_unspecified_source_sent

t_end "$LOG"
say "lab time: $(elapsed_ms "$START_US") ms"
exit 0
