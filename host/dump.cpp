// .dump: the database as SQL that the sqlite3 shell (or kiv_host) reads back into the same
// database: tables with their rows, then indexes, triggers and views.

#include <sqlite3.h>

#include <cctype>
#include <string>
#include <vector>

#include "commands.h"
#include "literal.h"
#include "shell.h"

namespace kiv_host {

namespace {

struct schema_entry {
    std::string type;
    std::string name;
    std::string sql;
};

// A name as it may stand in SQL: bare when it is a plain identifier and no keyword.
std::string sql_name(const std::string& name) {
    bool plain = !name.empty() && std::isdigit(static_cast<unsigned char>(name[0])) == 0 &&
                 sqlite3_keyword_check(name.data(), static_cast<int>(name.size())) == 0;
    for (const char c : name) plain = plain && (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_');
    if (plain) return name;
    std::string quoted = "\"";
    for (const char c : name) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + '"';
}

// Text with line ends as pieces joined by char(): a reader that takes CR LF for a line end (the
// sqlite3 shell does) would otherwise drop the CR.
std::string text_literal(const std::string& text) {
    std::string out;
    std::size_t i = 0;
    while (i < text.size()) {
        if (!out.empty()) out += "||";
        const std::size_t end = text.find_first_of("\r\n", i);
        if (end == i) {
            out += "char(";
            for (; i < text.size() && (text[i] == '\r' || text[i] == '\n'); ++i) out += text[i] == '\r' ? "13," : "10,";
            out.back() = ')';
        } else {
            append_text_literal(text.substr(i, end - i), out);
            i = end == std::string::npos ? text.size() : end;
        }
    }
    return out;
}

std::string value_literal(const kiv_sqlite_handle& db, int column) {
    if (kiv_sqlite_column_type(db, column) == SQLITE_TEXT) {
        std::string text = kiv_sqlite_column_text(db, column);
        if (text.find_first_of("\r\n") != std::string::npos) return text_literal(text);
    }
    return sql_literal(db, column);
}

bool fail(shell& sh, const kiv_sqlite_handle& db) {
    sql_error error;
    error.code = kiv_sqlite_last_error_code(db);
    const char* message = kiv_sqlite_last_error_message(db);
    error.message = message != nullptr ? message : "";
    kiv_sqlite_finalize(db);
    report_error(sh.out, sh.path, 0, error);
    ++sh.errors;
    return false;
}

// The entries of sqlite_master whose table matches `pattern`: tables first (sqlite_sequence
// last among them, as it is filled by the inserts before it), then the rest in creation order.
bool read_schema(shell& sh, const std::string& pattern, std::vector<schema_entry>& entries) {
    const kiv_sqlite_handle& db = sh.db.handle();
    int rc = kiv_sqlite_prepare(db,
                                "SELECT type, name, sql FROM sqlite_master WHERE sql IS NOT NULL AND tbl_name LIKE ?1 "
                                "ORDER BY type <> 'table', name = 'sqlite_sequence', rowid");
    if (rc == SQLITE_OK) rc = kiv_sqlite_bind_text(db, 1, pattern.data(), pattern.size());
    while (rc == SQLITE_OK && (rc = kiv_sqlite_step(db)) == SQLITE_ROW) {
        entries.push_back(
            {kiv_sqlite_column_text(db, 0), kiv_sqlite_column_text(db, 1), kiv_sqlite_column_text(db, 2)});
        rc = SQLITE_OK;
    }
    if (rc != SQLITE_DONE) return fail(sh, db);
    kiv_sqlite_finalize(db);
    return true;
}

bool dump_rows(shell& sh, const std::string& table) {
    const kiv_sqlite_handle& db = sh.db.handle();
    const std::string name = sql_name(table);
    if (kiv_sqlite_prepare(db, "SELECT * FROM " + name) != SQLITE_OK) return fail(sh, db);
    const int columns = kiv_sqlite_column_count(db);
    int rc = SQLITE_OK;
    while (!sh.out.closed() && (rc = kiv_sqlite_step(db)) == SQLITE_ROW) {
        std::string& text = sh.out.text();
        text += "INSERT INTO " + name + " VALUES(";
        for (int c = 0; c < columns; ++c) {
            if (c > 0) text += ',';
            text += value_literal(db, c);
        }
        text += ");\n";
        sh.out.line_done();
    }
    if (rc != SQLITE_DONE && rc != SQLITE_ROW) return fail(sh, db);
    kiv_sqlite_finalize(db);
    return true;
}

bool dump_table(shell& sh, const schema_entry& table) {
    std::string& text = sh.out.text();
    if (table.name == "sqlite_sequence") {
        text += "DELETE FROM sqlite_sequence;\n";  // made by the first AUTOINCREMENT table
    } else if (table.name == "sqlite_stat1") {
        text += "ANALYZE sqlite_schema;\n";  // makes the table, which the rows then fill
    } else if (table.name.compare(0, 7, "sqlite_") == 0) {
        return true;
    } else if (table.sql.compare(0, 20, "CREATE VIRTUAL TABLE") == 0) {
        // Its rows live in its module's own tables, dumped as plain tables; running its CREATE
        // would make those a second time, so the schema row goes in as it stands.
        std::string row;
        append_text_literal(table.name, row);
        text +=
            "PRAGMA writable_schema=ON;\nINSERT INTO sqlite_schema(type,name,tbl_name,rootpage,sql)VALUES('table'," +
            row + ',' + row + ",0,";
        append_text_literal(table.sql, text);
        text += ");\nPRAGMA writable_schema=OFF;\n";
        return true;
    } else {
        text += table.sql + ";\n";
    }
    return dump_rows(sh, table.name);
}

}  // namespace

bool dump_database(shell& sh, const std::string& pattern) {
    std::vector<schema_entry> entries;
    if (!read_schema(sh, pattern, entries)) return false;
    sh.out.text() += "PRAGMA foreign_keys=OFF;\nBEGIN TRANSACTION;\n";
    bool ok = true;
    for (const schema_entry& entry : entries) {
        if (entry.type == "table") {
            ok = dump_table(sh, entry) && ok;
        } else {
            sh.out.text() += entry.sql + ";\n";
        }
    }
    // A dump that missed something must not load as if whole.
    sh.out.text() += ok ? "COMMIT;\n" : "ROLLBACK; -- due to errors\n";
    return ok;
}

}  // namespace kiv_host
