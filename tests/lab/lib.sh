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
