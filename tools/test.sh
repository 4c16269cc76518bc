#!/usr/bin/env bash
# Installs whatever is missing on a Debian 12 machine and runs every test of mldproxyd.
#
#   sudo bash tools/test.sh              # everything (what CI runs)
#   bash tools/test.sh build mips        # only some stages; the others are reported as skipped
#
# Stages (names usable as arguments):
#   packages  install missing Debian packages (apt-get, only when something is missing)
#   build     g++ build with warnings as errors into build/, unit tests (ctest)
#   size      readelf -d build/mldproxyd: no C++ runtime needed; stripped size
#   asan      AddressSanitizer + UndefinedBehaviorSanitizer build into build-asan/, unit tests
#   tsan      ThreadSanitizer build of the daemon into build-tsan/ (the lab runs it)
#   mips      big-endian MIPS cross build into build-mips/, unit tests under qemu-mips,
#             readelf -d and stripped size of the MIPS daemon
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
# MLD_LAB_TIMEOUT (seconds, default 1200).

set -u
set -o pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT" || exit 1

JOBS=${MLD_JOBS:-2}
FUZZ_SECONDS=${MLD_FUZZ_SECONDS:-60}
LAB_TIMEOUT=${MLD_LAB_TIMEOUT:-1200}
MIPS_TOOLCHAIN=$ROOT/cmake/mips-linux-gnu.cmake
MIPS_GTEST=$ROOT/build-mips/gtest-mips # GoogleTest cross-built for MIPS (tools/mips-gtest.sh)
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
  iproute2 tcpdump python3-scapy strace util-linux procps iputils-ping man-db  # the lab
)

ALL_STAGES=(packages build size asan tsan mips fuzz bench lab)

SCRATCH=$(mktemp -d /tmp/mldproxyd-test.XXXXXX) || exit 1
trap 'rm -rf "$SCRATCH"' EXIT

TOTAL_P=0 TOTAL_F=0 TOTAL_S=0
SUMMARY=()
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
    (set -e; "stage_$name") </dev/null
    rc=$?
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

# NEEDED entries of a daemon binary: only the C library, the thread library and the dynamic
# loader (named when statically linked C++ runtime code uses thread-local storage) are allowed.
check_needed() { # readelf binary
  local readelf=$1 bin=$2 lib bad=0
  say "readelf -d $bin:"
  "$readelf" -d "$bin" | grep -E 'NEEDED|INTERP|RPATH|RUNPATH' || true
  while read -r lib; do
    case $lib in
      libc.so.* | libpthread.so.* | ld-linux*.so.* | ld.so.* | ld-uClibc.so.*) ;;
      *) say "NOT ALLOWED: $bin needs $lib (the daemon may need only libc and libpthread)"; bad=1 ;;
    esac
  done < <("$readelf" -d "$bin" | sed -nE 's/.*\(NEEDED\).*\[(.*)\]/\1/p')
  return "$bad"
}

stripped_size() { # strip binary label
  local strip=$1 bin=$2 label=$3 copy bytes line
  copy=$SCRATCH/stripped.$label
  "$strip" -o "$copy" "$bin"
  bytes=$(stat -c %s "$copy")
  line=$(printf 'size: %-7s mldproxyd stripped %8d bytes (%d KiB), unstripped %d bytes' \
    "$label" "$bytes" $(((bytes + 1023) / 1024)) "$(stat -c %s "$bin")")
  say "$line"
  echo "$line" >>"$SIZES_FILE"
  note "stripped $label daemon: $bytes bytes"
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
    -DMLD_FUZZ=OFF -DMLD_SANITIZE=
  run_ctest build "$SCRATCH/ctest-build.log"
}

stage_size() {
  if [[ ! -x build/mldproxyd ]]; then
    note "build/mldproxyd missing (stage build failed)"
    return $SKIP
  fi
  check_needed readelf build/mldproxyd
  stripped_size strip build/mldproxyd x86_64
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

# The MIPS daemon really starts on the target ABI (loader, libc, static C++ runtime) and behaves
# like the build machine's daemon when the configuration file is missing.
mips_daemon_smoke() {
  local x86 mips
  if [[ $(id -u) -ne 0 ]]; then
    say "daemon start-up under qemu-mips: skipped (needs root for unshare --mount)"
    SMOKE_NOTE="start-up under qemu skipped (not root)"
    add_counts 0 0 1
    return 0
  fi
  if ! unshare --mount --net --fork true; then
    say "daemon start-up under qemu-mips: skipped (no mount and network namespace here)"
    SMOKE_NOTE="start-up under qemu skipped (no namespaces)"
    add_counts 0 0 1
    return 0
  fi
  if [[ ! -x build/mldproxyd ]]; then
    say "daemon start-up under qemu-mips: skipped (build/mldproxyd missing to compare with)"
    SMOKE_NOTE="start-up under qemu skipped (no build/mldproxyd)"
    add_counts 0 0 1
    return 0
  fi
  x86=$(run_without_config build/mldproxyd)
  mips=$(run_without_config qemu-mips -L /usr/mips-linux-gnu build-mips/mldproxyd)
  say "build/mldproxyd without /etc/mld/mld.conf:"
  say "$x86"
  say "build-mips/mldproxyd under qemu-mips without /etc/mld/mld.conf:"
  say "$mips"
  if [[ $x86 == "$mips" && $x86 == *mld.conf* ]]; then
    say "daemon start-up under qemu-mips: same output and status as on the build machine"
    SMOKE_NOTE="start-up under qemu as native"
    add_counts 1 0 0
    return 0
  fi
  say "daemon start-up under qemu-mips: FAILED (output or status differs from build/mldproxyd)"
  SMOKE_NOTE="start-up under qemu differs from native"
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
  local tests_note size_note
  tests_note=$(cat "$NOTE_FILE")
  check_needed mips-linux-gnu-readelf build-mips/mldproxyd || rc=1
  stripped_size mips-linux-gnu-strip build-mips/mldproxyd mips
  size_note=$(cat "$NOTE_FILE")
  SMOKE_NOTE=""
  mips_daemon_smoke || rc=1
  note "$tests_note; $size_note; $SMOKE_NOTE"
  return "$rc"
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
  local log=$SCRATCH/lab.log rc p f s line
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
  line=$(grep -E '^[0-9]+ passed, [0-9]+ failed(, [0-9]+ skipped)?$' "$log" | tail -n 1 || true)
  if [[ -n $line ]]; then
    p=$(sed -E 's/^([0-9]+) passed.*/\1/' <<<"$line")
    f=$(sed -E 's/.* ([0-9]+) failed.*/\1/' <<<"$line")
    s=0
    [[ $line == *skipped ]] && s=$(sed -E 's/.* ([0-9]+) skipped$/\1/' <<<"$line")
    add_counts "$p" "$f" "$s"
    note "lab checks: $line"
  fi
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
run_stage size "readelf -d and stripped size of build/mldproxyd"
run_stage asan "AddressSanitizer + UndefinedBehaviorSanitizer build into build-asan/, unit tests"
run_stage tsan "ThreadSanitizer daemon build into build-tsan/"
run_stage mips "big-endian MIPS cross build into build-mips/, unit tests under qemu-mips, size"
run_stage fuzz "clang++ libFuzzer build into build-fuzz/, fuzz targets ${FUZZ_SECONDS}s each"
run_stage bench "Google Benchmark build into build-bench/, smoke run of the benchmarks"
run_stage lab "lab tests in network namespaces (tests/lab/run.sh)"

say ""
say "======================================================================"
say "== summary ($(($(date +%s) - RUN_START))s in total)"
say "======================================================================"
for line in "${SUMMARY[@]}"; do say "$line"; done
cat "$SIZES_FILE"
if [[ $TOTAL_S -gt 0 ]]; then
  say "$TOTAL_P passed, $TOTAL_F failed, $TOTAL_S skipped"
else
  say "$TOTAL_P passed, $TOTAL_F failed"
fi
[[ $TOTAL_F -eq 0 ]]
