// Crash durability: a writer process is killed with SIGKILL at a random moment while it commits;
// afterwards the database is intact and holds every commit it reported, each one whole.

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <string>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

extern char** environ;

namespace {

constexpr int rounds = 20;
constexpr int parts = 5;  // rows per transaction, as the writer makes them

struct round_result {
    long last_reported = 0;
    long reports = 0;
    bool killed = false;
};

// Starts the writer, reads its reports for `lifetime`, kills it and reads what it wrote before.
round_result run_writer(const std::string& path, const char* mode, std::chrono::milliseconds lifetime) {
    round_result result;
    int out[2];
    if (::pipe(out) != 0) return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    std::string program = KIV_CRASH_WRITER;
    std::string database = path;
    std::string journal = mode;
    char* argv[] = {program.data(), database.data(), journal.data(), nullptr};
    pid_t child = 0;
    const int spawned = ::posix_spawn(&child, program.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (spawned != 0) {
        ::close(out[0]);
        return result;
    }

    std::string pending;
    auto consume = [&](int timeout_ms) {
        pollfd p{out[0], POLLIN, 0};
        if (::poll(&p, 1, timeout_ms) <= 0) return false;
        char buffer[4096];
        const ssize_t n = ::read(out[0], buffer, sizeof buffer);
        if (n <= 0) return false;
        pending.append(buffer, static_cast<std::size_t>(n));
        for (std::size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
            result.last_reported = std::stol(pending.substr(0, end));
            ++result.reports;
        }
        return true;
    };
    // The kill comes `lifetime` after the first report, so every round has commits to check.
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (result.reports == 0 && std::chrono::steady_clock::now() < give_up) consume(100);
    const auto deadline = std::chrono::steady_clock::now() + lifetime;
    while (std::chrono::steady_clock::now() < deadline) consume(1);
    ::kill(child, SIGKILL);
    while (consume(1000)) {
    }
    ::close(out[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    result.killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    return result;
}

std::string text_of(const kiv_sqlite_handle& c, const std::string& sql) {
    if (kiv_sqlite_prepare(c, sql) != SQLITE_OK) return "prepare failed";
    const std::string text = kiv_sqlite_step(c) == SQLITE_ROW ? kiv_sqlite_column_text(c, 0) : "no row";
    kiv_sqlite_finalize(c);
    return text;
}

TEST(CrashDurability, KilledWriterLosesNoReportedCommit) {
    kiv_database_init();
    kiv_test::cout_capture out;  // the live-object lines
    const unsigned seed = static_cast<unsigned>(std::random_device{}());
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> lifetime_ms(0, 60);
    long total_commits = 0;
    for (const char* mode : {"delete", "wal"}) {
        kiv_test::temp_dir dir;
        const std::string path = dir.file("crash.db");
        long reported_so_far = 0;
        for (int round = 0; round < rounds; ++round) {
            SCOPED_TRACE(std::string(mode) + " round " + std::to_string(round) + " seed " + std::to_string(seed));
            const round_result r = run_writer(path, mode, std::chrono::milliseconds(lifetime_ms(random)));
            ASSERT_TRUE(r.killed) << "the writer ended before the kill";
            ASSERT_GT(r.reports, 0);
            reported_so_far = r.last_reported;
            total_commits += r.reports;

            const kiv_sqlite_handle c = kiv_sqlite_new(path, "check");
            ASSERT_EQ(kiv_sqlite_try_open(c), SQLITE_OK);
            EXPECT_EQ(text_of(c, "PRAGMA integrity_check"), "ok");
            // Every transaction whole, and none missing up to the last one reported.
            EXPECT_EQ(text_of(c, "SELECT count(*) FROM (SELECT n FROM commits GROUP BY n HAVING count(*) <> " +
                                     std::to_string(parts) + ")"),
                      "0");
            EXPECT_EQ(text_of(c, "SELECT count(DISTINCT n) FROM commits WHERE n <= " + std::to_string(reported_so_far)),
                      std::to_string(reported_so_far));
            // At most the one transaction in flight at the kill went further than its report.
            const long stored = std::stol(text_of(c, "SELECT coalesce(max(n), 0) FROM commits"));
            EXPECT_GE(stored, reported_so_far);
            EXPECT_LE(stored, reported_so_far + 1);
            reported_so_far = stored;  // the next writer goes on from what is stored
            EXPECT_EQ(text_of(c, "PRAGMA journal_mode"), mode);
            kiv_sqlite_destroy(c, __FILE__, __LINE__);
            ASSERT_TRUE(kiv_test::drain_database_worker());
        }
    }
    std::cout.flush();
    ASSERT_TRUE(kiv_test::join_database_service());
    RecordProperty("commits_reported", std::to_string(total_commits));
    std::fprintf(stderr, "crash rounds: %d, commits reported: %ld, seed %u\n", 2 * rounds, total_commits, seed);
}

}  // namespace
