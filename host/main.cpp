// kiv_host: a host program of the framework that loads libkiv_database.
//
//   kiv_host                        demo on ./kiv_demo.db
//   kiv_host [options] PATH SQL...  run SQL texts on PATH, printing rows as they come
//   kiv_host [options] PATH -       run SQL read from standard input

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "demo.h"
#include "kiv_database/database_service.h"
#include "output.h"
#include "session.h"
#include "sql_text.h"

namespace {

const char* const usage_text =
    "usage: kiv_host\n"
    "       kiv_host [--csv] [--no-create] [--] PATH SQL...\n"
    "       kiv_host [--csv] [--no-create] [--] PATH -\n"
    "       kiv_host --help | --version\n"
    "\n"
    "Without arguments, runs the demo on kiv_demo.db in the current directory (created when\n"
    "missing): inserts 100000 rows with bound parameters in one transaction on the database\n"
    "worker, then prints the insert rate, a few aggregates and the first rows. Run again, it\n"
    "replaces the rows of the earlier run and says so.\n"
    "\n"
    "With PATH, runs each SQL argument on the database at PATH, in order; with - instead, the\n"
    "SQL is read from standard input. A text may hold several statements separated by\n"
    "semicolons; each is prepared and stepped in turn, and its rows are printed as they come.\n"
    "Statements without result columns print nothing; a blank line separates two results.\n"
    "\n"
    "Rows print as an aligned table under the column names, followed by the row count. Column\n"
    "widths come from the first 1000 rows; a wider value later is printed whole and shifts\n"
    "the rest of its line. NULL prints as NULL, blobs as X'hex', REAL values with 15\n"
    "significant digits as SQLite writes them (1.0, 2.5e-07). In names and text a newline\n"
    "prints as \\n, a carriage return as \\r, a tab as \\t, other control characters as \\xHH\n"
    "and a backslash as \\\\, so that every row stays on one line.\n"
    "\n"
    "With --csv, rows print as CSV (RFC 4180, lines ending in LF): a header line of column\n"
    "names, then one line per row. Fields holding a comma, a double quote, CR or LF are quoted,\n"
    "with quotes doubled; NULL is an empty field, blobs are X'hex'. The library's own lines go\n"
    "to standard error then, so that standard output holds only CSV.\n"
    "\n"
    "PATH is created when it does not exist and its directory does; :memory: opens a private\n"
    "in-memory database. The first failing statement stops the run: the rows it produced\n"
    "before the error are printed, then SQLite's error code and message go to standard error.\n"
    "A missing directory, a PATH that is a directory and a file that is not a database are\n"
    "reported the same way. When the reader of standard output goes away (| head), the run\n"
    "stops quietly, with exit status 0.\n"
    "\n"
    "The library's shutdown lines (DATABASE SERVICE ...) end the output of every run that\n"
    "reached the database (on standard error with --csv).\n"
    "\n"
    "Options:\n"
    "  --csv          print rows as CSV\n"
    "  --no-create    PATH must be an existing database file (opened with try_open)\n"
    "  --             end of options, for a PATH that begins with -\n"
    "  -h, --help     print this text and exit\n"
    "  --version      print the program name and version and exit\n"
    "\n"
    "Exit status: 0 success, 1 database, SQL or output error, 2 usage error.\n";

constexpr int exit_ok = 0;
constexpr int exit_database_error = 1;
constexpr int exit_usage = 2;

struct options {
    bool help = false;
    bool version = false;
    bool csv = false;
    bool create = true;
    bool demo = false;
    std::string path;
    std::vector<std::string> sql;  // {"-"} means standard input
};

int usage_error(const std::string& message) {
    std::cerr << "kiv_host: " << message << "\nTry 'kiv_host --help'." << std::endl;
    return exit_usage;
}

// Fills `opts`; returns -1 when the arguments are usable, else the exit status.
int parse_arguments(int argc, char** argv, options& opts) {
    int i = 1;
    if (argc == 1) {
        opts.demo = true;
        return -1;
    }
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg == "-h" || arg == "--help" || arg == "--version") {
            if (argc != 2) return usage_error(arg + " takes no other arguments");
            opts.help = arg != "--version";
            opts.version = !opts.help;
            return -1;
        }
        if (arg == "--no-create") {
            opts.create = false;
        } else if (arg == "--csv") {
            opts.csv = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage_error("unknown option '" + arg + "'");
        } else {
            break;
        }
    }
    if (i >= argc) return usage_error("no database PATH given");
    opts.path = argv[i++];
    if (i >= argc) return usage_error("no SQL given for " + opts.path + " (use - to read standard input)");
    opts.sql.assign(argv + i, argv + argc);
    for (const auto& text : opts.sql) {
        if (text == "-" && opts.sql.size() > 1) return usage_error("- must be the only SQL argument");
    }
    return -1;
}

// Problems with PATH that SQLite would only report vaguely ("unable to open database file"),
// caught before any connection object exists.
bool check_path(const options& opts) {
    if (opts.path.empty() || opts.path == ":memory:") return true;
    struct stat info {};
    if (::stat(opts.path.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode)) {
            std::cerr << "kiv_host: " << opts.path << ": is a directory, not a database file" << std::endl;
            return false;
        }
        return true;
    }
    if (!opts.create) {
        std::cerr << "kiv_host: " << opts.path << ": file does not exist (--no-create)" << std::endl;
        return false;
    }
    const std::string::size_type slash = opts.path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : opts.path.substr(0, slash);
    if (::stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        std::cerr << "kiv_host: " << opts.path << ": directory " << dir << " does not exist" << std::endl;
        return false;
    }
    return true;
}

int run_sql(const options& opts, kiv_host::output& out) {
    std::vector<std::string> statements;
    if (opts.sql.size() == 1 && opts.sql[0] == "-") {
        const std::string text{std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
        statements = kiv_host::split_statements(text);
    } else {
        for (const auto& text : opts.sql) {
            for (auto& statement : kiv_host::split_statements(text)) statements.push_back(std::move(statement));
        }
    }

    kiv_host::connection db(opts.path, "kiv_host");
    kiv_host::sql_error error;
    if (!db.open(opts.create, error)) {
        kiv_host::report_error(out, opts.path, 0, error);
        return exit_database_error;
    }
    // SQLite reads the file lazily; touching the schema now reports a file that is not a
    // database before any statement runs, even one like "SELECT 1" that never reads the file.
    if (!kiv_host::exec_sql(db.handle(), "SELECT count(*) FROM sqlite_master", error)) {
        error.statement.clear();
        kiv_host::report_error(out, opts.path, 0, error);
        return exit_database_error;
    }
    using format = kiv_host::result_printer::format;
    kiv_host::result_printer printer(out, opts.csv ? format::csv : format::table);
    for (std::size_t i = 0; i < statements.size() && !out.closed(); ++i) {
        const bool ok = kiv_host::run_statement(db.handle(), statements[i], printer, error);
        const bool had_result = printer.finish();
        if (!ok) {
            kiv_host::report_error(out, opts.path, i + 1, error);
            return exit_database_error;
        }
        if (had_result && !opts.csv) {
            const std::size_t rows = printer.rows();
            out.text() += '(' + std::to_string(rows) + (rows == 1 ? " row)\n" : " rows)\n");
        }
        out.flush();
    }
    return exit_ok;
}

// Points std::cout, where the library writes its console lines, at standard error while it
// lives.
class console_to_stderr {
public:
    console_to_stderr() : saved_(std::cout.rdbuf(std::cerr.rdbuf())) {}
    ~console_to_stderr() { std::cout.rdbuf(saved_); }
    console_to_stderr(const console_to_stderr&) = delete;
    console_to_stderr& operator=(const console_to_stderr&) = delete;

private:
    std::streambuf* const saved_;
};

}  // namespace

int main(int argc, char** argv) {
    options opts;
    const int parsed = parse_arguments(argc, argv, opts);
    if (parsed >= 0) return parsed;
    if (opts.help || opts.version) {
        std::cout << (opts.help ? usage_text : "kiv_host " KIV_HOST_VERSION "\n") << std::flush;
        return exit_ok;
    }
    if (!opts.demo && !check_path(opts)) return exit_database_error;

    // Each connection here is used by one thread at a time, which is also the library's rule, so
    // SQLite's per-connection mutex (locked in every column call) is not needed. Before any
    // other SQLite call; should SQLite be initialised already, it keeps its default mode.
    sqlite3_config(SQLITE_CONFIG_MULTITHREAD);
    // A reader that goes away shows up as EPIPE on the next write, which ends the run quietly.
    std::signal(SIGPIPE, SIG_IGN);
    kiv_host::output out;
    std::optional<console_to_stderr> console;
    if (opts.csv) console.emplace();
    kiv_database_init();
    int status = exit_ok;
    try {
        // Every connection object lives inside these calls and is destroyed on the way out.
        status = opts.demo ? kiv_host::run_demo(out) : run_sql(opts, out);
    } catch (const std::exception& e) {
        out.flush();
        std::cout << std::flush;
        std::cerr << "kiv_host: " << e.what() << std::endl;
        status = exit_database_error;
    }
    out.flush();
    if (!kiv_host::shut_down_database_service()) {
        std::cout << std::flush;
        std::cerr << "kiv_host: the database service did not finish; a connection object was "
                     "never released"
                  << std::endl;
        // The service's worker is still running; leaving through exit() would tear down its
        // state underneath it.
        std::_Exit(exit_database_error);
    }
    if (out.error() != 0 && out.error() != EPIPE) {
        std::cerr << "kiv_host: standard output: " << std::strerror(out.error()) << std::endl;
        return exit_database_error;
    }
    return status;
}
