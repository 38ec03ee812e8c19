// The "database" service: the shutdown handshake with its console lines, and a host that exits
// without shutting anything down.

#include "kiv_db_test_util.h"

namespace {

using kiv_test::objects_left, kiv_test::service_stopped;

TEST(DatabaseService, ShutdownWaitsForTheLastObjectAndInitStartsAgain) {
    kiv_test::cout_capture out;
    kiv_database_init();
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    kiv_database_init();  // creates nothing
    EXPECT_EQ(kiv_thread_service_find("database"), service);
    const kiv_sqlite_handle a = kiv_sqlite_new(":memory:", "a"), b = kiv_sqlite_new(":memory:", "b");
    kiv_thread_service_join(service, 0);
    EXPECT_EQ(out.take(), kiv_test::shutdown_request);
    EXPECT_FALSE(kiv_thread_service_wait(service, 50)) << "objects are alive: no stop yet";
    std::promise<void> nested;  // and work still runs; a job may hand over more without blocking
    kiv_database_exec([&] { kiv_database_exec([&] { nested.set_value(); }, __FILE__, __LINE__); }, __FILE__, __LINE__);
    ASSERT_EQ(nested.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    kiv_sqlite_destroy(a, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker());
    EXPECT_EQ(out.take(), objects_left(1));
    kiv_sqlite_destroy(b, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_thread_service_wait(service, 10000));
    EXPECT_EQ(out.take(), objects_left(0) + service_stopped);
    EXPECT_FALSE(kiv_thread_service_find("database"));
    kiv_database_init();  // the request still stands: the new service stops when its list empties
    const kiv_thread_service_handle again = kiv_thread_service_find("database");
    kiv_sqlite_destroy(kiv_sqlite_new(":memory:", "c"), __FILE__, __LINE__);
    ASSERT_TRUE(again && kiv_thread_service_wait(again, 10000));
    EXPECT_EQ(out.take(), objects_left(0) + service_stopped);
    kiv_database_init();
    ASSERT_TRUE(kiv_test::join_database_service(7));
    EXPECT_EQ(out.take(), kiv_test::shutdown_request + service_stopped) << "joined without any object: it stops at once";
}

// A host that exits with a connection open, neither destroyed nor joined, from its main thread or
// from inside a job: the exit code stands and the connection is closed cleanly (SQLite then
// checkpoints its write-ahead log and removes it).
TEST(HostProcess, ExitClosesOpenConnections) {
    kiv_test::temp_dir dir;
    for (const int code : {3, 4}) {
        const std::string path = dir.file(std::to_string(code));
        EXPECT_EQ(kiv_test::run_in_child([&] {
                      kiv_database_init();
                      kiv_sqlite_handle db = kiv_sqlite_new(path, "exit");
                      if (kiv_sqlite_open(db) || kiv_sqlite_sql_stmt(db, "PRAGMA journal_mode=WAL; CREATE TABLE t(v)", nullptr) ||
                          kiv_sqlite_prepare(db, "SELECT v FROM t") || access((path + "-wal").c_str(), F_OK))
                          return 2;
                      db.reset();  // held by the library alone from here
                      if (code == 3) std::exit(3);
                      kiv_database_exec([] { std::exit(4); }, __FILE__, __LINE__);
                      for (;;) pause();
                  }),
                  code);
        EXPECT_NE(access((path + "-wal").c_str(), F_OK), 0) << "not closed cleanly; exit " << code;
    }
}

// Forked children, exits and a host that pumps the service, each in a child whose hang ends by
// an alarm. The parent has an open connection, a registry entry and a service when it forks: a
// child starts without them, and its commits reach the parent's database.
TEST(HostProcess, ForkedChildrenExitsAndPumpedJoinsEnd) {
    kiv_test::temp_dir dir;
    const std::string path = dir.file("db");
#ifndef __SANITIZE_THREAD__  // which cannot follow the threads of a child of a process with threads
    kiv_database_init();
#endif
    const kiv_sqlite_handle parent = kiv_sqlite_new(path, "shared");
    ASSERT_EQ(kiv_sqlite_open(parent), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_sql_stmt(parent, "PRAGMA journal_mode=WAL; CREATE TABLE t(v)", nullptr), SQLITE_OK);
    const auto write = [&](int v) {  // a new connection of the child's, one row committed, left open
        const kiv_sqlite_handle db = kiv_sqlite_new(path, "shared");
        EXPECT_EQ(kiv_sqlite_open(db) + kiv_sqlite_sql_stmt(db, ("INSERT INTO t VALUES(" + std::to_string(v) + ")").c_str(), nullptr), 0);
        return db;
    };
    const std::function<void()> children[] = {
        [] {},  // never calls the library
        [&] {  // a whole session; the second destroy warns, or on a core without "object-destroyed"
            kiv_database_init();  // posts a second job, which finds nothing to do
            const kiv_sqlite_handle db = write(1);
            kiv_sqlite_destroy(db, __FILE__, __LINE__), kiv_sqlite_destroy(db, __FILE__, __LINE__);
            kiv_test::join_database_service(0, -1);
        },
        [&] { kiv_database_init(), write(2); },  // exits with the service running, the object never destroyed
        [&] { kiv_database_init(), write(3), kiv_thread_service_join(kiv_thread_service_find("database"), 0); },  // draining
        [&] { kiv_database_init(), kiv_test::join_database_service(0, -1), write(4); },  // the service finished
        [&] {  // a quit job run by the host's own run_once destroys the last object and joins
            kiv_database_init();
            const kiv_sqlite_handle db = write(5);
            const std::thread::id host = std::this_thread::get_id();
            std::function<void()> quit = [&] {
                if (std::this_thread::get_id() != host) return kiv_database_exec(quit, __FILE__, __LINE__);
                kiv_sqlite_destroy(db, __FILE__, __LINE__), kiv_test::join_database_service(0, -1);
            };
            kiv_database_exec(quit, __FILE__, __LINE__);
            while (kiv_database_run_once() >= 0) {}  // -1 once the service has finished
        }};
    for (const auto& child : children) {
        EXPECT_EQ(kiv_test::run_in_child([&]() -> int { child(), std::exit(0); }, 10), 0) << &child - children;
    }
    EXPECT_EQ(kiv_test::query(parent, "SELECT group_concat(v) FROM t"), "1,2,3,4,5");
    kiv_database_init();
    kiv_sqlite_destroy(parent, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_test::join_database_service());
}

}  // namespace
