#include "shell.h"

#include <editline/readline.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include "commands.h"
#include "sql_text.h"

namespace kiv_host {

namespace {

std::atomic<int> interrupted{0};
std::atomic<sqlite3*> interrupt_target{nullptr};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<sqlite3*>::is_always_lock_free,
              "used in a signal handler");

// SQLite allows sqlite3_interrupt from any thread at any time while the connection is open;
// with no statement running it has no effect on the next one.
extern "C" void on_interrupt(int) {
    interrupted = 1;
    if (sqlite3* db = interrupt_target.load()) sqlite3_interrupt(db);
}

const char* const prompt = "kiv_host> ";
const char* const continuation_prompt = "   ...> ";

bool is_dot_command(const char* text, std::size_t size) {
    std::size_t i = 0;
    while (i < size && (text[i] == ' ' || text[i] == '\t')) ++i;
    return i < size && text[i] == '.';
}

// One line of input (with its newline): a dot-command when no statement is in progress, else
// more SQL, whose complete statements run at once.
void feed_line(shell& sh, statement_splitter& splitter, const char* line, std::size_t size) {
    ++sh.line;
    if (std::memchr(line, '\0', size) != nullptr) {
        // SQLite would read the text only up to the NUL: refuse it rather than run a part.
        report_failure(sh, "a NUL byte in the line; the line and the statement in progress are dropped");
        splitter.clear();
        return;
    }
    if (splitter.blank() && is_dot_command(line, size)) {
        splitter.clear();
        run_dot_command(sh, std::string(line, size));
        return;
    }
    splitter.add(line, size);
    std::string statement;
    while (!stopped(sh) && splitter.next(statement)) run_sql(sh, statement);
}

void finish_input(shell& sh, statement_splitter& splitter) {
    if (!stopped(sh) && !splitter.blank()) run_sql(sh, splitter.take_rest());
}

struct cpu_time {
    double user = 0.0;
    double system = 0.0;
};

cpu_time cpu_time_now() {
    struct rusage usage {};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
    };
    return {seconds(usage.ru_utime), seconds(usage.ru_stime)};
}

// .timer's line, in the sqlite3 shell's words.
void put_run_time(output& out, std::chrono::duration<double> real, const cpu_time& before) {
    const cpu_time after = cpu_time_now();
    char text[96];
    std::snprintf(text, sizeof text, "Run Time: real %.3f user %f sys %f\n", real.count(), after.user - before.user,
                  after.system - before.system);
    out.text() += text;
}

std::string history_file() {
    const char* home = std::getenv("HOME");
    return home != nullptr && *home != '\0' ? std::string(home) + "/.kiv_host_history" : std::string();
}

// SIGINT to on_interrupt for its lifetime, without SA_RESTART, so that a read of the terminal
// returns at once; Ctrl-C then lands here rather than ending the process.
class interrupt_handler {
public:
    explicit interrupt_handler(sqlite3* db) {
        interrupt_target = db;
        struct sigaction action {};
        action.sa_handler = on_interrupt;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &saved_);
    }
    ~interrupt_handler() {
        sigaction(SIGINT, &saved_, nullptr);
        interrupt_target = nullptr;
    }
    interrupt_handler(const interrupt_handler&) = delete;
    interrupt_handler& operator=(const interrupt_handler&) = delete;

private:
    struct sigaction saved_ {};
};

}  // namespace

bool stopped(const shell& sh) { return sh.quit || sh.out.closed() || (sh.bail && sh.errors > 0); }

void report_failure(shell& sh, const std::string& message) {
    sh.out.flush();
    std::cout << std::flush;
    std::cerr << "kiv_host: ";
    if (!sh.source.empty()) std::cerr << sh.source << ':' << sh.line << ": ";
    std::cerr << message << std::endl;
    ++sh.errors;
}

void replace_connection(shell& sh, connection& fresh) {
    // Ctrl-C must not reach the connection that is about to close.
    sqlite3* const target = interrupt_target.exchange(nullptr);
    sh.db.swap(fresh);
    if (target != nullptr) interrupt_target = sh.db.sqlite();
}

void check_output(shell& sh) {
    if (!sh.to_file || sh.out.redirected()) return;
    sh.to_file = false;
    ++sh.errors;
}

bool run_sql(shell& sh, const std::string& statement) {
    const std::size_t number = ++sh.statements;
    sql_error error;
    using clock = std::chrono::steady_clock;
    const clock::time_point started = sh.timer ? clock::now() : clock::time_point();
    const cpu_time used = sh.timer ? cpu_time_now() : cpu_time{};
    const bool ok = run_statement(sh.db.handle(), statement, sh.printer, error);
    if (sh.printer.finish() && ok) sh.printer.put_row_count();
    if (!ok) {
        std::string where = sh.path;
        if (sh.name_lines) {
            // The line the statement begins on: the current line less the line ends inside it.
            const std::string shown = statement_for_display(statement);
            const auto ends = static_cast<std::size_t>(std::count(shown.begin(), shown.end(), '\n'));
            where = sh.source + ':' + std::to_string(sh.line > ends ? sh.line - ends : sh.line);
        }
        report_error(sh.out, where, number, error);
        ++sh.errors;
    } else if (sh.changes) {
        sh.out.text() += "changes: " + std::to_string(sqlite3_changes(sh.db.sqlite())) +
                         "   total_changes: " + std::to_string(sqlite3_total_changes(sh.db.sqlite())) + '\n';
    }
    if (sh.timer) put_run_time(sh.out, clock::now() - started, used);
    sh.out.flush();
    check_output(sh);
    if (sh.once) {
        sh.once = false;
        sh.to_file = false;
        sh.out.redirect(nullptr);
        sh.printer.start_group();
    }
    return ok;
}

void run_argument(shell& sh, const std::string& text) {
    if (is_dot_command(text.data(), text.size())) {
        run_dot_command(sh, text);
        return;
    }
    for (const auto& statement : split_statements(text)) {
        if (stopped(sh)) break;
        run_sql(sh, statement);
    }
}

void run_stream(shell& sh, std::FILE* in, const std::string& name) {
    sh.source = name;
    sh.line = 0;
    statement_splitter splitter;
    char* buffer = nullptr;
    std::size_t capacity = 0;
    ssize_t size = 0;
    errno = 0;
    while (!stopped(sh) && (size = ::getline(&buffer, &capacity, in)) >= 0) {
        feed_line(sh, splitter, buffer, static_cast<std::size_t>(size));
    }
    const int error = errno;
    std::free(buffer);
    if (size < 0 && std::ferror(in) != 0) {
        // A directory, or a device that failed: what was read so far has run, the rest is lost.
        report_failure(sh, std::string("read error: ") + std::strerror(error != 0 ? error : EIO));
        splitter.clear();
    }
    finish_input(sh, splitter);
}

void run_terminal(shell& sh) {
    // The greeting and prompts go where the user looks, not into a file that standard output
    // was sent to.
    rl_outstream = ::isatty(STDOUT_FILENO) != 0 ? stdout : stderr;
    const std::string history = history_file();
    using_history();
    if (!history.empty()) read_history(history.c_str());
    std::fprintf(rl_outstream, "kiv_host %s on %s: SQL ends with \";\", .help lists the commands, Ctrl-D leaves\n",
                 KIV_HOST_VERSION, sh.path.c_str());
    const interrupt_handler handler(sh.db.sqlite());
    statement_splitter splitter;
    while (!stopped(sh)) {
        interrupted = 0;
        sh.printer.start_group();
        const std::unique_ptr<char, decltype(&std::free)> line(
            readline(splitter.blank() ? prompt : continuation_prompt), &std::free);
        if (line == nullptr && interrupted == 0) break;  // Ctrl-D or the end of input
        if (line == nullptr || interrupted != 0) {       // Ctrl-C while typing: drop the statement
            std::fputc('\n', rl_outstream);
            splitter.clear();
            continue;
        }
        if (line.get()[0] != '\0') add_history(line.get());
        const std::string text = std::string(line.get()) + '\n';
        feed_line(sh, splitter, text.data(), text.size());
    }
    if (!stopped(sh)) std::fputc('\n', rl_outstream);
    if (!history.empty()) write_history(history.c_str());
}

}  // namespace kiv_host
