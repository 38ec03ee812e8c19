#!/bin/sh
# Installs the Debian packages that a make target needs, or names the missing ones when not root.
#   sh scripts/install-deps.sh GROUP...
# Groups: run (the host and the libraries), test, bench, package, docs, lint. A make target names
# every group it needs at once, so that a user without root is told one complete command.
set -eu
# libFuzzer and the sanitizer runtimes of clang sit in the libclang-rt package of clang's version.
clang_rt() {
  v=$(dpkg-query -W -f='${Depends}' clang 2>/dev/null | sed -n 's/^clang-\([0-9][0-9]*\).*/\1/p')
  [ -n "$v" ] ||
    v=$(apt-cache depends clang 2>/dev/null | sed -n 's/^ *Depends: clang-\([0-9][0-9]*\)$/\1/p' | head -1)
  echo "libclang-rt-${v:-14}-dev"
}
pkgs=""
for group in "$@"; do
  case $group in
    run) pkgs="$pkgs g++ cmake ninja-build make pkg-config libboost-dev libsqlite3-dev libedit-dev" ;;
    test) pkgs="$pkgs binutils libgtest-dev libgmock-dev valgrind clang $(clang_rt) tmux sqlite3" ;;
    bench) pkgs="$pkgs libbenchmark-dev libsqlitecpp-dev gnuplot-nox python3 sqlite3 time valgrind" ;;
    # CPack's DEB generator needs dpkg-dev and file; help2man writes kiv_host's manual page.
    package) pkgs="$pkgs dpkg-dev file help2man lintian" ;;
    docs) pkgs="$pkgs doxygen" ;;
    lint) pkgs="$pkgs clang-format clang-tidy" ;;
    *) echo "install-deps.sh: unknown group $group (run, test, bench, package, docs, lint)" >&2; exit 2 ;;
  esac
done
# One query for all of them: this runs before every build.
# shellcheck disable=SC2086
installed=" $(dpkg-query -W -f='${db:Status-Status} ${Package}\n' $pkgs 2>/dev/null |
  sed -n 's/^installed //p' | tr '\n' ' ')"
missing=""
for p in $pkgs; do
  case "$installed $missing " in *" $p "*) ;; *) missing="$missing $p" ;; esac
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
  echo "missing Debian packages:$missing" >&2
  # A fresh system has no package lists yet: apt-get install would find nothing.
  update=""
  ls /var/lib/apt/lists/*_Packages* >/dev/null 2>&1 || update="sudo apt-get update && "
  echo "install them with: ${update}sudo apt-get install -y --no-install-recommends$missing" >&2
  exit 1
fi
echo "installing$missing (with what they need; this takes a few minutes)"
export DEBIAN_FRONTEND=noninteractive
apt-get update
# shellcheck disable=SC2086
apt-get install -y --no-install-recommends $missing
