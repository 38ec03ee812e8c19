// kiv_host: a host program of the framework that loads libkiv_database.
//
//   kiv_host [options]                    a session on a private in-memory database
//   kiv_host [options] PATH [SQL|.CMD]... run SQL texts and dot-commands on PATH
//   kiv_host [options] PATH               a session on standard input (a terminal or a stream)
//   kiv_host [options] PATH -             SQL read from standard input, stopping at an error
//   kiv_host --demo [PATH]                the demo, on ./kiv_demo.db by default

#include <pthread.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "demo.h"
#include "kiv_database/database_service.h"
#include "options.h"
#include "output.h"
#include "session.h"
#include "shell.h"
#include "sql_text.h"

namespace {

constexpr int exit_ok = 0;
constexpr int exit_database_error = 1;

// Problems with PATH that SQLite would only report vaguely ("unable to open database file"),
// caught before any connection object exists.
bool check_path(const kiv_host::options& opts) {
    if (opts.path.empty() || opts.path == ":memory:") return true;
    struct stat info {};
    if (::stat(opts.path.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode)) {
            std::cerr << "kiv_host: " << opts.path << ": is a directory, not a database file" << std::endl;
            return false;
        }
        return true;
    }
    if (!opts.open.create) {
        std::cerr << "kiv_host: " << opts.path << ": file does not exist ("
                  << (opts.open.readonly ? "-readonly" : "--no-create") << ")" << std::endl;
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

bool open_database(const kiv_host::options& opts, kiv_host::connection& db, kiv_host::output& out) {
    kiv_host::sql_error error;
    if (kiv_host::open_connection(db, opts.open, error)) return true;
    kiv_host::report_error(out, opts.path, 0, error);
    return false;
}

int run_database(const kiv_host::options& opts, kiv_host::output& out) {
    kiv_host::connection db(opts.path, "kiv_host");
    if (!open_database(opts, db, out)) return exit_database_error;
    kiv_host::shell sh(db, out, opts.path);
    sh.printer.options() = opts.print;
    sh.settings = opts.open;
    const bool session = opts.sql.empty();
    const bool terminal = session && ::isatty(STDIN_FILENO) != 0;
    sh.bail = opts.bail || !session;
    for (const auto& command : opts.commands) {
        if (!kiv_host::stopped(sh)) kiv_host::run_argument(sh, command);
    }
    if (terminal) {
        kiv_host::run_terminal(sh);
    } else if (session || opts.sql[0] == "-") {
        kiv_host::run_stream(sh, stdin, "standard input");
    } else {
        for (const auto& text : opts.sql) {
            if (!kiv_host::stopped(sh)) kiv_host::run_argument(sh, text);
        }
    }
    out.flush();
    kiv_host::check_output(sh);
    return sh.errors > 0 && !terminal ? exit_database_error : exit_ok;
}

// Takes the library's console lines (written to std::cout, from any thread, one whole line per
// flush) to standard error. Its warnings and errors always pass; the service's own lines of the
// shutdown handshake are a problem to nobody, so they pass only when asked for (-v, the demo).
class console_filter : public std::streambuf {
public:
    explicit console_filter(bool service_lines) : service_lines_(service_lines), saved_(std::cout.rdbuf(this)) {}
    ~console_filter() override {
        std::cout.rdbuf(saved_);
        if (!line_.empty()) pass(line_ + '\n');
    }
    console_filter(const console_filter&) = delete;
    console_filter& operator=(const console_filter&) = delete;

protected:
    int overflow(int c) override {
        if (c == traits_type::eof()) return 0;
        const char ch = static_cast<char>(c);
        xsputn(&ch, 1);
        return c;
    }
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (std::streamsize i = 0; i < size; ++i) {
            line_ += text[i];
            if (text[i] != '\n') continue;
            if (service_lines_ || !is_service_line(line_)) pass(line_);
            line_.clear();
        }
        return size;
    }

private:
    static bool is_service_line(const std::string& line) {
        static const char* const lines[] = {"DATABASE SERVICE SHOT DONW REQUEST\n", "DATABASE THREAD SERVICE STOPPED\n",
                                            "DATABASE SERVICE DONE\n"};
        for (const char* text : lines)
            if (line == text) return true;
        return line.rfind("left objects in database reference count: ", 0) == 0;
    }
    static void pass(const std::string& line) {
        std::fwrite(line.data(), 1, line.size(), stderr);
        std::fflush(stderr);
    }

    const bool service_lines_;
    std::streambuf* const saved_;
    std::mutex mutex_;
    std::string line_;
};

// Starts the database service with SIGINT blocked, so that its worker inherits the block and
// Ctrl-C always reaches this thread, the one that reads the terminal and interrupts statements.
void init_database_service() {
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    kiv_database_init();
    pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
}

int run(const kiv_host::options& opts) {
    kiv_host::output out;
    init_database_service();
    int status = exit_ok;
    try {
        // Every connection object lives inside these calls and is destroyed on the way out.
        status = opts.demo ? kiv_host::run_demo(out, opts.path) : run_database(opts, out);
    } catch (const std::exception& e) {
        out.flush();
        std::cerr << "kiv_host: " << e.what() << std::endl;
        status = exit_database_error;
    }
    out.flush();
    if (!kiv_host::shut_down_database_service()) {
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

}  // namespace

int main(int argc, char** argv) {
    kiv_host::options opts;
    const int parsed = kiv_host::parse_arguments(argc, argv, opts);
    if (parsed >= 0) return parsed;
    if (opts.help || opts.version) {
        const std::string text = opts.help ? kiv_host::usage_text() : "kiv_host " KIV_HOST_VERSION "\n";
        std::fputs(text.c_str(), stdout);
        return std::fflush(stdout) == 0 ? exit_ok : exit_database_error;
    }
    if (!check_path(opts)) return exit_database_error;
    // Display widths follow the user's locale; nothing else here depends on it.
    std::setlocale(LC_CTYPE, "");
    // Each connection here is used by one thread at a time, which is also the library's rule, so
    // SQLite's per-connection mutex (locked in every column call) is not needed. Before any
    // other SQLite call; should SQLite be initialised already, it keeps its default mode.
    sqlite3_config(SQLITE_CONFIG_MULTITHREAD);
    // A reader that goes away shows up as EPIPE on the next write, which ends the run quietly.
    std::signal(SIGPIPE, SIG_IGN);
    // The demo shows the library at work, its console lines included.
    const console_filter console(opts.verbose || opts.demo);
    return run(opts);
}
