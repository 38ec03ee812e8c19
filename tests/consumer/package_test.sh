#!/bin/sh
# Builds the Debian packages, checks their layout (and that lintian finds no error), unpacks them
# (dpkg -x, nothing installed) and builds the README's example against the unpacked tree,
# through the CMake package and through pkg-config, each time with an unused library linked
# after it. Each program prints the README's output and names the
# library, the framework and SQLite as NEEDED, but not the unused library. Then builds and runs
# one program of examples/ through the CMake package, and checks that the CMake package without
# the framework's stops at find_package, naming the missing package.
#   package_test.sh <build dir> <source dir> <scratch dir> <C++ compiler>
set -eu
build=$1 src=$2 work=$3 cxx=$4
fail() { echo "FAIL: $*"; exit 1; }
rm -rf "$work" && mkdir -p "$work/root" && cd "$work"
(cd "$build" && cpack -G DEB -B "$work/debs") >cpack.log 2>&1 || { cat cpack.log; fail cpack; }
for deb in debs/*.deb; do dpkg -x "$deb" root; done
usr=$work/root/usr
libdir=$(dirname "$(find "$usr/lib" -name libkiv_database.so.1)")
for f in bin/kiv_host share/man/man1/kiv_host.1.gz include/kiv/kiv_database/kiv_sqlite.h \
    include/kiv/kiv_database/version.h include/kiv-framework-standin/framework/kiv_thread_service.h; do
  [ -e "$usr/$f" ] || fail "$f not in the packages"
done
# The stand-in only in its private directory, in packages of its own that the plug-in's do not need.
[ -z "$(find "$usr" -name 'libkiv_framework.so*' ! -path "$libdir/kiv-framework-standin/*")" ] ||
  fail "the stand-in outside its directory"
[ ! -e "$usr/include/kiv-framework-standin/framework/kiv_console.h" ] || fail "the framework's private header is packaged"
dpkg-deb -f debs/libkiv-database1_*.deb Depends | grep -q 'libsqlite3-0 (>= 3.7.15)' || fail "plug-in Depends"
! dpkg-deb -f debs/libkiv-database-dev_*.deb Depends | grep -q standin || fail "-dev depends on the stand-in"
! command -v lintian >/dev/null || lintian --fail-on error debs/*.deb >lintian.log 2>&1 || { cat lintian.log; fail lintian; }
env -u LD_LIBRARY_PATH "$usr/bin/kiv_host" :memory: "SELECT 1" >/dev/null || fail "packaged kiv_host"

block() { sed -n "/<!-- $1:begin -->/,/<!-- $1:end -->/p" "$src/README.md" | sed '1,2d;$d' | sed '$d'; }
block example >main.cpp
block example-output >expected
echo 'int kiv_never_called() { return 1; }' >unused.cpp
# The first two shutdown lines come from two threads, in either order.
ordered() { grep -v -e '^left objects in database' -e '^DATABASE SERVICE SHOT DONW REQUEST$' "$1"; }
check() {
  mkdir -p "run-$1" && (cd "run-$1" && LD_LIBRARY_PATH="$libdir" "../$1" >out 2>err) ||
    fail "$1: $(cat "run-$1/err")"
  [ ! -s "run-$1/err" ] && [ "$(sort "run-$1/out")" = "$(sort expected)" ] &&
    [ "$(ordered "run-$1/out")" = "$(ordered expected)" ] || fail "$1 prints other than README.md"
  needed=$(readelf -d "$1" | grep NEEDED)
  for lib in libkiv_database libkiv_framework libsqlite3; do
    echo "$needed" | grep -q "\[$lib\.so" || fail "$1 does not name $lib as NEEDED"
  done
  ! echo "$needed" | grep -q libunused || fail "$1 names libunused as NEEDED: --as-needed not back on"
}

cmake -S "$src/tests/consumer" -B cmake -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$usr" \
  -DKIV_EXAMPLE="$work/main.cpp" -DKIV_UNUSED="$work/unused.cpp" >cmake.log 2>&1 &&
  cmake --build cmake >>cmake.log 2>&1 || { cat cmake.log; fail "CMake package"; }
grep -qx "kiv_database_DIR:PATH=$libdir/cmake/kiv_database" cmake/CMakeCache.txt || fail "found elsewhere"
cp cmake/consumer cmake-consumer && check cmake-consumer

flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs kiv_database kiv_framework_standin)
[ -z "$(printf '%s\n' $flags | sort | uniq -d)" ] || fail "pkg-config names a flag twice: $flags"
"$cxx" -shared -fPIC unused.cpp -o libunused.so
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror main.cpp -o pc-consumer $flags -L. -lunused
check pc-consumer
# An example program, built as a user builds examples/ against the installed packages.
cmake -S "$src/examples" -B examples -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$usr" >examples.log 2>&1 &&
  cmake --build examples --target example_held_statement >>examples.log 2>&1 || { cat examples.log; fail "examples"; }
(cd examples && LD_LIBRARY_PATH="$libdir" ./example_held_statement >out 2>&1) || fail "example: $(cat examples/out)"

# The plug-in's packages alone: find_package without REQUIRED stops, naming the stand-in's.
mkdir -p alone/root optional
for deb in debs/libkiv-database1_*.deb debs/libkiv-database-dev_*.deb; do dpkg -x "$deb" alone/root; done
printf 'cmake_minimum_required(VERSION 3.16)\nproject(p CXX)\nfind_package(kiv_database CONFIG)\n' >optional/CMakeLists.txt
! cmake -S optional -B optional/build -DCMAKE_PREFIX_PATH="$work/alone/root/usr" >optional.log 2>&1 ||
  fail "find_package(kiv_database) succeeded without the framework"
grep -q 'libkiv-framework-standin-dev' optional.log || { cat optional.log; fail "no word of the missing package"; }
echo "packages ok: $(cd debs && ls *.deb | tr "\n" " ")"
