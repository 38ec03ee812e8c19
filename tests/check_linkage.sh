#!/bin/sh
# libkiv_database leaves SQLite and the framework to the host process (no NEEDED entry for
# either), imports of the framework only what every framework core provides, and exports exactly
# its kiv_* API (and its class, whose members behind the API stay hidden).
set -eu
# The API is what the headers export.
api=$(grep -h 'KIV_DATABASE_API' "$(dirname "$0")"/../kiv_database/*.h | grep -v define |
  grep -o 'kiv_[a-z0-9_]*(' | tr -d '(')
fail() { echo "FAIL: $*"; exit 1; }
! readelf -d "$1" | grep NEEDED | grep -E 'libsqlite3|libkiv_framework' ||
  fail "$1 names SQLite or the framework as NEEDED"
syms=$(nm -D --defined-only "$1" | cut -d' ' -f3- | c++filt | sed 's/\[abi:[a-z0-9]*\]//; s/(.*//')
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
echo "$syms" | grep '^kiv_' | sort -u >"$tmp/exported"
printf '%s\n' $api | sort -u >"$tmp/api"
diff "$tmp/api" "$tmp/exported" || fail "exported kiv_ functions differ from the API (< missing, > extra)"
# The class's members behind the API (kiv_sqlite_X -> _kiv_sqlite::X) stay hidden, except
# destroy, a virtual of the object core.
members=$(echo "$syms" | sed -n 's/^_kiv_sqlite::/kiv_sqlite_/p' | sort -u | comm -12 - "$tmp/api" |
  grep -v '^kiv_sqlite_destroy$' || true)
[ -z "$members" ] || fail "members exported: $members"
stray=$(echo "$syms" | grep -vE '^(kiv_|_kiv_sqlite::|(vtable|typeinfo|typeinfo name|guard variable) for |([a-z_* ]+ )?(boost|std)::|_init$|_fini$|__)' || true)
[ -z "$stray" ] || fail "unexpected exports: $stray"
# Imports: SQLite, the C and C++ runtimes (versioned), and from the framework the object core,
# the assertion function and ten thread-service functions. A sanitizer build takes part of the
# runtimes from the sanitizer, unversioned: the plain build checks them.
core='kiv_object_ref|kiv_object_unref_real|kiv_property_get|kiv_assertion_faild|kiv_thread_service_(new|on_finished|set_join_handler|stop|exec|set_timeout|set_interval|clear_timeout|clear_interval|run_once)'
readelf -d "$1" | grep NEEDED | grep -qE 'lib(a|t|ub)san' && echo "linkage ok (imports not checked in a sanitizer build)" && exit 0
extra=$(nm -D --undefined-only "$1" | awk '{print $2}' |
  grep -vE '@(GLIBC|GLIBCXX|CXXABI|GCC)_|^sqlite3_|^__(cxa|gmon)_|^_ITM_' | c++filt |
  grep -vxE "($core)\(.*\)|_kiv_object::(~?_kiv_object|describe|is_reffed)\(\)|(typeinfo|vtable) for _kiv_object" || true)
[ -z "$extra" ] || fail "imports outside the allowed ones: $extra"
echo "linkage ok: no NEEDED SQLite or framework, only allowed imports, exactly the API exported"
