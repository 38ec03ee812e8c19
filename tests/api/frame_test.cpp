// Every exported connection function with an empty handle: exactly one warning line naming the
// function, the default of its result type, no output written, no check made.

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

using kiv_test::null_object_line;

struct empty_call {
    const char* name;
    std::function<void()> call_and_check;  // runs the call and checks its result
};

TEST(ExportedFrame, EmptyHandleWarnsOnceAndReturnsTheDefault) {
    const kiv_sqlite_handle none;
    unsigned char* data = reinterpret_cast<unsigned char*>(0x1);
    int size = 77;
    char* memory = reinterpret_cast<char*>(0x2);
    unsigned long counter = 55;
    bool callback_called = false;
    const kiv_sqlite_row_callback callback = [&](kiv_sqlite_handle, unsigned long) {
        callback_called = true;
        return true;
    };

    const std::vector<empty_call> calls = {
        {"kiv_sqlite_get_name", [&] { EXPECT_EQ(kiv_sqlite_get_name(none), ""); }},
        {"kiv_sqlite_open", [&] { EXPECT_EQ(kiv_sqlite_open(none), -1); }},
        {"kiv_sqlite_try_open", [&] { EXPECT_EQ(kiv_sqlite_try_open(none), -1); }},
        {"kiv_sqlite_close", [&] { EXPECT_FALSE(kiv_sqlite_close(none)); }},
        {"kiv_sqlite_is_opened", [&] { EXPECT_FALSE(kiv_sqlite_is_opened(none)); }},
        {"kiv_sqlite_destroy", [&] { EXPECT_FALSE(kiv_sqlite_destroy(none, "f.cpp", 1)); }},
        {"kiv_sqlite_to_object", [&] { EXPECT_FALSE(kiv_sqlite_to_object(none)); }},
        {"kiv_sqlite_from_object", [&] { EXPECT_FALSE(kiv_sqlite_from_object({})); }},
        {"kiv_sqlite_sql_stmt", [&] { EXPECT_EQ(kiv_sqlite_sql_stmt(none, "SELECT 1", &memory), -1); }},
        {"kiv_sqlite_prepare", [&] { EXPECT_EQ(kiv_sqlite_prepare(none, "SELECT 1"), -1); }},
        {"kiv_sqlite_reset", [&] { EXPECT_EQ(kiv_sqlite_reset(none), -1); }},
        {"kiv_sqlite_finalize", [&] { EXPECT_FALSE(kiv_sqlite_finalize(none)); }},
        {"kiv_sqlite_sql", [&] { EXPECT_EQ(kiv_sqlite_sql(none), nullptr); }},
        {"kiv_sqlite_bind_int", [&] { EXPECT_EQ(kiv_sqlite_bind_int(none, 1, 1), -1); }},
        {"kiv_sqlite_bind_int64", [&] { EXPECT_EQ(kiv_sqlite_bind_int64(none, 1, 1), -1); }},
        {"kiv_sqlite_bind_double", [&] { EXPECT_EQ(kiv_sqlite_bind_double(none, 1, 1.0), -1); }},
        // A dangling text pointer: the frame must not read it.
        {"kiv_sqlite_bind_blob",
         [&] { EXPECT_EQ(kiv_sqlite_bind_blob(none, 1, reinterpret_cast<const unsigned char*>(0x8), 3), -1); }},
        {"kiv_sqlite_bind_blob_static",
         [&] { EXPECT_EQ(kiv_sqlite_bind_blob_static(none, 1, reinterpret_cast<const unsigned char*>(0x8), 3), -1); }},
        {"kiv_sqlite_bind_text",
         [&] { EXPECT_EQ(kiv_sqlite_bind_text(none, 1, reinterpret_cast<const char*>(0x8), 3), -1); }},
        {"kiv_sqlite_bind_text_static",
         [&] { EXPECT_EQ(kiv_sqlite_bind_text_static(none, 1, reinterpret_cast<const char*>(0x8), 3), -1); }},
        {"kiv_sqlite_bind_parameter_count", [&] { EXPECT_EQ(kiv_sqlite_bind_parameter_count(none), -1); }},
        {"kiv_sqlite_bind_parameter_name", [&] { EXPECT_EQ(kiv_sqlite_bind_parameter_name(none, 1), nullptr); }},
        {"kiv_sqlite_bind_parameter_index", [&] { EXPECT_EQ(kiv_sqlite_bind_parameter_index(none, ":a"), -1); }},
        {"kiv_sqlite_bind_clear", [&] { EXPECT_EQ(kiv_sqlite_bind_clear(none), -1); }},
        {"kiv_sqlite_step", [&] { EXPECT_EQ(kiv_sqlite_step(none), -1); }},
        {"kiv_sqlite_data_count", [&] { EXPECT_EQ(kiv_sqlite_data_count(none), -1); }},
        {"kiv_sqlite_column_count", [&] { EXPECT_EQ(kiv_sqlite_column_count(none), -1); }},
        {"kiv_sqlite_last_insert_rowid", [&] { EXPECT_EQ(kiv_sqlite_last_insert_rowid(none), -1LL); }},
        {"kiv_sqlite_affected_rows_count", [&] { EXPECT_EQ(kiv_sqlite_affected_rows_count(none), -1); }},
        {"kiv_sqlite_rows_each", [&] { EXPECT_EQ(kiv_sqlite_rows_each(none, callback), -1); }},
        {"kiv_sqlite_rows_each", [&] { EXPECT_EQ(kiv_sqlite_rows_each(none, counter, callback), -1); }},
        {"kiv_sqlite_column_blob", [&] { EXPECT_FALSE(kiv_sqlite_column_blob(none, 0, data, size)); }},
        {"kiv_sqlite_column_text", [&] { EXPECT_EQ(kiv_sqlite_column_text(none, 0), std::string()); }},
        {"kiv_sqlite_column_int", [&] { EXPECT_EQ(kiv_sqlite_column_int(none, 0), -1); }},
        {"kiv_sqlite_column_int64", [&] { EXPECT_EQ(kiv_sqlite_column_int64(none, 0), -1LL); }},
        {"kiv_sqlite_column_double", [&] { EXPECT_EQ(kiv_sqlite_column_double(none, 0), -1.0); }},
        {"kiv_sqlite_column_type", [&] { EXPECT_EQ(kiv_sqlite_column_type(none, 0), -1); }},
        {"kiv_sqlite_column_decltype", [&] { EXPECT_EQ(kiv_sqlite_column_decltype(none, 0), nullptr); }},
        {"kiv_sqlite_column_name", [&] { EXPECT_EQ(kiv_sqlite_column_name(none, 0), nullptr); }},
        {"kiv_sqlite_is_column_null", [&] { EXPECT_FALSE(kiv_sqlite_is_column_null(none, 0)); }},
        {"kiv_sqlite_is_column_text", [&] { EXPECT_FALSE(kiv_sqlite_is_column_text(none, 0)); }},
        {"kiv_sqlite_is_column_blob", [&] { EXPECT_FALSE(kiv_sqlite_is_column_blob(none, 0)); }},
        {"kiv_sqlite_is_column_int", [&] { EXPECT_FALSE(kiv_sqlite_is_column_int(none, 0)); }},
        {"kiv_sqlite_is_column_double", [&] { EXPECT_FALSE(kiv_sqlite_is_column_double(none, 0)); }},
        {"kiv_sqlite_free", [&] { EXPECT_FALSE(kiv_sqlite_free(none, memory)); }},
        {"kiv_sqlite_errstr", [&] { EXPECT_EQ(kiv_sqlite_errstr(none, KIV_SQLITE_MISSING_BIND_PARAMETERS), nullptr); }},
        {"kiv_sqlite_last_error_code", [&] { EXPECT_EQ(kiv_sqlite_last_error_code(none), -1); }},
        {"kiv_sqlite_last_error_message", [&] { EXPECT_EQ(kiv_sqlite_last_error_message(none), nullptr); }},
    };

    kiv_test::assertion_recorder assertions;
    for (const empty_call& c : calls) {
        kiv_test::cout_capture out;
        c.call_and_check();
        EXPECT_EQ(out.str(), null_object_line(c.name)) << c.name;
        EXPECT_EQ(out.flushes(), 1) << c.name;
    }
    EXPECT_TRUE(assertions.take().empty()) << "an empty handle makes no check";
    EXPECT_EQ(data, reinterpret_cast<unsigned char*>(0x1));
    EXPECT_EQ(size, 77);
    EXPECT_EQ(memory, reinterpret_cast<char*>(0x2));
    EXPECT_EQ(counter, 55u);
    EXPECT_FALSE(callback_called);
}

TEST(ExportedFrame, TypeTestIsSilentAndConversionsShareOwnership) {
    kiv_test::cout_capture out;
    EXPECT_FALSE(kiv_is_sqlite({}));
    EXPECT_EQ(out.take(), "");

    const kiv_sqlite_handle connection = kiv_sqlite_new(":memory:", "conv");
    const long owners = connection.use_count();
    {
        const boost::shared_ptr<_kiv_object> object = kiv_sqlite_to_object(connection);
        EXPECT_EQ(object.get(), static_cast<_kiv_object*>(connection.get()));
        EXPECT_EQ(connection.use_count(), owners + 1);
        EXPECT_TRUE(kiv_is_sqlite(object));
        const kiv_sqlite_handle back = kiv_sqlite_from_object(object);
        EXPECT_EQ(back.get(), connection.get());
        EXPECT_EQ(connection.use_count(), owners + 2);
    }
    EXPECT_EQ(connection.use_count(), owners);

    // Another framework class is no connection: empty handle, no message.
    const boost::shared_ptr<_kiv_object> plain(new _kiv_object);
    EXPECT_FALSE(kiv_is_sqlite(plain));
    EXPECT_FALSE(kiv_sqlite_from_object(plain));
    EXPECT_EQ(out.take(), "");

    // Without an owner left, the self-reference cannot make a handle.
    _kiv_sqlite unowned(":memory:", "unowned");
    EXPECT_THROW(unowned.shared_object(), boost::bad_weak_ptr);
}

}  // namespace
