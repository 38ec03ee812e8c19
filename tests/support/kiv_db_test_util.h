#pragma once

// Helpers for tests that drive the library through its exported API.

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <string>
#include <unistd.h>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace kiv_test {

// Runs everything queued on the database worker so far (jobs run in FIFO order).
// False when the worker did not get there within the timeout (e.g. the service is stopped).
inline bool drain_database_worker(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> ran = done->get_future();
    kiv_database_exec([done] { done->set_value(); }, __FILE__, __LINE__);
    return ran.wait_for(timeout) == std::future_status::ready;
}

// The host's part of a shutdown: join the "database" service and wait until it has finished.
inline bool join_database_service(int code = 0, long timeout_ms = 10000) {
    kiv_thread_service_handle service = kiv_thread_service_find("database");
    if (!service) return false;
    kiv_thread_service_join(service, code);
    return kiv_thread_service_wait(service, timeout_ms);
}

// A fresh directory under TMPDIR, removed with its files at scope end.
class temp_dir {
public:
    temp_dir() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base ? base : "/tmp") + "/kiv_test_XXXXXX";
        path_ = mkdtemp(pattern.data()) ? pattern : std::string();
    }
    ~temp_dir() {
        if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// The text of line `line` (from 1) of the library's connection source, for checking that a
// reported line really is the line of a check or an output statement.
inline std::string library_source_line(int line) {
    std::ifstream in(KIV_SOURCE_DIR "/kiv_database/kiv_sqlite.cpp");
    std::string text;
    for (int n = 1; n <= line && std::getline(in, text); ++n) {
    }
    return text;
}

// The number of the first line of the library's connection source that contains `needle`.
inline int library_source_line_of(const std::string& needle) {
    std::ifstream in(KIV_SOURCE_DIR "/kiv_database/kiv_sqlite.cpp");
    std::string text;
    for (int n = 1; std::getline(in, text); ++n)
        if (text.find(needle) != std::string::npos) return n;
    return 0;
}

}  // namespace kiv_test
