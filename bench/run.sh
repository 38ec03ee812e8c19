#!/bin/sh
# Runs every benchmark of kiv_bench once (repetitions interleaved at random), keeps the JSON in
# <build>/bench.json, prints the SQLite and thread-service tables and draws docs/bench.png.
#   sh bench/run.sh [build-dir] [extra kiv_bench flags...]
# KIV_BENCH_REPETITIONS (default 5) sets the repetitions; --readme updates README.md too.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
[ $# -gt 0 ] && shift
case $build in /*) ;; *) build="$root/$build" ;; esac
readme=""
if [ "${1:-}" = "--readme" ]; then readme="--readme $root/README.md"; shift; fi

bench="$build/kiv_bench"
if [ ! -x "$bench" ]; then
  echo "no $bench: build first (make build)" >&2
  exit 1
fi

"$bench" --benchmark_out="$build/bench.json" --benchmark_out_format=json \
  --benchmark_repetitions="${KIV_BENCH_REPETITIONS:-5}" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_display_aggregates_only=true "$@"
echo
status=0
# shellcheck disable=SC2086
python3 "$root/bench/report.py" "$build/bench.json" --plot-dir "$build" $readme || status=$?
if command -v gnuplot >/dev/null 2>&1; then
  mkdir -p "$root/docs"
  gnuplot -e "datadir='$build'; out='$root/docs/bench.png'" "$root/bench/plot.gp"
  echo "chart: docs/bench.png"
else
  echo "gnuplot not found: no chart" >&2
fi
exit $status
