#include "session.h"

#include <iostream>

#include "framework/kiv_thread_service.h"
#include "sql_text.h"

namespace kiv_host {

namespace {

sql_error last_error(const kiv_sqlite_handle& db, const std::string& statement) {
    sql_error error;
    error.code = kiv_sqlite_last_error_code(db);
    const char* message = kiv_sqlite_last_error_message(db);
    error.message = message != nullptr ? message : "";
    error.statement = statement;
    return error;
}

// Generous: the stop normally follows the join within milliseconds; this only bounds the wait
// when an object escaped destruction.
constexpr long service_finish_timeout_ms = 30000;

}  // namespace

connection::connection(const std::string& path, const std::string& name) : handle_(kiv_sqlite_new(path, name)) {}

connection::~connection() { kiv_sqlite_destroy(handle_, __FILE__, __LINE__); }

bool connection::open(bool create, sql_error& error) {
    const int rc = create ? kiv_sqlite_open(handle_) : kiv_sqlite_try_open(handle_);
    if (rc == SQLITE_OK) return true;
    // The object holds no connection after a failed open, so SQLite's text for the code is all
    // there is to report.
    error.code = rc;
    const char* text = kiv_sqlite_errstr(handle_, rc);
    error.message = text != nullptr ? text : "";
    error.statement.clear();
    return false;
}

bool open_connection(connection& db, const open_settings& settings, sql_error& error) {
    if (!db.open(settings.create, error)) return false;
    sqlite3_busy_timeout(db.sqlite(), settings.timeout_ms);
    if ((settings.readonly && !exec_sql(db.handle(), "PRAGMA query_only = 1", error)) ||
        (!exec_sql(db.handle(), "SELECT count(*) FROM sqlite_master", error) && error.code != SQLITE_BUSY &&
         error.code != SQLITE_LOCKED)) {
        error.statement.clear();
        return false;
    }
    return true;
}

void report_error(output& out, const std::string& path, std::size_t statement_number, const sql_error& error) {
    out.flush();
    std::cout << std::flush;
    std::cerr << "kiv_host: " << path << ": ";
    if (statement_number > 0) std::cerr << "statement " << statement_number << ": ";
    std::cerr << "SQLite error " << error.code << ": " << error.message;
    if (!error.statement.empty()) std::cerr << "\n  in: " << statement_for_display(error.statement);
    std::cerr << std::endl;
}

bool exec_sql(const kiv_sqlite_handle& db, const std::string& sql, sql_error& error) {
    char* message = nullptr;
    const int rc = kiv_sqlite_sql_stmt(db, sql.c_str(), &message);
    if (rc == SQLITE_OK) return true;
    error.code = rc;
    error.message = message != nullptr ? message : "";
    error.statement = sql;
    kiv_sqlite_free(db, message);
    return false;
}

bool run_statement(const kiv_sqlite_handle& db, const std::string& sql, result_printer& printer, sql_error& error) {
    if (kiv_sqlite_prepare(db, sql) != SQLITE_OK) {
        error = last_error(db, sql);
        kiv_sqlite_finalize(db);
        return false;
    }
    const int columns = kiv_sqlite_column_count(db);
    if (columns > 0) {
        std::vector<std::string> names;
        for (int c = 0; c < columns; ++c) {
            const char* name = kiv_sqlite_column_name(db, c);
            names.emplace_back(name != nullptr ? name : "");
        }
        printer.begin(std::move(names));
    }
    // The per-row calls get a handle that shares no ownership: copying it for each call (the
    // functions take handles by value) then costs no atomic reference counting, which shows at
    // millions of calls. `db` keeps the object alive meanwhile.
    const kiv_sqlite_handle row(kiv_sqlite_handle(), db.get());
    int rc = kiv_sqlite_step(row);
    while (rc == SQLITE_ROW && (columns == 0 || printer.add_row(row))) rc = kiv_sqlite_step(row);
    // SQLITE_ROW here: the output was closed and the rest of the rows are not wanted.
    const bool ok = rc == SQLITE_DONE || rc == SQLITE_ROW;
    // Read before finalizing: finalize may replace SQLite's error state.
    if (!ok) error = last_error(db, sql);
    kiv_sqlite_finalize(db);
    return ok;
}

bool shut_down_database_service() {
    // Destroy jobs run in FIFO order on the worker: once this marker job has run, every object
    // destroyed before it has left the service, so the shutdown lines come out in one order.
    try {
        run_on_database_worker<bool>([] { return true; }, __FILE__, __LINE__);
    } catch (const std::future_error&) {
        // The service was not running; the join below finds nothing to do.
    }
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    if (!service) return true;
    kiv_thread_service_join(service, 0);
    return kiv_thread_service_wait(service, service_finish_timeout_ms);
}

}  // namespace kiv_host
