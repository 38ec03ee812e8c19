// Connection objects: opening and closing with their checks and memory, the registry of open
// connections by name, conversions, and the destroy protocol with its console lines.

#include "kiv_db_test_util.h"

namespace {

const std::string& left = kiv_test::objects_left;
const std::vector<std::string> source = kiv_test::library_source();

// The object's memory goes with its last handle, which the worker may hold a moment longer.
bool released(kiv_sqlite_handle& c) {
    const boost::weak_ptr<_kiv_sqlite> gone = c;
    c.reset();
    for (int i = 0; i < 10000 && !gone.expired(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return gone.expired();
}

TEST(Connection, OpenCloseRegistryAndMemory) {
    kiv_database_init();
    kiv_test::temp_dir dir;
    kiv_test::assertion_recorder assertions;
    kiv_sqlite_handle c = kiv_sqlite_new(dir.file("a.db"), "a"), twin = kiv_sqlite_new(dir.file("b.db"), "a");
    ASSERT_EQ(kiv_sqlite_open(twin), SQLITE_OK);  // SQLite's one-time set-up, out of the measure
    kiv_sqlite_close(twin);
    const sqlite3_int64 baseline = sqlite3_memory_used();
    assertions.take();
    EXPECT_EQ(kiv_sqlite_try_open(c), SQLITE_CANTOPEN);  // needs the file
    EXPECT_EQ(sqlite3_memory_used(), baseline) << "a failed open gives its connection back";
    EXPECT_EQ(kiv_sqlite_last_error_code(c), SQLITE_MISUSE) << "and keeps none";
    EXPECT_FALSE(kiv_sqlite_is_opened(c) || kiv_database_get_sqlite("a"));
    EXPECT_EQ(kiv_sqlite_open(c), SQLITE_OK);  // creates it
    EXPECT_EQ(kiv_database_get_sqlite("a"), c);
    sqlite3* const first = c->db;
    EXPECT_EQ(kiv_sqlite_open(c), SQLITE_OK) << "opening again replaces the connection";
    sqlite3_close(first);
    EXPECT_TRUE(kiv_sqlite_close(c) && kiv_sqlite_close(c));  // the second is reported, harmless
    EXPECT_FALSE(kiv_database_get_sqlite("a"));
    EXPECT_EQ(kiv_sqlite_try_open(c), SQLITE_OK);
    const std::string open = "db==nullptr Trying to open already opened database object", db = "db!=nullptr database must be opened";
    const std::vector<std::string> expected = {"1" + open, "0" + db, "1" + open, "0" + open, "1" + db, "0" + db, "1" + open};
    std::vector<std::string> made;
    for (const kiv_test::assertion_call& a : assertions.take()) {
        made.push_back(std::to_string(a.cond) + a.cond_text + " " + a.message);
        EXPECT_NE(source.at(a.line).find("__LINE__"), std::string::npos) << a.line;
    }
    EXPECT_EQ(made, expected);

    // Namesakes: the first stays registered; closing either removes the entry under the name.
    ASSERT_EQ(kiv_sqlite_open(twin), SQLITE_OK);
    EXPECT_EQ(kiv_database_get_sqlite("a"), c);
    kiv_sqlite_close(twin);
    EXPECT_FALSE(kiv_database_get_sqlite("a"));
    ASSERT_EQ(kiv_sqlite_open(twin), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(twin, "SELECT 1"), SQLITE_OK);
    EXPECT_EQ(kiv_database_get_sqlite("a"), twin);
    EXPECT_EQ(twin->stmt, nullptr) << "the lookup finalizes the statement";
    const long owners = twin.use_count();
    {  // an entry whose object reports closed is dropped
        std::lock_guard<std::mutex> guard(twin->mutex);
        twin->opened = false;
    }
    EXPECT_FALSE(kiv_database_get_sqlite("a"));
    EXPECT_EQ(twin.use_count(), owners - 1) << "the registry's reference is released";
    {
        std::lock_guard<std::mutex> guard(twin->mutex);
        twin->opened = true;
    }

    // Conversions hand out the same object under shared ownership; other classes are no connection.
    EXPECT_EQ(c.use_count(), 3) << "ours, the framework's, the live-object list's";
    EXPECT_FALSE(kiv_sqlite_from_object(boost::shared_ptr<_kiv_object>(new _kiv_object)));

    // A statement held across close keeps its connection inside SQLite until it is finalized.
    kiv_sqlite_close(c);
    kiv_sqlite_close(twin);
    for (const bool by_destroy : {false, true}) {
        ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
        ASSERT_EQ(kiv_sqlite_prepare(c, "SELECT 1"), SQLITE_OK);
        kiv_sqlite_close(c);
        EXPECT_EQ(kiv_sqlite_step(c), SQLITE_ROW) << "it runs on the connection kept for it";
        EXPECT_TRUE(by_destroy || kiv_sqlite_finalize(c));  // else released by the destroy
    }
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    kiv_sqlite_destroy(twin, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker() && released(c) && released(twin));
    EXPECT_EQ(sqlite3_memory_used(), baseline);
    EXPECT_TRUE(kiv_test::join_database_service());
}

TEST(Destroy, ReleasedOnTheWorkerWarnedTwiceRacedAndBadMarksRefused) {
    kiv_database_init();
    kiv_test::cout_capture out;
    kiv_sqlite_handle c = kiv_sqlite_new(":memory:", "d");
    const kiv_sqlite_handle never = kiv_sqlite_new(":memory:", "never"), raced = kiv_sqlite_new(":memory:", "raced");
    ASSERT_EQ(kiv_sqlite_open(c) + kiv_sqlite_open(raced) + kiv_sqlite_prepare(c, "SELECT 1"), SQLITE_OK);
    // Held back behind a job of ours: after destroy the lookup hands nothing out and the
    // statement is left to the job (two threads finalizing it would free it twice).
    std::promise<void> holding, go;
    kiv_database_exec([&holding, go = go.get_future().share()] { holding.set_value(), go.wait(); }, __FILE__, __LINE__);
    holding.get_future().wait();
    EXPECT_TRUE(kiv_sqlite_destroy(c, "caller.cpp", 10));
    EXPECT_FALSE(kiv_database_get_sqlite("d"));
    EXPECT_NE(c->stmt, nullptr);
    kiv_sqlite_destroy(never, __FILE__, __LINE__);
    kiv_sqlite_destroy(raced, __FILE__, __LINE__);
    kiv_sqlite_close(raced);  // before its job: the job skips the close
    go.set_value();
    ASSERT_TRUE(kiv_test::drain_database_worker());
    EXPECT_EQ(out.take(), left + "2\n" + left + "1\n" + left + "0\n");
    EXPECT_TRUE(c->stmt == nullptr && !kiv_sqlite_is_opened(c));
    EXPECT_FALSE(c->is_reffed() || never->is_reffed() || raced->is_reffed());

    // A second destroy warns with the second caller's place, describes the object, posts nothing.
    EXPECT_TRUE(kiv_sqlite_destroy(c, "again.cpp", 42));
    ASSERT_TRUE(kiv_test::drain_database_worker());
    const std::string warning = kiv_test::warning_banner + "CALLING DESTROY MULTIPLE TIMES IS NOT AN OPTION " +
                                kiv_test::coloured("[kiv_sqlite]") + "-again.cpp:42\n";
    const std::string lines = out.take();
    EXPECT_EQ(lines.substr(0, warning.size()), warning);
    EXPECT_EQ(kiv_test::count_of(lines, "[kiv_sqlite]"), 2u) << lines;  // describe()
    EXPECT_EQ(kiv_test::count_of(lines, "\n"), 2u) << lines;

    // Two threads destroy one object at the same moment: one job, one warning line.
    for (int round = 0; round < 50; ++round) {
        const kiv_sqlite_handle target = kiv_sqlite_new(":memory:", "race");
        std::promise<void> hold, start;
        std::promise<int> queued;  // the jobs that waited behind ours
        kiv_database_exec([&, start = start.get_future().share()] { hold.set_value(), start.wait(), queued.set_value(kiv_database_run_once()); },
                          __FILE__, __LINE__);
        hold.get_future().wait();
        std::atomic<int> ready{0};
        const auto destroy = [&] {
            for (++ready; ready.load() < 2;) {
            }
            EXPECT_TRUE(kiv_sqlite_destroy(target, "race.cpp", round));
        };
        std::thread first(destroy), second(destroy);
        first.join(), second.join(), start.set_value();
        EXPECT_EQ(queued.get_future().get(), 1) << "round " << round;
        const std::string seen = out.take();
        EXPECT_EQ(kiv_test::count_of(seen, "CALLING DESTROY MULTIPLE TIMES") + kiv_test::count_of(seen, left + "0\n"), 2u) << seen;
    }

    // A mark that is not a bool: one error line naming the output statement, no job.
    const kiv_sqlite_handle marked = kiv_sqlite_new(":memory:", "marked");
    marked->properties["object-destroyed"] = std::string("yes");
    EXPECT_TRUE(kiv_sqlite_destroy(marked, __FILE__, __LINE__));
    ASSERT_TRUE(kiv_test::drain_database_worker());
    EXPECT_EQ(out.take(), kiv_test::error_banner + "bad cast destroy any: kiv_database/kiv_sqlite:" +
                              std::to_string(std::find_if(source.begin(), source.end(), [](const std::string& l) {
                                  return l.find("\"bad cast destroy any: \"") != std::string::npos;
                              }) - source.begin()) +
                              " - boost::bad_any_cast: failed conversion using boost::any_cast\n");
    marked->properties["object-destroyed"] = false;
    kiv_sqlite_destroy(marked, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker() && kiv_test::join_database_service());
    EXPECT_EQ(out.take(), left + "0\nDATABASE SERVICE SHOT DONW REQUEST\nDATABASE THREAD SERVICE STOPPED\nDATABASE SERVICE DONE\n");
    EXPECT_TRUE(released(c));
}

}  // namespace
