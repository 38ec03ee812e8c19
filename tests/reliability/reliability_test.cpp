// Reliability: a writer killed by a signal mid-commit loses no commit it reported, and many
// threads creating, using, looking up and destroying objects across a shutdown lose nothing.

#include "kiv_db_test_util.h"

namespace {

// Commits transaction n, rows (n, 0..4), through `c`; opens it first, in journal `mode`, if need be.
int commit(const kiv_sqlite_handle& c, const std::string& mode, long n) {
    const std::string setup =
        "PRAGMA busy_timeout=30000; PRAGMA journal_mode=" + mode + "; CREATE TABLE IF NOT EXISTS commits(n, part)";
    if (!kiv_sqlite_is_opened(c) && (kiv_sqlite_open(c) || kiv_sqlite_sql_stmt(c, setup.c_str(), nullptr))) return -1;
    return kiv_sqlite_sql_stmt(c,
                               ("BEGIN; WITH RECURSIVE p(x) AS (SELECT 0 UNION ALL SELECT x + 1 FROM p WHERE x < 4) "
                                "INSERT INTO commits SELECT " +
                                std::to_string(n) + ", x FROM p; COMMIT")
                                   .c_str(),
                               nullptr);
}

// `file` as a fresh object finds it: "integrity journal-mode first..last" when commits first to last are there and
// whole.
std::string check(const std::string& file) {
    const kiv_sqlite_handle c = kiv_sqlite_new(file, "check");
    const std::string state =
        kiv_sqlite_try_open(c)
            ? "no file"
            : kiv_test::query(c,
                              "SELECT (SELECT * FROM pragma_integrity_check) || ' ' || (SELECT * FROM "
                              "pragma_journal_mode) || ' ' || iif(count(*) = sum(parts = 5) "
                              "AND count(*) = max(n) - min(n) + 1, min(n) || '..' || max(n), 'broken') FROM (SELECT n, "
                              "count(*) AS parts FROM commits GROUP BY n)");
    kiv_sqlite_close(c);
    return state;
}

// No database service here: the writer is forked, and a child may run no service of its parent.
// The writer is killed once it has acknowledged a few commits, however long they took.
TEST(Crash, KilledWriterLosesNoReportedCommit) {
    kiv_test::temp_dir dir;
    for (const std::string mode : {"delete", "wal"})
        for (int round = 0; round < 5; ++round) {
            const std::string db = dir.file(mode + std::to_string(round)), reports = db + ".reports";
            int acknowledged[2];
            ASSERT_EQ(pipe(acknowledged), 0);
            const pid_t writer = fork();
            if (writer == 0) {  // commits, and reports each by appending "n\n" to `reports`, then a byte to the pipe
                alarm(60);
                const int report = open(reports.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
                const kiv_sqlite_handle c = kiv_sqlite_new(db, "writer");
                for (long n = 1;; ++n)
                    if (commit(c, mode, n) ||
                        write(report, (std::to_string(n) + "\n").c_str(), std::to_string(n).size() + 1) <= 0 ||
                        write(acknowledged[1], "n", 1) != 1)
                        _exit(3);
            }
            close(acknowledged[1]);
            char byte = 0;
            for (int got = 0; got < 8; ++got)  // eight commits acknowledged, then the kill
                ASSERT_EQ(read(acknowledged[0], &byte, 1), 1) << "the writer ended before the kill";
            kill(writer, SIGKILL);
            int status = 0;
            waitpid(writer, &status, 0);
            close(acknowledged[0]);
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
            // Intact, every commit whole, none missing up to the last one reported, at most the one in flight beyond
            // it.
            const long reported = kiv_test::count_of(kiv_test::read_file(reports), "\n");
            const std::string state = check(db), all = "ok " + mode + " 1..";
            EXPECT_TRUE(reported >= 8 &&
                        (state == all + std::to_string(reported) || state == all + std::to_string(reported + 1)))
                << mode << ": " << state << ", " << reported << " reported";
        }
}

TEST(Stress, WritersLookupsAndAJoinMidway) {
    constexpr int writers = 4, objects = 150;
    kiv_database_init();
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    kiv_test::temp_dir dir;
    kiv_test::cout_capture out;
    const kiv_sqlite_handle anchor = kiv_sqlite_new(":memory:", "anchor");  // holds the stop back
    for (const char* file :
         {"0",
          "1"}) {  // WAL first: two connections switching a new file to it may get SQLITE_BUSY, busy timeout or not
        const kiv_sqlite_handle c = kiv_sqlite_new(dir.file(file), std::string("setup ") + file);
        EXPECT_EQ(kiv_sqlite_open(c) || kiv_sqlite_sql_stmt(c, "PRAGMA journal_mode=wal", nullptr), 0);
        kiv_sqlite_destroy(c, __FILE__, __LINE__);
    }
    std::atomic<int> created{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w)
        threads.emplace_back([&, w] {  // object n commits n on a file shared with another writer
            for (int n = w * objects; n < (w + 1) * objects; ++n, ++created) {
                const kiv_sqlite_handle c = kiv_sqlite_new(dir.file(std::to_string(w / 2)), std::to_string(n));
                EXPECT_EQ(commit(c, "wal", n), SQLITE_OK);
                kiv_sqlite_destroy(c, __FILE__, __LINE__);
            }
        });
    threads.emplace_back([&] {  // only looks: a found object's statement slot is its owner's
        for (std::mt19937 random(1); created.load() < writers * objects;) {
            const std::string name = std::to_string(random() % (writers * objects));
            const kiv_sqlite_handle hit = kiv_database_get_sqlite(name);
            EXPECT_EQ(hit ? kiv_sqlite_get_name(hit) : name, name);
        }
    });
    while (created.load() < writers * objects / 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    kiv_thread_service_join(service, 0);
    for (std::thread& t : threads) t.join();
    EXPECT_FALSE(kiv_thread_service_wait(service, 0)) << "the anchor holds the stop back";
    kiv_sqlite_destroy(anchor, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_thread_service_wait(service, 60000));
    const std::string lines = out.take(), left = kiv_test::objects_left(0);
    EXPECT_EQ(lines.substr(lines.find(left)), left + kiv_test::service_stopped);
    EXPECT_EQ(check(dir.file("0")) + ", " + check(dir.file("1")), "ok wal 0..299, ok wal 300..599");
}

}  // namespace

namespace {

// Children forked while another thread is inside the library and the framework (creating,
// looking up and destroying objects, handing work over) find every lock free: each runs a
// whole session of its own. Not inside SQLite, whose own locks a child may find held.
TEST(Fork, ChildrenForkedBesideLibraryCallsRunSessions) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer cannot follow threads started in a forked child of a process with threads";
#endif
    kiv_database_init();
    std::atomic<bool> stop{false};
    std::thread busy([&] {
        while (!stop) {
            const kiv_sqlite_handle c = kiv_sqlite_new(":memory:", "busy");
            kiv_database_get_sqlite("busy");
            kiv_sqlite_destroy(c, __FILE__, __LINE__);
        }
    });
    for (int child = 0; child < 40; ++child) {
        EXPECT_EQ(kiv_test::run_in_child(
                      [] {
                          kiv_database_init();
                          const kiv_sqlite_handle c = kiv_sqlite_new(":memory:", "child");
                          if (kiv_sqlite_open(c) != SQLITE_OK) return 2;
                          kiv_sqlite_destroy(c, __FILE__, __LINE__);
                          return kiv_test::join_database_service() ? 0 : 3;
                      },
                      20),
                  0)
            << "child " << child << " (1014: it hung)";
    }
    stop = true;
    busy.join();
    EXPECT_TRUE(kiv_test::join_database_service());
}

}  // namespace
