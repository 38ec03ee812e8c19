// Connection objects: creation, opening and closing with their checks, the registry of open
// connections by name, and the destroy protocol.

#include <gtest/gtest.h>

#include <boost/weak_ptr.hpp>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

using kiv_test::assertion_call;
using kiv_test::library_source_line;

// Checks one recorded call against the expected condition and that its line is a real check.
void expect_check(const assertion_call& call, bool cond, const char* text, const char* message) {
    EXPECT_EQ(call.cond, cond) << text;
    EXPECT_EQ(call.cond_text, text);
    EXPECT_EQ(call.message, message);
    EXPECT_EQ(call.file, "kiv_database/kiv_sqlite");
    const std::string source = library_source_line(call.line);
    EXPECT_TRUE(source.find("__LINE__") != std::string::npos) << "line " << call.line << ": " << source;
}

const char* const open_text = "db==nullptr";
const char* const open_message = "Trying to open already opened database object";
const char* const db_text = "db!=nullptr";
const char* const db_message = "database must be opened";

TEST(Connection, NewObjectIsClosedAndNamed) {
    const kiv_sqlite_handle a = kiv_sqlite_new("/nonexistent/x.db", "");
    const kiv_sqlite_handle b = kiv_sqlite_new("p", "name with \x01 byte");
    EXPECT_EQ(kiv_sqlite_get_name(a), "");
    EXPECT_EQ(kiv_sqlite_get_name(b), "name with \x01 byte");
    EXPECT_FALSE(kiv_sqlite_is_opened(a));
    EXPECT_EQ(a->db, nullptr);
    EXPECT_EQ(a->stmt, nullptr);
    EXPECT_EQ(a->type_tag(), "[kiv_sqlite]");
    EXPECT_TRUE(a->is_reffed());
    EXPECT_EQ(boost::any_cast<bool>(a->properties.at("object-destroyed")), false);
}

TEST(Connection, OpenTryOpenAndCloseReportTheirChecksInOrder) {
    kiv_test::temp_dir dir;
    kiv_test::assertion_recorder assertions;
    const kiv_sqlite_handle c = kiv_sqlite_new(dir.file("a.db"), "a");

    // try_open needs the file; open creates it.
    EXPECT_NE(kiv_sqlite_try_open(c), SQLITE_OK);
    EXPECT_FALSE(kiv_sqlite_is_opened(c));
    EXPECT_EQ(c->db, nullptr);
    EXPECT_FALSE(kiv_database_get_sqlite("a"));
    EXPECT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    EXPECT_TRUE(kiv_sqlite_is_opened(c));
    EXPECT_EQ(kiv_database_get_sqlite("a"), c);

    // Opening again reports the check and still opens a new connection.
    sqlite3* const first = c->db;
    EXPECT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    EXPECT_NE(c->db, first);
    sqlite3_close(first);  // no longer the object's; close it here to keep the test leak-free

    EXPECT_TRUE(kiv_sqlite_close(c));
    EXPECT_FALSE(kiv_sqlite_is_opened(c));
    EXPECT_FALSE(kiv_database_get_sqlite("a"));
    EXPECT_TRUE(kiv_sqlite_close(c));  // closing a closed object: reported, harmless
    EXPECT_EQ(kiv_sqlite_try_open(c), SQLITE_OK);  // the file exists now
    EXPECT_EQ(kiv_database_get_sqlite("a"), c);
    EXPECT_TRUE(kiv_sqlite_close(c));

    const std::vector<assertion_call> calls = assertions.take();
    ASSERT_EQ(calls.size(), 7u);
    expect_check(calls[0], true, open_text, open_message);    // try_open, fails in SQLite
    expect_check(calls[1], true, open_text, open_message);    // open
    expect_check(calls[2], false, open_text, open_message);   // open while open
    expect_check(calls[3], true, db_text, db_message);        // close
    expect_check(calls[4], false, db_text, db_message);       // close while closed
    expect_check(calls[5], true, open_text, open_message);    // try_open
    expect_check(calls[6], true, db_text, db_message);        // close
    EXPECT_NE(calls[0].line, calls[1].line);  // each operation reports its own line
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
}

TEST(Connection, RegistryKeepsTheFirstOfTwoNamesakes) {
    kiv_test::temp_dir dir;
    const kiv_sqlite_handle first = kiv_sqlite_new(dir.file("1.db"), "same");
    const kiv_sqlite_handle second = kiv_sqlite_new(dir.file("2.db"), "same");
    EXPECT_FALSE(kiv_database_get_sqlite("same"));
    ASSERT_EQ(kiv_sqlite_open(first), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_open(second), SQLITE_OK);
    EXPECT_EQ(kiv_database_get_sqlite("same"), first);
    EXPECT_EQ(kiv_database_get_sqlite("same"), first);

    // Closing the second removes the entry under the name, which was the first's.
    kiv_sqlite_close(second);
    EXPECT_FALSE(kiv_database_get_sqlite("same"));
    EXPECT_TRUE(kiv_sqlite_is_opened(first));

    // Reopening enters the name anew.
    ASSERT_EQ(kiv_sqlite_open(second), SQLITE_OK);
    EXPECT_EQ(kiv_database_get_sqlite("same"), second);
    kiv_sqlite_close(first);
    kiv_sqlite_close(second);
}

TEST(Connection, LookupFinalizesTheStatementAndDropsClosedEntries) {
    kiv_test::temp_dir dir;
    const kiv_sqlite_handle c = kiv_sqlite_new(dir.file("r.db"), "");  // the empty name is a key
    ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1"), SQLITE_OK);
    ASSERT_NE(c->stmt, nullptr);
    EXPECT_EQ(kiv_database_get_sqlite(""), c);
    EXPECT_EQ(c->stmt, nullptr);

    // An entry whose object reports closed is removed by the lookup that finds it.
    const auto mark_opened = [&](bool value) {
        std::lock_guard<std::mutex> guard(c->mutex);
        c->opened = value;
    };
    mark_opened(false);
    const long owners = c.use_count();
    EXPECT_FALSE(kiv_database_get_sqlite(""));
    EXPECT_EQ(c.use_count(), owners - 1) << "the registry's reference is released";
    EXPECT_FALSE(kiv_database_get_sqlite(""));
    mark_opened(true);
    kiv_sqlite_close(c);
}

TEST(Destroy, OpenObjectIsReleasedOnTheWorkerAndFreedWithItsLastHandle) {
    kiv_database_init();
    kiv_test::temp_dir dir;
    kiv_test::cout_capture out;
    kiv_sqlite_handle c = kiv_sqlite_new(dir.file("d.db"), "d");
    ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1"), SQLITE_OK);
    const boost::weak_ptr<_kiv_sqlite> watch = c;

    EXPECT_TRUE(kiv_sqlite_destroy(c, "caller.cpp", 10));
    ASSERT_TRUE(kiv_test::drain_database_worker());
    EXPECT_FALSE(kiv_sqlite_is_opened(c));
    EXPECT_EQ(c->stmt, nullptr);
    EXPECT_FALSE(kiv_database_get_sqlite("d"));
    EXPECT_FALSE(c->is_reffed());
    EXPECT_FALSE(watch.expired()) << "the caller's handle still owns it";
    EXPECT_EQ(out.take(), "left objects in database reference count: 0\n");

    // A second destroy warns with the second caller's place, describes the object, posts nothing.
    EXPECT_TRUE(kiv_sqlite_destroy(c, "again.cpp", 42));
    ASSERT_TRUE(kiv_test::drain_database_worker());
    const std::string expected_warning = kiv_test::warning_banner +
                                         "CALLING DESTROY MULTIPLE TIMES IS NOT AN OPTION " +
                                         kiv_test::coloured("[kiv_sqlite]") + "-again.cpp:42\n";
    const std::string lines = out.take();
    ASSERT_GE(lines.size(), expected_warning.size());
    EXPECT_EQ(lines.substr(0, expected_warning.size()), expected_warning);
    EXPECT_NE(lines.find("[kiv_sqlite]", expected_warning.size()), std::string::npos) << "describe()";
    EXPECT_EQ(lines.find("left objects"), std::string::npos);

    c.reset();
    EXPECT_TRUE(watch.expired());
}

TEST(Destroy, ClosedObjectsLeaveTheListTooAndBadMarksAreRefused) {
    kiv_database_init();
    kiv_test::temp_dir dir;
    kiv_test::cout_capture out;

    // Never opened.
    const kiv_sqlite_handle never = kiv_sqlite_new(dir.file("n.db"), "n");
    // Destroyed, then closed before the job runs: the job skips the close.
    const kiv_sqlite_handle raced = kiv_sqlite_new(dir.file("r.db"), "r");
    ASSERT_EQ(kiv_sqlite_open(raced), SQLITE_OK);
    kiv_sqlite_handle keep_worker_busy = kiv_sqlite_new(dir.file("b.db"), "b");
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    kiv_database_exec([released] { released.wait(); }, __FILE__, __LINE__);
    kiv_sqlite_destroy(never, __FILE__, __LINE__);
    kiv_sqlite_destroy(raced, __FILE__, __LINE__);
    kiv_sqlite_close(raced);
    release.set_value();
    ASSERT_TRUE(kiv_test::drain_database_worker());
    EXPECT_EQ(out.take(),
              "left objects in database reference count: 2\n"
              "left objects in database reference count: 1\n");
    EXPECT_FALSE(never->is_reffed());
    EXPECT_FALSE(raced->is_reffed());

    // A mark that is not a bool: one error line naming the output statement, nothing else.
    keep_worker_busy->properties["object-destroyed"] = std::string("yes");
    EXPECT_TRUE(kiv_sqlite_destroy(keep_worker_busy, __FILE__, __LINE__));
    ASSERT_TRUE(kiv_test::drain_database_worker());
    const int line = kiv_test::library_source_line_of("\"bad cast destroy any: \"");
    EXPECT_EQ(out.take(), kiv_test::error_banner + "bad cast destroy any: kiv_database/kiv_sqlite:" +
                              std::to_string(line) +
                              " - boost::bad_any_cast: failed conversion using boost::any_cast\n");
    EXPECT_TRUE(keep_worker_busy->is_reffed()) << "no job was posted";
    keep_worker_busy->properties["object-destroyed"] = false;
    kiv_sqlite_destroy(keep_worker_busy, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker());
}

}  // namespace
