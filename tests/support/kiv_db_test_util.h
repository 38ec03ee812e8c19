#pragma once

// Helpers for tests that drive the library through its exported API, with what those tests include.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/weak_ptr.hpp>
#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"
#include "kiv_test_support.h"

namespace kiv_test {

// The service's console lines: an object leaving (n left), the join request, the stop.
inline std::string objects_left(int n) {
    return "left objects in database reference count: " + std::to_string(n) + "\n";
}
inline const std::string shutdown_request = "DATABASE SERVICE SHOT DONW REQUEST\n";
inline const std::string service_stopped = "DATABASE THREAD SERVICE STOPPED\nDATABASE SERVICE DONE\n";

// Waits until `done`, pumping the service meanwhile as a host's own loop does: on a core without
// a worker nothing else runs its work. false after `limit` (a hang, not a slow machine).
inline bool pump_until(const kiv_thread_service_handle& service, const std::function<bool()>& done,
                       std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    for (const auto end = std::chrono::steady_clock::now() + limit; !done();) {
        if (std::chrono::steady_clock::now() > end) return false;
        if (!service || kiv_thread_service_run_once(service) <= 0)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// Whether `service` has finished, pumping it until then; false after `timeout_ms` (-1: 30 s).
inline bool service_finished(const kiv_thread_service_handle& service, long timeout_ms = -1) {
    return service && pump_until(
                          service, [&] { return kiv_thread_service_wait(service, 0); },
                          std::chrono::milliseconds(timeout_ms < 0 ? 30000 : timeout_ms));
}

// Runs everything queued on the database worker so far; false when it did not get there in time.
inline bool drain_database_worker(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    kiv_database_exec([done] { *done = true; }, __FILE__, __LINE__);
    return pump_until(
        kiv_thread_service_find("database"), [&] { return done->load(); }, timeout);
}

// The host's part of a shutdown: join the "database" service and pump it until it has finished.
inline bool join_database_service(int code = 0, long timeout_ms = -1) {
    const kiv_thread_service_handle service = kiv_thread_service_find("database");
    if (service) kiv_thread_service_join(service, code);
    return service_finished(service, timeout_ms);
}

// A fresh directory under TMPDIR, removed with its files at scope end.
struct temp_dir {
    std::string path = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") + "/kiv_test_XXXXXX";
    temp_dir() {
        if (mkdtemp(path.data()) != nullptr) return;
        ADD_FAILURE() << "cannot make a directory " << path << ": " << std::strerror(errno)
                      << " (set TMPDIR to a writable directory)";
        path = "/nonexistent";
    }
    ~temp_dir() { std::system(("chmod -R u+w '" + path + "' && rm -rf '" + path + "'").c_str()); }
    std::string file(const std::string& name) const { return path + "/" + name; }
};

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The library's connection source, line n at index n (index 0 is empty).
inline std::vector<std::string> library_source() {
    std::ifstream in(KIV_SOURCE_DIR "/kiv_database/kiv_sqlite.cpp");
    std::vector<std::string> lines(1);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The first column of the first row of `sql` as text, "" without a row; the statement is released.
inline std::string query(const kiv_sqlite_handle& c, const std::string& sql) {
    std::string text;
    if (kiv_sqlite_prepare(c, sql) == SQLITE_OK && kiv_sqlite_step(c) == SQLITE_ROW)
        text = kiv_sqlite_column_text(c, 0);
    kiv_sqlite_finalize(c);
    return text;
}

// The same through SQLite alone, on a file no connection object of the test holds.
inline std::string sqlite_query(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    std::string text;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK && sqlite3_step(stmt) == SQLITE_ROW &&
        sqlite3_column_text(stmt, 0) != nullptr)
        text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return text;
}

// Runs `body` in a forked child: its exit status, or 1000 + its signal (SIGALRM when it hung).
inline int run_in_child(const std::function<int()>& body, unsigned seconds = 30) {
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0) {
        alarm(seconds);
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

}  // namespace kiv_test
