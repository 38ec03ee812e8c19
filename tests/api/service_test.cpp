// The "database" service: start, the shutdown handshake with its console lines, and the work
// forwarded to it. Each test runs in a process of its own (ctest), so each starts unjoined.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

const std::string request = "DATABASE SERVICE SHOT DONW REQUEST\n";
const std::string stopped = "DATABASE THREAD SERVICE STOPPED\n";
const std::string done = "DATABASE SERVICE DONE\n";
std::string left(int n) { return "left objects in database reference count: " + std::to_string(n) + "\n"; }

TEST(DatabaseService, JoinWithoutLiveObjectsStopsAtOnceAndInitStartsAgain) {
    kiv_test::cout_capture out;
    kiv_database_init();
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    ASSERT_TRUE(service);
    kiv_database_init();  // a second init creates nothing
    EXPECT_EQ(kiv_thread_service_find("database"), service);

    ASSERT_TRUE(kiv_test::join_database_service(7));
    EXPECT_EQ(out.take(), request + stopped + done);
    EXPECT_FALSE(kiv_thread_service_find("database"));

    // A new service starts with the shutdown already requested: the removal that empties the
    // list stops it.
    kiv_database_init();
    const kiv_thread_service_handle again = kiv_thread_service_find("database");
    ASSERT_TRUE(again);
    EXPECT_NE(again, service);
    kiv_sqlite_handle c = kiv_sqlite_new(":memory:", "m");
    ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_thread_service_wait(again, 10000));
    EXPECT_EQ(out.take(), left(0) + stopped + done);
}

TEST(DatabaseService, JoinIsDeferredUntilTheLastObjectIsDestroyed) {
    kiv_database_init();
    kiv_test::cout_capture out;
    const kiv_sqlite_handle a = kiv_sqlite_new(":memory:", "a");
    const kiv_sqlite_handle b = kiv_sqlite_new(":memory:", "b");
    ASSERT_EQ(kiv_sqlite_open(a), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_open(b), SQLITE_OK);
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    kiv_thread_service_join(service, 0);
    EXPECT_EQ(out.take(), request);
    EXPECT_FALSE(kiv_thread_service_wait(service, 50)) << "objects are alive: no stop yet";
    ASSERT_TRUE(kiv_test::drain_database_worker()) << "the service still takes work";

    kiv_sqlite_destroy(a, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker());
    EXPECT_EQ(out.take(), left(1));
    kiv_sqlite_destroy(b, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_thread_service_wait(service, 10000));
    EXPECT_EQ(out.take(), left(0) + stopped + done);
    EXPECT_FALSE(kiv_sqlite_is_opened(a));
    EXPECT_FALSE(kiv_sqlite_is_opened(b));
}

TEST(DatabaseService, ForwardsWorkToTheWorker) {
    {
        // Before init the empty handle goes to the thread service, which only warns.
        kiv_test::cout_capture out;
        kiv_database_exec([] { ADD_FAILURE() << "ran without a service"; }, __FILE__, __LINE__);
        EXPECT_EQ(kiv_database_set_timeout([] {}, 1, __FILE__, __LINE__), 0ul);
        EXPECT_EQ(out.take(), kiv_test::null_object_line("kiv_thread_service_exec") +
                                  kiv_test::null_object_line("kiv_thread_service_set_timeout"));
    }
    kiv_database_init();
    std::atomic<int> fired{0};
    std::atomic<int> ticks{0};
    std::promise<void> interval_done;
    const unsigned long cancelled = kiv_database_set_timeout([&] { fired += 100; }, 50, __FILE__, __LINE__);
    const unsigned long timeout = kiv_database_set_timeout([&] { fired += 1; }, 1, __FILE__, __LINE__);
    const unsigned long interval = kiv_database_set_interval(
        [&] {
            if (++ticks < 3) return true;
            interval_done.set_value();
            return false;
        },
        1, __FILE__, __LINE__);
    EXPECT_NE(cancelled, 0ul);
    EXPECT_NE(timeout, cancelled);
    EXPECT_NE(interval, timeout);
    kiv_database_clear_timeout(cancelled);
    kiv_database_clear_interval(987654);  // unknown: nothing happens
    ASSERT_EQ(interval_done.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);

    // A job may schedule more work without blocking on the library's lock.
    std::promise<void> nested;
    kiv_database_exec([&] { kiv_database_exec([&] { nested.set_value(); }, __FILE__, __LINE__); },
                      __FILE__, __LINE__);
    ASSERT_EQ(nested.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    ASSERT_TRUE(kiv_test::drain_database_worker(std::chrono::milliseconds(200)));
    std::this_thread::sleep_for(std::chrono::milliseconds(80));  // past the cancelled deadline
    EXPECT_EQ(fired.load(), 1);
    EXPECT_EQ(ticks.load(), 3);
    EXPECT_GE(kiv_database_run_once(), 0);
    ASSERT_TRUE(kiv_test::join_database_service());
}

}  // namespace
