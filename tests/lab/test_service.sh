#!/usr/bin/env bash
# The systemd unit's privileges are enough, and nothing more is used: the daemon runs as the
# unit would run it (ExecStart's command, an unprivileged user, only the capabilities of
# CapabilityBoundingSet / AmbientCapabilities, no new privileges), through setpriv, with the
# installed example configuration (its UPSTREAM_IFNAME set to the lab's up0). It must register
# its MIFs, forward a group that a host joins, and end on SIGTERM with status 0; /proc/PID/status
# shows it never had more. Each capability of the unit is shown to be needed. Its system calls,
# traced from exec to exit, all lie within the unit's SystemCallFilter=. What systemd adds
# besides (ProtectSystem, ProtectHome, the other sandboxing lines) is not reproduced here.
#
#   src ── br0 ── up0 [rt: mldproxyd as nobody, CAP_NET_ADMIN and CAP_NET_RAW] dn1 ── h1
#                                                                             dn2 ── h2

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

# The unit as `cmake --install --prefix /usr` installs it (the template with its path filled in).
UNIT_TEMPLATE=$LAB_ROOT/packaging/systemd/mldproxyd.service.in
UNIT=$T_WORK/mldproxyd.service
sed 's|@MLD_SBINDIR@|/usr/sbin|g' "$UNIT_TEMPLATE" >"$UNIT" 2>/dev/null || rm -f "$UNIT"
EXAMPLE_CONF=$LAB_ROOT/packaging/mld.conf
LOG=$T_WORK/daemon.log
RUN_USER=nobody RUN_GROUP=nogroup # stands in for the unit's unprivileged user (DynamicUser=yes)
G=ff0e::1:201 PORT=5201
# What the daemon uses: CAP_NET_RAW (raw ICMPv6 sockets, the Router Alert option) and
# CAP_NET_ADMIN (SO_RCVBUFFORCE: the router socket's 1 MiB receive queue). The kernel lets the
# socket that made MRT6_INIT make the other MRT6 calls.
WANT_CAPS=cap_net_admin,cap_net_raw
WANT_CAP_MASK=0000000000003000 # bits 12 (CAP_NET_ADMIN) and 13 (CAP_NET_RAW)
BIG_QUEUE=2097152              # the kernel's accounting of a 1 MiB SO_RCVBUFFORCE

# rcvbuf PID: the largest SO_RCVBUF among the process's raw ICMPv6 sockets.
rcvbuf() { "$LAB_PYTHON" "$LAB_ROOT/tests/lab/sock_rcvbuf.py" "$1" 2>&1; }

EXEC_ARGS=() CAPS='' SETPRIV='' BIN='' CONF='' DAEMON='' SETUP_OK=0

# unit_value KEY: the value of KEY= in the unit (the last line with it), without blanks around.
unit_value() { sed -nE "s/^[[:space:]]*$1[[:space:]]*=[[:space:]]*(.*[^[:space:]])?[[:space:]]*$/\\1/p" "$UNIT" | tail -n 1; }

# cap_list "CAP_A CAP_B": "cap_a,cap_b", sorted.
cap_list() { tr ' ' '\n' <<<"$1" | grep . | tr '[:upper:]' '[:lower:]' | sort | paste -sd, -; }

# setpriv_cmd CAPS: the setpriv command line (blank-separated words) that runs a program the way
# the unit does, with the capabilities CAPS ("cap_a,cap_b"; empty: none).
setpriv_cmd() {
  local set=-all c
  for c in ${1//,/ }; do set+=",+${c#cap_}"; done
  printf 'setpriv --reuid=%s --regid=%s --clear-groups --inh-caps=%s --ambient-caps=%s --bounding-set=%s' \
    "$RUN_USER" "$RUN_GROUP" "$set" "$set" "$set"
  [[ $(unit_value NoNewPrivileges) == yes ]] && printf ' --no-new-privs'
  printf '\n'
}

# status_field PID NAME: a field of /proc/PID/status (tabs as blanks).
status_field() { awk -v n="$2:" '$1 == n { $1 = ""; sub(/^ /, ""); print; exit }' "/proc/$1/status" 2>/dev/null; }

# ---------------------------------------------------------------------------------------------
# the unit

unit_settings() {
  [[ -f $UNIT ]] || fail "no unit file $UNIT_TEMPLATE" || return 1
  local exec bound ambient user dynamic protect
  exec=$(unit_value ExecStart)
  say "unit $UNIT_TEMPLATE (installed with ExecStart in /usr/sbin):"
  grep -E '^(Type|ExecStart|Restart|User|DynamicUser|CapabilityBoundingSet|AmbientCapabilities|NoNewPrivileges|ProtectSystem|ProtectHome)=' "$UNIT" | sed 's/^/#   /'
  [[ $(unit_value Type) == simple ]] || fail "Type is '$(unit_value Type)', want simple (the daemon does not fork)" || return 1
  [[ $(unit_value Restart) == on-failure ]] || fail "Restart is '$(unit_value Restart)', want on-failure" || return 1
  # A "+" or "!" prefix would run the command with full privileges, "@" would change argv[0].
  [[ $exec =~ ^/[^[:space:]]*/mldproxyd([[:space:]].*)?$ ]] || fail "ExecStart '$exec' is not the absolute path of mldproxyd (with no prefix)" || return 1
  read -ra EXEC_ARGS <<<"${exec#*mldproxyd}"
  bound=$(cap_list "$(unit_value CapabilityBoundingSet)")
  ambient=$(cap_list "$(unit_value AmbientCapabilities)")
  [[ $bound == "$WANT_CAPS" ]] || fail "CapabilityBoundingSet gives '$bound', want exactly $WANT_CAPS" || return 1
  [[ $ambient == "$bound" ]] || fail "AmbientCapabilities gives '$ambient', CapabilityBoundingSet '$bound'" || return 1
  [[ $(unit_value NoNewPrivileges) == yes ]] || fail "NoNewPrivileges is not yes" || return 1
  protect=$(unit_value ProtectSystem)
  [[ $protect == strict || $protect == full ]] || fail "ProtectSystem is '$protect', want strict or full" || return 1
  [[ $(unit_value ProtectHome) == yes ]] || fail "ProtectHome is not yes" || return 1
  user=$(unit_value User) dynamic=$(unit_value DynamicUser)
  [[ $dynamic == yes || ( -n $user && $user != root && $user != 0 ) ]] ||
    fail "the unit runs as root (no DynamicUser=yes, User='$user')" || return 1
  CAPS=$bound
  SETPRIV=$(setpriv_cmd "$CAPS")
  say "runs as: $SETPRIV <daemon>${EXEC_ARGS[*]:+ ${EXEC_ARGS[*]}}"
}

# ---------------------------------------------------------------------------------------------
# set-up

setup() {
  t_need_daemon || return 1
  [[ -n $SETPRIV ]] || fail "the unit could not be read (previous check)" || return 1
  command -v setpriv >/dev/null || fail "setpriv (util-linux) is not installed" || return 1
  # The unit names only its control socket, in its RuntimeDirectory; the lab gives the daemon a
  # socket of its own instead.
  [[ ${#EXEC_ARGS[@]} -eq 0 || ( ${#EXEC_ARGS[@]} -eq 2 && ${EXEC_ARGS[0]} == -s && ${EXEC_ARGS[1]} == /run/$(unit_value RuntimeDirectory)/* ) ]] ||
    fail "ExecStart passes arguments (${EXEC_ARGS[*]}) other than -s with a socket in its RuntimeDirectory" || return 1
  # The daemon where the unprivileged user can reach it (T_WORK is private to root).
  chmod 755 "$T_WORK" && mkdir -p "$T_WORK/sbin" && install -m 755 "$LAB_DAEMON" "$T_WORK/sbin/mldproxyd" ||
    fail "cannot copy the daemon" || return 1
  BIN=$T_WORK/sbin/mldproxyd
  # The installed example configuration, with the lab's upstream link.
  CONF=$T_WORK/mld.conf
  sed -E 's/^UPSTREAM_IFNAME[[:space:]].*/UPSTREAM_IFNAME up0/' "$EXAMPLE_CONF" >"$CONF" || fail "no $EXAMPLE_CONF" || return 1
  say "configuration: $EXAMPLE_CONF with UPSTREAM_IFNAME up0: $(grep -v '^#' "$CONF" | tr '\n' ';')"
  t_lab_up sources flood || return 1
  SETUP_OK=1
}

# ---------------------------------------------------------------------------------------------
# checks

# started_with_unit_privileges: the daemon, run as the unit runs it, takes up every link.
started_with_unit_privileges() {
  [[ $SETUP_OK == 1 ]] || fail "no lab (set-up failed)" || return 1
  lab_start_daemon -b "$BIN" -c "$CONF" -l "$LOG" -w "$SETPRIV" || fail "the daemon did not start through setpriv: $(head -c 300 "$LOG")" || return 1
  DAEMON=$LAB_DAEMON_PID
  if ! lab_wait_started 40; then
    fail "not every link became a MIF; MIFs [$(t_mif_table)]"
    show_file "$LOG" 20 "daemon output"
    return 1
  fi
  say "PID $DAEMON ($(readlink "/proc/$DAEMON/exe")); /proc/net/ip6_mr_vif of the router:"
  ip netns exec "$(lab_ns "$LAB_RT")" cat /proc/net/ip6_mr_vif | sed 's/^/#   /'
  lab_all_links_are_mifs || fail "MIFs [$(t_mif_table)], links $(lab_router_links | tr '\n' ' ')" || return 1
}

# runs_without_root: /proc/PID/status of the running daemon: not root, exactly the unit's
# capabilities in every set, no new privileges.
runs_without_root() {
  [[ -n $DAEMON ]] && t_daemon_alive || fail "no daemon running (an earlier check failed)" || return 1
  local field uid gid
  for field in Uid Gid CapInh CapPrm CapEff CapBnd CapAmb NoNewPrivs; do
    say "$(printf '%-10s %s' "$field:" "$(status_field "$DAEMON" "$field")")"
  done
  uid=$(status_field "$DAEMON" Uid) gid=$(status_field "$DAEMON" Gid)
  [[ $(tr -s ' \t' '\n' <<<"$uid" | sort -u) == "$(id -u "$RUN_USER")" ]] || fail "Uid is '$uid', want $(id -u "$RUN_USER") ($RUN_USER) in every field" || return 1
  [[ $(tr -s ' \t' '\n' <<<"$gid" | sort -u) == "$(getent group "$RUN_GROUP" | cut -d: -f3)" ]] || fail "Gid is '$gid', want $RUN_GROUP" || return 1
  for field in CapPrm CapEff CapBnd CapAmb; do
    [[ $(status_field "$DAEMON" "$field") == "$WANT_CAP_MASK" ]] || fail "$field is $(status_field "$DAEMON" "$field"), want $WANT_CAP_MASK ($WANT_CAPS)" || return 1
  done
  [[ $(status_field "$DAEMON" NoNewPrivs) == 1 ]] || fail "NoNewPrivs is not 1" || return 1
  local queue
  queue=$(rcvbuf "$DAEMON")
  say "receive queue of the router socket: $queue bytes"
  [[ $queue == "$BIG_QUEUE" ]] || fail "the router socket's receive buffer is '$queue', want $BIG_QUEUE (1 MiB asked with CAP_NET_ADMIN)" || return 1
}

# forwards_joined_group: h1 joins G, src's traffic to G reaches h1 through the kernel entry
# the unprivileged daemon wrote; h2 (no listener) is not in it.
forwards_joined_group() {
  [[ -n $DAEMON ]] && t_daemon_alive || fail "no daemon running (an earlier check failed)" || return 1
  local n oifs want
  flow_send_start "$LAB_SRC_ADDR1,$G,$PORT"
  flow_recv_start "$LAB_H1" "$G" "$PORT" || return 1
  lab_wait_for 10 flow_has_received "$LAB_H1" "$G" 50 ||
    fail "h1 received $(flow_received_count "$LAB_H1" "$G") datagrams of $G in 10 s (sender: $(head -c 200 "$T_WORK/send.log")); entries: $(lab_mfc_text "$G")" || return 1
  n=$(flow_received_count "$LAB_H1" "$G")
  oifs=$(lab_mfc_oifs "$G") want=$(lab_mif_set up0 dn1)
  say "h1 joined $G and received $n datagrams from $LAB_SRC_ADDR1; (*,$G) parent $(lab_mfc "$G" | cut -d' ' -f1) outputs [$oifs]; MIFs [$(t_mif_table)]"
  [[ $(lab_mfc "$G" | cut -d' ' -f1) == "$(lab_mif_index up0)" && $oifs == "$want" ]] ||
    fail "(*,$G) should have parent up0 and output to up0 + dn1 ([$want]): $(lab_mfc "$G")" || return 1
}

# sigterm_ends_cleanly: SIGTERM (while h1 still listens and the traffic flows) ends it within
# 3 s with status 0, its MIFs are gone, and with the example configuration (VERBOSE 0) it
# printed nothing at all: its set-up, MIFs and forwarding entry all worked without a message.
sigterm_ends_cleanly() {
  [[ -n $DAEMON ]] && t_daemon_alive || fail "no daemon running (an earlier check failed)" || return 1
  local t0
  t0=$(lab_now_us)
  lab_stop_daemon TERM 10 || fail "the daemon did not end within 10 s of SIGTERM" || return 1
  flow_stop_all
  say "SIGTERM: ended after $(elapsed_ms "$t0") ms with status $LAB_DAEMON_STATUS"
  [[ $LAB_DAEMON_STATUS == 0 ]] || { fail "exit status $LAB_DAEMON_STATUS after SIGTERM (want 0)"; show_file "$LOG" 20 "daemon output"; return 1; }
  [[ $(elapsed_ms "$t0") -le 3000 ]] || fail "took $(elapsed_ms "$t0") ms" || return 1
  [[ -z $(lab_mifs) ]] || fail "MIFs left after the daemon ended: [$(t_mif_table)]" || return 1
  if [[ -s $LOG ]]; then
    show_bytes "$LOG" "daemon output"
    fail "the daemon printed $(stat -c %s "$LOG") bytes (want none with VERBOSE 0)" || return 1
  fi
  say "daemon output: none"
}

# each_capability_needed: with one of the unit's capabilities dropped the daemon loses what it
# is for: without CAP_NET_RAW it cannot start and says why (no raw ICMPv6 socket); without
# CAP_NET_ADMIN it runs, but its router socket keeps the kernel's smaller receive queue.
each_capability_needed() {
  [[ $SETUP_OK == 1 && -n $CAPS ]] || fail "no lab or no unit (an earlier check failed)" || return 1
  local drop
  for drop in ${CAPS//,/ }; do
    case $drop in
      cap_net_raw) cannot_start_without "$drop" "MLDRT: Can't open router socket: socket: Operation not permitted" || return 1 ;;
      cap_net_admin) small_queue_without "$drop" || return 1 ;;
      *) fail "the unit grants $drop, which this test does not know the daemon to need" || return 1 ;;
    esac
  done
}

# caps_without CAP: the unit's capabilities less CAP.
caps_without() { tr ',' '\n' <<<"$CAPS" | grep -vx "$1" | paste -sd, -; }

cannot_start_without() {
  local drop=$1 want=$2 keep log=$T_WORK/daemon-without-$1.log status=0
  keep=$(caps_without "$drop")
  lab_start_daemon -x -b "$BIN" -c "$CONF" -l "$log" -w "$(setpriv_cmd "$keep")" || fail "could not start the daemon without $drop" || return 1
  if ! lab_wait_exit "$LAB_DAEMON_PID" 10; then
    lab_stop_daemon KILL 5
    fail "the daemon kept running without $drop"
    return 1
  fi
  wait "$LAB_DAEMON_PID" 2>/dev/null || status=$?
  say "without $drop (capabilities: ${keep:-none}): $(tr '\n' ' ' <<<"$(cat "$log")") (exit status $status)"
  [[ $status == 1 ]] || fail "without $drop the daemon ended with status $status, want 1 (a failed start)" || return 1
  grep -qxF "$want" "$log" || fail "without $drop the output is '$(head -c 200 "$log")', want the line '$want'" || return 1
  [[ -z $(lab_mifs) ]] || fail "MIFs registered without $drop: [$(t_mif_table)]"
}

# Without CAP_NET_ADMIN the queue is capped by net.core.rmem_max (a machine-wide setting): it is
# set to Debian's default for the time of the check, as a router would have it, and put back.
small_queue_without() {
  local drop=$1 keep log=$T_WORK/daemon-without-$1.log queue started=1
  local sysctl=/proc/sys/net/core/rmem_max rmem_max
  keep=$(caps_without "$drop")
  rmem_max=$(cat "$sysctl") || fail "cannot read $sysctl" || return 1
  echo 212992 >"$sysctl" || fail "cannot set $sysctl" || return 1
  lab_start_daemon -b "$BIN" -c "$CONF" -l "$log" -w "$(setpriv_cmd "$keep")" || started=0
  if [[ $started == 1 ]] && lab_wait_started 40; then
    queue=$(rcvbuf "$LAB_DAEMON_PID")
  fi
  echo "$rmem_max" >"$sysctl"
  [[ $started == 1 ]] || fail "could not start the daemon without $drop" || return 1
  lab_stop_daemon TERM 10 || fail "the daemon without $drop did not end on SIGTERM" || return 1
  [[ -n $queue ]] || fail "without $drop not every link became a MIF" || return 1
  say "without $drop (capabilities: ${keep:-none}): it runs, router socket receive queue $queue bytes (rmem_max 212992)"
  [[ $queue =~ ^[0-9]+$ && $queue -gt 0 && $queue -lt $BIG_QUEUE ]] || fail "without $drop the receive queue is '$queue', want less than $BIG_QUEUE"
}

# filter_syscalls SET: the system call names of a SystemCallFilter= set, nested sets expanded.
filter_syscalls() {
  local name
  systemd-analyze syscall-filter --no-pager "$1" | awk 'NR > 1 && $1 !~ /^#/ { print $1 }' |
    while read -r name; do
      case $name in @*) filter_syscalls "$name" ;; *) echo "$name" ;; esac
    done
}

# traced_daemon TRACER: the PID of the child of strace that runs $BIN (strace forks children of
# its own at start to probe the kernel's ptrace, so the first child need not be it).
traced_daemon() {
  local i kid
  for ((i = 0; i < 250; i++)); do
    for kid in $(cat "/proc/$1/task/$1/children" 2>/dev/null); do
      [[ $(readlink "/proc/$kid/exe" 2>/dev/null) == "$BIN" ]] && { echo "$kid"; return 0; }
    done
    sleep 0.02
  done
  return 1
}

# syscalls_within_filter: the daemon, traced from its exec to its end as the unit runs it (MIFs
# registered, a group joined and forwarded, `mldproxyd status` answered, SIGTERM), makes only
# system calls that the unit's SystemCallFilter= allows; with SystemCallErrorNumber=EPERM any
# other would fail under systemd. Every name strace saw must be in the expanded sets.
syscalls_within_filter() {
  [[ $SETUP_OK == 1 && -n $SETPRIV ]] || fail "no lab or no unit (an earlier check failed)" || return 1
  command -v systemd-analyze >/dev/null || fail "no systemd-analyze (package systemd)" || return 1
  local sets allowed=$T_WORK/allowed trace=$T_WORK/syscalls.strace log=$T_WORK/daemon-traced.log
  local used missing tracer daemon status=0 set
  sets=$(unit_value SystemCallFilter)
  [[ -n $sets && $sets != "~"* ]] || fail "the unit has no allow-list SystemCallFilter= ('$sets')" || return 1
  for set in $sets; do
    if [[ $set == @* ]]; then filter_syscalls "$set"; else echo "$set"; fi
  done | sort -u >"$allowed"
  [[ -s $allowed ]] || fail "systemd-analyze expands '$sets' to $(wc -l <"$allowed") calls" || return 1
  local sock=$LAB_STATE/run/traced.sock # a directory the unprivileged daemon may write
  # ip netns exec execs strace: $! is the tracer, its child the daemon (setpriv execs it).
  # shellcheck disable=SC2086 # SETPRIV is a command line of blank-separated words
  ip netns exec "$(lab_ns "$LAB_RT")" strace -f -qq -o "$trace" $SETPRIV "$BIN" -f "$CONF" -s "$sock" \
    </dev/null >"$log" 2>&1 &
  tracer=$!
  daemon=$(traced_daemon "$tracer") || { kill -TERM "$tracer"; fail "no daemon process under strace (PID $tracer)"; return 1; }
  # The daemon itself is what the other helpers (and the clean-up at the end) watch and stop.
  DAEMON=$daemon LAB_DAEMON_PID=$daemon
  lab_wait_started 40 || fail "not every link became a MIF under strace: [$(t_mif_table)]; output: $(head -c 300 "$log")" || return 1
  forwards_joined_group || return 1 # (a receiver's log starts anew: what came before does not count)
  lab_exec "$LAB_RT" "$BIN" status -s "$sock" >"$T_WORK/status.txt" 2>&1 ||
    fail "mldproxyd status: $(head -c 200 "$T_WORK/status.txt")" || return 1
  kill -TERM "$daemon"
  lab_wait_exit "$tracer" 10 || { show_file "$trace" 10 strace; kill -KILL "$daemon"; fail "the traced daemon did not end on SIGTERM"; return 1; }
  wait "$tracer" 2>/dev/null || status=$? # strace ends with its tracee's status
  flow_stop_all
  [[ $status == 0 ]] || fail "the traced daemon ended with status $status" || return 1
  # From the daemon's exec on: before it, strace saw setpriv (whose work systemd does itself).
  used=$(awk -v bin="$BIN" 'started { if (match($2, /^[a-z0-9_]+\(/)) print substr($2, 1, RLENGTH - 1); next }
    $2 ~ "^execve\\(\"" bin "\"" && / = 0$/ { started = 1 }' "$trace" | sort -u)
  [[ $(wc -l <<<"$used") -gt 10 ]] || fail "strace recorded only: $(tr '\n' ' ' <<<"$used")" || return 1
  say "system calls of the daemon ($(wc -l <<<"$used")): $(tr '\n' ' ' <<<"$used")"
  missing=$(comm -23 <(echo "$used") "$allowed")
  [[ -z $missing ]] || fail "not in SystemCallFilter=$sets: $(tr '\n' ' ' <<<"$missing")"
}

check unit_runs_unprivileged_with_cap_net_admin_and_cap_net_raw unit_settings
check service_lab_setup setup
check daemon_under_unit_privileges_registers_every_link started_with_unit_privileges
check daemon_runs_as_nobody_with_exactly_the_units_capabilities runs_without_root
check daemon_under_unit_privileges_forwards_a_joined_group forwards_joined_group
check sigterm_ends_unprivileged_daemon_with_status_0 sigterm_ends_cleanly
check each_capability_of_the_unit_is_needed each_capability_needed
check every_system_call_of_the_daemon_is_in_the_units_filter syscalls_within_filter

t_end

exit 0
