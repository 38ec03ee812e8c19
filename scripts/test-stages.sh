#!/usr/bin/env bash
# Runs the stages of `make test` and ends with one line over all of them: "N passed, N failed".
#   BUILD=build JOBS=2 FUZZ_SECONDS=60 bash scripts/test-stages.sh [suite] [valgrind] [docs] [lint] [thread] [address] [fuzz]
# Each ctest test counts once per stage it runs in; a stage that cannot build or run its tests
# counts as one failure; the fuzzing, the API reference and the lint checks count as one test
# each. Builds, the fuzzer, docs and lint write to log files in their build directories, shown
# only when they fail.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$PWD
BUILD=${BUILD:-build}
JOBS=${JOBS:-$(nproc)}
FUZZ_SECONDS=${FUZZ_SECONDS:-60}
passed=0
failed=0

verdict() {  # stage, passed, failed, note
  echo "$1: $2 passed, $3 failed${4:+ ($4)}"
  passed=$((passed + $2))
  failed=$((failed + $3))
}

# Shows the end of a log that explains a failure.
show_log() {
  echo "--- last lines of $1:"
  tail -n "${2:-40}" "$1"
  echo "---"
}

# Configures (once) and builds a directory: dir, log, cmake arguments... (after --, targets).
build_dir() {
  local dir=$1 log=$2; shift 2
  local args=() targets=()
  while [ $# -gt 0 ] && [ "$1" != -- ]; do args+=("$1"); shift; done
  [ $# -gt 0 ] && shift && for t in "$@"; do targets+=(--target "$t"); done
  echo "building $dir (log: $log)"
  mkdir -p "$dir"
  { [ -f "$dir/cmake_install.cmake" ] || cmake -S . -B "$dir" "${args[@]}"; } >"$log" 2>&1 &&
    cmake --build "$dir" -j "$JOBS" "${targets[@]}" >>"$log" 2>&1 && return 0
  show_log "$log"
  return 1
}

# ctest in a directory, its output kept in a log; counts from ctest's own summary line. On a
# failure the log is shown without the lines of the tests that passed.
run_ctest() {  # stage, dir, ctest arguments...
  local stage=$1 dir=$2; shift 2
  local log="$dir/ctest-$stage.log" line total bad
  echo "running $(ctest --test-dir "$dir" -N "$@" | sed -n 's/^Total Tests: //p') tests (log: $log)"
  ctest --test-dir "$dir" --output-on-failure -j "$JOBS" "$@" >"$log" 2>&1
  line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -1)
  bad=$(echo "$line" | sed -nE 's/.* ([0-9]+) tests? failed.*/\1/p')
  total=$(echo "$line" | sed -nE 's/.*out of ([0-9]+).*/\1/p')
  if [ -z "$line" ] || [ "$bad" -gt 0 ]; then
    grep -vE '^ *Start +[0-9]+: |Test +#[0-9]+: .* Passed +[0-9.]+ sec$' "$log"
  fi
  if [ -z "$line" ]; then
    verdict "$stage" 0 1 "no tests ran; log: $log"
  else
    verdict "$stage" $((total - bad)) "$bad"
  fi
}

suite_built=""
build_suite() {
  [ -n "$suite_built" ] || { build_dir "$BUILD" "$BUILD/build.log" && suite_built=ok || suite_built=failed; }
  [ "$suite_built" = ok ]
}

# Any sanitizer report fails its test: leaks are checked, and the first report ends the process.
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# A one-test stage: name, log, command... (the log is shown when the command fails).
checked() {
  local stage=$1 log=$2; shift 2
  mkdir -p "$BUILD"
  { [ -f "$BUILD/cmake_install.cmake" ] || cmake -S . -B "$BUILD"; } >"$log" 2>&1 && "$@" >>"$log" 2>&1
  local rc=$?
  if [ "$rc" -eq 0 ]; then verdict "$stage" 1 0 "log: $log"; else show_log "$log" 60; verdict "$stage" 0 1 "log: $log"; fi
}

[ $# -gt 0 ] || set -- suite valgrind docs lint thread address fuzz
for stage in "$@"; do
  echo "== $stage"
  case $stage in
    suite | valgrind)
      # The valgrind run is a test of the suite, counted as a stage of its own.
      if ! build_suite; then verdict "$stage" 0 1 "build failed"
      elif [ "$stage" = suite ]; then run_ctest suite "$BUILD" -E '^host_valgrind$'
      else run_ctest valgrind "$BUILD" -R '^host_valgrind$'
      fi ;;
    docs) checked docs "$BUILD/docs.log" cmake --build "$BUILD" --target docs ;;
    lint) checked lint "$BUILD/lint.log" bash scripts/lint.sh "$BUILD" "$JOBS" ;;
    thread | address)
      dir="$BUILD-$stage"
      if build_dir "$dir" "$dir/build.log" -DCMAKE_BUILD_TYPE=Debug -DKIV_SANITIZE="$stage" \
          -DKIV_BUILD_TESTS=ON -DKIV_BUILD_BENCH=OFF; then
        run_ctest "$stage" "$dir" -LE nosanitize
      else
        verdict "$stage" 0 1 "build failed"
      fi ;;
    fuzz)
      # New inputs go to the build's corpus; the committed seeds are only read. Findings land
      # in the build's scratch directory and fail the run.
      dir="$BUILD-fuzz"
      if build_dir "$dir" "$dir/build.log" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
          -DCMAKE_CXX_COMPILER=clang++ -DKIV_SANITIZE=fuzz -DKIV_BUILD_TESTS=OFF \
          -DKIV_BUILD_BENCH=OFF -DKIV_BUILD_HOST=OFF -- kiv_api_fuzzer kiv_sql_text_fuzzer kiv_csv_fuzzer; then
        # The API gets the time asked for; the host's splitter and CSV reader, smaller and
        # quicker to cover, a sixth of it each.
        host_seconds=$(( FUZZ_SECONDS / 6 > 5 ? FUZZ_SECONDS / 6 : 5 ))
        for fuzzer in api sql_text csv; do
          mkdir -p "$dir/corpus-$fuzzer" "$dir/scratch"
          log="$dir/fuzz-$fuzzer.log" seconds=$host_seconds seeds=""
          [ $fuzzer = api ] && seconds=$FUZZ_SECONDS seeds="$root/tests/fuzz/corpus"
          echo "fuzzing kiv_${fuzzer}_fuzzer for $seconds s (log: $log)"
          # shellcheck disable=SC2086
          if (cd "$dir/scratch" && "../kiv_${fuzzer}_fuzzer" -max_total_time="$seconds" -timeout=10 \
                -dict="$root/tests/fuzz/sql.dict" -print_final_stats=1 "../corpus-$fuzzer" $seeds) \
              >"$log" 2>&1; then
            runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
            verdict "fuzz $fuzzer" 1 0 "${runs:-?} inputs, corpus $(ls "$dir/corpus-$fuzzer" | wc -l) files"
          else
            show_log "$log" 60
            verdict "fuzz $fuzzer" 0 1 "inputs that fail land in $dir/scratch"
          fi
        done
      else
        verdict fuzz 0 1 "build failed"
      fi ;;
    *) echo "unknown stage $stage (suite, valgrind, docs, lint, thread, address, fuzz)" >&2; exit 2 ;;
  esac
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
