// The whole path a host takes, through the exported API only.

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

TEST(EndToEnd, TenThousandRowsWrittenReadAndShutDown) {
    constexpr int rows = 10000;
    kiv_test::temp_dir dir;
    kiv_test::cout_capture out;
    kiv_database_init();
    kiv_sqlite_handle db = kiv_sqlite_new(dir.file("e2e.db"), "e2e");
    ASSERT_EQ(kiv_sqlite_open(db), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_sql_stmt(db, "CREATE TABLE item(id INTEGER PRIMARY KEY, label TEXT, weight REAL)",
                                  nullptr), SQLITE_OK);

    ASSERT_EQ(kiv_sqlite_sql_stmt(db, "BEGIN", nullptr), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(db, "INSERT INTO item(id, label, weight) VALUES (?, ?, ?)"), SQLITE_OK);
    for (int i = 1; i <= rows; ++i) {
        const std::string label = "item-" + std::to_string(i);
        ASSERT_EQ(kiv_sqlite_bind_int(db, 1, i), SQLITE_OK);
        ASSERT_EQ(kiv_sqlite_bind_text(db, 2, label.data(), label.size()), SQLITE_OK);
        ASSERT_EQ(kiv_sqlite_bind_double(db, 3, i * 0.5), SQLITE_OK);
        ASSERT_EQ(kiv_sqlite_step(db), SQLITE_DONE);
        ASSERT_EQ(kiv_sqlite_reset(db), SQLITE_OK);
    }
    kiv_sqlite_finalize(db);
    ASSERT_EQ(kiv_sqlite_sql_stmt(db, "COMMIT", nullptr), SQLITE_OK);

    ASSERT_EQ(kiv_sqlite_prepare(db, "SELECT id, label, weight FROM item ORDER BY id"), SQLITE_OK);
    unsigned long counter = 0;
    long long id_sum = 0;
    int mismatches = 0;
    EXPECT_EQ(kiv_sqlite_rows_each(db, counter,
                                   [&](kiv_sqlite_handle row, unsigned long index) {
                                       const int id = kiv_sqlite_column_int(row, 0);
                                       id_sum += id;
                                       if (id != static_cast<int>(index) + 1 ||
                                           kiv_sqlite_column_text(row, 1) != "item-" + std::to_string(id) ||
                                           kiv_sqlite_column_double(row, 2) != id * 0.5)
                                           ++mismatches;
                                       return true;
                                   }),
              SQLITE_DONE);
    EXPECT_EQ(counter, static_cast<unsigned long>(rows));
    EXPECT_EQ(id_sum, static_cast<long long>(rows) * (rows + 1) / 2);
    EXPECT_EQ(mismatches, 0);

    // Destroyed on the database worker; the join then completes at once.
    const boost::weak_ptr<_kiv_sqlite> watch = db;
    kiv_sqlite_destroy(db, __FILE__, __LINE__);
    db.reset();
    ASSERT_TRUE(kiv_test::drain_database_worker());
    ASSERT_TRUE(kiv_test::join_database_service());
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(out.str(),
              "left objects in database reference count: 0\n"
              "DATABASE SERVICE SHOT DONW REQUEST\n"
              "DATABASE THREAD SERVICE STOPPED\n"
              "DATABASE SERVICE DONE\n");
}

// A connection still open when the process ends is finalized and closed by its destructor, so
// SQLite checkpoints its write-ahead log and removes it: the sign of a clean close.
TEST(EndToEnd, ObjectOpenAtExitIsClosedByItsDestructor) {
    kiv_test::temp_dir dir;
    const std::string path = dir.file("exit.db");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        {
            kiv_database_init();
            const kiv_sqlite_handle db = kiv_sqlite_new(path, "exit");
            if (kiv_sqlite_open(db) != SQLITE_OK) _exit(2);
            if (kiv_sqlite_sql_stmt(db, "PRAGMA journal_mode=WAL; CREATE TABLE t(v); INSERT INTO t VALUES (42);",
                                    nullptr) != SQLITE_OK)
                _exit(3);
            if (kiv_sqlite_prepare(db, "SELECT v FROM t") != SQLITE_OK || kiv_sqlite_step(db) != SQLITE_ROW) _exit(4);
            if (access((path + "-wal").c_str(), F_OK) != 0) _exit(5);
        }
        std::exit(0);  // neither destroyed nor joined
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(access((path + "-wal").c_str(), F_OK), 0) << "the connection was not closed cleanly";

    const kiv_sqlite_handle check = kiv_sqlite_new(path, "check");
    ASSERT_EQ(kiv_sqlite_try_open(check), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(check, "SELECT v FROM t"), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_step(check), SQLITE_ROW);
    EXPECT_EQ(kiv_sqlite_column_int(check, 0), 42);
    kiv_sqlite_finalize(check);
    kiv_sqlite_close(check);
}

}  // namespace
