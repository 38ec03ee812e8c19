// The library in a host: lookups from several threads, guards that destroy from inside jobs.

#include <atomic>

#include "kiv_db_test_util.h"

namespace {

// A deadlock must fail at once, not hang the test (nor its exit): the process ends when `done`
// is still false after thirty seconds of pumping the service.
void within_deadline(const char* what, const std::function<bool()>& done) {
    if (kiv_test::pump_until(kiv_thread_service_find("database"), done)) return;
    std::cerr << "deadlock: " << what << std::endl;
    std::_Exit(1);
}

// Hands `how`, on a thread of its own, the only share of a host's guard of a new open connection
// (it destroys the connection when the function holding it dies), and waits until that destroy has
// returned. Returns the connection.
using schedule = std::function<void(std::shared_ptr<void>)>;
kiv_sqlite_handle guarded(const schedule& how) {
    const kiv_sqlite_handle db = kiv_sqlite_new(":memory:", "guarded");
    EXPECT_EQ(kiv_sqlite_open(db), SQLITE_OK);
    std::atomic<bool> destroyed{false};
    std::shared_ptr<void> guard(
        nullptr, [db, &destroyed](void*) { kiv_sqlite_destroy(db, __FILE__, __LINE__), destroyed = true; });
    std::thread(how, std::move(guard)).detach();
    within_deadline("guard", [&] { return destroyed.load(); });
    return db;
}

const schedule run_job = [](auto g) { kiv_database_exec([g = std::move(g)] {}, __FILE__, __LINE__); };

}  // namespace

// Two lookups at once, or a lookup racing the destroy job, of an open object whose owner left a
// stepped statement on it: the statement goes exactly once.
TEST(HostSafety, LookupsRaceEachOtherAndTheDestroyJob) {
    kiv_database_init();
    for (int round = 0; round < 400; ++round) {
        const bool destroy = round % 2 == 1;
        const std::string name = std::to_string(round);
        const kiv_sqlite_handle db = kiv_sqlite_new(":memory:", name);
        EXPECT_TRUE(kiv_sqlite_open(db) == SQLITE_OK && kiv_sqlite_prepare(db, "SELECT 1") == SQLITE_OK &&
                    kiv_sqlite_step(db) == SQLITE_ROW);
        std::atomic<int> ready{0};
        const auto at_once = [&](bool lookup) {
            for (++ready; ready.load() < 2;) std::this_thread::yield();
            return lookup ? kiv_database_get_sqlite(name) : kiv_sqlite_handle();
        };
        auto other = std::async(std::launch::async, at_once, true);
        EXPECT_EQ(at_once(!destroy), destroy ? kiv_sqlite_handle() : db);
        kiv_sqlite_destroy(db, __FILE__, __LINE__);
        other.get();
        within_deadline("destroy job", [&] { return !kiv_sqlite_is_opened(db); });
        EXPECT_EQ(db->stmt, nullptr);
    }
}

// The ways a function holding a guard dies: it runs and is released, it is cleared (by the caller,
// by a job), it is refused by a service that has finished (or not started, below: an object left
// tracked keeps the service's join waiting). None deadlocks, and the guard's destroy is done, or
// refused (the object stays marked, open and tracked).
TEST(HostSafety, GuardsDestroyWhereverTheirFunctionDies) {
    kiv_database_init();
    const std::pair<const char*, schedule> cases[] = {
        {"job runs", run_job},
        {"timeout cleared",
         [](auto g) {
             kiv_database_clear_timeout(kiv_database_set_timeout([g = std::move(g)] {}, 3600000, __FILE__, __LINE__));
         }},
        {"interval cleared in a job",
         [](auto g) {
             const unsigned long id =
                 kiv_database_set_interval([g = std::move(g)] { return true; }, 3600000, __FILE__, __LINE__);
             kiv_database_exec([id] { kiv_database_clear_interval(id); }, __FILE__, __LINE__);
         }},
    };
    for (const auto& [what, how] : cases) {
        const kiv_sqlite_handle db = guarded(how);
        within_deadline(what, [&] { return !kiv_sqlite_is_opened(db); });
    }
    EXPECT_NE(kiv_database_set_timeout([] {}, 0, __FILE__, __LINE__), 0u) << "the thread service's id";
    EXPECT_TRUE(kiv_test::join_database_service(0, -1));
    EXPECT_TRUE(kiv_sqlite_is_opened(guarded(run_job)));  // after the finish
}

TEST(HostSafety, GuardRefusedBeforeInit) { EXPECT_TRUE(kiv_sqlite_is_opened(guarded(run_job))); }
