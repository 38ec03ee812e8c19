// The cost of each usage pattern of the library, against a plain worker of one's own (a mutex,
// a condition variable and a queue of std::function, running raw SQLite calls): the same insert
// per job, posted from 1, 2 or 4 producer threads.
//   queue   the plain worker; the job binds, steps and resets a statement it holds (raw SQLite)
//   held    kiv_database_exec; the job holds the connection handle and its prepared statement
//   cache   kiv_database_exec; the job finds handle and statement in a cache of its own code,
//           filled by one lookup by name and one prepare
//   lookup  kiv_database_exec; every job looks the connection up by name, which finalizes the
//           statement, so it prepares, binds, steps and finalizes
// Each pass inserts into an in-memory table inside one transaction and ends with a job that
// commits and reports; a pass is timed from its first post until that report.
//   kiv_pattern_bench rounds ROUNDS JOBS   interleaved rounds; per producer count and contender:
//                                          "P NAME median min max ratio_median ratio_min ratio_max"
//                                          (jobs/s; ratio: the contender's jobs/s over queue's in
//                                          the same round)
//   kiv_pattern_bench count NAME JOBS      one pass from one producer (for callgrind)
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

constexpr const char* kInsert = "INSERT INTO t VALUES (?1, ?2)";
constexpr const char kText[] = "twenty bytes of text";
constexpr const char* kNames[] = {"queue", "held", "cache", "lookup"};

// The plain worker: one thread, one mutex, one condition variable, one queue.
class plain_worker {
public:
    plain_worker() : thread_([this] { loop(); }) {}
    ~plain_worker() {
        post(nullptr);
        thread_.join();
    }
    void post(std::function<void()> job) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            jobs_.push_back(std::move(job));
        }
        ready_.notify_one();
    }

private:
    void loop() {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex_);
            ready_.wait(lock, [this] { return !jobs_.empty(); });
            std::function<void()> job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            if (!job) return;
            job();
        }
    }
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> jobs_;
    std::thread thread_;
};

void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "kiv_pattern_bench: %s failed\n", what);
    std::exit(1);
}

// One contender: how a job is posted, what an insert job does, and the pass's start and end.
struct contender {
    virtual ~contender() = default;
    virtual void post(std::function<void()> job) = 0;
    virtual std::function<void()> insert_job(int i) = 0;
    virtual void begin() = 0;   // run as a job: BEGIN and an empty table
    virtual void commit() = 0;  // run as a job: COMMIT
};

struct queue_contender : contender {
    plain_worker worker;
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    queue_contender() {
        check(sqlite3_open(":memory:", &db) == SQLITE_OK, "open");
        check(sqlite3_exec(db, "CREATE TABLE t(n, s)", nullptr, nullptr, nullptr) == SQLITE_OK, "create");
        check(sqlite3_prepare_v2(db, kInsert, -1, &stmt, nullptr) == SQLITE_OK, "prepare");
    }
    ~queue_contender() override {
        sqlite3_finalize(stmt);
        sqlite3_close(db);
    }
    void post(std::function<void()> job) override { worker.post(std::move(job)); }
    std::function<void()> insert_job(int i) override {
        return [this, i] {
            sqlite3_bind_int(stmt, 1, i);
            sqlite3_bind_text(stmt, 2, kText, sizeof kText - 1, SQLITE_TRANSIENT);
            check(sqlite3_step(stmt) == SQLITE_DONE, "insert");
            sqlite3_reset(stmt);
        };
    }
    void begin() override { sqlite3_exec(db, "BEGIN; DELETE FROM t", nullptr, nullptr, nullptr); }
    void commit() override { sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr); }
};

// The library's contenders share the service; each has a connection object of its own.
struct kiv_contender : contender {
    kiv_sqlite_handle db;
    explicit kiv_contender(const std::string& name) : db(kiv_sqlite_new(":memory:", name)) {
        check(kiv_sqlite_open(db) == SQLITE_OK, "open");
        check(kiv_sqlite_sql_stmt(db, "CREATE TABLE t(n, s)", nullptr) == SQLITE_OK, "create");
    }
    ~kiv_contender() override { kiv_sqlite_destroy(db, __FILE__, __LINE__); }
    void post(std::function<void()> job) override { kiv_database_exec(std::move(job), __FILE__, __LINE__); }
    void begin() override { kiv_sqlite_sql_stmt(db, "BEGIN; DELETE FROM t", nullptr); }
    void commit() override { kiv_sqlite_sql_stmt(db, "COMMIT", nullptr); }
};

void insert_through(const kiv_sqlite_handle& db, int i) {
    kiv_sqlite_bind_int(db, 1, i);
    kiv_sqlite_bind_text(db, 2, kText, sizeof kText - 1);
    check(kiv_sqlite_step(db) == SQLITE_DONE, "insert");
    kiv_sqlite_reset(db);
}

struct held_contender : kiv_contender {
    held_contender() : kiv_contender("held") { check(kiv_sqlite_prepare(db, kInsert) == SQLITE_OK, "prepare"); }
    ~held_contender() override { kiv_sqlite_finalize(db); }
    std::function<void()> insert_job(int i) override {
        // The job refers to the handle that the contender holds: a copy of the handle in each
        // job would not fit std::function's small buffer and cost an allocation per job.
        return [this, i] { insert_through(db, i); };
    }
};

// A job's own cache: the first use looks the connection up and prepares; later ones reuse both.
// Only jobs use it, and they run one at a time, so it needs no lock.
std::unordered_map<std::string, kiv_sqlite_handle>& statement_cache() {
    static std::unordered_map<std::string, kiv_sqlite_handle> cache;
    return cache;
}

struct cache_contender : kiv_contender {
    cache_contender() : kiv_contender("cache") {}
    ~cache_contender() override {
        statement_cache().clear();
        kiv_sqlite_finalize(db);
    }
    std::function<void()> insert_job(int i) override {
        return [i] {
            auto& cache = statement_cache();
            auto found = cache.find("cache");
            if (found == cache.end()) {
                kiv_sqlite_handle db = kiv_database_get_sqlite("cache");
                check(kiv_sqlite_prepare(db, kInsert) == SQLITE_OK, "prepare");
                found = cache.emplace("cache", std::move(db)).first;
            }
            insert_through(found->second, i);
        };
    }
};

struct lookup_contender : kiv_contender {
    lookup_contender() : kiv_contender("lookup") {}
    std::function<void()> insert_job(int i) override {
        return [i] {
            const kiv_sqlite_handle db = kiv_database_get_sqlite("lookup");
            check(kiv_sqlite_prepare(db, kInsert) == SQLITE_OK, "prepare");
            insert_through(db, i);
            kiv_sqlite_finalize(db);
        };
    }
};

std::unique_ptr<contender> make(const std::string& name) {
    if (name == "queue") return std::make_unique<queue_contender>();
    if (name == "held") return std::make_unique<held_contender>();
    if (name == "cache") return std::make_unique<cache_contender>();
    if (name == "lookup") return std::make_unique<lookup_contender>();
    check(false, ("contender " + name).c_str());
    return nullptr;
}

// One pass: `jobs` insert jobs from `producers` threads; jobs per second.
double pass(contender& c, int producers, int jobs) {
    const auto start = std::chrono::steady_clock::now();
    c.post([&c] { c.begin(); });
    std::vector<std::thread> threads;
    threads.reserve(producers);
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&c, p, producers, jobs] {
            for (int i = p; i < jobs; i += producers) c.post(c.insert_job(i));
        });
    }
    for (std::thread& t : threads) t.join();
    std::promise<void> done;
    c.post([&c, &done] {
        c.commit();
        done.set_value();
    });
    done.get_future().wait();  // FIFO: every insert has run
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    return jobs / took.count();
}

struct spread {
    double median, min, max;
};

spread of(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    const double median = n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    return {median, v.front(), v.back()};
}

void rounds(int count, int jobs) {
    std::vector<std::unique_ptr<contender>> all;
    for (const char* name : kNames) all.push_back(make(name));
    const size_t n = all.size();
    for (const int producers : {1, 2, 4}) {
        std::vector<std::vector<double>> rate(n), ratio(n);
        for (int r = 0; r < count; ++r) {
            std::vector<double> here(n);
            for (size_t k = 0; k < n; ++k) {  // the order rotates from round to round
                const size_t c = (k + r) % n;
                here[c] = pass(*all[c], producers, jobs);
            }
            for (size_t c = 0; c < n; ++c) {
                rate[c].push_back(here[c]);
                ratio[c].push_back(here[c] / here[0]);
            }
        }
        for (size_t c = 0; c < n; ++c) {
            const spread s = of(rate[c]), q = of(ratio[c]);
            std::printf("%d %s %.0f %.0f %.0f %.3f %.3f %.3f\n", producers, kNames[c], s.median, s.min, s.max, q.median,
                        q.min, q.max);
        }
    }
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    kiv_database_init();
    if (mode == "rounds" && argc == 4) {
        rounds(std::atoi(argv[2]), std::atoi(argv[3]));
    } else if (mode == "count" && argc == 4) {
        pass(*make(argv[2]), 1, std::atoi(argv[3]));
    } else {
        std::fprintf(stderr, "usage: kiv_pattern_bench rounds ROUNDS JOBS | count NAME JOBS\n");
        return 2;
    }
    kiv_thread_service_join_all(0);
    return 0;
}
