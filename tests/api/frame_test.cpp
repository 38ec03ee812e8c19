// Every exported connection function on an empty handle, on an object never opened and on an
// open one without a statement: the result and output parameters, the warning line, the checks.

#include "kiv_db_test_util.h"

namespace {

template <class T>
std::string show(const T& value) {
    std::ostringstream out;
    if constexpr (std::is_same_v<T, const char*>) out << (value ? value : "null");
    if constexpr (!std::is_same_v<T, const char*>) out << value;
    return out.str();
}

struct call {
    std::string name;
    std::function<std::string(kiv_sqlite_handle)> run;
    std::string expected;  // "empty|unopened|idle|checks": results ('-': not run), then the checks made
};
std::string name_in(const std::string& call) { return call.substr(call.find("kiv_"), call.find('(') - call.find("kiv_")); }
#define ROW(expression, expected) {name_in(#expression), [&](kiv_sqlite_handle h) { return show(expression); }, expected}

TEST(ExportedFrame, EveryFunctionOnEmptyUnopenedAndIdleObjects) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(0x8);  // never read: no statement
    const auto* text = reinterpret_cast<const char*>(0x8);
    unsigned char* data = nullptr;
    int size = 0;
    char* message = nullptr;
    unsigned long counter = 0;
    const kiv_sqlite_row_callback callback = [](kiv_sqlite_handle, unsigned long) { return ADD_FAILURE(), true; };
    const std::vector<call> table = {  // checks: d "db!=nullptr", s "stmt!=nullptr", z "stmt==nullptr"
        ROW(kiv_sqlite_get_name(h), "|-|-|"), ROW(kiv_sqlite_open(h), "-1|-|-|"), ROW(kiv_sqlite_try_open(h), "-1|-|-|"),
        ROW(kiv_sqlite_close(h), "0|-|-|"), ROW(kiv_sqlite_is_opened(h), "0|0|1|"), ROW(kiv_sqlite_destroy(h, "f", 1), "0|-|-|"),
        ROW(!kiv_sqlite_to_object(h), "1|0|0|"), ROW(kiv_sqlite_from_object(h) == h, "1|1|1|"),
        ROW(kiv_sqlite_sql_stmt(h, "SELECT 1", &message), "-1|21 message 0|0 message 0|"),
        ROW(kiv_sqlite_prepare(h, ""), "-1|21|0|dz"), ROW(kiv_sqlite_reset(h), "-1|0|0|"), ROW(kiv_sqlite_finalize(h), "0|1|1|"),
        ROW(kiv_sqlite_sql(h), "null|null|null|s"), ROW(kiv_sqlite_bind_int(h, 1, 1), "-1|21|21|s"),
        ROW(kiv_sqlite_bind_int64(h, 1, 1), "-1|21|21|s"), ROW(kiv_sqlite_bind_double(h, 1, 1), "-1|21|21|s"),
        ROW(kiv_sqlite_bind_blob(h, 1, bytes, 3), "-1|21|21|s"), ROW(kiv_sqlite_bind_blob_static(h, 1, bytes, 3), "-1|21|21|s"),
        ROW(kiv_sqlite_bind_text(h, 1, text, 3), "-1|21|21|s"), ROW(kiv_sqlite_bind_text_static(h, 1, text, 3), "-1|21|21|s"),
        ROW(kiv_sqlite_bind_parameter_count(h), "-1|0|0|s"), ROW(kiv_sqlite_bind_parameter_name(h, 1), "null|null|null|s"),
        ROW(kiv_sqlite_bind_parameter_index(h, ":a"), "-1|0|0|s"), ROW(kiv_sqlite_bind_clear(h), "-1|21|21|s"),
        ROW(kiv_sqlite_step(h), "-1|21|21|ds"), ROW(kiv_sqlite_data_count(h), "-1|0|0|s"), ROW(kiv_sqlite_column_count(h), "-1|0|0|s"),
        ROW(kiv_sqlite_last_insert_rowid(h), "-1|0|0|d"), ROW(kiv_sqlite_affected_rows_count(h), "-1|0|0|d"),
        ROW(kiv_sqlite_rows_each(h, callback), "-1|0|0|dsds"), ROW(kiv_sqlite_rows_each(h, counter, callback), "-1|0 counter 0|0 counter 0|dsds"),
        ROW(kiv_sqlite_column_blob(h, 0, data, size), "0|1 blob 0/0|1 blob 0/0|s"), ROW(kiv_sqlite_column_text(h, 0), "|||s"),
        ROW(kiv_sqlite_column_int(h, 0), "-1|0|0|s"), ROW(kiv_sqlite_column_int64(h, 0), "-1|0|0|s"),
        ROW(kiv_sqlite_column_double(h, 0) + 0.5, "-0.5|0.5|0.5|s"), ROW(kiv_sqlite_column_type(h, 0), "-1|0|0|s"),
        ROW(kiv_sqlite_column_decltype(h, 0), "null|null|null|s"), ROW(kiv_sqlite_column_name(h, 0), "null|null|null|s"),
        ROW(kiv_sqlite_is_column_null(h, 0), "0|0|0|s"), ROW(kiv_sqlite_is_column_text(h, 0), "0|0|0|s"),
        ROW(kiv_sqlite_is_column_blob(h, 0), "0|0|0|s"), ROW(kiv_sqlite_is_column_int(h, 0), "0|0|0|s"),
        ROW(kiv_sqlite_is_column_double(h, 0), "0|0|0|s"), ROW(kiv_sqlite_free(h, message), "0|-|-|"),
        ROW(kiv_sqlite_errstr(h, KIV_SQLITE_MISSING_BIND_PARAMETERS),
            "null|Prepared statement missing bind parameters|Prepared statement missing bind parameters|"),
        ROW(kiv_sqlite_last_error_code(h), "-1|21|0|d"),
        ROW(kiv_sqlite_last_error_message(h), "null|bad parameter or other API misuse|not an error|d")};
    const std::map<std::string, std::pair<char, std::string>> checks = {
        {"db!=nullptr", {'d', "database must be opened"}},
        {"stmt!=nullptr", {'s', "database statement must be opened"}},
        {"stmt==nullptr", {'z', "database statement must not be opened already"}}};

    const std::vector<std::string> source = kiv_test::library_source();
    kiv_database_init();
    kiv_test::assertion_recorder assertions;
    kiv_test::cout_capture out;
    const kiv_sqlite_handle objects[] = {kiv_sqlite_handle(), kiv_sqlite_new(":memory:", "u"), kiv_sqlite_new(":memory:", "i")};
    ASSERT_EQ(kiv_sqlite_open(objects[2]), SQLITE_OK);
    assertions.take();
    for (const call& c : table) {
        std::string results, made[3];
        for (int o = 0; o < 3; ++o) {
            const kiv_sqlite_handle& h = objects[o];
            data = reinterpret_cast<unsigned char*>(0x1), size = 7, message = reinterpret_cast<char*>(0x2), counter = 9;
            const int flushes = out.flushes();
            std::string result = h && c.expected.substr(c.expected.find('|'), 3) == "|-|" ? "-" : c.run(h);
            if (data != reinterpret_cast<unsigned char*>(0x1) || size != 7) result += " blob " + show(static_cast<void*>(data)) + "/" + show(size);
            if (message != reinterpret_cast<char*>(0x2)) result += " message " + show(static_cast<void*>(message));
            if (counter != 9) result += " counter " + show(counter);
            results += result + "|";
            EXPECT_EQ(out.take(), h ? "" : kiv_test::null_object_line(c.name)) << c.name;
            EXPECT_EQ(out.flushes(), flushes + !h) << c.name;
            for (const kiv_test::assertion_call& a : assertions.take()) {
                const auto& [kind, text] = checks.at(a.cond_text);
                made[o] += kind;
                EXPECT_EQ(a.cond, kind == 'z' || (kind == 'd' && o == 2)) << c.name << " " << kind;
                EXPECT_EQ(a.message, text);
                EXPECT_EQ(a.file, "kiv_database/kiv_sqlite");
                EXPECT_NE(source.at(a.line).find("(__LINE__);"), std::string::npos) << a.line;  // where the call begins
            }
        }
        EXPECT_EQ(results + made[1], c.expected) << c.name;
        EXPECT_EQ(made[2], made[1]) << c.name << ": the same checks when open";
    }
    EXPECT_FALSE(kiv_is_sqlite({}));  // the type test alone stays silent
    EXPECT_EQ(out.take(), "");
    EXPECT_EQ(kiv_sqlite_last_error_code(objects[2]), SQLITE_OK) << "nothing reached the connection";
    for (const kiv_sqlite_handle& h : objects) kiv_sqlite_destroy(h, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_test::join_database_service());
}

}  // namespace
