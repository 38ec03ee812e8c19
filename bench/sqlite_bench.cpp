// SQLite workloads measured for four contenders side by side:
//   raw        the SQLite C API, nothing else;
//   floor      the C API plus what the library's contract makes each call do (sqlite_floor.h);
//   kiv        libkiv_database through its exported kiv_sqlite_* functions;
//   sqlitecpp  SQLiteCpp, a C++ wrapper of the usual kind (when it was found at configure time).
// Every contender has its own in-memory database (":memory:", journal_mode=MEMORY,
// synchronous=OFF) holding the same 100,000 rows. One benchmark per workload; an iteration is a
// round of one pass per contender (see bm_sqlite). Counters: <contender>_ns_per_row, and
// kiv/<contender>, the median ratio within a round, which bench/report.py tabulates.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/sqlite_floor.h"
#include "framework/kiv_assertion.h"
#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

#if KIV_BENCH_HAVE_SQLITECPP
#include <SQLiteCpp/SQLiteCpp.h>
#endif

namespace {

constexpr int row_count = 100000;
constexpr int text_size = 20;

const char* const pragmas = "PRAGMA journal_mode=MEMORY; PRAGMA synchronous=OFF;";
const char* const create_scan =
    "CREATE TABLE scan(id INTEGER PRIMARY KEY, n INTEGER NOT NULL, v TEXT NOT NULL)";
// The insert workload writes into an attached database made afresh for every pass: dropping and
// refilling a table in one long-lived database left each pass at the mercy of the free-page
// list and the heap that earlier passes had left behind (passes varied by up to 2x).
const char* const attach_ins = "ATTACH DATABASE ':memory:' AS w";
const char* const recreate_ins =
    "DETACH DATABASE w; ATTACH DATABASE ':memory:' AS w; "
    "PRAGMA w.journal_mode=MEMORY; PRAGMA w.synchronous=OFF; "
    "CREATE TABLE w.ins(id INTEGER PRIMARY KEY, n INTEGER NOT NULL, v TEXT NOT NULL)";
const char* const insert_scan_sql = "INSERT INTO scan(n, v) VALUES(?, ?)";
const char* const insert_ins_sql = "INSERT INTO w.ins(n, v) VALUES(?, ?)";
const char* const scan_sql = "SELECT n, v FROM scan";
const char* const point_sql = "SELECT n FROM scan WHERE id = ?";

// The rows every contender inserts and reads back, and the sums that prove a pass read them.
struct row_data {
    std::vector<int> numbers;
    std::vector<std::string> texts;  // 20 bytes each: "row-" and 16 digits
    std::vector<int> keys;           // 1..row_count in a scattered order
    long long number_sum = 0;
    long long scan_sum = 0;

    row_data() {
        for (int i = 0; i < row_count; ++i) {
            numbers.push_back(i * 7 + 3);
            char buffer[32];
            std::snprintf(buffer, sizeof buffer, "row-%016d", i);
            texts.emplace_back(buffer, text_size);
            // 7919 is prime to row_count, so this visits every key once.
            keys.push_back(static_cast<int>((static_cast<long long>(i) * 7919) % row_count) + 1);
            number_sum += numbers.back();
            scan_sum += row_sum(numbers.back(), texts.back());
        }
    }
    static long long row_sum(int n, const std::string& v) {
        return n + static_cast<long long>(v.size()) + static_cast<unsigned char>(v.back());
    }
};

const row_data& rows() {
    static const row_data data;
    return data;
}

// One pass stays out of line, so that a profile (valgrind --tool=callgrind) shows each
// contender's passes as functions of their own.
#define PASS [[gnu::noinline]]

// Each contender: insert(sql) fills a table in one transaction and returns the rows inserted;
// scan(), point_select() and rows_each() return the sum they read (-1 on a SQLite error).

struct raw_contender {
    sqlite3* db = nullptr;

    raw_contender() {
        if (sqlite3_open_v2(":memory:", &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr))
            throw std::runtime_error("raw: cannot open");
        exec(pragmas);
        exec(create_scan);
        exec(attach_ins);
        if (insert(insert_scan_sql) != row_count) throw std::runtime_error("raw: fill failed");
    }
    ~raw_contender() { sqlite3_close(db); }
    void exec(const char* sql) {
        if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr))
            throw std::runtime_error(sqlite3_errmsg(db));
    }

    PASS long long insert(const char* sql) {
        const row_data& data = rows();
        exec("BEGIN");
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
        long long done = 0;
        for (int i = 0; i < row_count; ++i) {
            sqlite3_bind_int(stmt, 1, data.numbers[i]);
            sqlite3_bind_text(stmt, 2, data.texts[i].data(), static_cast<int>(data.texts[i].size()),
                              SQLITE_TRANSIENT);
            done += sqlite3_step(stmt) == SQLITE_DONE;
            sqlite3_reset(stmt);
        }
        sqlite3_finalize(stmt);
        exec("COMMIT");
        return done;
    }

    PASS long long scan() {
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, scan_sql, -1, &stmt, nullptr);
        long long sum = 0;
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
            int n = sqlite3_column_int(stmt, 0);
            const unsigned char* text = sqlite3_column_text(stmt, 1);
            std::string v(reinterpret_cast<const char*>(text), sqlite3_column_bytes(stmt, 1));
            sum += row_data::row_sum(n, v);
        }
        sqlite3_finalize(stmt);
        return rc == SQLITE_DONE ? sum : -1;
    }

    PASS long long point_select() {
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, point_sql, -1, &stmt, nullptr);
        long long sum = 0;
        for (int key : rows().keys) {
            sqlite3_bind_int(stmt, 1, key);
            if (sqlite3_step(stmt) == SQLITE_ROW) sum += sqlite3_column_int(stmt, 0);
            sqlite3_reset(stmt);
        }
        sqlite3_finalize(stmt);
        return sum;
    }

    // The C API has no row loop of its own: the same loop as scan().
    PASS long long rows_each() { return scan(); }
};

// The floor and the library take the same calls with the same arguments, so one body measures
// both; `Api` names the functions (inline forwarders: the calls stay direct).
struct floor_api {
    using handle = floor_handle;
    using row_callback = floor_row_callback;
    static constexpr const char* name = "floor";
    static handle open() { return floor_open(":memory:"); }
    static void close(const handle&) {}
    static int sql_stmt(const handle& h, const char* sql) { return floor_sql_stmt(h, sql, nullptr); }
    static int prepare(const handle& h, const char* sql) { return floor_prepare(h, sql); }
    static bool finalize(const handle& h) { return floor_finalize(h); }
    static int reset(const handle& h) { return floor_reset(h); }
    static int bind_int(const handle& h, int i, int v) { return floor_bind_int(h, i, v); }
    static int bind_text(const handle& h, int i, const std::string& v) {
        return floor_bind_text(h, i, v.data(), v.size());
    }
    static int step(const handle& h) { return floor_step(h); }
    static int column_int(const handle& h, int c) { return floor_column_int(h, c); }
    static std::string column_text(const handle& h, int c) { return floor_column_text(h, c); }
    static int rows_each(const handle& h, row_callback cb) { return floor_rows_each(h, std::move(cb)); }
};

struct kiv_api {
    using handle = kiv_sqlite_handle;
    using row_callback = kiv_sqlite_row_callback;
    static constexpr const char* name = "kiv";
    static handle open() {
        handle h = kiv_sqlite_new(":memory:", "kiv_bench");
        if (kiv_sqlite_open(h) != SQLITE_OK) throw std::runtime_error("kiv: cannot open");
        return h;
    }
    // The object leaves through the database worker; the service's shutdown waits for it.
    static void close(const handle& h) {
        kiv_sqlite_finalize(h);
        kiv_sqlite_destroy(h, __FILE__, __LINE__);
    }
    static int sql_stmt(const handle& h, const char* sql) { return kiv_sqlite_sql_stmt(h, sql, nullptr); }
    static int prepare(const handle& h, const char* sql) { return kiv_sqlite_prepare(h, sql); }
    static bool finalize(const handle& h) { return kiv_sqlite_finalize(h); }
    static int reset(const handle& h) { return kiv_sqlite_reset(h); }
    static int bind_int(const handle& h, int i, int v) { return kiv_sqlite_bind_int(h, i, v); }
    static int bind_text(const handle& h, int i, const std::string& v) {
        return kiv_sqlite_bind_text(h, i, v.data(), v.size());
    }
    static int step(const handle& h) { return kiv_sqlite_step(h); }
    static int column_int(const handle& h, int c) { return kiv_sqlite_column_int(h, c); }
    static std::string column_text(const handle& h, int c) { return kiv_sqlite_column_text(h, c); }
    static int rows_each(const handle& h, row_callback cb) { return kiv_sqlite_rows_each(h, std::move(cb)); }
};

template <class Api>
struct wrapped_contender {
    typename Api::handle h;

    wrapped_contender() : h(Api::open()) {
        exec(pragmas);
        exec(create_scan);
        exec(attach_ins);
        if (insert(insert_scan_sql) != row_count)
            throw std::runtime_error(std::string(Api::name) + ": fill failed");
    }
    ~wrapped_contender() { Api::close(h); }
    wrapped_contender(const wrapped_contender&) = delete;
    wrapped_contender& operator=(const wrapped_contender&) = delete;
    void exec(const char* sql) {
        if (Api::sql_stmt(h, sql)) throw std::runtime_error(std::string(Api::name) + ": exec failed");
    }

    PASS long long insert(const char* sql) {
        const row_data& data = rows();
        exec("BEGIN");
        Api::prepare(h, sql);
        long long done = 0;
        for (int i = 0; i < row_count; ++i) {
            Api::bind_int(h, 1, data.numbers[i]);
            Api::bind_text(h, 2, data.texts[i]);
            done += Api::step(h) == SQLITE_DONE;
            Api::reset(h);
        }
        Api::finalize(h);
        exec("COMMIT");
        return done;
    }

    PASS long long scan() {
        Api::prepare(h, scan_sql);
        long long sum = 0;
        int rc;
        while ((rc = Api::step(h)) == SQLITE_ROW) {
            int n = Api::column_int(h, 0);
            std::string v = Api::column_text(h, 1);
            sum += row_data::row_sum(n, v);
        }
        Api::finalize(h);
        return rc == SQLITE_DONE ? sum : -1;
    }

    PASS long long point_select() {
        Api::prepare(h, point_sql);
        long long sum = 0;
        for (int key : rows().keys) {
            Api::bind_int(h, 1, key);
            if (Api::step(h) == SQLITE_ROW) sum += Api::column_int(h, 0);
            Api::reset(h);
        }
        Api::finalize(h);
        return sum;
    }

    PASS long long rows_each() {
        Api::prepare(h, scan_sql);
        long long sum = 0;
        int rc = Api::rows_each(h, [&sum](typename Api::handle row, unsigned long) {
            int n = Api::column_int(row, 0);
            std::string v = Api::column_text(row, 1);
            sum += row_data::row_sum(n, v);
            return true;
        });
        Api::finalize(h);
        return rc == SQLITE_DONE ? sum : -1;
    }
};

using floor_contender = wrapped_contender<floor_api>;
using kiv_contender = wrapped_contender<kiv_api>;

#if KIV_BENCH_HAVE_SQLITECPP
struct sqlitecpp_contender {
    SQLite::Database db{":memory:", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE};

    sqlitecpp_contender() {
        exec(pragmas);
        exec(create_scan);
        exec(attach_ins);
        if (insert(insert_scan_sql) != row_count)
            throw std::runtime_error("sqlitecpp: fill failed");
    }
    void exec(const char* sql) { db.exec(sql); }

    PASS long long insert(const char* sql) {
        const row_data& data = rows();
        SQLite::Transaction transaction(db);
        SQLite::Statement insert(db, sql);
        long long done = 0;
        for (int i = 0; i < row_count; ++i) {
            insert.bind(1, data.numbers[i]);
            insert.bind(2, data.texts[i]);
            done += insert.exec();
            insert.reset();
        }
        transaction.commit();
        return done;
    }

    PASS long long scan() {
        SQLite::Statement query(db, scan_sql);
        long long sum = 0;
        while (query.executeStep()) {
            int n = query.getColumn(0).getInt();
            std::string v = query.getColumn(1).getString();
            sum += row_data::row_sum(n, v);
        }
        return sum;
    }

    PASS long long point_select() {
        SQLite::Statement query(db, point_sql);
        long long sum = 0;
        for (int key : rows().keys) {
            query.bind(1, key);
            if (query.executeStep()) sum += query.getColumn(0).getInt();
            query.reset();
        }
        return sum;
    }

    // No row loop with a callback in SQLiteCpp: the same loop as scan().
    PASS long long rows_each() { return scan(); }
};
#endif

// The database service lives from static initialisation to exit. At exit the kiv connection is
// destroyed first; joining then lets the service finish once the worker has released it.
class bench_session {
public:
    bench_session() { kiv_database_init(); }
    ~bench_session() {
        kiv.reset();
        floor.reset();
        raw.reset();
#if KIV_BENCH_HAVE_SQLITECPP
        sqlitecpp.reset();
#endif
        kiv_thread_service_join_all(0);
    }
    bench_session(const bench_session&) = delete;
    bench_session& operator=(const bench_session&) = delete;

    std::unique_ptr<raw_contender> raw;
    std::unique_ptr<floor_contender> floor;
    std::unique_ptr<kiv_contender> kiv;
#if KIV_BENCH_HAVE_SQLITECPP
    std::unique_ptr<sqlitecpp_contender> sqlitecpp;
#endif
};

bench_session session;

template <class C>
C& lazily(std::unique_ptr<C>& slot) {
    if (!slot) slot.reset(new C);
    return *slot;
}
raw_contender& contender(raw_contender*) { return lazily(session.raw); }
floor_contender& contender(floor_contender*) { return lazily(session.floor); }
kiv_contender& contender(kiv_contender*) { return lazily(session.kiv); }
#if KIV_BENCH_HAVE_SQLITECPP
sqlitecpp_contender& contender(sqlitecpp_contender*) { return lazily(session.sqlitecpp); }
#endif

enum class workload { insert, scan, point_select, rows_each };

// What a pass needs beforehand, outside the measurement: insert writes into an empty table.
template <workload W, class C>
void prepare(C& c) {
    if (W == workload::insert) c.exec(recreate_ins);
}

// One pass over all rows; its sum proves that it read them. Inlined, so that a profile shows
// each contender's pass under the caller that made it (measured or not).
template <workload W, class C>
[[gnu::always_inline]] inline long long pass(C& c) {
    if (W == workload::insert) return c.insert(insert_ins_sql);
    if (W == workload::scan) return c.scan();
    if (W == workload::point_select) return c.point_select();
    return c.rows_each();
}

template <workload W>
long long expected_sum() {
    if (W == workload::insert) return row_count;
    if (W == workload::point_select) return rows().number_sum;
    return rows().scan_sum;
}

// A call of the assertion function, less its line: the floor's lines are its own.
struct check_call {
    bool cond;
    std::string text, message, file;
    bool operator==(const check_call& o) const {
        return cond == o.cond && text == o.text && message == o.message && file == o.file;
    }
};

// The calls of one pass, as indexes into `kinds`, seen through the framework's handler hook.
template <workload W, class C>
std::vector<unsigned short> record_checks(C& c, std::vector<check_call>& kinds) {
    prepare<W>(c);
    std::vector<unsigned short> sequence;
    kiv_assertion_set_handler([&](bool cond, const std::string& text, const std::string& message,
                                  const std::string& file, int) {
        check_call call{cond, text, message, file};
        auto it = std::find(kinds.begin(), kinds.end(), call);
        if (it == kinds.end()) it = kinds.insert(kinds.end(), call);
        sequence.push_back(static_cast<unsigned short>(it - kinds.begin()));
    });
    try {
        pass<W>(c);
    } catch (...) {
        kiv_assertion_clear_handler();
        throw;
    }
    kiv_assertion_clear_handler();
    return sequence;
}

std::string describe(const std::vector<unsigned short>& calls, std::size_t at,
                     const std::vector<check_call>& kinds) {
    if (at >= calls.size()) return "nothing";
    const check_call& c = kinds[calls[at]];
    return "\"" + c.text + "\" / \"" + c.message + "\" / \"" + c.file + "\" (" +
           (c.cond ? "true" : "false") + ")";
}

// The floor stands for the library only while it makes the library's checks: the same calls
// of the assertion function, with the same values and strings, in the same order. Compared
// once per workload on a whole pass of each, before either is measured. Empty when they match.
template <workload W>
std::string floor_mismatch() {
    std::vector<check_call> kinds;
    const auto library = record_checks<W>(contender(static_cast<kiv_contender*>(nullptr)), kinds);
    const auto floor = record_checks<W>(contender(static_cast<floor_contender*>(nullptr)), kinds);
    if (library == floor) return {};
    std::size_t at = 0;
    while (at < library.size() && at < floor.size() && library[at] == floor[at]) ++at;
    return "the floor's checks are not the library's: " + std::to_string(library.size()) +
           " calls against " + std::to_string(floor.size()) + "; call " + std::to_string(at + 1) +
           " is " + describe(library, at, kinds) + " in the library, " +
           describe(floor, at, kinds) + " in the floor";
}

template <workload W>
const std::string& floor_verdict() {
    static const std::string verdict = floor_mismatch<W>();
    return verdict;
}

// The contenders of one workload, measured in rounds: every round runs one pass of each, in an
// order that rotates from round to round, and times each pass by the thread's CPU clock. On a
// shared machine the load of others comes and goes (passes land in a fast or a slow state
// about 1.7x apart), but passes of one round, a fraction of a second apart, mostly share it:
// the ratios are therefore taken per round, and their median is reported.
struct lane {
    std::string name;
    std::function<void()> prepare;
    std::function<long long()> pass;
    std::vector<double> ns_per_row;
};

template <class C, workload W>
lane make_lane(const char* name) {
    C& c = contender(static_cast<C*>(nullptr));
    return lane{name, [&c] { prepare<W>(c); }, [&c] { return pass<W>(c); }, {}};
}

double thread_seconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    if (values.size() % 2) return *middle;
    return (*middle + *std::max_element(values.begin(), middle)) / 2;
}

template <workload W>
void bm_sqlite(benchmark::State& state) {
    std::vector<lane> lanes;
    try {
        lanes.push_back(make_lane<raw_contender, W>("raw"));
        lanes.push_back(make_lane<floor_contender, W>("floor"));
        lanes.push_back(make_lane<kiv_contender, W>("kiv"));
#if KIV_BENCH_HAVE_SQLITECPP
        lanes.push_back(make_lane<sqlitecpp_contender, W>("sqlitecpp"));
#endif
        if (!floor_verdict<W>().empty()) {
            state.SkipWithError(floor_verdict<W>().c_str());
            return;
        }
        std::size_t round = 0;
        for (auto _ : state) {
            for (std::size_t k = 0; k < lanes.size(); ++k) {
                lane& l = lanes[(round + k) % lanes.size()];
                l.prepare();
                const double start = thread_seconds();
                const long long sum = l.pass();
                const double seconds = thread_seconds() - start;
                if (sum != expected_sum<W>()) {
                    state.SkipWithError("wrong result: a pass did not read every row");
                    return;
                }
                l.ns_per_row.push_back(seconds * 1e9 / row_count);
            }
            ++round;
        }
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
        return;
    }
    const lane& kiv = lanes[2];
    for (const lane& l : lanes) {
        state.counters[l.name + "_ns_per_row"] = median(l.ns_per_row);
        if (&l == &kiv) continue;
        std::vector<double> ratios;
        for (std::size_t r = 0; r < l.ns_per_row.size(); ++r)
            ratios.push_back(kiv.ns_per_row[r] / l.ns_per_row[r]);
        state.counters["kiv/" + l.name] = median(ratios);
    }
    state.counters["rounds"] = static_cast<double>(kiv.ns_per_row.size());
    state.SetLabel("time: one round of all contenders");
}

template <workload W>
void register_workload(const char* name) {
    benchmark::RegisterBenchmark((std::string("BM_Sqlite_") + name).c_str(), bm_sqlite<W>)
        ->Unit(benchmark::kMillisecond)
        ->MinTime(1.0);
}

const bool registered = [] {
    register_workload<workload::insert>("insert");
    register_workload<workload::scan>("scan");
    register_workload<workload::point_select>("point_select");
    register_workload<workload::rows_each>("rows_each");
    return true;
}();

}  // namespace
