#!/usr/bin/env bash
# Signals: SIGTERM, SIGHUP, SIGUSR1 and SIGABRT each end a fully started daemon within 3 s with
# exit status 0, after it removed every MIF it registered (MRT6_DEL_MIF, one per interface) and
# then switched multicast routing off (MRT6_DONE, last). The kernel would empty the MRT6 tables
# at exit anyway, so the calls themselves are watched, with strace.
#
# SIGUSR2 prints the state that `mldproxyd status` shows (here: h1's group on dn1) and the
# daemon goes on; every message it printed, from start-up to shutdown, ends with a newline.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

MRT6_CALLS=("$LAB_PYTHON" "$LAB_ROOT/tests/lab/mrt6_calls.py")

# signal_ends_daemon SIGNAL
signal_ends_daemon() {
  local sig=$1 trace=$T_WORK/strace-$1.txt log=$T_WORK/daemon-$1.log calls=$T_WORK/mrt6-$1.txt
  local daemon mifs t_sig ms status
  t_need_daemon || return 1
  command -v strace >/dev/null || fail "strace is not installed" || return 1
  lab_start_daemon -s "$trace" -l "$log" || fail "the daemon did not start under strace" || return 1
  daemon=$(lab_traced_pid "$LAB_DAEMON_PID") || fail "cannot find the daemon under strace" || return 1
  if ! lab_wait_started 40; then
    fail "the daemon did not finish starting up; MIFs [$(t_mif_table)]"
    show_file "$log" 20 "daemon output"
    return 1
  fi
  mifs=$(lab_mifs | awk '{ print $1 }' | sort -n | tr '\n' ' ')
  t_sig=$(lab_now_us)
  kill -"$sig" "$daemon" || fail "cannot send SIG$sig" || return 1
  if ! lab_wait_exit "$daemon" 3; then
    lab_wait_exit "$daemon" 10 || kill -KILL "$daemon" 2>/dev/null
    lab_stop "$LAB_DAEMON_PID"
    fail "still running 3 s after SIG$sig"
    show_file "$log" 20 "daemon output"
    return 1
  fi
  ms=$(elapsed_ms "$t_sig")
  # strace ends with the traced program's exit status (or dies of the same signal).
  lab_wait_exit "$LAB_DAEMON_PID" 10 || { lab_stop "$LAB_DAEMON_PID"; fail "strace did not end after the daemon"; return 1; }
  status=0
  wait "$LAB_DAEMON_PID" || status=$?
  [[ $status -eq 0 ]] || { fail "exit status $status after SIG$sig (want 0)"; show_file "$log" 20 "daemon output"; return 1; }
  say "SIG$sig: ended after $ms ms with status 0"
  "${MRT6_CALLS[@]}" "$trace" >"$calls" || fail "cannot read the strace log" || return 1
  check_shutdown_calls "$calls" "$t_sig" "$mifs" || { show_file "$calls" 20 "MRT6 calls (time thread call MIF result)"; return 1; }
  return 0
}

# check_shutdown_calls CALLS SIGNAL_TIME_US "MIF INDEXES": after the signal, one MRT6_DEL_MIF
# for each registered MIF, each successful, then exactly one MRT6_DONE as the last MRT6 call.
check_shutdown_calls() {
  local calls=$1 t_sig=$2 mifs=$3 after deleted n_done last
  # Times in the strace log are seconds with microseconds.
  after=$(awk -v t="$t_sig" '{ split($1, p, "."); us = p[1] * 1000000 + p[2]; if (us >= t) print }' "$calls")
  [[ $(grep -c ' INIT ' "$calls") -eq 1 ]] || fail "want exactly one MRT6_INIT, saw $(grep -c ' INIT ' "$calls")" || return 1
  [[ -n $after ]] || fail "no MRT6 call after the signal (MIFs were [$mifs])" || return 1
  deleted=$(awk '$3 == "DEL_MIF" { print $4 }' <<<"$after" | sort -n | tr '\n' ' ')
  [[ $deleted == "$mifs" ]] || fail "MRT6_DEL_MIF after the signal for MIFs [$deleted], want one for each of [$mifs]" || return 1
  awk '$3 == "DEL_MIF" && $5 != "0" { bad = 1 } END { exit bad }' <<<"$after" ||
    fail "an MRT6_DEL_MIF failed: $(awk '$3 == "DEL_MIF" && $5 != "0"' <<<"$after" | head -n 1)" || return 1
  n_done=$(grep -c ' DONE ' "$calls")
  [[ $n_done -eq 1 ]] || fail "want exactly one MRT6_DONE, saw $n_done" || return 1
  last=$(tail -n 1 <<<"$after")
  [[ $(awk '{ print $3, $5 }' <<<"$last") == "DONE 0" ]] || fail "the last MRT6 call is not a successful MRT6_DONE: $last" || return 1
  # No link went away, so nothing was deleted before the signal.
  [[ $(grep -c ' DEL_MIF ' "$calls") -eq $(wc -w <<<"$mifs") ]] ||
    fail "MRT6_DEL_MIF before the signal too: $(grep -c ' DEL_MIF ' "$calls") in all for $(wc -w <<<"$mifs") MIFs" || return 1
}

# ends_with_newline FILE: the file is not empty and its last byte is a newline.
ends_with_newline() { [[ -s $1 && $(tail -c 1 "$1" | od -An -c | tr -d ' ') == '\n' ]]; }

# state_printed_since LOG OFFSET GROUP: after byte OFFSET of LOG, the status table with GROUP
# among dn1's groups.
state_printed_since() {
  tail -c +$(($2 + 1)) "$1" | awk -v g="$3" '/^groups on dn1:/ { on = 1; next } /^[a-z]/ { on = 0 } on && $1 == g { found = 1 } END { exit !found }'
}

# The configuration leaves out two keys, so that start-up prints the lines of their defaults:
# messages whose newline can be checked.
sigusr2_prints_state_and_daemon_goes_on() {
  local conf=$T_WORK/usr2.conf log=$T_WORK/daemon-usr2.log g=ff0e::7602 offset
  t_need_daemon || return 1
  lab_write_conf "$conf" LAST_LISTENER_QUERY_INTERVAL= LAST_LISTENER_QUERY_COUNT=
  t_start 40 -c "$conf" -l "$log" || return 1
  grep -q '^MLDRT: LAST_LISTENER_QUERY_INTERVAL not set' "$log" || fail "no line for the default taken" || { show_file "$log" 10 "daemon output"; return 1; }
  ends_with_newline "$log" || fail "the start-up messages do not end with a newline" || { show_bytes "$log" "daemon output"; return 1; }
  flow_recv_launch "$LAB_H1" "$g" 5602
  lab_wait_for 10 t_has_mfc "$g" || fail "h1's join of $g made no forwarding entry" || return 1
  offset=$(stat -c %s "$log")
  kill -USR2 "$LAB_DAEMON_PID" || fail "cannot send SIGUSR2" || return 1
  lab_wait_for 3 state_printed_since "$log" "$offset" "$g" || { fail "no state with $g on dn1 printed within 3 s of SIGUSR2"; show_file "$log" 20 "daemon output"; return 1; }
  flow_recv_stop "$LAB_H1" "$g"
  sleep 1
  t_daemon_alive || fail "the daemon ended after SIGUSR2" || return 1
  ends_with_newline "$log" || fail "the state printed does not end with a newline" || return 1
  say "SIGUSR2: $(($(stat -c %s "$log") - offset)) bytes of state printed, the daemon runs on"
  lab_stop_daemon TERM 10 || fail "the daemon did not end on SIGTERM" || return 1
  [[ $LAB_DAEMON_STATUS == 0 ]] || fail "exit status $LAB_DAEMON_STATUS after SIGTERM" || return 1
  ends_with_newline "$log" || fail "the shutdown messages do not end with a newline" || { show_bytes "$log" "daemon output"; return 1; }
}

if lab_up; then
  for sig in TERM HUP USR1 ABRT; do
    check "sig${sig,,}_ends_daemon_with_status_0_after_mrt6_cleanup" signal_ends_daemon "$sig"
  done
  check sigusr2_prints_state_and_daemon_goes_on sigusr2_prints_state_and_daemon_goes_on
else
  for sig in TERM HUP USR1 ABRT; do
    printf 'not ok - %s: the lab could not be built\n' "sig${sig,,}_ends_daemon_with_status_0_after_mrt6_cleanup"
  done
  printf 'not ok - sigusr2_prints_state_and_daemon_goes_on: the lab could not be built\n'
fi

exit 0
