#!/usr/bin/env bash
# Runs the lab tests: the real daemon in network namespaces (see tools/lab.sh).
#
#   sudo bash tests/lab/run.sh                        every tests/lab/test_*.sh
#   sudo bash tests/lab/run.sh tests/lab/test_cpu.sh  only these files
#
# Each check prints "ok - NAME", "not ok - NAME: REASON" or "skipped - NAME: REASON"; lines
# starting with "#" are commentary. The last line is "N passed, N failed" (", N skipped" added
# when a check was skipped). Exit status 0 only if nothing failed; 77 (skipped) when not root.
# A test file that ends badly or reports no check at all counts as a failure.
#
# Environment: MLD_DAEMON (default build/mldproxyd of this repository), MLD_TSAN_DAEMON (the
# ThreadSanitizer build; without it that check is skipped), MLD_LAB_FILE_TIMEOUT (seconds per
# file, default 240).

set -u
export LC_ALL=C

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

if [[ $(id -u) -ne 0 ]]; then
  echo "lab tests skipped: they need root (network namespaces, MRT6)"
  exit 77
fi

# Namespaces and state of this run only ("mldlab-<PID>-rt", ...): a lab brought up by hand or
# another run on the same machine is left alone, and so are we.
export MLD_LAB_PREFIX=${MLD_LAB_PREFIX:-mldlab-$$-}
export MLD_LAB_STATE=${MLD_LAB_STATE:-/run/mldlab/run-$$}

# shellcheck source=tools/lab.sh
. "$HERE/../../tools/lab.sh"

FILE_TIMEOUT=${MLD_LAB_FILE_TIMEOUT:-240}
PASSED=0 FAILED=0 SKIPPED=0

result() { # ok|not ok|skipped NAME [REASON]
  case $1 in
    ok) printf 'ok - %s\n' "$2"; PASSED=$((PASSED + 1)) ;;
    skipped) printf 'skipped - %s: %s\n' "$2" "$3"; SKIPPED=$((SKIPPED + 1)) ;;
    *) printf 'not ok - %s: %s\n' "$2" "$3"; FAILED=$((FAILED + 1)) ;;
  esac
}

if [[ $# -gt 0 ]]; then
  FILES=("$@")
else
  FILES=("$HERE"/test_*.sh)
fi

# The tools the lab needs; a missing one is a failure of its own (the checks that need it fail
# too, each saying why).
missing=()
for tool in ip unshare strace tcpdump timeout; do command -v "$tool" >/dev/null || missing+=("$tool"); done
[[ -x $LAB_PYTHON ]] || missing+=("python3 ($LAB_PYTHON)")
if [[ ${#missing[@]} -gt 0 ]]; then
  result "not ok" lab_tools_present "missing: ${missing[*]}"
fi

echo "# namespaces: ${LAB_PREFIX}*, state: $LAB_STATE"
lab_clean_stale_runs

# The binaries under test are copied first: a rebuild during the run (build/ is shared with
# whoever works in this tree) then cannot pull one away or swap it half-way.
mkdir -p "$LAB_STATE/bin"
snapshot() { # VARIABLE PATH NAME
  local copy=$LAB_STATE/bin/$3
  if [[ -f $2 && -x $2 ]] && cp -- "$2" "$copy"; then
    echo "# $3: $2 ($(stat -c %s "$copy") bytes, sha256 $(sha256sum "$copy" | cut -c1-16)), run from $copy"
    export "$1=$copy"
  else
    echo "# $3: $2 is MISSING"
  fi
}
snapshot MLD_DAEMON "$LAB_DAEMON" mldproxyd
LAB_DAEMON=${MLD_DAEMON:-$LAB_DAEMON}
if [[ -n ${MLD_TSAN_DAEMON:-} ]]; then
  snapshot MLD_TSAN_DAEMON "$(realpath -m -- "$MLD_TSAN_DAEMON")" mldproxyd-tsan
else
  echo "# mldproxyd-tsan: MLD_TSAN_DAEMON not set"
fi
echo "# kernel $(uname -r)"

lab_down || result "not ok" lab_leftovers_removed "namespaces of an earlier run could not be removed"

START=$(lab_now_us)
for file in "${FILES[@]}"; do
  name=$(basename "$file" .sh)
  out=$(mktemp /tmp/mldlab-run.XXXXXX)
  echo "# ---- $name"
  file_start=$(lab_now_us)
  timeout --kill-after=10 "$FILE_TIMEOUT" bash "$file" 2>&1 | tee "$out"
  rc=${PIPESTATUS[0]}
  n_ok=$(grep -c '^ok - ' "$out")
  n_fail=$(grep -c '^not ok - ' "$out")
  n_skip=$(grep -c '^skipped - ' "$out")
  PASSED=$((PASSED + n_ok)) FAILED=$((FAILED + n_fail)) SKIPPED=$((SKIPPED + n_skip))
  if [[ $rc -eq 124 || $rc -eq 137 ]]; then
    result "not ok" "$name" "stopped after ${FILE_TIMEOUT}s"
  elif [[ $rc -ne 0 ]]; then
    result "not ok" "$name" "ended with status $rc"
  elif [[ $((n_ok + n_fail + n_skip)) -eq 0 ]]; then
    result "not ok" "$name" "reported no check"
  fi
  echo "# $name: $((($(lab_now_us) - file_start) / 1000000))s"
  rm -f "$out"
  # Whatever a file left behind (it cleans up itself; this is for one that was stopped).
  lab_down >/dev/null 2>&1 || lab_down
done
echo "# lab tests took $((($(lab_now_us) - START) / 1000000))s"
if lab_down; then
  rm -rf -- "$LAB_STATE"
else
  result "not ok" lab_removed "namespaces $(lab_namespaces | tr '\n' ' ')could not be removed"
fi

if [[ $SKIPPED -gt 0 ]]; then
  echo "$PASSED passed, $FAILED failed, $SKIPPED skipped"
else
  echo "$PASSED passed, $FAILED failed"
fi
[[ $FAILED -eq 0 ]]
