// An RAII guard: the connection is destroyed when the last owner of its guard lets go, on
// whichever thread that happens: the main thread, a thread of the program's own, or the
// database worker releasing a job that held the guard. kiv_sqlite_destroy may be called from
// all of them, also while the framework releases a job. The join at the end returns only once
// every connection has been destroyed, so its return is the proof that each guard did its work.
// Works on database files in the current directory, removed at the end.
#include <cstdio>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

// Owns one connection object; destroying the guard destroys the object.
class connection_guard {
public:
    connection_guard(const std::string& path, const std::string& name) : handle_(kiv_sqlite_new(path, name)) {
        kiv_sqlite_open(handle_);
    }
    ~connection_guard() { kiv_sqlite_destroy(handle_, __FILE__, __LINE__); }
    connection_guard(const connection_guard&) = delete;
    connection_guard& operator=(const connection_guard&) = delete;

    const kiv_sqlite_handle& get() const { return handle_; }

private:
    kiv_sqlite_handle handle_;
};

bool write_row(const kiv_sqlite_handle& db, const char* where) {
    const std::string sql = std::string("CREATE TABLE IF NOT EXISTS log(at); INSERT INTO log VALUES ('") + where + "')";
    return kiv_sqlite_sql_stmt(db, sql.c_str(), nullptr) == SQLITE_OK;
}

}  // namespace

int main() {
    const std::string dir;
    const std::string paths[] = {dir + "guard_main.db", dir + "guard_thread.db", dir + "guard_job.db"};
    kiv_database_init();
    bool ok = true;
    {
        // 1. Dies at the end of this block, on the main thread.
        const connection_guard guard(paths[0], "main");
        ok = write_row(guard.get(), "main") && ok;
    }
    // 2. Handed to a thread of our own, which drops it there.
    auto in_thread = std::make_unique<connection_guard>(paths[1], "thread");
    bool thread_ok = false;
    std::thread worker([guard = std::move(in_thread), &thread_ok]() mutable {
        thread_ok = write_row(guard->get(), "thread");
        guard.reset();
    });
    worker.join();
    // 3. Held by a job only: the worker releases the job, and with it the guard, once it has run.
    auto in_job = std::make_shared<connection_guard>(paths[2], "job");
    std::promise<bool> job_ok;
    kiv_database_exec([guard = std::move(in_job), &job_ok] { job_ok.set_value(write_row(guard->get(), "job")); },
                      __FILE__, __LINE__);
    ok = job_ok.get_future().get() && thread_ok && ok;

    std::cout << "three guards released (main thread, own thread, database worker): "
              << (ok ? "each wrote its row" : "a write FAILED") << std::endl;
    kiv_thread_service_join_all(0);                            // returns only when all three connections are destroyed
    const bool joined = !kiv_thread_service_find("database");  // the join returned: the service is gone
    std::cout << "joined: every guard destroyed its connection" << std::endl;
    for (const std::string& path : paths) std::remove(path.c_str());
    return joined && ok ? 0 : 1;
}
