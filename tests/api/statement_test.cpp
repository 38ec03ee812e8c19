// Statements against real SQLite databases: preparing, binding, stepping, row iteration, column
// access and errors, with the checks each call hands to the assertion function.

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <vector>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

using kiv_test::assertion_call;

class Statement : public ::testing::Test {
protected:
    void SetUp() override {
        c = kiv_sqlite_new(":memory:", "stmt-test");
        ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
        assertions.take();
    }
    void TearDown() override {
        kiv_sqlite_finalize(c);
        kiv_sqlite_close(c);
    }
    void exec(const char* sql) { ASSERT_EQ(kiv_sqlite_sql_stmt(c, sql, nullptr), SQLITE_OK) << sql; }
    // The (cond, text) pairs recorded since the last call.
    std::vector<std::pair<bool, std::string>> checks() {
        std::vector<std::pair<bool, std::string>> out;
        for (const assertion_call& a : assertions.take()) {
            EXPECT_EQ(a.file, "kiv_database/kiv_sqlite");
            out.emplace_back(a.cond, a.cond_text);
        }
        return out;
    }

    kiv_test::assertion_recorder assertions;
    kiv_sqlite_handle c;
};

using check_list = std::vector<std::pair<bool, std::string>>;

TEST_F(Statement, PrepareCompilesTheFirstStatementAndNeverReplacesAHeldOne) {
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1; SELECT 2"), SQLITE_OK);
    EXPECT_STREQ(kiv_sqlite_sql(c), "SELECT 1;");
    EXPECT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_EQ(kiv_sqlite_column_int(c, 0), 1);
    EXPECT_EQ(kiv_sqlite_step(c), SQLITE_DONE);
    checks();

    // A second prepare reports the held statement, returns misuse and keeps it.
    sqlite3_stmt* const held = c->stmt;
    EXPECT_EQ(kiv_sqlite_prepare(c, "SELECT 3"), SQLITE_MISUSE);
    EXPECT_EQ(c->stmt, held);
    EXPECT_EQ(checks(), (check_list{{true, "db!=nullptr"}, {false, "stmt==nullptr"}}));
    EXPECT_TRUE(kiv_sqlite_finalize(c));
    EXPECT_TRUE(kiv_sqlite_finalize(c));
    EXPECT_EQ(kiv_sqlite_reset(c), SQLITE_OK);

    // Rejected text: SQLite's code, empty slot, the error readable afterwards.
    const int rc = kiv_sqlite_prepare(c, "SELEC nonsense");
    EXPECT_EQ(rc, SQLITE_ERROR);
    EXPECT_EQ(c->stmt, nullptr);
    EXPECT_EQ(kiv_sqlite_last_error_code(c), rc);
    EXPECT_NE(std::string(kiv_sqlite_last_error_message(c)).find("syntax error"), std::string::npos);
    checks();

    // An empty text prepares nothing; stepping then reports the missing statement.
    EXPECT_EQ(kiv_sqlite_prepare(c, ""), SQLITE_OK);
    EXPECT_EQ(c->stmt, nullptr);
    EXPECT_EQ(kiv_sqlite_step(c), SQLITE_MISUSE);
    EXPECT_EQ(checks(), (check_list{{true, "db!=nullptr"}, {true, "stmt==nullptr"},
                                    {true, "db!=nullptr"}, {false, "stmt!=nullptr"}}));

    // Direct execution: several statements, no checks; an error comes with SQLite's message.
    EXPECT_EQ(kiv_sqlite_sql_stmt(c, "CREATE TABLE t(a); INSERT INTO t VALUES (5);", nullptr), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_last_insert_rowid(c), 1);
    char* message = nullptr;
    EXPECT_EQ(kiv_sqlite_sql_stmt(c, "INSERT INTO missing VALUES (1)", &message), SQLITE_ERROR);
    ASSERT_NE(message, nullptr);
    EXPECT_STREQ(message, "no such table: missing");
    EXPECT_TRUE(kiv_sqlite_free(c, message));
    EXPECT_EQ(message, nullptr);
    EXPECT_TRUE(kiv_sqlite_free(c, message));
    kiv_sqlite_reset(c);
    kiv_sqlite_finalize(c);
    EXPECT_EQ(checks(), (check_list{{true, "db!=nullptr"}}));  // only last_insert_rowid checks
}

TEST_F(Statement, BindersCopyOrBorrowAndRefuseWhatDoesNotFit) {
    exec("CREATE TABLE t(a, b)");
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT :a, ?, ?3"), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_parameter_count(c), 3);
    EXPECT_STREQ(kiv_sqlite_bind_parameter_name(c, 1), ":a");
    EXPECT_EQ(kiv_sqlite_bind_parameter_name(c, 2), nullptr);
    EXPECT_EQ(kiv_sqlite_bind_parameter_index(c, ":a"), 1);
    EXPECT_EQ(kiv_sqlite_bind_parameter_index(c, "a"), 0);
    EXPECT_EQ(kiv_sqlite_bind_int(c, 0, 1), SQLITE_RANGE);
    checks();

    char copied[] = "before";
    char borrowed[] = "before";
    const unsigned char ten[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(kiv_sqlite_bind_text(c, 1, copied, 6), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_text_static(c, 2, borrowed, 6), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_blob(c, 3, ten, 3), SQLITE_OK);
    std::memcpy(copied, "after!", 6);
    std::memcpy(borrowed, "after!", 6);
    EXPECT_EQ(checks(), (check_list(3, {true, "stmt!=nullptr"})));  // one check per binder

    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_EQ(kiv_sqlite_column_text(c, 0), "before");
    EXPECT_EQ(kiv_sqlite_column_text(c, 1), "after!");
    unsigned char* data = nullptr;
    int size = -1;
    EXPECT_TRUE(kiv_sqlite_column_blob(c, 2, data, size));
    ASSERT_EQ(size, 3);
    EXPECT_EQ(std::memcmp(data, ten, 3), 0);
    std::free(data);

    // Bound while running: SQLite's misuse code. After a reset the values stay.
    EXPECT_EQ(kiv_sqlite_bind_int(c, 1, 9), SQLITE_MISUSE);
    EXPECT_EQ(kiv_sqlite_reset(c), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_EQ(kiv_sqlite_column_text(c, 0), "before");
    kiv_sqlite_reset(c);

    // Size 0 is an empty text, not NULL; bind_clear makes every parameter NULL.
    EXPECT_EQ(kiv_sqlite_bind_text(c, 1, "", 0), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_int64(c, 2, 1LL << 40), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_double(c, 3, 0.5), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_TRUE(kiv_sqlite_is_column_text(c, 0));
    EXPECT_EQ(kiv_sqlite_column_int64(c, 1), 1LL << 40);
    EXPECT_EQ(kiv_sqlite_column_double(c, 2), 0.5);
    kiv_sqlite_reset(c);
    EXPECT_EQ(kiv_sqlite_bind_clear(c), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_TRUE(kiv_sqlite_is_column_null(c, 0));
    EXPECT_TRUE(kiv_sqlite_is_column_null(c, 2));
    kiv_sqlite_reset(c);

    // Sizes beyond SQLite's int length never reach SQLite (the pointer is not even read).
    const unsigned long huge = static_cast<unsigned long>(INT_MAX) + 1;
    const auto* bogus = reinterpret_cast<const unsigned char*>(0x10);
    EXPECT_EQ(kiv_sqlite_bind_blob(c, 1, bogus, huge), SQLITE_TOOBIG);
    EXPECT_EQ(kiv_sqlite_bind_blob_static(c, 1, bogus, huge), SQLITE_TOOBIG);
    EXPECT_EQ(kiv_sqlite_bind_text(c, 1, reinterpret_cast<const char*>(bogus), huge), SQLITE_TOOBIG);
    EXPECT_EQ(kiv_sqlite_bind_text_static(c, 1, reinterpret_cast<const char*>(bogus), huge), SQLITE_TOOBIG);
}

TEST_F(Statement, RowsEachFollowsItsStepOrder) {
    exec("CREATE TABLE t(v INTEGER UNIQUE); INSERT INTO t VALUES (10), (20), (30);");
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT v FROM t ORDER BY v"), SQLITE_OK);
    checks();

    std::vector<std::pair<unsigned long, int>> seen;
    unsigned long counter = 99;
    const kiv_sqlite_row_callback all = [&](kiv_sqlite_handle row, unsigned long index) {
        EXPECT_EQ(row, c);
        seen.emplace_back(index, kiv_sqlite_column_int(row, 0));
        return true;
    };
    EXPECT_EQ(kiv_sqlite_rows_each(c, counter, all), SQLITE_DONE);
    EXPECT_EQ(counter, 3u);
    EXPECT_EQ(seen, (std::vector<std::pair<unsigned long, int>>{{0, 10}, {1, 20}, {2, 30}}));
    // 2 + 2 * (n + 1) checks of its own, plus the callback's column reads.
    const check_list recorded = checks();
    EXPECT_EQ(recorded.size(), 2u + 2u * 4u + 3u);
    EXPECT_EQ(recorded[0], (std::pair<bool, std::string>{true, "db!=nullptr"}));
    EXPECT_EQ(recorded[1], (std::pair<bool, std::string>{true, "stmt!=nullptr"}));

    EXPECT_EQ(kiv_sqlite_data_count(c), 0);
    EXPECT_EQ(kiv_sqlite_column_count(c), 1);
    kiv_sqlite_reset(c);

    // Stopped at index 1: the statement stays on that row; the next call goes on from there.
    seen.clear();
    EXPECT_EQ(kiv_sqlite_rows_each(c, counter,
                                   [&](kiv_sqlite_handle, unsigned long index) {
                                       seen.emplace_back(index, 0);
                                       return index < 1;
                                   }),
              SQLITE_ROW);
    EXPECT_EQ(counter, 2u);
    EXPECT_EQ(kiv_sqlite_column_int(c, 0), 20);
    seen.clear();
    EXPECT_EQ(kiv_sqlite_rows_each(c, all), SQLITE_DONE);
    EXPECT_EQ(seen, (std::vector<std::pair<unsigned long, int>>{{0, 30}}));
    kiv_sqlite_reset(c);

    // An empty callback with a row at hand: std::bad_function_call, counter counts the row.
    EXPECT_THROW(kiv_sqlite_rows_each(c, counter, kiv_sqlite_row_callback()), std::bad_function_call);
    EXPECT_EQ(counter, 1u);
    // A callback's exception passes through and leaves the statement where it stands.
    EXPECT_THROW(kiv_sqlite_rows_each(c, [](kiv_sqlite_handle, unsigned long) -> bool {
                     throw std::runtime_error("row");
                 }),
                 std::runtime_error);
    EXPECT_EQ(kiv_sqlite_column_int(c, 0), 20);
    // A callback that finalizes the statement: the next step fails its check, no crash.
    EXPECT_EQ(kiv_sqlite_rows_each(c, [](kiv_sqlite_handle row, unsigned long) {
                  return kiv_sqlite_finalize(row);
              }),
              SQLITE_OK);
    EXPECT_EQ(c->stmt, nullptr);

    // An INSERT: no callback, done, one row changed; a UNIQUE violation exits reset.
    ASSERT_EQ(kiv_sqlite_prepare(c, "INSERT INTO t VALUES (?)"), SQLITE_OK);
    kiv_sqlite_bind_int(c, 1, 40);
    EXPECT_EQ(kiv_sqlite_rows_each(c, counter, all), SQLITE_DONE);
    EXPECT_EQ(counter, 0u);
    EXPECT_EQ(kiv_sqlite_affected_rows_count(c), 1);
    EXPECT_EQ(kiv_sqlite_last_insert_rowid(c), 4);
    kiv_sqlite_reset(c);
    kiv_sqlite_bind_int(c, 1, 10);
    EXPECT_EQ(kiv_sqlite_rows_each(c, counter, all), SQLITE_CONSTRAINT);
    EXPECT_EQ(counter, 0u);
    EXPECT_EQ(sqlite3_stmt_busy(c->stmt), 0) << "back at its start";
    kiv_sqlite_bind_int(c, 1, 50);  // binding works again only after a reset
    EXPECT_EQ(kiv_sqlite_step(c), SQLITE_DONE);
    kiv_sqlite_finalize(c);

    // The callback is looked at only when a row is there.
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT v FROM t WHERE v < 0"), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_rows_each(c, counter, kiv_sqlite_row_callback()), SQLITE_DONE);
    EXPECT_EQ(counter, 0u);
}

TEST_F(Statement, ColumnsReadTheCurrentRow) {
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1, 2.5, 'txt', x'0102', NULL"), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    const std::vector<std::function<bool(kiv_sqlite_handle, int)>> tests = {
        kiv_sqlite_is_column_int, kiv_sqlite_is_column_double, kiv_sqlite_is_column_text,
        kiv_sqlite_is_column_blob, kiv_sqlite_is_column_null};
    for (int column = 0; column < 5; ++column) {
        EXPECT_EQ(kiv_sqlite_column_type(c, column), column + 1);
        EXPECT_EQ(kiv_sqlite_column_decltype(c, column), nullptr);
        for (int t = 0; t < 5; ++t) EXPECT_EQ(tests[t](c, column), t == column) << column << "/" << t;
    }
    EXPECT_STREQ(kiv_sqlite_column_name(c, 2), "'txt'");
    EXPECT_EQ(kiv_sqlite_column_text(c, 4), "");  // SQLite has no text for NULL
    unsigned char* data = nullptr;
    int size = -1;
    kiv_sqlite_column_blob(c, 4, data, size);
    EXPECT_NE(data, nullptr);
    EXPECT_EQ(size, 0);
    std::free(data);
    // One check per accessor: the predicates' is that of column_type.
    checks();
    kiv_sqlite_is_column_null(c, 0);
    kiv_sqlite_column_blob(c, 3, data, size);
    std::free(data);
    EXPECT_EQ(checks(), (check_list(2, {true, "stmt!=nullptr"})));
    kiv_sqlite_finalize(c);

    // Zero bytes inside: text stops at the first, the blob copy keeps all bytes.
    exec("CREATE TABLE t(id INTEGER, v BLOB, w TEXT)");
    ASSERT_EQ(kiv_sqlite_prepare(c, "INSERT INTO t VALUES (NULL, ?, CAST(? AS TEXT))"), SQLITE_OK);
    const unsigned char raw[] = {'a', 0, 'b', 0xff};
    kiv_sqlite_bind_blob(c, 1, raw, sizeof raw);
    kiv_sqlite_bind_text(c, 2, reinterpret_cast<const char*>(raw), 3);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_DONE);
    kiv_sqlite_finalize(c);
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT id, v, w FROM t"), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_TRUE(kiv_sqlite_is_column_null(c, 0));
    EXPECT_FALSE(kiv_sqlite_is_column_int(c, 0));
    EXPECT_STREQ(kiv_sqlite_column_decltype(c, 0), "INTEGER");
    EXPECT_EQ(kiv_sqlite_column_text(c, 2), "a");
    kiv_sqlite_column_blob(c, 1, data, size);
    ASSERT_EQ(size, 4);
    EXPECT_EQ(std::memcmp(data, raw, 4), 0);
    std::free(data);
    kiv_sqlite_column_blob(c, 2, data, size);
    EXPECT_EQ(size, 3);
    std::free(data);
}

// The connection-level calls on an object that was never opened (the statement calls have their
// own table in the misuse tests): no SQLite call with a null, the settled results.
TEST(StatementChecks, AFailedCheckNeverHandsSQLiteANull) {
    kiv_test::assertion_recorder assertions;
    const kiv_sqlite_handle closed = kiv_sqlite_new(":memory:", "closed");
    char* message = reinterpret_cast<char*>(0x1);
    EXPECT_EQ(kiv_sqlite_sql_stmt(closed, "SELECT 1", &message), SQLITE_MISUSE);
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(kiv_sqlite_prepare(closed, "SELECT 1"), SQLITE_MISUSE);
    EXPECT_EQ(kiv_sqlite_last_insert_rowid(closed), 0);
    EXPECT_EQ(kiv_sqlite_affected_rows_count(closed), 0);
    EXPECT_EQ(kiv_sqlite_last_error_code(closed), SQLITE_MISUSE);
    EXPECT_STREQ(kiv_sqlite_last_error_message(closed), sqlite3_errstr(SQLITE_MISUSE));
    EXPECT_STREQ(kiv_sqlite_errstr(closed, KIV_SQLITE_MISSING_BIND_PARAMETERS),
                 "Prepared statement missing bind parameters");
    EXPECT_STREQ(kiv_sqlite_errstr(closed, SQLITE_OK), sqlite3_errstr(SQLITE_OK));
    EXPECT_STREQ(kiv_sqlite_errstr(closed, 123456), sqlite3_errstr(123456));

    // sql_stmt makes no check; prepare checks both conditions (the second holds).
    std::vector<std::pair<bool, std::string>> seen;
    for (const assertion_call& call : assertions.take()) seen.emplace_back(call.cond, call.cond_text);
    EXPECT_EQ(seen, (std::vector<std::pair<bool, std::string>>{{false, "db!=nullptr"},
                                                              {true, "stmt==nullptr"},
                                                              {false, "db!=nullptr"},
                                                              {false, "db!=nullptr"},
                                                              {false, "db!=nullptr"},
                                                              {false, "db!=nullptr"}}));
}

}  // namespace
