#!/usr/bin/env bash
# The ThreadSanitizer build of the daemon (MLD_TSAN_DAEMON) through the paths where its two
# threads meet: start-up, a link added while it runs (taken up by the running input thread), and
# shutdown on SIGTERM. ThreadSanitizer must report nothing and the exit status must be 0
# (ThreadSanitizer makes it 66 after a report).
#
# Without MLD_TSAN_DAEMON the check is reported as skipped, never as passed.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

NAME=tsan_startup_link_add_and_sigterm_report_nothing

tsan_run() {
  local bin=$1 log=$T_WORK/daemon-tsan.log start
  [[ -x $bin ]] || fail "MLD_TSAN_DAEMON=$bin is not an executable file" || return 1
  lab_up || fail "the lab could not be built" || return 1
  lab_start_daemon -b "$bin" -l "$log" || fail "the daemon did not start" || return 1
  if ! lab_wait_for 60 lab_all_links_are_mifs; then
    fail "start-up: MIFs [$(t_mif_table)], links [$(lab_router_links | tr '\n' ' ')] after 60 s"
    show_file "$log" 40 "daemon output"
    return 1
  fi
  start=$(lab_now_us)
  lab_add_downstream dn3 h3 || fail "could not add link dn3" || return 1
  if ! lab_wait_for 60 lab_has_mif dn3; then
    fail "dn3 is no MIF 60 s after it came up; MIFs [$(t_mif_table)]"
    show_file "$log" 40 "daemon output"
    return 1
  fi
  say "dn3 became a MIF $(elapsed_ms "$start") ms after it was created"
  # Let the start-up work for dn3 run before the signal.
  lab_wait_started 60 || say "the router did not fall quiet; stopping it anyway"
  if ! lab_stop_daemon TERM 10; then
    fail "still running 10 s after SIGTERM"
    show_file "$log" 40 "daemon output"
    return 1
  fi
  if grep -q 'ThreadSanitizer' "$log"; then
    fail "ThreadSanitizer reported: $(grep -m 1 'ThreadSanitizer' "$log")"
    sed -n '/WARNING: ThreadSanitizer\|FATAL: ThreadSanitizer/,/^SUMMARY: ThreadSanitizer/p' "$log" | head -n 60 | sed 's/^/#   /'
    return 1
  fi
  [[ $LAB_DAEMON_STATUS -eq 0 ]] || { fail "exit status $LAB_DAEMON_STATUS, want 0"; show_file "$log" 20 "daemon output"; return 1; }
}

if [[ -z ${MLD_TSAN_DAEMON:-} ]]; then
  skip "$NAME" "MLD_TSAN_DAEMON is not set (build with -DMLD_SANITIZE=thread and point it at the binary)"
else
  check "$NAME" tsan_run "$(realpath -m -- "$MLD_TSAN_DAEMON")"
fi

exit 0
