#pragma once

// Dot-commands: lines beginning with '.', in sessions and as arguments.

#include <string>

namespace kiv_host {

struct shell;

// Runs one dot-command line; an unknown command or wrong arguments are errors (reported,
// counted), never SQL.
void run_dot_command(shell& sh, const std::string& line);

// The commands and what they do, as .help prints them.
extern const char* const dot_command_help;

// Imports the CSV file `file` into `table` (created from the header line when missing) in one
// transaction, through the library's prepared statement and bound parameters.
bool import_csv(shell& sh, const std::string& file, const std::string& table);

// Writes the schema and rows of the tables matching `pattern` (LIKE), and the indexes,
// triggers and views on them, as SQL that rebuilds them in an empty database.
bool dump_database(shell& sh, const std::string& pattern);

}  // namespace kiv_host
