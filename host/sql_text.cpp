#include "sql_text.h"

#include <sqlite3.h>

#include <cctype>

namespace kiv_host {

namespace {

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Position of the first character that is not a blank or part of a comment (or a semicolon,
// when `skip_semicolons`). An unterminated block comment runs to the end, as SQLite reads it.
std::size_t skip_filler(const std::string& text, std::size_t pos, bool skip_semicolons) {
    const std::size_t n = text.size();
    while (pos < n) {
        if (is_space(text[pos]) || (skip_semicolons && text[pos] == ';')) {
            ++pos;
        } else if (text.compare(pos, 2, "--") == 0) {
            const std::size_t eol = text.find('\n', pos);
            pos = eol == std::string::npos ? n : eol + 1;
        } else if (text.compare(pos, 2, "/*") == 0) {
            const std::size_t end = text.find("*/", pos + 2);
            pos = end == std::string::npos ? n : end + 2;
        } else {
            break;
        }
    }
    return pos;
}

}  // namespace

bool is_blank_sql(const std::string& text) { return skip_filler(text, 0, true) == text.size(); }

std::vector<std::string> split_statements(const std::string& text) {
    std::vector<std::string> statements;
    std::size_t start = 0;
    // sqlite3_complete() knows SQLite's quoting, comments and trigger bodies: a semicolon ends a
    // statement exactly when the text up to it is complete. Only the current statement is
    // re-examined, so the cost grows with statement length, not with the whole input.
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != ';') continue;
        std::string candidate = text.substr(start, i + 1 - start);
        if (sqlite3_complete(candidate.c_str()) == 0) continue;
        if (!is_blank_sql(candidate)) statements.push_back(std::move(candidate));
        start = i + 1;
    }
    std::string rest = text.substr(start);
    if (!is_blank_sql(rest)) statements.push_back(std::move(rest));
    return statements;
}

std::string statement_for_display(const std::string& statement) {
    const std::size_t begin = skip_filler(statement, 0, false);
    std::size_t end = statement.size();
    while (end > begin && is_space(statement[end - 1])) --end;
    return statement.substr(begin, end - begin);
}

}  // namespace kiv_host
