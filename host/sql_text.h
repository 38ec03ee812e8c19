#pragma once

// Splitting SQL text into statements. The library compiles only the first statement of a text
// and reports no tail, so the host finds the statement boundaries itself.

#include <string>
#include <vector>

namespace kiv_host {

// The statements of `text` in order, each with its terminating semicolon if it had one.
// Pieces that hold only blanks, comments and semicolons are dropped.
std::vector<std::string> split_statements(const std::string& text);

// True when `text` holds nothing but blanks, comments and semicolons.
bool is_blank_sql(const std::string& text);

// The statement without its leading blanks and comments and its trailing blanks, for messages.
std::string statement_for_display(const std::string& statement);

}  // namespace kiv_host
