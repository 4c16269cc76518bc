#!/usr/bin/env bash
# The OpenWrt init script renders /etc/config/mldproxyd into the daemon's configuration file and
# hands procd the command line, the firewall rules and the reload triggers: the shipped UCI file
# with its networks looked up, downstream lists of networks and devices, missing options (the
# defaults), a file without an upstream (refused), and "option firewall '0'". OpenWrt's
# config_load / config_get / config_get_bool / config_list_foreach, network.sh's
# network_get_device, fw4's zone query, jshn's json_* and procd's procd_* are stood in for by
# small shell functions and scripts that read the same UCI text and record what is handed over.
# Prints "ok - NAME" / "not ok - NAME" and "N passed, N failed".
set -u
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
INIT=$ROOT/packaging/openwrt/mldproxyd/files/mldproxyd.init
SHIPPED=$ROOT/packaging/openwrt/mldproxyd/files/mldproxyd.config
WORK=$(mktemp -d) || exit 1
trap 'rm -rf "$WORK"' EXIT
PASSED=0 FAILED=0

# The UCI text of $UCI_FILE, read as OpenWrt reads /etc/config/NAME: options and lists of named
# sections.
config_load() { :; }
uci_values() { # SECTION option|list NAME: the values, one a line
  awk -v s="$1" -v kind="$2" -v o="$3" '
    $1 == "config" { gsub(/\047/, "", $3); in_s = ($3 == s) }
    in_s && $1 == kind && $2 == o { v = $0; sub(/^[ \t]*[a-z]+[ \t]+[^ \t]+[ \t]+/, "", v); gsub(/\047/, "", v); print v }' "$UCI_FILE"
}
config_get() { # VAR SECTION OPTION [DEFAULT]
  local _found
  _found=$(uci_values "$2" option "$3" | tail -n 1)
  eval "$1=\${_found:-\${4:-}}"
}
config_get_bool() { # VAR SECTION OPTION [DEFAULT]
  local _v
  config_get _v "$2" "$3" "${4:-0}"
  case $_v in 1 | on | true | yes | enabled) _v=1 ;; *) _v=0 ;; esac
  eval "$1=\$_v"
}
config_list_foreach() { # SECTION OPTION FUNCTION
  local _v
  while IFS= read -r _v; do "$3" "$_v"; done < <(uci_values "$1" list "$2")
}
cat >"$WORK/network.sh" <<'NET'
network_get_device() {
  case $2 in wan) eval "$1=pppoe-wan" ;; lan) eval "$1=br-lan" ;; guest) eval "$1=br-guest" ;;
    iot) eval "$1=br-iot" ;; *) eval "$1=" ;; esac
}
NET
# fw4 -q network NAME / fw4 -q device NAME: the zone, as fw4 prints it; nothing when none.
mkdir -p "$WORK/bin"
cat >"$WORK/bin/fw4" <<'FW'
#!/bin/sh
[ "$1" = -q ] || exit 2
case "$2 $3" in
  "network wan" | "device eth0.2") echo wan ;;
  "network lan" | "network iot") echo lan ;;
  "network guest") echo guest ;;
  *) exit 1 ;;
esac
FW
chmod +x "$WORK/bin/fw4"
PATH=$WORK/bin:$PATH

# jshn and procd: every call is written to $RECORD as one line; objects and arrays as
# "{ ... }" and "[ ... ]" on the lines of their members.
RECORD=$WORK/record
json_add_object() { echo "{" >>"$RECORD"; }
json_close_object() { echo "}" >>"$RECORD"; }
json_add_array() { echo "$1 [" >>"$RECORD"; }
json_close_array() { echo "]" >>"$RECORD"; }
json_add_string() { echo "${1:+$1=}$2" >>"$RECORD"; }
procd_open_data() { echo "data:" >>"$RECORD"; }
procd_close_data() { echo "end data" >>"$RECORD"; }
procd_open_instance() { echo "instance:" >>"$RECORD"; }
procd_close_instance() { echo "end instance" >>"$RECORD"; }
procd_set_param() { [[ $1 == command ]] && shift && echo "$*" >>"$RECORD"; }
procd_add_reload_trigger() { echo "reload trigger: $*" >>"$RECORD"; }
procd_add_interface_trigger() { echo "interface trigger: $*" >>"$RECORD"; }

# shellcheck source=packaging/openwrt/mldproxyd/files/mldproxyd.init
. "$INIT"
NETWORK_SH=$WORK/network.sh
UCI_SOURCE=$WORK/uci
UCI_CONF=$WORK/var/etc/mldproxyd.conf

result() { # NAME DIFF-FILE (empty: passed)
  if [[ ! -s $2 ]]; then
    echo "ok - $1"; PASSED=$((PASSED + 1))
  else
    echo "not ok - $1"; sed 's/^/#   /' "$2"; FAILED=$((FAILED + 1))
  fi
}

render() { # NAME UCI_TEXT EXPECTED (empty: rendering must be refused)
  local name=$1 out=$WORK/out.conf
  UCI_FILE=$WORK/uci
  printf '%s' "$2" >"$UCI_FILE"
  rm -f "$out"
  if render_config "$out"; then
    if [[ -n $3 ]]; then
      diff -u <(printf '%s' "$3") "$out" >"$WORK/diff"
    else
      { echo "rendered, want refused:"; cat "$out"; } >"$WORK/diff"
    fi
  elif [[ -z $3 ]]; then
    : >"$WORK/diff"
  else
    echo "refused, want rendered" >"$WORK/diff"
  fi
  result "$name" "$WORK/diff"
}

# start NAME UCI_TEXT EXPECTED: what start_service and service_triggers hand to procd.
start() {
  local name=$1
  UCI_FILE=$WORK/uci
  printf '%s' "$2" >"$UCI_FILE"
  : >"$RECORD"
  start_service >>"$RECORD" 2>&1 || echo "start_service: status $?" >>"$RECORD"
  service_triggers >>"$RECORD" 2>&1 || echo "service_triggers: status $?" >>"$RECORD"
  diff -u <(printf '%s' "$3") "$RECORD" >"$WORK/diff"
  result "$name" "$WORK/diff"
}

HEAD="# Made by /etc/init.d/mldproxyd from /etc/config/mldproxyd; edit that file."
TIMERS="ROBUSTNESS_VARIABLE 2
QUERY_INTERVAL 125
QUERY_RESPONSE_INTERVAL 10000
LAST_LISTENER_QUERY_INTERVAL 1
LAST_LISTENER_QUERY_COUNT 2"

render "the shipped file: upstream and downstream networks looked up" "$(cat "$SHIPPED")" \
  "$HEAD
UPSTREAM_IFNAME pppoe-wan
DOWNSTREAM_IFNAME br-lan
$TIMERS
VERBOSE 0
"
render "downstream networks and a device, in their order; missing options take the defaults" \
  "config mldproxyd 'main'
	option upstream 'eth0.2'
	list downstream 'guest'
	list downstream 'lan'
	list downstream 'eth3'
	option query_interval '60'
	option verbose '1'
" "$HEAD
UPSTREAM_IFNAME eth0.2
DOWNSTREAM_IFNAME br-guest
DOWNSTREAM_IFNAME br-lan
DOWNSTREAM_IFNAME eth3
ROBUSTNESS_VARIABLE 2
QUERY_INTERVAL 60
QUERY_RESPONSE_INTERVAL 10000
LAST_LISTENER_QUERY_INTERVAL 1
LAST_LISTENER_QUERY_COUNT 2
VERBOSE 1
"
render "no downstream list: no DOWNSTREAM_IFNAME line (every multicast link is downstream)" \
  "config mldproxyd 'main'
	option upstream 'wan'
" "$HEAD
UPSTREAM_IFNAME pppoe-wan
$TIMERS
VERBOSE 0
"
render "no upstream is refused" "config mldproxyd 'main'
	option robustness '3'
	list downstream 'lan'
" ""

MLD_TYPES="icmp_type [
130/0
131/0
132/0
143/0
]"
mld_rule() { # ZONE
  printf '{\ntype=rule\nname=mldproxyd: MLD from %s\nfamily=ipv6\nsrc=%s\nproto=icmp\nsrc_ip=fe80::/10\n%s\ntarget=ACCEPT\n}\n' \
    "$1" "$1" "$MLD_TYPES"
}
forward_rule() { # NAME SRC DEST
  printf '{\ntype=rule\nname=%s\nfamily=ipv6\nsrc=%s\ndest=%s\nproto=udp\ndest_ip=ff00::/8\ntarget=ACCEPT\n}\n' "$@"
}

start "the shipped file: the daemon with -f, MLD and multicast from wan to lan allowed, triggers" \
  "$(cat "$SHIPPED")" "instance:
/usr/sbin/mldproxyd -f $UCI_CONF
data:
firewall [
$(mld_rule wan)
$(forward_rule "mldproxyd: multicast from wan to lan" wan lan)
$(mld_rule lan)
]
end data
end instance
reload trigger: mldproxyd
interface trigger: interface.* wan /etc/init.d/mldproxyd reload
interface trigger: interface.* lan /etc/init.d/mldproxyd reload
"
start "one rule per downstream zone; a link in no zone gets a rule to any zone" \
  "config mldproxyd 'main'
	option upstream 'wan'
	list downstream 'lan'
	list downstream 'guest'
	list downstream 'iot'
	list downstream 'eth3'
" "instance:
/usr/sbin/mldproxyd -f $UCI_CONF
data:
firewall [
$(mld_rule wan)
$(forward_rule "mldproxyd: multicast from wan to lan" wan lan)
$(mld_rule lan)
$(forward_rule "mldproxyd: multicast from wan to guest" wan guest)
$(mld_rule guest)
$(forward_rule "mldproxyd: multicast from wan to *" wan '*')
$(mld_rule '*')
]
end data
end instance
reload trigger: mldproxyd
interface trigger: interface.* wan /etc/init.d/mldproxyd reload
interface trigger: interface.* lan /etc/init.d/mldproxyd reload
interface trigger: interface.* guest /etc/init.d/mldproxyd reload
interface trigger: interface.* iot /etc/init.d/mldproxyd reload
interface trigger: interface.* eth3 /etc/init.d/mldproxyd reload
"
start "no downstream list: multicast from the upstream zone to any zone" \
  "config mldproxyd 'main'
	option upstream 'eth0.2'
" "instance:
/usr/sbin/mldproxyd -f $UCI_CONF
data:
firewall [
$(mld_rule wan)
$(forward_rule "mldproxyd: multicast from wan" wan '*')
]
end data
end instance
reload trigger: mldproxyd
interface trigger: interface.* eth0.2 /etc/init.d/mldproxyd reload
"
start "option firewall '0': no firewall data" \
  "config mldproxyd 'main'
	option upstream 'wan'
	list downstream 'lan'
	option firewall '0'
" "instance:
/usr/sbin/mldproxyd -f $UCI_CONF
end instance
reload trigger: mldproxyd
interface trigger: interface.* wan /etc/init.d/mldproxyd reload
interface trigger: interface.* lan /etc/init.d/mldproxyd reload
"
start "no upstream: no instance, the reason on standard error" \
  "config mldproxyd 'main'
	list downstream 'lan'
" "mldproxyd: $WORK/uci names no upstream
start_service: status 1
reload trigger: mldproxyd
"
echo "$PASSED passed, $FAILED failed"
[[ $FAILED -eq 0 ]]
