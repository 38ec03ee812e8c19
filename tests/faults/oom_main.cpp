// Out of memory: SQLite's allocator fails the Nth allocation, first only that one, then that
// one and every one after it, for N = 1, 2, ... until a round runs without a failure. A round
// drives a file database and a ":memory:" one through the API. Every call must return SQLite's
// code or its documented default, the objects must still be destroyed (on the worker, where
// the allocator may still be failing), SQLite's memory must return to where it was, and the
// service must still stop with no object left.
//
// Its own executable: the allocator can only be replaced before SQLite initialises.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

// ---------------------------------------------------------------------------------------------
// The failing allocator. Counters are atomic: the destroy jobs allocate on the worker thread.

sqlite3_mem_methods default_methods;
std::atomic<long> allocation_count{0};
std::atomic<long> fail_from{0};  // 0: nothing fails
std::atomic<bool> fail_for_good{false};
std::atomic<long> failures_injected{0};

bool should_fail() {
    const long n = ++allocation_count;
    const long at = fail_from.load();
    if (at == 0 || n < at) return false;
    if (n > at && !fail_for_good.load()) return false;
    ++failures_injected;
    return true;
}

void* failing_malloc(int size) { return should_fail() ? nullptr : default_methods.xMalloc(size); }

void* failing_realloc(void* memory, int size) {
    return should_fail() ? nullptr : default_methods.xRealloc(memory, size);
}

bool install_failing_allocator() {
    if (sqlite3_config(SQLITE_CONFIG_GETMALLOC, &default_methods) != SQLITE_OK) return false;
    sqlite3_mem_methods wrapped = default_methods;
    wrapped.xMalloc = failing_malloc;
    wrapped.xRealloc = failing_realloc;
    return sqlite3_config(SQLITE_CONFIG_MALLOC, &wrapped) == SQLITE_OK;
}

// ---------------------------------------------------------------------------------------------
// One connection's part of a round.

const std::string left_line = "left objects in database reference count: ";
const std::string db_check = "database must be opened";
const std::string stmt_check = "database statement must be opened";

// The failed checks the calls below make: per check, the message. Closed objects fail the
// connection check in prepare, step and last_error_message; objects without a statement fail
// the statement check in bind, step, and the three column reads.
std::vector<std::string> expected_failed_checks(bool open, bool prepared) {
    if (!open)
        return {db_check,   stmt_check, db_check,   stmt_check, stmt_check,
                stmt_check, stmt_check, db_check};
    if (!prepared) return {stmt_check, stmt_check, stmt_check, stmt_check, stmt_check};
    return {};
}

// The connection agrees with the code the call returned.
void expect_connection_code(const kiv_sqlite_handle& c, int rc, const char* call) {
    EXPECT_EQ(kiv_sqlite_last_error_code(c), rc) << call;
}

// Leaves the object in `c` for the caller to destroy.
void run_connection(const std::string& path, const std::string& name,
                    kiv_test::assertion_recorder& assertions, kiv_sqlite_handle& c) {
    SCOPED_TRACE(name);
    c = kiv_sqlite_new(path, name);
    ASSERT_TRUE(c);

    const int open_rc = kiv_sqlite_open(c);
    EXPECT_TRUE(open_rc == SQLITE_OK || open_rc == SQLITE_NOMEM) << open_rc;
    const bool open = open_rc == SQLITE_OK;
    EXPECT_EQ(kiv_sqlite_is_opened(c), open);

    // Direct execution; its message is SQLite memory, handed back through the library.
    char* errmsg = reinterpret_cast<char*>(&errmsg);  // not null: the call must write it
    const int create_rc = kiv_sqlite_sql_stmt(
        c,
        "CREATE TABLE t(id INTEGER PRIMARY KEY, label TEXT, data BLOB);"
        "INSERT INTO t VALUES (42, 'hello', x'00ff10')",
        &errmsg);
    if (!open) {
        EXPECT_EQ(create_rc, SQLITE_MISUSE);
        EXPECT_EQ(errmsg, nullptr);
    } else {
        EXPECT_TRUE(create_rc == SQLITE_OK || create_rc == SQLITE_NOMEM) << create_rc;
        expect_connection_code(c, create_rc, "create");
        if (create_rc == SQLITE_OK) {
            EXPECT_EQ(errmsg, nullptr);
        } else if (errmsg != nullptr) {
            EXPECT_STREQ(errmsg, "out of memory");
        }
    }
    EXPECT_TRUE(kiv_sqlite_free(c, errmsg));
    EXPECT_EQ(errmsg, nullptr);

    // A statement that fails on its own: SQLite's message, or none when there was no memory for it.
    const int missing_rc = kiv_sqlite_sql_stmt(c, "INSERT INTO missing VALUES (1)", &errmsg);
    if (!open) {
        EXPECT_EQ(missing_rc, SQLITE_MISUSE);
        EXPECT_EQ(errmsg, nullptr);
    } else {
        EXPECT_TRUE(missing_rc == SQLITE_ERROR || missing_rc == SQLITE_NOMEM) << missing_rc;
        expect_connection_code(c, missing_rc, "missing table");
        if (errmsg != nullptr) {
            EXPECT_STREQ(errmsg, missing_rc == SQLITE_ERROR ? "no such table: missing" : "out of memory");
        }
    }
    EXPECT_TRUE(kiv_sqlite_free(c, errmsg));
    EXPECT_EQ(errmsg, nullptr);

    const int prepare_rc = kiv_sqlite_prepare(c, "SELECT id, label, data FROM t WHERE label = ?1");
    if (!open) {
        EXPECT_EQ(prepare_rc, SQLITE_MISUSE);
    } else if (create_rc == SQLITE_OK) {
        EXPECT_TRUE(prepare_rc == SQLITE_OK || prepare_rc == SQLITE_NOMEM) << prepare_rc;
    } else {  // the table may be missing
        EXPECT_TRUE(prepare_rc == SQLITE_OK || prepare_rc == SQLITE_NOMEM || prepare_rc == SQLITE_ERROR)
            << prepare_rc;
    }
    if (open) expect_connection_code(c, prepare_rc, "prepare");
    const bool prepared = prepare_rc == SQLITE_OK;

    const int bind_rc = kiv_sqlite_bind_text(c, 1, "hello", 5);
    EXPECT_TRUE(prepared ? (bind_rc == SQLITE_OK || bind_rc == SQLITE_NOMEM) : bind_rc == SQLITE_MISUSE)
        << bind_rc;

    const int step_rc = kiv_sqlite_step(c);
    if (!prepared) {
        EXPECT_EQ(step_rc, SQLITE_MISUSE);
    } else if (create_rc == SQLITE_OK && bind_rc == SQLITE_OK) {
        EXPECT_TRUE(step_rc == SQLITE_ROW || step_rc == SQLITE_NOMEM) << step_rc;
    } else {  // no row stored, or the parameter left NULL
        EXPECT_TRUE(step_rc == SQLITE_ROW || step_rc == SQLITE_DONE || step_rc == SQLITE_NOMEM) << step_rc;
        if (bind_rc != SQLITE_OK) {
            EXPECT_NE(step_rc, SQLITE_ROW);
        }
    }
    if (prepared) expect_connection_code(c, step_rc, "step");
    const bool row = step_rc == SQLITE_ROW;

    // The integer read as text is converted, which needs memory; "" with SQLITE_NOMEM without it.
    const std::string id = kiv_sqlite_column_text(c, 0);
    if (row) {
        EXPECT_TRUE(id == "42" || id.empty()) << id;
        if (id.empty()) expect_connection_code(c, SQLITE_NOMEM, "column_text");
    } else {
        EXPECT_EQ(id, "");
    }
    EXPECT_EQ(kiv_sqlite_column_text(c, 1), row ? "hello" : "");
    unsigned char* data = reinterpret_cast<unsigned char*>(&data);
    int size = -1;
    EXPECT_TRUE(kiv_sqlite_column_blob(c, 2, data, size));
    if (row) {
        ASSERT_EQ(size, 3);
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(std::memcmp(data, "\x00\xff\x10", 3), 0);
    } else {
        EXPECT_EQ(size, 0);
        if (!prepared) {
            EXPECT_EQ(data, nullptr);  // no statement: not written beyond the reset
        }
    }
    std::free(data);

    const char* const message = kiv_sqlite_last_error_message(c);
    ASSERT_NE(message, nullptr);
    if (!open) {
        EXPECT_STREQ(message, sqlite3_errstr(SQLITE_MISUSE));
    }

    // Found only while open; the lookup finalizes the statement before handing the object out.
    const kiv_sqlite_handle found = kiv_database_get_sqlite(name);
    EXPECT_EQ(found, open ? c : kiv_sqlite_handle());

    std::vector<std::string> failed;
    for (const kiv_test::assertion_call& call : assertions.take())
        if (!call.cond) failed.push_back(call.message);
    EXPECT_EQ(failed, expected_failed_checks(open, prepared));
}

// ---------------------------------------------------------------------------------------------
// The loop over N.

struct loop_figures {
    long rounds = 0;
    long failures = 0;
    double seconds = 0;
};

loop_figures fail_each_allocation(bool for_good, const std::string& directory,
                                  kiv_test::cout_capture& out, kiv_test::assertion_recorder& assertions) {
    const auto started = std::chrono::steady_clock::now();
    const long failures_before = failures_injected.load();
    const std::string file = directory + "/oom.db";
    fail_for_good = for_good;
    loop_figures figures;
    constexpr long cap = 20000;
    for (long n = 1;; ++n) {
        SCOPED_TRACE((for_good ? "from allocation " : "only allocation ") + std::to_string(n));
        if (n > cap) {
            ADD_FAILURE() << "still injecting failures after " << cap << " rounds";
            break;
        }
        std::remove(file.c_str());
        std::remove((file + "-journal").c_str());
        const sqlite3_int64 memory_before = sqlite3_memory_used();
        const long injected_before = failures_injected.load();

        allocation_count = 0;
        fail_from = n;
        {
            kiv_sqlite_handle on_file, in_memory;
            run_connection(file, "oom-file", assertions, on_file);
            run_connection(":memory:", "oom-memory", assertions, in_memory);
            EXPECT_TRUE(kiv_sqlite_destroy(on_file, __FILE__, __LINE__));
            EXPECT_TRUE(kiv_sqlite_destroy(in_memory, __FILE__, __LINE__));
        }
        const bool drained = kiv_test::drain_database_worker();
        fail_from = 0;
        ++figures.rounds;

        EXPECT_TRUE(drained);
        // Both objects left the list (the anchor stays), and nothing else was written.
        EXPECT_EQ(out.take(), left_line + "2\n" + left_line + "1\n");
        EXPECT_EQ(sqlite3_memory_used(), memory_before) << "SQLite memory not given back";
        if (::testing::Test::HasFailure()) break;
        if (failures_injected.load() == injected_before) break;  // the scenario ran untouched
    }
    figures.failures = failures_injected.load() - failures_before;
    figures.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return figures;
}

// Run as SQLite's own test runs it: the Nth allocation only, then the Nth and all after it.
// An anchor object keeps the service up across both loops, so that the join at the end shows
// the live-object list holding nothing but it.
TEST(OutOfMemory, EveryAllocationFailsInTurnOnceThenForGood) {
    kiv_test::temp_dir dir;
    ASSERT_FALSE(dir.path().empty());
    kiv_test::cout_capture out;
    kiv_test::assertion_recorder assertions;
    kiv_database_init();
    const kiv_sqlite_handle anchor = kiv_sqlite_new(":memory:", "anchor");

    const loop_figures once = fail_each_allocation(false, dir.path(), out, assertions);
    ASSERT_FALSE(::testing::Test::HasFailure());
    const loop_figures for_good = fail_each_allocation(true, dir.path(), out, assertions);
    ASSERT_FALSE(::testing::Test::HasFailure());
    EXPECT_GT(once.rounds, 100) << "the scenario allocates far more than this";
    EXPECT_EQ(once.failures, once.rounds - 1) << "one failure per round but the last";

    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    ASSERT_TRUE(service);
    kiv_thread_service_join(service, 0);
    EXPECT_EQ(out.take(), "DATABASE SERVICE SHOT DONW REQUEST\n");
    kiv_sqlite_destroy(anchor, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_thread_service_wait(service, 10000)) << "the service did not stop";
    EXPECT_EQ(out.take(), left_line + "0\nDATABASE THREAD SERVICE STOPPED\nDATABASE SERVICE DONE\n");
    for (const kiv_test::assertion_call& call : assertions.take()) {
        EXPECT_TRUE(call.cond) << "a check failed at shutdown: " << call.message;
    }

    std::fprintf(stderr,
                 "out of memory, Nth allocation only: %ld rounds, %ld failures injected, %.1f s\n"
                 "out of memory, Nth allocation on: %ld rounds, %ld failures injected, %.1f s\n",
                 once.rounds, once.failures, once.seconds, for_good.rounds, for_good.failures,
                 for_good.seconds);
}

}  // namespace

int main(int argc, char** argv) {
    // Before anything else touches SQLite (test discovery runs this main too).
    if (!install_failing_allocator() || sqlite3_initialize() != SQLITE_OK) {
        std::fprintf(stderr, "cannot install the failing allocator: SQLite already initialised\n");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
