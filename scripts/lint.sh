#!/usr/bin/env bash
# The lint stage: clang-format and clang-tidy (.clang-format, .clang-tidy) over the library, the
# framework stand-in and the host; every finding is printed and the exit status is the number of
# findings (0: clean).
#   bash scripts/lint.sh <configured build dir (its compile_commands.json)> [jobs]
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
jobs=${2:-$(nproc)}
dirs="kiv_database framework host"
# shellcheck disable=SC2086
sources=$(find $dirs -name '*.cpp' -o -name '*.h' | sort)
found=0

# shellcheck disable=SC2086
format=$(clang-format --dry-run $sources 2>&1 | grep -c ': warning:')
[ "$format" -eq 0 ] || clang-format --dry-run $sources 2>&1 | grep ': warning:'
found=$((found + format))

# The exported functions take handles by value by design: a by-value finding on the line that
# defines one of them is dropped.
exported=" $(grep -h -e KIV_DATABASE_API -e KIV_FRAMEWORK_API kiv_database/*.h framework/*.h |
  grep -v define | grep -o 'kiv_[a-z0-9_]*(' | tr -d '(' | sort -u | tr '\n' ' ')"
log=$build/lint-tidy.log
run-clang-tidy -quiet -j "$jobs" -p "$build" "$PWD/($(echo $dirs | tr ' ' '|'))/[^/]+\.cpp\$" >"$log" 2>&1
tidy=0
while IFS= read -r finding; do
  if [[ $finding == *performance-unnecessary-value-param* ]]; then
    at=${finding%%: warning:*} && file=${at%%:*} && line=${at#*:} && line=${line%%:*}
    name=$(sed -n "${line}p" "$file" | grep -o '^[a-z].*\bkiv_[a-z0-9_]*(' | grep -o 'kiv_[a-z0-9_]*(' | tr -d '(')
    [ -n "$name" ] && [[ $exported == *" $name "* ]] && continue
  fi
  echo "$finding"
  tidy=$((tidy + 1))
done < <(sed 's/\x1b\[[0-9;]*m//g' "$log" | grep -E '^/.*: (warning|error): ' | sort -u)
found=$((found + tidy))
echo "lint: $format formatting, $tidy clang-tidy findings (clang-tidy log: $log)"
exit $((found > 0))
