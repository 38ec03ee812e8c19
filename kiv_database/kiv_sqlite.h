#pragma once

/// \file
/// Connection objects: one SQLite connection and at most one prepared statement each, behind
/// the flat kiv_sqlite_* functions.
///
/// **Handles.** Every kiv_sqlite_* function takes the object as a kiv_sqlite_handle by value;
/// the caller's copy keeps the object alive for the call. An empty handle writes one warning
/// line, "null object supplied: " and the function's name, and returns the default of the
/// result type: -1 (int, long long), -1.0 (double), false (bool), nullptr (const char*),
/// "" (std::string), an empty handle. Output parameters are then not written, and nothing else
/// happens. Each function below names its default.
///
/// **Results.** SQLite's codes and values, unchanged (SQLITE_OK 0, SQLITE_ROW 100, SQLITE_DONE
/// 101, ...). KIV_SQLITE_MISSING_BIND_PARAMETERS (1001) is the library's own code, interpreted
/// only by kiv_sqlite_errstr.
///
/// **Checks.** Preconditions ("database must be opened", ...) are handed to the framework's
/// assertion function kiv_assertion_faild, one call per condition, whether it holds or not.
/// When a check fails and the assertion function returns, the call makes no SQLite call with the
/// missing connection or statement and returns SQLITE_MISUSE, 0, nullptr or "".
///
/// **Threads.** One thread at a time per object, with no lock of the library's around its SQLite
/// connection and statement: hand an object over between threads, or do all its work in jobs on
/// the database worker (kiv_database_exec). kiv_sqlite_get_name, kiv_sqlite_is_opened,
/// kiv_sqlite_destroy and lookups by name (kiv_database_get_sqlite) are safe from any thread.
/// SQLite must run in its multi-thread or serialized mode: destroy jobs close connections on the
/// database worker while callers open others.
///
/// **Ownership.** Objects come only from kiv_sqlite_new and go only through kiv_sqlite_destroy;
/// dropping the handles alone keeps the object alive (and the database service from shutting
/// down). A handle to an object created before fork() is unusable in the forked child, which
/// starts with no service and no objects.
///
/// **Console.** Warnings go to `std::cout`, the library's console: its stream buffer must not
/// call back into the library (the service writes some lines under its lock) and must not throw.

#include <sqlite3.h>

#include <boost/shared_ptr.hpp>

#include <functional>
#include <string>

#include "framework/kiv_object.h"
#include "kiv_database/kiv_export.h"

/// The library's own result code: a prepared statement lacks bind parameters. Only
/// kiv_sqlite_errstr interprets it.
constexpr int KIV_SQLITE_MISSING_BIND_PARAMETERS = 1001;

class _kiv_sqlite;
/// Handle of a connection object, the first parameter of every kiv_sqlite_* function.
using kiv_sqlite_handle = boost::shared_ptr<_kiv_sqlite>;
/// Row callback of kiv_sqlite_rows_each: the object and the 0-based row index; returning false
/// stops the iteration.
using kiv_sqlite_row_callback = std::function<bool(kiv_sqlite_handle, unsigned long)>;

/// A connection object: one SQLite connection and at most one prepared statement.
///
/// A framework object (it derives from the framework's _kiv_object), created by kiv_sqlite_new
/// and used through the kiv_sqlite_* functions. Hosts may derive from it; its member operations
/// are the library's own and not exported.
class KIV_DATABASE_API _kiv_sqlite : public _kiv_object {
public:
    /// A closed object for the database file `path`, registered as `name` once it is open.
    /// Use kiv_sqlite_new, which also tracks the object.
    _kiv_sqlite(std::string path, std::string name);
    /// Finalizes the statement and closes the connection if they are still there.
    ~_kiv_sqlite() override;
    /// The object as a framework handle, sharing its ownership.
    boost::shared_ptr<_kiv_object> shared_object() override;
    /// "[kiv_sqlite]", the type's tag in the framework's messages.
    std::string type_tag() override;
    /// The work of kiv_sqlite_destroy: marks the object destroyed and posts its destroy job.
    void destroy(std::string file, int line) override;

    /// \cond INTERNAL
    // Shared member operations; not exported.
    KIV_DATABASE_LOCAL std::string get_name();
    KIV_DATABASE_LOCAL bool is_opened();
    KIV_DATABASE_LOCAL bool is_destroyed();
    KIV_DATABASE_LOCAL void set_opened(bool value);
    KIV_DATABASE_LOCAL void finalize();

    KIV_DATABASE_LOCAL int open();
    KIV_DATABASE_LOCAL int try_open();
    KIV_DATABASE_LOCAL void close();
    KIV_DATABASE_LOCAL void release_connection();  // close() without its check and the registry

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
    /// \endcond

    const std::string path;        ///< database file handed to sqlite3_open_v2
    const std::string name;        ///< registry key; read under `mutex`
    sqlite3* db = nullptr;         ///< owned connection, null while closed
    sqlite3_stmt* stmt = nullptr;  ///< owned statement, null while none is prepared
    bool opened = false;           ///< guarded by `mutex`

private:
    KIV_DATABASE_LOCAL int open_with(int flags);
    KIV_DATABASE_LOCAL void check_db(int line);
    KIV_DATABASE_LOCAL void check_statement(int line);
    KIV_DATABASE_LOCAL void check_no_db(int line);
    KIV_DATABASE_LOCAL void check_no_statement(int line);
};

/// \name Creation and naming
/// @{

/// Creates a closed connection object for the database file `path`, to be registered as `name`
/// when it opens.
///
/// The object is taken into the framework's reference and into the database service's list of
/// live objects, where it stays until its destroy job has run (a join of the service waits for
/// it). Nothing is opened and no file is touched.
/// \return a new handle, never empty. The object leaves only through kiv_sqlite_destroy.
/// \par Threads
/// Any thread.
KIV_DATABASE_API kiv_sqlite_handle kiv_sqlite_new(std::string path, std::string name);

/// The name given to kiv_sqlite_new.
/// \return a copy of the name; "" for an empty handle (with the warning).
/// \par Threads
/// Any thread.
KIV_DATABASE_API std::string kiv_sqlite_get_name(kiv_sqlite_handle handle);
/// @}

/// \name Opening and closing
/// @{

/// Opens the object's database file read-write, creating it when it is missing
/// (sqlite3_open_v2 with SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE).
///
/// On success the object is open and entered into the registry under its name, if no open
/// object holds that name (kiv_database_get_sqlite). Checks that the object is not open yet.
/// Opening an open object replaces its connection and the first one stays allocated: close
/// before opening again.
/// \return SQLITE_OK or SQLite's error code (the object then stays closed); -1 for an empty
/// handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_open(kiv_sqlite_handle handle);

/// Opens the object's database file read-write; the file must exist (SQLITE_OPEN_READWRITE).
///
/// Otherwise as kiv_sqlite_open.
/// \return SQLITE_OK or SQLite's error code (SQLITE_CANTOPEN for a missing file); -1 for an
/// empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_try_open(kiv_sqlite_handle handle);

/// Closes the connection and removes the registry entry under the object's name.
///
/// Checks that the object is open. The statement is not finalized: SQLite then keeps the
/// connection allocated until the statement is finalized (by kiv_sqlite_finalize, by destroy or
/// when the object goes).
/// \return true; false for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API bool kiv_sqlite_close(kiv_sqlite_handle handle);

/// Whether the object is open.
/// \return the object's open flag; false for an empty handle.
/// \par Threads
/// Any thread.
KIV_DATABASE_API bool kiv_sqlite_is_opened(kiv_sqlite_handle handle);
/// @}

/// \name Destruction
/// @{

/// Marks the object destroyed and posts a job to the database worker that finalizes its
/// statement, closes it, gives the framework's reference back and removes it from the list of
/// live objects (printing how many are left).
///
/// Do not use the object after this call: the job owns it from then on, and lookups by name no
/// longer hand it out. A second call only warns, naming `file`:`line`, when the framework's base
/// object records destruction ("object-destroyed"); otherwise it posts a second job, which finds
/// the object closed and untracked and does nothing. While no database service runs (before
/// kiv_database_init, after the service finished) the job is refused: the object stays marked,
/// open and tracked, a later destroy only warns (or posts again, as above), and a join of a later
/// service never ends. To destroy an object from inside its own kiv_sqlite_rows_each callback, return
/// false from that callback.
/// \param file, line  the caller's source position (`__FILE__`, `__LINE__`), named in the warning.
/// \return true; false for an empty handle.
/// \par Threads
/// Any thread, also from a job or timer, or from the destructor of something a job holds.
KIV_DATABASE_API bool kiv_sqlite_destroy(kiv_sqlite_handle handle, std::string file, int line);
/// @}

/// \name Conversion to and from framework objects
/// The same object, with shared ownership.
/// @{

/// Whether a framework object is a connection object.
/// \return true for a _kiv_sqlite (or a class derived from it); false, and no warning, for an
/// empty handle.
/// \par Threads
/// Any thread.
KIV_DATABASE_API bool kiv_is_sqlite(boost::shared_ptr<_kiv_object> object);

/// The connection object as a framework handle.
/// \return a handle sharing the object's ownership; empty for an empty handle.
/// \par Threads
/// Any thread.
KIV_DATABASE_API boost::shared_ptr<_kiv_object> kiv_sqlite_to_object(kiv_sqlite_handle handle);

/// The connection view of a framework object.
/// \return a handle sharing the object's ownership; empty when the object is not a connection
/// object, and empty with the warning for an empty handle.
/// \par Threads
/// Any thread.
KIV_DATABASE_API kiv_sqlite_handle kiv_sqlite_from_object(boost::shared_ptr<_kiv_object> object);
/// @}

/// \name Preparing and direct execution
/// @{

/// Runs the SQL text `sql`, every statement of it, with sqlite3_exec and no row callback.
///
/// Makes no check; works whether or not a statement is prepared.
/// \param errmsg  null, or where SQLite's error text goes (null when there is none): SQLite's
///                memory, released with kiv_sqlite_free.
/// \return SQLite's result; SQLITE_MISUSE when the object is not open (`*errmsg` set to null);
/// -1 for an empty handle (`*errmsg` not written).
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_sql_stmt(kiv_sqlite_handle handle, const char* sql, char** errmsg);

/// Compiles the first statement of `sql` into the object's one statement slot
/// (sqlite3_prepare_v2); the rest of the text is ignored.
///
/// Checks that the object is open and that no statement is prepared: a prepared one is never
/// replaced, kiv_sqlite_finalize it first.
/// \return SQLite's result (SQLITE_OK also for a text without a statement, which leaves the slot
/// empty); SQLITE_MISUSE when not open or a statement is held; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_prepare(kiv_sqlite_handle handle, std::string sql);

/// Resets the statement to its start (sqlite3_reset), keeping its bindings.
/// \return SQLite's result; SQLITE_OK (0) when no statement is prepared; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_reset(kiv_sqlite_handle handle);

/// Finalizes the statement, if there is one, and empties the slot.
/// \return true; false for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API bool kiv_sqlite_finalize(kiv_sqlite_handle handle);

/// The text of the prepared statement (sqlite3_sql).
///
/// Checks that a statement is prepared.
/// \return SQLite's text, owned by SQLite until the statement is finalized; nullptr without a
/// statement and for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API const char* kiv_sqlite_sql(kiv_sqlite_handle handle);
/// @}

/// \name Binding
/// Parameter indexes count from 1. Each function checks that a statement is prepared.
/// @{

/// Binds an int (sqlite3_bind_int).
/// \return SQLite's result (SQLITE_OK, SQLITE_RANGE for a bad index); SQLITE_MISUSE without a
/// statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_bind_int(kiv_sqlite_handle handle, int index, int value);
/// Binds a 64-bit integer (sqlite3_bind_int64).
/// \return SQLite's result (SQLITE_OK, SQLITE_RANGE for a bad index); SQLITE_MISUSE without a
/// statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_bind_int64(kiv_sqlite_handle handle, int index, long long value);
/// Binds a double (sqlite3_bind_double).
/// \return SQLite's result (SQLITE_OK, SQLITE_RANGE for a bad index); SQLITE_MISUSE without a
/// statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_bind_double(kiv_sqlite_handle handle, int index, double value);
/// Binds a copy of `size` bytes at `data` as a blob (SQLITE_TRANSIENT).
/// \return SQLite's result (SQLITE_TOOBIG for a size above 2147483647); SQLITE_MISUSE without
/// a statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_bind_blob(kiv_sqlite_handle handle, int index, const unsigned char* data,
                                          unsigned long size);
/// Binds `size` bytes at `data` as a blob in place (SQLITE_STATIC): they must stay valid and
/// unchanged until the statement is finalized, the parameter rebound or the bindings cleared.
/// \return SQLite's result (SQLITE_TOOBIG for a size above 2147483647); SQLITE_MISUSE without
/// a statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_bind_blob_static(kiv_sqlite_handle handle, int index, const unsigned char* data,
                                                 unsigned long size);
/// Binds a copy of `size` bytes of UTF-8 at `text` (SQLITE_TRANSIENT).
/// \return SQLite's result (SQLITE_TOOBIG for a size above 2147483647); SQLITE_MISUSE without
/// a statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_bind_text(kiv_sqlite_handle handle, int index, const char* text, unsigned long size);
/// Binds `size` bytes of UTF-8 at `text` in place (SQLITE_STATIC), kept as for
/// kiv_sqlite_bind_blob_static.
/// \return SQLite's result (SQLITE_TOOBIG for a size above 2147483647); SQLITE_MISUSE without
/// a statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_bind_text_static(kiv_sqlite_handle handle, int index, const char* text,
                                                 unsigned long size);
/// The number of the statement's parameters (the largest index).
/// \return SQLite's count; 0 without a statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_bind_parameter_count(kiv_sqlite_handle handle);
/// The name of parameter `index`, with its prefix (":a", "@a", "$a", "?1").
/// \return SQLite's text, owned by SQLite until finalize; nullptr for a nameless parameter,
/// without a statement and for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API const char* kiv_sqlite_bind_parameter_name(kiv_sqlite_handle handle, int index);
/// The index of the parameter named `name`, given with its prefix (":a").
/// \return the index; 0 for no such name and without a statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_bind_parameter_index(kiv_sqlite_handle handle, const char* name);
/// Sets every parameter to NULL (sqlite3_clear_bindings).
/// \return SQLITE_OK; SQLITE_MISUSE without a statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_bind_clear(kiv_sqlite_handle handle);
/// @}

/// \name Stepping and row iteration
/// @{

/// Steps the statement once (sqlite3_step). Checks that the object is open and a statement is
/// prepared.
/// \return SQLITE_ROW (100), SQLITE_DONE (101) or SQLite's error; SQLITE_MISUSE without a
/// statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_step(kiv_sqlite_handle handle);

/// The number of values in the current row (sqlite3_data_count). Checks for a statement.
/// \return SQLite's count, 0 when there is no row or no statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_data_count(kiv_sqlite_handle handle);

/// The number of columns of the statement's result (sqlite3_column_count). Checks for a
/// statement.
/// \return SQLite's count, 0 without a statement; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_column_count(kiv_sqlite_handle handle);

/// The rowid of the connection's last successful INSERT (sqlite3_last_insert_rowid). Checks that
/// the object is open.
/// \return SQLite's value, 0 when not open; -1 for an empty handle (only the warning tells it
/// from a rowid of -1).
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API long long kiv_sqlite_last_insert_rowid(kiv_sqlite_handle handle);

/// The rows changed by the connection's last INSERT, UPDATE or DELETE (sqlite3_changes). Checks
/// that the object is open.
/// \return SQLite's count, 0 when not open; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_affected_rows_count(kiv_sqlite_handle handle);

/// Steps the statement from where it stands and calls `callback(handle, index)` for each row,
/// `index` counting from 0.
///
/// Checks that the object is open and a statement is prepared. Only an error resets the
/// statement. An exception from the callback passes through (the row is counted); an empty
/// callback throws std::bad_function_call at the first row. To destroy the object from inside
/// the callback, return false from it.
/// \return SQLITE_DONE (101) after the last row, SQLITE_ROW (100) when the callback returned
/// false, or the reset's code after an error (SQLITE_OK without a statement); -1 for an empty
/// handle (the callback is never called).
/// \par Threads
/// The thread that uses the object; the callback runs on it.
KIV_DATABASE_API int kiv_sqlite_rows_each(kiv_sqlite_handle handle, kiv_sqlite_row_callback callback);

/// As kiv_sqlite_rows_each(handle, callback), counting the rows in `counter`.
/// \param counter  set to 0 first, then to the number of rows handed to the callback, the
///                 current one included; not written for an empty handle.
/// \return as kiv_sqlite_rows_each(handle, callback): SQLITE_DONE, SQLITE_ROW when the callback
/// stopped, the reset's code after an error; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object; the callback runs on it.
KIV_DATABASE_API int kiv_sqlite_rows_each(kiv_sqlite_handle handle, unsigned long& counter,
                                          kiv_sqlite_row_callback callback);
/// @}

/// \name Column access
/// Column indexes count from 0 and refer to the current row. Each function checks that a
/// statement is prepared; without one it returns 0, nullptr or "" (the values SQLite gives for
/// no row), and for an empty handle the default named below with the warning. The values are
/// SQLite's conversions of the stored value (sqlite3_column_*).
/// @{

/// A copy of the column's value as a blob.
/// \param data  set to a malloc'ed copy of exactly `size` bytes (for 0 bytes, whatever
///              malloc(0) gives), released by the caller with free(); nullptr without a
///              statement and when memory ran out.
/// \param size  set to the number of bytes (0 with a null `data`).
/// \return true, also when nothing was copied; false for an empty handle (outputs not written).
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API bool kiv_sqlite_column_blob(kiv_sqlite_handle handle, int column, unsigned char*& data, int& size);
/// The column's value as text, up to its first zero byte.
/// \return a copy; "" for NULL, without a statement and for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API std::string kiv_sqlite_column_text(kiv_sqlite_handle handle, int column);
/// The column's value as an int.
/// \return SQLite's value; -1 for an empty handle (only the warning tells it from a value).
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_column_int(kiv_sqlite_handle handle, int column);
/// The column's value as a 64-bit integer.
/// \return SQLite's value; -1 for an empty handle (only the warning tells it from a value).
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API long long kiv_sqlite_column_int64(kiv_sqlite_handle handle, int column);
/// The column's value as a double.
/// \return SQLite's value; -1.0 for an empty handle (only the warning tells it from a value).
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API double kiv_sqlite_column_double(kiv_sqlite_handle handle, int column);
/// The storage class of the column's value.
/// \return SQLITE_INTEGER (1), SQLITE_FLOAT (2), SQLITE_TEXT (3), SQLITE_BLOB (4) or SQLITE_NULL
/// (5); -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_column_type(kiv_sqlite_handle handle, int column);
/// The declared type of the column in its table (sqlite3_column_decltype).
/// \return SQLite's text, owned by SQLite until finalize; nullptr for an expression, without a
/// statement and for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API const char* kiv_sqlite_column_decltype(kiv_sqlite_handle handle, int column);
/// The column's name in the result (sqlite3_column_name).
/// \return SQLite's text, owned by SQLite until finalize; nullptr without a statement and for an
/// empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API const char* kiv_sqlite_column_name(kiv_sqlite_handle handle, int column);
/// Whether the value's storage class is NULL (not the declared type).
/// \return false also for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API bool kiv_sqlite_is_column_null(kiv_sqlite_handle handle, int column);
/// Whether the value's storage class is TEXT (not the declared type).
/// \return false also for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API bool kiv_sqlite_is_column_text(kiv_sqlite_handle handle, int column);
/// Whether the value's storage class is BLOB (not the declared type).
/// \return false also for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API bool kiv_sqlite_is_column_blob(kiv_sqlite_handle handle, int column);
/// Whether the value's storage class is INTEGER (not the declared type).
/// \return false also for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API bool kiv_sqlite_is_column_int(kiv_sqlite_handle handle, int column);
/// Whether the value's storage class is FLOAT (not the declared type).
/// \return false also for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API bool kiv_sqlite_is_column_double(kiv_sqlite_handle handle, int column);
/// @}

/// \name Errors and SQLite memory
/// @{

/// SQLite's error code for the connection's last call (sqlite3_errcode). Checks that the object
/// is open.
/// \return SQLite's code; SQLITE_MISUSE when not open; -1 for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API int kiv_sqlite_last_error_code(kiv_sqlite_handle handle);
/// SQLite's error text for the connection's last call (sqlite3_errmsg). Checks that the object
/// is open.
/// \return SQLite's text, valid until the next call on the connection; SQLITE_MISUSE's text when
/// not open; nullptr for an empty handle.
/// \par Threads
/// The thread that uses the object.
KIV_DATABASE_API const char* kiv_sqlite_last_error_message(kiv_sqlite_handle handle);
/// The English text for a result code. Makes no check; the object only has to exist.
/// \return "Prepared statement missing bind parameters" for
/// KIV_SQLITE_MISSING_BIND_PARAMETERS, otherwise sqlite3_errstr(code): static text; nullptr for
/// an empty handle.
/// \par Threads
/// Any thread.
KIV_DATABASE_API const char* kiv_sqlite_errstr(kiv_sqlite_handle handle, int code);
/// Releases SQLite memory handed to the caller (the `errmsg` of kiv_sqlite_sql_stmt) with
/// sqlite3_free, then sets `memory` to nullptr. Makes no check.
/// \return true; false for an empty handle (`memory` not released nor written).
/// \par Threads
/// Any thread.
KIV_DATABASE_API bool kiv_sqlite_free(kiv_sqlite_handle handle, char*& memory);
/// @}
