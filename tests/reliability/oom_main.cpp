// Out of memory: SQLite's allocator fails the Nth allocation (once, or from the Nth on) for
// N = 1, 2, ... until a round runs untouched. Every call still returns a SQLite code or its
// default, the object is still destroyed, SQLite's memory goes back to where it was, and the
// service still stops. Its own executable: the allocator must be in place before SQLite starts.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

sqlite3_mem_methods base_allocator;
std::atomic<long> allocations{0};
std::atomic<long> fail_at{0};  // 0: no failure
std::atomic<bool> persistent{false};
std::atomic<long> injected{0};

bool fail_this_one() {
    const long n = ++allocations;
    const long at = fail_at.load();
    if (at == 0 || n < at || (n > at && !persistent.load())) return false;
    ++injected;
    return true;
}

void* failing_malloc(int size) { return fail_this_one() ? nullptr : base_allocator.xMalloc(size); }
void* failing_realloc(void* memory, int size) {
    return fail_this_one() ? nullptr : base_allocator.xRealloc(memory, size);
}

bool install_failing_allocator() {
    if (sqlite3_config(SQLITE_CONFIG_GETMALLOC, &base_allocator) != SQLITE_OK) return false;
    sqlite3_mem_methods failing = base_allocator;
    failing.xMalloc = failing_malloc;
    failing.xRealloc = failing_realloc;
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &failing) == SQLITE_OK;
}

// What one round saw; codes by step, for the report and the checks.
struct round_codes {
    int open, exec, prepare, bind, step;
};

// The scenario, through the API only; checks each result against what the step before allowed.
round_codes scenario(const std::string& path) {
    round_codes codes{};
    const kiv_sqlite_handle c = kiv_sqlite_new(path, "oom");
    codes.open = kiv_sqlite_open(c);
    EXPECT_TRUE(codes.open == SQLITE_OK || codes.open == SQLITE_NOMEM) << codes.open;
    const bool open = codes.open == SQLITE_OK;
    EXPECT_EQ(kiv_sqlite_is_opened(c), open);

    char* message = nullptr;
    codes.exec = kiv_sqlite_sql_stmt(c, "CREATE TABLE t(a TEXT, b BLOB); INSERT INTO t VALUES ('hello', x'00010203')",
                                     &message);
    EXPECT_TRUE(open ? (codes.exec == SQLITE_OK || codes.exec == SQLITE_NOMEM) : codes.exec == SQLITE_MISUSE)
        << codes.exec;
    if (codes.exec == SQLITE_OK) {
        EXPECT_EQ(message, nullptr);  // a message only with a failure
    }
    EXPECT_TRUE(kiv_sqlite_free(c, message));
    EXPECT_EQ(message, nullptr);

    codes.prepare = kiv_sqlite_prepare(c, "SELECT a, b FROM t WHERE a = ?1");
    if (!open) {
        EXPECT_EQ(codes.prepare, SQLITE_MISUSE);
    } else if (codes.exec == SQLITE_OK) {
        EXPECT_TRUE(codes.prepare == SQLITE_OK || codes.prepare == SQLITE_NOMEM) << codes.prepare;
    } else {  // the table may be missing
        EXPECT_TRUE(codes.prepare == SQLITE_OK || codes.prepare == SQLITE_NOMEM || codes.prepare == SQLITE_ERROR)
            << codes.prepare;
    }
    const bool prepared = codes.prepare == SQLITE_OK;
    EXPECT_EQ(c->stmt != nullptr, prepared);

    codes.bind = kiv_sqlite_bind_text(c, 1, "hello", 5);
    EXPECT_TRUE(prepared ? (codes.bind == SQLITE_OK || codes.bind == SQLITE_NOMEM) : codes.bind == SQLITE_MISUSE)
        << codes.bind;

    codes.step = kiv_sqlite_step(c);
    if (!prepared) {
        EXPECT_EQ(codes.step, SQLITE_MISUSE);
    } else {
        EXPECT_TRUE(codes.step == SQLITE_ROW || codes.step == SQLITE_DONE || codes.step == SQLITE_NOMEM)
            << codes.step;
    }
    const bool row = codes.step == SQLITE_ROW;
    EXPECT_EQ(kiv_sqlite_column_text(c, 0), row ? "hello" : "");
    unsigned char* data = nullptr;
    int size = -1;
    EXPECT_TRUE(kiv_sqlite_column_blob(c, 1, data, size));
    if (row) {
        EXPECT_EQ(size, 4);
        EXPECT_TRUE(size == 4 && std::memcmp(data, "\x00\x01\x02\x03", 4) == 0);
    } else {
        EXPECT_EQ(size, 0);
    }
    std::free(data);
    const char* const error = kiv_sqlite_last_error_message(c);
    EXPECT_NE(error, nullptr);

    const kiv_sqlite_handle found = kiv_database_get_sqlite("oom");
    EXPECT_EQ(found, open ? c : kiv_sqlite_handle());
    EXPECT_EQ(c->stmt, nullptr) << "the lookup finalizes";
    EXPECT_TRUE(kiv_sqlite_destroy(c, __FILE__, __LINE__));
    EXPECT_TRUE(kiv_test::drain_database_worker());
    EXPECT_FALSE(kiv_sqlite_is_opened(c));
    return codes;
}

// Runs the scenario for N = 1, 2, ... until no failure is injected into a round.
void fail_each_allocation_in_turn(bool every_one_after) {
    kiv_test::cout_capture out;
    kiv_test::assertion_recorder assertions;  // checks fail on purpose after failed calls
    kiv_test::temp_dir dir;
    const std::string path = dir.file("oom.db");
    persistent = every_one_after;
    constexpr long limit = 100000;
    std::map<std::string, int> seen;  // code combinations, for the report
    long n = 1;
    long rounds = 0;
    for (;; ++n) {
        ASSERT_LT(n, limit) << "no untouched round";
        std::remove(path.c_str());
        std::remove((path + "-journal").c_str());
        const sqlite3_int64 before = sqlite3_memory_used();
        const long injected_before = injected.load();
        allocations = 0;
        fail_at = n;
        const round_codes codes = scenario(path);
        fail_at = 0;
        ++rounds;
        // Everything SQLite handed out for the round is back once the object is gone.
        EXPECT_EQ(sqlite3_memory_used(), before) << "round " << n;
        if (::testing::Test::HasFailure()) {
            ADD_FAILURE() << "stopped at round " << n;
            return;
        }
        ++seen[std::to_string(codes.open) + "/" + std::to_string(codes.exec) + "/" + std::to_string(codes.prepare) +
               "/" + std::to_string(codes.bind) + "/" + std::to_string(codes.step)];
        if (injected.load() == injected_before) break;  // untouched: the scenario passed whole
        assertions.take();
    }
    EXPECT_EQ(seen.count("0/0/0/0/100"), 1u) << "the last round ran whole";
    const std::string lines = out.take();
    EXPECT_EQ(kiv_test::count_of(lines, "left objects in database reference count: 0\n"),
              static_cast<std::size_t>(rounds))
        << "every round's object left the list";
    std::fprintf(stderr, "%s: %ld rounds, %ld allocations failed, %zu distinct outcomes\n",
                 every_one_after ? "from the Nth on" : "the Nth only", rounds, injected.load(), seen.size());
}

// As SQLite's own test does: first only the Nth allocation fails, then the Nth and all after it.
// One service for both loops; it must still shut down cleanly at the end.
TEST(OutOfMemory, EachAllocationFailsInTurnOnceThenForGood) {
    kiv_database_init();
    fail_each_allocation_in_turn(false);
    fail_each_allocation_in_turn(true);
    EXPECT_TRUE(kiv_test::join_database_service());
}

}  // namespace

int main(int argc, char** argv) {
    if (!install_failing_allocator()) {
        std::fprintf(stderr, "SQLite was initialised before the allocator could be replaced\n");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
