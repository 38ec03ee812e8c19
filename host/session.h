#pragma once

// The host's side of the library: a connection that is always destroyed, statements whose
// rows are printed as they are stepped, work handed to the database worker, and the shutdown of the database service.

#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"
#include "output.h"

namespace kiv_host {

// A failed SQLite call: SQLite's code and message, and the statement it came from.
struct sql_error {
    int code = 0;
    std::string message;
    std::string statement;
};

// Owns one connection object. Dropping a handle would keep the object alive and the database
// service from stopping, so the destructor hands the object to kiv_sqlite_destroy on every path.
class connection {
public:
    connection(const std::string& path, const std::string& name);
    ~connection();
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    const kiv_sqlite_handle& handle() const { return handle_; }
    // The object's SQLite connection, for what the library leaves to its host: the busy
    // timeout and interrupting a statement. Null while closed.
    sqlite3* sqlite() const { return handle_->db; }
    // Opens with kiv_sqlite_open (create when missing) or kiv_sqlite_try_open (must exist).
    bool open(bool create, sql_error& error);
    void swap(connection& other) noexcept { handle_.swap(other.handle_); }

private:
    kiv_sqlite_handle handle_;
};

// How the host opens a database: PATH, and each .open.
struct open_settings {
    bool create = true;     // kiv_sqlite_open; false: kiv_sqlite_try_open
    bool readonly = false;  // also PRAGMA query_only
    int timeout_ms = 5000;
};

// Opens `db` with the busy timeout in force before anything touches the file, then reads the
// schema once, so that a file that is not a database is reported before any statement runs,
// even one like "SELECT 1" that never reads the file. A locked schema is left to the first
// statement, which waits and reports with its number. false with `error` filled on failure.
bool open_connection(connection& db, const open_settings& settings, sql_error& error);

// Writes the error to standard error: "kiv_host: PATH: [statement N: ]SQLite error CODE: MESSAGE",
// then the statement on a line of its own. `out` is written first.
void report_error(output& out, const std::string& path, std::size_t statement_number, const sql_error& error);

// Runs SQL text without a statement (kiv_sqlite_sql_stmt); false with `error` filled on failure.
bool exec_sql(const kiv_sqlite_handle& db, const std::string& sql, sql_error& error);

// Prepares one statement, steps it to its end and finalizes it. A statement with result
// columns begins a result on `printer` and hands it each row; it stops early once the output is
// closed. The printer is left to finish, also after an error, so the rows before it print.
// false with `error` filled on failure.
bool run_statement(const kiv_sqlite_handle& db, const std::string& sql, result_printer& printer, sql_error& error);

// Runs `work` as a job on the database worker and waits for its result. Exceptions of `work`
// come back here; std::future_error (broken promise) if the service dropped the job unrun.
template <typename Result>
Result run_on_database_worker(std::function<Result()> work, const char* file, int line) {
    auto done = std::make_shared<std::promise<Result>>();
    std::future<Result> result = done->get_future();
    kiv_database_exec(
        [done, work = std::move(work)] {
            try {
                done->set_value(work());
            } catch (...) {
                done->set_exception(std::current_exception());
            }
        },
        file, line);
    return result.get();
}

// Waits until the destroy jobs posted so far have run, then joins the "database" service and
// waits for it to finish. false if it does not finish in time (an object was never released).
bool shut_down_database_service();

}  // namespace kiv_host
