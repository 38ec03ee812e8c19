#pragma once

// Splitting SQL text into statements. The library compiles only the first statement of a text
// and reports no tail, so the host finds the statement boundaries itself.

#include <cstddef>
#include <string>
#include <vector>

namespace kiv_host {

// Takes SQL text piece by piece (a line at a time in a session) and hands out each statement as
// soon as it is complete, so that a script runs while it is still being read and memory holds
// only the statement in progress. Quotes and comments are tracked as the text arrives; only a
// semicolon outside them asks sqlite3_complete() (which knows trigger bodies) about the
// statement so far. Each character is scanned once, and an ordinary statement is checked once,
// at its end: the cost grows with the input, not with the number of semicolons in a literal.
class statement_splitter {
public:
    // A piece ends at a line end (or ends the text): no two-character token (--, /*, */) is
    // cut in two. At the end of the text, the string's NUL stands for the character after.
    void add(const char* text, std::size_t size);
    void add(const std::string& text) { add(text.data(), text.size()); }
    // The next complete statement, with its semicolon, into `statement`; false when none is
    // complete yet. Pieces that hold only blanks, comments and semicolons are skipped.
    bool next(std::string& statement);
    // True when nothing but blanks, comments and semicolons waits.
    bool blank() const;
    // What waits, without a terminating semicolon; the splitter is empty afterwards.
    std::string take_rest();
    void clear();

private:
    enum class state { code, single_quote, double_quote, backtick, bracket, line_comment, block_comment };
    bool at_statement_end(std::size_t semicolon);
    // A two-character token (comment start or end): the state changes past both characters.
    void enter(state next) {
        state_ = next;
        ++pos_;
    }

    std::string pending_;
    std::size_t start_ = 0;  // first character of the statement in progress
    std::size_t pos_ = 0;    // first character not scanned yet
    state state_ = state::code;
};

// The statements of `text` in order, each with its terminating semicolon if it had one.
// Pieces that hold only blanks, comments and semicolons are dropped.
std::vector<std::string> split_statements(const std::string& text);

// True when `text` holds nothing but blanks, comments and semicolons.
bool is_blank_sql(const std::string& text);

// The statement without its leading blanks and comments and its trailing blanks, for messages.
std::string statement_for_display(const std::string& statement);

}  // namespace kiv_host
