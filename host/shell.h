#pragma once

// Sessions: SQL texts and dot-commands given as arguments, read line by line from standard
// input or a file, or typed at a terminal with line editing and history. Statements run as
// soon as they are complete.

#include <cstddef>
#include <cstdio>
#include <string>

#include "output.h"
#include "session.h"

namespace kiv_host {

// What a run knows and the settings that dot-commands change.
struct shell {
    shell(connection& database, output& output_to, std::string database_path)
        : db(database), out(output_to), printer(output_to), path(std::move(database_path)) {}

    connection& db;
    output& out;
    result_printer printer;
    std::string path;
    open_settings settings;   // for .open
    std::string source;       // the input being read, for messages: a file, "standard input" or none
    std::size_t line = 0;     // its line
    bool name_lines = false;  // SQL errors name source:line rather than the database (.read)
    bool to_file = false;     // output goes to a file (.output, .once)
    bool timer = false;       // the time of each statement after it
    bool bail = true;         // the first error ends the run
    bool changes = false;     // the change counts after each statement
    bool once = false;        // output back to standard output after the next statement
    bool quit = false;        // .quit was given
    std::size_t statements = 0;
    std::size_t errors = 0;
};

// True once nothing more should run: .quit, an error with bail on, or standard output gone.
bool stopped(const shell& sh);

// An error of the host's own (not SQLite's), on standard error after the output so far,
// naming the input's line when the input is a stream.
void report_failure(shell& sh, const std::string& message);

// Makes `fresh` the connection of the session; `fresh` then holds the one it replaces.
void replace_connection(shell& sh, connection& fresh);

// Counts a failed write to an output file as an error: the output has gone back to standard
// output by itself (and said why).
void check_output(shell& sh);

// Runs one statement, numbered in the run; false on an error (reported).
bool run_sql(shell& sh, const std::string& statement);

// Runs one argument: a dot-command when it begins with '.', else SQL text of any number of
// statements.
void run_argument(shell& sh, const std::string& text);

// Runs the lines of `in` until its end or stopped(); what is left unfinished at the end runs
// as one last statement (SQLite then reports it as incomplete). `name` is the input's name in
// messages. A line holding a NUL byte, and a read error, are errors.
void run_stream(shell& sh, std::FILE* in, const std::string& name);

// An interactive session on the terminal: prompts, line editing, history in
// ~/.kiv_host_history. Ctrl-C interrupts the running statement or drops the line being
// typed; Ctrl-D at the prompt ends the session.
void run_terminal(shell& sh);

}  // namespace kiv_host
