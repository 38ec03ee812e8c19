// The fast path: a connection and its prepared statement held by the jobs that use them.
// Every insert is one job on the database worker that binds, steps and resets the statement it
// shares with the other jobs; nothing is looked up or prepared per job. All of the object's
// work runs on the worker, so it is used by one thread at a time without a lock of our own.
// Works on held_statement.db in the current directory, removed at the end.
#include <cstdio>
#include <future>
#include <iostream>
#include <string>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {
constexpr int kRows = 1000;
}

int main() {
    const std::string path = "held_statement.db";
    kiv_database_init();
    const kiv_sqlite_handle db = kiv_sqlite_new(path, "events");
    int failures = 0;  // touched by the jobs only, read after the last one has reported

    kiv_database_exec(
        [db, &failures] {
            const bool ok = kiv_sqlite_open(db) == SQLITE_OK &&
                            kiv_sqlite_sql_stmt(db, "DROP TABLE IF EXISTS events; CREATE TABLE events(id, what); BEGIN",
                                                nullptr) == SQLITE_OK &&
                            kiv_sqlite_prepare(db, "INSERT INTO events VALUES (?1, ?2)") == SQLITE_OK;
            if (!ok) ++failures;
        },
        __FILE__, __LINE__);
    for (int i = 0; i < kRows; ++i) {
        kiv_database_exec(
            [db, i, &failures] {
                const std::string what = "event " + std::to_string(i);
                kiv_sqlite_bind_int(db, 1, i);
                kiv_sqlite_bind_text(db, 2, what.c_str(), what.size());
                if (kiv_sqlite_step(db) != SQLITE_DONE) ++failures;
                kiv_sqlite_reset(db);
            },
            __FILE__, __LINE__);
    }
    std::promise<int> counted;
    kiv_database_exec(
        [db, &counted] {
            kiv_sqlite_finalize(db);  // the slot must be empty for the next statement
            kiv_sqlite_sql_stmt(db, "COMMIT", nullptr);
            int rows = -1;
            if (kiv_sqlite_prepare(db, "SELECT count(*) FROM events") == SQLITE_OK && kiv_sqlite_step(db) == SQLITE_ROW)
                rows = kiv_sqlite_column_int(db, 0);
            kiv_sqlite_finalize(db);
            counted.set_value(rows);
        },
        __FILE__, __LINE__);
    const int rows = counted.get_future().get();  // FIFO: every insert job has run by now

    std::cout << kRows << " insert jobs through one prepared statement: " << rows << " rows, " << failures
              << " failures" << std::endl;
    kiv_sqlite_destroy(db, __FILE__, __LINE__);  // its job finalizes and closes on the worker
    kiv_thread_service_join_all(0);
    const bool joined = !kiv_thread_service_find("database");  // the join returned: the service is gone
    std::remove(path.c_str());
    return joined && rows == kRows && failures == 0 ? 0 : 1;
}
