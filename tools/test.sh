#!/usr/bin/env bash
# Installs whatever is missing on a Debian 12 machine and runs every test of mldproxyd.
#
#   sudo bash tools/test.sh              # everything (what CI runs)
#   bash tools/test.sh build mips        # only some stages; the others are reported as skipped
#
# Stages (names usable as arguments):
#   packages  install missing Debian packages (apt-get, only when something is missing)
#   build     g++ build with warnings as errors into build/, unit tests (ctest)
#   asan      AddressSanitizer + UndefinedBehaviorSanitizer build into build-asan/, unit tests
#   tsan      ThreadSanitizer build of the daemon into build-tsan/ (the lab runs it)
#   mips      big-endian MIPS cross build into build-mips/, unit tests under qemu-mips, the
#             stripped MIPS daemon's start-up under qemu-mips
#   mipsel    little-endian MIPS (glibc) cross build of the daemon into build-mipsel/, its
#             start-up under qemu-mipsel
#   musl      the daemon built against musl libc into build-musl/ (x86_64, runs natively): ELF
#             checks, its start-up, tests/lab/test_service.sh with it (root); no unit tests (no
#             C++ runtime for musl in Debian, reported as skipped)
#   size      size report: the stripped daemon of build/, build-mips/, build-mipsel/ and
#             build-musl/ (release flags), its NEEDED libraries (only libc and the thread library
#             allowed), the MIPS size budget
#   install   cmake --install into a staging directory: the file list, the stripped daemon, the
#             manual pages rendered without warnings, one version everywhere, the unit
#             (systemd-analyze verify and security), the OpenWrt init script (sh -n, rendering,
#             firewall data), the installed daemon started with the installed configuration
#   fuzz      clang++ 14 + libFuzzer build into build-fuzz/, every fuzz target for a bounded time
#   bench     Google Benchmark build into build-bench/, one short run of every benchmark (a smoke
#             run: it shows the benchmarks still build and run; figures come from the full run)
#   lab       network-namespace lab tests with the real daemon (needs root)
#
# The last line of the output is, alone: "N passed, N failed" (", N skipped" appended when
# something was skipped). It counts unit test cases of every unit-test run, lab checks and fuzz
# targets as reported by the tools themselves, and every other stage as one check. A stage that
# cannot run is counted as skipped and says why; it is never counted as passed. The script keeps
# going after a failure and exits non-zero at the end if anything failed.
#
# Environment: MLD_JOBS (default 2), MLD_FUZZ_SECONDS (per fuzz target, default 60),
# MLD_LAB_TIMEOUT (seconds, default 1200), MLD_MIPS_SIZE_BUDGET (bytes of the stripped MIPS
# daemon, default 65536; more fails the size stage), MLD_UNIT_EXPOSURE_MAX (the highest exposure
# `systemd-analyze security` may rate the unit, default 2.5).

set -u
set -o pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT" || exit 1

JOBS=${MLD_JOBS:-2}
FUZZ_SECONDS=${MLD_FUZZ_SECONDS:-60}
LAB_TIMEOUT=${MLD_LAB_TIMEOUT:-1200}
MIPS_SIZE_BUDGET=${MLD_MIPS_SIZE_BUDGET:-65536}
UNIT_EXPOSURE_MAX=${MLD_UNIT_EXPOSURE_MAX:-2.5}
UNIT_EXPOSURE_MAX_X10=$(awk -v e="$UNIT_EXPOSURE_MAX" 'BEGIN { printf "%d", e * 10 + 0.5 }')
MIPS_TOOLCHAIN=$ROOT/cmake/mips-linux-gnu.cmake
MIPS_GTEST=$ROOT/build-mips/gtest-mips # GoogleTest cross-built for MIPS (tools/mips-gtest.sh)
MUSL_TOOLCHAIN=$ROOT/cmake/x86_64-linux-musl.cmake
export DEBIAN_FRONTEND=noninteractive
export GTEST_COLOR=no
# Sanitizer reports end the process with a non-zero status and a readable stack.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:halt_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

PACKAGES=(
  cmake make g++ libgtest-dev googletest binutils                      # build, unit tests, readelf
  libbenchmark-dev                                                     # bench/
  clang libclang-rt-14-dev                                             # clang++ 14, libFuzzer
  g++-mips-linux-gnu libc6-dev-mips-cross binutils-mips-linux-gnu qemu-user  # MIPS
  g++-mipsel-linux-gnu libc6-dev-mipsel-cross binutils-mipsel-linux-gnu     # little-endian MIPS
  musl musl-dev linux-libc-dev                                         # musl
  iproute2 tcpdump strace util-linux procps iputils-ping man-db  # the lab
  systemd                                                              # systemd-analyze (install)
)

ALL_STAGES=(packages build asan tsan mips mipsel musl size install fuzz bench lab)

SCRATCH=$(mktemp -d /tmp/mldproxyd-test.XXXXXX) || exit 1
trap 'rm -rf "$SCRATCH"' EXIT

TOTAL_P=0 TOTAL_F=0 TOTAL_S=0
SUMMARY=() FAILED_STAGES=()
SIZES_FILE=$SCRATCH/sizes # stages run in subshells: what the summary needs goes through files
: >"$SIZES_FILE"

say() { printf '%s\n' "$*"; }

# A stage may record its own counts ("passed failed skipped") and a one-line note in these files.
COUNTS_FILE=$SCRATCH/counts
NOTE_FILE=$SCRATCH/note
add_counts() { # passed failed skipped
  local p=0 f=0 s=0
  [[ -s $COUNTS_FILE ]] && read -r p f s <"$COUNTS_FILE"
  echo "$((p + $1)) $((f + $2)) $((s + $3))" >"$COUNTS_FILE"
}
note() { printf '%s\n' "$*" >"$NOTE_FILE"; }

# Stages that cannot run return 77 after a note saying why.
SKIP=77

stage_selected() {
  local s
  [[ ${#SELECTED[@]} -eq 0 ]] && return 0
  for s in "${SELECTED[@]}"; do [[ $s == "$1" ]] && return 0; done
  return 1
}

run_stage() { # name title
  local name=$1 title=$2 start rc secs p=0 f=0 s=0 result detail
  : >"$COUNTS_FILE"
  : >"$NOTE_FILE"
  say ""
  say "======================================================================"
  say "== stage $name: $title"
  say "======================================================================"
  start=$(date +%s)
  if stage_selected "$name"; then
    # set -e applies inside the stage (it is not in a tested context), so a failing
    # command ends the stage unless the stage handles the status itself.
    (set -e; "stage_$name") </dev/null 2>&1 | tee "$SCRATCH/stage-$name.log"
    rc=${PIPESTATUS[0]}
  else
    note "not selected on the command line"
    rc=$SKIP
  fi
  secs=$(($(date +%s) - start))
  [[ -s $COUNTS_FILE ]] && read -r p f s <"$COUNTS_FILE"
  if [[ $rc -eq 0 ]]; then
    result=PASSED
    [[ $((p + f + s)) -eq 0 ]] && p=1
    if [[ $f -ne 0 ]]; then result=FAILED; fi
  elif [[ $rc -eq $SKIP ]]; then
    result=SKIPPED
    [[ $((p + f + s)) -eq 0 ]] && s=1
    if [[ $f -ne 0 ]]; then result=FAILED; fi
  else
    result=FAILED
    [[ $f -eq 0 ]] && f=$((f + 1))
  fi
  detail=$(cat "$NOTE_FILE")
  TOTAL_P=$((TOTAL_P + p)) TOTAL_F=$((TOTAL_F + f)) TOTAL_S=$((TOTAL_S + s))
  SUMMARY+=("$(printf '%-9s %-8s %5ss  %4d passed %3d failed %3d skipped  %s' \
    "$name" "$result" "$secs" "$p" "$f" "$s" "$detail")")
  [[ $result == FAILED ]] && FAILED_STAGES+=("$name")
  say "---- stage $name: $result in ${secs}s ($p passed, $f failed, $s skipped)${detail:+ - $detail}"
}

# ---------------------------------------------------------------------------------------------
# helpers

pkg_installed() {
  [[ $(dpkg-query -W -f='${Status}' "$1" 2>/dev/null) == "install ok installed" ]]
}

# Counts from gtest's own output (ctest -V prefixes each line with "N: "); works with and without
# --gtest_brief. Passed and skipped come from the closing "[  PASSED  ] N tests." and
# "[  SKIPPED ] N tests" lines, failures are the "[  FAILED  ] Suite.Name (N ms)" lines printed
# as each failing test ends.
gtest_total() { # PASSED|SKIPPED log
  sed -nE "s/^([0-9]+: )?\\[ +$1 +\\] ([0-9]+) tests?[.,].*/\\2/p" "$2" | awk '{s += $1} END {print s + 0}'
}
gtest_failed() { # log
  grep -cE '^([0-9]+: )?\[  FAILED  \] [^ ]+ \([0-9]+ ms\)' "$1" || true
}

# Runs ctest in a build directory, shows the output, adds the gtest case counts to the stage.
run_ctest() { # build-dir log
  local dir=$1 log=$2 rc=0 p f s started finished
  (cd "$dir" && ctest -V --timeout 900) 2>&1 | tee "$log" || rc=$?
  p=$(gtest_total PASSED "$log")
  s=$(gtest_total SKIPPED "$log")
  f=$(gtest_failed "$log")
  # A test binary that dies (sanitizer report, signal, timeout) never prints its closing
  # "[==========] N tests from M test suites ran." line: count each such binary as a failure.
  started=$(grep -cE '^[0-9]+: Test command: ' "$log" || true)
  finished=$(grep -cE '^([0-9]+: )?\[==========\] [0-9]+ tests? from [0-9]+ test suites? ran\.' "$log" || true)
  if [[ $started -gt $finished ]]; then
    say "$((started - finished)) test binary run(s) in $dir ended before gtest's summary (crash or timeout)"
    f=$((f + started - finished))
  fi
  if [[ $started -eq 0 || $((p + f + s)) -eq 0 ]]; then
    say "ctest in $dir ran no unit tests"
    note "no unit tests ran"
    return 1
  fi
  add_counts "$p" "$f" "$s"
  note "unit test cases: $p passed, $f failed, $s skipped"
  [[ $rc -eq 0 && $f -eq 0 ]]
}

# The closing line "N passed, N failed[, N skipped]" of tests/lab/run.sh's output in LOG: its
# counts are added to the stage and the line is printed; nothing (status 1) when there is none.
lab_closing_counts() { # log
  local line p f s=0
  line=$(grep -E '^[0-9]+ passed, [0-9]+ failed(, [0-9]+ skipped)?$' "$1" | tail -n 1) || return 1
  p=$(sed -E 's/^([0-9]+) passed.*/\1/' <<<"$line")
  f=$(sed -E 's/.* ([0-9]+) failed.*/\1/' <<<"$line")
  [[ $line == *skipped ]] && s=$(sed -E 's/.* ([0-9]+) skipped$/\1/' <<<"$line")
  add_counts "$p" "$f" "$s"
  echo "$line"
}

# NEEDED entries of a daemon binary: only the C library (libc.so.6 of glibc, libc.so of musl), the
# thread library and the dynamic loader (named when statically linked C++ runtime code uses
# thread-local storage) are allowed.
check_needed() { # readelf binary
  local readelf=$1 bin=$2 lib bad=0
  say "readelf -d $bin:"
  "$readelf" -d "$bin" | grep -E 'NEEDED|INTERP|RPATH|RUNPATH' || true
  while read -r lib; do
    case $lib in
      libc.so | libc.so.* | libpthread.so.* | ld-linux*.so.* | ld.so.* | ld-uClibc.so.*) ;;
      *) say "NOT ALLOWED: $bin needs $lib (the daemon may need only libc and libpthread)"; bad=1 ;;
    esac
  done < <("$readelf" -d "$bin" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p')
  return "$bad"
}

# One line of the size report: the daemon stripped (as `cmake --install --strip` installs it),
# unstripped, and its NEEDED libraries. Prints the stripped size on standard output.
size_report_line() { # label strip readelf binary
  local label=$1 strip=$2 readelf=$3 bin=$4 copy bytes needed line
  copy=$SCRATCH/stripped.$label
  "$strip" -o "$copy" "$bin"
  bytes=$(stat -c %s "$copy")
  needed=$("$readelf" -d "$bin" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p' | paste -sd' ' -)
  line=$(awk -v l="$label" -v b="$bytes" -v u="$(stat -c %s "$bin")" -v n="${needed:-none}" \
    'BEGIN { printf "size: %-7s stripped %6d bytes (%5.1f KiB), unstripped %6d bytes, NEEDED: %s", l, b, b / 1024, u, n }')
  echo "$line" >>"$SIZES_FILE"
  echo "$bytes"
}

configure_and_build() { # build-dir cmake-args...
  local dir=$1
  shift
  say "+ cmake -S . -B $dir $*"
  cmake -S . -B "$dir" "$@"
  say "+ cmake --build $dir -j$JOBS"
  cmake --build "$dir" -j"$JOBS"
}

# ---------------------------------------------------------------------------------------------
# stages

stage_packages() {
  local missing=() p
  for p in "${PACKAGES[@]}"; do pkg_installed "$p" || missing+=("$p"); done
  if [[ ${#missing[@]} -eq 0 ]]; then
    note "all ${#PACKAGES[@]} packages present"
    say "all packages present: ${PACKAGES[*]}"
    return 0
  fi
  say "missing: ${missing[*]}"
  if [[ $(id -u) -ne 0 ]]; then
    say "not root: cannot install; run as root (sudo bash tools/test.sh)"
    note "missing ${missing[*]} (not root)"
    return 1
  fi
  apt-get update
  apt-get install -y --no-install-recommends "${missing[@]}"
  note "installed ${missing[*]}"
}

stage_build() {
  configure_and_build build -DCMAKE_BUILD_TYPE=MinSizeRel -DMLD_WERROR=ON -DMLD_TESTS=ON \
    -DMLD_FUZZ=OFF -DMLD_SANITIZE= -DCMAKE_INSTALL_PREFIX=/usr || return 1
  # Includes and calls run only downward through the layers, and no files loop.
  say "+ python3 tools/check_layers.py --objects build/CMakeFiles/mldcore.dir/src"
  python3 tools/check_layers.py --objects build/CMakeFiles/mldcore.dir/src || return 1
  run_ctest build "$SCRATCH/ctest-build.log"
}

# The size report of the daemons that stages build, mips, mipsel and musl built (MinSizeRel with
# the release flags of CMakeLists.txt), also printed again at the end of the summary. The budget
# is the big-endian MIPS daemon's.
stage_size() {
  local rc=0 target label dir tools bytes mips='' built=() line
  : >"$SIZES_FILE"
  for target in x86_64:build: mips:build-mips:mips-linux-gnu- mipsel:build-mipsel:mipsel-linux-gnu- \
    musl:build-musl:; do
    IFS=: read -r label dir tools <<<"$target"
    if [[ ! -x $dir/mldproxyd ]]; then
      printf 'size: %-7s %s/mldproxyd not built (its stage failed or did not run)\n' "$label" "$dir" >>"$SIZES_FILE"
      continue
    fi
    check_needed "${tools}readelf" "$dir/mldproxyd" || rc=1
    bytes=$(size_report_line "$label" "${tools}strip" "${tools}readelf" "$dir/mldproxyd")
    built+=("$label $bytes")
    [[ $label == mips ]] && mips=$bytes
  done
  if [[ -n $mips ]]; then
    if [[ $mips -le $MIPS_SIZE_BUDGET ]]; then
      line="size: mips budget $MIPS_SIZE_BUDGET bytes: within it ($((MIPS_SIZE_BUDGET - mips)) bytes to spare)"
    else
      line="size: mips budget $MIPS_SIZE_BUDGET bytes: OVER by $((mips - MIPS_SIZE_BUDGET)) bytes"
      rc=1
    fi
    echo "$line" >>"$SIZES_FILE"
  fi
  say "size report:"
  cat "$SIZES_FILE"
  if [[ ${#built[@]} -eq 0 ]]; then
    note "no daemon built"
    return $SKIP
  fi
  local list
  list=$(printf '%s, ' "${built[@]}")
  note "stripped bytes: ${list%, } (mips budget $MIPS_SIZE_BUDGET)"
  return "$rc"
}

stage_asan() {
  configure_and_build build-asan -DCMAKE_BUILD_TYPE=Debug -DMLD_WERROR=ON -DMLD_TESTS=ON \
    -DMLD_FUZZ=OFF -DMLD_SANITIZE=address,undefined
  run_ctest build-asan "$SCRATCH/ctest-asan.log"
}

stage_tsan() {
  configure_and_build build-tsan -DCMAKE_BUILD_TYPE=Debug -DMLD_WERROR=ON -DMLD_TESTS=OFF \
    -DMLD_FUZZ=OFF -DMLD_SANITIZE=thread
  test -x build-tsan/mldproxyd
  note "build-tsan/mldproxyd built (run by the lab)"
}

# Runs a daemon binary with no configuration file, in its own network and mount namespaces (an
# empty directory over /etc/mld), and prints its output followed by "exit status N".
run_without_config() { # command...
  local empty=$SCRATCH/empty-etc-mld rc=0
  mkdir -p "$empty"
  # shellcheck disable=SC2016 # the inner script expands its own arguments
  timeout 60 unshare --mount --net --fork bash -c \
    'if [ -d /etc/mld ]; then mount --bind "$1" /etc/mld; fi; shift; exec "$@"' _ "$empty" "$@" \
    2>&1 || rc=$?
  printf '\nexit status %d\n' "$rc"
}

# The stripped daemon of another target (release flags) really starts on its ABI (loader, libc,
# static C++ runtime) and, like the build machine's daemon, prints exactly the configuration
# failure message (it ends with its own newline) when the configuration file is missing, and
# exits with status 1. Counts one check (or a skip) and sets SMOKE_NOTE.
daemon_start_smoke() { # label strip binary [runner...]
  local label=$1 strip=$2 bin=$3 x86 out stripped=$SCRATCH/mldproxyd-$1-stripped want how
  shift 3
  how=${1:+ under $1}
  want=$(printf '\nMLDRT: Can'"'"'t open file /etc/mld/mld.conf: fopen: No such file or directory\n\nexit status 1')
  if [[ $(id -u) -ne 0 ]]; then
    say "$label daemon start-up: skipped (needs root for unshare --mount)"
    SMOKE_NOTE="start-up$how skipped (not root)"
    add_counts 0 0 1
    return 0
  fi
  if ! unshare --mount --net --fork true; then
    say "$label daemon start-up: skipped (no mount and network namespace here)"
    SMOKE_NOTE="start-up$how skipped (no namespaces)"
    add_counts 0 0 1
    return 0
  fi
  if [[ ! -x build/mldproxyd ]]; then
    say "$label daemon start-up: skipped (build/mldproxyd missing to compare with)"
    SMOKE_NOTE="start-up$how skipped (no build/mldproxyd)"
    add_counts 0 0 1
    return 0
  fi
  "$strip" -o "$stripped" "$bin"
  x86=$(run_without_config build/mldproxyd)
  out=$(run_without_config "$@" "$stripped")
  say "build/mldproxyd without /etc/mld/mld.conf:"
  say "$x86"
  say "$bin, stripped,$how without /etc/mld/mld.conf:"
  say "$out"
  if [[ $x86 == "$out" && $x86 == "$want" ]]; then
    say "$label daemon start-up$how: the configuration message and status 1, as on the build machine"
    SMOKE_NOTE="stripped daemon$how: configuration message and status 1, as native"
    add_counts 1 0 0
    return 0
  fi
  say "$label daemon start-up$how: FAILED (output or status differs from build/mldproxyd or from the message)"
  SMOKE_NOTE="start-up$how differs from native"
  add_counts 0 1 0
  return 1
}

stage_mips() {
  local rc=0
  bash tools/mips-gtest.sh "$MIPS_GTEST"
  configure_and_build build-mips -DCMAKE_TOOLCHAIN_FILE="$MIPS_TOOLCHAIN" \
    -DCMAKE_PREFIX_PATH="$MIPS_GTEST/prefix" -DCMAKE_BUILD_TYPE=MinSizeRel -DMLD_WERROR=ON \
    -DMLD_TESTS=ON -DMLD_FUZZ=OFF -DMLD_SANITIZE=
  mips-linux-gnu-readelf -h build-mips/mldproxyd | grep -E 'Class|Data|Machine'
  run_ctest build-mips "$SCRATCH/ctest-mips.log" || rc=1
  local tests_note
  tests_note=$(cat "$NOTE_FILE")
  SMOKE_NOTE=""
  daemon_start_smoke mips mips-linux-gnu-strip build-mips/mldproxyd qemu-mips -L /usr/mips-linux-gnu || rc=1
  note "$tests_note; $SMOKE_NOTE"
  return "$rc"
}

# Little-endian MIPS with glibc: the daemon only, for its size and its start-up under
# qemu-mipsel. The unit tests run little-endian in stage build and on 32-bit MIPS in stage mips.
stage_mipsel() {
  configure_and_build build-mipsel -DCMAKE_TOOLCHAIN_FILE="$MIPS_TOOLCHAIN" \
    -DMLD_MIPS_TRIPLE=mipsel-linux-gnu -DCMAKE_BUILD_TYPE=MinSizeRel -DMLD_WERROR=ON \
    -DMLD_TESTS=OFF -DMLD_FUZZ=OFF -DMLD_SANITIZE=
  mipsel-linux-gnu-readelf -h build-mipsel/mldproxyd | grep -E 'Class|Data|Machine'
  mipsel-linux-gnu-readelf -h build-mipsel/mldproxyd | grep -q 'little endian' ||
    { say "build-mipsel/mldproxyd is not little-endian"; return 1; }
  SMOKE_NOTE=""
  local rc=0
  daemon_start_smoke mipsel mipsel-linux-gnu-strip build-mipsel/mldproxyd \
    qemu-mipsel -L /usr/mipsel-linux-gnu || rc=1
  note "unit tests: not built (little-endian in stage build, MIPS in stage mips); $SMOKE_NOTE"
  return "$rc"
}

# The daemon as OpenWrt links it, against musl (x86_64 musl runs here natively): what the glibc
# builds cannot show, such as a header or a call that only glibc has, or a struct laid out
# differently, would show here.
musl_binary() { # binary
  local interp
  readelf -h "$1" | grep -E 'Class|Data|Machine'
  interp=$(readelf -l "$1" | sed -nE 's/.*Requesting program interpreter: ([^]]*)\].*/\1/p')
  say "interpreter: ${interp:-none}"
  readelf -h "$1" | grep -q 'little endian' || { say "not little-endian"; return 1; }
  [[ $interp == /lib/ld-musl-x86_64.so.1 ]] || { say "not linked against musl"; return 1; }
  check_needed readelf "$1"
}

musl_version() { # binary
  local got want
  got=$("$1" --version) want=$(build/mldproxyd --version)
  say "$1 --version: $got; build/mldproxyd --version: $want"
  [[ -n $got && $got == "$want" ]]
}

# tests/lab/test_service.sh with the musl daemon: as the systemd unit runs it (an unprivileged
# user, CAP_NET_ADMIN and CAP_NET_RAW), it registers every link as a MIF, forwards a group a host
# joins, ends on SIGTERM with status 0, and makes no system call outside the unit's filter (musl
# makes other calls than glibc). Its checks are counted as they report themselves.
musl_lab() { # binary
  local log=$SCRATCH/lab-musl.log line rc=0
  MLD_DAEMON=$1 timeout --kill-after=30 300 bash tests/lab/run.sh tests/lab/test_service.sh 2>&1 |
    tee "$log" || rc=$?
  line=$(lab_closing_counts "$log") ||
    { say "tests/lab/run.sh printed no closing line (status $rc)"; add_counts 0 1 0; return 1; }
  MUSL_LAB_NOTE="lab test_service.sh: $line"
  [[ $rc -eq 0 ]]
}

stage_musl() {
  local bin=build-musl/mldproxyd
  CHECK_RC=0 SMOKE_NOTE="" MUSL_LAB_NOTE="lab test_service.sh skipped"
  configure_and_build build-musl -DCMAKE_TOOLCHAIN_FILE="$MUSL_TOOLCHAIN" \
    -DCMAKE_BUILD_TYPE=MinSizeRel -DMLD_WERROR=ON -DMLD_TESTS=OFF -DMLD_FUZZ=OFF -DMLD_SANITIZE=
  counted_check "$bin is little-endian, linked against musl, needs only libc" musl_binary "$bin"
  say "skipped: unit tests against musl (Debian 12 has no C++ standard library built for musl, and"
  say "  GoogleTest needs one; musl-gcc is C only). They run little-endian against glibc in stage build."
  add_counts 0 0 1
  if [[ -x build/mldproxyd ]]; then
    counted_check "$bin --version prints what build/mldproxyd prints" musl_version "$bin"
  else
    say "skipped: --version compared with build/mldproxyd (not built)"
    add_counts 0 0 1
  fi
  daemon_start_smoke musl strip "$bin" || CHECK_RC=1
  if [[ $(id -u) -eq 0 ]]; then
    musl_lab "$bin" || CHECK_RC=1
  else
    say "skipped: tests/lab/test_service.sh with the musl daemon (needs root)"
    add_counts 0 0 1
  fi
  note "unit tests skipped (no C++ runtime for musl in Debian); $SMOKE_NOTE; $MUSL_LAB_NOTE"
  return "$CHECK_RC"
}

# What `cmake --install` puts into a staging directory (prefix /usr), relative to it.
INSTALLED_FILES=(
  etc/mld/mld.conf
  usr/lib/systemd/system/mldproxyd.service
  usr/sbin/mldproxyd
  usr/share/man/man5/mld.conf.5
  usr/share/man/man8/mldproxyd.8
)

# counted_check NAME COMMAND...: one check of a stage, counted, "ok"/"FAILED" printed; a failure
# sets CHECK_RC to 1.
counted_check() {
  local name=$1
  shift
  if "$@"; then
    say "ok: $name"
    add_counts 1 0 0
  else
    say "FAILED: $name"
    add_counts 0 1 0
    CHECK_RC=1
  fi
}

staged_file_list() { # stage
  [[ "$(cd "$1" && find . -type f -printf '%P\n' | sort)" == "$(printf '%s\n' "${INSTALLED_FILES[@]}" | sort)" ]]
}

staged_daemon_stripped() { # stage
  local bin=$1/usr/sbin/mldproxyd
  [[ -x $bin ]] || { say "$bin is not executable"; return 1; }
  if readelf -S "$bin" | grep -q '\.symtab'; then say "$bin still has a symbol table"; return 1; fi
  check_needed readelf "$bin"
}

staged_config() { # stage
  local conf=$1/etc/mld/mld.conf
  [[ $(stat -c %a "$conf") == 644 ]] || { say "$conf has mode $(stat -c %a "$conf"), want 644"; return 1; }
  cmp "$conf" packaging/mld.conf
}

# The README's two commands in its order: tools/demo.sh configures a build directory with the
# default prefix, then the install stage configures it again for /usr and installs. Every
# destination must follow the later prefix (a cached absolute path once put the unit under
# /usr/local while the daemon went to /usr).
demo_then_install() {
  local dir=$SCRATCH/readme-order stage=$SCRATCH/readme-order-stage unit
  cmake -S . -B "$dir" -DMLD_TESTS=OFF >/dev/null &&
    cmake -S . -B "$dir" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null &&
    cmake --build "$dir" --target mldproxyd -j"$JOBS" >/dev/null &&
    DESTDIR=$stage cmake --install "$dir" >/dev/null || return 1
  unit=$stage/usr/lib/systemd/system/mldproxyd.service
  [[ -f $unit && -x $stage/usr/sbin/mldproxyd ]] || { say "staged: $(cd "$stage" && find . -type f | tr '\n' ' ')"; return 1; }
  grep -q '^ExecStart=/usr/sbin/mldproxyd ' "$unit"
}

# unit_copy STAGE: a copy of the staged unit whose ExecStart names the staged daemon (which must
# exist and be executable for systemd-analyze); prints its path.
unit_copy() {
  mkdir -p "$SCRATCH/verify"
  sed "s|^ExecStart=/usr/sbin/mldproxyd|ExecStart=$1/usr/sbin/mldproxyd|" \
    "$1/usr/lib/systemd/system/mldproxyd.service" >"$SCRATCH/verify/mldproxyd.service"
  echo "$SCRATCH/verify/mldproxyd.service"
}

staged_unit() { # stage
  local unit=$1/usr/lib/systemd/system/mldproxyd.service exec
  exec=$(sed -n 's/^ExecStart=//p' "$unit")
  say "ExecStart=$exec"
  [[ ${exec%% *} == /usr/sbin/mldproxyd && -x $1${exec%% *} ]] || { say "ExecStart is not the installed daemon"; return 1; }
  # Offline: every line of the unit must parse (systemd-analyze only warns about a bad one, so
  # any output fails).
  local copy out
  copy=$(unit_copy "$1")
  say "+ systemd-analyze verify --man=no $copy"
  out=$(systemd-analyze verify --man=no "$copy" 2>&1) || { say "$out"; return 1; }
  [[ -z $out ]] || { say "$out"; return 1; }
}

# The unit's sandbox as systemd rates it (0 best, 10 worst), offline from the unit file: the
# settings that still leave something open, and the overall exposure, which must stay at or
# below UNIT_EXPOSURE_MAX.
staged_unit_security() { # stage
  local copy out rc=0
  copy=$(unit_copy "$1")
  say "+ systemd-analyze security --offline=yes --threshold=$UNIT_EXPOSURE_MAX_X10 $copy"
  out=$(SYSTEMD_COLORS=0 systemd-analyze security --offline=yes --no-pager \
    --threshold="$UNIT_EXPOSURE_MAX_X10" "$copy" 2>&1) || rc=$?
  grep -E '^✗|Overall exposure' <<<"$out" | sed 's/[[:space:]]\{2,\}/  /g'
  UNIT_EXPOSURE=$(sed -nE 's/.*Overall exposure level for [^:]*: ([0-9.]+).*/\1/p' <<<"$out")
  echo "${UNIT_EXPOSURE:-none}" >"$SCRATCH/unit-exposure"
  if [[ -z $UNIT_EXPOSURE ]]; then say "$out"; return 1; fi
  [[ $rc -eq 0 ]] || say "exposure $UNIT_EXPOSURE is above $UNIT_EXPOSURE_MAX"
  return "$rc"
}

# man_renders FILE: man(1) renders the page without a warning (any output on standard error).
man_renders() {
  local err
  err=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -l -Tutf8 "$1" 2>&1 >/dev/null)
  [[ -z $err ]] || { say "$err"; return 1; }
}

# One version everywhere: project(... VERSION) in CMakeLists.txt is what `mldproxyd --version`
# prints, what both manual pages name in their header, and the OpenWrt package's PKG_VERSION.
versions_agree() { # daemon
  local want got bad=0 page
  want=$(sed -nE 's/^project\(mldproxyd VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
  [[ -n $want ]] || { say "no project(mldproxyd VERSION ...) in CMakeLists.txt"; return 1; }
  say "CMakeLists.txt: $want"
  got=$("$1" --version)
  say "$1 --version: $got"
  [[ $got == "mldproxyd $want" ]] || bad=1
  for page in man/mldproxyd.8 man/mld.conf.5; do
    got=$(sed -nE 's/^\.TH .*"mldproxyd ([^"]*)".*/\1/p' "$page")
    say "$page .TH: ${got:-no version}"
    [[ $got == "$want" ]] || bad=1
  done
  got=$(sed -nE 's/^PKG_VERSION:=(.*)/\1/p' packaging/openwrt/mldproxyd/Makefile)
  say "packaging/openwrt/mldproxyd/Makefile PKG_VERSION: ${got:-none}"
  [[ $got == "$want" ]] || bad=1
  return "$bad"
}

# The installed daemon with the installed configuration, in an empty network namespace (no link
# called eth0 there): it takes the configuration without a message, sets multicast routing up,
# waits for its upstream link, and ends on SIGTERM with status 0, having printed nothing.
staged_daemon_runs() { # stage
  local log=$SCRATCH/installed-daemon.log out
  [[ -d /etc/mld ]] || mkdir -p /etc/mld # the bind target; an empty directory if it was missing
  # shellcheck disable=SC2016 # the inner script expands its own arguments
  out=$(timeout 60 unshare --mount --net --fork bash -c '
    mount --bind "$1" /etc/mld || exit 125
    "$2" >"$3" 2>&1 &
    pid=$!
    sleep 3
    if ! kill -0 "$pid" 2>/dev/null; then wait "$pid"; echo "ended by itself with status $?"; exit 1; fi
    kill -TERM "$pid"
    wait "$pid"
    echo "exit status $? after SIGTERM"' _ "$1/etc/mld" "$1/usr/sbin/mldproxyd" "$log") || true
  say "installed daemon with the installed configuration: $out; output: $(od -c "$log" | head -n 5)"
  [[ $out == "exit status 0 after SIGTERM" && ! -s $log ]]
}

stage_install() {
  local stage=$SCRATCH/stage f
  CHECK_RC=0
  if [[ ! -f build/CMakeCache.txt ]]; then
    note "build/ is not configured (stage build failed or not run)"
    return $SKIP
  fi
  say "+ cmake -S . -B build -DCMAKE_INSTALL_PREFIX=/usr"
  cmake -S . -B build -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
  cmake --build build -j"$JOBS" --target mldproxyd
  say "+ DESTDIR=$stage cmake --install build --strip"
  DESTDIR=$stage cmake --install build --strip
  say "staged files (mode, bytes, path):"
  (cd "$stage" && find . -type f -printf '%m %8s %P\n' | sort -k3)
  counted_check "the staged files are exactly: ${INSTALLED_FILES[*]}" staged_file_list "$stage"
  counted_check "the daemon is executable, stripped, needs only libc/libpthread" staged_daemon_stripped "$stage"
  counted_check "/etc/mld/mld.conf is packaging/mld.conf, mode 644" staged_config "$stage"
  if command -v systemd-analyze >/dev/null; then
    counted_check "the systemd unit starts the installed daemon and verifies" staged_unit "$stage"
    counted_check "systemd-analyze security rates the unit's exposure at most $UNIT_EXPOSURE_MAX" \
      staged_unit_security "$stage"
  else
    say "skipped: systemd-analyze verify and security (no systemd-analyze: stage packages installs systemd)"
    add_counts 0 0 2
  fi
  for f in usr/share/man/man8/mldproxyd.8 usr/share/man/man5/mld.conf.5; do
    counted_check "man -l $f renders without warnings" man_renders "$stage/$f"
  done
  counted_check "a build directory the demo configured first installs under the prefix given later" \
    demo_then_install
  counted_check "one version in CMakeLists.txt, mldproxyd --version, the manual pages, PKG_VERSION" \
    versions_agree "$stage/usr/sbin/mldproxyd"
  counted_check "the OpenWrt init script passes sh -n" sh -n packaging/openwrt/mldproxyd/files/mldproxyd.init
  counted_check "the OpenWrt init script renders /etc/config/mldproxyd (tests/packaging)" \
    bash tests/packaging/openwrt_render_test.sh
  if [[ $(id -u) -eq 0 ]] && unshare --mount --net --fork true 2>/dev/null; then
    counted_check "the installed daemon reads the installed configuration and ends on SIGTERM with 0" \
      staged_daemon_runs "$stage"
  else
    say "skipped: running the installed daemon (needs root and namespaces)"
    add_counts 0 0 1
  fi
  note "DESTDIR=<scratch> cmake --install build --strip: ${#INSTALLED_FILES[@]} files; unit exposure $(cat "$SCRATCH/unit-exposure" 2>/dev/null || echo 'not rated')"
  return "$CHECK_RC"
}

stage_fuzz() {
  local targets=() t corpus out log rc p=0 f=0
  configure_and_build build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug \
    -DMLD_WERROR=ON -DMLD_FUZZ=ON -DMLD_TESTS=OFF -DMLD_SANITIZE=address,undefined
  for t in build-fuzz/fuzz_*; do
    [[ -f $t && -x $t ]] && targets+=("$(basename "$t")")
  done
  if [[ ${#targets[@]} -eq 0 ]]; then
    say "no fuzz targets were built"
    return 1
  fi
  mkdir -p build-fuzz/crashes
  # All targets run at once (they are bounded by time, not by runs), each with its own log.
  local pids=()
  for t in "${targets[@]}"; do
    # libFuzzer adds new inputs to its first corpus directory: give it a scratch copy of the
    # seeds, so the repository is never written.
    corpus=$SCRATCH/corpus-$t
    out=$SCRATCH/artifacts-$t/
    mkdir -p "$corpus" "$out"
    if [[ -d tests/fuzz/corpus/$t ]]; then cp -r "tests/fuzz/corpus/$t/." "$corpus/"; fi
    say "+ $t: $(find "$corpus" -type f | wc -l) seeds, ${FUZZ_SECONDS}s"
    timeout --kill-after=30 $((FUZZ_SECONDS + 300)) "build-fuzz/$t" -max_total_time="$FUZZ_SECONDS" \
      -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$out" "$corpus" \
      >"$SCRATCH/fuzz-$t.log" 2>&1 &
    pids+=($!)
  done
  local i
  for i in "${!targets[@]}"; do
    t=${targets[$i]}
    out=$SCRATCH/artifacts-$t/
    log=$SCRATCH/fuzz-$t.log
    rc=0
    wait "${pids[$i]}" || rc=$?
    grep -E '^#[0-9]+[[:space:]]+(INITED|DONE)|^stat::number_of_executed_runs|^Done [0-9]+ runs' "$log" || true
    if [[ $rc -eq 0 ]]; then
      say "$t: no crash"
      p=$((p + 1))
    else
      f=$((f + 1))
      say "$t: FAILED (status $rc); last lines of its output:"
      tail -n 60 "$log"
      cp -r "$out". build-fuzz/crashes/ 2>/dev/null || true
      find "$out" -type f -exec sh -c 'echo "input $1:"; od -A x -t x1z "$1" | head -n 40' _ {} \;
    fi
  done
  add_counts "$p" "$f" 0
  note "fuzz targets: ${targets[*]} (${FUZZ_SECONDS}s each); crash inputs go to build-fuzz/crashes/"
  [[ $f -eq 0 ]]
}

stage_bench() {
  configure_and_build build-bench -DCMAKE_BUILD_TYPE=MinSizeRel -DMLD_WERROR=ON -DMLD_TESTS=OFF \
    -DMLD_FUZZ=OFF -DMLD_SANITIZE= -DMLD_BENCH=ON
  build-bench/mldproxyd_bench --benchmark_min_time=0.001 | tee "$SCRATCH/bench.log"
  local rows
  rows=$(grep -cE '^BM_' "$SCRATCH/bench.log" || true)
  if [[ $rows -eq 0 ]]; then
    say "the benchmark printed no results"
    return 1
  fi
  note "$rows benchmark rows (smoke run; full run: build-bench/mldproxyd_bench)"
}

stage_lab() {
  local log=$SCRATCH/lab.log rc line
  if [[ $(id -u) -ne 0 ]]; then
    note "needs root (network namespaces)"
    say "not root: the lab tests need root; run as root to include them"
    return $SKIP
  fi
  if [[ ! -f tests/lab/run.sh ]]; then
    note "tests/lab/run.sh does not exist"
    say "tests/lab/run.sh does not exist"
    return 1
  fi
  rc=0
  MLD_DAEMON=build/mldproxyd MLD_TSAN_DAEMON=build-tsan/mldproxyd \
    timeout --kill-after=30 "$LAB_TIMEOUT" bash tests/lab/run.sh 2>&1 | tee "$log" || rc=$?
  [[ $rc -eq 124 ]] && say "the lab tests took longer than ${LAB_TIMEOUT}s and were stopped"
  line=$(lab_closing_counts "$log") || line=''
  [[ -n $line ]] && note "lab checks: $line"
  if [[ $rc -eq $SKIP ]]; then
    [[ -z $line ]] && note "tests/lab/run.sh reported the lab as skipped (status 77)"
    return $SKIP
  fi
  return "$rc"
}

# ---------------------------------------------------------------------------------------------

SELECTED=()
for arg in "$@"; do
  case " ${ALL_STAGES[*]} " in
    *" $arg "*) SELECTED+=("$arg") ;;
    *) say "unknown stage '$arg'; stages: ${ALL_STAGES[*]}" >&2; exit 2 ;;
  esac
done

RUN_START=$(date +%s)
say "mldproxyd tests in $ROOT ($(git -C "$ROOT" rev-parse --short HEAD 2>/dev/null || echo 'no commit')), $(date -u '+%Y-%m-%d %H:%M:%S UTC'), -j$JOBS"

run_stage packages "install missing Debian packages"
run_stage build "g++ build (-Werror) into build/, unit tests"
run_stage asan "AddressSanitizer + UndefinedBehaviorSanitizer build into build-asan/, unit tests"
run_stage tsan "ThreadSanitizer daemon build into build-tsan/"
run_stage mips "big-endian MIPS cross build into build-mips/, unit tests and start-up under qemu-mips"
run_stage mipsel "little-endian MIPS cross build of the daemon into build-mipsel/, start-up under qemu-mipsel"
run_stage musl "musl build of the daemon into build-musl/, its start-up and the service lab test"
run_stage size "size report: stripped daemon (x86_64, MIPS, mipsel, musl) and its NEEDED libraries"
run_stage install "cmake --install into a staging directory, manual pages, service files"
run_stage fuzz "clang++ libFuzzer build into build-fuzz/, fuzz targets ${FUZZ_SECONDS}s each"
run_stage bench "Google Benchmark build into build-bench/, smoke run of the benchmarks"
run_stage lab "lab tests in network namespaces (tests/lab/run.sh)"

say ""
say "======================================================================"
say "== summary ($(($(date +%s) - RUN_START))s in total)"
say "======================================================================"
for line in "${SUMMARY[@]}"; do say "$line"; done
# What failed, in the checks' own words (expected and got), so that a failure reads here
# without scrolling back through the stage's output.
for name in "${FAILED_STAGES[@]}"; do
  say "failures of stage $name:"
  grep -a -E -A6 ' OVER by |^not ok - |\[  FAILED  \]|: Failure$|^FAILED: |FAILED:|error:|ERROR: ' "$SCRATCH/stage-$name.log" |
    grep -v -E '^\[  (RUN|OK) ' | head -n 60 | sed 's/^/    /'
done
if [[ -s $SIZES_FILE ]]; then
  say "size report (the daemon stripped as cmake --install --strip installs it; NEEDED from readelf -d):"
  cat "$SIZES_FILE"
fi
if [[ $TOTAL_S -gt 0 ]]; then
  say "$TOTAL_P passed, $TOTAL_F failed, $TOTAL_S skipped"
else
  say "$TOTAL_P passed, $TOTAL_F failed"
fi
[[ $TOTAL_F -eq 0 ]]
