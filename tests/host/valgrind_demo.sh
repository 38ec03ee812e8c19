#!/bin/sh
# The host demo once under memcheck: no memory error, nothing definitely lost (with nothing left
# at exit valgrind prints no leak summary).   valgrind_demo.sh KIV_HOST WORK_DIR
rm -rf "$2" && mkdir -p "$2" && cd "$2" || exit 1
valgrind --leak-check=full --error-exitcode=1 "$1" >out 2>vg; status=$?
tail -n 4 out; grep -E "definitely lost|ERROR SUMMARY|All heap blocks" vg
[ $status -eq 0 ] && grep -Eq "definitely lost: 0 bytes in 0 blocks|All heap blocks were freed" vg
