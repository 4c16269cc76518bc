#!/usr/bin/env bash
# The daemon on the wire of its downstream links, captured on the host side of each link from
# before the daemon starts: its start-up reports (one CHANGE_TO_EXCLUDE record each for the
# solicited-node group of the upstream link-local address, ff02::16 and ff02::2, robustness
# times each in rounds of the three, 1 s / robustness apart, to ff02::16, hop limit 1, Router
# Alert), its general queries (to ff02::1 from the router's link-local address on that link, hop
# limit 1, Router Alert, 28 bytes of ICMPv6 with MRC 1000, QQIC 4, QRV 2; the first right after
# the first round of reports) and their spacing (the start-up query interval, QUERY_INTERVAL / 4,
# after the first, then QUERY_INTERVAL); and nothing of that on the upstream link (captured on
# the bridge's side of up0).
#
# Telling the daemon's reports from the router kernel's own: the kernel reports ff02::16 and
# ff02::2 itself (when the daemon's sockets join them), with flow label 0 and here two records a
# report; the daemon's reports leave its raw sockets with a non-zero flow label and carry one
# record each. Only the daemon reports the upstream link's solicited-node group on a downstream
# link.
#
# The daemon's input thread runs from start to end: the threads it has after the first second
# (tests/lab/thread_starts.py) never change, whatever netlink batches the start-up brings.

# Checks are run through `check NAME FUNCTION`, which shellcheck cannot follow.
# shellcheck disable=SC2317
# shellcheck source=tools/lab.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tools/lab.sh" && lab_test_file

LOG=$T_WORK/daemon.log
ROBUSTNESS=2 QUERY_INTERVAL=4
WANT_QUERIES=4 # general queries to see on each downstream link
THREADS=$T_WORK/threads.txt
TRACKER='' SETUP_OK=0
declare -A RT_LL=() HOST_OF=([dn1]=$LAB_H1 [dn2]=$LAB_H2)
UP_SN=''

# count_queries FILE ROUTER_ADDR: general queries from the router in a decoded capture.
count_queries() { grep -c " MLD src=$2 .* type=130 .* group=:: " "$1" 2>/dev/null || true; }

enough_queries() {
  local link
  for link in dn1 dn2; do
    lab_mld_lines "$T_WORK/mld-$link.pcap" >"$T_WORK/$link.txt" 2>/dev/null || return 1
    [[ $(count_queries "$T_WORK/$link.txt" "${RT_LL[$link]}") -ge $WANT_QUERIES ]] || return 1
  done
}

setup() {
  t_lab_up || return 1
  local link
  for link in dn1 dn2 up0; do RT_LL[$link]=$(lab_ll_addr "$LAB_RT" "$link"); done
  # ff02::1:ff00:0 with the last three bytes of the upstream link-local address.
  UP_SN=$("$LAB_PYTHON" -c 'import ipaddress, sys
b = ipaddress.IPv6Address(sys.argv[1]).packed
print(ipaddress.IPv6Address(bytes.fromhex("ff0200000000000000000001ff") + b[13:]))' "${RT_LL[up0]}") ||
    fail "cannot compute the solicited-node group of ${RT_LL[up0]}" || return 1
  for link in dn1 dn2; do
    mld_capture_start "$link" "${HOST_OF[$link]}" eth0 || fail "no capture on $link" || return 1
  done
  mld_capture_start up0 "$LAB_UP" "$LAB_RT_PORT" || fail "no capture on the bridge side of up0" || return 1
  lab_start_daemon -l "$LOG" || fail "the daemon did not start" || return 1
  "$LAB_PYTHON" "$LAB_ROOT/tests/lab/thread_starts.py" "$LAB_DAEMON_PID" >"$THREADS" 2>&1 &
  TRACKER=$!
  say "router: up0 ${RT_LL[up0]}, dn1 ${RT_LL[dn1]}, dn2 ${RT_LL[dn2]}; upstream solicited-node group $UP_SN"
  if ! lab_wait_for 45 enough_queries; then
    fail "fewer than $WANT_QUERIES general queries on dn1/dn2 within 45 s (dn1: $(count_queries "$T_WORK/dn1.txt" "${RT_LL[dn1]}"), dn2: $(count_queries "$T_WORK/dn2.txt" "${RT_LL[dn2]}"))"
    return 1
  fi
  lab_stop "$TRACKER"
  lab_capture_stop
  for link in dn1 dn2 up0; do lab_mld_lines "$T_WORK/mld-$link.pcap" >"$T_WORK/$link.txt" || fail "cannot decode mld-$link.pcap" || return 1; done
  t_daemon_alive || fail "the daemon ended" || return 1
  SETUP_OK=1
}

# The daemon's reports on a link: from the router's address there, non-zero flow label.
daemon_reports() { grep " MLD src=$2 .* fl=0x[1-9a-f][0-9a-f]* .* type=143 " "$1"; }

startup_reports() {
  local link=$1 file=$T_WORK/$1.txt addr=${RT_LL[$1]} line got want g t
  local -A last=()
  [[ $SETUP_OK == 1 ]] || fail "the set-up failed" || return 1
  want="4/$UP_SN/0 4/ff02::16/0 4/ff02::2/0 4/$UP_SN/0 4/ff02::16/0 4/ff02::2/0"
  got=''
  while read -r line; do
    [[ -n $line ]] || continue
    got+="$(field recs <<<"$line") "
    [[ $(field nrec <<<"$line") == 1 ]] || fail "$link: a daemon report with $(field nrec <<<"$line") records: $line" || return 1
    [[ $(field dst <<<"$line") == ff02::16 && $(field hlim <<<"$line") == 1 && $(field ra <<<"$line") == 1 ]] ||
      fail "$link: report not to ff02::16 with hop limit 1 and Router Alert: $line" || return 1
    g=$(field recs <<<"$line") t=${line%% *}
    if [[ -n ${last[$g]:-} ]]; then
      # Copies of one group are 1 s / robustness apart.
      awk -v a="${last[$g]}" -v b="$t" 'BEGIN { d = b - a; exit !(d > 0.3 && d < 0.8) }' ||
        fail "$link: copies of $g $(awk -v a="${last[$g]}" -v b="$t" 'BEGIN { printf "%.3f", b - a }') s apart (want 0.5 s)" || return 1
    fi
    last[$g]=$t
  done < <(daemon_reports "$file" "$addr")
  [[ ${got% } == "$want" ]] || fail "$link: the daemon's reports carry [${got% }], want [$want] (CHANGE_TO_EXCLUDE, $ROBUSTNESS rounds)" || return 1
  if [[ $link == dn1 ]]; then
    say "a start-up report on $link, decoded: $(daemon_reports "$file" "$addr" | head -n 1)"
    say "the router kernel's own report on $link (not the daemon's): $(grep " MLD src=$addr .* fl=0x0 .* type=143 " "$file" | head -n 1)"
  fi
}

general_queries() {
  local link=$1 file=$T_WORK/$1.txt addr=${RT_LL[$1]} line n=0 bad first first_round
  [[ $SETUP_OK == 1 ]] || fail "the set-up failed" || return 1
  while read -r line; do
    n=$((n + 1))
    bad=''
    [[ $(field dst <<<"$line") == ff02::1 ]] || bad+=" destination"
    [[ $(field hlim <<<"$line") == 1 ]] || bad+=" hop-limit"
    [[ $(field ra <<<"$line") == 1 ]] || bad+=" router-alert"
    [[ $(field len <<<"$line") == 28 && $(field v <<<"$line") == 2 ]] || bad+=" length"
    [[ $(field mrc <<<"$line") == 1000 ]] || bad+=" MRC"
    [[ $(field qqic <<<"$line") == "$QUERY_INTERVAL" ]] || bad+=" QQIC"
    [[ $(field qrv <<<"$line") == "$ROBUSTNESS" ]] || bad+=" QRV"
    [[ $(field s <<<"$line") == 0 && $(field nsrc <<<"$line") == 0 ]] || bad+=" S/sources"
    [[ -z $bad ]] || fail "$link: general query with wrong$bad: $line" || return 1
  done < <(grep " MLD src=$addr .* type=130 .* group=:: " "$file")
  [[ $n -ge $WANT_QUERIES ]] || fail "$link: $n general queries from $addr, want $WANT_QUERIES" || return 1
  # No query from any other address (the router's link-local address is the one on this link).
  bad=$(grep " MLD .* type=130 " "$file" | grep -v " src=$addr " | head -n 1)
  [[ -z $bad ]] || fail "$link: a query from another address: $bad" || return 1
  # The first query leaves with the first round of start-up reports, not after all of them.
  first=$(grep " MLD src=$addr .* type=130 " "$file" | head -n 1 | cut -d' ' -f1)
  first_round=$(daemon_reports "$file" "$addr" | sed -n 3p | cut -d' ' -f1)
  [[ -n $first_round ]] && awk -v a="$first_round" -v b="$first" 'BEGIN { exit !(b >= a && b - a < 0.2) }' ||
    fail "$link: the first query ($first) does not follow the first round of start-up reports ($first_round) at once" || return 1
  [[ $link == dn1 ]] && say "a general query on $link, decoded: $(grep " MLD src=$addr .* type=130 " "$file" | head -n 1)"
  return 0
}

# query_spacing LINK: the start-up query interval (QUERY_INTERVAL / 4) after the first general
# query, then QUERY_INTERVAL, each within 0.2 s.
query_spacing() {
  local link=$1 file=$T_WORK/$1.txt addr=${RT_LL[$1]} gaps want i
  [[ $SETUP_OK == 1 ]] || fail "the set-up failed" || return 1
  gaps=$(grep " MLD src=$addr .* type=130 .* group=:: " "$file" | head -n "$WANT_QUERIES" | cut -d' ' -f1 |
    awk 'NR > 1 { printf "%s%.2f", (NR > 2 ? "," : ""), $1 - p } { p = $1 }')
  want=$(awk -v q="$QUERY_INTERVAL" 'BEGIN { printf "%.2f", q / 4 }')
  for ((i = 3; i <= WANT_QUERIES; i++)); do want+=",$QUERY_INTERVAL.00"; done
  say "$link: general queries $gaps s apart (want $want)"
  awk -v g="$gaps" -v w="$want" 'BEGIN { n = split(g, a, ","); m = split(w, b, ","); if (n != m) exit 1
    for (i = 1; i <= n; i++) if (a[i] - b[i] > 0.2 || b[i] - a[i] > 0.2) exit 1 }' ||
    fail "$link: general queries $gaps s apart, want $want" || return 1
}

# The input thread was never ended and started again: after its start, the daemon's set of
# threads stays as it was.
thread_never_restarted() {
  local tids
  [[ $SETUP_OK == 1 ]] || fail "the set-up failed" || return 1
  tids=$(awk -v p="$LAB_DAEMON_PID" '$2 != p { print $2 }' "$THREADS" | sort -u | tr '\n' ' ')
  say "threads of the daemon besides main: ${tids:-none}"
  [[ $(wc -w <<<"$tids") -eq 1 ]] || fail "the daemon started threads $tids (want its one input thread, never restarted)" || return 1
}

nothing_upstream() {
  local file=$T_WORK/up0.txt addr=${RT_LL[up0]} bad
  [[ $SETUP_OK == 1 ]] || fail "the set-up failed" || return 1
  # The capture works: it holds the router kernel's own reports.
  grep -q " MLD src=$addr .* fl=0x0 .* type=143 " "$file" || fail "no report of the router's kernel in the up0 capture: the capture saw nothing" || return 1
  bad=$(grep " MLD src=$addr .* type=130 " "$file" | head -n 1)
  [[ -z $bad ]] || fail "the router sent a query on its upstream link: $bad" || return 1
  bad=$(daemon_reports "$file" "$addr" | grep -E " nrec=1 recs=4/($UP_SN|ff02::16|ff02::2)/0$" | head -n 1)
  [[ -z $bad ]] || fail "a start-up report of the daemon on the upstream link: $bad" || return 1
  say "up0: $(grep -c " MLD src=$addr " "$file") MLD messages from the router (its kernel's own reports$(daemon_reports "$file" "$addr" | grep -q . && echo ' and the daemon'"'"'s upstream reports')), none of them a query or a start-up report"
}

check downstream_capture_setup setup
for link in dn1 dn2; do
  check "startup_reports_on_$link" startup_reports "$link"
  check "general_queries_on_$link" general_queries "$link"
  check "general_query_spacing_on_$link" query_spacing "$link"
done
check input_thread_never_restarted thread_never_restarted
check no_startup_report_or_query_on_upstream nothing_upstream

lab_stop "$TRACKER"
t_end
[[ $SETUP_OK == 1 ]] || show_file "$LOG" 20 "daemon output"

exit 0
