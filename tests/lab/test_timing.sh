#!/usr/bin/env bash
# The daemon's timing as a user meets it, measured with tools/bench/probe.py (kernel
# timestamps of captured frames): ready (every link a MIF, a general query on every downstream
# link) within 1.5 s of its start, the start-up queries a quarter of the query interval apart,
# a hot-plugged link a MIF within 0.5 s and queried within 1 s, and a join on one link reported
# upstream within 0.5 s while another link's addresses change every 50 ms. (The bounds leave room
# for a loaded test machine; tools/bench.sh reports the figures themselves.)

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tests/lab/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

CONF=$T_WORK/mld.conf
SETUP_OK=0

probe() { "$LAB_PYTHON" "$LAB_PROBE_PY" "$@"; }

# value FILE KEY...: a number of the probe's JSON (nested keys), or "none".
value() {
  "$LAB_PYTHON" -c 'import json, sys
d = json.load(open(sys.argv[1]))
for k in sys.argv[2:]:
    d = d.get(k) if isinstance(d, dict) else None
print("none" if d is None else d)' "$@"
}

# at_most VALUE LIMIT
at_most() { [[ $1 != none ]] && awk -v v="$1" -v l="$2" 'BEGIN { exit !(v <= l) }'; }

ready_within_1500_ms() {
  t_need_daemon || return 1
  lab_up || fail "the lab could not be built" || return 1
  lab_write_conf "$CONF"
  sed -i 's/^QUERY_INTERVAL .*/QUERY_INTERVAL 8/' "$CONF"
  local out=$T_WORK/ready.txt ready gap1 gap2
  lab_with_probe ready "$out" --rt "$(lab_ns "$LAB_RT")" --links dn1,dn2 -- lab_start_daemon -c "$CONF" ||
    fail "the probe or the daemon did not start: $(head -c 300 "$out.err")" || return 1
  SETUP_OK=1
  ready=$(value "$out" ready_ms) gap1=$(value "$out" startup_query_gap_ms dn1) gap2=$(value "$out" startup_query_gap_ms dn2)
  say "start -> ready ${ready} ms (MIFs at $(value "$out" mifs_ms) ms); start-up query interval ${gap1} / ${gap2} ms (want 2000)"
  at_most "$ready" 1500 || fail "ready ${ready} ms after the start (want at most 1500)" || return 1
  awk -v a="$gap1" -v b="$gap2" 'BEGIN { exit !(a >= 1900 && a <= 2200 && b >= 1900 && b <= 2200) }' ||
    fail "start-up queries ${gap1} / ${gap2} ms apart (want 2000: a quarter of the 8 s query interval)" || return 1
}

hotplugged_link_taken_up_at_once() {
  [[ $SETUP_OK == 1 ]] || fail "no daemon (the first check failed)" || return 1
  local out=$T_WORK/hotplug.txt mif query
  lab_with_probe hotplug "$out" --rt "$(lab_ns "$LAB_RT")" --link dn3 -- lab_add_downstream dn3 h3 ||
    fail "the probe did not start: $(head -c 300 "$out.err")" || return 1
  mif=$(value "$out" mif_ms) query=$(value "$out" first_query_ms)
  say "hot-plugged dn3 (from the start of making it): MIF after ${mif} ms, first general query after ${query} ms"
  at_most "$mif" 500 || fail "dn3's MIF came ${mif} ms after the link was made (want at most 500)" || return 1
  at_most "$query" 1000 || fail "dn3's first general query came ${query} ms after the link was made (want at most 1000)" || return 1
}

joins_reported_during_address_churn() {
  [[ $SETUP_OK == 1 ]] || fail "no daemon (the first check failed)" || return 1
  local out=$T_WORK/churn.txt i max
  (for ((i = 1; i <= 20; i++)); do ip -n "$(lab_ns "$LAB_RT")" addr add "2001:db8:77::$i/64" dev dn2 nodad; sleep 0.05; done) &
  local churn=$!
  probe churn --rt "$(lab_ns "$LAB_RT")" --h1 "$(lab_ns "$LAB_H1")" --prefix ff0e::e: --tries 8 --gap 0.05 >"$out" 2>"$out.err"
  wait "$churn"
  max=$("$LAB_PYTHON" -c 'import json, sys
d = json.load(open(sys.argv[1]))
print(max(d["join_report_ms"]) if d["join_report_ms"] and not d["failures"] else "none")' "$out")
  say "joins on dn1 while dn2 gained 20 addresses 50 ms apart: join -> upstream report at most ${max} ms ($(tail -n 1 "$out"))"
  at_most "$max" 500 || fail "a join was reported upstream ${max} ms after it during address churn (want at most 500)" || return 1
}

check daemon_ready_within_1500_ms_with_startup_queries_a_quarter_interval_apart ready_within_1500_ms
check hotplugged_link_gets_its_mif_and_query_at_once hotplugged_link_taken_up_at_once
check join_reported_at_once_during_address_churn joins_reported_during_address_churn
if t_daemon_alive; then lab_stop_daemon TERM 10 || say "the daemon did not end on SIGTERM"; fi
exit 0
