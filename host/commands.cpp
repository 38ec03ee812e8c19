#include "commands.h"

#include <sqlite3.h>

#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "shell.h"

namespace kiv_host {

const char* const dot_command_help =
    ".backup [DB] FILE       copy the database (main, or DB) to FILE with SQLite's backup API\n"
    ".bail on|off            stop at the first error (on for SQL arguments, off in sessions)\n"
    ".changes on|off         print the change counts after each statement\n"
    ".dump [PATTERN]         the database as SQL, of the tables matching PATTERN (LIKE)\n"
    ".exit                   end the session (also .quit)\n"
    ".headers on|off         column names above the rows\n"
    ".help                   this text\n"
    ".import [--csv] FILE TABLE\n"
    "                        import CSV rows into TABLE, created from the header line when missing\n"
    ".indexes [TABLE]        the indexes, of the tables matching TABLE (LIKE)\n"
    ".mode [MODE [TABLE]]    how rows print (alone: the current mode); MODE is aligned (the\n"
    "                        default), box, column, markdown, table, list, tabs, ascii, csv,\n"
    "                        quote, tcl, line, json, html, or insert (INSERT INTO TABLE)\n"
    ".nullvalue TEXT         how NULL prints\n"
    ".once FILE              the next statement's output to FILE\n"
    ".open FILE              close the database and open FILE (created when missing)\n"
    ".output [FILE]          output to FILE, or back to standard output without one\n"
    ".print TEXT...          print the words of TEXT and a line end\n"
    ".quit                   end the session\n"
    ".read FILE              run the SQL and commands of FILE\n"
    ".schema [PATTERN]       the CREATE statements, of the objects matching PATTERN (LIKE)\n"
    ".separator COL [ROW]    between columns and after rows (list, csv, quote, tabs, ...)\n"
    ".show                   the current settings\n"
    ".tables [PATTERN]       the tables and views, of those matching PATTERN (LIKE)\n"
    ".timeout MS             wait up to MS milliseconds for a locked database (default 5000; .open\n"
    "                        returns to -timeout's)\n"
    ".timer on|off           the time each statement took, after it\n";

namespace {

using words = std::vector<std::string>;

// Splits a command line into words at blanks; '...' and "..." quote a word with blanks.
words split_words(const std::string& line) {
    static const char blanks[] = " \t\n\r\v\f";
    words result;
    std::size_t i = line.find_first_not_of(blanks);
    while (i != std::string::npos) {
        const char quote = line[i] == '\'' || line[i] == '"' ? line[i++] : '\0';
        const std::size_t end = quote != '\0' ? line.find(quote, i) : line.find_first_of(blanks, i);
        result.push_back(line.substr(i, end - i));  // an unclosed quote runs to the end
        i = end == std::string::npos ? end : line.find_first_not_of(blanks, end + 1);
    }
    return result;
}

// on/off and their usual spellings; -1 for anything else.
int parse_switch(const std::string& word) {
    for (const char* on : {"on", "yes", "true", "1"})
        if (word == on) return 1;
    for (const char* off : {"off", "no", "false", "0"})
        if (word == off) return 0;
    return -1;
}

// Rows of a query with one text parameter, each row's first column handed to `each`.
template <typename Each>
bool query_names(shell& sh, const char* sql, const std::string& parameter, Each each) {
    const kiv_sqlite_handle& db = sh.db.handle();
    int rc = kiv_sqlite_prepare(db, sql);
    if (rc == SQLITE_OK) rc = kiv_sqlite_bind_text(db, 1, parameter.data(), parameter.size());
    while (rc == SQLITE_OK || rc == SQLITE_ROW) {
        rc = kiv_sqlite_step(db);
        if (rc == SQLITE_ROW) each(kiv_sqlite_column_text(db, 0));
    }
    sql_error error;
    if (rc != SQLITE_DONE) {
        error.code = kiv_sqlite_last_error_code(db);
        const char* message = kiv_sqlite_last_error_message(db);
        error.message = message != nullptr ? message : "";
    }
    kiv_sqlite_finalize(db);
    if (rc == SQLITE_DONE) return true;
    report_error(sh.out, sh.path, 0, error);
    return false;  // counted by run_dot_command
}

bool list_tables(shell& sh, const words& args) {
    return query_names(sh,
                       "SELECT name FROM sqlite_master WHERE type IN ('table', 'view') AND name NOT "
                       "LIKE 'sqlite\\_%' ESCAPE '\\' AND name LIKE ?1 ORDER BY name",
                       args.size() > 1 ? args[1] : "%", [&](const std::string& name) { sh.out.text() += name + '\n'; });
}

bool list_indexes(shell& sh, const words& args) {
    return query_names(sh, "SELECT name FROM sqlite_master WHERE type = 'index' AND tbl_name LIKE ?1 ORDER BY name",
                       args.size() > 1 ? args[1] : "%", [&](const std::string& name) { sh.out.text() += name + '\n'; });
}

bool show_schema(shell& sh, const words& args) {
    return query_names(sh, "SELECT sql FROM sqlite_master WHERE sql IS NOT NULL AND name LIKE ?1 ORDER BY rowid",
                       args.size() > 1 ? args[1] : "%", [&](const std::string& sql) { sh.out.text() += sql + ";\n"; });
}

bool set_mode(shell& sh, const words& args) {
    print_options& print = sh.printer.options();
    if (args.size() == 1) {
        sh.out.text() += std::string("current output mode: ") + mode_name(print.how) + '\n';
        return true;
    }
    if (!set_mode(print, args[1])) {
        report_failure(sh, "unknown mode '" + args[1] + "' (" + mode_names() + ")");
        return false;
    }
    if (print.how == print_options::mode::insert) print.insert_table = args.size() > 2 ? args[2] : "table";
    return true;
}

// Text as the sqlite3 shell's .show writes it: in double quotes, C escapes.
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') out += '\\';
        if (c == '\n' || c == '\t' || c == '\r') {
            out += c == '\n' ? "\\n" : c == '\t' ? "\\t" : "\\r";
        } else if (c < 0x20U || c == 0x7FU) {
            char octal[8];
            std::snprintf(octal, sizeof octal, "\\%03o", c);
            out += octal;
        } else {
            out += ch;
        }
    }
    return out + '"';
}

bool show_settings(shell& sh, const words&) {
    const print_options& print = sh.printer.options();
    const bool aligned_null = print.how == print_options::mode::aligned && !print.null_set;
    const std::pair<const char*, std::string> settings[] = {
        {"bail", sh.bail ? "on" : "off"},
        {"changes", sh.changes ? "on" : "off"},
        {"headers", print.headers ? "on" : "off"},
        {"mode", mode_name(print.how)},
        {"nullvalue", quoted(aligned_null ? "NULL" : print.null_value)},
        {"output", sh.out.redirected() ? "file" : "stdout"},
        {"colseparator", quoted(print.separator)},
        {"rowseparator", quoted(print.row_separator)},
        {"filename", sh.path},
    };
    for (const auto& [name, value] : settings) {
        char label[16];
        std::snprintf(label, sizeof label, "%12s: ", name);
        sh.out.text() += label + value + '\n';
    }
    return true;
}

// \t, \n, \r, \\ and \" in a separator, as the sqlite3 shell reads them.
std::string unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        out += c == 't' ? '\t' : c == 'n' ? '\n' : c == 'r' ? '\r' : c;
    }
    return out;
}

bool redirect_output(shell& sh, const words& args) {
    const bool once = args[0] == ".once";
    sh.printer.start_group();  // a new file, or back to one, begins without a blank line
    if (args.size() == 1 || (!once && args[1] == "stdout")) {
        sh.out.redirect(nullptr);
        sh.once = false;
        sh.to_file = false;
        return true;
    }
    std::FILE* file = std::fopen(args[1].c_str(), "w");
    if (file == nullptr) {
        report_failure(sh, args[0] + ": " + args[1] + ": " + std::strerror(errno));
        return false;
    }
    sh.out.redirect(file);
    sh.once = once;
    sh.to_file = true;
    return true;
}

bool read_file(shell& sh, const words& args) {
    // A file that reads itself would recurse until the stack runs out.
    static int depth = 0;
    if (depth == 32) {
        report_failure(sh, ".read: " + args[1] + ": files nested 32 deep");
        return false;
    }
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(args[1].c_str(), "r"), &std::fclose);
    struct stat info {};
    if (file == nullptr || ::fstat(::fileno(file.get()), &info) != 0 || S_ISDIR(info.st_mode)) {
        report_failure(sh, ".read: " + args[1] + ": " + std::strerror(file == nullptr ? errno : EISDIR));
        return false;
    }
    const std::size_t errors = sh.errors;
    const std::string source = sh.source;
    const std::size_t line = sh.line;
    const bool name_lines = sh.name_lines;
    sh.name_lines = true;
    ++depth;
    run_stream(sh, file.get(), args[1]);
    --depth;
    sh.source = source;
    sh.line = line;
    sh.name_lines = name_lines;
    return sh.errors == errors;
}

bool open_file(shell& sh, const words& args) {
    connection fresh(args[1], "kiv_host");
    sql_error error;
    if (!open_connection(fresh, sh.settings, error)) {
        report_failure(sh, ".open: " + args[1] + ": SQLite error " + std::to_string(error.code) + ": " + error.message);
        return false;
    }
    replace_connection(sh, fresh);
    sh.path = args[1];
    return true;
}

// SQLite's backup API, in one step: the copy is consistent even while others write.
bool backup_to(shell& sh, const words& args) {
    const std::string& schema = args.size() == 3 ? args[1] : "main";
    const std::string& target = args.back();
    sqlite3* to = nullptr;
    int rc = sqlite3_open_v2(target.c_str(), &to, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc == SQLITE_OK) {
        sqlite3_backup* const copy = sqlite3_backup_init(to, "main", sh.db.sqlite(), schema.c_str());
        if (copy != nullptr) {
            sqlite3_backup_step(copy, -1);
            sqlite3_backup_finish(copy);
        }
        rc = sqlite3_errcode(to);
    }
    const std::string message = to != nullptr ? sqlite3_errmsg(to) : sqlite3_errstr(rc);
    sqlite3_close(to);
    if (rc == SQLITE_OK) return true;
    report_failure(sh, ".backup: " + target + ": SQLite error " + std::to_string(rc) + ": " + message);
    return false;
}

bool set_timeout(shell& sh, const words& args) {
    char* end = nullptr;
    const long ms = std::strtol(args[1].c_str(), &end, 10);
    if (args[1].empty() || *end != '\0' || ms < 0 || ms > 0x7FFFFFFF) {
        report_failure(sh, ".timeout: not a number of milliseconds: " + args[1]);
        return false;
    }
    sqlite3_busy_timeout(sh.db.sqlite(), static_cast<int>(ms));
    return true;
}

bool import_command(shell& sh, const words& args) {
    const std::size_t first = args.size() > 1 && args[1] == "--csv" ? 2 : 1;
    if (args.size() != first + 2) {
        report_failure(sh, "usage: .import [--csv] FILE TABLE");
        return false;
    }
    return import_csv(sh, args[first], args[first + 1]);
}

bool set_switch(shell& sh, const words& args) {
    const int value = parse_switch(args[1]);
    if (value < 0) {
        report_failure(sh, "usage: " + args[0] + " on|off");
        return false;
    }
    if (args[0] == ".headers") sh.printer.options().headers = value != 0;
    if (args[0] == ".bail") sh.bail = value != 0;
    if (args[0] == ".changes") sh.changes = value != 0;
    if (args[0] == ".timer") sh.timer = value != 0;
    return true;
}

struct command {
    const char* name;
    std::size_t min_args;
    std::size_t max_args;
    const char* usage;
    bool (*run)(shell&, const words&);
};

constexpr command commands[] = {
    {".backup", 1, 2, "[DB] FILE", backup_to},
    {".bail", 1, 1, "on|off", set_switch},
    {".changes", 1, 1, "on|off", set_switch},
    {".dump", 0, 1, "[PATTERN]",
     [](shell& sh, const words& args) { return dump_database(sh, args.size() > 1 ? args[1] : "%"); }},
    {".exit", 0, 0, "", [](shell& sh, const words&) { return sh.quit = true; }},
    {".headers", 1, 1, "on|off", set_switch},
    {".help", 0, 1, "",
     [](shell& sh, const words&) {
         sh.out.text() += dot_command_help;
         return true;
     }},
    {".import", 2, 3, "[--csv] FILE TABLE", import_command},
    {".indexes", 0, 1, "[TABLE]", list_indexes},
    {".mode", 0, 2, "[MODE [TABLE]]", set_mode},
    {".nullvalue", 1, 1, "TEXT",
     [](shell& sh, const words& args) {
         sh.printer.options().null_set = true;
         sh.printer.options().null_value = args[1];
         return true;
     }},
    {".once", 1, 1, "FILE", redirect_output},
    {".open", 1, 1, "FILE", open_file},
    {".output", 0, 1, "[FILE]", redirect_output},
    {".print", 0, 1000, "TEXT...",
     [](shell& sh, const words& args) {
         for (std::size_t i = 1; i < args.size(); ++i) sh.out.text() += args[i] + (i + 1 < args.size() ? " " : "");
         sh.out.text() += '\n';
         return true;
     }},
    {".quit", 0, 0, "", [](shell& sh, const words&) { return sh.quit = true; }},
    {".read", 1, 1, "FILE", read_file},
    {".schema", 0, 1, "[PATTERN]", show_schema},
    {".separator", 1, 2, "COL [ROW]",
     [](shell& sh, const words& args) {
         sh.printer.options().separator = unescape(args[1]);
         if (args.size() > 2) sh.printer.options().row_separator = unescape(args[2]);
         return true;
     }},
    {".show", 0, 0, "", show_settings},
    {".tables", 0, 1, "[PATTERN]", list_tables},
    {".timeout", 1, 1, "MS", set_timeout},
    {".timer", 1, 1, "on|off", set_switch},
};

}  // namespace

void run_dot_command(shell& sh, const std::string& line) {
    const words args = split_words(line);
    const std::size_t errors = sh.errors;
    for (const command& c : commands) {
        if (args[0] != c.name) continue;
        if (args.size() < c.min_args + 1 || args.size() > c.max_args + 1) {
            report_failure(sh, std::string("usage: ") + c.name + (*c.usage != '\0' ? " " : "") + c.usage);
            return;
        }
        // A command that fails counts as an error even if it had nothing to say.
        if (!c.run(sh, args) && sh.errors == errors) ++sh.errors;
        sh.out.flush();
        check_output(sh);
        return;
    }
    report_failure(sh, "unknown command '" + args[0] + "' (.help lists the commands)");
}

}  // namespace kiv_host
