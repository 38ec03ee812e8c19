#include "options.h"

#include <cstdlib>
#include <cstring>
#include <iostream>

#include "commands.h"
#include "sql_text.h"

namespace kiv_host {

namespace {

const char* const usage_template =
    "Usage: kiv_host [OPTION]... PATH [SQL|.COMMAND]...\n"
    "  or:  kiv_host [OPTION]... PATH -\n"
    "  or:  kiv_host [OPTION]...\n"
    "  or:  kiv_host [-v] --demo [PATH]\n"
    "Run SQL on the SQLite database at PATH through the kiv_database library, as a host program\n"
    "of the framework does.\n"
    "\n"
    "Without PATH, the database is a private in-memory one (:memory:).\n"
    "With SQL texts or dot-commands after PATH, runs them in order and stops at the first error.\n"
    "A text may hold several statements separated by semicolons. With PATH alone, runs a\n"
    "session: on a terminal, with the prompt \"kiv_host> \", line editing and history\n"
    "(~/.kiv_host_history); otherwise the statements and dot-commands read from standard\n"
    "input. Each statement runs as soon as its closing semicolon is read; a statement spread\n"
    "over lines gets the prompt \"   ...> \". Ctrl-C interrupts the running statement (or drops\n"
    "the statement being typed) and returns to the prompt; Ctrl-D or .quit ends the session.\n"
    "Errors in a session are reported and the session goes on (see -bail). With - instead of\n"
    "SQL, standard input is read as a stream that stops at the first error.\n"
    "\n"
    "--demo runs the demo on PATH (kiv_demo.db in the current directory by default, created\n"
    "when missing): inserts 100000 rows with bound parameters in one transaction on the\n"
    "database worker, then prints the insert rate, a few aggregates and the first rows, and\n"
    "shows the library's console lines, the shutdown handshake included.\n"
    "\n"
    "Options:\n"
    "  -aligned         kiv_host's aligned table (the default)\n"
    "  -ascii           values and rows ended by the ASCII unit and record separators\n"
    "  -bail            stop at the first error in a session too\n"
    "  -box             a grid drawn with box-drawing characters\n"
    "  -cmd COMMAND     run COMMAND (SQL or a dot-command) first; may be repeated\n"
    "  -column          columns as wide as their widest value, a rule under the names\n"
    "  -csv             rows as CSV, quoted as the sqlite3 shell quotes them (CRLF line ends)\n"
    "  -header          column names above the rows (the default)\n"
    "  -html            rows as HTML table rows\n"
    "  -insert          rows as INSERT statements\n"
    "  -json            rows as a JSON array of objects\n"
    "  -line            one \"name = value\" line per column\n"
    "  -list            values separated by \"|\" (see .separator)\n"
    "  -markdown        a Markdown table\n"
    "  -noheader        no column names\n"
    "  -quote           values as SQL literals, separated by commas\n"
    "  -readonly        PATH must exist; opened with try_open and PRAGMA query_only\n"
    "  -table           a grid drawn with +, - and |\n"
    "  -tabs            values separated by tabs\n"
    "  -tcl             values as quoted C strings\n"
    "  -timeout MS      wait up to MS milliseconds for a locked database (default 5000)\n"
    "  --demo [PATH]    run the demo (see above); what follows is its PATH\n"
    "  --no-create      PATH must be an existing database file (opened with try_open)\n"
    "  --               end of options, for a PATH that begins with -\n"
    "  -h, --help       print this text and exit\n"
    "  -v, --verbose    also the database service's shutdown lines on standard error\n"
    "  --version        print the program name and version and exit\n"
    "Options may also be written with two dashes (--csv). They go before PATH: an option after\n"
    "PATH is a usage error, as is an empty SQL text.\n"
    "\n"
    "Dot-commands:\n"
    "  A line that begins with a dot, when no statement is in progress, is a command. Quotes\n"
    "  ('...' or \"...\") hold an argument with blanks. An unknown command is an error.\n"
    "%COMMANDS%"
    "\n"
    "Output:\n"
    "  Standard output holds only the rows and what the commands print; errors and the library's\n"
    "  console lines (DATABASE SERVICE ...) go to standard error. The modes print as the sqlite3\n"
    "  shell's do, except: blobs print as X'hex' (upper-case digits), quote and insert write a\n"
    "  REAL in the shortest form that reads back as the same value (infinities as 1e999) and\n"
    "  text with its line breaks as they are, column widths count display columns (wide\n"
    "  characters two, combining marks none), grids never wrap long values, and control\n"
    "  characters in the aligned and grid modes print as \\n, \\r, \\t or \\xHH (a backslash as\n"
    "  \\\\) so that a row stays on one line. The aligned mode (kiv_host's own) right-aligns\n"
    "  numeric columns with widths from the first 1000 rows, prints NULL as NULL and ends with\n"
    "  the row count. Rows print as they are stepped (column, box, markdown and table hold a\n"
    "  result to size it); when the reader of standard output goes away (| head), the run\n"
    "  stops quietly.\n"
    "\n"
    "Database:\n"
    "  PATH is created when it does not exist and its directory does; :memory: opens a private\n"
    "  in-memory database. A locked database is waited for (see -timeout), then \"database is\n"
    "  locked\" is reported with the statement's number. Errors go to standard error as\n"
    "  \"kiv_host: PATH: statement N: SQLite error CODE: MESSAGE\" and the statement.\n"
    "\n"
    "Standard error:\n"
    "  Only problems: errors, and the library's warnings and errors (its console lines, which\n"
    "  it writes to standard output, are taken there). A clean run leaves it empty: the lines\n"
    "  of the database service's shutdown (DATABASE SERVICE ...) show only with -v. Errors in\n"
    "  a .read file name the file and the line (\"kiv_host: FILE:LINE: ...\"). Refused as\n"
    "  errors: a NUL byte in a line of input (the line and the statement in progress are\n"
    "  dropped), a .read of a directory or of a file that cannot be read, a failed write to\n"
    "  an .output or .once file or to standard output, and an .import of a file that ends\n"
    "  inside a quoted field (nothing of a failed import stays in the database).\n"
    "\n"
    "Exit status:\n"
    "  0 success (also after errors in a session at a terminal), 1 a database, SQL, command,\n"
    "  input or output error, 2 a usage error.\n";

constexpr int exit_usage = 2;

int usage_error(const std::string& message) {
    std::cerr << "kiv_host: " << message << "\nTry 'kiv_host --help'." << std::endl;
    return exit_usage;
}

// Options that take no value; false when `arg` is none of them.
bool set_flag(const std::string& arg, options& opts) {
    // Every mode is an option of its own: -box, -csv, ...
    if (set_mode(opts.print, arg.substr(1))) return true;
    if (arg == "-header" || arg == "-headers") return opts.print.headers = true;
    if (arg == "-noheader") {
        opts.print.headers = false;
        return true;
    }
    if (arg == "-bail") return opts.bail = true;
    if (arg == "-v" || arg == "-verbose") return opts.verbose = true;
    if (arg == "-no-create") return !(opts.open.create = false);
    if (arg == "-readonly") {
        opts.open.create = false;
        return opts.open.readonly = true;
    }
    return false;
}

// An argument after PATH that reads as an option rather than SQL: a dash and no blank.
bool looks_like_option(const std::string& arg) {
    return arg.size() > 1 && arg[0] == '-' && arg.find_first_of(" \t\n") == std::string::npos;
}

int parse_after_path(int argc, char** argv, int i, options& opts) {
    opts.sql.assign(argv + i, argv + argc);
    for (const auto& text : opts.sql) {
        if (text == "-" && opts.sql.size() > 1) return usage_error("- must be the only SQL argument");
        if (looks_like_option(text)) return usage_error("option '" + text + "' after PATH (options go before PATH)");
        if (text != "-" && is_blank_sql(text)) return usage_error("an empty SQL argument");
    }
    return -1;
}

}  // namespace

std::string usage_text() {
    std::string commands;
    for (const char* line = dot_command_help; *line != '\0';) {
        const char* end = std::strchr(line, '\n');
        commands.append("  ").append(line, end + 1);
        line = end + 1;
    }
    std::string text = usage_template;
    return text.replace(text.find("%COMMANDS%"), 10, commands);
}

int parse_arguments(int argc, char** argv, options& opts) {
    int i = 1;
    for (; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg.size() < 2 || arg[0] != '-') break;
        if (arg.compare(0, 2, "--") == 0) arg.erase(0, 1);
        if (arg == "-h" || arg == "-help" || arg == "-version") {
            if (argc != 2) return usage_error(std::string(argv[i]) + " takes no other arguments");
            opts.help = arg != "-version";
            opts.version = !opts.help;
            return -1;
        }
        if (set_flag(arg, opts)) continue;
        if (arg == "-demo") {
            opts.demo = true;
            ++i;
            break;
        }
        if (arg != "-cmd" && arg != "-timeout") return usage_error("unknown option '" + std::string(argv[i]) + "'");
        if (++i == argc) return usage_error(std::string(argv[i - 1]) + " needs a value");
        if (arg == "-cmd") {
            opts.commands.emplace_back(argv[i]);
            continue;
        }
        char* end = nullptr;
        const long ms = std::strtol(argv[i], &end, 10);
        if (*argv[i] == '\0' || *end != '\0' || ms < 0 || ms > 0x7FFFFFFF) {
            return usage_error("-timeout needs milliseconds, not '" + std::string(argv[i]) + "'");
        }
        opts.open.timeout_ms = static_cast<int>(ms);
    }
    if (opts.demo) {
        opts.path = i < argc ? argv[i++] : "kiv_demo.db";
        return i < argc ? usage_error("--demo takes one PATH at most") : -1;
    }
    if (i >= argc) return -1;  // a session on :memory:
    opts.path = argv[i++];
    return parse_after_path(argc, argv, i, opts);
}

}  // namespace kiv_host
