// Connection objects: opening and closing with their checks and memory, the registry of open
// connections by name, conversions, and the destroy protocol with its console lines.

#include "kiv_db_test_util.h"

namespace {

using kiv_test::objects_left;
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
    EXPECT_EQ(kiv_sqlite_last_error_code(c), SQLITE_MISUSE) << "it keeps no connection";
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
        EXPECT_NE(source.at(a.line).find("(__LINE__);"), std::string::npos) << a.line;
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
    const auto mark_opened = [&twin](bool opened) {
        std::lock_guard<std::mutex> guard(twin->mutex);
        twin->opened = opened;
    };
    mark_opened(false);  // an entry whose object reports closed is dropped
    EXPECT_FALSE(kiv_database_get_sqlite("a"));
    EXPECT_EQ(twin.use_count(), owners - 1) << "the registry's reference is released";
    mark_opened(true);

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
    // Two threads destroy one open object at the same moment, the worker held back behind a job of
    // ours: one job; the lookup hands nothing out and the statement is left to the job (two threads
    // finalizing it would free it twice); the second caller is warned with its place and the object
    // described, a line of its own. Every other round closes it first.
    kiv_sqlite_handle c;
    for (int round = 0; round < 50; ++round) {
        c = kiv_sqlite_new(":memory:", "race");
        ASSERT_EQ(kiv_sqlite_open(c) + kiv_sqlite_prepare(c, "SELECT 1"), SQLITE_OK);
        std::promise<void> hold, start;
        std::promise<int> queued;  // the jobs that waited behind ours
        kiv_database_exec([&, start = start.get_future().share()] { hold.set_value(), start.wait(), queued.set_value(kiv_database_run_once()); },
                          __FILE__, __LINE__);
        hold.get_future().wait();
        std::atomic<int> ready{0};
        const auto destroy = [&] {
            for (++ready; ready.load() < 2;) {
            }
            EXPECT_TRUE(kiv_sqlite_destroy(c, "race.cpp", round));
        };
        std::thread first(destroy), second(destroy);
        first.join(), second.join();
        EXPECT_TRUE(!kiv_database_get_sqlite("race") && c->stmt != nullptr);
        if (round % 2) {  // the job skips the close
            kiv_sqlite_finalize(c);
            kiv_sqlite_close(c);
        }
        start.set_value();
        EXPECT_EQ(queued.get_future().get(), 1) << "round " << round;
        EXPECT_FALSE(c->stmt || kiv_sqlite_is_opened(c) || c->is_reffed());
        const std::string seen = out.take(), warning = kiv_test::warning_banner + "CALLING DESTROY MULTIPLE TIMES IS NOT AN OPTION " +
                                                       kiv_test::coloured("[kiv_sqlite]") + "-race.cpp:" + std::to_string(round) + "\n";
        EXPECT_EQ(seen.substr(0, warning.size()), warning);
        EXPECT_EQ(kiv_test::count_of(seen, "\n") + kiv_test::count_of(seen, "[kiv_sqlite]"), 5u) << seen;
        EXPECT_EQ(seen.substr(seen.size() - objects_left(0).size()), objects_left(0)) << "the job's line last";
    }
    EXPECT_TRUE(kiv_sqlite_destroy(c, "again.cpp", 42));  // once its job has run: a warning, no job
    ASSERT_TRUE(kiv_test::drain_database_worker());
    EXPECT_EQ(kiv_test::count_of(out.take(), "-again.cpp:42\n"), 1u);

    // A mark that is not a bool: one error line naming the output statement, no job.
    const kiv_sqlite_handle marked = kiv_sqlite_new(":memory:", "marked");
    marked->properties["object-destroyed"] = std::string("yes");
    EXPECT_TRUE(kiv_sqlite_destroy(marked, __FILE__, __LINE__));
    ASSERT_TRUE(kiv_test::drain_database_worker());
    const auto line = std::find_if(source.begin(), source.end(), [](auto& l) { return l.find("\"bad cast destroy any: \"") != l.npos; });
    EXPECT_EQ(out.take(), kiv_test::error_banner + "bad cast destroy any: kiv_database/kiv_sqlite:" + std::to_string(line - source.begin()) +
                              " - boost::bad_any_cast: failed conversion using boost::any_cast\n");
    marked->properties["object-destroyed"] = false;
    kiv_sqlite_destroy(marked, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker() && kiv_test::join_database_service());
    EXPECT_EQ(out.take(), objects_left(0) + kiv_test::shutdown_request + kiv_test::service_stopped);
    EXPECT_TRUE(released(c));
}

}  // namespace
