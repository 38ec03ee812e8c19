#include "literal.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <memory>

#include "output.h"

namespace kiv_host {

void append_real_literal(double value, std::string& out) {
    if (std::isinf(value)) {
        out += value < 0 ? "-1e999" : "1e999";  // SQLite reads an overflowing literal as Inf
        return;
    }
    char digits[40];
    const char* const begin = digits;
    const char* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(begin, end);
    // "3" would read back as an INTEGER.
    if (std::none_of(begin, end, [](char c) { return c == '.' || c == 'e'; })) out += ".0";
}

void append_text_literal(const std::string& text, std::string& out) {
    out += '\'';
    for (const char ch : text) {
        if (ch == '\'') out += '\'';
        out += ch;
    }
    out += '\'';
}

std::string sql_literal(const kiv_sqlite_handle& db, int column) {
    std::string out;
    switch (kiv_sqlite_column_type(db, column)) {
        case SQLITE_NULL:
            out = "NULL";
            break;
        case SQLITE_INTEGER:
            out = std::to_string(kiv_sqlite_column_int64(db, column));
            break;
        case SQLITE_FLOAT:
            append_real_literal(kiv_sqlite_column_double(db, column), out);
            break;
        case SQLITE_BLOB:
            out = column_blob_literal(db, column);
            break;
        default:
            append_text_literal(kiv_sqlite_column_text(db, column), out);
            break;
    }
    return out;
}

}  // namespace kiv_host
