#!/usr/bin/env bash
# Interfaces and MIFs: the daemon takes up every multicast link of the router as a MIF, follows
# links that appear and disappear while it runs, and hands out the lowest free MIF index. With
# DOWNSTREAM_IFNAME lines only the named links (and the upstream) are taken up: of three
# downstream-capable links, the one not named gets no MIF and no query on its wire.
#
# Linux itself removes a deleted link's MIF, so a deletion is proved by what only the daemon
# decides: the next new link gets the freed index (the daemon picks MIF indexes from its own
# interface records; a record left behind would push the new link to a higher index).

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

LOG=$T_WORK/daemon.log
# A new link is taken up as soon as its link-local address is reported; the bound is for a
# loaded test machine (tests/lab/test_timing.sh holds the daemon to 0.5 s).
MIF_TIMEOUT=30

# A fresh daemon registers every router link except lo, with indexes 0 .. n-1.
every_link_becomes_a_mif() {
  t_lab_up || return 1
  lab_start_daemon -l "$LOG" || fail "the daemon did not start" || return 1
  if ! lab_wait_for 30 lab_all_links_are_mifs; then
    fail "after 30 s the MIFs are [$(t_mif_table)], the router's links [$(lab_router_links | tr '\n' ' ')]"
    return 1
  fi
  local n indexes want
  n=$(lab_router_links | wc -l)
  indexes=$(lab_mifs | awk '{ print $1 }' | sort -n | tr '\n' ' ')
  want=$(seq 0 $((n - 1)) | tr '\n' ' ')
  [[ $indexes == "$want" ]] || fail "MIF indexes [$indexes], want [$want] (the lowest free ones)" || return 1
  say "MIFs: $(t_mif_table)"
  t_daemon_alive || fail "the daemon ended" || return 1
}

# A link added while the daemon runs becomes a MIF, with the lowest free index.
added_link_becomes_a_mif() {
  t_daemon_alive || fail "no daemon running (the previous check failed)" || return 1
  lab_wait_started 30 || fail "the daemon did not finish starting up" || return 1
  local before start want got
  before=$(t_mif_table)
  want=$(lab_mifs | wc -l)
  start=$(lab_now_us)
  lab_add_downstream dn3 h3 || fail "could not add link dn3" || return 1
  if ! lab_wait_for "$MIF_TIMEOUT" lab_has_mif dn3; then
    fail "dn3 is no MIF ${MIF_TIMEOUT} s after it came up; MIFs [$(t_mif_table)]"
    return 1
  fi
  say "dn3 became a MIF $(elapsed_ms "$start") ms after it was created"
  got=$(lab_mif_index dn3)
  [[ $got == "$want" ]] || fail "dn3 has MIF index $got, want $want (lowest free); MIFs [$(t_mif_table)]" || return 1
  [[ $(lab_mifs | grep -vw dn3 | awk '{ printf "%s%s:%s", (NR > 1 ? " " : ""), $1, $2 }') == "$before" ]] ||
    fail "the other MIFs changed: before [$before], now [$(t_mif_table)]" || return 1
  t_daemon_alive || fail "the daemon ended" || return 1
}

# del_and_reuse IFNAME HOST NEWIF NEWHOST: delete a link, add another; the new one must get the
# deleted link's MIF index.
del_and_reuse() {
  local ifname=$1 host=$2 newif=$3 newhost=$4 freed got start
  freed=$(lab_mif_index "$ifname")
  [[ -n $freed ]] || fail "$ifname is no MIF to begin with; MIFs [$(t_mif_table)]" || return 1
  lab_del_downstream "$ifname" "$host" || fail "could not delete $ifname" || return 1
  lab_wait_for 10 lab_has_no_mif "$ifname" || fail "MIF of deleted $ifname still listed" || return 1
  lab_add_downstream "$newif" "$newhost" || fail "could not add link $newif" || return 1
  start=$(lab_now_us)
  if ! lab_wait_for "$MIF_TIMEOUT" lab_has_mif "$newif"; then
    fail "$newif is no MIF ${MIF_TIMEOUT} s after it came up (after $ifname was deleted); MIFs [$(t_mif_table)]"
    return 1
  fi
  say "$newif became a MIF $(elapsed_ms "$start") ms after it was created"
  got=$(lab_mif_index "$newif")
  if [[ $got != "$freed" ]]; then
    fail "$newif got MIF index $got, want $freed, freed by deleting $ifname; MIFs [$(t_mif_table)]"
    return 1
  fi
  say "$ifname (MIF $freed) deleted, $newif got MIF $got; MIFs now [$(t_mif_table)]"
}

# After the link added last is deleted, its (highest) MIF index is the one the next link gets.
deleted_link_frees_its_index() {
  t_daemon_alive || fail "no daemon running (a previous check failed)" || return 1
  lab_has_mif dn3 || fail "dn3 is no MIF (the previous check failed)" || return 1
  del_and_reuse dn3 h3 dn4 h4 || return 1
  t_daemon_alive || fail "the daemon ended" || return 1
}

# A freed index below others still in use is the one the next link gets (lowest free index,
# not the next never used one).
lowest_free_index_is_reused() {
  t_daemon_alive || fail "no daemon running (a previous check failed)" || return 1
  local low high
  low=$(lab_mif_index dn1) high=$(lab_mif_index dn4)
  [[ -n $low && -n $high && $low -lt $high ]] || fail "want dn1's MIF below dn4's: [$(t_mif_table)]" || return 1
  del_and_reuse dn1 "$LAB_H1" dn5 h5 || return 1
  lab_all_links_are_mifs || fail "MIFs [$(t_mif_table)] do not match links [$(lab_router_links | tr '\n' ' ')]" || return 1
  t_daemon_alive || fail "the daemon ended" || return 1
}

# general_queries LINK: the number of MLD queries captured on the link (mld_capture_start).
general_queries() { mld "$1" | grep -c ' type=130 '; }
general_queries_at_least() { [[ $(general_queries "$2") -ge $1 ]]; }

# Three links to hosts, dn1 and dn2 named by DOWNSTREAM_IFNAME, dn3 not. The daemon must be seen
# querying dn1 (so that a query on dn3 would have been sent by then) before dn3's wire and MIF
# table are judged.
only_named_downstream_links_are_taken_up() {
  local conf=$T_WORK/chosen.conf log=$T_WORK/chosen.log queries1 queries3 named
  t_lab_up || return 1
  lab_add_downstream dn3 h3 || fail "cannot add the third link" || return 1
  lab_write_conf "$conf"
  printf 'DOWNSTREAM_IFNAME dn1\nDOWNSTREAM_IFNAME dn2\n' >>"$conf"
  mld_capture_start chosen-dn1 "$LAB_H1" eth0 || fail "cannot capture on dn1's wire" || return 1
  mld_capture_start chosen-dn3 h3 eth0 || fail "cannot capture on dn3's wire" || return 1
  lab_start_daemon -c "$conf" -l "$log" || fail "the daemon did not start" || return 1
  local ok=1
  lab_wait_for 30 lab_has_mif dn2 || ok=0
  lab_wait_for 10 general_queries_at_least 2 chosen-dn1 || ok=0
  sleep 1 # dn3 would have had its first queries at the same moments as dn1
  lab_capture_stop
  queries1=$(general_queries chosen-dn1)
  queries3=$(general_queries chosen-dn3)
  named=$(grep -c '^MLDRT: Link dn3 is not a DOWNSTREAM_IFNAME, left alone$' "$log")
  say "MIFs [$(t_mif_table)]; general queries on dn1 $queries1, on dn3 $queries3"
  [[ $ok == 1 ]] || fail "the daemon did not take up dn1 and dn2 and query dn1 (MIFs [$(t_mif_table)], $queries1 queries on dn1)" || return 1
  lab_has_mif up0 && lab_has_mif dn1 || fail "up0 or dn1 is no MIF: [$(t_mif_table)]" || return 1
  lab_has_no_mif dn3 || fail "dn3 became a MIF: [$(t_mif_table)]" || return 1
  [[ $queries3 == 0 ]] || fail "$queries3 queries on dn3's wire" || return 1
  [[ $named == 1 ]] || fail "dn3 named $named times in the log, want once" || { show_file "$log" 10 "daemon output"; return 1; }
  t_daemon_alive || fail "the daemon ended" || return 1
  lab_stop_daemon TERM 10 || fail "the daemon did not end on SIGTERM" || return 1
}

check every_link_becomes_a_mif every_link_becomes_a_mif
check added_link_becomes_a_mif added_link_becomes_a_mif
check deleted_link_frees_its_mif_index deleted_link_frees_its_index
check lowest_free_mif_index_is_reused lowest_free_index_is_reused

t_end
check only_named_downstream_links_are_taken_up only_named_downstream_links_are_taken_up
# Failures are easier to read with the daemon's own words.
show_file "$LOG" 20 "daemon output"

exit 0
