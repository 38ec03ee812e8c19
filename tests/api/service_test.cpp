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
    EXPECT_FALSE(kiv_test::service_finished(service, 50)) << "objects are alive: no stop yet";
    std::atomic<bool> nested{false};  // and work still runs; a job may hand over more without blocking
    kiv_database_exec([&] { kiv_database_set_interval([&] { return nested = true, false; }, 0, __FILE__, __LINE__); },
                      __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::pump_until(service, [&] { return nested.load(); }));
    kiv_sqlite_destroy(a, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker());
    EXPECT_EQ(out.take(), objects_left(1));
    kiv_sqlite_destroy(b, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::service_finished(service));
    EXPECT_EQ(out.take(), objects_left(0) + service_stopped);
    EXPECT_FALSE(kiv_thread_service_find("database"));
    kiv_database_init();  // the request still stands: the new service stops when its list empties
    const kiv_thread_service_handle again = kiv_thread_service_find("database");
    kiv_sqlite_destroy(kiv_sqlite_new(":memory:", "c"), __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::service_finished(again));
    EXPECT_EQ(out.take(), objects_left(0) + service_stopped);
    kiv_database_init();
    ASSERT_TRUE(kiv_test::join_database_service(7));
    EXPECT_EQ(out.take(), kiv_test::shutdown_request + service_stopped)
        << "joined without any object: it stops at once";
}

// A host that exits without a join, from its main thread, from another thread, from inside one
// of the library's jobs, or from work the library never saw (a job or a timer the host hands the
// service itself), with a connection open and jobs still queued: the exit ends with its code,
// the queued commits land, and the console holds only shutdown lines in their order.
TEST(HostProcess, ExitEndsAndQueuedCommitsLand) {
    using insert_job = std::function<std::function<void()>(int)>;
    const auto foreign = [](std::function<void()> job) {  // handed to the service, not to the library
        kiv_thread_service_exec(kiv_thread_service_find("database"), std::move(job), __FILE__, __LINE__);
    };
    const struct {
        const char* what;
        int code;
        std::function<void(const insert_job&)> how;
        std::string rows, lines;
    } cases[] = {
        {"main thread", 3,
         [](auto insert) {
             kiv_database_exec(insert(1), __FILE__, __LINE__), kiv_database_exec(insert(2), __FILE__, __LINE__),
                 std::exit(3);
         },
         "1,2", ""},
        // The exit waits for the job running elsewhere (it inserts only once the exit has begun),
        // then runs the one queued behind it, once.
        {"another thread, a job running", 4,
         [](auto insert) {
             static std::atomic<bool> started{false}, exit_began{false};
             std::atexit([] { exit_began = true; });  // runs before the library's exit step
             kiv_database_exec(
                 [=] { started = true, kiv_test::pump_until({}, [] { return exit_began.load(); }), insert(1)(); },
                 __FILE__, __LINE__);
             kiv_database_exec(insert(2), __FILE__, __LINE__);
             std::thread([] { kiv_test::pump_until({}, [] { return started.load(); }), std::exit(4); }).detach();
         },
         "1,2", ""},
        // Handed over from a job, so that the exit comes only after the insert behind it is queued.
        {"a library job", 5,
         [](auto insert) {
             kiv_database_exec(
                 [=] {
                     kiv_database_exec(insert(1), __FILE__, __LINE__),
                         kiv_database_exec([] { std::exit(5); }, __FILE__, __LINE__);
                     kiv_database_exec(insert(2), __FILE__, __LINE__);
                 },
                 __FILE__, __LINE__);
         },
         "1,2", ""},
        {"a job of the host's", 6,
         [&](auto insert) {
             kiv_database_exec([=] { foreign([] { std::exit(6); }), kiv_database_exec(insert(1), __FILE__, __LINE__); },
                               __FILE__, __LINE__);
         },
         "1", ""},
        {"an interval of the host's", 7,
         [](auto insert) {
             kiv_database_exec(
                 [=] {
                     kiv_thread_service_set_interval(
                         kiv_thread_service_find("database"), [] { return std::exit(7), true; }, 0, __FILE__, __LINE__);
                     kiv_database_exec(insert(1), __FILE__, __LINE__);
                 },
                 __FILE__, __LINE__);
         },
         "1", ""},
        {"joined, an object alive", 8,
         [](auto insert) {
             kiv_thread_service_join(kiv_thread_service_find("database"), 0);
             kiv_database_exec(insert(1), __FILE__, __LINE__), std::exit(8);
         },
         "1", kiv_test::shutdown_request},
        // The exit runs what was queued before it, not what that hands over in turn: no endless drain.
        {"a job that queues itself again", 9,
         [](auto insert) {
             static std::function<void()> again = [] { kiv_database_exec(again, __FILE__, __LINE__); };
             kiv_database_exec(insert(1), __FILE__, __LINE__), kiv_database_exec(again, __FILE__, __LINE__),
                 std::exit(9);
         },
         "1", ""},
    };
    kiv_test::temp_dir dir;
    for (const auto& c : cases) {
        const std::string path = dir.file(c.what), console = path + ".out";
        EXPECT_EQ(kiv_test::run_in_child([&] {
                      dup2(open(console.c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
                      kiv_database_init();
                      const kiv_sqlite_handle db = kiv_sqlite_new(path, "exit");
                      if (kiv_sqlite_open(db) ||
                          kiv_sqlite_sql_stmt(db, "PRAGMA journal_mode=WAL; CREATE TABLE t(v)", nullptr))
                          return 2;
                      c.how([db](int v) {
                          return [db, v] {
                              kiv_sqlite_sql_stmt(db, ("INSERT INTO t VALUES(" + std::to_string(v) + ")").c_str(),
                                                  nullptr);
                          };
                      });
                      for (;;)
                          std::getenv("KIV_DOUBLE_THREADLESS") ? kiv_database_run_once()
                                                               : pause();  // only a pump runs work there
                  }),
                  c.code)
            << c.what;
        EXPECT_EQ(kiv_test::sqlite_query(path, "SELECT group_concat(v) FROM t"), c.rows) << c.what;
        EXPECT_EQ(kiv_test::read_file(console), c.lines) << c.what;
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
        EXPECT_EQ(kiv_sqlite_open(db) +
                      kiv_sqlite_sql_stmt(db, ("INSERT INTO t VALUES(" + std::to_string(v) + ")").c_str(), nullptr),
                  0);
        return db;
    };
    const std::function<void()> children[] = {
        [] {},                    // never calls the library
        [&] {                     // a whole session; the second destroy warns, or on a core without "object-destroyed"
            kiv_database_init();  // posts a second job, which finds nothing to do
            const kiv_sqlite_handle db = write(1);
            kiv_sqlite_destroy(db, __FILE__, __LINE__), kiv_sqlite_destroy(db, __FILE__, __LINE__);
            kiv_test::join_database_service(0, -1);
        },
        [&] { kiv_database_init(), write(2); },  // exits with the service running, the object never destroyed
        [&] {
            kiv_database_init(), write(3), kiv_thread_service_join(kiv_thread_service_find("database"), 0);
        },                                                                               // draining
        [&] { kiv_database_init(), kiv_test::join_database_service(0, -1), write(4); },  // the service finished
        [&] {  // a quit job run by the host's own run_once destroys the last object and joins
            kiv_database_init();
            const kiv_sqlite_handle db = write(5);
            const std::thread::id host = std::this_thread::get_id();
            std::function<void()> quit = [&] {
                if (std::this_thread::get_id() != host) return kiv_database_exec(quit, __FILE__, __LINE__);
                kiv_sqlite_destroy(db, __FILE__, __LINE__),
                    kiv_thread_service_join(kiv_thread_service_find("database"), 0);
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
