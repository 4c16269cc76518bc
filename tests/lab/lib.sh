# shellcheck shell=bash
# Shared by the lab tests (sourced by each tests/lab/test_*.sh): the lab library, reporting of
# checks, scratch space and clean-up.
#
# A check is a function that returns 0 when the behaviour was observed and otherwise calls
# `fail REASON` (which returns 1); `check NAME FUNCTION [ARGS...]` runs it and prints
# "ok - NAME" or "not ok - NAME: REASON". A check that cannot do what it has to observe fails;
# only `skip NAME REASON` reports a check as skipped, and run.sh counts it as such.

set -u
export LC_ALL=C

LAB_TESTS_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# Run by run.sh, the run's own prefix and state; run alone, one of this process's own.
export MLD_LAB_PREFIX=${MLD_LAB_PREFIX:-mldlab-$$-}
export MLD_LAB_STATE=${MLD_LAB_STATE:-/run/mldlab/run-$$}
# shellcheck source=tools/lab.sh
. "$LAB_TESTS_DIR/../../tools/lab.sh"

T_WORK=$(mktemp -d /tmp/mldlab-test.XXXXXX) || exit 1
T_REASON=

t_cleanup() {
  lab_down >/dev/null 2>&1 || lab_down
  rm -rf "$T_WORK"
  # A state directory of this process's own (run alone) goes too.
  [[ $LAB_STATE == /run/mldlab/run-$$ ]] && rm -rf -- "$LAB_STATE"
}
trap t_cleanup EXIT

# Lines starting with "#" are commentary for the reader; run.sh counts only the result lines.
say() { printf '# %s\n' "$*"; }

fail() {
  T_REASON=$*
  return 1
}

check() {
  local name=$1
  shift
  T_REASON=
  if "$@"; then
    printf 'ok - %s\n' "$name"
  else
    printf 'not ok - %s: %s\n' "$name" "${T_REASON:-failed without a reason}"
  fi
}

skip() { printf 'skipped - %s: %s\n' "$1" "$2"; }

# show_file FILE [LINES] [TITLE]: the last lines of a file as commentary.
show_file() {
  local file=$1 lines=${2:-30} title=${3:-$1}
  if [[ -s $file ]]; then
    say "---- $title (last $lines lines)"
    tail -n "$lines" "$file" | sed 's/^/#   /'
  else
    say "---- $title: empty"
  fi
}

# show_bytes FILE TITLE: a file's bytes as od -c commentary.
show_bytes() {
  say "---- $2:"
  od -A d -c "$1" | sed 's/^/#   /'
}

# The daemon binary these tests run (MLD_DAEMON, default build/mldproxyd), resolved.
t_need_daemon() {
  [[ -x $LAB_DAEMON ]] || fail "daemon binary $LAB_DAEMON does not exist (build it, or set MLD_DAEMON)"
}

# t_mif_table: the MIF table as one line ("0:up0 1:dn1 ...") for messages.
t_mif_table() { lab_mifs | awk '{ printf "%s%s:%s", (NR > 1 ? " " : ""), $1, $2 }'; }

# t_has_mfc GROUP: the router's kernel has a (*,G) entry for GROUP.
t_has_mfc() { [[ -n $(lab_mfc "$1") ]]; }

# t_daemon_alive: the daemon started last is still running.
t_daemon_alive() { [[ -n $LAB_DAEMON_PID ]] && ! lab_exited "$LAB_DAEMON_PID"; }

# t_stop PID: end a process this test started if it still runs (TERM, then KILL) and collect it.
t_stop() {
  local pid=$1
  [[ -n $pid ]] || return 0
  if ! lab_exited "$pid"; then
    kill -TERM "$pid" 2>/dev/null
    lab_wait_exit "$pid" 5 || kill -KILL "$pid" 2>/dev/null
  fi
  wait "$pid" 2>/dev/null
  return 0
}

# elapsed_ms START_US: milliseconds since START_US (lab_now_us).
elapsed_ms() { printf '%s' $((($(lab_now_us) - $1) / 1000)); }

# status_json FILE: the daemon's status as JSON, asked in the router's namespace with the
# daemon binary itself; the time it took in ms on standard output.
status_json() {
  local start
  start=$(lab_now_us)
  lab_exec "$LAB_RT" "$LAB_DAEMON" status --json -s "$LAB_CONTROL_SOCKET" >"$1" 2>"$1.err" || return 1
  elapsed_ms "$start"
}

# json_query FILE EXPR: EXPR evaluated in Python with the status as `s`, printed.
json_query() {
  "$LAB_PYTHON" -c 'import json, sys; s = json.load(open(sys.argv[1])); print(eval(sys.argv[2]))' "$1" "$2"
}

# ---------------------------------------------------------------------------------------------
# real traffic (tests/lab/mcast_flow.py): one sender on src, receivers on hosts, what each link
# carried (tcpdump lines), all ended by flow_stop_all (or by t_cleanup, with the namespaces)

FLOW_SEND_PID=''
declare -A FLOW_RECV_PID=()
FLOW_CAPTURES=()

# flow_send_start SOURCE,GROUP,PORT...: src sends 100 datagrams a second to each flow, hop limit
# 16 (replaces the sender before).
flow_send_start() {
  flow_send_stop
  ip netns exec "$(lab_ns "$LAB_SRC")" "$LAB_PYTHON" "$LAB_FLOW_PY" send --iface eth0 --rate 100 --hops 16 "$@" \
    >"$T_WORK/send.log" 2>&1 &
  FLOW_SEND_PID=$!
}
flow_send_stop() {
  t_stop "$FLOW_SEND_PID"
  FLOW_SEND_PID=''
}

flow_recv_log() { printf '%s/recv-%s-%s.log' "$T_WORK" "$1" "$2"; }

# flow_recv_start HOST GROUP PORT [mcast_flow.py recv options]: a receiver in HOST joins GROUP
# on eth0 (other interfaces with --iface) and logs what it gets; fails when it did not join.
# flow_recv_launch does not wait for the join (flow_recv_joined does), so that several hosts
# can join in the same instant.
flow_recv_start() { flow_recv_launch "$@" && flow_recv_joined "$1" "$2"; }

flow_recv_launch() {
  local host=$1 group=$2 port=$3 log args
  shift 3
  log=$(flow_recv_log "$host" "$group")
  rm -f "$log"
  args=(recv --group "$group" --port "$port" --log "$log" "$@")
  [[ " $* " == *" --iface "* ]] || args+=(--iface eth0)
  # ip netns exec execs the receiver: $! is the receiver itself.
  ip netns exec "$(lab_ns "$host")" "$LAB_PYTHON" "$LAB_FLOW_PY" "${args[@]}" 2>"$log.err" &
  FLOW_RECV_PID[$host/$group]=$!
}

flow_recv_joined() {
  local log
  log=$(flow_recv_log "$1" "$2")
  lab_wait_for 30 grep -qs '^JOINED' "$log" ||
    fail "the receiver in $1 did not join $2: $(head -c 300 "$log.err" 2>/dev/null)"
}

# flow_recv_stop HOST GROUP: the receiver closes its sockets (its kernel reports the leave).
flow_recv_stop() {
  t_stop "${FLOW_RECV_PID[$1/$2]:-}"
  unset "FLOW_RECV_PID[$1/$2]"
}

# flow_recv_signal HOST GROUP SIGNAL: e.g. USR1, the first --leave-first interfaces leave.
flow_recv_signal() { kill -"$3" "${FLOW_RECV_PID[$1/$2]}"; }

flow_joined_at() { awk '$1 == "JOINED" { print $2; exit }' "$(flow_recv_log "$1" "$2")" 2>/dev/null; }

# flow_received HOST GROUP [SOURCE] [IFACE]: times of the datagrams the receiver got (from
# SOURCE, on IFACE; "" for any).
flow_received() {
  awk -v s="${3:-}" -v i="${4:-}" '$1 ~ /^[0-9]/ && (s == "" || $2 == s) && (i == "" || $4 == i) { print $1 }' \
    "$(flow_recv_log "$1" "$2")" 2>/dev/null
}
flow_received_count() { flow_received "$@" | wc -l; }
# flow_has_received HOST GROUP N [SOURCE] [IFACE]: at least N datagrams.
flow_has_received() { [[ $(flow_received_count "$1" "$2" "${4:-}" "${5:-}") -ge $3 ]]; }

# flow_wire_start NAME NS IFNAME: the UDP packets on that link, into $T_WORK/udp-NAME.txt.
flow_wire_start() {
  lab_capture_lines "$2" "$3" "$T_WORK/udp-$1.txt" udp || return 1
  FLOW_CAPTURES+=("$LAB_CAPTURE_PID")
}

# flow_wire NAME GROUP [SOURCE]: times of the packets to GROUP (from SOURCE) that link carried.
flow_wire() { lab_udp_times "$T_WORK/udp-$1.txt" "$2" "${3:-}"; }
# flow_wire_count NAME GROUP SOURCE AFTER: how many of them came after the time AFTER.
flow_wire_count() { flow_wire "$1" "$2" "$3" | awk -v a="$4" '$1 > a { n++ } END { print n + 0 }'; }

# flow_wait_more NAME GROUP N SOURCE...: each flow SOURCE -> GROUP shows N packets more in the
# capture NAME than when called, within 10 s (SOURCE "" for any source).
flow_wait_more() {
  local name=$1 group=$2 more=$3 s n
  shift 3
  for s in "$@"; do
    n=$(($(flow_wire_count "$name" "$group" "$s" 0) + more))
    lab_wait_for 10 flow_wire_has "$name" "$group" "$s" "$n" ||
      fail "the flow ${s:-from src} -> $group does not reach $name (sender: $(head -c 200 "$T_WORK/send.log"))" || return 1
  done
}
flow_wire_has() { [[ $(flow_wire_count "$1" "$2" "$3" 0) -ge $4 ]]; }

flow_stop_all() {
  local key
  flow_send_stop
  for key in "${!FLOW_RECV_PID[@]}"; do t_stop "${FLOW_RECV_PID[$key]}"; done
  FLOW_RECV_PID=()
  lab_capture_stop "${FLOW_CAPTURES[@]}"
  FLOW_CAPTURES=()
}
