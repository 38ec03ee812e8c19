// Allocation failure: operator new fails the Nth allocation of a short session (new, open,
// prepare, step, destroy, join), for N = 1, 2, ... until a session makes fewer. Wherever it
// fails, on the caller's thread or on the database worker, the exception reaches the caller or
// the session shuts down all the same: a careful host redoes what the exception interrupted, and
// then its join ends, its connection is closed and the framework holds no reference.
//
// Its own executable: it replaces operator new.

#include <atomic>
#include <cstdlib>
#include <new>

#include "kiv_db_test_util.h"

namespace {
std::atomic<long> countdown{0};  // > 0: the allocation that brings it to 0 fails
}  // namespace

void* operator new(std::size_t size) {
    if (countdown.load(std::memory_order_relaxed) > 0 && countdown.fetch_sub(1) == 1) throw std::bad_alloc();
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"  // they do match: malloc above, free here
#endif
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

// One session in a child that fails its allocation `n`: 0 when it was hit and all ended well,
// 10 when the session made fewer allocations, 1 when something was left behind, 3 when the join
// did not end.
int session(long n) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 2;
    kiv_sqlite_handle db;
    bool destroyed = false, joined = false;
    countdown = n;
    try {
        kiv_database_init();
        db = kiv_sqlite_new(":memory:", "sweep");
        kiv_sqlite_open(db);
        kiv_sqlite_prepare(db, "SELECT 1");
        kiv_sqlite_step(db);
        kiv_database_get_sqlite("sweep");
        kiv_sqlite_destroy(db, __FILE__, __LINE__);
        destroyed = true;
        joined = kiv_test::join_database_service();
    } catch (const std::bad_alloc&) {}
    const bool hit = countdown.exchange(0) <= 0;
    if (!kiv_thread_service_find("database") && !joined) kiv_database_init();  // init itself failed
    if (db && !destroyed) kiv_sqlite_destroy(db, __FILE__, __LINE__);
    if (!joined && !kiv_test::join_database_service()) return 3;
    if ((db && kiv_sqlite_is_opened(db)) || kiv_object_reffed_count() != 0) return 1;
    return hit ? 0 : 10;
}

TEST(Faults, EveryAllocationOfASessionFailsInTurn) {
    long n = 1;
    for (int status = 0; status != 10; ++n) {
        status = kiv_test::run_in_child([n] { return session(n); }, 20);
        ASSERT_TRUE(status == 0 || status == 10)
            << "allocation " << n << " failing: " << status << " (1: left behind, 3: no shutdown, 1014: hang)";
    }
    EXPECT_GT(n, 30) << "a session makes more allocations than that";
}

}  // namespace
