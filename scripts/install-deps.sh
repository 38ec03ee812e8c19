#!/bin/sh
# Installs the Debian packages the project needs, or names the missing ones when not root.
set -eu
pkgs="cmake make g++ binutils pkg-config libboost-dev libsqlite3-dev libgtest-dev libgmock-dev \
libbenchmark-dev libsqlitecpp-dev gnuplot-nox clang libclang-rt-14-dev valgrind"
missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -eq 0 ]; then
  echo "installing:$missing"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q >/dev/null
  # shellcheck disable=SC2086
  apt-get install -y -q $missing >/dev/null
else
  echo "missing Debian packages:$missing" >&2
  echo "install them with: sudo apt-get install$missing" >&2
  exit 1
fi
