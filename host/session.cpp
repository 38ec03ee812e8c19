#include "session.h"

#include <cstdlib>
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

connection::connection(const std::string& path, const std::string& name)
    : handle_(kiv_sqlite_new(path, name)) {}

connection::~connection() {
    kiv_sqlite_destroy(handle_, __FILE__, __LINE__);
}

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

void report_error(const std::string& path, std::size_t statement_number, const sql_error& error) {
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

std::vector<cell> read_row(const kiv_sqlite_handle& db, int columns) {
    std::vector<cell> row(static_cast<std::size_t>(columns));
    for (int c = 0; c < columns; ++c) {
        cell& out = row[static_cast<std::size_t>(c)];
        switch (kiv_sqlite_column_type(db, c)) {
            case SQLITE_NULL:
                out.text = "NULL";
                out.type = cell::kind::null;
                break;
            case SQLITE_INTEGER:
            case SQLITE_FLOAT:
                // SQLite's own rendering keeps REAL values recognisable ("1.0", "2.5e-07").
                out.text = kiv_sqlite_column_text(db, c);
                out.type = cell::kind::number;
                break;
            case SQLITE_BLOB: {
                unsigned char* data = nullptr;
                int size = 0;
                kiv_sqlite_column_blob(db, c, data, size);
                const std::unique_ptr<unsigned char, decltype(&std::free)> owned(data, &std::free);
                out.text = blob_literal(data, size > 0 ? static_cast<std::size_t>(size) : 0);
                break;
            }
            default:
                out.text = kiv_sqlite_column_text(db, c);
                break;
        }
    }
    return row;
}

bool run_statement(const kiv_sqlite_handle& db, const std::string& sql,
                   std::unique_ptr<result_table>& table, sql_error& error) {
    table.reset();
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
        table = std::make_unique<result_table>(std::move(names));
    }
    const int rc = kiv_sqlite_rows_each(db, [&](kiv_sqlite_handle row, unsigned long) {
        if (table) table->add_row(read_row(row, columns));
        return true;
    });
    if (rc != SQLITE_DONE) {
        // Read before finalizing: finalize may replace SQLite's error state.
        error = last_error(db, sql);
        kiv_sqlite_finalize(db);
        table.reset();
        return false;
    }
    kiv_sqlite_finalize(db);
    return true;
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
