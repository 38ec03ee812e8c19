// .import: CSV rows into a table, through the library's one prepared statement.

#include <sqlite3.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "csv.h"
#include "shell.h"

namespace kiv_host {

namespace {

std::string quote_name(const std::string& name) {
    std::string quoted = "\"";
    for (const char c : name) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + '"';
}

// The import's state: the file, the connection and where an error is reported.
struct import_job {
    shell& sh;
    const std::string& file;
    csv_reader reader;
    std::vector<std::string> fields;
    std::size_t count = 0;

    bool fail(const std::string& what) {
        // Read before finalizing, which may replace SQLite's error state.
        const int code = kiv_sqlite_last_error_code(sh.db.handle());
        const char* message = kiv_sqlite_last_error_message(sh.db.handle());
        const std::string text = message != nullptr ? message : "";
        kiv_sqlite_finalize(sh.db.handle());
        report_failure(sh, file + ":" + std::to_string(reader.line()) + ": " + what + ": SQLite error " +
                               std::to_string(code) + ": " + text);
        return false;
    }
    bool exec(const std::string& sql) {
        sql_error error;
        if (exec_sql(sh.db.handle(), sql, error)) return true;
        report_failure(sh, file + ": SQLite error " + std::to_string(error.code) + ": " + error.message);
        return false;
    }
    // The file must not end inside a quoted field: its last record would be cut short.
    bool check_end() {
        if (reader.unterminated() == 0) return true;
        report_failure(sh, file + ":" + std::to_string(reader.unterminated()) +
                               ": the file ends inside the quoted field opened here; nothing imported");
        return false;
    }
    int table_columns(const std::string& table);
    bool create_table(const std::string& table);
    bool insert_rows(const std::string& table, std::size_t columns);
    bool bind_record(std::size_t columns);
};

// 0 when the table does not exist; -1 on an error.
int import_job::table_columns(const std::string& table) {
    const kiv_sqlite_handle& db = sh.db.handle();
    if (kiv_sqlite_prepare(db, "SELECT count(*) FROM pragma_table_info(?1)") != SQLITE_OK ||
        kiv_sqlite_bind_text(db, 1, table.data(), table.size()) != SQLITE_OK || kiv_sqlite_step(db) != SQLITE_ROW) {
        fail("reading the columns of " + table);
        return -1;
    }
    const int columns = kiv_sqlite_column_int(db, 0);
    kiv_sqlite_finalize(db);
    return columns;
}

// A table of TEXT columns named by the header line.
bool import_job::create_table(const std::string& table) {
    if (!reader.next(fields, count)) {
        if (!check_end()) return false;
        report_failure(sh, file + ": empty file: no header line to create " + table + " from");
        return false;
    }
    std::string sql = "CREATE TABLE " + quote_name(table) + "(";
    for (std::size_t i = 0; i < count; ++i) sql += (i > 0 ? ", " : "") + quote_name(fields[i]) + " TEXT";
    return exec(sql + ")");
}

bool import_job::bind_record(std::size_t columns) {
    const kiv_sqlite_handle& db = sh.db.handle();
    if (count != columns) {
        std::fprintf(stderr, "kiv_host: %s:%zu: expected %zu columns, found %zu: %s\n", file.c_str(), reader.line(),
                     columns, count, count < columns ? "the rest are NULL" : "extra ones ignored");
        kiv_sqlite_bind_clear(db);
    }
    for (std::size_t i = 0; i < count && i < columns; ++i) {
        // The fields stay unchanged until the row is stepped: SQLite need not copy them.
        if (kiv_sqlite_bind_text_static(db, static_cast<int>(i + 1), fields[i].data(), fields[i].size()) != SQLITE_OK) {
            return false;
        }
    }
    return true;
}

bool import_job::insert_rows(const std::string& table, std::size_t columns) {
    const kiv_sqlite_handle& db = sh.db.handle();
    std::string sql = "INSERT INTO " + quote_name(table) + " VALUES(";
    for (std::size_t i = 0; i < columns; ++i) sql += i > 0 ? ",?" : "?";
    if (kiv_sqlite_prepare(db, sql + ")") != SQLITE_OK) return fail("preparing the insert");
    while (!sh.out.closed() && reader.next(fields, count)) {
        if (count == 1 && fields[0].empty()) continue;  // a blank line
        if (!bind_record(columns) || kiv_sqlite_step(db) != SQLITE_DONE) return fail("inserting the row");
        kiv_sqlite_reset(db);
    }
    kiv_sqlite_finalize(db);
    return check_end();
}

}  // namespace

bool import_csv(shell& sh, const std::string& file, const std::string& table) {
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> in(std::fopen(file.c_str(), "r"), &std::fclose);
    if (in == nullptr) {
        report_failure(sh, ".import: " + file + ": " + std::strerror(errno));
        return false;
    }
    import_job job{sh, file, csv_reader(in.get()), {}, 0};
    // One transaction for all rows (a savepoint nests in one the user has open): a failed
    // import leaves nothing behind, not even the table it created.
    if (!job.exec("SAVEPOINT kiv_host_import")) return false;
    int columns = job.table_columns(table);
    if (columns == 0 && job.create_table(table)) columns = static_cast<int>(job.count);
    const bool ok = columns > 0 && job.insert_rows(table, static_cast<std::size_t>(columns));
    if (!ok) job.exec("ROLLBACK TO kiv_host_import");
    return job.exec("RELEASE kiv_host_import") && ok;
}

}  // namespace kiv_host
