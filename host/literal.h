#pragma once

// A column value written as SQL that reads back as the same value.

#include <string>

#include "kiv_database/kiv_sqlite.h"

namespace kiv_host {

// The SQL literal of column `column` of the current row of `db`'s statement: NULL, an
// integer, a real in the shortest form that reads back as the same double (always with a
// point or an exponent, so that it stays REAL; 1e999 and -1e999 for the infinities), text in
// single quotes with its quotes doubled, a blob as X'..' with upper-case hex digits.
std::string sql_literal(const kiv_sqlite_handle& db, int column);

// Appends the literal of a double to `out`, as sql_literal writes it.
void append_real_literal(double value, std::string& out);

// Appends `text` in single quotes, its quotes doubled.
void append_text_literal(const std::string& text, std::string& out);

}  // namespace kiv_host
