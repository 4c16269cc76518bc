#!/usr/bin/env bash
# mldproxyd demo (root, Debian 12): builds the daemon if needed, brings up the lab of network
# namespaces (tools/lab.sh), runs the daemon in the router namespace and shows, as it happens,
# the daemon finding the router's links and registering them as multicast interfaces (MIFs) in
# the kernel, its start-up reports and general queries on a downstream link, a link added while
# it runs, a host joining a group (its report, the router's report upstream, traffic from src
# reaching the host), the host leaving (the router's group-specific queries, its report upstream,
# the bridge's prune, traffic stopping), and the clean shutdown on SIGTERM. The lab is removed at the end,
# also when the demo is interrupted.
#
# It checks each step of that story as it goes, and its last line is the verdict: "PASS" with
# the figures (join -> upstream report, join -> first datagram at h1, leave -> last datagram,
# leave -> upstream CHANGE_TO_INCLUDE, datagrams on the link without a listener), or "FAIL:"
# naming the step that did not happen, with exit status 1.
#
#   sudo bash tools/demo.sh
#
# Environment: MLD_DAEMON (a daemon binary to use instead of building build/mldproxyd),
# MLD_DEMO_UPSTREAM (the upstream link the configuration names, default up0; another name makes
# a daemon that proxies nothing, and the demo then fails).

set -u
export LC_ALL=C

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# A lab of its own ("mldlab-demo-rt", ...), apart from one brought up by hand and from test runs.
export MLD_LAB_PREFIX=${MLD_LAB_PREFIX:-mldlab-demo-}
export MLD_LAB_STATE=${MLD_LAB_STATE:-/run/mldlab/demo}

if [[ $(id -u) -ne 0 ]]; then
  echo "tools/demo.sh needs root (network namespaces, multicast routing): sudo bash tools/demo.sh" >&2
  exit 1
fi

# shellcheck source=tools/lab.sh
. "$ROOT/tools/lab.sh"

# One demo at a time: a second run never tears down the lab of one that is running. A lab of this
# prefix with nobody holding the lock was left by a demo that was killed: it is cleared.
mkdir -p /run/mldlab
exec 9>"/run/mldlab/${LAB_PREFIX}lock"
if ! flock -n 9; then
  echo "tools/demo.sh: another demo runs (its namespaces are ${LAB_PREFIX}*); try again when it is done" >&2
  exit 1
fi
if [[ -n $(lab_namespaces) ]]; then
  echo "tools/demo.sh: clearing a stale demo lab: $(lab_namespaces | tr '\n' ' ')" >&2
  lab_down >/dev/null 2>&1
fi

T0=$(lab_now_us)
TAIL_PID=''
FOLLOWERS=() # decoders of the captures, printing as packets come
VERDICT='' # "PASS ..." once every step happened; otherwise the step that did not
FIGURES=()

stamp() {
  local cs=$((($(lab_now_us) - T0) / 10000))
  printf '[%3d.%02ds]' $((cs / 100)) $((cs % 100))
}
step() { printf '\n%s == %s\n' "$(stamp)" "$*"; }
info() { printf '%s    %s\n' "$(stamp)" "$*"; }
die() {
  printf '%s    FAILED: %s\n' "$(stamp)" "$*" >&2
  VERDICT="FAIL: $*"
  exit 1
}

cleanup() {
  lab_stop "${FOLLOWERS[@]}" "$TAIL_PID"
  flow_stop_all
  lab_down >/dev/null 2>&1 || lab_down
  rm -rf -- "$LAB_STATE"
  # The verdict is the last line, whatever ended the demo.
  printf '\n%s\n' "${VERDICT:-FAIL: the demo was interrupted}"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# show_mifs: the router kernel's MIF table, indented.
show_mifs() {
  local table
  table=$(ip netns exec "$(lab_ns "$LAB_RT")" cat /proc/net/ip6_mr_vif 2>/dev/null)
  if [[ $(wc -l <<<"$table") -le 1 ]]; then
    info "  /proc/net/ip6_mr_vif: (no MIF)"
  else
    info "  /proc/net/ip6_mr_vif:"
    printf '               %s\n' "${table//$'\n'/$'\n'               }"
  fi
}

# watch_mifs DONE_COMMAND TIMEOUT: print the MIF table each time it changes, until the command
# succeeds (0) or time is up (1).
watch_mifs() {
  local done_cmd=$1 timeout=$2 deadline last='' now finished
  deadline=$(($(lab_now_us) + timeout * 1000000))
  while true; do
    finished=0
    $done_cmd && finished=1
    # Read the table after the test, so that the table that satisfied it is always shown.
    now=$(lab_mifs | tr '\n' ' ')
    if [[ $now != "$last" ]]; then
      show_mifs
      last=$now
    fi
    [[ $finished -eq 1 ]] && return 0
    [[ $(lab_now_us) -ge $deadline ]] && return 1
    sleep 0.2
  done
}

# ---------------------------------------------------------------------------------------------
step "1. The daemon"

needed=()
for tool in cmake g++ make ip unshare strace tcpdump "$LAB_PYTHON"; do command -v "$tool" >/dev/null || needed+=("$tool"); done
if [[ ${#needed[@]} -gt 0 ]]; then
  info "missing: ${needed[*]}; installing the project's packages (tools/test.sh packages)"
  bash "$ROOT/tools/test.sh" packages || die "could not install the packages"
fi

if [[ -n ${MLD_DAEMON:-} ]]; then
  info "using MLD_DAEMON=$LAB_DAEMON"
else
  if [[ ! -f $ROOT/build/CMakeCache.txt ]]; then
    info "cmake -S . -B build -DMLD_TESTS=OFF"
    cmake -S "$ROOT" -B "$ROOT/build" -DMLD_TESTS=OFF >/dev/null || die "cmake could not configure build/"
  fi
  info "cmake --build build -j2"
  cmake --build "$ROOT/build" -j2 >"$ROOT/build/demo-build.log" 2>&1 || {
    tail -n 30 "$ROOT/build/demo-build.log"
    die "the build failed (whole output in build/demo-build.log)"
  }
fi
[[ -x $LAB_DAEMON ]] || die "no daemon at $LAB_DAEMON"
info "daemon: $LAB_DAEMON ($(stat -c %s "$LAB_DAEMON") bytes)"

# ---------------------------------------------------------------------------------------------
step "2. The lab (network namespaces ${LAB_PREFIX}*)"
lab_up || die "the lab could not be built"
cat <<EOF
      src (eth0) ── br0 in ${LAB_PREFIX}up: MLD snooping, MLDv2 querier ── up0 ┐
                                                                              │ ${LAB_PREFIX}rt
                                                   h1 (eth0) ── dn1 ──────────┤ runs mldproxyd
                                                   h2 (eth0) ── dn2 ──────────┘
EOF
info "router links and their link-local addresses:"
ip -n "$(lab_ns "$LAB_RT")" -6 -o addr show scope link | awk '{ printf "               %-5s %s\n", $2, $4 }'
show_mifs
RT_UP=$(lab_ll_addr "$LAB_RT" "$LAB_UPSTREAM") RT_DN1=$(lab_ll_addr "$LAB_RT" dn1)
H1_LL=$(lab_ll_addr "$LAB_H1" eth0) BR_LL=$(lab_ll_addr "$LAB_UP" br0)
names=(--name "$RT_UP=router(up0)" --name "$RT_DN1=router(dn1)" --name "$H1_LL=h1" --name "$BR_LL=bridge")
t0s=$(awk -v t="$T0" 'BEGIN { printf "%.6f", t / 1000000 }')

# ---------------------------------------------------------------------------------------------
step "3. Start mldproxyd in the router namespace"
CONF=$LAB_STATE/mld.conf
mkdir -p "$LAB_STATE"
lab_write_conf "$CONF" UPSTREAM_IFNAME="${MLD_DEMO_UPSTREAM:-$LAB_UPSTREAM}"
info "/etc/mld/mld.conf (bind-mounted in the daemon's own mount namespace):"
sed 's/^/               /' "$CONF"
# What the router sends on dn1 from its start on, decoded as it goes out (seen from h1's side).
mld_capture_start dn1-start "$LAB_H1" eth0 || die "no capture on dn1"
"$LAB_PYTHON" "$LAB_PY" decode --follow --human --key --grep "src=$RT_DN1 " --t0 "$t0s" --label '    dn1| ' "${names[@]}" \
  "$LAB_WORK/mld-dn1-start.pcap" &
FOLLOWERS+=("$!")
lab_start_daemon -c "$CONF" || die "the daemon did not start"
info "mldproxyd runs, PID $LAB_DAEMON_PID; its output follows, marked 'mldproxyd|'"
tail -n +1 -f "$LAB_DAEMON_LOG" 2>/dev/null | sed -u 's/^/               mldproxyd| /' &
TAIL_PID=$!

# ---------------------------------------------------------------------------------------------
step "4. The daemon finds the router's links and registers each one as a MIF"
info "(it reads the links and their addresses over netlink and takes each one up as it is read)"
watch_mifs lab_all_links_are_mifs 40 || die "not every link became a MIF within 40 s"
info "every link of the router except lo is a MIF: $(lab_mifs | awk '{ printf "%s=%s ", $2, $1 }')"
info "on each downstream link the daemon announces its own memberships (one TO_EX record each for"
info "the solicited-node group of its upstream address, ff02::16 and ff02::2, robustness times, half"
info "a second apart) and starts querying at once: the second general query QUERY_INTERVAL / 4"
info "seconds after the first (1 s here), then one every QUERY_INTERVAL (4 s); the router kernel's"
info "own reports carry several records"
lab_wait_started 40 || info "(the router did not fall quiet; going on)"
sleep 9
lab_stop "${FOLLOWERS[@]}"
FOLLOWERS=()
lab_capture_stop
for host in "$LAB_H1" "$LAB_H2"; do
  info "  $host has received $(lab_counter "$host" eth0 Icmp6InGroupMembQueries) MLD queries from the router"
done

# ---------------------------------------------------------------------------------------------
step "5. A new downstream link appears while the daemon runs"
info "ip link add dn3 (router) <-> eth0 (new host h3)"
lab_add_downstream dn3 h3 || die "could not add dn3"
watch_mifs "lab_has_mif dn3" 40 || die "the hot-plugged dn3 did not become a MIF within 40 s"
info "dn3 is MIF $(lab_mif_index dn3) (the lowest free index)"

# ---------------------------------------------------------------------------------------------
step "6. A host joins a group, traffic from upstream reaches it, the host leaves"
G=ff0e::1:101
PORT=5001
lab_add_source_addrs || die "cannot give src its address"
# What is shown as it happens: the MLD messages about $G on dn1 (host side) and on the bridge
# side of up0, decoded; once a second the datagrams that reached up0, h1's socket and h2's link.
mld_capture_start dn1 "$LAB_H1" eth0 || die "no capture on dn1"
mld_capture_start up0 "$LAB_UP" "$LAB_RT_PORT" || die "no capture on up0"
flow_wire_start up0 "$LAB_UP" "$LAB_RT_PORT" || die "no capture of the traffic at up0"
flow_wire_start h1 "$LAB_H1" eth0 || die "no capture of the traffic at h1"
flow_wire_start h2 "$LAB_H2" eth0 || die "no capture of the traffic at h2"
for where in dn1 up0; do
  "$LAB_PYTHON" "$LAB_PY" decode --follow --human --grep "$G" --t0 "$t0s" --label "    $where| " "${names[@]}" "$LAB_WORK/mld-$where.pcap" &
  FOLLOWERS+=("$!")
done

# upstream_record TYPE AFTER: the time of the daemon's first report on up0 (bridge side) with a
# record of TYPE (4 TO_EX, 3 TO_IN) for $G after the epoch time AFTER.
upstream_record() {
  mld up0 2>/dev/null |
    awk -v a="$2" -v rec="$1/$G/" -v src="src=$RT_UP" '$1 > a && index($0, src) && / type=143 / && index($0, rec) { print $1; exit }'
}

# check_story: every step of the join and the leave happened; their figures for the verdict.
check_story() {
  local joined left report first last to_in h2
  joined=$(flow_joined_at "$LAB_H1" "$G") left=$(flow_left_at "$LAB_H1" "$G")
  [[ -n $joined && -n $left ]] || die "h1 did not join and leave $G"
  report=$(upstream_record 4 "$joined")
  [[ -n $report ]] || die "the router did not report h1's join of $G upstream (no CHANGE_TO_EXCLUDE on up0)"
  first=$(flow_received "$LAB_H1" "$G" | awk -v j="$joined" '$1 > j { print; exit }')
  [[ -n $first ]] || die "h1 received no datagram of $G after joining it"
  last=$(flow_wire h1 "$G" | tail -n 1)
  awk -v l="$left" -v t="$last" 'BEGIN { exit !(t - l < 4.5) }' || die "$G still reached h1's link $(lab_ms "$left" "$last") ms after the leave"
  to_in=$(upstream_record 3 "$left")
  [[ -n $to_in ]] || die "the router did not report h1's leave of $G upstream (no CHANGE_TO_INCLUDE on up0)"
  h2=$(flow_wire h2 "$G" | wc -l)
  [[ $h2 -eq 0 ]] || die "h2's link, where nobody listens, got $h2 datagrams of $G"
  FIGURES=("join -> upstream report $(lab_ms "$joined" "$report") ms" "join -> first datagram at h1 $(lab_ms "$joined" "$first") ms"
    "leave -> last datagram $(lab_ms "$left" "$last") ms" "leave -> upstream CHANGE_TO_INCLUDE $(lab_ms "$left" "$to_in") ms"
    "datagrams on h2's link (no listener) $h2")
}

# counts SECONDS: print once a second how many datagrams of $G arrived in that second.
counts() {
  local i a b c na nb nc
  na=$(flow_wire up0 "$G" | wc -l) nb=$(flow_received_count "$LAB_H1" "$G") nc=$(flow_wire h2 "$G" | wc -l)
  for ((i = 0; i < $1; i++)); do
    sleep 1
    a=$(flow_wire up0 "$G" | wc -l) b=$(flow_received_count "$LAB_H1" "$G") c=$(flow_wire h2 "$G" | wc -l)
    info "  datagrams in the last second: reaching up0 $((a - na)), received by h1's socket $((b - nb)), on h2's link $((c - nc))"
    na=$a nb=$b nc=$c
  done
}
show_entry() {
  local e
  e=$(lab_mfc "$G")
  if [[ -n $e ]]; then
    info "  kernel entry (*,$G) in /proc/net/ip6_mr_cache: parent MIF ${e%% *}, output MIFs ${e#* } (MIFs: $(lab_mifs | awk '{ printf "%s%s=%s", (NR > 1 ? " " : ""), $1, $2 }'))"
  else
    info "  kernel entry (*,$G): none"
  fi
}

info "src sends UDP to $G from $LAB_SRC_ADDR1, 100 datagrams a second, hop limit 16; nobody listens yet"
flow_send_start "$LAB_SRC_ADDR1,$G,$PORT"
info "(the bridge snoops MLD: it sends $G to the router only once the router has reported it upstream)"
counts 2
show_entry

info "h1 opens a socket and joins $G (its kernel sends an MLDv2 report)"
flow_recv_launch "$LAB_H1" "$G" "$PORT"
counts 4
show_entry

info "h1 closes its socket: its kernel reports the leave; the router asks the link whether anybody"
info "else still listens (group-specific queries, max response 1 s, sent twice) and, with no answer,"
info "stops forwarding $G to dn1 and reports the leave upstream"
flow_recv_stop "$LAB_H1" "$G"
info "(once the leave is reported upstream the bridge prunes: traffic stops reaching up0 too)"
counts 6
show_entry
flow_send_stop
info "h1's link got $(flow_wire h1 "$G" | wc -l) datagrams of $G in all, h2's link $(flow_wire h2 "$G" | wc -l)"
check_story
sleep 0.3 # the decoders print what is left
lab_stop "${FOLLOWERS[@]}"
FOLLOWERS=()
lab_capture_stop

# ---------------------------------------------------------------------------------------------
step "7. SIGTERM: clean shutdown"
start=$(lab_now_us)
if lab_stop_daemon TERM 10; then
  info "mldproxyd ended $((($(lab_now_us) - start) / 1000)) ms after SIGTERM with exit status $LAB_DAEMON_STATUS"
else
  die "mldproxyd did not end within 10 s of SIGTERM"
fi
sleep 0.3 # let the output reader print the last lines
show_mifs
[[ $LAB_DAEMON_STATUS -eq 0 ]] || die "exit status $LAB_DAEMON_STATUS (want 0)"

step "8. Removing the lab"
lab_stop "$TAIL_PID"
TAIL_PID=''
lab_down || die "the lab could not be removed"
info "done"
VERDICT="PASS: $(printf '%s, ' "${FIGURES[@]}")"
VERDICT=${VERDICT%, }
