// Statements against a real SQLite database: preparing, binding, stepping, row iteration and
// column access.

#include "kiv_db_test_util.h"

namespace {

TEST(Statement, PrepareBindStepRowsEachAndColumns) {
    kiv_database_init();
    kiv_test::assertion_recorder assertions;
    const kiv_sqlite_handle c = kiv_sqlite_new(":memory:", "statement");
    ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    const auto blob = [&](int column) {  // the copy of the column's bytes; "null" when none was made
        unsigned char* data = reinterpret_cast<unsigned char*>(0x1);
        int size = -1;
        EXPECT_TRUE(kiv_sqlite_column_blob(c, column, data, size));
        const std::string copy = data ? std::string(reinterpret_cast<char*>(data), static_cast<std::size_t>(size)) : "null";
        std::free(data);
        return copy;
    };
    const auto row = [&] {  // the current row, each column's bytes
        std::string text;
        for (int i = 0; i < kiv_sqlite_data_count(c); ++i) text += (i ? "," : "") + blob(i);
        return text;
    };
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1; SELECT 2"), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_prepare(c, "SELECT 3"), SQLITE_MISUSE) << "a held statement is never replaced";
    EXPECT_STREQ(kiv_sqlite_sql(c), "SELECT 1;") << "only the first statement";
    EXPECT_TRUE(kiv_sqlite_finalize(c));
    EXPECT_EQ(kiv_sqlite_prepare(c, "SELEC nonsense"), SQLITE_ERROR);
    EXPECT_TRUE(c->stmt == nullptr && kiv_sqlite_last_error_code(c) == SQLITE_ERROR);
    EXPECT_STREQ(kiv_sqlite_last_error_message(c), "near \"SELEC\": syntax error");
    EXPECT_STREQ(kiv_sqlite_errstr(c, SQLITE_BUSY), "database is locked");
    char* message = nullptr;
    EXPECT_EQ(kiv_sqlite_sql_stmt(c, "CREATE TABLE t(v INTEGER UNIQUE); INSERT INTO t VALUES (10), (20), (30);", nullptr), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_last_insert_rowid(c) * 10 + kiv_sqlite_affected_rows_count(c), 33);
    EXPECT_EQ(kiv_sqlite_sql_stmt(c, "INSERT INTO missing VALUES (1)", &message), SQLITE_ERROR);
    EXPECT_STREQ(message, "no such table: missing");
    EXPECT_TRUE(kiv_sqlite_free(c, message) && message == nullptr);

    ASSERT_EQ(kiv_sqlite_prepare(c, std::string("SELECT :a, ?, ?3, ?4, ?5\0 junk", 30)), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_parameter_count(c) * 100 + kiv_sqlite_bind_parameter_index(c, ":a") * 10 + kiv_sqlite_bind_parameter_index(c, "?4"), 514);
    char copied[] = "before", borrowed[] = "before";
    unsigned char bytes[] = {1, 0, 3}, kept[] = {1, 0, 3};
    EXPECT_EQ(kiv_sqlite_bind_text(c, 1, copied, 6) + kiv_sqlite_bind_text_static(c, 2, borrowed, 6) +
                  kiv_sqlite_bind_blob(c, 3, bytes, 3) + kiv_sqlite_bind_blob_static(c, 4, kept, 3) + kiv_sqlite_bind_int64(c, 5, 1LL << 40),
              SQLITE_OK);
    std::memcpy(copied, "after!", 6), std::memcpy(borrowed, "after!", 6), bytes[0] = kept[0] = 9;
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_EQ(row(), std::string("before,after!,\1\0\3,\x9\0\3,1099511627776", 35)) << "copies, and borrowed bytes read late";
    EXPECT_EQ(kiv_sqlite_bind_int(c, 1, 9), SQLITE_MISUSE) << "bound while running";
    EXPECT_EQ(kiv_sqlite_reset(c), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_bind_int(c, 1, 7) + kiv_sqlite_bind_double(c, 2, 0.5), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_EQ(row(), std::string("7,0.5,\1\0\3,\x9\0\3,1099511627776", 27)) << "the others kept across the reset";
    EXPECT_EQ(kiv_sqlite_reset(c) + kiv_sqlite_bind_clear(c) + kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_EQ(row(), ",,,,");
    kiv_sqlite_reset(c);
    // Sizes beyond SQLite's int length never reach SQLite (the pointer is not even read).
    const unsigned long huge = static_cast<unsigned long>(std::numeric_limits<int>::max()) + 1;
    const auto* bogus = reinterpret_cast<const unsigned char*>(0x10);
    const auto* text = reinterpret_cast<const char*>(0x10);
    EXPECT_EQ(kiv_sqlite_bind_blob(c, 1, bogus, huge) + kiv_sqlite_bind_blob_static(c, 1, bogus, huge) +
                  kiv_sqlite_bind_text(c, 1, text, huge) + kiv_sqlite_bind_text_static(c, 1, text, huge), 4 * SQLITE_TOOBIG);
    kiv_sqlite_finalize(c);

    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT v FROM t ORDER BY v"), SQLITE_OK);
    std::string seen;
    unsigned long counter = 99;
    const kiv_sqlite_row_callback all = [&](kiv_sqlite_handle r, unsigned long i) {
        return seen += std::to_string(i) + ":" + row() + " ", r == c;
    };
    EXPECT_EQ(kiv_sqlite_rows_each(c, counter, all), SQLITE_DONE);
    EXPECT_EQ(seen + std::to_string(counter), "0:10 1:20 2:30 3");
    EXPECT_EQ(kiv_sqlite_reset(c), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_rows_each(c, counter, [](kiv_sqlite_handle, unsigned long i) { return i < 1; }), SQLITE_ROW);
    EXPECT_EQ(counter, 2u) << "stopped at index 1, on that row";
    EXPECT_EQ(kiv_sqlite_rows_each(c, all), SQLITE_DONE);
    EXPECT_EQ(seen, "0:10 1:20 2:30 0:30 ") << "going on from there";
    kiv_sqlite_reset(c);
    EXPECT_THROW(kiv_sqlite_rows_each(c, counter, [](kiv_sqlite_handle, unsigned long) -> bool { throw 7; }), int);
    EXPECT_EQ(row() + std::to_string(counter), "101") << "left where it stood, the row counted before the call";
    EXPECT_EQ(kiv_sqlite_rows_each(c, [](kiv_sqlite_handle r, unsigned long) { return kiv_sqlite_finalize(r); }), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(c, "INSERT INTO t VALUES (10)"), SQLITE_OK);
    EXPECT_EQ(kiv_sqlite_rows_each(c, counter, all), SQLITE_CONSTRAINT) << "an error exits through the reset";
    EXPECT_EQ(counter + sqlite3_stmt_busy(c->stmt), 0u);
    kiv_sqlite_finalize(c);

    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1, 2.5, 'txt', x'a5', NULL, x'610062ff', v, CAST(x'610062' AS TEXT) FROM t"), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    const std::vector<std::function<bool(kiv_sqlite_handle, int)>> tests = {kiv_sqlite_is_column_int, kiv_sqlite_is_column_double,
        kiv_sqlite_is_column_text, kiv_sqlite_is_column_blob, kiv_sqlite_is_column_null};
    std::string types;
    for (int column = 0; column < 5; ++column) {
        types += std::to_string(kiv_sqlite_column_type(c, column));
        for (int t = 0; t < 5; ++t) EXPECT_EQ(tests[t](c, column), t == column) << column << "/" << t;
    }
    EXPECT_EQ(types, "12345");
    EXPECT_EQ(kiv_sqlite_column_int(c, 0) + kiv_sqlite_column_double(c, 1), 3.5);
    EXPECT_EQ(blob(3), "\xa5") << "a single byte is copied too";
    EXPECT_EQ(blob(4) + blob(99), "") << "NULL and no such column: an empty copy";
    EXPECT_EQ(blob(5), std::string("a\0b\xff", 4));
    EXPECT_EQ(kiv_sqlite_column_text(c, 7), "a") << "text ends at its first zero byte";
    kiv_sqlite_finalize(c);
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_test::join_database_service());
}

}  // namespace
