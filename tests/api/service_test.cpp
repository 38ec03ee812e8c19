// The "database" service: the shutdown handshake with its console lines, the work forwarded to
// it, and a process that exits without shutting anything down.

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <thread>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

const std::string request = "DATABASE SERVICE SHOT DONW REQUEST\n";
const std::string stopped = "DATABASE THREAD SERVICE STOPPED\nDATABASE SERVICE DONE\n";
std::string left(int n) { return "left objects in database reference count: " + std::to_string(n) + "\n"; }

TEST(DatabaseService, ShutdownWaitsForTheLastObjectAndInitStartsAgain) {
    kiv_test::cout_capture out;
    kiv_database_init();
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    kiv_database_init();  // creates nothing
    EXPECT_EQ(kiv_thread_service_find("database"), service);
    const kiv_sqlite_handle a = kiv_sqlite_new(":memory:", "a"), b = kiv_sqlite_new(":memory:", "b");
    ASSERT_EQ(kiv_sqlite_open(a), SQLITE_OK);
    kiv_thread_service_join(service, 0);
    EXPECT_EQ(out.take(), request);
    EXPECT_FALSE(kiv_thread_service_wait(service, 50)) << "objects are alive: no stop yet";
    kiv_sqlite_destroy(a, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker()) << "the service still takes work";
    EXPECT_EQ(out.take(), left(1));
    kiv_sqlite_destroy(b, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_thread_service_wait(service, 10000));
    EXPECT_EQ(out.take(), left(0) + stopped);
    EXPECT_FALSE(kiv_thread_service_find("database"));

    // A new service starts with the request still standing: it stops when its list empties.
    kiv_database_init();
    const kiv_thread_service_handle again = kiv_thread_service_find("database");
    ASSERT_TRUE(again);
    kiv_sqlite_destroy(kiv_sqlite_new(":memory:", "c"), __FILE__, __LINE__);
    ASSERT_TRUE(kiv_thread_service_wait(again, 10000));
    EXPECT_EQ(out.take(), left(0) + stopped);
    // Joined without any object: it stops at once.
    kiv_database_init();
    ASSERT_TRUE(kiv_test::join_database_service(7));
    EXPECT_EQ(out.take(), request + stopped);
}

TEST(DatabaseService, ForwardsWorkToTheWorker) {
    {
        kiv_test::cout_capture out;  // before init the thread service gets an empty handle and warns
        kiv_database_exec([] { ADD_FAILURE() << "ran without a service"; }, __FILE__, __LINE__);
        EXPECT_EQ(kiv_database_set_timeout([] {}, 1, __FILE__, __LINE__), 0ul);
        EXPECT_EQ(out.take(), kiv_test::null_object_line("kiv_thread_service_exec") +
                                  kiv_test::null_object_line("kiv_thread_service_set_timeout"));
    }
    kiv_database_init();
    std::atomic<int> fired{0}, ticks{0};
    std::promise<std::thread::id> interval_done;
    const unsigned long cancelled = kiv_database_set_timeout([&] { fired += 100; }, 50, __FILE__, __LINE__);
    const unsigned long timeout = kiv_database_set_timeout([&] { fired += 1; }, 1, __FILE__, __LINE__);
    const unsigned long interval = kiv_database_set_interval(
        [&] {
            if (++ticks < 3) return true;
            interval_done.set_value(std::this_thread::get_id());
            return false;
        },
        1, __FILE__, __LINE__);
    const unsigned long cleared = kiv_database_set_interval([&] { return bool(fired += 1000); }, 40, __FILE__, __LINE__);
    EXPECT_TRUE(cancelled != 0 && timeout != cancelled && interval != timeout && cleared != interval);
    kiv_database_clear_timeout(cancelled);
    kiv_database_clear_interval(cleared);
    std::future<std::thread::id> worker = interval_done.get_future();
    ASSERT_EQ(worker.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_NE(worker.get(), std::this_thread::get_id());
    std::promise<void> nested;  // a job may schedule more work without blocking on the library's lock
    kiv_database_exec([&] { kiv_database_exec([&] { nested.set_value(); }, __FILE__, __LINE__); }, __FILE__, __LINE__);
    ASSERT_EQ(nested.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    std::this_thread::sleep_for(std::chrono::milliseconds(80));  // past the cancelled deadlines
    EXPECT_EQ(fired.load(), 1);
    EXPECT_EQ(ticks.load(), 3);
    ASSERT_TRUE(kiv_test::join_database_service());
}

// A host that exits with a connection open, never destroyed nor joined, from its main thread or
// from inside a job: the exit code stands and the connection is closed cleanly (SQLite then
// checkpoints its write-ahead log and removes it).
TEST(HostProcess, ExitClosesOpenConnections) {
    kiv_test::temp_dir dir;
    for (const bool from_job : {false, true}) {
        const std::string path = dir.file(from_job ? "job.db" : "main.db");
        const int status = kiv_test::run_in_child([&] {
            kiv_database_init();
            kiv_sqlite_handle db = kiv_sqlite_new(path, "exit");
            if (kiv_sqlite_open(db) != SQLITE_OK ||
                kiv_sqlite_sql_stmt(db, "PRAGMA journal_mode=WAL; CREATE TABLE t(v); INSERT INTO t VALUES (42);",
                                    nullptr) != SQLITE_OK ||
                kiv_sqlite_prepare(db, "SELECT v FROM t") != SQLITE_OK || access((path + "-wal").c_str(), F_OK) != 0)
                return 2;
            db.reset();  // held by the library alone from here
            if (!from_job) std::exit(3);
            kiv_database_exec([] { std::exit(4); }, __FILE__, __LINE__);
            for (;;) pause();
        });
        EXPECT_EQ(status, from_job ? 4 : 3) << "from a job: " << from_job;
        EXPECT_NE(access((path + "-wal").c_str(), F_OK), 0) << "not closed cleanly; from a job: " << from_job;
    }
}

}  // namespace
