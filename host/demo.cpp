#include "demo.h"

#include <chrono>
#include <cstdio>
#include <iomanip>
#include <sstream>

#include "session.h"

namespace kiv_host {

namespace {

constexpr long long demo_rows = 100000;
constexpr int sensors = 16;

struct insert_outcome {
    bool ok = false;
    sql_error error;
    long long replaced = 0;  // rows of an earlier run that the insert replaced
    double seconds = 0.0;
};

// The whole insert, one transaction, meant to run on the database worker.
insert_outcome insert_rows(const kiv_sqlite_handle& db) {
    insert_outcome out;
    const auto started = std::chrono::steady_clock::now();
    if (!exec_sql(db, "BEGIN IMMEDIATE", out.error)) return out;

    auto fail = [&](const std::string& statement) {
        out.error.code = kiv_sqlite_last_error_code(db);
        const char* message = kiv_sqlite_last_error_message(db);
        out.error.message = message != nullptr ? message : "";
        out.error.statement = statement;
        kiv_sqlite_finalize(db);
        sql_error ignored;
        exec_sql(db, "ROLLBACK", ignored);
        return out;
    };

    const std::string count_sql = "SELECT count(*) FROM readings";
    if (kiv_sqlite_prepare(db, count_sql) != SQLITE_OK || kiv_sqlite_step(db) != SQLITE_ROW) return fail(count_sql);
    out.replaced = kiv_sqlite_column_int64(db, 0);
    kiv_sqlite_finalize(db);
    if (out.replaced > 0 && !exec_sql(db, "DELETE FROM readings", out.error)) return fail("DELETE FROM readings");

    const std::string insert_sql = "INSERT INTO readings(id, sensor, value, payload) VALUES (?1, ?2, ?3, ?4)";
    if (kiv_sqlite_prepare(db, insert_sql) != SQLITE_OK) return fail(insert_sql);
    char sensor[16];
    for (long long id = 1; id <= demo_rows; ++id) {
        const int length = std::snprintf(sensor, sizeof sensor, "sensor-%02d", static_cast<int>(id % sensors));
        const unsigned char payload[4] = {static_cast<unsigned char>(id >> 24), static_cast<unsigned char>(id >> 16),
                                          static_cast<unsigned char>(id >> 8), static_cast<unsigned char>(id)};
        // Every fifth row has no payload, so that the read-back shows a NULL. The API has no
        // NULL binder; clearing the bindings leaves ?4 NULL.
        const bool with_payload = id % 5 != 0;
        if (!with_payload) kiv_sqlite_bind_clear(db);
        kiv_sqlite_bind_int64(db, 1, id);
        kiv_sqlite_bind_text(db, 2, sensor, static_cast<unsigned long>(length));
        kiv_sqlite_bind_double(db, 3, static_cast<double>(id % 1000) / 4.0);
        if (with_payload) kiv_sqlite_bind_blob(db, 4, payload, sizeof payload);
        if (kiv_sqlite_step(db) != SQLITE_DONE) return fail(insert_sql);
        kiv_sqlite_reset(db);
    }
    kiv_sqlite_finalize(db);
    if (!exec_sql(db, "COMMIT", out.error)) return fail("COMMIT");
    out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    out.ok = true;
    return out;
}

bool print_query(output& out, const kiv_sqlite_handle& db, const std::string& sql, const std::string& path) {
    result_printer printer(out, result_printer::format::table);
    sql_error error;
    out.text() += '\n';
    const bool ok = run_statement(db, sql, printer, error);
    printer.finish();
    if (!ok) report_error(out, path, 0, error);
    return ok;
}

int demo_on(output& out, connection& db, const std::string& path) {
    sql_error error;
    if (!db.open(true, error)) {
        report_error(out, path, 0, error);
        return 1;
    }
    // A file that is not a database opens fine; this first statement is where SQLite notices.
    if (!exec_sql(db.handle(),
                  "CREATE TABLE IF NOT EXISTS readings("
                  "id INTEGER PRIMARY KEY, sensor TEXT NOT NULL, value REAL NOT NULL, payload BLOB)",
                  error)) {
        report_error(out, path, 0, error);
        return 1;
    }

    const kiv_sqlite_handle handle = db.handle();
    const insert_outcome inserted =
        run_on_database_worker<insert_outcome>([handle] { return insert_rows(handle); }, __FILE__, __LINE__);
    if (!inserted.ok) {
        report_error(out, path, 0, inserted.error);
        return 1;
    }

    std::ostringstream lines;
    if (inserted.replaced > 0) {
        lines << "earlier run found: its " << inserted.replaced << " rows replaced\n";
    } else {
        lines << "no earlier rows: table readings filled\n";
    }
    const double rate = inserted.seconds > 0.0 ? static_cast<double>(demo_rows) / inserted.seconds : 0.0;
    lines << "inserted " << demo_rows << " rows in one transaction on the database worker: " << std::fixed
          << std::setprecision(3) << inserted.seconds << " s, " << std::setprecision(0) << rate << " rows/s\n";
    out.text() += lines.str();
    out.flush();

    if (!print_query(out, db.handle(),
                     "SELECT count(*) AS rows, count(DISTINCT sensor) AS sensors, "
                     "min(value) AS min_value, max(value) AS max_value, "
                     "round(avg(value), 3) AS avg_value, count(payload) AS payloads "
                     "FROM readings",
                     path))
        return 1;
    if (!print_query(out, db.handle(), "SELECT id, sensor, value, payload FROM readings ORDER BY id LIMIT 6", path))
        return 1;
    out.text() += '\n';
    out.flush();
    return 0;
}

}  // namespace

int run_demo(output& out, const std::string& path) {
    out.text() += "kiv_host demo on ";
    out.text() += path;
    out.text() += '\n';
    out.flush();
    connection db(path, "demo");
    return demo_on(out, db, path);
}

}  // namespace kiv_host
