#include "sql_text.h"

#include <sqlite3.h>

#include <cctype>
#include <string_view>

namespace kiv_host {

namespace {

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Position of the first character that is not a blank or part of a comment (or a semicolon,
// when `skip_semicolons`). An unterminated block comment runs to the end, as SQLite reads it.
std::size_t skip_filler(const char* text, std::size_t n, std::size_t pos, bool skip_semicolons) {
    while (pos < n) {
        const std::string_view rest(text + pos, n - pos);
        if (is_space(rest[0]) || (skip_semicolons && rest[0] == ';')) {
            ++pos;
        } else if (rest.compare(0, 2, "--") == 0) {
            const std::size_t eol = rest.find('\n');
            pos = eol == std::string_view::npos ? n : pos + eol + 1;
        } else if (rest.compare(0, 2, "/*") == 0) {
            const std::size_t end = rest.find("*/", 2);
            pos = end == std::string_view::npos ? n : pos + end + 2;
        } else {
            break;
        }
    }
    return pos;
}

}  // namespace

void statement_splitter::add(const char* text, std::size_t size) {
    // What was handed out goes before more text comes. Only the statement in progress moves,
    // once: after that it starts at 0 and stays there until it is complete.
    pending_.erase(0, start_);
    pos_ -= start_;
    start_ = 0;
    pending_.append(text, size);
}

bool statement_splitter::at_statement_end(std::size_t semicolon) {
    // sqlite3_complete() reads up to a NUL: one is put after the semicolon for the call (at the
    // end of the text, the string's own terminator is that NUL, and may be written as one).
    const std::size_t end = semicolon + 1;
    const char saved = pending_[end];
    pending_[end] = '\0';
    const bool complete = sqlite3_complete(pending_.c_str() + start_) != 0;
    pending_[end] = saved;
    return complete;
}

bool statement_splitter::next(std::string& statement) {
    const std::size_t n = pending_.size();
    const char* const text = pending_.data();
    while (pos_ < n) {
        const char c = text[pos_];
        switch (state_) {
            case state::code:
                if (c == '\'') state_ = state::single_quote;
                else if (c == '"') state_ = state::double_quote;
                else if (c == '`') state_ = state::backtick;
                else if (c == '[') state_ = state::bracket;
                else if (c == '-' && text[pos_ + 1] == '-') enter(state::line_comment);
                else if (c == '/' && text[pos_ + 1] == '*') enter(state::block_comment);
                break;
            case state::single_quote:
                if (c == '\'') state_ = state::code;
                break;
            case state::double_quote:
                if (c == '"') state_ = state::code;
                break;
            case state::backtick:
                if (c == '`') state_ = state::code;
                break;
            case state::bracket:
                if (c == ']') state_ = state::code;
                break;
            case state::line_comment:
                if (c == '\n') state_ = state::code;
                break;
            case state::block_comment:
                if (c == '*' && text[pos_ + 1] == '/') enter(state::code);
        }
        ++pos_;
        if (c != ';' || state_ != state::code || !at_statement_end(pos_ - 1)) continue;
        const std::size_t begin = start_;
        start_ = pos_;
        if (skip_filler(text, start_, begin, true) == start_) continue;
        statement.assign(text + begin, start_ - begin);
        return true;
    }
    return false;
}

bool statement_splitter::blank() const {
    return skip_filler(pending_.data(), pending_.size(), start_, true) == pending_.size();
}

std::string statement_splitter::take_rest() {
    std::string rest = pending_.substr(start_);
    clear();
    return rest;
}

void statement_splitter::clear() {
    pending_.clear();
    start_ = pos_ = 0;
    state_ = state::code;
}

bool is_blank_sql(const std::string& text) { return skip_filler(text.data(), text.size(), 0, true) == text.size(); }

std::vector<std::string> split_statements(const std::string& text) {
    statement_splitter splitter;
    splitter.add(text);
    std::vector<std::string> statements;
    std::string statement;
    while (splitter.next(statement)) statements.push_back(statement);
    if (!splitter.blank()) statements.push_back(splitter.take_rest());
    return statements;
}

std::string statement_for_display(const std::string& statement) {
    const std::size_t begin = skip_filler(statement.data(), statement.size(), 0, false);
    std::size_t end = statement.size();
    while (end > begin && is_space(statement[end - 1])) --end;
    return statement.substr(begin, end - begin);
}

}  // namespace kiv_host
