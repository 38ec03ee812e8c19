#pragma once

// Connection objects: one SQLite connection and at most one prepared statement each.
//
// Handles: every kiv_sqlite_* function takes the object as boost::shared_ptr<_kiv_sqlite> by
// value. An empty handle writes one warning line "null object supplied: <function>" and
// returns the default of the result type: -1 (int, long long), -1.0 (double), false (bool),
// nullptr (const char*), "" (std::string), an empty handle; output parameters are not written.
// Results: SQLite's codes and values, unchanged. 1001 is the library's own code, interpreted
// only by kiv_sqlite_errstr.
// Checks: preconditions ("database must be opened", ...) go to kiv_assertion_faild, one call per
// condition, holding or not. When a check fails and the assertion function returns, the call
// makes no SQLite call with the missing handle and returns SQLITE_MISUSE, 0, nullptr or "".
// Threads: one thread at a time per object; get_name and is_opened are safe from any thread,
// and so are lookups by name (kiv_database_get_sqlite) and destroy.
// SQLite must run in its multi-thread or serialized mode: destroy jobs close connections on the
// database worker while callers open others.
// Ownership: objects come only from kiv_sqlite_new and go through kiv_sqlite_destroy; dropping
// the handles alone keeps the object alive (and the database service from shutting down).
// Console: std::cout is the library's; a stream buffer behind it must not call the library (the
// service writes some lines under its lock) and must not throw.

#include <sqlite3.h>

#include <boost/shared_ptr.hpp>

#include <functional>
#include <string>

#include "framework/kiv_object.h"
#include "kiv_database/kiv_export.h"

constexpr int KIV_SQLITE_MISSING_BIND_PARAMETERS = 1001;

class _kiv_sqlite;
using kiv_sqlite_handle = boost::shared_ptr<_kiv_sqlite>;
// Row callback: the object and the 0-based row index; false stops the iteration.
using kiv_sqlite_row_callback = std::function<bool(boost::shared_ptr<_kiv_sqlite>, unsigned long)>;

class KIV_DATABASE_API _kiv_sqlite : public _kiv_object {
public:
    _kiv_sqlite(std::string path, std::string name);
    ~_kiv_sqlite() override;
    boost::shared_ptr<_kiv_object> shared_object() override;
    std::string type_tag() override;
    void destroy(std::string file, int line) override;

    // Shared member operations; not exported.
    KIV_DATABASE_LOCAL std::string get_name();
    KIV_DATABASE_LOCAL bool is_opened();
    KIV_DATABASE_LOCAL bool is_destroyed();
    KIV_DATABASE_LOCAL void set_opened(bool value);
    KIV_DATABASE_LOCAL void finalize();

    KIV_DATABASE_LOCAL int open();
    KIV_DATABASE_LOCAL int try_open();
    KIV_DATABASE_LOCAL void close();

    KIV_DATABASE_LOCAL int sql_stmt(const char* sql, char** errmsg);
    KIV_DATABASE_LOCAL int prepare(std::string sql);
    KIV_DATABASE_LOCAL int reset();
    KIV_DATABASE_LOCAL const char* sql();

    KIV_DATABASE_LOCAL int bind_int(int index, int value);
    KIV_DATABASE_LOCAL int bind_int64(int index, long long value);
    KIV_DATABASE_LOCAL int bind_double(int index, double value);
    KIV_DATABASE_LOCAL int bind_blob(int index, const unsigned char* data, unsigned long size);
    KIV_DATABASE_LOCAL int bind_blob_static(int index, const unsigned char* data, unsigned long size);
    KIV_DATABASE_LOCAL int bind_text(int index, const char* text, unsigned long size);
    KIV_DATABASE_LOCAL int bind_text_static(int index, const char* text, unsigned long size);
    KIV_DATABASE_LOCAL int bind_parameter_count();
    KIV_DATABASE_LOCAL const char* bind_parameter_name(int index);
    KIV_DATABASE_LOCAL int bind_parameter_index(const char* name);
    KIV_DATABASE_LOCAL int bind_clear();

    KIV_DATABASE_LOCAL int step();
    KIV_DATABASE_LOCAL int data_count();
    KIV_DATABASE_LOCAL int column_count();
    KIV_DATABASE_LOCAL long long last_insert_rowid();
    KIV_DATABASE_LOCAL int affected_rows_count();
    KIV_DATABASE_LOCAL int rows_each(kiv_sqlite_row_callback callback);
    KIV_DATABASE_LOCAL int rows_each(unsigned long& counter, kiv_sqlite_row_callback callback);

    KIV_DATABASE_LOCAL void column_blob(int column, unsigned char*& data, int& size);
    KIV_DATABASE_LOCAL std::string column_text(int column);
    KIV_DATABASE_LOCAL int column_int(int column);
    KIV_DATABASE_LOCAL long long column_int64(int column);
    KIV_DATABASE_LOCAL double column_double(int column);
    KIV_DATABASE_LOCAL int column_type(int column);
    KIV_DATABASE_LOCAL const char* column_decltype(int column);
    KIV_DATABASE_LOCAL const char* column_name(int column);

    KIV_DATABASE_LOCAL int last_error_code();
    KIV_DATABASE_LOCAL const char* last_error_message();

    const std::string path;          // database file handed to sqlite3_open_v2
    const std::string name;          // registry key; read under `mutex`
    sqlite3* db = nullptr;           // owned connection, null while closed
    sqlite3_stmt* stmt = nullptr;    // owned statement, null while none is prepared
    bool opened = false;             // guarded by `mutex`

private:
    KIV_DATABASE_LOCAL int open_with(int flags);
    KIV_DATABASE_LOCAL void close_connection(int line);
    KIV_DATABASE_LOCAL void check_db(int line);
    KIV_DATABASE_LOCAL void check_statement(int line);
    KIV_DATABASE_LOCAL void check_no_db(int line);
    KIV_DATABASE_LOCAL void check_no_statement(int line);
};

// --- Creation and naming ---
// A new, closed object, tracked by the database service until its destroy job has run. Never empty.
KIV_DATABASE_API boost::shared_ptr<_kiv_sqlite> kiv_sqlite_new(std::string path, std::string name);
KIV_DATABASE_API std::string kiv_sqlite_get_name(boost::shared_ptr<_kiv_sqlite> handle);

// --- Opening and closing ---
// open creates the file when missing, try_open requires it; both enter the object into the
// registry under its name if the name is free. close does not finalize the statement: SQLite
// then keeps that connection allocated until the statement is finalized (which releases it).
// Opening an object that is open reports the check and replaces the connection; the first one
// stays allocated, so callers close before they open again.
KIV_DATABASE_API int kiv_sqlite_open(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API int kiv_sqlite_try_open(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API bool kiv_sqlite_close(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API bool kiv_sqlite_is_opened(boost::shared_ptr<_kiv_sqlite> handle);

// --- Destruction ---
// Marks the object destroyed and posts a job to the database worker that finalizes, closes,
// gives the framework reference back and stops tracking it. A second call only warns, naming
// `file`:`line`, when the framework's base object records destruction ("object-destroyed");
// otherwise it posts a second job, which finds the object closed and untracked and does
// nothing. Returns true for any non-empty handle. May be called from any thread, also from a
// job or timer, or from the destructor of something a job holds (a host's guard).
// Do not use the object after this call: the job owns it from then on. While no database
// service runs (before kiv_database_init, after the service finished) the job is refused: the
// object stays marked, open and tracked, a later destroy only warns (posts the job again when
// the base object does not record destruction), and a join of a later service never ends.
KIV_DATABASE_API bool kiv_sqlite_destroy(boost::shared_ptr<_kiv_sqlite> handle, std::string file,
                                         int line);

// --- Conversion to and from framework objects (same object, shared ownership) ---
// kiv_is_sqlite: false and no warning for an empty handle.
KIV_DATABASE_API bool kiv_is_sqlite(boost::shared_ptr<_kiv_object> object);
KIV_DATABASE_API boost::shared_ptr<_kiv_object> kiv_sqlite_to_object(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API boost::shared_ptr<_kiv_sqlite> kiv_sqlite_from_object(boost::shared_ptr<_kiv_object> object);

// --- Preparing and direct execution ---
// sql_stmt: sqlite3_exec without a row callback; *errmsg (if given) receives SQLite memory,
// released with kiv_sqlite_free. prepare compiles only the first statement of `sql` and needs an
// empty slot. reset keeps the bindings; 0 without a statement. finalize always returns true.
// kiv_sqlite_sql: the statement's text, owned by SQLite until finalize.
KIV_DATABASE_API int kiv_sqlite_sql_stmt(boost::shared_ptr<_kiv_sqlite> handle, const char* sql,
                                         char** errmsg);
KIV_DATABASE_API int kiv_sqlite_prepare(boost::shared_ptr<_kiv_sqlite> handle, std::string sql);
KIV_DATABASE_API int kiv_sqlite_reset(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API bool kiv_sqlite_finalize(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API const char* kiv_sqlite_sql(boost::shared_ptr<_kiv_sqlite> handle);

// --- Binding (parameter index from 1) ---
// blob/text copy the bytes (SQLITE_TRANSIENT); the _static variants keep the caller's pointer
// (SQLITE_STATIC) until finalize, rebinding or bind_clear. Sizes are byte counts; sizes above
// 2147483647 give SQLITE_TOOBIG. Names carry their prefix (":a"); index 0 means no such name.
KIV_DATABASE_API int kiv_sqlite_bind_int(boost::shared_ptr<_kiv_sqlite> handle, int index, int value);
KIV_DATABASE_API int kiv_sqlite_bind_int64(boost::shared_ptr<_kiv_sqlite> handle, int index,
                                           long long value);
KIV_DATABASE_API int kiv_sqlite_bind_double(boost::shared_ptr<_kiv_sqlite> handle, int index,
                                            double value);
KIV_DATABASE_API int kiv_sqlite_bind_blob(boost::shared_ptr<_kiv_sqlite> handle, int index,
                                          const unsigned char* data, unsigned long size);
KIV_DATABASE_API int kiv_sqlite_bind_blob_static(boost::shared_ptr<_kiv_sqlite> handle, int index,
                                                 const unsigned char* data, unsigned long size);
KIV_DATABASE_API int kiv_sqlite_bind_text(boost::shared_ptr<_kiv_sqlite> handle, int index,
                                          const char* text, unsigned long size);
KIV_DATABASE_API int kiv_sqlite_bind_text_static(boost::shared_ptr<_kiv_sqlite> handle, int index,
                                                 const char* text, unsigned long size);
KIV_DATABASE_API int kiv_sqlite_bind_parameter_count(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API const char* kiv_sqlite_bind_parameter_name(boost::shared_ptr<_kiv_sqlite> handle,
                                                            int index);
KIV_DATABASE_API int kiv_sqlite_bind_parameter_index(boost::shared_ptr<_kiv_sqlite> handle,
                                                     const char* name);
KIV_DATABASE_API int kiv_sqlite_bind_clear(boost::shared_ptr<_kiv_sqlite> handle);

// --- Stepping and row iteration ---
// rows_each steps from where the statement stands, calls `callback` per row (the counter already
// counts that row) and returns 101 at the end, 100 when the callback said false, or the
// reset's code on an error (the only exit that resets). Callback exceptions pass through.
// A callback that destroys its own object returns false.
KIV_DATABASE_API int kiv_sqlite_step(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API int kiv_sqlite_data_count(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API int kiv_sqlite_column_count(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API long long kiv_sqlite_last_insert_rowid(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API int kiv_sqlite_affected_rows_count(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API int kiv_sqlite_rows_each(boost::shared_ptr<_kiv_sqlite> handle,
                                          kiv_sqlite_row_callback callback);
KIV_DATABASE_API int kiv_sqlite_rows_each(boost::shared_ptr<_kiv_sqlite> handle,
                                          unsigned long& counter, kiv_sqlite_row_callback callback);

// --- Column access (column index from 0, current row) ---
// column_blob: a malloc'ed copy of exactly `size` bytes, freed by the caller with free().
// column_text: up to the first zero byte; "" when SQLite has no text. decltype/name: SQLite's.
// The is_column_* tests compare the value's storage class, not the declared type.
KIV_DATABASE_API bool kiv_sqlite_column_blob(boost::shared_ptr<_kiv_sqlite> handle, int column,
                                             unsigned char*& data, int& size);
KIV_DATABASE_API std::string kiv_sqlite_column_text(boost::shared_ptr<_kiv_sqlite> handle, int column);
KIV_DATABASE_API int kiv_sqlite_column_int(boost::shared_ptr<_kiv_sqlite> handle, int column);
KIV_DATABASE_API long long kiv_sqlite_column_int64(boost::shared_ptr<_kiv_sqlite> handle, int column);
KIV_DATABASE_API double kiv_sqlite_column_double(boost::shared_ptr<_kiv_sqlite> handle, int column);
KIV_DATABASE_API int kiv_sqlite_column_type(boost::shared_ptr<_kiv_sqlite> handle, int column);
KIV_DATABASE_API const char* kiv_sqlite_column_decltype(boost::shared_ptr<_kiv_sqlite> handle,
                                                        int column);
KIV_DATABASE_API const char* kiv_sqlite_column_name(boost::shared_ptr<_kiv_sqlite> handle, int column);
KIV_DATABASE_API bool kiv_sqlite_is_column_null(boost::shared_ptr<_kiv_sqlite> handle, int column);
KIV_DATABASE_API bool kiv_sqlite_is_column_text(boost::shared_ptr<_kiv_sqlite> handle, int column);
KIV_DATABASE_API bool kiv_sqlite_is_column_blob(boost::shared_ptr<_kiv_sqlite> handle, int column);
KIV_DATABASE_API bool kiv_sqlite_is_column_int(boost::shared_ptr<_kiv_sqlite> handle, int column);
KIV_DATABASE_API bool kiv_sqlite_is_column_double(boost::shared_ptr<_kiv_sqlite> handle, int column);

// --- Errors and SQLite memory ---
// last_error_*: SQLite's state for the connection (SQLITE_MISUSE and its text when closed).
// errstr: 1001 -> "Prepared statement missing bind parameters", otherwise sqlite3_errstr.
// free: sqlite3_free(memory), then memory = nullptr; returns true.
KIV_DATABASE_API int kiv_sqlite_last_error_code(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API const char* kiv_sqlite_last_error_message(boost::shared_ptr<_kiv_sqlite> handle);
KIV_DATABASE_API const char* kiv_sqlite_errstr(boost::shared_ptr<_kiv_sqlite> handle, int code);
KIV_DATABASE_API bool kiv_sqlite_free(boost::shared_ptr<_kiv_sqlite> handle, char*& memory);
