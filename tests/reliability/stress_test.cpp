// Many threads, many objects, shared database files, lookups by name and a join request midway:
// every committed row lands, every object leaves the list, the service stops once.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

using kiv_test::count_of;

constexpr int writers = 8;
constexpr int objects_per_writer = 500;
constexpr int files = 4;
constexpr int rows_per_transaction = 3;

std::string object_name(int writer, int index) { return "w" + std::to_string(writer) + "_" + std::to_string(index); }

long long scalar(const kiv_sqlite_handle& c, const std::string& sql) {
    if (kiv_sqlite_prepare(c, sql) != SQLITE_OK || kiv_sqlite_step(c) != SQLITE_ROW) return -1;
    const long long value = kiv_sqlite_column_int64(c, 0);
    kiv_sqlite_finalize(c);
    return value;
}

TEST(Stress, WritersLookupsAndAJoinMidway) {
    const auto started = std::chrono::steady_clock::now();
    kiv_database_init();
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    ASSERT_TRUE(service);
    kiv_test::temp_dir dir;
    std::vector<std::string> paths;
    for (int f = 0; f < files; ++f) {
        paths.push_back(dir.file("shared" + std::to_string(f) + ".db"));
        const kiv_sqlite_handle setup = kiv_sqlite_new(paths.back(), "setup");
        ASSERT_EQ(kiv_sqlite_open(setup), SQLITE_OK);
        ASSERT_EQ(kiv_sqlite_sql_stmt(setup,
                                      "PRAGMA journal_mode=WAL;"
                                      "CREATE TABLE rows(writer INTEGER, object INTEGER, k INTEGER, "
                                      "PRIMARY KEY(writer, object, k))",
                                      nullptr),
                  SQLITE_OK);
        kiv_sqlite_destroy(setup, __FILE__, __LINE__);
    }
    ASSERT_TRUE(kiv_test::drain_database_worker());

    kiv_test::cout_capture out;
    // Keeps the list from emptying between two writers' objects once the join has come.
    const kiv_sqlite_handle anchor = kiv_sqlite_new(":memory:", "anchor");
    std::atomic<int> created{0};
    std::atomic<bool> writing{true};
    std::vector<std::vector<int>> committed(writers);  // per writer: the objects whose rows committed
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w) {
        threads.emplace_back([&, w] {
            for (int i = 0; i < objects_per_writer; ++i) {
                const kiv_sqlite_handle c = kiv_sqlite_new(paths[(w + i) % files], object_name(w, i));
                ++created;
                if (kiv_sqlite_open(c) == SQLITE_OK &&
                    kiv_sqlite_sql_stmt(c, "PRAGMA busy_timeout=30000; PRAGMA synchronous=NORMAL", nullptr) == SQLITE_OK) {
                    std::string sql = "BEGIN IMMEDIATE;";
                    for (int k = 0; k < rows_per_transaction; ++k)
                        sql += "INSERT INTO rows VALUES (" + std::to_string(w) + "," + std::to_string(i) + "," +
                               std::to_string(k) + ");";
                    const int rc = kiv_sqlite_sql_stmt(c, (sql + "COMMIT").c_str(), nullptr);
                    if (rc == SQLITE_OK) {
                        committed[w].push_back(i);
                    } else {
                        ADD_FAILURE() << object_name(w, i) << ": " << rc << " " << kiv_sqlite_last_error_message(c);
                        kiv_sqlite_sql_stmt(c, "ROLLBACK", nullptr);
                    }
                } else {
                    ADD_FAILURE() << object_name(w, i) << " did not open";
                }
                kiv_sqlite_destroy(c, __FILE__, __LINE__);
            }
        });
    }
    // Lookups only look: a found object's statement slot is its owner's, and writers hold none.
    std::atomic<long> lookups{0};
    std::atomic<long> found{0};
    for (int l = 0; l < 2; ++l) {
        threads.emplace_back([&, l] {
            std::mt19937 random(static_cast<unsigned>(l));
            while (writing.load()) {
                const std::string name = object_name(random() % writers, random() % objects_per_writer);
                const kiv_sqlite_handle hit = kiv_database_get_sqlite(name);
                ++lookups;
                if (hit) {
                    ++found;
                    EXPECT_EQ(kiv_sqlite_get_name(hit), name);
                }
            }
        });
    }
    const auto midway_deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (created.load() < writers * objects_per_writer / 2 && std::chrono::steady_clock::now() < midway_deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    kiv_thread_service_join(service, 0);
    for (int w = 0; w < writers; ++w) threads[static_cast<std::size_t>(w)].join();
    writing = false;
    for (std::size_t t = writers; t < threads.size(); ++t) threads[t].join();
    EXPECT_FALSE(kiv_thread_service_wait(service, 0)) << "the anchor holds the stop back";
    kiv_sqlite_destroy(anchor, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_thread_service_wait(service, 60000));

    const std::string lines = out.take();
    const std::string left = "left objects in database reference count: ";
    EXPECT_EQ(count_of(lines, left), static_cast<std::size_t>(writers * objects_per_writer + 1));
    EXPECT_EQ(count_of(lines, "DATABASE SERVICE SHOT DONW REQUEST\n"), 1u);
    EXPECT_EQ(count_of(lines, "DATABASE THREAD SERVICE STOPPED\n"), 1u);
    EXPECT_EQ(count_of(lines, "DATABASE SERVICE DONE\n"), 1u);
    const std::string tail = left + "0\nDATABASE THREAD SERVICE STOPPED\nDATABASE SERVICE DONE\n";
    ASSERT_GE(lines.size(), tail.size());
    EXPECT_EQ(lines.substr(lines.size() - tail.size()), tail);

    // Read back on a service started afresh: every committed row, nothing else. The join request
    // still stands, so the new service stops by itself whenever the list empties: an anchor
    // again keeps it up until the last check is done.
    kiv_database_init();
    const kiv_thread_service_handle again = kiv_thread_service_find("database");
    const kiv_sqlite_handle reader_anchor = kiv_sqlite_new(":memory:", "reader_anchor");
    long long rows = 0;
    for (int f = 0; f < files; ++f) {
        const kiv_sqlite_handle c = kiv_sqlite_new(paths[static_cast<std::size_t>(f)], "check");
        ASSERT_EQ(kiv_sqlite_try_open(c), SQLITE_OK);
        rows += scalar(c, "SELECT count(*) FROM rows");
        for (int w = 0; w < writers; ++w) {
            long long expected = 0;
            for (const int i : committed[static_cast<std::size_t>(w)])
                if ((w + i) % files == f) expected += rows_per_transaction;
            EXPECT_EQ(scalar(c, "SELECT count(*) FROM rows WHERE writer = " + std::to_string(w)), expected)
                << "file " << f << " writer " << w;
        }
        kiv_sqlite_destroy(c, __FILE__, __LINE__);
    }
    EXPECT_EQ(rows, static_cast<long long>(writers) * objects_per_writer * rows_per_transaction);
    kiv_sqlite_destroy(reader_anchor, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_thread_service_wait(again, 10000));
    const std::string after = out.take();
    EXPECT_EQ(count_of(after, "DATABASE THREAD SERVICE STOPPED\n"), 1u);
    ASSERT_GE(after.size(), tail.size());
    EXPECT_EQ(after.substr(after.size() - tail.size()), tail);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::fprintf(stderr, "stress: %d objects, %lld rows, %ld lookups (%ld found), %.1f s\n",
                 writers * objects_per_writer, rows, lookups.load(), found.load(), seconds);
}

}  // namespace
