// The library in a host: lookups from several threads, guards that destroy from inside jobs.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <sstream>
#include <thread>
#include <utility>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

// A deadlock must fail at once, not hang the test (nor its exit): the process ends when `done`
// is still false after ten seconds.
void within_deadline(const char* what, const std::function<bool()>& done) {
    for (int i = 0; i < 1000 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (done()) return;
    std::cerr << "deadlock: " << what << std::endl;
    std::_Exit(1);
}

// Waits until everything posted to the database worker so far has run.
void drain() {
    auto ran = std::make_shared<std::atomic<bool>>(false);
    kiv_database_exec([ran] { *ran = true; }, __FILE__, __LINE__);
    within_deadline("worker", [&] { return ran->load(); });
}

// Keeps std::cout's lines for the test; restores the console on every way out.
struct console_capture {
    std::ostringstream out;
    std::streambuf* const console = std::cout.rdbuf(out.rdbuf());
    ~console_capture() { std::cout.rdbuf(console); }
};

bool marked(const kiv_sqlite_handle& db) {
    std::lock_guard<std::mutex> lock(db->mutex);
    return boost::any_cast<bool>(db->properties["object-destroyed"]);
}

// A host's guard: destroys its connection when the function holding it dies.
struct guard {
    explicit guard(kiv_sqlite_handle connection) : db(std::move(connection)) {}
    ~guard() { kiv_sqlite_destroy(db, __FILE__, __LINE__); }
    kiv_sqlite_handle db;
};
using schedule = std::function<void(std::shared_ptr<guard>)>;

// Hands `how`, on a thread of its own, the only share of a guard of a new open connection, and
// waits for the guard to destroy it. Returns the connection.
kiv_sqlite_handle guarded(const schedule& how) {
    const kiv_sqlite_handle db = kiv_sqlite_new(":memory:", "guarded");
    EXPECT_EQ(kiv_sqlite_open(db), SQLITE_OK);
    std::atomic<bool> scheduled{false};
    std::thread([&how, &scheduled, g = std::make_shared<guard>(db)]() mutable {
        how(std::move(g));
        scheduled = true;
    }).detach();
    within_deadline("scheduling", [&] { return scheduled.load(); });
    within_deadline("guard", [&] { return marked(db); });
    return db;
}

const unsigned long hour = 3600000;
const schedule run_job = [](std::shared_ptr<guard> g) { kiv_database_exec([g = std::move(g)] {}, __FILE__, __LINE__); };

}  // namespace

// A lookup on another thread races a second lookup, or the destroy job, of an open object whose
// owner left a stepped statement on it: the statement goes exactly once, the object leaves once.
TEST(HostSafety, LookupsRaceEachOtherAndTheDestroyJob) {
    kiv_database_init();
    std::string expected;
    console_capture capture;
    for (const bool destroy : {false, true}) {
        for (int round = 0; round < 200; ++round) {
            const kiv_sqlite_handle db = kiv_sqlite_new(":memory:", "raced");
            ASSERT_EQ(kiv_sqlite_open(db), SQLITE_OK);
            ASSERT_EQ(kiv_sqlite_prepare(db, "SELECT 1"), SQLITE_OK);
            ASSERT_EQ(kiv_sqlite_step(db), SQLITE_ROW);
            std::atomic<int> ready{0};
            const auto at_once = [&ready] {
                for (++ready; ready.load() < 2;) std::this_thread::yield();
            };
            auto other = std::async(std::launch::async, [&] {
                at_once();
                return kiv_database_get_sqlite("raced");
            });
            at_once();
            if (destroy) {
                kiv_sqlite_destroy(db, __FILE__, __LINE__);
            } else {
                EXPECT_EQ(kiv_database_get_sqlite("raced"), db);
            }
            const kiv_sqlite_handle found = other.get();
            EXPECT_TRUE(found == db || (destroy && !found));
            if (!destroy) kiv_sqlite_destroy(db, __FILE__, __LINE__);
            drain();
            EXPECT_FALSE(kiv_sqlite_is_opened(db));
            EXPECT_EQ(db->stmt, nullptr);
            expected += "left objects in database reference count: 0\n";
        }
    }
    EXPECT_EQ(capture.out.str(), expected);
}

// The four ways a function holding a guard dies: it runs and is released, it is cleared (by
// the caller, by a job), or it is refused by a service that has finished; none deadlocks.
TEST(HostSafety, GuardsDestroyWhereverTheirFunctionDies) {
    kiv_database_init();
    const std::pair<const char*, schedule> cases[] = {
        {"job runs", run_job},
        {"timeout runs", [](auto g) { kiv_database_set_timeout([g = std::move(g)] {}, 0, __FILE__, __LINE__); }},
        {"interval ends", [](auto g) { kiv_database_set_interval([g = std::move(g)] { return false; }, 1, __FILE__, __LINE__); }},
        {"timeout cleared", [](auto g) {
             kiv_database_clear_timeout(kiv_database_set_timeout([g = std::move(g)] {}, hour, __FILE__, __LINE__));
         }},
        {"interval cleared in a job", [](auto g) {
             const unsigned long id = kiv_database_set_interval([g = std::move(g)] { return true; }, hour, __FILE__, __LINE__);
             kiv_database_exec([id] { kiv_database_clear_interval(id); }, __FILE__, __LINE__);
         }},
    };
    for (const auto& [what, how] : cases) {
        const kiv_sqlite_handle db = guarded(how);
        within_deadline(what, [&] { return !kiv_sqlite_is_opened(db); });
    }
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    kiv_thread_service_join(service, 0);
    ASSERT_TRUE(kiv_thread_service_wait(service, 10000));
    // Refused: the object stays marked, open and tracked.
    EXPECT_TRUE(kiv_sqlite_is_opened(guarded(run_job)));
}

TEST(HostSafety, GuardRefusedBeforeInit) { EXPECT_TRUE(kiv_sqlite_is_opened(guarded(run_job))); }
