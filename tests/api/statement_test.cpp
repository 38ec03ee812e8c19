// Statements against a real SQLite database: preparing, binding, stepping, row iteration and
// column access.

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

class Statement : public ::testing::Test {
protected:
    void SetUp() override {
        kiv_database_init();
        ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    }
    void TearDown() override {
        kiv_sqlite_destroy(c, __FILE__, __LINE__);
        EXPECT_TRUE(kiv_test::join_database_service());
    }
    // The blob copy of column `column` as a string; "null" when none was handed out.
    std::string blob(int column) {
        unsigned char* data = reinterpret_cast<unsigned char*>(0x1);
        int size = -1;
        EXPECT_TRUE(kiv_sqlite_column_blob(c, column, data, size));
        const std::string copy = data ? std::string(reinterpret_cast<char*>(data), static_cast<std::size_t>(size)) : "null";
        std::free(data);
        return copy;
    }
    kiv_test::assertion_recorder assertions;
    const kiv_sqlite_handle c = kiv_sqlite_new(":memory:", "statement");
};

TEST_F(Statement, PrepareAndDirectExecution) {
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1; SELECT 2"), SQLITE_OK);
    EXPECT_STREQ(kiv_sqlite_sql(c), "SELECT 1;") << "only the first statement";
    sqlite3_stmt* const held = c->stmt;
    EXPECT_EQ(kiv_sqlite_prepare(c, "SELECT 3"), SQLITE_MISUSE) << "a held statement is never replaced";
    EXPECT_EQ(c->stmt, held);
    EXPECT_TRUE(kiv_sqlite_finalize(c));
    EXPECT_EQ(kiv_sqlite_prepare(c, std::string("SELECT 42\0; DROP", 16)), SQLITE_OK);
    EXPECT_STREQ(kiv_sqlite_sql(c), "SELECT 42") << "the text ends at a zero byte";
    kiv_sqlite_finalize(c);

    EXPECT_EQ(kiv_sqlite_prepare(c, "SELEC nonsense"), SQLITE_ERROR);
    EXPECT_EQ(c->stmt, nullptr);
    EXPECT_EQ(kiv_sqlite_last_error_code(c), SQLITE_ERROR);
    EXPECT_STREQ(kiv_sqlite_last_error_message(c), "near \"SELEC\": syntax error");
    EXPECT_STREQ(kiv_sqlite_errstr(c, SQLITE_BUSY), "database is locked");

    EXPECT_EQ(kiv_sqlite_sql_stmt(c, "CREATE TABLE t(a); INSERT INTO t VALUES (5), (6);", nullptr), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_last_insert_rowid(c), 2);
    EXPECT_EQ(kiv_sqlite_affected_rows_count(c), 2);
    char* message = nullptr;
    EXPECT_EQ(kiv_sqlite_sql_stmt(c, "INSERT INTO missing VALUES (1)", &message), SQLITE_ERROR);
    EXPECT_STREQ(message, "no such table: missing");
    EXPECT_TRUE(kiv_sqlite_free(c, message));
    EXPECT_EQ(message, nullptr);
}

TEST_F(Statement, BindersCopyOrBorrowAndRefuseWhatDoesNotFit) {
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT :a, ?, ?3, ?4, ?5"), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_parameter_count(c), 5);
    EXPECT_STREQ(kiv_sqlite_bind_parameter_name(c, 1), ":a");
    EXPECT_EQ(kiv_sqlite_bind_parameter_index(c, ":a"), 1);
    char copied[] = "before", borrowed[] = "before";
    unsigned char bytes[] = {1, 0, 3}, kept[] = {1, 0, 3};
    EXPECT_EQ(kiv_sqlite_bind_text(c, 1, copied, 6), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_text_static(c, 2, borrowed, 6), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_blob(c, 3, bytes, 3), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_blob_static(c, 4, kept, 3), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_int64(c, 5, 1LL << 40), SQLITE_OK);
    std::memcpy(copied, "after!", 6);
    std::memcpy(borrowed, "after!", 6);
    bytes[0] = kept[0] = 9;
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_EQ(kiv_sqlite_column_text(c, 0), "before");
    EXPECT_EQ(kiv_sqlite_column_text(c, 1), "after!");
    EXPECT_EQ(blob(2), std::string("\1\0\3", 3));
    EXPECT_EQ(blob(3), std::string("\x9\0\3", 3));
    EXPECT_EQ(kiv_sqlite_column_int64(c, 4), 1LL << 40);
    EXPECT_EQ(kiv_sqlite_bind_int(c, 1, 9), SQLITE_MISUSE) << "bound while running";
    EXPECT_EQ(kiv_sqlite_reset(c), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_int(c, 1, 7), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_double(c, 2, 0.5), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_int(c, 9, 1), SQLITE_RANGE);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_EQ(kiv_sqlite_column_int(c, 0), 7);
    EXPECT_EQ(kiv_sqlite_column_double(c, 1), 0.5);
    EXPECT_EQ(kiv_sqlite_column_text(c, 2), std::string("\1", 1)) << "kept across the reset";
    kiv_sqlite_reset(c);
    EXPECT_EQ(kiv_sqlite_bind_clear(c), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_TRUE(kiv_sqlite_is_column_null(c, 0));
    kiv_sqlite_reset(c);
    // Sizes beyond SQLite's int length never reach SQLite (the pointer is not even read).
    const unsigned long huge = static_cast<unsigned long>(INT_MAX) + 1;
    const auto* bogus = reinterpret_cast<const char*>(0x10);
    const auto* bogus_bytes = reinterpret_cast<const unsigned char*>(0x10);
    EXPECT_EQ(kiv_sqlite_bind_blob(c, 1, bogus_bytes, huge), SQLITE_TOOBIG);
    EXPECT_EQ(kiv_sqlite_bind_blob_static(c, 1, bogus_bytes, huge), SQLITE_TOOBIG);
    EXPECT_EQ(kiv_sqlite_bind_text(c, 1, bogus, huge), SQLITE_TOOBIG);
    EXPECT_EQ(kiv_sqlite_bind_text_static(c, 1, bogus, huge), SQLITE_TOOBIG);
}

TEST_F(Statement, RowsEachFollowsItsStepOrder) {
    ASSERT_EQ(kiv_sqlite_sql_stmt(c, "CREATE TABLE t(v UNIQUE); INSERT INTO t VALUES (10), (20), (30);", nullptr), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT v FROM t ORDER BY v"), SQLITE_OK);
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
    EXPECT_EQ(kiv_sqlite_column_count(c), 1);
    EXPECT_EQ(kiv_sqlite_data_count(c), 0);
    kiv_sqlite_reset(c);
    // Stopped at index 1 the statement stays on that row; the next call goes on from there.
    EXPECT_EQ(kiv_sqlite_rows_each(c, counter, [](kiv_sqlite_handle, unsigned long index) { return index < 1; }), SQLITE_ROW);
    EXPECT_EQ(counter, 2u);
    EXPECT_EQ(kiv_sqlite_data_count(c), 1);
    seen.clear();
    EXPECT_EQ(kiv_sqlite_rows_each(c, all), SQLITE_DONE);
    EXPECT_EQ(seen, (std::vector<std::pair<unsigned long, int>>{{0, 30}}));
    kiv_sqlite_reset(c);
    EXPECT_THROW(kiv_sqlite_rows_each(c, counter, kiv_sqlite_row_callback()), std::bad_function_call);
    EXPECT_EQ(counter, 1u) << "the row is counted before the call";
    EXPECT_THROW(kiv_sqlite_rows_each(c, [](kiv_sqlite_handle, unsigned long) -> bool { throw std::runtime_error("row"); }),
                 std::runtime_error);
    EXPECT_EQ(kiv_sqlite_column_int(c, 0), 20) << "left where it stood";
    EXPECT_EQ(kiv_sqlite_rows_each(c, [](kiv_sqlite_handle row, unsigned long) { return kiv_sqlite_finalize(row); }),
              SQLITE_OK);
    EXPECT_EQ(c->stmt, nullptr);
    // An error exits through the reset, with its code: the statement is back at its start.
    ASSERT_EQ(kiv_sqlite_prepare(c, "INSERT INTO t VALUES (10)"), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_rows_each(c, counter, all), SQLITE_CONSTRAINT);
    EXPECT_EQ(counter, 0u);
    EXPECT_EQ(sqlite3_stmt_busy(c->stmt), 0);
    kiv_sqlite_finalize(c);
}

TEST_F(Statement, ColumnsReadTheCurrentRow) {
    ASSERT_EQ(kiv_sqlite_sql_stmt(c, "CREATE TABLE t(i INTEGER); INSERT INTO t VALUES (NULL)", nullptr), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1, 2.5, 'txt', x'a5', NULL, x'610062ff', i, CAST(x'610062' AS TEXT), "
                                    "zeroblob(3) FROM t"),
              SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    const std::vector<std::function<bool(kiv_sqlite_handle, int)>> tests = {
        kiv_sqlite_is_column_int, kiv_sqlite_is_column_double, kiv_sqlite_is_column_text, kiv_sqlite_is_column_blob,
        kiv_sqlite_is_column_null};
    for (int column = 0; column < 5; ++column) {
        EXPECT_EQ(kiv_sqlite_column_type(c, column), column + 1);
        for (int t = 0; t < 5; ++t) EXPECT_EQ(tests[t](c, column), t == column) << column << "/" << t;
    }
    EXPECT_EQ(kiv_sqlite_column_double(c, 1), 2.5);
    EXPECT_STREQ(kiv_sqlite_column_name(c, 2), "'txt'");
    EXPECT_EQ(kiv_sqlite_column_decltype(c, 2), nullptr);
    EXPECT_STREQ(kiv_sqlite_column_decltype(c, 6), "INTEGER");
    EXPECT_EQ(blob(3), "\xa5") << "a single byte is copied too";
    EXPECT_EQ(blob(4), "") << "NULL: an empty copy";
    EXPECT_EQ(blob(5), std::string("a\0b\xff", 4));
    EXPECT_EQ(kiv_sqlite_column_text(c, 4), "");
    EXPECT_EQ(kiv_sqlite_column_text(c, 7), "a") << "text ends at its first zero byte";
    EXPECT_EQ(blob(8), std::string(3, '\0'));
    EXPECT_EQ(blob(99), "") << "no such column";
    kiv_sqlite_finalize(c);
}

}  // namespace
