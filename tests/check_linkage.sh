#!/bin/sh
# The library must leave SQLite and the framework to the host process, and export only its API.
set -eu
lib="$1"
fail=0
needed=$(readelf -d "$lib" | grep NEEDED || true)
for dep in libsqlite3 libkiv_framework; do
  if echo "$needed" | grep -q "$dep"; then
    echo "FAIL: $lib has a NEEDED entry for $dep"; fail=1
  fi
done
exports=$(nm -D --defined-only "$lib" | awk '{print $3}' | c++filt)
for fn in kiv_sqlite_new kiv_sqlite_get_name kiv_sqlite_open kiv_sqlite_try_open kiv_sqlite_close \
          kiv_sqlite_is_opened kiv_sqlite_destroy kiv_is_sqlite kiv_sqlite_to_object \
          kiv_sqlite_from_object kiv_database_init kiv_database_exec kiv_database_set_timeout \
          kiv_database_set_interval kiv_database_clear_timeout kiv_database_clear_interval \
          kiv_database_run_once kiv_database_get_sqlite kiv_sqlite_sql_stmt kiv_sqlite_prepare \
          kiv_sqlite_reset kiv_sqlite_finalize kiv_sqlite_sql kiv_sqlite_bind_int \
          kiv_sqlite_bind_int64 kiv_sqlite_bind_double kiv_sqlite_bind_blob \
          kiv_sqlite_bind_blob_static kiv_sqlite_bind_text kiv_sqlite_bind_text_static \
          kiv_sqlite_bind_parameter_count kiv_sqlite_bind_parameter_name \
          kiv_sqlite_bind_parameter_index kiv_sqlite_bind_clear kiv_sqlite_step \
          kiv_sqlite_data_count kiv_sqlite_column_count kiv_sqlite_last_insert_rowid \
          kiv_sqlite_affected_rows_count kiv_sqlite_rows_each kiv_sqlite_column_blob \
          kiv_sqlite_column_text kiv_sqlite_column_int kiv_sqlite_column_int64 \
          kiv_sqlite_column_double kiv_sqlite_column_type kiv_sqlite_column_decltype \
          kiv_sqlite_column_name kiv_sqlite_is_column_null kiv_sqlite_is_column_text \
          kiv_sqlite_is_column_blob kiv_sqlite_is_column_int kiv_sqlite_is_column_double \
          kiv_sqlite_free kiv_sqlite_errstr kiv_sqlite_last_error_code \
          kiv_sqlite_last_error_message; do
  if ! echo "$exports" | grep -qE "^$fn(\(|\[abi)"; then
    echo "FAIL: $fn is not exported"; fail=1
  fi
done
for fn in kiv_database_ref kiv_database_unref kiv_database_register_sqlite \
          kiv_database_unregister_sqlite create_service '_kiv_sqlite::bind_int' \
          '_kiv_sqlite::check_statement'; do
  if echo "$exports" | grep -q "$fn"; then
    echo "FAIL: $fn is exported"; fail=1
  fi
done
# Nothing but the API, the class (constructor, virtuals, vtable, typeinfo) and C++ runtime bits.
stray=$(echo "$exports" | grep -v -e '^kiv_' -e '_kiv_sqlite' -e '^_init$' -e '^_fini$' \
        -e '^boost::' -e '^typeinfo' -e '^vtable' -e '^guard variable' -e '^std::' -e '^[a-z* ]*std::' -e '^void boost::' \
        -e '^__' || true)
if [ -n "$stray" ]; then
  echo "FAIL: unexpected exports:"; echo "$stray"; fail=1
fi
[ $fail -eq 0 ] && echo "linkage ok: no NEEDED sqlite/framework, API exported, helpers hidden"
exit $fail
