// Reliability: a writer killed with SIGKILL mid-commit loses no commit it reported, and many
// threads creating, using, looking up and destroying objects across a shutdown lose nothing.

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>

#include <atomic>
#include <random>
#include <thread>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

constexpr int parts = 5;  // rows per commit

// Commits transaction n (rows (n, 0..parts-1)) and then reports "n\n" on `report`, until killed.
int commit_until_killed(const std::string& path, const char* mode, int report) {
    const kiv_sqlite_handle db = kiv_sqlite_new(path, "writer");
    if (kiv_sqlite_open(db) != SQLITE_OK ||
        kiv_sqlite_sql_stmt(db, (std::string("PRAGMA journal_mode=") + mode +
                                 "; CREATE TABLE IF NOT EXISTS commits(n, part, PRIMARY KEY(n, part))").c_str(), nullptr) != SQLITE_OK)
        return 3;
    long n = std::stol(kiv_test::query(db, "SELECT coalesce(max(n), 0) FROM commits"));
    if (kiv_sqlite_prepare(db, "INSERT INTO commits VALUES (?1, ?2)") != SQLITE_OK) return 4;
    for (++n;; ++n) {
        if (kiv_sqlite_sql_stmt(db, "BEGIN", nullptr) != SQLITE_OK) return 5;
        for (int part = 0; part < parts; ++part) {
            kiv_sqlite_bind_int64(db, 1, n);
            kiv_sqlite_bind_int(db, 2, part);
            if (kiv_sqlite_step(db) != SQLITE_DONE || kiv_sqlite_reset(db) != SQLITE_OK) return 6;
        }
        const std::string line = std::to_string(n) + "\n";
        if (kiv_sqlite_sql_stmt(db, "COMMIT", nullptr) != SQLITE_OK || ::write(report, line.data(), line.size()) <= 0) return 7;
    }
}

// No database service here: the writer is forked, and a child may run no service of its parent.
TEST(Crash, KilledWriterLosesNoReportedCommit) {
    std::mt19937 random(std::random_device{}());
    long commits = 0;
    for (const char* mode : {"delete", "wal"}) {
        kiv_test::temp_dir dir;
        const std::string path = dir.file("crash.db");
        long reported = 0;
        for (int round = 0; round < 10; ++round) {
            SCOPED_TRACE(std::string(mode) + " round " + std::to_string(round));
            int pipe_ends[2];
            ASSERT_EQ(pipe(pipe_ends), 0);
            std::cout.flush();
            const pid_t child = fork();
            if (child == 0) _exit(commit_until_killed(path, mode, pipe_ends[1]));
            close(pipe_ends[1]);
            std::string text;
            const auto read_some = [&](int timeout_ms) {
                pollfd p{pipe_ends[0], POLLIN, 0};
                char buffer[4096];
                const ssize_t n = poll(&p, 1, timeout_ms) > 0 ? ::read(pipe_ends[0], buffer, sizeof buffer) : 0;
                text.append(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
                return n > 0;
            };
            for (int waited = 0; text.empty() && waited < 200; ++waited) read_some(100);
            const auto kill_at = std::chrono::steady_clock::now() + std::chrono::milliseconds(random() % 40);
            while (std::chrono::steady_clock::now() < kill_at) read_some(1);
            kill(child, SIGKILL);
            while (read_some(1000)) {
            }
            close(pipe_ends[0]);
            int status = 0;
            waitpid(child, &status, 0);
            ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended before the kill: " << WEXITSTATUS(status);
            ASSERT_FALSE(text.empty());
            commits += kiv_test::count_of(text, "\n");
            reported = std::stol(text.substr(text.rfind('\n', text.size() - 2) + 1));

            const kiv_sqlite_handle c = kiv_sqlite_new(path, "check");
            ASSERT_EQ(kiv_sqlite_try_open(c), SQLITE_OK);
            EXPECT_EQ(kiv_test::query(c, "PRAGMA integrity_check"), "ok");
            EXPECT_EQ(kiv_test::query(c, "SELECT count(*) FROM (SELECT n FROM commits GROUP BY n HAVING count(*) <> 5)"), "0");
            EXPECT_EQ(kiv_test::query(c, "SELECT count(DISTINCT n) FROM commits WHERE n <= " + std::to_string(reported)),
                      std::to_string(reported));
            const long stored = std::stol(kiv_test::query(c, "SELECT max(n) FROM commits"));
            EXPECT_TRUE(stored == reported || stored == reported + 1) << stored << " stored, " << reported << " reported";
            EXPECT_EQ(kiv_test::query(c, "PRAGMA journal_mode"), mode);
            kiv_sqlite_close(c);
        }
    }
    std::fprintf(stderr, "crash rounds: 20, commits reported: %ld\n", commits);
}

TEST(Stress, WritersLookupsAndAJoinMidway) {
    constexpr int writers = 4, objects = 150, files = 2;
    kiv_database_init();
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    kiv_test::temp_dir dir;
    kiv_test::cout_capture out;
    const kiv_sqlite_handle anchor = kiv_sqlite_new(":memory:", "anchor");  // holds the stop back
    std::atomic<int> created{0};
    std::atomic<bool> writing{true};
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w)
        threads.emplace_back([&, w] {
            for (int i = 0; i < objects; ++i, ++created) {
                const kiv_sqlite_handle c = kiv_sqlite_new(dir.file(std::to_string(i % files)), std::to_string(w * objects + i));
                const std::string values = std::to_string(w) + "," + std::to_string(i);
                EXPECT_EQ(kiv_sqlite_open(c), SQLITE_OK);
                EXPECT_EQ(kiv_sqlite_sql_stmt(c, ("PRAGMA busy_timeout=30000; PRAGMA journal_mode=WAL; CREATE TABLE IF NOT "
                                                  "EXISTS r(w, i); BEGIN IMMEDIATE; INSERT INTO r VALUES (" + values + "), (" +
                                                  values + "); COMMIT").c_str(), nullptr), SQLITE_OK);
                kiv_sqlite_destroy(c, __FILE__, __LINE__);
            }
        });
    std::atomic<long> lookups{0};
    std::thread looker([&] {  // only looks: a found object's statement slot is its owner's
        for (std::mt19937 random(1); writing.load(); ++lookups) {
            const std::string name = std::to_string(random() % (writers * objects));
            const kiv_sqlite_handle hit = kiv_database_get_sqlite(name);
            EXPECT_EQ(hit ? kiv_sqlite_get_name(hit) : name, name);
        }
    });
    while (created.load() < writers * objects / 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    kiv_thread_service_join(service, 0);
    for (std::thread& t : threads) t.join();
    writing = false;
    looker.join();
    EXPECT_FALSE(kiv_thread_service_wait(service, 0)) << "the anchor holds the stop back";
    kiv_sqlite_destroy(anchor, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_thread_service_wait(service, 60000));
    const std::string lines = out.take();
    EXPECT_EQ(kiv_test::count_of(lines, "left objects in database reference count: "), writers * objects + 1u);
    EXPECT_EQ(kiv_test::count_of(lines, "DATABASE SERVICE SHOT DONW REQUEST\n"), 1u);
    const std::string tail = "left objects in database reference count: 0\nDATABASE THREAD SERVICE STOPPED\nDATABASE SERVICE DONE\n";
    EXPECT_EQ(lines.substr(lines.size() - std::min(lines.size(), tail.size())), tail);
    EXPECT_EQ(kiv_test::count_of(lines, "DATABASE THREAD SERVICE STOPPED"), 1u);
    for (int f = 0; f < files; ++f) {
        const kiv_sqlite_handle c = kiv_sqlite_new(dir.file(std::to_string(f)), "check");
        ASSERT_EQ(kiv_sqlite_try_open(c), SQLITE_OK);
        EXPECT_EQ(kiv_test::query(c, "SELECT count(*) || ' ' || count(DISTINCT w * 1000 + i) FROM r WHERE i % 2 = " +
                                         std::to_string(f)),
                  std::to_string(2 * writers * objects / files) + " " + std::to_string(writers * objects / files));
        kiv_sqlite_close(c);
    }
    std::fprintf(stderr, "stress: %d objects, %ld lookups\n", writers * objects, lookups.load());
}

}  // namespace
