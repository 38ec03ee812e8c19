// Every exported connection function on an empty handle, on an object never opened and on an
// open one without a statement: the result, the warning line, the checks in their order.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <sstream>
#include <vector>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

std::string show(const char* text) { return text == nullptr ? "null" : "'" + std::string(text) + "'"; }
std::string show(const std::string& text) { return "'" + text + "'"; }
template <class T>
std::string show(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}
template <class T, class... More>
std::string show(const T& value, const More&... more) {
    return show(value) + " " + show(more...);
}

struct call {
    const char* name;
    std::function<std::string(kiv_sqlite_handle)> run;
    const char* empty;     // result for an empty handle
    const char* unopened;  // on an object never opened (null: not run)
    const char* idle;      // on an open object without a statement (null: not run)
    const char* checks;    // d "db!=nullptr", s "stmt!=nullptr", z "stmt==nullptr", in order
};

TEST(ExportedFrame, EveryFunctionOnEmptyUnopenedAndIdleObjects) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(0x8);  // never read: no statement
    const auto* text = reinterpret_cast<const char*>(0x8);
    bool called = false;
    const kiv_sqlite_row_callback callback = [&](kiv_sqlite_handle, unsigned long) { return called = true; };
    const std::vector<call> table = {
        {"kiv_sqlite_get_name", [](auto h) { return show(kiv_sqlite_get_name(h)); }, "''", nullptr, nullptr, ""},
        {"kiv_sqlite_open", [](auto h) { return show(kiv_sqlite_open(h)); }, "-1", nullptr, nullptr, ""},
        {"kiv_sqlite_try_open", [](auto h) { return show(kiv_sqlite_try_open(h)); }, "-1", nullptr, nullptr, ""},
        {"kiv_sqlite_close", [](auto h) { return show(kiv_sqlite_close(h)); }, "0", nullptr, nullptr, ""},
        {"kiv_sqlite_is_opened", [](auto h) { return show(kiv_sqlite_is_opened(h)); }, "0", "0", "1", ""},
        {"kiv_sqlite_destroy", [](auto h) { return show(kiv_sqlite_destroy(h, "f", 1)); }, "0", nullptr, nullptr, ""},
        {"kiv_sqlite_to_object", [](auto h) { return show(!kiv_sqlite_to_object(h)); }, "1", "0", "0", ""},
        {"kiv_sqlite_from_object", [](auto h) { return show(kiv_sqlite_from_object(h) == h); }, "1", "1", "1", ""},
        {"kiv_sqlite_sql_stmt",
         [](auto h) {
             char* message = reinterpret_cast<char*>(0x2);
             const int rc = kiv_sqlite_sql_stmt(h, "SELECT 1", &message);
             return show(rc, static_cast<void*>(message));
         },
         "-1 0x2", "21 0", "0 0", ""},
        {"kiv_sqlite_prepare", [](auto h) { return show(kiv_sqlite_prepare(h, "")); }, "-1", "21", "0", "dz"},
        {"kiv_sqlite_reset", [](auto h) { return show(kiv_sqlite_reset(h)); }, "-1", "0", "0", ""},
        {"kiv_sqlite_finalize", [](auto h) { return show(kiv_sqlite_finalize(h)); }, "0", "1", "1", ""},
        {"kiv_sqlite_sql", [](auto h) { return show(kiv_sqlite_sql(h)); }, "null", "null", "null", "s"},
        {"kiv_sqlite_bind_int", [](auto h) { return show(kiv_sqlite_bind_int(h, 1, 1)); }, "-1", "21", "21", "s"},
        {"kiv_sqlite_bind_int64", [](auto h) { return show(kiv_sqlite_bind_int64(h, 1, 1)); }, "-1", "21", "21", "s"},
        {"kiv_sqlite_bind_double", [](auto h) { return show(kiv_sqlite_bind_double(h, 1, 1)); }, "-1", "21", "21", "s"},
        {"kiv_sqlite_bind_blob", [&](auto h) { return show(kiv_sqlite_bind_blob(h, 1, bytes, 3)); }, "-1", "21", "21", "s"},
        {"kiv_sqlite_bind_blob_static", [&](auto h) { return show(kiv_sqlite_bind_blob_static(h, 1, bytes, 3)); },
         "-1", "21", "21", "s"},
        {"kiv_sqlite_bind_text", [&](auto h) { return show(kiv_sqlite_bind_text(h, 1, text, 3)); }, "-1", "21", "21", "s"},
        {"kiv_sqlite_bind_text_static", [&](auto h) { return show(kiv_sqlite_bind_text_static(h, 1, text, 3)); },
         "-1", "21", "21", "s"},
        {"kiv_sqlite_bind_parameter_count", [](auto h) { return show(kiv_sqlite_bind_parameter_count(h)); }, "-1", "0", "0", "s"},
        {"kiv_sqlite_bind_parameter_name", [](auto h) { return show(kiv_sqlite_bind_parameter_name(h, 1)); },
         "null", "null", "null", "s"},
        {"kiv_sqlite_bind_parameter_index", [](auto h) { return show(kiv_sqlite_bind_parameter_index(h, ":a")); },
         "-1", "0", "0", "s"},
        {"kiv_sqlite_bind_clear", [](auto h) { return show(kiv_sqlite_bind_clear(h)); }, "-1", "21", "21", "s"},
        {"kiv_sqlite_step", [](auto h) { return show(kiv_sqlite_step(h)); }, "-1", "21", "21", "ds"},
        {"kiv_sqlite_data_count", [](auto h) { return show(kiv_sqlite_data_count(h)); }, "-1", "0", "0", "s"},
        {"kiv_sqlite_column_count", [](auto h) { return show(kiv_sqlite_column_count(h)); }, "-1", "0", "0", "s"},
        {"kiv_sqlite_last_insert_rowid", [](auto h) { return show(kiv_sqlite_last_insert_rowid(h)); }, "-1", "0", "0", "d"},
        {"kiv_sqlite_affected_rows_count", [](auto h) { return show(kiv_sqlite_affected_rows_count(h)); }, "-1", "0", "0", "d"},
        {"kiv_sqlite_rows_each", [&](auto h) { return show(kiv_sqlite_rows_each(h, callback)); }, "-1", "0", "0", "dsds"},
        {"kiv_sqlite_rows_each",
         [&](auto h) {
             unsigned long counter = 9;
             const int rc = kiv_sqlite_rows_each(h, counter, callback);
             return show(rc, counter);
         },
         "-1 9", "0 0", "0 0", "dsds"},
        {"kiv_sqlite_column_blob",
         [](auto h) {
             unsigned char* data = reinterpret_cast<unsigned char*>(0x1);
             int size = 7;
             const bool done = kiv_sqlite_column_blob(h, 0, data, size);
             return show(done, static_cast<void*>(data), size);
         },
         "0 0x1 7", "1 0 0", "1 0 0", "s"},
        {"kiv_sqlite_column_text", [](auto h) { return show(kiv_sqlite_column_text(h, 0)); }, "''", "''", "''", "s"},
        {"kiv_sqlite_column_int", [](auto h) { return show(kiv_sqlite_column_int(h, 0)); }, "-1", "0", "0", "s"},
        {"kiv_sqlite_column_int64", [](auto h) { return show(kiv_sqlite_column_int64(h, 0)); }, "-1", "0", "0", "s"},
        {"kiv_sqlite_column_double", [](auto h) { return show(kiv_sqlite_column_double(h, 0) + 0.5); }, "-0.5", "0.5", "0.5", "s"},
        {"kiv_sqlite_column_type", [](auto h) { return show(kiv_sqlite_column_type(h, 0)); }, "-1", "0", "0", "s"},
        {"kiv_sqlite_column_decltype", [](auto h) { return show(kiv_sqlite_column_decltype(h, 0)); }, "null", "null", "null", "s"},
        {"kiv_sqlite_column_name", [](auto h) { return show(kiv_sqlite_column_name(h, 0)); }, "null", "null", "null", "s"},
        {"kiv_sqlite_is_column_null", [](auto h) { return show(kiv_sqlite_is_column_null(h, 0)); }, "0", "0", "0", "s"},
        {"kiv_sqlite_is_column_text", [](auto h) { return show(kiv_sqlite_is_column_text(h, 0)); }, "0", "0", "0", "s"},
        {"kiv_sqlite_is_column_blob", [](auto h) { return show(kiv_sqlite_is_column_blob(h, 0)); }, "0", "0", "0", "s"},
        {"kiv_sqlite_is_column_int", [](auto h) { return show(kiv_sqlite_is_column_int(h, 0)); }, "0", "0", "0", "s"},
        {"kiv_sqlite_is_column_double", [](auto h) { return show(kiv_sqlite_is_column_double(h, 0)); }, "0", "0", "0", "s"},
        {"kiv_sqlite_free",
         [](auto h) {
             char* memory = reinterpret_cast<char*>(0x2);
             const bool done = kiv_sqlite_free(h, memory);  // sqlite3_free(0x2) would crash: only the empty handle
             return show(done, static_cast<void*>(memory));
         },
         "0 0x2", nullptr, nullptr, ""},
        {"kiv_sqlite_errstr", [](auto h) { return show(kiv_sqlite_errstr(h, KIV_SQLITE_MISSING_BIND_PARAMETERS)); }, "null",
         "'Prepared statement missing bind parameters'", "'Prepared statement missing bind parameters'", ""},
        {"kiv_sqlite_last_error_code", [](auto h) { return show(kiv_sqlite_last_error_code(h)); }, "-1", "21", "0", "d"},
        {"kiv_sqlite_last_error_message", [](auto h) { return show(kiv_sqlite_last_error_message(h)); }, "null",
         "'bad parameter or other API misuse'", "'not an error'", "d"},
    };

    kiv_database_init();
    kiv_test::assertion_recorder assertions;
    kiv_test::cout_capture out;
    const kiv_sqlite_handle unopened = kiv_sqlite_new(":memory:", "unopened");
    const kiv_sqlite_handle idle = kiv_sqlite_new(":memory:", "idle");
    ASSERT_EQ(kiv_sqlite_open(idle), SQLITE_OK);
    assertions.take();
    const std::map<char, std::pair<std::string, std::string>> texts = {
        {'d', {"db!=nullptr", "database must be opened"}},
        {'s', {"stmt!=nullptr", "database statement must be opened"}},
        {'z', {"stmt==nullptr", "database statement must not be opened already"}}};
    for (const call& c : table) {
        const int flushes = out.flushes();
        EXPECT_EQ(c.run(kiv_sqlite_handle()), c.empty) << c.name;
        EXPECT_EQ(out.take(), kiv_test::null_object_line(c.name)) << c.name;
        EXPECT_EQ(out.flushes(), flushes + 1) << c.name;
        EXPECT_TRUE(assertions.take().empty()) << c.name << ": an empty handle makes no check";
        for (const auto& [object, expected] : {std::pair(unopened, c.unopened), std::pair(idle, c.idle)}) {
            if (expected == nullptr) continue;
            const bool open = object == idle;
            EXPECT_EQ(c.run(object), expected) << c.name << (open ? " idle" : " unopened");
            std::string made;
            for (const kiv_test::assertion_call& a : assertions.take()) {
                const char kind = a.cond_text == "db!=nullptr" ? 'd' : a.cond_text == "stmt!=nullptr" ? 's' : 'z';
                made += kind;
                EXPECT_EQ(a.cond, kind == 'z' || (kind == 'd' && open)) << c.name << " " << kind;
                EXPECT_EQ(a.message, texts.at(kind).second);
                EXPECT_EQ(a.file, "kiv_database/kiv_sqlite");
                EXPECT_NE(kiv_test::library_source_line(a.line).find("__LINE__"), std::string::npos) << a.line;
            }
            EXPECT_EQ(made, c.checks) << c.name << (open ? " idle" : " unopened");
        }
    }
    EXPECT_FALSE(kiv_is_sqlite({}));  // the type test alone stays silent
    EXPECT_EQ(out.take(), "");
    EXPECT_FALSE(called);
    EXPECT_EQ(kiv_sqlite_last_error_code(idle), SQLITE_OK) << "nothing reached the connection";
    kiv_sqlite_destroy(unopened, __FILE__, __LINE__);
    kiv_sqlite_destroy(idle, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_test::join_database_service());
}

}  // namespace
