#!/usr/bin/env bash
# tools/demo.sh, the newcomer's first look, judges its own story: with the real daemon its last
# line is "PASS: ..." with the figures and it exits 0; with a daemon that proxies nothing (its
# configuration names an upstream link that does not exist) the last line is "FAIL: ..." naming
# the step that did not happen, and it exits non-zero.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

# run_demo OUT [ENV...]: the demo in a lab of its own (a prefix of this run's), the daemon
# under test; its exit status.
run_demo() {
  local out=$1
  shift
  env MLD_LAB_PREFIX="${MLD_LAB_PREFIX}demo-" MLD_LAB_STATE="$LAB_STATE/demo" MLD_DAEMON="$LAB_DAEMON" "$@" \
    timeout 240 bash "$LAB_ROOT/tools/demo.sh" >"$out" 2>&1
}

demo_passes() {
  t_need_daemon || return 1
  local out=$T_WORK/demo.txt status=0 verdict
  run_demo "$out" || status=$?
  verdict=$(tail -n 1 "$out")
  say "demo: exit status $status, last line: $verdict"
  [[ $status -eq 0 && $verdict == "PASS: join -> upstream report "* ]] ||
    { fail "exit status $status, last line '$verdict' (want PASS and 0)"; show_file "$out" 15 "demo output"; return 1; }
  [[ $verdict == *"datagrams on h2's link (no listener) 0" ]] || fail "the verdict lacks its figures: $verdict" || return 1
}

demo_fails_without_proxying() {
  t_need_daemon || return 1
  local out=$T_WORK/demo-fail.txt status=0 verdict
  run_demo "$out" MLD_DEMO_UPSTREAM=wan9 || status=$?
  verdict=$(tail -n 1 "$out")
  say "demo with an upstream that does not exist: exit status $status, last line: $verdict"
  [[ $status -ne 0 && $verdict == "FAIL: "* ]] || fail "exit status $status, last line '$verdict' (want FAIL and non-zero)" || return 1
}

check demo_tells_its_story_and_ends_with_pass demo_passes
check demo_ends_with_fail_when_the_daemon_proxies_nothing demo_fails_without_proxying
exit 0
