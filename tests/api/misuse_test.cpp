// Misuse through the API: statement calls without a statement, indexes out of range, odd SQL
// texts and a destroy raced from two threads.

#include <gtest/gtest.h>

#include <boost/weak_ptr.hpp>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

using kiv_test::assertion_call;

std::string shown(const char* text) { return text == nullptr ? "(null)" : std::string("\"") + text + "\""; }
template <class T>
std::string shown(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

struct statement_call {
    const char* name;
    std::function<std::string(kiv_sqlite_handle)> call;  // the result, shown as text
    std::string result;                                  // the settled result without a statement
    std::vector<std::string> checks;                     // the checks it makes, in order
};

// Every statement function on an object that was never opened and on an open one without a
// statement: the settled result, its checks in order, no SQLite call with a null, no output.
TEST(Misuse, StatementCallsWithoutAStatementGiveTheSettledResults) {
    const std::string db = "db!=nullptr";
    const std::string st = "stmt!=nullptr";
    const auto* bytes = reinterpret_cast<const unsigned char*>("abc");
    const std::vector<statement_call> table = {
        {"sql", [](auto h) { return shown(kiv_sqlite_sql(h)); }, "(null)", {st}},
        {"reset", [](auto h) { return shown(kiv_sqlite_reset(h)); }, "0", {}},
        {"finalize", [](auto h) { return shown(kiv_sqlite_finalize(h)); }, "1", {}},
        {"bind_int", [](auto h) { return shown(kiv_sqlite_bind_int(h, 1, 7)); }, "21", {st}},
        {"bind_int64", [](auto h) { return shown(kiv_sqlite_bind_int64(h, 1, 7)); }, "21", {st}},
        {"bind_double", [](auto h) { return shown(kiv_sqlite_bind_double(h, 1, 0.5)); }, "21", {st}},
        {"bind_blob", [&](auto h) { return shown(kiv_sqlite_bind_blob(h, 1, bytes, 3)); }, "21", {st}},
        {"bind_blob_static", [&](auto h) { return shown(kiv_sqlite_bind_blob_static(h, 1, bytes, 3)); }, "21", {st}},
        {"bind_text", [](auto h) { return shown(kiv_sqlite_bind_text(h, 1, "abc", 3)); }, "21", {st}},
        {"bind_text_static", [](auto h) { return shown(kiv_sqlite_bind_text_static(h, 1, "abc", 3)); }, "21", {st}},
        {"bind_parameter_count", [](auto h) { return shown(kiv_sqlite_bind_parameter_count(h)); }, "0", {st}},
        {"bind_parameter_name", [](auto h) { return shown(kiv_sqlite_bind_parameter_name(h, 1)); }, "(null)", {st}},
        {"bind_parameter_index", [](auto h) { return shown(kiv_sqlite_bind_parameter_index(h, ":a")); }, "0", {st}},
        {"bind_clear", [](auto h) { return shown(kiv_sqlite_bind_clear(h)); }, "21", {st}},
        {"step", [](auto h) { return shown(kiv_sqlite_step(h)); }, "21", {db, st}},
        {"data_count", [](auto h) { return shown(kiv_sqlite_data_count(h)); }, "0", {st}},
        {"column_count", [](auto h) { return shown(kiv_sqlite_column_count(h)); }, "0", {st}},
        {"rows_each",
         [](auto h) {
             unsigned long counter = 9;
             const int rc = kiv_sqlite_rows_each(h, counter, [](kiv_sqlite_handle, unsigned long) -> bool {
                 ADD_FAILURE() << "no row to call back for";
                 return true;
             });
             return shown(rc) + "/" + shown(counter);
         },
         "0/0", {db, st, db, st}},
        {"column_blob",
         [](auto h) {
             unsigned char* data = reinterpret_cast<unsigned char*>(0x1);
             int size = 5;
             const bool done = kiv_sqlite_column_blob(h, 0, data, size);
             return shown(done) + "/" + shown(static_cast<void*>(data)) + "/" + shown(size);
         },
         "1/0/0", {st}},
        {"column_text", [](auto h) { return shown(kiv_sqlite_column_text(h, 0).c_str()); }, "\"\"", {st}},
        {"column_int", [](auto h) { return shown(kiv_sqlite_column_int(h, 0)); }, "0", {st}},
        {"column_int64", [](auto h) { return shown(kiv_sqlite_column_int64(h, 0)); }, "0", {st}},
        {"column_double", [](auto h) { return shown(kiv_sqlite_column_double(h, 0)); }, "0", {st}},
        {"column_type", [](auto h) { return shown(kiv_sqlite_column_type(h, 0)); }, "0", {st}},
        {"column_decltype", [](auto h) { return shown(kiv_sqlite_column_decltype(h, 0)); }, "(null)", {st}},
        {"column_name", [](auto h) { return shown(kiv_sqlite_column_name(h, 0)); }, "(null)", {st}},
        {"is_column_null", [](auto h) { return shown(kiv_sqlite_is_column_null(h, 0)); }, "0", {st}},
        {"is_column_text", [](auto h) { return shown(kiv_sqlite_is_column_text(h, 0)); }, "0", {st}},
        {"is_column_blob", [](auto h) { return shown(kiv_sqlite_is_column_blob(h, 0)); }, "0", {st}},
        {"is_column_int", [](auto h) { return shown(kiv_sqlite_is_column_int(h, 0)); }, "0", {st}},
        {"is_column_double", [](auto h) { return shown(kiv_sqlite_is_column_double(h, 0)); }, "0", {st}},
    };

    kiv_database_init();
    kiv_test::cout_capture out;
    kiv_test::assertion_recorder assertions;
    const kiv_sqlite_handle never_opened = kiv_sqlite_new(":memory:", "never_opened");
    const kiv_sqlite_handle idle = kiv_sqlite_new(":memory:", "idle");
    ASSERT_EQ(kiv_sqlite_open(idle), SQLITE_OK);
    assertions.take();
    for (const statement_call& entry : table) {
        for (const kiv_sqlite_handle& h : {never_opened, idle}) {
            const bool open = h == idle;
            EXPECT_EQ(entry.call(h), entry.result) << entry.name << (open ? " open" : " never opened");
            const std::vector<assertion_call> calls = assertions.take();
            std::vector<std::string> texts;
            for (const assertion_call& c : calls) {
                texts.push_back(c.cond_text);
                EXPECT_EQ(c.cond, open && c.cond_text == db) << entry.name << " " << c.cond_text;
            }
            EXPECT_EQ(texts, entry.checks) << entry.name << (open ? " open" : " never opened");
        }
    }
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(kiv_sqlite_last_error_code(idle), SQLITE_OK) << "nothing reached the connection";
    kiv_sqlite_destroy(never_opened, __FILE__, __LINE__);
    kiv_sqlite_destroy(idle, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_test::join_database_service());
}

class MisuseOpen : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_database_init();
        c = kiv_sqlite_new(":memory:", "misuse");
        ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    }
    void TearDown() override {
        kiv_sqlite_destroy(c, __FILE__, __LINE__);
        EXPECT_TRUE(kiv_test::join_database_service());
    }
    int exec(const char* sql) { return kiv_sqlite_sql_stmt(c, sql, nullptr); }
    long long scalar(const std::string& sql) {
        EXPECT_EQ(kiv_sqlite_prepare(c, sql), SQLITE_OK) << sql;
        EXPECT_EQ(kiv_sqlite_step(c), SQLITE_ROW) << sql;
        const long long value = kiv_sqlite_column_int64(c, 0);
        kiv_sqlite_finalize(c);
        return value;
    }
    kiv_test::assertion_recorder assertions;
    kiv_sqlite_handle c;
};

// Parameter and column indexes outside the statement: SQLite's own answers, and the statement
// carries on unharmed.
TEST_F(MisuseOpen, IndexesOutsideTheStatement) {
    ASSERT_EQ(exec("CREATE TABLE t(a INTEGER, b TEXT); INSERT INTO t VALUES (1, 'one'), (2, 'two');"), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT a, b FROM t WHERE a >= ?1 AND :unused IS NULL ORDER BY a"), SQLITE_OK);
    const int count = kiv_sqlite_bind_parameter_count(c);
    ASSERT_EQ(count, 2);
    const auto* bytes = reinterpret_cast<const unsigned char*>("xy");
    for (const int index : {0, -1, count + 1, 1 << 30}) {
        EXPECT_EQ(kiv_sqlite_bind_int(c, index, 1), SQLITE_RANGE) << index;
        EXPECT_EQ(kiv_sqlite_bind_int64(c, index, 1), SQLITE_RANGE) << index;
        EXPECT_EQ(kiv_sqlite_bind_double(c, index, 1.0), SQLITE_RANGE) << index;
        EXPECT_EQ(kiv_sqlite_bind_blob(c, index, bytes, 2), SQLITE_RANGE) << index;
        EXPECT_EQ(kiv_sqlite_bind_blob_static(c, index, bytes, 2), SQLITE_RANGE) << index;
        EXPECT_EQ(kiv_sqlite_bind_text(c, index, "xy", 2), SQLITE_RANGE) << index;
        EXPECT_EQ(kiv_sqlite_bind_text_static(c, index, "xy", 2), SQLITE_RANGE) << index;
        EXPECT_EQ(kiv_sqlite_bind_parameter_name(c, index), nullptr) << index;
    }
    EXPECT_STREQ(kiv_sqlite_bind_parameter_name(c, 2), ":unused");
    EXPECT_EQ(kiv_sqlite_bind_parameter_index(c, "unused"), 0) << "names carry their prefix";
    EXPECT_EQ(kiv_sqlite_bind_int(c, 1, 2), SQLITE_OK);

    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    for (const int column : {-1, 2, 1 << 30}) {
        EXPECT_EQ(kiv_sqlite_column_type(c, column), SQLITE_NULL) << column;
        EXPECT_TRUE(kiv_sqlite_is_column_null(c, column)) << column;
        EXPECT_EQ(kiv_sqlite_column_int(c, column), 0) << column;
        EXPECT_EQ(kiv_sqlite_column_int64(c, column), 0) << column;
        EXPECT_EQ(kiv_sqlite_column_double(c, column), 0.0) << column;
        EXPECT_EQ(kiv_sqlite_column_text(c, column), "") << column;
        EXPECT_EQ(kiv_sqlite_column_name(c, column), nullptr) << column;
        EXPECT_EQ(kiv_sqlite_column_decltype(c, column), nullptr) << column;
        unsigned char* data = nullptr;
        int size = -1;
        EXPECT_TRUE(kiv_sqlite_column_blob(c, column, data, size));
        EXPECT_EQ(size, 0) << column;
        std::free(data);
    }
    // The row in hand is still the right one, and the next follows.
    EXPECT_EQ(kiv_sqlite_column_int(c, 0), 2);
    EXPECT_EQ(kiv_sqlite_column_text(c, 1), "two");
    EXPECT_EQ(kiv_sqlite_step(c), SQLITE_DONE);
    kiv_sqlite_finalize(c);
}

// SQL texts at the edges: an embedded zero byte ends the text, empty text compiles to no
// statement, a syntax error leaves the slot empty, 1 MiB texts run whole.
TEST_F(MisuseOpen, SqlTextsAtTheEdges) {
    ASSERT_EQ(exec("CREATE TABLE t(v)"), SQLITE_OK);
    const std::string with_zero("SELECT 42\0; DROP TABLE t", 24);
    ASSERT_EQ(kiv_sqlite_prepare(c, with_zero), SQLITE_OK);
    EXPECT_STREQ(kiv_sqlite_sql(c), "SELECT 42");
    EXPECT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_EQ(kiv_sqlite_column_int(c, 0), 42);
    kiv_sqlite_finalize(c);
    EXPECT_EQ(exec(with_zero.c_str()), SQLITE_OK);
    EXPECT_EQ(scalar("SELECT count(*) FROM sqlite_master WHERE name = 't'"), 1) << "nothing after the zero ran";

    // No statement at all: success with an empty slot, so the next statement call fails its check.
    for (const char* nothing : {"", "   ", "-- only a comment", ";"}) {
        EXPECT_EQ(kiv_sqlite_prepare(c, nothing), SQLITE_OK) << nothing;
        EXPECT_EQ(c->stmt, nullptr);
        assertions.take();
        EXPECT_EQ(kiv_sqlite_step(c), SQLITE_MISUSE);
        const std::vector<assertion_call> calls = assertions.take();
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_FALSE(calls[1].cond);
    }
    EXPECT_EQ(kiv_sqlite_prepare(c, "SELEKT 1"), SQLITE_ERROR);
    EXPECT_EQ(c->stmt, nullptr);
    EXPECT_EQ(kiv_sqlite_last_error_code(c), SQLITE_ERROR);
    EXPECT_NE(std::string(kiv_sqlite_last_error_message(c)).find("syntax error"), std::string::npos);
    char* message = nullptr;
    EXPECT_EQ(kiv_sqlite_sql_stmt(c, "SELECT 1; SELEKT 2", &message), SQLITE_ERROR);
    ASSERT_NE(message, nullptr);
    EXPECT_NE(std::string(message).find("syntax error"), std::string::npos);
    EXPECT_TRUE(kiv_sqlite_free(c, message));
    EXPECT_EQ(message, nullptr);

    // 1 MiB of SQL: one INSERT of many rows, then one literal of that size.
    std::string insert = "INSERT INTO t VALUES (0)";
    long long rows = 1;
    while (insert.size() < (1u << 20)) insert += ",(" + std::to_string(rows++) + ")";
    EXPECT_EQ(exec(insert.c_str()), SQLITE_OK);
    EXPECT_EQ(scalar("SELECT count(*) FROM t"), rows);
    EXPECT_EQ(scalar("SELECT sum(v) FROM t"), rows * (rows - 1) / 2);
    const std::string literal(1u << 20, 'k');
    EXPECT_EQ(scalar("SELECT length('" + literal + "')"), static_cast<long long>(literal.size()));
}

// A statement held across close keeps its connection allocated inside SQLite; finalizing the
// statement later, reopening first, or destroying the object gives all of it back.
TEST(Misuse, StatementHeldAcrossCloseLeavesNothingBehind) {
    kiv_database_init();
    kiv_test::assertion_recorder assertions;
    kiv_test::cout_capture out;
    kiv_sqlite_handle c = kiv_sqlite_new(":memory:", "held");
    auto open_prepare_close = [&] {
        ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
        ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1"), SQLITE_OK);
        EXPECT_TRUE(kiv_sqlite_close(c));
        EXPECT_FALSE(kiv_sqlite_is_opened(c));
        EXPECT_NE(c->stmt, nullptr) << "close leaves the statement";
    };
    ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);  // SQLite's one-time set-up, out of the measure
    kiv_sqlite_close(c);
    const sqlite3_int64 baseline = sqlite3_memory_used();

    open_prepare_close();
    EXPECT_GT(sqlite3_memory_used(), baseline);
    EXPECT_EQ(kiv_sqlite_step(c), SQLITE_ROW) << "the statement runs on the connection kept for it";
    EXPECT_TRUE(kiv_sqlite_finalize(c));
    EXPECT_EQ(sqlite3_memory_used(), baseline);

    open_prepare_close();
    ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    EXPECT_TRUE(kiv_sqlite_finalize(c));  // the earlier connection's statement
    kiv_sqlite_close(c);
    EXPECT_EQ(sqlite3_memory_used(), baseline);

    open_prepare_close();
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker());
    // The worker may still hold the finished job's handle for a moment; the last handle's
    // release runs the destructor, which finalizes.
    const boost::weak_ptr<_kiv_sqlite> gone = c;
    c.reset();
    for (int i = 0; i < 10000 && !gone.expired(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_TRUE(gone.expired());
    EXPECT_EQ(sqlite3_memory_used(), baseline);
    EXPECT_TRUE(kiv_test::join_database_service());
}

// Between destroy and its job, a lookup by name hands nothing out: the job alone releases the
// statement and the connection (two threads finalizing one statement would free it twice).
TEST(Misuse, LookupAfterDestroyHandsOutNothing) {
    kiv_database_init();
    kiv_test::cout_capture out;
    const kiv_sqlite_handle c = kiv_sqlite_new(":memory:", "going");
    ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1"), SQLITE_OK);
    std::promise<void> holding;
    std::promise<void> go;
    kiv_database_exec([&holding, released = go.get_future().share()] {
                          holding.set_value();
                          released.wait();
                      },
                      __FILE__, __LINE__);
    holding.get_future().wait();  // the destroy job has to wait behind ours
    EXPECT_EQ(kiv_database_get_sqlite("going"), c);
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 2"), SQLITE_OK);
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    EXPECT_EQ(kiv_database_get_sqlite("going"), nullptr);
    EXPECT_NE(c->stmt, nullptr) << "left for the job";
    EXPECT_TRUE(kiv_sqlite_is_opened(c));
    go.set_value();
    ASSERT_TRUE(kiv_test::drain_database_worker());
    EXPECT_EQ(c->stmt, nullptr);
    EXPECT_FALSE(kiv_sqlite_is_opened(c));
    EXPECT_EQ(kiv_database_get_sqlite("going"), nullptr);
    EXPECT_TRUE(kiv_test::join_database_service());
}

// Two threads destroy the same object at the same moment: one destroy job, one warning line.
// The worker is held in a job of ours meanwhile, and that job counts what was queued behind it.
TEST(Misuse, DestroyRacedFromTwoThreadsPostsOneJob) {
    constexpr int rounds = 200;
    kiv_database_init();
    kiv_test::cout_capture out;
    const std::string warning = kiv_test::warning_banner + "CALLING DESTROY MULTIPLE TIMES IS NOT AN OPTION ";
    for (int round = 0; round < rounds; ++round) {
        const kiv_sqlite_handle c = kiv_sqlite_new(":memory:", "raced");
        ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);

        std::promise<void> holding;
        std::promise<void> go;
        std::promise<int> queued;
        std::shared_future<void> released = go.get_future().share();
        std::future<int> counted = queued.get_future();
        kiv_database_exec([released, &holding, &queued] {
                              holding.set_value();
                              released.wait();
                              queued.set_value(kiv_database_run_once());
                          },
                          __FILE__, __LINE__);
        holding.get_future().wait();  // the worker runs our job, so destroy jobs queue behind it

        std::atomic<int> ready{0};
        std::atomic<int> accepted{0};
        auto destroyer = [&] {
            ++ready;
            while (ready.load() < 2) {
            }
            accepted += kiv_sqlite_destroy(c, "race.cpp", round) ? 1 : 0;
        };
        std::thread first(destroyer);
        std::thread second(destroyer);
        first.join();
        second.join();
        go.set_value();
        ASSERT_EQ(counted.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(counted.get(), 1) << "round " << round;
        EXPECT_EQ(accepted.load(), 2);
        EXPECT_FALSE(kiv_sqlite_is_opened(c));

        const std::string lines = out.take();
        EXPECT_EQ(kiv_test::count_of(lines, warning), 1u) << lines;
        EXPECT_NE(lines.find(warning + kiv_test::coloured("[kiv_sqlite]") + "-race.cpp:" + std::to_string(round) + "\n"),
                  std::string::npos)
            << lines;
        EXPECT_NE(lines.find("left objects in database reference count: 0\n"), std::string::npos);
    }
    ASSERT_TRUE(kiv_test::join_database_service());
}

}  // namespace
