#!/usr/bin/env bash
# The OpenWrt init script renders /etc/config/mldproxyd into the daemon's configuration file:
# the shipped UCI file with its network name looked up, a file with other values and missing
# options (the defaults), and one without an upstream (refused). OpenWrt's config_load and
# config_get and network.sh's network_get_device are stood in for by small shell functions that
# read the same UCI text. Prints "ok - NAME" / "not ok - NAME" and "N passed, N failed".
set -u
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
INIT=$ROOT/packaging/openwrt/mldproxyd/files/mldproxyd.init
WORK=$(mktemp -d) || exit 1
trap 'rm -rf "$WORK"' EXIT
PASSED=0 FAILED=0

# The UCI text of $UCI_FILE, read as OpenWrt reads /etc/config/NAME: options of named sections.
config_load() { :; }
config_get() { # VAR SECTION OPTION [DEFAULT]
  local _found
  _found=$(awk -v s="$2" -v o="$3" '
    $1 == "config" { gsub(/\047/, "", $3); in_s = ($3 == s) }
    in_s && $1 == "option" && $2 == o { v = $3; gsub(/\047/, "", v); print v; exit }' "$UCI_FILE")
  eval "$1=\${_found:-\${4:-}}"
}
cat >"$WORK/network.sh" <<'NET'
network_get_device() { case $2 in wan) eval "$1=pppoe-wan" ;; *) eval "$1=" ;; esac; }
NET

# shellcheck source=packaging/openwrt/mldproxyd/files/mldproxyd.init
. "$INIT"
NETWORK_SH=$WORK/network.sh

render() { # NAME UCI_TEXT EXPECTED (empty: rendering must be refused)
  local name=$1 out=$WORK/out.conf
  UCI_FILE=$WORK/uci
  printf '%s' "$2" >"$UCI_FILE"
  if render_config "$out"; then
    if [[ -n $3 ]] && diff -u <(printf '%s' "$3") "$out" >"$WORK/diff"; then
      echo "ok - $name"; PASSED=$((PASSED + 1)); return
    fi
    echo "not ok - $name: rendered"; cat "$WORK/diff" "$out" 2>/dev/null | sed 's/^/#   /'
  elif [[ -z $3 ]]; then
    echo "ok - $name"; PASSED=$((PASSED + 1)); return
  else
    echo "not ok - $name: refused"
  fi
  FAILED=$((FAILED + 1))
}

HEAD="# Made by /etc/init.d/mldproxyd from /etc/config/mldproxyd; edit that file."
render "the shipped file, its network looked up" "$(cat "$ROOT/packaging/openwrt/mldproxyd/files/mldproxyd.config")" \
  "$HEAD
UPSTREAM_IFNAME pppoe-wan
ROBUSTNESS_VARIABLE 2
QUERY_INTERVAL 125
QUERY_RESPONSE_INTERVAL 10000
LAST_LISTENER_QUERY_INTERVAL 1
LAST_LISTENER_QUERY_COUNT 2
VERBOSE 0
"
render "a device name and missing options take the defaults" "config mldproxyd 'main'
	option upstream 'eth0.2'
	option query_interval '60'
	option verbose '1'
" "$HEAD
UPSTREAM_IFNAME eth0.2
ROBUSTNESS_VARIABLE 2
QUERY_INTERVAL 60
QUERY_RESPONSE_INTERVAL 10000
LAST_LISTENER_QUERY_INTERVAL 1
LAST_LISTENER_QUERY_COUNT 2
VERBOSE 1
"
render "no upstream is refused" "config mldproxyd 'main'
	option robustness '3'
" ""
echo "$PASSED passed, $FAILED failed"
[[ $FAILED -eq 0 ]]
