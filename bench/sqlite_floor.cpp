#include "bench/sqlite_floor.h"

#include <iostream>

#include "framework/kiv_assertion.h"

namespace {

// The library reports its checks under its own source name; the floor hands over the same
// literals, so the strings built per call have the same lengths (and allocations).
const char* const source_file = "kiv_database/kiv_sqlite";

__attribute__((cold, noinline)) void null_object(const char* function) {
    std::string name(function);
    name.insert(0, "\x1b[0;35m");
    name.append("\x1b[0;0m");
    std::cout << "\x1b[1;35mKIV-SYSTEM**WARNING**\x1b[0;0m: " << "null object supplied: " << name
              << std::endl;
}

inline bool check_db(const floor_conn& c, int line) {
    kiv_assertion_faild(c.db != nullptr, "db!=nullptr", "database must be opened", source_file,
                        line);
    return c.db != nullptr;
}

inline bool check_stmt_open(const floor_conn& c, int line) {
    kiv_assertion_faild(c.stmt != nullptr, "stmt!=nullptr", "database statement must be opened",
                        source_file, line);
    return c.stmt != nullptr;
}

inline int step(floor_conn& c) {
    bool db_ok = check_db(c, __LINE__);
    bool stmt_ok = check_stmt_open(c, __LINE__);
    if (!db_ok || !stmt_ok) return SQLITE_MISUSE;
    return sqlite3_step(c.stmt);
}

inline int reset(floor_conn& c) { return c.stmt ? sqlite3_reset(c.stmt) : 0; }

}  // namespace

floor_conn::~floor_conn() {
    if (stmt) sqlite3_finalize(stmt);
    if (db) sqlite3_close(db);
}

floor_handle floor_open(const std::string& path) {
    floor_handle handle(new floor_conn);
    if (sqlite3_open_v2(path.c_str(), &handle->db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                        nullptr) != SQLITE_OK) {
        sqlite3_close(handle->db);
        handle->db = nullptr;
    }
    return handle;
}

int floor_sql_stmt(floor_handle handle, const char* sql, char** errmsg) {
    floor_conn* c = handle.get();
    if (!c) return null_object("kiv_sqlite_sql_stmt"), -1;
    return sqlite3_exec(c->db, sql, nullptr, nullptr, errmsg);
}

int floor_prepare(floor_handle handle, std::string sql) {
    floor_conn* c = handle.get();
    if (!c) return null_object("kiv_sqlite_prepare"), -1;
    bool db_ok = check_db(*c, __LINE__);
    kiv_assertion_faild(c->stmt == nullptr, "stmt==nullptr",
                        "database statement must not be opened already", source_file, __LINE__);
    if (!db_ok) return SQLITE_MISUSE;
    return sqlite3_prepare_v2(c->db, sql.c_str(), -1, &c->stmt, nullptr);
}

bool floor_finalize(floor_handle handle) {
    floor_conn* c = handle.get();
    if (!c) return null_object("kiv_sqlite_finalize"), false;
    if (c->stmt) {
        sqlite3_finalize(c->stmt);
        c->stmt = nullptr;
    }
    return true;
}

int floor_reset(floor_handle handle) {
    floor_conn* c = handle.get();
    if (!c) return null_object("kiv_sqlite_reset"), -1;
    return reset(*c);
}

int floor_bind_int(floor_handle handle, int index, int value) {
    floor_conn* c = handle.get();
    if (!c) return null_object("kiv_sqlite_bind_int"), -1;
    if (!check_stmt_open(*c, __LINE__)) return SQLITE_MISUSE;
    return sqlite3_bind_int(c->stmt, index, value);
}

int floor_bind_text(floor_handle handle, int index, const char* text, unsigned long size) {
    floor_conn* c = handle.get();
    if (!c) return null_object("kiv_sqlite_bind_text"), -1;
    if (!check_stmt_open(*c, __LINE__)) return SQLITE_MISUSE;
    return sqlite3_bind_text(c->stmt, index, text, static_cast<int>(size), SQLITE_TRANSIENT);
}

int floor_step(floor_handle handle) {
    floor_conn* c = handle.get();
    if (!c) return null_object("kiv_sqlite_step"), -1;
    return step(*c);
}

int floor_column_int(floor_handle handle, int column) {
    floor_conn* c = handle.get();
    if (!c) return null_object("kiv_sqlite_column_int"), -1;
    if (!check_stmt_open(*c, __LINE__)) return 0;
    return sqlite3_column_int(c->stmt, column);
}

std::string floor_column_text(floor_handle handle, int column) {
    floor_conn* c = handle.get();
    if (!c) return null_object("kiv_sqlite_column_text"), std::string();
    if (!check_stmt_open(*c, __LINE__)) return std::string();
    const unsigned char* text = sqlite3_column_text(c->stmt, column);
    if (!text) return std::string();
    // Up to the first zero byte, as the library's column_text reads it.
    return std::string(reinterpret_cast<const char*>(text));
}

int floor_rows_each(floor_handle handle, floor_row_callback callback) {
    floor_conn* c = handle.get();
    if (!c) return null_object("kiv_sqlite_rows_each"), -1;
    bool db_ok = check_db(*c, __LINE__);
    bool stmt_ok = check_stmt_open(*c, __LINE__);
    if (!db_ok || !stmt_ok) return SQLITE_MISUSE;
    unsigned long counter = 0;
    int rc = step(*c);
    for (;;) {
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) return reset(*c);
        if (rc == SQLITE_DONE) return rc;
        unsigned long index = counter;
        counter = index + 1;
        if (!callback(c->shared_from_this(), index)) return rc;
        rc = step(*c);
    }
}
