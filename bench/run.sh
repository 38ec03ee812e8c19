#!/bin/sh
# Runs every benchmark of kiv_bench once (repetitions interleaved at random), keeps the
# JSON in <build>/bench.json, prints the SQLite and thread-service tables and draws the chart
# (<build>/bench.png; docs/bench.png with --readme, next to the published tables).
#   sh bench/run.sh [build-dir] [--callgrind] [--readme] [kiv_bench flags...]
#   sh bench/run.sh [build-dir] --patterns [--readme]
# --callgrind  also counts instructions per row under valgrind (about two minutes more)
# --readme     writes the tables into README.md between the bench markers, the chart to docs/
# --patterns   only the cost of each usage pattern (bench/patterns.py: callgrind and 9 interleaved
#              rounds, about a minute); with --readme into README's patterns table
# KIV_BENCH_REPETITIONS (default 9) sets the repetitions.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build=build
case ${1:-} in -*|"") ;; *) build=$1; shift ;; esac
case $build in /*) ;; *) build="$root/$build" ;; esac
readme=""
callgrind=0
patterns=0
while [ $# -gt 0 ]; do
  case $1 in
    --readme) readme="--readme $root/README.md"; shift ;;
    --callgrind) callgrind=1; shift ;;
    --patterns) patterns=1; shift ;;
    *) break ;;
  esac
done

if [ $patterns = 1 ]; then
  [ -x "$build/kiv_pattern_bench" ] || { echo "no $build/kiv_pattern_bench: make bench first" >&2; exit 1; }
  echo "machine: $(nproc) CPUs, load average $(cut -d' ' -f1-3 /proc/loadavg)"
  # shellcheck disable=SC2086
  exec python3 "$root/bench/patterns.py" "$build" $readme
fi

bench="$build/kiv_bench"
if [ ! -x "$bench" ]; then
  echo "no $bench: build first (make build)" >&2
  exit 1
fi

echo "machine: $(nproc) CPUs, load average $(cut -d' ' -f1-3 /proc/loadavg)"
"$bench" --benchmark_out="$build/bench.json" --benchmark_out_format=json \
  --benchmark_repetitions="${KIV_BENCH_REPETITIONS:-9}" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_display_aggregates_only=true "$@"
echo
if [ $callgrind = 1 ]; then
  python3 "$root/bench/callgrind.py" "$build"
  echo
fi
status=0
# shellcheck disable=SC2086
python3 "$root/bench/report.py" "$build/bench.json" --plot-dir "$build" $readme || status=$?
chart="$build/bench.png"
[ -n "$readme" ] && chart="$root/docs/bench.png"
if command -v gnuplot >/dev/null 2>&1; then
  mkdir -p "$(dirname "$chart")"
  gnuplot -e "datadir='$build'; out='$chart'" "$root/bench/plot.gp"
  echo "chart: $chart"
else
  echo "gnuplot not found: no chart" >&2
fi
exit $status
