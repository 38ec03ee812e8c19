#!/bin/sh
# libkiv_database leaves SQLite and the framework to the host process (no NEEDED entry for
# either) and exports exactly its kiv_* API (and its class, whose members behind the API stay hidden).
set -eu
api="kiv_sqlite_new kiv_sqlite_get_name kiv_sqlite_open kiv_sqlite_try_open kiv_sqlite_close
kiv_sqlite_is_opened kiv_sqlite_destroy kiv_is_sqlite kiv_sqlite_to_object kiv_sqlite_from_object
kiv_database_init kiv_database_exec kiv_database_set_timeout kiv_database_set_interval
kiv_database_clear_timeout kiv_database_clear_interval kiv_database_run_once
kiv_database_get_sqlite kiv_sqlite_sql_stmt kiv_sqlite_prepare kiv_sqlite_reset
kiv_sqlite_finalize kiv_sqlite_sql kiv_sqlite_bind_int kiv_sqlite_bind_int64
kiv_sqlite_bind_double kiv_sqlite_bind_blob kiv_sqlite_bind_blob_static kiv_sqlite_bind_text
kiv_sqlite_bind_text_static kiv_sqlite_bind_parameter_count kiv_sqlite_bind_parameter_name
kiv_sqlite_bind_parameter_index kiv_sqlite_bind_clear kiv_sqlite_step kiv_sqlite_data_count
kiv_sqlite_column_count kiv_sqlite_last_insert_rowid kiv_sqlite_affected_rows_count
kiv_sqlite_rows_each kiv_sqlite_column_blob kiv_sqlite_column_text kiv_sqlite_column_int
kiv_sqlite_column_int64 kiv_sqlite_column_double kiv_sqlite_column_type
kiv_sqlite_column_decltype kiv_sqlite_column_name kiv_sqlite_is_column_null
kiv_sqlite_is_column_text kiv_sqlite_is_column_blob kiv_sqlite_is_column_int
kiv_sqlite_is_column_double kiv_sqlite_free kiv_sqlite_errstr kiv_sqlite_last_error_code
kiv_sqlite_last_error_message"
fail() { echo "FAIL: $*"; exit 1; }
! readelf -d "$1" | grep NEEDED | grep -E 'libsqlite3|libkiv_framework' ||
  fail "$1 names SQLite or the framework as NEEDED"
syms=$(nm -D --defined-only "$1" | cut -d' ' -f3- | c++filt | sed 's/\[abi:[a-z0-9]*\]//; s/(.*//')
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
echo "$syms" | grep '^kiv_' | sort -u >"$tmp/exported"
printf '%s\n' $api | sort >"$tmp/api"
diff "$tmp/api" "$tmp/exported" || fail "exported kiv_ functions differ from the API (< missing, > extra)"
# The class's members behind the API (kiv_sqlite_X -> _kiv_sqlite::X) stay hidden, except
# destroy, a virtual of the object core.
members=$(echo "$syms" | sed -n 's/^_kiv_sqlite::/kiv_sqlite_/p' | sort -u | comm -12 - "$tmp/api" |
  grep -v '^kiv_sqlite_destroy$' || true)
[ -z "$members" ] || fail "members exported: $members"
stray=$(echo "$syms" | grep -vE '^(kiv_|_kiv_sqlite::|(vtable|typeinfo|typeinfo name|guard variable) for |([a-z_* ]+ )?(boost|std)::|_init$|_fini$|__)' || true)
[ -z "$stray" ] || fail "unexpected exports: $stray"
echo "linkage ok: no NEEDED SQLite or framework, exactly the API exported"
