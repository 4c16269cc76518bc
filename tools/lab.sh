#!/usr/bin/env bash
# The mldproxyd lab: network namespaces around one router that runs the real daemon.
#
#   src ── br0 (namespace up: MLD-snooping bridge, MLDv2 querier) ── up0 ┐
#                                                                        │ namespace rt:
#                                                    h1 (eth0) ── dn1 ───┤ mldproxyd, its own
#                                                    h2 (eth0) ── dn2 ───┘ /etc/mld/mld.conf
#
# Every namespace is called $LAB_PREFIX<name> (default prefix "mldlab-"; <name> is lower-case
# letters and digits), so that a crashed earlier run is found and removed by name. tests/lab/run.sh
# uses a prefix of its own per run ("mldlab-<PID>-"), so that a test run, another one and a lab
# brought up by hand do not touch each other's namespaces. The router's links are veth pairs made inside the
# namespaces (small interface indexes); every namespace has accept_dad=0 (addresses are usable at
# once) and sends no router solicitations (the router's ICMPv6 output is then the daemon's and
# its kernel's MLD only); each router link has exactly one link-local address.
#
# Use as a library (bash):   . tools/lab.sh      then lab_up, lab_start_daemon, lab_down, ...
# (also: lab_add_lan_host for a second host on a link, lab_add_lan_ifaces for many,
# lab_add_source_addrs and lab_flood_upstream for real traffic from src, lab_capture /
# lab_capture_lines for tcpdump, lab_mld_lines to decode a capture, lab_mfc for the kernel's
# forwarding entries)
# Or from the command line (root):
#   tools/lab.sh up                  build the lab (removes an earlier one first)
#   tools/lab.sh start [CONF]        start the daemon in the router namespace (default: the
#                                    lab configuration, upstream up0); log in $LAB_STATE
#   tools/lab.sh stop [SIGNAL]       signal the daemon (default TERM) and wait for it to end
#   tools/lab.sh status              namespaces, the router's links and MIFs, the daemon
#   tools/lab.sh down                stop everything started in the lab and remove it
#
# Environment: MLD_DAEMON (daemon binary, default build/mldproxyd of this repository),
# MLD_LAB_PREFIX (namespace prefix), MLD_LAB_STATE (state directory, default /run/mldlab).

# Single-quoted scripts for sh -c are meant literally; "a && b || fail" is meant as "fail unless
# both worked"; the LAB_DAEMON_* variables are for the scripts that source this file.
# shellcheck disable=SC2016,SC2015,SC2034,SC2119,SC2120
LAB_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
LAB_PREFIX=${MLD_LAB_PREFIX:-mldlab-}
LAB_STATE=${MLD_LAB_STATE:-/run/mldlab}
LAB_DAEMON=${MLD_DAEMON:-$LAB_ROOT/build/mldproxyd}
LAB_PYTHON=/usr/bin/python3 # Debian's scapy lives in the system Python
LAB_REPORT_PY=$LAB_ROOT/tests/lab/mld_report.py

# Namespace short names (lab_ns turns them into full names).
LAB_UP=up     # bridge br0 with the router's and the source's ports
LAB_SRC=src   # multicast source behind the bridge
LAB_RT=rt     # the router: mldproxyd runs here
LAB_H1=h1     # host on the router's dn1
LAB_H2=h2     # host on the router's dn2
LAB_UPSTREAM=up0

# Set by lab_start_daemon and lab_stop_daemon.
LAB_DAEMON_PID=''
LAB_CONTROL_SOCKET=''  # the daemon's control socket (mldproxyd status -s ...)
LAB_DAEMON_LOG=''
LAB_DAEMON_ERR=''
LAB_DAEMON_STATUS=''

lab_say() { printf 'lab: %s\n' "$*" >&2; }

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
    ip link set lo up' || return 1
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
    lab_ns_create "$ns" || { lab_say "cannot create namespace $(lab_ns "$ns")"; return 1; }
  done
  local up rt src
  up=$(lab_ns "$LAB_UP") rt=$(lab_ns "$LAB_RT") src=$(lab_ns "$LAB_SRC")
  # The upstream side: a bridge that snoops MLD and is itself the MLDv2 querier, with its own
  # link-local address (the querier's source address). The router's port floods unknown
  # multicast (the default); tests of the upstream host state turn mcast_flood off themselves.
  ip -n "$up" link add br0 type bridge mcast_snooping 1 mcast_querier 1 mcast_mld_version 2 &&
    ip -n "$rt" link add "$LAB_UPSTREAM" type veth peer name p-rt netns "$up" &&
    ip -n "$src" link add eth0 type veth peer name p-src netns "$up" &&
    ip -n "$up" link set p-rt master br0 &&
    ip -n "$up" link set p-src master br0 &&
    lab_link_up "$LAB_UP" p-rt && lab_link_up "$LAB_UP" p-src && lab_link_up "$LAB_UP" br0 &&
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
  lab_ns_create "$host" || { lab_say "cannot create namespace $(lab_ns "$host")"; return 1; }
  lab_make_downstream "$ifname" "$host" || return 1
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

# lab_write_conf FILE [UPSTREAM]: the lab configuration (short intervals, so that timers run out
# within a test), upstream interface UPSTREAM (default up0).
lab_write_conf() {
  cat >"$1" <<EOF
UPSTREAM_IFNAME ${2:-$LAB_UPSTREAM}
ROBUSTNESS_VARIABLE 2
QUERY_INTERVAL 4
QUERY_RESPONSE_INTERVAL 1000
LAST_LISTENER_QUERY_INTERVAL 1
LAST_LISTENER_QUERY_COUNT 2
VERBOSE 0
EOF
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

# lab_counter NS IFNAME NAME: an IPv6/ICMPv6 counter of one link (/proc/net/dev_snmp6).
lab_counter() {
  ip netns exec "$(lab_ns "$1")" cat "/proc/net/dev_snmp6/$2" 2>/dev/null | awk -v n="$3" '$1 == n { print $2; f = 1 } END { if (!f) print 0 }'
}

# lab_ns_counter NS NAME: a counter of the whole namespace (/proc/net/snmp6).
lab_ns_counter() {
  ip netns exec "$(lab_ns "$1")" cat /proc/net/snmp6 2>/dev/null | awk -v n="$2" '$1 == n { print $2; f = 1 } END { if (!f) print 0 }'
}

# lab_wait_started [TIMEOUT]: wait until the daemon has taken up every router link (all are
# MIFs) and the router namespace has sent no multicast packet for 2.5 s (the paced start-up
# announcements are over). Ip6OutMcastPkts counts the daemon's packets and its kernel's own
# MLD reports alike (the per-link ICMPv6 counters miss what the daemon sends).
lab_wait_started() {
  local timeout=${1:-30} deadline last now since
  deadline=$(($(lab_now_us) + timeout * 1000000))
  lab_wait_for "$timeout" lab_all_links_are_mifs || { lab_say "not every router link became a MIF"; return 1; }
  last=$(lab_ns_counter "$LAB_RT" Ip6OutMcastPkts)
  since=$(lab_now_us)
  while true; do
    sleep 0.25
    now=$(lab_ns_counter "$LAB_RT" Ip6OutMcastPkts)
    if [[ $now != "$last" ]]; then
      last=$now
      since=$(lab_now_us)
    elif [[ $(($(lab_now_us) - since)) -ge 2500000 ]]; then
      return 0
    fi
    [[ $(lab_now_us) -ge $deadline ]] && { lab_say "the router never fell quiet"; return 1; }
  done
}

# ---------------------------------------------------------------------------------------------
# hand-made packets

# lab_send_mld_report HOST [mld_report.py options] RECORD...: send MLDv2 reports with scapy
# from eth0 of the host namespace HOST (see tests/lab/mld_report.py: records are
# TYPE:GROUP[:SOURCE,...], options --count, --interval, --src, --dst, --hlim, --no-router-alert).
lab_send_mld_report() {
  local host=$1
  shift
  lab_exec "$host" "$LAB_PYTHON" "$LAB_REPORT_PY" --iface eth0 "$@"
}

# ---------------------------------------------------------------------------------------------
# more hosts, sources, captures and the kernel's forwarding entries

# Global addresses of the multicast source (lab_add_source_addrs puts them on src's eth0).
LAB_SRC_ADDR1=2001:db8:1::10
LAB_SRC_ADDR2=2001:db8:1::11
LAB_SRC_ADDR3=2001:db8:1::12
LAB_FLOW_PY=$LAB_ROOT/tests/lab/mcast_flow.py
LAB_PCAP_PY=$LAB_ROOT/tests/lab/wire_pcap.py

# lab_add_source_addrs: three global addresses on src's eth0 (senders bind to any of them).
lab_add_source_addrs() {
  ip -n "$(lab_ns "$LAB_SRC")" addr add "$LAB_SRC_ADDR1/64" dev eth0 nodad &&
    ip -n "$(lab_ns "$LAB_SRC")" addr add "$LAB_SRC_ADDR2/64" dev eth0 nodad &&
    ip -n "$(lab_ns "$LAB_SRC")" addr add "$LAB_SRC_ADDR3/64" dev eth0 nodad
}

# lab_flood_upstream: make the router's bridge port a permanent multicast-router port, so that
# all multicast from src reaches up0 whatever the router reported upstream. (Once the bridge's
# querier is established, 10 s after br0 came up, it sends a group that no port has joined only
# to multicast-router ports: mcast_flood does not bring it to the router.) Tests of downstream
# forwarding use it, so that a link without listeners is shown to get nothing although the
# traffic reaches the router.
lab_flood_upstream() { ip netns exec "$(lab_ns "$LAB_UP")" bridge link set dev p-rt mcast_router 2; }

# lab_add_lan_host HOST NEWHOST: a second host on HOST's link: a macvlan (bridge mode) on HOST's
# eth0, moved into a new namespace NEWHOST as its eth0. Both hosts then share the router's link
# (frames from the router reach both; NEWHOST's reports leave through HOST's eth0), each with its
# own MAC and link-local address and its own kernel MLD state.
lab_add_lan_host() {
  local host=$1 newhost=$2 tmp="mv-$2"
  lab_ns_create "$newhost" || { lab_say "cannot create namespace $(lab_ns "$newhost")"; return 1; }
  ip -n "$(lab_ns "$host")" link add "$tmp" link eth0 type macvlan mode bridge &&
    ip -n "$(lab_ns "$host")" link set "$tmp" netns "$(lab_ns "$newhost")" &&
    ip -n "$(lab_ns "$newhost")" link set "$tmp" name eth0 &&
    lab_link_up "$newhost" eth0 || { lab_say "cannot attach $newhost to the link of $host"; return 1; }
  lab_wait_ll "$newhost" eth0
}

# lab_add_lan_ifaces HOST NEWNS N: N more hosts on HOST's link, all in one new namespace NEWNS,
# one interface each: macvlans (bridge mode) on HOST's eth0, called mv0 .. mv<N-1> in NEWNS, each
# with its own MAC, link-local address and kernel MLD state. Waits for their addresses.
lab_add_lan_ifaces() {
  local host=$1 newns=$2 n=$3 i
  lab_ns_create "$newns" || { lab_say "cannot create namespace $(lab_ns "$newns")"; return 1; }
  for ((i = 0; i < n; i++)); do
    ip -n "$(lab_ns "$host")" link add "mv$i" link eth0 type macvlan mode bridge &&
      ip -n "$(lab_ns "$host")" link set "mv$i" netns "$(lab_ns "$newns")" &&
      lab_link_up "$newns" "mv$i" || { lab_say "cannot attach $newns/mv$i to the link of $host"; return 1; }
  done
  for ((i = 0; i < n; i++)); do lab_wait_ll "$newns" "mv$i" || return 1; done
}

# lab_capture NS IFNAME FILE [FILTER]: tcpdump on the link into the pcap FILE (immediate mode and
# packet-buffered: a packet is in the file at once, not up to a second later when the kernel's
# capture buffer times out, so the file can be polled while it grows), in the background; FILTER defaults to "ip6" (the
# "icmp6" primitive does not follow the hop-by-hop header that MLD messages carry). Returns
# once tcpdump listens. Sets LAB_CAPTURE_PID.
lab_capture() {
  local ns=$1 ifname=$2 file=$3 filter=${4:-ip6}
  LAB_CAPTURE_PID=''
  ip netns exec "$(lab_ns "$ns")" tcpdump -i "$ifname" -n -U --immediate-mode -Z root -w "$file" "$filter" \
    </dev/null >/dev/null 2>"$file.err" &
  LAB_CAPTURE_PID=$!
  lab_wait_for 10 grep -qs 'listening on' "$file.err" || {
    lab_say "tcpdump on $ns/$ifname did not start: $(head -c 300 "$file.err")"
    return 1
  }
}

# lab_capture_lines NS IFNAME FILE [FILTER]: like lab_capture, but tcpdump writes one text line
# per packet into FILE ("TIME IP6 SRC.PORT > DST.PORT: UDP, length N" for UDP), cheap to count
# while it runs. FILTER defaults to "udp". Sets LAB_CAPTURE_PID.
lab_capture_lines() {
  local ns=$1 ifname=$2 file=$3 filter=${4:-udp}
  LAB_CAPTURE_PID=''
  ip netns exec "$(lab_ns "$ns")" tcpdump -i "$ifname" -n -l -tt --immediate-mode -Z root "$filter" \
    </dev/null >"$file" 2>"$file.err" &
  LAB_CAPTURE_PID=$!
  lab_wait_for 10 grep -qs 'listening on' "$file.err" || {
    lab_say "tcpdump on $ns/$ifname did not start: $(head -c 300 "$file.err")"
    return 1
  }
}

# lab_capture_stop PID...: end captures started above (SIGINT makes tcpdump write what it holds).
lab_capture_stop() {
  local pid
  for pid in "$@"; do
    [[ -n $pid ]] || continue
    kill -INT "$pid" 2>/dev/null
    lab_wait_exit "$pid" 5 || kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
  done
  return 0
}

# lab_udp_times FILE GROUP [SOURCE]: times of the UDP packets to GROUP (from SOURCE) in a
# lab_capture_lines file, one a line.
lab_udp_times() {
  awk -v g="$2" -v s="${3:-}" '
    $2 == "IP6" && $4 == ">" && $0 ~ /: UDP,/ {
      src = $3; sub(/\.[0-9]+$/, "", src)
      dst = $5; sub(/:$/, "", dst); sub(/\.[0-9]+$/, "", dst)
      if (dst == g && (s == "" || src == s)) print $1
    }' "$1" 2>/dev/null
}

# lab_with_probe NAME OUT PROBE_ARGS... -- COMMAND...: tools/bench/probe.py NAME listens (in the
# namespaces its arguments name), the time goes into its start file, COMMAND runs (starting the
# daemon, making a link), and the probe's figures (JSON) go to OUT.
LAB_PROBE_PY=$LAB_ROOT/tools/bench/probe.py
lab_with_probe() {
  local name=$1 out=$2 start=$LAB_STATE/$1.start pid
  shift 2
  local args=()
  while [[ $1 != -- ]]; do args+=("$1"); shift; done
  shift
  mkdir -p "$LAB_STATE" && rm -f "$start"
  "$LAB_PYTHON" "$LAB_PROBE_PY" "$name" --start-file "$start" "${args[@]}" >"$out" 2>"$out.err" &
  pid=$!
  lab_wait_for 10 grep -qs LISTENING "$out" || { kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; return 1; }
  date +%s.%N >"$start"
  "$@"
  wait "$pid"
  sed -i '/^LISTENING$/d' "$out"
}

# lab_mld_lines FILE...: the packets of pcap files decoded one a line (tests/lab/wire_pcap.py).
lab_mld_lines() { "$LAB_PYTHON" "$LAB_PCAP_PY" "$@"; }

# lab_addr_full ADDR: the address written out in full, as /proc/net/ip6_mr_cache shows it.
lab_addr_full() {
  "$LAB_PYTHON" -c 'import ipaddress, sys; print(ipaddress.IPv6Address(sys.argv[1]).exploded)' "$1"
}

# lab_mfc GROUP [ORIGIN]: the router kernel's forwarding entry for (ORIGIN, GROUP) (ORIGIN
# default ::, the (*,G) entry) as "IIF OIF OIF ..." (MIF indexes); nothing when there is none.
lab_mfc() {
  local g o
  g=$(lab_addr_full "$1") && o=$(lab_addr_full "${2:-::}") || return 1
  ip netns exec "$(lab_ns "$LAB_RT")" cat /proc/net/ip6_mr_cache 2>/dev/null | awk -v g="$g" -v o="$o" '
    NR > 1 && $1 == g && $2 == o {
      line = $3
      for (i = 7; i <= NF; i++) { split($i, a, ":"); line = line " " a[1] }
      print line
      exit
    }'
}

# lab_mfc_group GROUP: every kernel forwarding entry of GROUP as "ORIGIN IIF OIF ..." lines.
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

# lab_mif_set IFNAME...: the MIF indexes of the router's links, sorted, space-separated (the
# form lab_mfc's OIF list has after sorting); fails when a link is no MIF.
lab_mif_set() {
  local ifname mif list=()
  for ifname in "$@"; do
    mif=$(lab_mif_index "$ifname")
    [[ -n $mif ]] || return 1
    list+=("$mif")
  done
  printf '%s\n' "${list[@]}" | sort -n | tr '\n' ' ' | sed 's/ $//'
}

# lab_mfc_oifs GROUP [ORIGIN]: the entry's output MIFs, sorted, space-separated.
lab_mfc_oifs() { lab_mfc "$@" | awk '{ for (i = 2; i <= NF; i++) print $i }' | sort -n | tr '\n' ' ' | sed 's/ $//'; }

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
