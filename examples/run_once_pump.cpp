// A host with an event loop of its own that pumps the database service with
// kiv_database_run_once. Each turn runs the database work that is due right here, then waits
// for the host's own events; the insert jobs post one event each when done. A job may run on
// the worker or inside run_once (the framework decides): the loop only counts events, so it
// ends the same way either way, without sleeping or polling.
// Works on run_once_pump.db in the current directory, removed at the end.
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <iostream>
#include <mutex>
#include <string>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

constexpr int kRows = 500;

// The host's own event queue: any thread posts, the loop takes everything posted so far.
class event_queue {
public:
    void post(bool ok) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(ok);
        }
        ready_.notify_one();
    }
    std::deque<bool> wait_and_take() {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait(lock, [this] { return !events_.empty(); });
        std::deque<bool> taken;
        taken.swap(events_);
        return taken;
    }

private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<bool> events_;
};

}  // namespace

int main() {
    const std::string path = "run_once_pump.db";
    kiv_database_init();
    const kiv_sqlite_handle db = kiv_sqlite_new(path, "pumped");
    event_queue events;
    kiv_database_exec(
        [db, &events] {
            events.post(kiv_sqlite_open(db) == SQLITE_OK &&
                        kiv_sqlite_sql_stmt(db, "DROP TABLE IF EXISTS t; CREATE TABLE t(n); BEGIN", nullptr) ==
                            SQLITE_OK &&
                        kiv_sqlite_prepare(db, "INSERT INTO t VALUES (?1)") == SQLITE_OK);
        },
        __FILE__, __LINE__);
    for (int i = 0; i < kRows; ++i) {
        kiv_database_exec(
            [db, i, &events] {
                kiv_sqlite_bind_int(db, 1, i);
                const bool ok = kiv_sqlite_step(db) == SQLITE_DONE;
                kiv_sqlite_reset(db);
                events.post(ok);
            },
            __FILE__, __LINE__);
    }
    kiv_database_exec(
        [db, &events] {
            kiv_sqlite_finalize(db);
            // Every row once: the sum of 0 .. kRows - 1.
            const bool whole = kiv_sqlite_sql_stmt(db, "COMMIT", nullptr) == SQLITE_OK &&
                               kiv_sqlite_prepare(db, "SELECT count(*), sum(n) FROM t") == SQLITE_OK &&
                               kiv_sqlite_step(db) == SQLITE_ROW && kiv_sqlite_column_int(db, 0) == kRows &&
                               kiv_sqlite_column_int(db, 1) == kRows * (kRows - 1) / 2;
            kiv_sqlite_finalize(db);
            events.post(whole);
        },
        __FILE__, __LINE__);

    // The host's loop: database work due now, then the host's own events.
    int received = 0;
    int failed = 0;
    while (received < kRows + 2) {
        kiv_database_run_once();
        for (const bool ok : events.wait_and_take()) {
            ++received;
            if (!ok) ++failed;
        }
    }
    std::cout << "host loop: " << received << " jobs reported (" << kRows << " inserts), " << failed << " failed"
              << std::endl;
    kiv_sqlite_destroy(db, __FILE__, __LINE__);
    kiv_thread_service_join_all(0);
    const bool joined = !kiv_thread_service_find("database");  // the join returned: the service is gone
    std::remove(path.c_str());
    return joined && failed == 0 ? 0 : 1;
}
