#!/usr/bin/env bash
# Configuration failures of the real binary: a missing /etc/mld/mld.conf, ROBUSTNESS_VARIABLE 0
# and no upstream interface each print their one message on standard output, byte for byte
# (deployed scripts match these texts, leading newline and missing trailing newline included),
# nothing on standard error, and end the daemon with status 1 (a failed start that a service
# manager must see).
#
# The daemon runs in a namespace of its own (mldlab-cfg), so that a daemon that wrongly went on
# could not touch the router's multicast routing.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tests/lab/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

NS=cfg

# config_message NAME CONF EXPECTED: CONF is a file or '' for no file; EXPECTED is printf format
# text of the whole expected standard output.
config_message() {
  local name=$1 conf=$2 expected=$3 out=$T_WORK/$1.out err=$T_WORK/$1.err want=$T_WORK/$1.want status=0
  t_need_daemon || return 1
  # shellcheck disable=SC2059 # the expected text is written with printf escapes
  printf "$expected" >"$want"
  lab_start_daemon -x -n "$NS" -c "$conf" -l "$out" -e "$err" || fail "the daemon did not start" || return 1
  if ! lab_wait_exit "$LAB_DAEMON_PID" 15; then
    t_stop "$LAB_DAEMON_PID"
    fail "still running 15 s after start (it should have given up on its configuration)"
    show_file "$out" 10 "standard output"
    return 1
  fi
  wait "$LAB_DAEMON_PID" || status=$?
  if ! cmp -s "$want" "$out"; then
    fail "standard output differs from the expected $(wc -c <"$want") bytes"
    show_bytes "$want" "expected"
    show_bytes "$out" "got"
    return 1
  fi
  if [[ -s $err ]]; then
    fail "unexpected standard error output"
    show_file "$err" 10 "standard error"
    return 1
  fi
  [[ $status -eq 1 ]] || fail "exit status $status, want 1" || return 1
  [[ -z $(lab_mifs "$NS") ]] || fail "MIFs were registered: $(lab_mifs "$NS" | tr '\n' ' ')" || return 1
}

no_upstream=$T_WORK/no-upstream.conf
cat >"$no_upstream" <<'EOF'
ROBUSTNESS_VARIABLE 2
QUERY_INTERVAL 4
QUERY_RESPONSE_INTERVAL 1000
LAST_LISTENER_QUERY_INTERVAL 1
LAST_LISTENER_QUERY_COUNT 2
EOF
upstream_without_name=$T_WORK/upstream-without-name.conf
printf 'UPSTREAM_IFNAME\nROBUSTNESS_VARIABLE 2\nQUERY_INTERVAL 4\n' >"$upstream_without_name"
robustness_zero=$T_WORK/robustness-zero.conf
printf 'UPSTREAM_IFNAME up0\nROBUSTNESS_VARIABLE 0\nQUERY_INTERVAL 4\n' >"$robustness_zero"

if lab_down && lab_ns_create "$NS"; then
  check missing_config_file_message_and_status_1 config_message missing '' \
    "\\nMLDRT: Can't open file /etc/mld/mld.conf"
  check robustness_0_message_and_status_1 config_message robustness0 "$robustness_zero" \
    '\nMLDRT: Robustness must be greater than 1'
  check no_upstream_message_and_status_1 config_message noupstream "$no_upstream" \
    'MLDRT: Upstream interface not specified\n'
  check upstream_keyword_without_name_counts_as_none config_message upstreamnoname "$upstream_without_name" \
    'MLDRT: Upstream interface not specified\n'
else
  for name in missing_config_file_message_and_status_1 robustness_0_message_and_status_1 \
    no_upstream_message_and_status_1 upstream_keyword_without_name_counts_as_none; do
    printf 'not ok - %s: cannot create the namespace %s\n' "$name" "$(lab_ns "$NS")"
  done
fi

exit 0
