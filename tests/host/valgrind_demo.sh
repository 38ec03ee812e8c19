#!/bin/sh
# The host demo once under valgrind's memcheck: no memory error, nothing definitely lost.
# usage: valgrind_demo.sh <kiv_host> <scratch dir>
set -eu
host=$1
dir=$2
rm -rf "$dir" && mkdir -p "$dir" && cd "$dir"
status=0
valgrind --leak-check=full --error-exitcode=1 "$host" >stdout.txt 2>valgrind.txt || status=$?
tail -n 4 stdout.txt
grep -E "definitely lost|ERROR SUMMARY|All heap blocks" valgrind.txt
if [ "$status" -ne 0 ]; then
  echo "valgrind or the host failed with status $status" >&2
  exit 1
fi
# With nothing left at exit valgrind prints no leak summary at all.
grep -Eq "definitely lost: 0 bytes in 0 blocks|All heap blocks were freed" valgrind.txt
