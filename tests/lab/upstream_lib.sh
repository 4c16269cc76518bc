# shellcheck shell=bash
# Helpers for the lab tests of the daemon's upstream host side (sourced after tests/lab/lib.sh,
# which sources tools/lab.sh): the bridge's view (its mdb and the router's port), captures of
# the router namespace decoded with scapy, listeners and a traffic source.
#
# The router's bridge port p-rt gets `mcast_flood off`: the bridge then sends it a group's
# traffic only when the mdb lists the group on that port, that is, only after the daemon
# reported the group upstream. Only the upstream tests do this (the other lab tests keep the
# default flooding).

UP_PY=$LAB_PYTHON
UP_DIR=$LAB_TESTS_DIR
UP_BRIDGE=br0
UP_PORT=p-rt              # the bridge's port toward the router
UP_SRC_ADDR=2001:db8:5::10 # a global address of the source host, the (S,G) source

# Captures: the running tcpdump and its file.
UP_CAP_PID=''
UP_CAP_FILE=''
# "INDEX=NAME" for every router interface seen so far (up0 changes its index when re-made).
declare -A UP_IFNAMES=()
# Background helpers by name: PID and, for listeners, the status file.
declare -A UP_PIDS=()

# ---------------------------------------------------------------------------------------------
# the bridge

# up_flood_off: the router's bridge port forwards a group's multicast only by the mdb.
up_flood_off() {
  bridge -n "$(lab_ns "$LAB_UP")" link set dev "$UP_PORT" mcast_flood off || return 1
  bridge -n "$(lab_ns "$LAB_UP")" -d link show dev "$UP_PORT" | grep -q 'mcast_flood off'
}

# up_mdb: the bridge's mdb, one "PORT GROUP [SOURCE]" line per entry (iproute2's
# "dev br0 port P grp G [src S] ..." lines).
up_mdb() {
  bridge -n "$(lab_ns "$LAB_UP")" mdb show dev "$UP_BRIDGE" 2>/dev/null | awk '
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
  up_mdb | awk -v p="${2:-$UP_PORT}" -v g="$1" '$1 == p && $2 == g && $3 == "" { f = 1 } END { exit !f }'
}
up_mdb_lacks() { ! up_mdb_has "$@"; }

# up_mdb_count_prefix PREFIX: number of distinct groups starting with PREFIX on the router's port.
up_mdb_count_prefix() {
  up_mdb | awk -v p="$UP_PORT" -v x="$1" '$1 == p && index($2, x) == 1 { g[$2] = 1 } END { print length(g) }'
}

# up_mdb_line GROUP: the mdb's own lines for GROUP (with timers), for messages.
up_mdb_line() {
  bridge -n "$(lab_ns "$LAB_UP")" -s mdb show dev "$UP_BRIDGE" 2>/dev/null | grep -F " grp $1 " | tr -s ' ' | paste -sd ';'
}

# ---------------------------------------------------------------------------------------------
# the lab for these tests

# up_lab_up: the lab, the source host's global address, flooding off on the router's port.
up_lab_up() {
  lab_up || { lab_say "the lab could not be built"; return 1; }
  ip -n "$(lab_ns "$LAB_SRC")" -6 addr add "$UP_SRC_ADDR/64" dev eth0 nodad ||
    { lab_say "cannot give the source host $UP_SRC_ADDR"; return 1; }
  up_flood_off || { lab_say "cannot set mcast_flood off on $UP_PORT"; return 1; }
  up_learn_ifnames
}

# up_learn_ifnames: remember the index of every router interface (for decoding captures).
up_learn_ifnames() {
  local index name
  while read -r index name; do
    [[ -n $index ]] && UP_IFNAMES[$index]=$name
  done < <(ip -n "$(lab_ns "$LAB_RT")" -o link show | awk -F': ' '{ sub(/@.*/, "", $2); print $1, $2 }')
}

# up_upstream_ll: the router's up0 link-local address (the source of the daemon's reports).
up_upstream_ll() { lab_ll_addr "$LAB_RT" "$LAB_UPSTREAM"; }

# up_make_upstream: after the router's upstream link was deleted (its veth, so the bridge port
# went too), make a new one with the same names, attached to the bridge again, flooding off,
# both ends up at once as a plugged-in cable would be.
up_make_upstream() {
  local up rt
  up=$(lab_ns "$LAB_UP") rt=$(lab_ns "$LAB_RT")
  ip -n "$rt" link add "$LAB_UPSTREAM" type veth peer name "$UP_PORT" netns "$up" &&
    ip -n "$up" link set "$UP_PORT" master "$UP_BRIDGE" &&
    up_flood_off &&
    lab_link_up "$LAB_UP" "$UP_PORT" && lab_link_up "$LAB_RT" "$LAB_UPSTREAM" || return 1
  up_learn_ifnames
  lab_wait_ll "$LAB_RT" "$LAB_UPSTREAM"
}

# ---------------------------------------------------------------------------------------------
# captures

# up_capture_start FILE: capture the MLD of the router namespace (every IPv6 packet but UDP),
# all interfaces (those made later too), with the interface index in the cooked header, into
# FILE, decoded as it comes into FILE.txt (upstream_pcap.py --follow). Waits until tcpdump
# listens. (tcpdump's "icmp6" would not look past the hop-by-hop header that MLD carries, so the
# filter is on IPv6 and leaves out only datagrams.) Never promiscuous (-p): a link's flags
# changing is a netlink event, which the capture need not add to what it observes.
up_capture_start() {
  local file=$1 err=$1.err
  up_capture_stop
  UP_CAP_FILE=$file
  : >"$file.txt"
  # Started directly (not through a shell function), so that $! is tcpdump itself.
  ip netns exec "$(lab_ns "$LAB_RT")" tcpdump -p -Z root -i any -y LINUX_SLL2 -U -n -s 2048 -w "$file" 'ip6 and not ip6 proto 17' 2>"$err" &
  UP_CAP_PID=$!
  if ! lab_wait_for 10 grep -qs 'listening on' "$err" || ! lab_wait_for 5 test -s "$file"; then
    lab_say "tcpdump did not start: $(tr '\n' ' ' <"$err")"
    up_capture_stop
    return 1
  fi
  # The decoder runs outside the lab's namespaces: it ends by itself when tcpdump is gone.
  "$UP_PY" "$UP_DIR/upstream_pcap.py" --follow --writer "$UP_CAP_PID" "$file" >"$file.txt" 2>"$file.txt.err" &
  UP_DEC_PID=$!
}

# up_capture_stop: end the capture; the decoder ends once it decoded every packet of it.
UP_DEC_PID=''
up_capture_stop() {
  if [[ -n $UP_CAP_PID ]]; then
    kill -INT "$UP_CAP_PID" 2>/dev/null
    lab_wait_exit "$UP_CAP_PID" 5 || kill -KILL "$UP_CAP_PID" 2>/dev/null
    wait "$UP_CAP_PID" 2>/dev/null
    UP_CAP_PID=''
  fi
  if [[ -n $UP_DEC_PID ]]; then
    lab_wait_exit "$UP_DEC_PID" 20 || kill -KILL "$UP_DEC_PID" 2>/dev/null
    wait "$UP_DEC_PID" 2>/dev/null
    UP_DEC_PID=''
  fi
}

# up_udp_watch_start FILE: every UDP datagram that reaches the router's up0, one line each
# ("SECONDS.MICROSECONDS IP6 SRC.PORT > GROUP.PORT: UDP ..."), written as they come.
UP_UDP_PID=''
up_udp_watch_start() {
  local file=$1
  ip netns exec "$(lab_ns "$LAB_RT")" tcpdump -p -Z root -i "$LAB_UPSTREAM" -tt -n -l 'ip6 proto 17' >"$file" 2>"$file.err" &
  UP_UDP_PID=$!
  lab_wait_for 10 grep -qs 'listening on' "$file.err" || { lab_say "tcpdump on up0 did not start"; return 1; }
}

up_udp_watch_stop() {
  [[ -n $UP_UDP_PID ]] || return 0
  t_stop "$UP_UDP_PID"
  UP_UDP_PID=''
}

# up_udp_times FILE GROUP: arrival times (microseconds) of the datagrams to GROUP in FILE.
up_udp_times() {
  awk -v g="$2" '$2 == "IP6" && $4 == ">" {
      d = $5; sub(/:$/, "", d); sub(/\.[0-9]+$/, "", d)
      if (d == g) { split($1, t, "."); printf "%s%06d\n", t[1], t[2] }
    }' "$1" 2>/dev/null
}

# up_decode: the current capture's packets decoded so far (see upstream_pcap.py), interface
# indexes turned into the router's interface names.
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

# ---------------------------------------------------------------------------------------------
# listeners and the source

# up_listen NAME HOST GROUP PORT [SOURCE]: an application on HOST joins GROUP (from SOURCE only,
# when given) and counts the datagrams to PORT; status in $T_WORK/listen-NAME. Waits until it
# joined.
up_listen() {
  local name=$1 host=$2 group=$3 port=$4 source=${5:-} status=$T_WORK/listen-$1 args=()
  [[ -n $source ]] && args=(--source "$source")
  rm -f "$status"
  ip netns exec "$(lab_ns "$host")" "$UP_PY" "$UP_DIR/upstream_listen.py" --iface eth0 --group "$group" \
    --port "$port" --status "$status" "${args[@]}" 2>"$status.err" &
  UP_PIDS[$name]=$!
  lab_wait_for 10 test -s "$status" || { lab_say "listener $name did not start: $(cat "$status.err")"; return 1; }
}

# up_listen_value NAME KEY: one value of a listener's status (0 when there is none).
up_listen_value() {
  awk -v k="$2" '$1 == k { print $2; f = 1 } END { if (!f) print 0 }' "$T_WORK/listen-$1" 2>/dev/null
}

# up_listen_signal NAME SIGNAL: USR1 leaves, USR2 joins again.
up_listen_signal() { kill -"$2" "${UP_PIDS[$1]}"; }

# up_has_traffic NAME [KEY] [MIN]: the listener got at least MIN (default 1) datagrams
# (KEY default count_since_join).
up_has_traffic() { [[ $(up_listen_value "$1" "${2:-count_since_join}") -ge ${3:-1} ]]; }

# up_send_start NAME RATE GROUP/PORT...: the source host sends RATE datagrams a second to each
# target, from its global address, hop limit 8.
up_send_start() {
  local name=$1 rate=$2
  shift 2
  ip netns exec "$(lab_ns "$LAB_SRC")" "$UP_PY" "$UP_DIR/upstream_send.py" --iface eth0 --src "$UP_SRC_ADDR" \
    --rate "$rate" --hlim 8 "$@" 2>"$T_WORK/send-$name.err" &
  UP_PIDS[$name]=$!
}

# up_stop NAME: end one background helper.
up_stop() {
  [[ -n ${UP_PIDS[$1]:-} ]] || return 0
  t_stop "${UP_PIDS[$1]}"
  unset "UP_PIDS[$1]"
}

# up_stop_all: end every helper and the capture (before the lab goes).
up_stop_all() {
  local name
  up_capture_stop
  up_udp_watch_stop
  for name in "${!UP_PIDS[@]}"; do up_stop "$name"; done
}

# up_ms FROM_US TO_US: milliseconds between two times, with one decimal.
up_ms() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", (b - a) / 1000 }'; }

# up_mdb_at_least PREFIX N / up_mdb_at_most PREFIX N: groups starting with PREFIX on the
# router's port, compared with N (for lab_wait_for, which needs a command, not a value).
up_mdb_at_least() { [[ $(up_mdb_count_prefix "$1") -ge $2 ]]; }
up_mdb_at_most() { [[ $(up_mdb_count_prefix "$1") -le $2 ]]; }

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
