// .import: CSV rows into a table, through the library's one prepared statement.

#include <sqlite3.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "shell.h"

namespace kiv_host {

namespace {

// Reads RFC 4180 records: fields separated by commas, records by LF or CRLF; a field in double
// quotes may hold commas, quotes (doubled) and line ends.
class csv_reader {
public:
    explicit csv_reader(std::FILE* file) : file_(file) {}
    // The next record into the first `count` entries of `fields`; false at the end of the file.
    bool next(std::vector<std::string>& fields, std::size_t& count);
    // The line on which the last record began.
    std::size_t line() const { return record_line_; }

private:
    int get() {
        const int c = getc_unlocked(file_);
        if (c == '\n') ++line_;
        return c;
    }
    int read_quoted(std::string& field);

    std::FILE* const file_;
    std::size_t line_ = 1;
    std::size_t record_line_ = 1;
};

// After the opening quote; returns the character after the field.
int csv_reader::read_quoted(std::string& field) {
    int c = get();
    while (c != EOF) {
        if (c == '"' && (c = get()) != '"') break;
        field += static_cast<char>(c);
        c = get();
    }
    while (c != ',' && c != '\n' && c != EOF) {  // text after the closing quote is kept
        if (c != '\r') field += static_cast<char>(c);
        c = get();
    }
    return c;
}

bool csv_reader::next(std::vector<std::string>& fields, std::size_t& count) {
    record_line_ = line_;
    int c = get();
    if (c == EOF) return false;
    count = 0;
    for (;;) {
        if (count == fields.size()) fields.emplace_back();
        std::string& field = fields[count++];
        field.clear();
        if (c == '"') {
            c = read_quoted(field);
        } else {
            while (c != ',' && c != '\n' && c != EOF) {
                field += static_cast<char>(c);
                c = get();
            }
            if (c != ',' && !field.empty() && field.back() == '\r') field.pop_back();
        }
        if (c != ',') return true;
        c = get();
    }
}

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
    return true;
}

}  // namespace

bool import_csv(shell& sh, const std::string& file, const std::string& table) {
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> in(std::fopen(file.c_str(), "r"), &std::fclose);
    if (in == nullptr) {
        report_failure(sh, ".import: " + file + ": " + std::strerror(errno));
        return false;
    }
    import_job job{sh, file, csv_reader(in.get()), {}, 0};
    // One transaction for all rows, unless the user has one open already.
    const bool own_transaction = sqlite3_get_autocommit(sh.db.sqlite()) != 0;
    if (own_transaction && !job.exec("BEGIN")) return false;
    int columns = job.table_columns(table);
    if (columns == 0 && job.create_table(table)) columns = static_cast<int>(job.count);
    const bool ok = columns > 0 && job.insert_rows(table, static_cast<std::size_t>(columns));
    if (own_transaction) job.exec(ok ? "COMMIT" : "ROLLBACK");
    return ok;
}

}  // namespace kiv_host
