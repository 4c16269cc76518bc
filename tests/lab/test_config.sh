#!/usr/bin/env bash
# Configuration failures of the real binary: a missing /etc/mld/mld.conf, ROBUSTNESS_VARIABLE 0,
# no upstream interface and lines the reader does not understand each print their messages on
# standard output, byte for byte (deployed scripts match these texts, leading newline included;
# every message ends with a newline, and every line not understood is named with the file, its
# line number and the word), nothing on standard error, and end the daemon with status 1 (a
# failed start that a service manager must see).
#
# `mldproxyd -t` checks a file and exits 0 or 1, and `--help` prints the usage and exits, both
# without a single socket (strace watches); a daemon that went on to route would still run.
#
# The daemon runs in a namespace of its own (mldlab-cfg), so that a daemon that wrongly went on
# could not touch the router's multicast routing.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

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
    lab_stop "$LAB_DAEMON_PID"
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

# without_sockets NAME STATUS EXPECTED COMMAND...: COMMAND, run under strace in the namespace,
# ends within 5 s with STATUS, its standard output begins with EXPECTED (printf format), and it
# opened no socket. strace's own record of the end proves that it watched.
without_sockets() {
  local name=$1 want_status=$2 expected=$3 out=$T_WORK/$1.out trace=$T_WORK/$1.trace status=0
  shift 3
  t_need_daemon || return 1
  command -v strace >/dev/null || fail "strace is not installed" || return 1
  ip netns exec "$(lab_ns "$NS")" timeout 5 strace -f -e trace=socket,socketpair -o "$trace" -- "$@" \
    </dev/null >"$out" 2>"$out.err" || status=$?
  grep -q "+++ exited with $status +++" "$trace" || fail "strace did not see the command end with $status ($(tail -n 1 "$trace"))" || return 1
  [[ $status -eq $want_status ]] || { fail "exit status $status, want $want_status"; show_file "$out" 10 "standard output"; return 1; }
  # shellcheck disable=SC2059 # the expected text is written with printf escapes
  [[ $(head -c "$(printf "$expected" | wc -c)" "$out") == "$(printf "$expected")" ]] ||
    { fail "standard output does not begin as expected"; show_bytes "$out" "got"; return 1; }
  ! grep -Eq '^[0-9]+ +socket' "$trace" || fail "it opened a socket: $(grep -E '^[0-9]+ +socket' "$trace" | head -n 1)" || return 1
}

good=$T_WORK/good.conf
printf 'UPSTREAM_IFNAME up0\nROBUSTNESS_VARIABLE 2\nQUERY_INTERVAL 4\n' >"$good"
typos=$T_WORK/typos.conf
printf 'UPSTREAM_IFACE up0\nupstream_ifname up0\nQUERY_INTERVAL=4\nROBUSTNESS_VARIABLE 9\nQUERY_INTERVAL 4s\n' >"$typos"
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
    "\\nMLDRT: Can't open file /etc/mld/mld.conf: fopen: No such file or directory\\n"
  check robustness_0_message_and_status_1 config_message robustness0 "$robustness_zero" \
    '\nMLDRT: Robustness must be greater than 1\nMLDRT: /etc/mld/mld.conf:2: out of range 1-7 "0"\n'
  check no_upstream_message_and_status_1 config_message noupstream "$no_upstream" \
    'MLDRT: Upstream interface not specified\n'
  check upstream_keyword_without_name_counts_as_none config_message upstreamnoname "$upstream_without_name" \
    'MLDRT: /etc/mld/mld.conf:1: no value for "UPSTREAM_IFNAME"\nMLDRT: Upstream interface not specified\n'
  check each_line_not_understood_named_with_file_and_line config_message typos "$typos" \
    'MLDRT: /etc/mld/mld.conf:1: unknown keyword "UPSTREAM_IFACE"\nMLDRT: /etc/mld/mld.conf:2: unknown keyword "upstream_ifname"\nMLDRT: /etc/mld/mld.conf:3: unknown keyword "QUERY_INTERVAL=4"\nMLDRT: /etc/mld/mld.conf:4: out of range 1-7 "9"\nMLDRT: /etc/mld/mld.conf:5: not a number "4s"\nMLDRT: Upstream interface not specified\n'
  check check_mode_good_file_exits_0_without_a_socket without_sockets checkgood 0 \
    "MLDRT: QUERY_RESPONSE_INTERVAL not set, using the RFC 3810 default 10000 ms\\n" "$LAB_DAEMON" -t -f "$good"
  check check_mode_bad_file_exits_1_without_a_socket without_sockets checkbad 1 \
    "MLDRT: $typos:1: unknown keyword \"UPSTREAM_IFACE\"\\n" "$LAB_DAEMON" -f "$typos" -t
  check help_with_a_good_file_exits_0_without_a_socket without_sockets help 0 \
    'usage: mldproxyd' "$LAB_DAEMON" -f "$good" --help
else
  for name in missing_config_file_message_and_status_1 robustness_0_message_and_status_1 \
    no_upstream_message_and_status_1 upstream_keyword_without_name_counts_as_none \
    each_line_not_understood_named_with_file_and_line check_mode_good_file_exits_0_without_a_socket \
    check_mode_bad_file_exits_1_without_a_socket help_with_a_good_file_exits_0_without_a_socket; do
    printf 'not ok - %s: cannot create the namespace %s\n' "$name" "$(lab_ns "$NS")"
  done
fi

exit 0
