#!/usr/bin/env bash
# Idle cost without an upstream link: while the configured upstream interface does not exist,
# the daemon has nowhere to report to and leaves the reports that reach its router socket
# queued. A host that keeps reporting (an MLDv2 report every 100 ms, as a busy LAN does) must not
# make it spin: over 10 s it may use less than 0.05 s of CPU time (user + system).

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

WINDOW=10      # seconds measured
LIMIT_MS=50    # CPU time allowed in the window
MIN_REPORTS=80 # reports that must reach the router in the window (100 are sent)

reports_arriving() { [[ $(lab_counter "$LAB_RT" dn1 Icmp6InMLDv2Reports) -ge $(($1 + 3)) ]]; }

cpu_without_upstream() {
  local conf=$T_WORK/no-such-upstream.conf log=$T_WORK/daemon.log sender=$T_WORK/sender.log
  local spid c0 c1 r0 r1 t0 t1 hz used_ms got
  t_lab_up || return 1
  lab_write_conf "$conf" UPSTREAM_IFNAME=nosuch0
  t_start 40 -c "$conf" -l "$log" || { show_file "$log" 20 "daemon output"; return 1; }
  r0=$(lab_counter "$LAB_RT" dn1 Icmp6InMLDv2Reports)
  # 15 s of reports: the sender needs a moment to start, the window begins once reports arrive.
  ip netns exec "$(lab_ns "$LAB_H1")" "$LAB_PYTHON" "$LAB_PY" report --iface eth0 --count 150 --interval 0.1 is_ex:ff0e::1:101 \
    >"$sender" 2>&1 &
  spid=$!
  if ! lab_wait_for 15 reports_arriving "$r0"; then
    lab_stop "$spid"
    fail "the host's reports do not reach the router's dn1"
    show_file "$sender" 10 "sender"
    return 1
  fi
  hz=$(getconf CLK_TCK)
  c0=$(lab_cpu_ticks "$LAB_DAEMON_PID") r0=$(lab_counter "$LAB_RT" dn1 Icmp6InMLDv2Reports) t0=$(lab_now_us)
  sleep "$WINDOW"
  c1=$(lab_cpu_ticks "$LAB_DAEMON_PID") r1=$(lab_counter "$LAB_RT" dn1 Icmp6InMLDv2Reports) t1=$(lab_now_us)
  lab_stop "$spid"
  [[ -n $c0 && -n $c1 ]] || fail "the daemon ended during the measurement" || return 1
  got=$((r1 - r0))
  used_ms=$(((c1 - c0) * 1000 / hz))
  say "$got reports reached dn1 in $(((t1 - t0) / 1000)) ms; the daemon used $((c1 - c0)) ticks = $used_ms ms of CPU (limit $LIMIT_MS ms)"
  [[ $got -ge $MIN_REPORTS ]] || fail "only $got reports reached the router in ${WINDOW} s (want $MIN_REPORTS): the load was not applied" || return 1
  [[ $(((c1 - c0) * 1000)) -lt $((LIMIT_MS * hz)) ]] || fail "the daemon used $used_ms ms of CPU in ${WINDOW} s (limit $LIMIT_MS ms)" || return 1
  t_daemon_alive || fail "the daemon ended" || return 1
}

check cpu_below_50ms_in_10s_without_upstream_under_reports cpu_without_upstream
t_end

exit 0
