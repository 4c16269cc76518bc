#!/usr/bin/env bash
# The mldproxyd lab: network namespaces around one router that runs the real daemon, and all that
# the lab tests (tests/lab/test_*.sh), tools/demo.sh and tools/bench.sh do in it.
#
#   src ── br0 (namespace up: MLD-snooping bridge, MLDv2 querier) ── up0 ┐
#                                                                        │ namespace rt:
#                                                    h1 (eth0) ── dn1 ───┤ mldproxyd, its own
#                                                    h2 (eth0) ── dn2 ───┘ /etc/mld/mld.conf
#
# Every namespace is called $LAB_PREFIX<name> (default prefix "mldlab-"; <name> is lower-case
# letters and digits), so that a crashed earlier run is found and removed by name. tests/lab/run.sh
# uses a prefix of its own per run ("mldlab-<PID>-"), so that a test run, another one and a lab
# brought up by hand do not touch each other's namespaces. The router's links are veth pairs made
# inside the namespaces (small interface indexes); every namespace has accept_dad=0 (addresses are
# usable at once) and sends no router solicitations (the router's ICMPv6 output is then the
# daemon's and its kernel's MLD only); each router link has exactly one link-local address.
#
# Use as a library (bash):   . tools/lab.sh      then lab_up, lab_start_daemon, lab_down, ...
# The sections below: building the lab (more hosts and links, the bridge's behaviour toward the
# router), the daemon, looking at the router (MIFs, the kernel's forwarding entries, counters),
# MLD and captures (tools/mldlab.py crafts and sends MLD messages and decodes captures), real
# traffic (flow_*), the upstream bridge and captures of the whole router namespace (up_*), and
# the lab tests' checks (a test file calls lab_test_file after sourcing this).
# Or from the command line (root):
#   tools/lab.sh up                  build the lab (removes an earlier one first)
#   tools/lab.sh start [CONF]        start the daemon in the router namespace (default: the
#                                    lab configuration, upstream up0); log in $LAB_STATE
#   tools/lab.sh stop [SIGNAL]       signal the daemon (default TERM) and wait for it to end
#   tools/lab.sh status              namespaces, the router's links and MIFs, the daemon
#   tools/lab.sh down                stop everything started in the lab and remove it
#
# Environment: MLD_DAEMON (daemon binary, default build/mldproxyd of this repository),
# MLD_LAB_PREFIX (namespace prefix), MLD_LAB_STATE (state directory, default /run/mldlab),
# MLD_LAB_KEEP (a lab test keeps its captures and logs in that directory, one folder a file).

# Single-quoted scripts for sh -c are meant literally; "a && b || fail" is meant as "fail unless
# both worked"; the LAB_* variables and the functions are for the scripts that source this file.
# shellcheck disable=SC2016,SC2015,SC2034,SC2119,SC2120,SC2317
LAB_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
LAB_PREFIX=${MLD_LAB_PREFIX:-mldlab-}
LAB_STATE=${MLD_LAB_STATE:-/run/mldlab}
LAB_DAEMON=${MLD_DAEMON:-$LAB_ROOT/build/mldproxyd}
LAB_PYTHON=/usr/bin/python3 # Debian's Python, the one whose packages the project installs
LAB_PY=$LAB_ROOT/tools/mldlab.py
LAB_PROBE_PY=$LAB_ROOT/tools/bench/probe.py
LAB_WORK=$LAB_STATE # where captures and traffic logs go (a test's own work directory)

# Namespace short names (lab_ns turns them into full names).
LAB_UP=up     # bridge br0 with the router's and the source's ports
LAB_SRC=src   # multicast source behind the bridge
LAB_RT=rt     # the router: mldproxyd runs here
LAB_H1=h1     # host on the router's dn1
LAB_H2=h2     # host on the router's dn2
LAB_UPSTREAM=up0
LAB_RT_PORT='p-rt' # the bridge's port toward the router, up0's peer
# Global addresses of the multicast source (lab_add_source_addrs puts them on src's eth0).
LAB_SRC_ADDR1=2001:db8:1::10
LAB_SRC_ADDR2=2001:db8:1::11
LAB_SRC_ADDR3=2001:db8:1::12

# Set by lab_start_daemon and lab_stop_daemon.
LAB_DAEMON_PID=''
LAB_CONTROL_SOCKET=''  # the daemon's control socket (mldproxyd status -s ...)
LAB_DAEMON_LOG=''
LAB_DAEMON_ERR=''
LAB_DAEMON_STATUS=''
LAB_FLOOD=on # off once lab_snoop_upstream ran: a new up0 gets mcast_flood off too
LAB_CAPTURES=() # tcpdumps started by lab_capture and not yet stopped

lab_say() { printf 'lab: %s\n' "$*" >&2; }

# lab_fail MESSAGE: why a helper failed (a check's reason in a lab test); returns 1.
lab_fail() { lab_say "$*"; return 1; }

lab_ns() { printf '%s%s' "$LAB_PREFIX" "$1"; }

# lab_namespaces: the namespaces of this lab (prefix followed by a plain name, so that
# "mldlab-" does not take in a test run's "mldlab-1234-rt").
lab_namespaces() {
  ip netns list 2>/dev/null | awk -v p="$LAB_PREFIX" '
    index($1, p) == 1 && substr($1, length(p) + 1) ~ /^[a-z][a-z0-9]*$/ { print $1 }'
}

# lab_clean_stale_runs: remove the namespaces and state of test runs ("mldlab-<PID>-...") whose
# run.sh process is gone (a crashed or killed run).
lab_clean_stale_runs() {
  local ns pid dir
  while read -r ns pid; do
    [[ -n $ns ]] || continue
    kill -0 "$pid" 2>/dev/null && continue
    lab_kill_ns_processes "$ns"
    ip netns del "$ns" 2>/dev/null || lab_say "cannot delete namespace $ns"
  done < <(ip netns list 2>/dev/null | sed -nE 's/^(mldlab-([0-9]+)-[a-z][a-z0-9]*)( .*)?$/\1 \2/p')
  for dir in /run/mldlab/run-*; do
    [[ -d $dir ]] || continue
    pid=${dir##*/run-}
    [[ $pid =~ ^[0-9]+$ ]] && ! kill -0 "$pid" 2>/dev/null && rm -rf -- "$dir"
  done
  return 0
}

# lab_exec NS CMD...: run CMD in the lab namespace NS (short name).
lab_exec() {
  local ns=$1
  shift
  ip netns exec "$(lab_ns "$ns")" "$@"
}

# Microseconds since the epoch (bash 5's EPOCHREALTIME; the scripts run with LC_ALL=C).
lab_now_us() {
  local t=$EPOCHREALTIME
  printf '%s' "${t/./}"
}

# lab_ms A B: milliseconds from the time A to the time B (seconds since the epoch), rounded.
lab_ms() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%d", (b - a) * 1000 + ((b - a) >= 0 ? 0.5 : -0.5) }'; }

# lab_sleep_until T [PLUS]: sleep until the time T (seconds since the epoch) + PLUS seconds, at
# most a minute.
lab_sleep_until() {
  sleep "$(awk -v t="$1" -v d="${2:-0}" -v now="$EPOCHREALTIME" 'BEGIN { l = t + d - now; printf "%.3f", (l < 0 ? 0 : (l > 60 ? 60 : l)) }')"
}

# lab_wait_for TIMEOUT_SECONDS CMD...: run CMD every 0.2 s until it succeeds (0) or time is up (1).
lab_wait_for() {
  local timeout=$1 deadline
  shift
  deadline=$(($(lab_now_us) + timeout * 1000000))
  while true; do
    "$@" && return 0
    [[ $(lab_now_us) -ge $deadline ]] && return 1
    sleep 0.2
  done
}

# True when PID has ended (gone, or a zombie nobody has collected yet).
lab_exited() {
  local stat
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 0
  stat=${stat##*) }
  [[ ${stat:0:1} == Z || ${stat:0:1} == X ]]
}

# lab_wait_exit PID TIMEOUT_SECONDS: 0 when PID ended within the time.
lab_wait_exit() {
  local deadline
  deadline=$(($(lab_now_us) + $2 * 1000000))
  while ! lab_exited "$1"; do
    [[ $(lab_now_us) -ge $deadline ]] && return 1
    sleep 0.02
  done
  return 0
}

# lab_stop [-SIGNAL] PID...: end processes this shell started, if they still run (SIGNAL,
# default TERM, then KILL after 5 s), and collect them.
lab_stop() {
  local sig=TERM pid
  [[ ${1:-} == -* ]] && { sig=${1#-}; shift; }
  for pid in "$@"; do
    [[ -n $pid ]] || continue
    if ! lab_exited "$pid"; then
      kill -"$sig" "$pid" 2>/dev/null
      lab_wait_exit "$pid" 5 || kill -KILL "$pid" 2>/dev/null
    fi
    wait "$pid" 2>/dev/null
  done
  return 0
}

# ---------------------------------------------------------------------------------------------
# building and removing the lab

# A namespace with the settings every lab namespace has.
lab_ns_create() {
  local full
  full=$(lab_ns "$1")
  ip netns add "$full" || return 1
  ip netns exec "$full" sh -c '
    for c in all default; do
      sysctl -qw net.ipv6.conf.$c.accept_dad=0 &&
      sysctl -qw net.ipv6.conf.$c.router_solicitations=0 || exit 1
    done
    ip link set lo up' || { lab_say "cannot create namespace $full"; return 1; }
}

# lab_link_up NS IFNAME: set a link up.
lab_link_up() { ip -n "$(lab_ns "$1")" link set "$2" up; }

# lab_ll_addr NS IFNAME: the link's link-local address (first one), without prefix length.
lab_ll_addr() {
  ip -n "$(lab_ns "$1")" -6 -o addr show dev "$2" scope link 2>/dev/null |
    awk '{ sub(/\/.*/, "", $4); print $4; exit }'
}

# lab_ll_count NS IFNAME: number of usable (not tentative) link-local addresses on the link.
lab_ll_count() {
  ip -n "$(lab_ns "$1")" -6 -o addr show dev "$2" scope link 2>/dev/null |
    grep -vc tentative || true
}

lab_has_one_ll() { [[ $(lab_ll_count "$1" "$2") -eq 1 ]]; }

# lab_wait_ll NS IFNAME: wait until the link has exactly one usable link-local address.
lab_wait_ll() {
  if ! lab_wait_for 10 lab_has_one_ll "$1" "$2"; then
    lab_say "$1/$2 has $(lab_ll_count "$1" "$2") usable link-local addresses (want exactly 1)"
    return 1
  fi
}

lab_up() {
  lab_down || return 1
  mkdir -p "$LAB_STATE" || return 1
  local ns
  for ns in "$LAB_UP" "$LAB_SRC" "$LAB_RT" "$LAB_H1" "$LAB_H2"; do
    lab_ns_create "$ns" || return 1
  done
  LAB_FLOOD=on
  # The upstream side: a bridge that snoops MLD and is itself the MLDv2 querier, with its own
  # link-local address (the querier's source address). The router's port floods unknown
  # multicast (the default); lab_snoop_upstream turns that off. The links come up in this
  # order, br0 after its ports and before their peers: with up0 up before br0, the bridge was
  # seen to send nothing to a port with mcast_flood off for twenty seconds and more, although
  # its mdb listed the group there.
  ip -n "$(lab_ns "$LAB_UP")" link add br0 type bridge mcast_snooping 1 mcast_querier 1 mcast_mld_version 2 &&
    lab_make_upstream &&
    ip -n "$(lab_ns "$LAB_SRC")" link add eth0 type veth peer name p-src netns "$(lab_ns "$LAB_UP")" &&
    ip -n "$(lab_ns "$LAB_UP")" link set p-src master br0 &&
    lab_link_up "$LAB_UP" "$LAB_RT_PORT" && lab_link_up "$LAB_UP" p-src && lab_link_up "$LAB_UP" br0 &&
    lab_link_up "$LAB_SRC" eth0 && lab_link_up "$LAB_RT" "$LAB_UPSTREAM" || {
    lab_say "cannot build the upstream side"
    return 1
  }
  lab_make_downstream dn1 "$LAB_H1" || return 1
  lab_make_downstream dn2 "$LAB_H2" || return 1
  lab_wait_ll "$LAB_UP" br0 && lab_wait_ll "$LAB_SRC" eth0 && lab_wait_ll "$LAB_RT" "$LAB_UPSTREAM" &&
    lab_wait_ll "$LAB_RT" dn1 && lab_wait_ll "$LAB_RT" dn2 &&
    lab_wait_ll "$LAB_H1" eth0 && lab_wait_ll "$LAB_H2" eth0
}

# lab_make_upstream [up]: the router's up0, a veth whose peer is the bridge's port p-rt
# (mcast_flood off after lab_snoop_upstream); with "up" both ends come up at once, as a
# plugged-in cable would. After up0 was deleted (its veth, so the bridge port went too), it
# makes them again with the same names.
lab_make_upstream() {
  ip -n "$(lab_ns "$LAB_RT")" link add "$LAB_UPSTREAM" type veth peer name "$LAB_RT_PORT" netns "$(lab_ns "$LAB_UP")" &&
    ip -n "$(lab_ns "$LAB_UP")" link set "$LAB_RT_PORT" master br0 &&
    { [[ $LAB_FLOOD == on ]] || lab_snoop_upstream; } || return 1
  [[ ${1:-} != up ]] || { lab_link_up "$LAB_UP" "$LAB_RT_PORT" && lab_link_up "$LAB_RT" "$LAB_UPSTREAM"; }
}

# lab_make_downstream IFNAME HOST: a veth link from the router's IFNAME to eth0 of the existing
# host namespace HOST, both ends up.
lab_make_downstream() {
  local ifname=$1 host=$2
  ip -n "$(lab_ns "$LAB_RT")" link add "$ifname" type veth peer name eth0 netns "$(lab_ns "$host")" &&
    lab_link_up "$host" eth0 && lab_link_up "$LAB_RT" "$ifname" || {
    lab_say "cannot make downstream link $ifname to $host"
    return 1
  }
}

# lab_add_downstream IFNAME HOST: a new host namespace HOST and a link to it from the router's
# IFNAME, both ends up, for use while the daemon runs. Waits for the link-local addresses.
lab_add_downstream() {
  local ifname=$1 host=$2
  lab_ns_create "$host" && lab_make_downstream "$ifname" "$host" || return 1
  lab_wait_ll "$LAB_RT" "$ifname" && lab_wait_ll "$host" eth0
}

# lab_del_downstream IFNAME HOST: delete the router's link IFNAME and the host namespace HOST.
lab_del_downstream() {
  local ifname=$1 host=$2 rc=0
  ip -n "$(lab_ns "$LAB_RT")" link del "$ifname" || rc=1
  lab_kill_ns_processes "$(lab_ns "$host")"
  ip netns del "$(lab_ns "$host")" || rc=1
  return "$rc"
}

# lab_add_lan HOST NEWNS IFNAME...: more hosts on HOST's link, in a new namespace NEWNS, one
# interface IFNAME each: macvlans (bridge mode) on HOST's eth0. They share the router's link
# (frames from the router reach them all; their reports leave through HOST's eth0), each with its
# own MAC, link-local address and kernel MLD state. Waits for their addresses.
lab_add_lan() {
  local host=$1 newns=$2 ifname
  shift 2
  lab_ns_create "$newns" || return 1
  for ifname in "$@"; do
    ip -n "$(lab_ns "$host")" link add link eth0 name "$ifname" netns "$(lab_ns "$newns")" type macvlan mode bridge &&
      lab_link_up "$newns" "$ifname" || { lab_say "cannot attach $newns/$ifname to the link of $host"; return 1; }
  done
  for ifname in "$@"; do lab_wait_ll "$newns" "$ifname" || return 1; done
}

# lab_add_source_addrs: three global addresses on src's eth0 (senders bind to any of them).
lab_add_source_addrs() {
  local addr
  for addr in "$LAB_SRC_ADDR1" "$LAB_SRC_ADDR2" "$LAB_SRC_ADDR3"; do
    ip -n "$(lab_ns "$LAB_SRC")" addr add "$addr/64" dev eth0 nodad || return 1
  done
}

# lab_flood_upstream: make the router's bridge port a permanent multicast-router port, so that
# all multicast from src reaches up0 whatever the router reported upstream. (Once the bridge's
# querier is established, 10 s after br0 came up, it sends a group that no port has joined only
# to multicast-router ports: mcast_flood does not bring it to the router.) Tests of downstream
# forwarding use it, so that a link without listeners is shown to get nothing although the
# traffic reaches the router.
lab_flood_upstream() { bridge -n "$(lab_ns "$LAB_UP")" link set dev "$LAB_RT_PORT" mcast_router 2; }

# lab_snoop_upstream: the router's bridge port gets `mcast_flood off`, as an ISP's access switch
# behaves: the bridge then sends it a group's traffic only when the mdb lists the group on that
# port, that is, only after the daemon reported the group upstream.
lab_snoop_upstream() {
  LAB_FLOOD=off
  bridge -n "$(lab_ns "$LAB_UP")" link set dev "$LAB_RT_PORT" mcast_flood off &&
    bridge -n "$(lab_ns "$LAB_UP")" -d link show dev "$LAB_RT_PORT" | grep -q 'mcast_flood off'
}

# lab_kill_ns_processes FULLNAME: end every process that lives in that lab namespace (only lab
# namespaces are ever passed here), by PID: TERM, then KILL after 3 s.
lab_kill_ns_processes() {
  local ns=$1 pids pid i
  mapfile -t pids < <(ip netns pids "$ns" 2>/dev/null)
  [[ ${#pids[@]} -eq 0 ]] && return 0
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  for ((i = 0; i < 30; i++)); do
    mapfile -t pids < <(ip netns pids "$ns" 2>/dev/null)
    [[ ${#pids[@]} -eq 0 ]] && return 0
    sleep 0.1
  done
  for pid in "${pids[@]}"; do kill -KILL "$pid" 2>/dev/null; done
  return 0
}

# Removes everything of the lab: the daemon by its recorded PID, every process left in a lab
# namespace, the namespaces. Safe to call at any time, any number of times.
lab_down() {
  local pid ns
  if [[ -f $LAB_STATE/daemon.pid ]]; then
    pid=$(cat "$LAB_STATE/daemon.pid")
    if [[ $pid =~ ^[0-9]+$ ]] && lab_is_lab_process "$pid"; then
      kill -TERM "$pid" 2>/dev/null
      lab_wait_exit "$pid" 5 || kill -KILL "$pid" 2>/dev/null
    fi
    rm -f "$LAB_STATE/daemon.pid"
  fi
  while read -r ns; do
    [[ -n $ns ]] || continue
    lab_kill_ns_processes "$ns"
    ip netns del "$ns" 2>/dev/null || lab_say "cannot delete namespace $ns"
  done < <(lab_namespaces)
  rm -rf -- "$LAB_STATE"/etc-mld.*
  [[ -z $(lab_namespaces) ]]
}

# True when PID runs in a lab namespace (the daemon, or strace around it).
lab_is_lab_process() {
  local pid=$1 ns
  while read -r ns; do
    [[ -n $ns ]] || continue
    ip netns pids "$ns" 2>/dev/null | grep -qx "$pid" && return 0
  done < <(lab_namespaces)
  return 1
}

# ---------------------------------------------------------------------------------------------
# the daemon

# lab_write_conf FILE [KEY=VALUE | KEY=]...: the lab configuration (short intervals, so that
# timers run out within a test), upstream interface up0; KEY=VALUE sets a key (in its place, or
# at the end), KEY= leaves its line out.
lab_write_conf() {
  local file=$1
  shift
  printf '%s\n' "UPSTREAM_IFNAME $LAB_UPSTREAM" 'ROBUSTNESS_VARIABLE 2' 'QUERY_INTERVAL 4' 'QUERY_RESPONSE_INTERVAL 1000' \
    'LAST_LISTENER_QUERY_INTERVAL 1' 'LAST_LISTENER_QUERY_COUNT 2' 'VERBOSE 0' | awk -v set="$*" '
    BEGIN { n = split(set, kv, " "); for (i = 1; i <= n; i++) { k = kv[i]; sub(/=.*/, "", k); v[k] = substr(kv[i], length(k) + 2); want[k] = 1 } }
    $1 in want { if (v[$1] != "") print $1, v[$1]; delete want[$1]; next }
    { print }
    END { for (k in want) if (v[k] != "") print k, v[k] }' >"$file"
}

# lab_start_daemon [options]: start the daemon in a namespace of its own mount namespace, with
# CONF bind-mounted at /etc/mld/mld.conf (a directory holding only that file is bound over
# /etc/mld). Sets LAB_DAEMON_PID (the daemon, or strace with -s), LAB_DAEMON_LOG, LAB_DAEMON_ERR
# and LAB_CONTROL_SOCKET (the daemon's control socket, one per namespace in $LAB_STATE/run).
#   -c CONF    configuration file (default: the lab configuration); -c '' gives no file at all
#   -b BINARY  daemon binary (default $LAB_DAEMON)
#   -n NS      namespace short name (default the router's)
#   -l LOG     standard output (default $LAB_STATE/daemon.log)
#   -e ERR     standard error (default: the same file as standard output)
#   -s FILE    run under strace -f, setsockopt calls with timestamps, raw numbers and hex
#              strings into FILE
#   -w WORDS   run through this command (blank-separated words, e.g. a setpriv command line
#              with its options); it must exec the daemon, whose PID is then LAB_DAEMON_PID
#   -x         the daemon may end at once (a failed start): its end before this function saw
#              it run is no failure to start; the caller waits for it and reads its status
# The configuration is readable by every user, as an installed /etc/mld/mld.conf is.
lab_start_daemon() {
  local conf=default bin=$LAB_DAEMON ns=$LAB_RT log=$LAB_STATE/daemon.log err='' straceout='' opt
  local wrap=() may_end=0
  local OPTIND=1
  while getopts 'c:b:n:l:e:s:w:x' opt; do
    case $opt in
      c) conf=$OPTARG ;;
      b) bin=$OPTARG ;;
      n) ns=$OPTARG ;;
      l) log=$OPTARG ;;
      e) err=$OPTARG ;;
      s) straceout=$OPTARG ;;
      w) read -ra wrap <<<"$OPTARG" ;;
      x) may_end=1 ;;
      *) lab_say "lab_start_daemon: bad option"; return 2 ;;
    esac
  done
  LAB_DAEMON_PID='' LAB_DAEMON_LOG=$log LAB_DAEMON_ERR=${err:-$log}
  bin=$(realpath -e -- "$bin" 2>/dev/null) || { lab_say "daemon binary ${bin} does not exist"; return 1; }
  [[ -x $bin ]] || { lab_say "daemon binary $bin is not executable"; return 1; }
  mkdir -p "$LAB_STATE" || return 1
  # The bind target must exist; an empty /etc/mld is all this leaves on the machine.
  [[ -d /etc/mld ]] || mkdir -p /etc/mld || return 1
  local etc
  etc=$(mktemp -d "$LAB_STATE/etc-mld.XXXXXX") && chmod 755 "$etc" || return 1
  if [[ $conf == default ]]; then
    lab_write_conf "$etc/mld.conf"
  elif [[ -n $conf ]]; then
    cp -- "$conf" "$etc/mld.conf" || return 1
  fi
  if [[ -f $etc/mld.conf ]]; then chmod 644 "$etc/mld.conf" || return 1; fi
  # A control socket per namespace, in a directory any user may write (the daemon may run as
  # nobody), so that labs and daemons side by side never meet on /run/mldproxyd.sock.
  mkdir -p "$LAB_STATE/run" && chmod 1777 "$LAB_STATE/run" || return 1
  LAB_CONTROL_SOCKET=$LAB_STATE/run/$ns.sock
  local cmd=("$bin" -s "$LAB_CONTROL_SOCKET")
  if [[ ${#wrap[@]} -gt 0 ]]; then cmd=("${wrap[@]}" "$bin" -s "$LAB_CONTROL_SOCKET"); fi
  if [[ -n $straceout ]]; then
    cmd=(strace -f -ttt -X raw -xx -e trace=setsockopt -o "$straceout" -- "$bin" -s "$LAB_CONTROL_SOCKET")
  fi
  # ip netns exec, unshare and sh all exec their successor: $! is the daemon's (or strace's) PID.
  ip netns exec "$(lab_ns "$ns")" unshare --mount --propagation private -- \
    /bin/sh -c 'mount --bind "$1" /etc/mld || exit 125; shift; exec "$@"' sh "$etc" "${cmd[@]}" \
    </dev/null >"$log" 2>"${err:-$log}" &
  LAB_DAEMON_PID=$!
  echo "$LAB_DAEMON_PID" >"$LAB_STATE/daemon.pid"
  # Wait for the exec chain (ip, unshare, sh) to arrive at the program, so that a signal reaches
  # the daemon itself. (A script as "binary", for trying the tests out on a fake daemon, shows
  # its interpreter here.)
  local chain=() p i exe
  for p in ip unshare sh; do chain+=("$(realpath -e -- "$(command -v "$p")")"); done
  for ((i = 0; i < 100; i++)); do
    if lab_exited "$LAB_DAEMON_PID"; then
      [[ $may_end == 1 ]] && return 0
      lab_say "the daemon did not start (see $log)"
      return 1
    fi
    exe=$(readlink "/proc/$LAB_DAEMON_PID/exe" 2>/dev/null)
    if [[ ${#wrap[@]} -gt 0 ]]; then
      # Through a wrapper: only the daemon binary itself counts.
      [[ $exe == "$bin" ]] && return 0
    elif [[ -n $exe && $exe != "${chain[0]}" && $exe != "${chain[1]}" && $exe != "${chain[2]}" ]]; then
      return 0
    fi
    sleep 0.02
  done
  lab_say "PID $LAB_DAEMON_PID never got past ip netns exec / unshare / sh"
  return 1
}

# lab_traced_pid STRACE_PID: the PID of the process that strace started (the daemon).
lab_traced_pid() {
  local kids i
  for ((i = 0; i < 100; i++)); do
    read -r kids _ <"/proc/$1/task/$1/children" 2>/dev/null
    [[ -n $kids ]] && { printf '%s' "$kids"; return 0; }
    sleep 0.02
  done
  return 1
}

# lab_stop_daemon [SIGNAL] [TIMEOUT]: signal the daemon started by lab_start_daemon (from this
# shell, not from a subshell: only the shell that started it can collect its status), wait for
# it and set LAB_DAEMON_STATUS to its exit status. Returns 1 when it did not end in time (it is
# then killed and LAB_DAEMON_STATUS is empty).
lab_stop_daemon() {
  local sig=${1:-TERM} timeout=${2:-10} pid=$LAB_DAEMON_PID rc=0
  LAB_DAEMON_STATUS=
  [[ -n $pid ]] || return 1
  kill -"$sig" "$pid" 2>/dev/null
  if ! lab_wait_exit "$pid" "$timeout"; then
    lab_say "the daemon (PID $pid) did not end within ${timeout}s after SIG$sig; killing it"
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    rm -f "$LAB_STATE/daemon.pid"
    return 1
  fi
  wait "$pid" 2>/dev/null || rc=$?
  rm -f "$LAB_STATE/daemon.pid"
  LAB_DAEMON_STATUS=$rc
}

# lab_cpu_ticks PID: user + system CPU time of the process (all its threads), in clock ticks.
lab_cpu_ticks() {
  local stat f
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
  stat=${stat##*) }
  read -ra f <<<"$stat"
  # After "pid (comm) ", field 3 (state) is f[0]; utime and stime are fields 14 and 15.
  printf '%s' $((f[11] + f[12]))
}

# lab_status [--json]: the daemon's status, asked in the router's namespace with the daemon
# binary itself.
lab_status() { lab_exec "$LAB_RT" "$LAB_DAEMON" status "$@" -s "$LAB_CONTROL_SOCKET"; }

# ---------------------------------------------------------------------------------------------
# looking at the router

# lab_mifs [NS]: the kernel's MIF table of the namespace (default the router's), "INDEX NAME" lines.
lab_mifs() {
  ip netns exec "$(lab_ns "${1:-$LAB_RT}")" cat /proc/net/ip6_mr_vif 2>/dev/null | awk 'NR > 1 { print $1, $2 }'
}

# lab_mif_index IFNAME: the MIF index of the router's link IFNAME, nothing if it has none.
lab_mif_index() { lab_mifs | awk -v n="$1" '$2 == n { print $1; exit }'; }

lab_has_mif() { [[ -n $(lab_mif_index "$1") ]]; }
lab_has_no_mif() { [[ -z $(lab_mif_index "$1") ]]; }

# lab_router_links: names of the router's links except lo, one a line, sorted.
lab_router_links() {
  ip -n "$(lab_ns "$LAB_RT")" -o link show | awk -F': ' '{ sub(/@.*/, "", $2); if ($2 != "lo") print $2 }' | sort
}

# True when every router link except lo is a MIF and nothing else is.
lab_all_links_are_mifs() {
  [[ $(lab_mifs | awk '{ print $2 }' | sort) == "$(lab_router_links)" ]]
}

# lab_counter NS [IFNAME] NAME: an IPv6/ICMPv6 counter of one link (/proc/net/dev_snmp6/IFNAME)
# or, without IFNAME, of the whole namespace (/proc/net/snmp6).
lab_counter() {
  local file=/proc/net/snmp6
  [[ $# -eq 3 ]] && file=/proc/net/dev_snmp6/$2
  ip netns exec "$(lab_ns "$1")" cat "$file" 2>/dev/null | awk -v n="${!#}" '$1 == n { print $2; f = 1 } END { if (!f) print 0 }'
}

# lab_wait_started [TIMEOUT]: wait until the daemon has taken up every router link (all are
# MIFs) and the router namespace has sent no multicast packet for 2.5 s (the paced start-up
# announcements are over). Ip6OutMcastPkts counts the daemon's packets and its kernel's own
# MLD reports alike (the per-link ICMPv6 counters miss what the daemon sends).
lab_wait_started() {
  local timeout=${1:-30} deadline last now since
  deadline=$(($(lab_now_us) + timeout * 1000000))
  lab_wait_for "$timeout" lab_all_links_are_mifs || { lab_say "not every router link became a MIF"; return 1; }
  last=$(lab_counter "$LAB_RT" Ip6OutMcastPkts)
  since=$(lab_now_us)
  while true; do
    sleep 0.25
    now=$(lab_counter "$LAB_RT" Ip6OutMcastPkts)
    if [[ $now != "$last" ]]; then
      last=$now
      since=$(lab_now_us)
    elif [[ $(($(lab_now_us) - since)) -ge 2500000 ]]; then
      return 0
    fi
    [[ $(lab_now_us) -ge $deadline ]] && { lab_say "the router never fell quiet"; return 1; }
  done
}

# lab_addr_full ADDR: the address written out in full, as /proc/net/ip6_mr_cache shows it.
lab_addr_full() {
  "$LAB_PYTHON" -c 'import ipaddress, sys; print(ipaddress.IPv6Address(sys.argv[1]).exploded)' "$1"
}

# lab_mfc_group GROUP: every kernel forwarding entry of GROUP as "ORIGIN IIF OIF ..." lines (MIF
# indexes, ORIGIN written out in full).
lab_mfc_group() {
  local g
  g=$(lab_addr_full "$1") || return 1
  ip netns exec "$(lab_ns "$LAB_RT")" cat /proc/net/ip6_mr_cache 2>/dev/null | awk -v g="$g" '
    NR > 1 && $1 == g {
      line = $2 " " $3
      for (i = 7; i <= NF; i++) { split($i, a, ":"); line = line " " a[1] }
      print line
    }'
}

# lab_mfc GROUP [ORIGIN]: the router kernel's forwarding entry for (ORIGIN, GROUP) (ORIGIN
# default ::, the (*,G) entry) as "IIF OIF OIF ..."; nothing when there is none.
lab_mfc() {
  local o
  o=$(lab_addr_full "${2:-::}") || return 1
  lab_mfc_group "$1" | awk -v o="$o" '$1 == o { sub(/^[^ ]+ /, ""); print; exit }'
}

# lab_mfc_text GROUP: the group's kernel entries for messages ("ORIGIN IIF OIF ...;...", "none").
lab_mfc_text() {
  local e
  e=$(lab_mfc_group "$1" | sed 's/^0000:0000:0000:0000:0000:0000:0000:0000/::/' | paste -sd ';')
  printf '%s' "${e:-none}"
}

# lab_mfc_has_oif GROUP ORIGIN IFNAME: the entry (ORIGIN, GROUP) forwards to the router's IFNAME.
lab_mfc_has_oif() { lab_mfc_oifs "$1" "$2" | tr ' ' '\n' | grep -qx "$(lab_mif_index "$3")"; }

# lab_mif_set IFNAME...: the MIF indexes of the router's links, sorted, space-separated (the
# form lab_mfc_oifs has); fails when a link is no MIF.
lab_mif_set() {
  local ifname mif list=()
  for ifname in "$@"; do
    mif=$(lab_mif_index "$ifname")
    [[ -n $mif ]] || return 1
    list+=("$mif")
  done
  printf '%s\n' "${list[@]}" | sort -n | paste -sd ' '
}

# lab_mfc_oifs GROUP [ORIGIN]: the entry's output MIFs, sorted, space-separated.
lab_mfc_oifs() { lab_mfc "$@" | awk '{ for (i = 2; i <= NF; i++) print $i }' | sort -n | paste -sd ' '; }

# ---------------------------------------------------------------------------------------------
# MLD messages and captures (tools/mldlab.py)

# lab_mldlab NS ARGS...: tools/mldlab.py in the lab namespace NS.
lab_mldlab() {
  local ns=$1
  shift
  lab_exec "$ns" "$LAB_PYTHON" "$LAB_PY" "$@"
}

# lab_send_mld_report HOST [options] RECORD...: MLDv2 reports from eth0 of the host namespace
# HOST (mldlab.py report: records TYPE:GROUP[/SOURCE,...] or TYPE:PREFIX*N, options --count,
# --interval, --src, --dst, --hlim, --no-router-alert, --claim, --per-report).
lab_send_mld_report() {
  local host=$1
  shift
  lab_mldlab "$host" report --iface eth0 "$@"
}

# lab_mld_lines [mldlab.py decode options] FILE...: the packets of pcap files decoded one a line.
lab_mld_lines() { "$LAB_PYTHON" "$LAB_PY" decode "$@"; }

# lab_capture [-t] NS IFNAME FILE [FILTER]: tcpdump on the link (IFNAME "any": every link of the
# namespace, with the interface index in a LINUX_SLL2 header) in the background, into the pcap
# FILE or, with -t, one text line a packet ("TIME IP6 SRC.PORT > DST.PORT: UDP, length N" for
# UDP, cheap to count while it runs). Immediate mode and packet-buffered: a packet is in the file
# at once, so the file can be polled while it grows. Frames are cut at 2048 bytes, more than the
# links' MTU: in immediate mode the kernel's capture ring holds only a few frames of tcpdump's
# default size, and a burst of reports overflowed it. FILTER defaults to "ip6" ("icmp6" would
# not follow the hop-by-hop header that MLD messages carry), with -t to "udp". In the router's
# namespace never promiscuous: a link's flags changing is a netlink event, which a capture must
# not add to what the daemon sees. Returns once tcpdump listens (and, for a pcap, wrote its
# header). Sets LAB_CAPTURE_PID; lab_capture_stop ends it.
lab_capture() {
  local text=0 opts=(-n -U --immediate-mode -s 2048 -Z root)
  [[ $1 == -t ]] && { text=1; shift; }
  local ns=$1 ifname=$2 file=$3 filter=${4:-}
  [[ $ns == "$LAB_RT" ]] && opts+=(-p)
  [[ $ifname == any ]] && opts+=(-y LINUX_SLL2)
  # Started directly (not through a shell function), so that $! is tcpdump itself (ip netns
  # exec execs it); so are the other programs started in the background below.
  LAB_CAPTURE_PID=''
  if [[ $text == 1 ]]; then
    ip netns exec "$(lab_ns "$ns")" tcpdump -i "$ifname" "${opts[@]}" -l -tt "${filter:-udp}" </dev/null >"$file" 2>"$file.err" &
  else
    ip netns exec "$(lab_ns "$ns")" tcpdump -i "$ifname" "${opts[@]}" -w "$file" "${filter:-ip6}" </dev/null >/dev/null 2>"$file.err" &
  fi
  LAB_CAPTURE_PID=$!
  LAB_CAPTURES+=("$LAB_CAPTURE_PID")
  lab_wait_for 10 grep -qs 'listening on' "$file.err" && { [[ $text == 1 ]] || lab_wait_for 5 test -s "$file"; } ||
    lab_fail "tcpdump on $ns/$ifname did not start: $(head -c 300 "$file.err")"
}

# lab_capture_stop [PID...]: end captures started by lab_capture (default: all of them; SIGINT
# makes tcpdump write what it holds).
lab_capture_stop() {
  local pid keep=()
  [[ $# -gt 0 ]] || set -- "${LAB_CAPTURES[@]}"
  lab_stop -INT "$@"
  for pid in "${LAB_CAPTURES[@]}"; do [[ " $* " == *" $pid "* ]] || keep+=("$pid"); done
  LAB_CAPTURES=("${keep[@]}")
}

# lab_udp_times FILE GROUP [SOURCE]: times of the UDP packets to GROUP (from SOURCE) in a
# lab_capture -t file, one a line (seconds since the epoch, always six decimals).
lab_udp_times() {
  awk -v g="$2" -v s="${3:-}" '
    $2 == "IP6" && $4 == ">" && $0 ~ /: UDP,/ {
      src = $3; sub(/\.[0-9]+$/, "", src)
      dst = $5; sub(/:$/, "", dst); sub(/\.[0-9]+$/, "", dst)
      if (dst == g && (s == "" || src == s)) print $1
    }' "$1" 2>/dev/null
}

# mld_capture_start NAME NS IFNAME: the MLD (every IPv6 packet but UDP) on that link, into
# $LAB_WORK/mld-NAME.pcap; mld NAME: its MLD messages so far, decoded.
mld_capture_start() { lab_capture "$2" "$3" "$LAB_WORK/mld-$1.pcap" "ip6 and not udp"; }
mld() { lab_mld_lines "$LAB_WORK/mld-$1.pcap" | grep ' MLD '; }

# field KEY: the value of key=value in the decoded line on standard input.
field() { awk -v k="$1" '{ for (i = 3; i <= NF; i++) if (index($i, k "=") == 1) { print substr($i, length(k) + 2); exit } }'; }

# lab_probe NAME ARGS...: tools/bench/probe.py, the timing of the daemon from kernel timestamps.
lab_probe() { "$LAB_PYTHON" "$LAB_PROBE_PY" "$@"; }

# lab_with_probe NAME OUT PROBE_ARGS... -- COMMAND...: probe.py NAME listens (in the router's
# namespace and those its arguments name), the time goes into its start file, COMMAND runs
# (starting the daemon, making a link), and the probe's figures (JSON) go to OUT.
lab_with_probe() {
  local name=$1 out=$2 start=$LAB_STATE/$1.start pid
  shift 2
  local args=()
  while [[ $1 != -- ]]; do args+=("$1"); shift; done
  shift
  mkdir -p "$LAB_STATE" && rm -f "$start"
  "$LAB_PYTHON" "$LAB_PROBE_PY" "$name" --rt "$(lab_ns "$LAB_RT")" --start-file "$start" "${args[@]}" >"$out" 2>"$out.err" &
  pid=$!
  lab_wait_for 10 grep -qs LISTENING "$out" || { lab_stop "$pid"; return 1; }
  date +%s.%N >"$start"
  "$@"
  wait "$pid"
  sed -i '/^LISTENING$/d' "$out"
}

# lab_joins_during_churn OUT: probe.py churn (h1 joins a new group 8 times, each timed to the
# daemon's upstream report) while the router's dn2 gains 20 addresses 50 ms apart (netlink
# events); the figures (JSON) into OUT.
lab_joins_during_churn() {
  local i pid
  (for ((i = 1; i <= 20; i++)); do ip -n "$(lab_ns "$LAB_RT")" addr add "2001:db8:77::$i/64" dev dn2 nodad; sleep 0.05; done) &
  pid=$!
  lab_probe churn --rt "$(lab_ns "$LAB_RT")" --h1 "$(lab_ns "$LAB_H1")" --prefix ff0e::e: --tries 8 --gap 0.05 >"$1" 2>"$1.err"
  wait "$pid"
}

# ---------------------------------------------------------------------------------------------
# real traffic (mldlab.py send and recv): one sender on src, receivers on hosts, what each link
# carried (tcpdump lines), all ended by flow_stop_all (or with the namespaces)

FLOW_SEND_PID=''
declare -A FLOW_RECV_PID=()

# flow_send_start [--rate PPS] [--hops N] SOURCE,GROUP,PORT...: src sends to each flow, by default
# 100 datagrams a second with hop limit 16 (replaces the sender before).
flow_send_start() {
  flow_send_stop
  ip netns exec "$(lab_ns "$LAB_SRC")" "$LAB_PYTHON" "$LAB_PY" send --iface eth0 --rate 100 --hops 16 "$@" >"$LAB_WORK/send.log" 2>&1 &
  FLOW_SEND_PID=$!
}
flow_send_stop() {
  lab_stop "$FLOW_SEND_PID"
  FLOW_SEND_PID=''
}

flow_recv_log() { printf '%s/recv-%s-%s.log' "$LAB_WORK" "$1" "$2"; }

# flow_recv_start HOST GROUP PORT [mldlab.py recv options]: a receiver in HOST joins GROUP on
# eth0 (other interfaces with --iface) and logs what it gets; fails when it did not join.
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
  ip netns exec "$(lab_ns "$host")" "$LAB_PYTHON" "$LAB_PY" "${args[@]}" 2>"$log.err" &
  FLOW_RECV_PID[$host/$group]=$!
}

flow_recv_joined() {
  local log
  log=$(flow_recv_log "$1" "$2")
  lab_wait_for 30 grep -qs '^JOINED' "$log" ||
    lab_fail "the receiver in $1 did not join $2: $(head -c 300 "$log.err" 2>/dev/null)"
}

# flow_recv_stop HOST GROUP: the receiver closes its sockets (its kernel reports the leave).
flow_recv_stop() {
  lab_stop "${FLOW_RECV_PID[$1/$2]:-}"
  unset "FLOW_RECV_PID[$1/$2]"
}

# flow_recv_signal HOST GROUP SIGNAL: e.g. USR1, the first --leave-first interfaces leave.
flow_recv_signal() { kill -"$3" "${FLOW_RECV_PID[$1/$2]}"; }

# flow_joined_at / flow_left_at HOST GROUP: when the receiver joined / left (seconds since the
# epoch, six decimals), nothing before that.
flow_joined_at() { awk '$1 == "JOINED" { print $2; exit }' "$(flow_recv_log "$1" "$2")" 2>/dev/null; }
flow_left_at() { awk '$1 == "LEFT" { print $2; exit }' "$(flow_recv_log "$1" "$2")" 2>/dev/null; }

# flow_received HOST GROUP [SOURCE] [IFACE]: times of the datagrams the receiver got (from
# SOURCE, on IFACE; "" for any).
flow_received() {
  awk -v s="${3:-}" -v i="${4:-}" '$1 ~ /^[0-9]/ && (s == "" || $2 == s) && (i == "" || $4 == i) { print $1 }' \
    "$(flow_recv_log "$1" "$2")" 2>/dev/null
}
flow_received_count() { flow_received "$@" | wc -l; }
# flow_has_received HOST GROUP N [SOURCE] [IFACE]: at least N datagrams.
flow_has_received() { [[ $(flow_received_count "$1" "$2" "${4:-}" "${5:-}") -ge $3 ]]; }

# flow_wire_start NAME NS IFNAME: the UDP packets on that link, into $LAB_WORK/udp-NAME.txt.
flow_wire_start() { lab_capture -t "$2" "$3" "$LAB_WORK/udp-$1.txt" udp; }

# flow_wire NAME GROUP [SOURCE]: times of the packets to GROUP (from SOURCE) that link carried.
flow_wire() { lab_udp_times "$LAB_WORK/udp-$1.txt" "$2" "${3:-}"; }
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
      lab_fail "the flow ${s:-from src} -> $group does not reach $name (sender: $(head -c 200 "$LAB_WORK/send.log"))" || return 1
  done
}
flow_wire_has() { [[ $(flow_wire_count "$1" "$2" "$3" 0) -ge $4 ]]; }

# flow_stop_all: the sender, every receiver and every capture.
flow_stop_all() {
  local key
  flow_send_stop
  for key in "${!FLOW_RECV_PID[@]}"; do lab_stop "${FLOW_RECV_PID[$key]}"; done
  FLOW_RECV_PID=()
  up_capture_stop
  lab_capture_stop
}

# ---------------------------------------------------------------------------------------------
# the upstream bridge (its mdb) and captures of the whole router namespace, decoded

# "INDEX=NAME" for every router interface seen so far (up0 changes its index when re-made).
declare -A UP_IFNAMES=()
UP_CAP_PID='' UP_CAP_FILE='' UP_DEC_PID=''

# up_mdb: the bridge's mdb, one "PORT GROUP [SOURCE]" line per entry (iproute2's
# "dev br0 port P grp G [src S] ..." lines).
up_mdb() {
  bridge -n "$(lab_ns "$LAB_UP")" mdb show dev br0 2>/dev/null | awk '
    { port = ""; grp = ""; src = ""
      for (i = 1; i < NF; i++) {
        if ($i == "port") port = $(i + 1)
        else if ($i == "grp") grp = $(i + 1)
        else if ($i == "src") src = $(i + 1)
      }
      if (port != "" && grp != "") print port, grp, src }'
}

# up_mdb_has GROUP [PORT]: the mdb lists GROUP (any-source entry) on PORT (default the router's).
up_mdb_has() {
  up_mdb | awk -v p="${2:-$LAB_RT_PORT}" -v g="$1" '$1 == p && $2 == g && $3 == "" { f = 1 } END { exit !f }'
}
up_mdb_lacks() { ! up_mdb_has "$@"; }

# up_mdb_count_prefix PREFIX: number of distinct groups starting with PREFIX on the router's port.
up_mdb_count_prefix() {
  up_mdb | awk -v p="$LAB_RT_PORT" -v x="$1" '$1 == p && index($2, x) == 1 { g[$2] = 1 } END { print length(g) }'
}

# up_mdb_at_least PREFIX N / up_mdb_at_most PREFIX N: groups starting with PREFIX on the
# router's port, compared with N (for lab_wait_for, which needs a command, not a value).
up_mdb_at_least() { [[ $(up_mdb_count_prefix "$1") -ge $2 ]]; }
up_mdb_at_most() { [[ $(up_mdb_count_prefix "$1") -le $2 ]]; }

# up_mdb_line GROUP: the mdb's own lines for GROUP (with timers), for messages.
up_mdb_line() {
  bridge -n "$(lab_ns "$LAB_UP")" -s mdb show dev br0 2>/dev/null | grep -F " grp $1 " | tr -s ' ' | paste -sd ';'
}

# up_query MRC: the bridge sends a general query with that Maximum Response Code (an unusual one
# marks it) from fe80::ffff:ffff:ffff:fffe: a Linux bridge that is the querier takes a query from
# its own address, or a lower one, for another querier's and stops its own queries for the
# querier interval (255 s); a source above its address leaves it the querier. Prints the time.
up_query() { lab_mldlab "$LAB_UP" query --iface br0 --mrc "$1" --src fe80::ffff:ffff:ffff:fffe 2>"$LAB_WORK/query.err"; }

# up_learn_ifnames: remember the index of every router interface (for decoding captures).
up_learn_ifnames() {
  local index name
  while read -r index name; do
    [[ -n $index ]] && UP_IFNAMES[$index]=$name
  done < <(ip -n "$(lab_ns "$LAB_RT")" -o link show | awk -F': ' '{ sub(/@.*/, "", $2); print $1, $2 }')
}

# up_capture_start FILE: capture the MLD of the router namespace (every IPv6 packet but UDP),
# all interfaces (those made later too), into FILE, decoded as it comes into FILE.txt
# (mldlab.py decode --links --follow).
up_capture_start() {
  up_capture_stop
  up_learn_ifnames
  UP_CAP_FILE=$1
  : >"$1.txt"
  lab_capture "$LAB_RT" any "$1" 'ip6 and not ip6 proto 17'
  local rc=$?
  UP_CAP_PID=$LAB_CAPTURE_PID
  [[ $rc == 0 ]] || { up_capture_stop; return 1; }
  # The decoder runs outside the lab's namespaces: it ends by itself when tcpdump is gone.
  "$LAB_PYTHON" "$LAB_PY" decode --links --follow --writer "$UP_CAP_PID" "$1" >"$1.txt" 2>"$1.txt.err" &
  UP_DEC_PID=$!
}

# up_capture_stop: end the capture; the decoder ends once it decoded every packet of it.
up_capture_stop() {
  [[ -n $UP_CAP_PID ]] && lab_capture_stop "$UP_CAP_PID"
  if [[ -n $UP_DEC_PID ]]; then
    lab_wait_exit "$UP_DEC_PID" 20 || kill -KILL "$UP_DEC_PID" 2>/dev/null
    wait "$UP_DEC_PID" 2>/dev/null
  fi
  UP_CAP_PID='' UP_DEC_PID=''
}

# up_decode: the current capture's packets decoded so far (mldlab.py decode --links: TIME
# IFNAME DIR KIND ...), interface indexes turned into the router's interface names.
up_decode() {
  local map='' index
  for index in "${!UP_IFNAMES[@]}"; do map+="if$index=${UP_IFNAMES[$index]} "; done
  awk -v map="$map" 'BEGIN { n = split(map, m, " "); for (i = 1; i <= n; i++) { split(m[i], kv, "="); name[kv[1]] = kv[2] } }
    { if ($2 in name) $2 = name[$2]; print }' "$UP_CAP_FILE.txt" 2>/dev/null
}

# up_daemon_reports: the daemon's MLDv2 reports sent on up0 (out, non-zero flow label: the
# router kernel's own reports carry 0), decoded lines.
up_daemon_reports() {
  up_decode | awk -v up="$LAB_UPSTREAM" '$2 == up && $3 == "out" && $4 == "report" && $5 != 0'
}

# up_records TYPE GROUP [SOURCES] < decoded report lines: "TIME" for every record of that type
# and group (and exactly those sources, comma-separated, when given; "-" for none).
up_records() {
  awk -v t="$1" -v g="$2" -v s="${3-*}" '{
      for (i = 8; i <= NF; i++) {
        if (split($i, f, "/") != 3) continue
        if (f[1] == t && f[2] == g && (s == "*" || (s == "-" && f[3] == "") || f[3] == s)) print $1
      }
    }'
}

# up_count_records TYPE GROUP SOURCES SINCE_US: the daemon's records of that kind on up0 in the
# current capture, at or after SINCE_US (SOURCES as for up_records).
up_count_records() {
  up_daemon_reports | up_records "$1" "$2" "$3" | awk -v t="$4" '$1 >= t' | wc -l
}

# up_has_records N TYPE GROUP SOURCES SINCE_US: at least N such records.
up_has_records() { [[ $(up_count_records "$2" "$3" "$4" "$5") -ge $1 ]]; }

# up_group_records GROUP SINCE_US: the daemon's records for GROUP on up0 at or after SINCE_US,
# "TIME TYPE SOURCES" lines (SOURCES comma-separated, "-" for none).
up_group_records() {
  up_daemon_reports | awk -v g="$1" -v t="$2" '$1 >= t {
      for (i = 8; i <= NF; i++)
        if (split($i, f, "/") == 3 && f[2] == g) print $1, f[1], (f[3] == "" ? "-" : f[3])
    }'
}

# up_show_reports SINCE_US: the daemon's reports on up0 since then, as commentary (for failures).
up_show_reports() {
  say "---- the daemon's reports on up0 since $1 (time if dir kind flowlabel src nrec records):"
  up_daemon_reports | awk -v t="$1" '$1 >= t' | head -n 20 | sed 's/^/#   /'
}

# up_ms FROM_US TO_US: milliseconds between two times, with one decimal.
up_ms() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", (b - a) / 1000 }'; }

# ---------------------------------------------------------------------------------------------
# the lab tests (tests/lab/test_*.sh): reporting of checks, scratch space and clean-up
#
# A check is a function that returns 0 when the behaviour was observed and otherwise calls
# `fail REASON` (which returns 1); `check NAME FUNCTION [ARGS...]` runs it and prints
# "ok - NAME" or "not ok - NAME: REASON". A check that cannot do what it has to observe fails;
# only `skip NAME REASON` reports a check as skipped, and run.sh counts it as such.

# lab_test_file: what a test file does once it sourced this file. Run by run.sh, it takes the
# run's own prefix and state; run alone, one of this process's own.
lab_test_file() {
  set -u
  export LC_ALL=C
  export MLD_LAB_PREFIX=${MLD_LAB_PREFIX:-mldlab-$$-} MLD_LAB_STATE=${MLD_LAB_STATE:-/run/mldlab/run-$$}
  LAB_PREFIX=$MLD_LAB_PREFIX LAB_STATE=$MLD_LAB_STATE
  T_WORK=$(mktemp -d /tmp/mldlab-test.XXXXXX) || exit 1
  LAB_WORK=$T_WORK T_REASON=
  trap t_cleanup EXIT
  # A helper's reason for failing is the check's.
  lab_fail() { fail "$@"; }
}

t_cleanup() {
  flow_stop_all
  [[ -n ${MLD_LAB_KEEP:-} ]] && mkdir -p "$MLD_LAB_KEEP/${0##*/}" && cp -a "$T_WORK"/. "$MLD_LAB_KEEP/${0##*/}"/
  lab_down >/dev/null 2>&1 || lab_down
  rm -rf "$T_WORK"
  # A state directory of this process's own (run alone) goes too.
  [[ $LAB_STATE == /run/mldlab/run-$$ ]] && rm -rf -- "$LAB_STATE"
  return 0
}

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
    [[ -z $(tail -c 1 "$file") ]] || echo # a last line without its newline is ended here
  else
    say "---- $title: empty"
  fi
}

# show_bytes FILE TITLE: a file's bytes as od -c commentary.
show_bytes() {
  say "---- $2:"
  od -A d -c "$1" | sed 's/^/#   /'
}

# t_lab_up [sources] [flood | snoop]: the lab for a test of the daemon (whose binary must
# exist), with src's global addresses, and the bridge sending the router all multicast
# (lab_flood_upstream) or only what it reported upstream (lab_snoop_upstream).
t_lab_up() {
  local what
  t_need_daemon || return 1
  lab_up || fail "the lab could not be built" || return 1
  for what in "$@"; do
    case $what in
      sources) lab_add_source_addrs || fail "cannot give src its addresses" || return 1 ;;
      flood) lab_flood_upstream || fail "cannot make the bridge send all multicast to up0" || return 1 ;;
      snoop) lab_snoop_upstream || fail "cannot set mcast_flood off on $LAB_RT_PORT" || return 1 ;;
    esac
  done
}

# t_start TIMEOUT [lab_start_daemon options]: the daemon started, its output into $LOG (where the
# test file names one) unless -l says otherwise, and within TIMEOUT seconds every router link a
# MIF and the router quiet.
t_start() {
  local timeout=$1
  shift
  lab_start_daemon -l "${LOG:-$LAB_STATE/daemon.log}" "$@" || fail "the daemon did not start" || return 1
  lab_wait_started "$timeout" || fail "the daemon did not take up its links; MIFs [$(t_mif_table)]"
}

# t_need_setup: the file's set-up went through (it set SETUP_OK=1) and its daemon still runs.
t_need_setup() {
  [[ ${SETUP_OK:-0} == 1 ]] || fail "no lab (the set-up failed)" || return 1
  t_daemon_alive || fail "the daemon is not running"
}

# t_end [LOG [LINES]]: the end of a test file: traffic and captures stopped, the daemon (if it
# runs) ended with SIGTERM, and the last LINES (default 12) lines of its output LOG shown.
t_end() {
  flow_stop_all
  if t_daemon_alive; then
    lab_stop_daemon TERM 10 || say "the daemon did not end on SIGTERM"
    say "daemon ended with status ${LAB_DAEMON_STATUS:-?}"
  fi
  [[ -z ${1:-} ]] || show_file "$1" "${2:-12}" "daemon output"
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

# elapsed_ms START_US: milliseconds since START_US (lab_now_us).
elapsed_ms() { printf '%s' $((($(lab_now_us) - $1) / 1000)); }

# status_json FILE: the daemon's status as JSON into FILE; the time it took in ms on standard
# output.
status_json() {
  local start
  start=$(lab_now_us)
  lab_status --json >"$1" 2>"$1.err" || return 1
  elapsed_ms "$start"
}

# json_query FILE EXPR: EXPR evaluated in Python with the JSON of FILE as `s`, printed.
json_query() {
  "$LAB_PYTHON" -c 'import json, sys; s = json.load(open(sys.argv[1])); print(eval(sys.argv[2]))' "$1" "$2"
}

# ---------------------------------------------------------------------------------------------
# command line

lab_main() {
  export LC_ALL=C
  if [[ $(id -u) -ne 0 ]]; then
    echo "tools/lab.sh needs root (network namespaces, MRT6)" >&2
    return 1
  fi
  case ${1:-} in
    up)
      lab_up || return 1
      lab_say "lab up: namespaces $(lab_namespaces | tr '\n' ' ')"
      ;;
    down) lab_down ;;
    start)
      if [[ -f $LAB_STATE/daemon.pid ]] && lab_is_lab_process "$(cat "$LAB_STATE/daemon.pid")"; then
        lab_say "a daemon runs already (PID $(cat "$LAB_STATE/daemon.pid"))"
        return 1
      fi
      if [[ -n ${2:-} ]]; then
        lab_start_daemon -c "$2" || return 1
      else
        lab_start_daemon || return 1
      fi
      lab_say "mldproxyd PID $LAB_DAEMON_PID in $(lab_ns "$LAB_RT"), log $LAB_DAEMON_LOG"
      ;;
    stop)
      local pid
      pid=$(cat "$LAB_STATE/daemon.pid" 2>/dev/null) || { lab_say "no daemon recorded"; return 1; }
      lab_is_lab_process "$pid" || { lab_say "PID $pid is not a lab process"; rm -f "$LAB_STATE/daemon.pid"; return 1; }
      kill -"${2:-TERM}" "$pid" || return 1
      # Not our child here: wait for it to disappear (its parent, init, collects it).
      lab_wait_exit "$pid" 10 || { lab_say "PID $pid did not end within 10 s"; return 1; }
      rm -f "$LAB_STATE/daemon.pid"
      lab_say "mldproxyd (PID $pid) ended"
      ;;
    status)
      lab_namespaces
      echo "router links: $(lab_router_links | tr '\n' ' ')"
      echo "MIFs:"
      lab_mifs
      if [[ -f $LAB_STATE/daemon.pid ]]; then echo "daemon PID $(cat "$LAB_STATE/daemon.pid")"; fi
      ;;
    *)
      echo "usage: tools/lab.sh up|down|start [CONF]|stop [SIGNAL]|status" >&2
      return 2
      ;;
  esac
}

# Run as a command (not sourced): the command line above.
if [[ ${BASH_SOURCE[0]} == "$0" ]]; then
  lab_main "$@"
  exit $?
fi
