// Reliability: a writer killed with SIGKILL mid-commit loses no commit it reported, and many
// threads creating, using, looking up and destroying objects across a shutdown lose nothing.

#include "kiv_db_test_util.h"

namespace {

// Commits transaction n, rows (n, 0..4), then appends "n\n" to the file `report`, until killed.
int commit_until_killed(const std::string& path, const std::string& mode, int report) {
    const kiv_sqlite_handle db = kiv_sqlite_new(path, "writer");
    if (kiv_sqlite_open(db) || kiv_sqlite_sql_stmt(db, ("PRAGMA journal_mode=" + mode + "; CREATE TABLE IF NOT EXISTS "
                                                        "commits(n, part, PRIMARY KEY(n, part))").c_str(), nullptr))
        return 3;
    for (long n = std::stol(kiv_test::query(db, "SELECT coalesce(max(n), 0) + 1 FROM commits"));; ++n) {
        if (kiv_sqlite_sql_stmt(db, ("BEGIN; WITH RECURSIVE p(x) AS (SELECT 0 UNION ALL SELECT x + 1 FROM p WHERE x < 4) "
                                     "INSERT INTO commits SELECT " + std::to_string(n) + ", x FROM p").c_str(), nullptr))
            return 4;
        const std::string line = std::to_string(n) + "\n";
        if (kiv_sqlite_sql_stmt(db, "COMMIT", nullptr) || write(report, line.data(), line.size()) <= 0) return 5;
    }
}

// No database service here: the writer is forked, and a child may run no service of its parent.
TEST(Crash, KilledWriterLosesNoReportedCommit) {
    std::mt19937 random(std::random_device{}());
    long commits = 0;
    for (const std::string mode : {"delete", "wal"}) {
        kiv_test::temp_dir dir;
        for (int round = 0; round < 10; ++round) {
            SCOPED_TRACE(mode + " round " + std::to_string(round));
            const std::string reports = dir.file("reports");
            std::remove(reports.c_str());
            const pid_t child = fork();
            if (child == 0) _exit(commit_until_killed(dir.file("crash.db"), mode, open(reports.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)));
            for (int waited = 0; kiv_test::read_file(reports).empty() && waited < 20000; ++waited) poll(nullptr, 0, 1);
            poll(nullptr, 0, static_cast<int>(random() % 40));  // the first report, then 0 to 40 ms more
            kill(child, SIGKILL);
            int status = 0;
            waitpid(child, &status, 0);
            const std::string text = kiv_test::read_file(reports);
            ASSERT_TRUE(WIFSIGNALED(status) && !text.empty()) << "the writer ended before the kill: " << WEXITSTATUS(status);
            commits += kiv_test::count_of(text, "\n");
            const std::string reported = std::to_string(std::stol(text.substr(text.rfind('\n', text.size() - 2) + 1)));
            const kiv_sqlite_handle c = kiv_sqlite_new(dir.file("crash.db"), "check");
            ASSERT_EQ(kiv_sqlite_try_open(c), SQLITE_OK);
            EXPECT_EQ(kiv_test::query(c, "PRAGMA integrity_check") + kiv_test::query(c, "PRAGMA journal_mode"), "ok" + mode);
            // Every commit whole, none missing up to the last one reported, at most the one in flight beyond it.
            EXPECT_EQ(kiv_test::query(c, "SELECT count(*) FROM (SELECT n FROM commits GROUP BY n HAVING count(*) <> 5)"), "0");
            EXPECT_EQ(kiv_test::query(c, "SELECT count(DISTINCT n) = max(n) AND max(n) - " + reported + " IN (0, 1) FROM commits"), "1")
                << reported << " reported";
            kiv_sqlite_close(c);
        }
    }
    std::fprintf(stderr, "crash rounds: 20, commits reported: %ld\n", commits);
}

TEST(Stress, WritersLookupsAndAJoinMidway) {
    constexpr int writers = 4, objects = 150;
    kiv_database_init();
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    kiv_test::temp_dir dir;
    kiv_test::cout_capture out;
    const kiv_sqlite_handle anchor = kiv_sqlite_new(":memory:", "anchor");  // holds the stop back
    std::atomic<int> created{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w)
        threads.emplace_back([&, w] {
            for (int i = 0; i < objects; ++i, ++created) {
                const kiv_sqlite_handle c = kiv_sqlite_new(dir.file(std::to_string(i % 2)), std::to_string(w * objects + i));
                const std::string row = "(" + std::to_string(w) + "," + std::to_string(i) + ")";
                EXPECT_EQ(kiv_sqlite_open(c) + kiv_sqlite_sql_stmt(c, ("PRAGMA busy_timeout=30000; PRAGMA journal_mode=WAL; CREATE TABLE IF NOT "
                                                                       "EXISTS r(w, i); INSERT INTO r VALUES " + row + "," + row).c_str(), nullptr), 0);
                kiv_sqlite_destroy(c, __FILE__, __LINE__);
            }
        });
    std::atomic<long> lookups{0};
    threads.emplace_back([&] {  // only looks: a found object's statement slot is its owner's
        for (std::mt19937 random(1); created.load() < writers * objects; ++lookups) {
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
    const std::string lines = out.take(), left = "left objects in database reference count: ";
    EXPECT_EQ(kiv_test::count_of(lines, left) + kiv_test::count_of(lines, "DATABASE"), writers * objects + 4u);
    EXPECT_EQ(lines.substr(lines.find(left + "0\n")), left + "0\nDATABASE THREAD SERVICE STOPPED\nDATABASE SERVICE DONE\n");
    for (const char* file : {"0", "1"}) {
        const kiv_sqlite_handle c = kiv_sqlite_new(dir.file(file), "check");
        ASSERT_EQ(kiv_sqlite_try_open(c), SQLITE_OK);
        EXPECT_EQ(kiv_test::query(c, "SELECT count(*) || ' ' || count(DISTINCT w * 1000 + i) || ' ' || max(i % 2) FROM r"),
                  std::to_string(writers * objects) + " " + std::to_string(writers * objects / 2) + " " + file);
        kiv_sqlite_close(c);
    }
    std::fprintf(stderr, "stress: %d objects, %ld lookups\n", writers * objects, lookups.load());
}

}  // namespace
