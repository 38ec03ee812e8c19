#pragma once

// The floor for the SQLite benchmarks: the raw C API plus exactly the work that the library's
// contract makes each exported call do, and nothing else:
//  - the handle comes by value (one boost::shared_ptr copy per call) into a function exported
//    from a shared library of its own, as libkiv_database's functions are;
//  - an empty handle writes the null-object warning (never taken here, but the test is made);
//  - every precondition goes to kiv_assertion_faild with three std::string arguments built per
//    call from the library's literals, one call per condition, in the library's order;
//  - a failed check never reaches SQLite with a null pointer (SQLITE_MISUSE, 0 or "" instead);
//  - rows_each takes a new handle from the weak self-reference for every row and calls the
//    callback through std::function.
// Whatever the library spends above these functions is its own cost.

#include <sqlite3.h>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <functional>
#include <string>

#define KIV_FLOOR_API __attribute__((visibility("default")))

struct KIV_FLOOR_API floor_conn : boost::enable_shared_from_this<floor_conn> {
    ~floor_conn();
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
};

using floor_handle = boost::shared_ptr<floor_conn>;
using floor_row_callback = std::function<bool(boost::shared_ptr<floor_conn>, unsigned long)>;

// Set-up, outside the measured loops: opens `path` (created when missing).
KIV_FLOOR_API floor_handle floor_open(const std::string& path);
KIV_FLOOR_API int floor_sql_stmt(floor_handle handle, const char* sql, char** errmsg);
KIV_FLOOR_API int floor_prepare(floor_handle handle, std::string sql);
KIV_FLOOR_API bool floor_finalize(floor_handle handle);

// The calls the workloads measure, each with the checks of its library counterpart.
KIV_FLOOR_API int floor_reset(floor_handle handle);                                   // none
KIV_FLOOR_API int floor_bind_int(floor_handle handle, int index, int value);          // stmt
KIV_FLOOR_API int floor_bind_text(floor_handle handle, int index, const char* text,
                                  unsigned long size);                                // stmt
KIV_FLOOR_API int floor_step(floor_handle handle);                                    // db, stmt
KIV_FLOOR_API int floor_column_int(floor_handle handle, int column);                  // stmt
KIV_FLOOR_API std::string floor_column_text(floor_handle handle, int column);         // stmt
// db, stmt, then the two of each step.
KIV_FLOOR_API int floor_rows_each(floor_handle handle, floor_row_callback callback);
