// I/O faults: a VFS registered over the default one fails the Nth xWrite, xSync or xRead, for
// N = 1, 2, ... until a round runs without a fault, in rollback-journal and in WAL mode. A round
// opens an existing database, creates a table, inserts rows in one transaction, commits, and
// reads everything back, also through a second connection, whose reads come from the file.
// Every failing call must return SQLite's I/O error, the same code the connection reports; with
// the faults off again, the database must be intact and hold the whole transaction or none of
// it, and all of it whenever COMMIT reported success.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

// ---------------------------------------------------------------------------------------------
// The failing VFS: the default one with its files wrapped. Counters are atomic, since a close
// on the database worker may write and sync too (WAL checkpoints there).

enum class fault_kind { none, write, sync, read };

sqlite3_vfs* base_vfs = nullptr;
sqlite3_vfs fault_vfs;
std::atomic<fault_kind> armed{fault_kind::none};
std::atomic<long> armed_calls{0};
std::atomic<long> fail_at{0};
std::atomic<long> faults_injected{0};

bool inject(fault_kind kind) {
    if (armed.load() != kind) return false;
    if (++armed_calls != fail_at.load()) return false;
    ++faults_injected;
    return true;
}

// The base VFS's file lives right behind this header, in the space szOsFile reserves.
struct fault_file {
    sqlite3_file header;
    sqlite3_file* base;
};

sqlite3_file* base_of(sqlite3_file* file) { return reinterpret_cast<fault_file*>(file)->base; }
const sqlite3_io_methods& base_methods(sqlite3_file* file) { return *base_of(file)->pMethods; }

int fault_close(sqlite3_file* f) { return base_methods(f).xClose(base_of(f)); }

int fault_read(sqlite3_file* f, void* out, int amount, sqlite3_int64 offset) {
    if (inject(fault_kind::read)) return SQLITE_IOERR_READ;
    return base_methods(f).xRead(base_of(f), out, amount, offset);
}

int fault_write(sqlite3_file* f, const void* data, int amount, sqlite3_int64 offset) {
    if (inject(fault_kind::write)) return SQLITE_IOERR_WRITE;
    return base_methods(f).xWrite(base_of(f), data, amount, offset);
}

int fault_truncate(sqlite3_file* f, sqlite3_int64 size) { return base_methods(f).xTruncate(base_of(f), size); }

int fault_sync(sqlite3_file* f, int flags) {
    if (inject(fault_kind::sync)) return SQLITE_IOERR_FSYNC;
    return base_methods(f).xSync(base_of(f), flags);
}

int fault_file_size(sqlite3_file* f, sqlite3_int64* size) { return base_methods(f).xFileSize(base_of(f), size); }
int fault_lock(sqlite3_file* f, int level) { return base_methods(f).xLock(base_of(f), level); }
int fault_unlock(sqlite3_file* f, int level) { return base_methods(f).xUnlock(base_of(f), level); }
int fault_check_reserved_lock(sqlite3_file* f, int* out) {
    return base_methods(f).xCheckReservedLock(base_of(f), out);
}
int fault_file_control(sqlite3_file* f, int op, void* arg) {
    return base_methods(f).xFileControl(base_of(f), op, arg);
}
int fault_sector_size(sqlite3_file* f) { return base_methods(f).xSectorSize(base_of(f)); }
int fault_device_characteristics(sqlite3_file* f) { return base_methods(f).xDeviceCharacteristics(base_of(f)); }

// WAL's shared memory goes to the base file unchanged.
int fault_shm_map(sqlite3_file* f, int region, int size, int extend, void volatile** out) {
    return base_methods(f).xShmMap(base_of(f), region, size, extend, out);
}
int fault_shm_lock(sqlite3_file* f, int offset, int n, int flags) {
    return base_methods(f).xShmLock(base_of(f), offset, n, flags);
}
void fault_shm_barrier(sqlite3_file* f) { base_methods(f).xShmBarrier(base_of(f)); }
int fault_shm_unmap(sqlite3_file* f, int remove) { return base_methods(f).xShmUnmap(base_of(f), remove); }

// No memory-mapped pages, so that every read goes through xRead.
int fault_fetch(sqlite3_file*, sqlite3_int64, int, void** out) {
    *out = nullptr;
    return SQLITE_OK;
}
int fault_unfetch(sqlite3_file*, sqlite3_int64, void*) { return SQLITE_OK; }

const sqlite3_io_methods fault_io_methods = {
    3,
    fault_close,
    fault_read,
    fault_write,
    fault_truncate,
    fault_sync,
    fault_file_size,
    fault_lock,
    fault_unlock,
    fault_check_reserved_lock,
    fault_file_control,
    fault_sector_size,
    fault_device_characteristics,
    fault_shm_map,
    fault_shm_lock,
    fault_shm_barrier,
    fault_shm_unmap,
    fault_fetch,
    fault_unfetch,
};

int fault_open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* out_flags) {
    auto* const self = reinterpret_cast<fault_file*>(file);
    self->base = reinterpret_cast<sqlite3_file*>(self + 1);
    const int rc = base_vfs->xOpen(base_vfs, name, self->base, flags, out_flags);
    // SQLite closes a file only when pMethods is set, so a failed open must leave it null.
    self->header.pMethods = base_of(file)->pMethods != nullptr ? &fault_io_methods : nullptr;
    return rc;
}

bool register_fault_vfs() {
    base_vfs = sqlite3_vfs_find(nullptr);
    if (base_vfs == nullptr) return false;
    fault_vfs = *base_vfs;  // everything but opening files is the base VFS's own
    fault_vfs.pNext = nullptr;
    fault_vfs.zName = "kiv_fault";
    fault_vfs.szOsFile = static_cast<int>(sizeof(fault_file)) + base_vfs->szOsFile;
    fault_vfs.xOpen = fault_open;
    return sqlite3_vfs_register(&fault_vfs, 1) == SQLITE_OK;
}

// ---------------------------------------------------------------------------------------------
// The scenario.

constexpr int base_rows = 40;  // written before the round: a few pages for the round to read
constexpr int rows = 100;      // the round's transaction
const std::string value(300, 'v');

void remove_database(const std::string& path) {
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) std::remove((path + suffix).c_str());
}

// A statement run to its end through prepare/step; its first column of the first row as text.
std::string query_text(const kiv_sqlite_handle& c, const std::string& sql) {
    std::string text;
    if (kiv_sqlite_prepare(c, sql) == SQLITE_OK && kiv_sqlite_step(c) == SQLITE_ROW)
        text = kiv_sqlite_column_text(c, 0);
    kiv_sqlite_finalize(c);
    return text;
}

// Without faults: a fresh database in `mode` with the table the round reads.
void create_database(const std::string& path, const std::string& mode) {
    remove_database(path);
    const kiv_sqlite_handle c = kiv_sqlite_new(path, "setup");
    ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    EXPECT_EQ(query_text(c, "PRAGMA journal_mode=" + mode), mode);
    ASSERT_EQ(kiv_sqlite_sql_stmt(c, "CREATE TABLE base(k INTEGER PRIMARY KEY, v TEXT)", nullptr), SQLITE_OK);
    const std::string insert = "WITH RECURSIVE n(k) AS (SELECT 1 UNION ALL SELECT k + 1 FROM n WHERE k < " +
                               std::to_string(base_rows) + ") INSERT INTO base SELECT k, printf('%.300c', 'b') FROM n";
    ASSERT_EQ(kiv_sqlite_sql_stmt(c, insert.c_str(), nullptr), SQLITE_OK);
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker());
}

// What the round's caller was told.
struct round_result {
    std::vector<std::string> failed;  // the calls that failed, in order
    bool create_ok = false;
    bool commit_ok = false;
    int objects = 1;  // the reader is made only once the writer is open
};

// A failure must be SQLite's I/O error, reported by the connection too (a failed open leaves
// no connection to ask).
void note(round_result& result, const kiv_sqlite_handle& c, const char* call, int rc, int success) {
    if (rc == success) return;
    result.failed.emplace_back(call);
    EXPECT_EQ(rc, SQLITE_IOERR) << call;
    if (!kiv_sqlite_is_opened(c)) return;
    EXPECT_EQ(kiv_sqlite_last_error_code(c), rc) << call;
    EXPECT_STREQ(kiv_sqlite_last_error_message(c), "disk I/O error") << call;
}

round_result run_round(const std::string& path) {
    round_result result;
    const kiv_sqlite_handle writer = kiv_sqlite_new(path, "writer");
    note(result, writer, "open", kiv_sqlite_open(writer), SQLITE_OK);
    if (!kiv_sqlite_is_opened(writer)) {
        kiv_sqlite_destroy(writer, __FILE__, __LINE__);
        return result;
    }
    // A cache of a few pages spills to the file in mid-transaction, so faults meet that path too.
    // It reads the schema, so it may meet a fault itself.
    note(result, writer, "cache size", kiv_sqlite_sql_stmt(writer, "PRAGMA cache_size=2", nullptr), SQLITE_OK);
    const int create = kiv_sqlite_sql_stmt(writer, "CREATE TABLE t(k INTEGER PRIMARY KEY, v TEXT)", nullptr);
    note(result, writer, "create", create, SQLITE_OK);
    result.create_ok = create == SQLITE_OK;

    // A careful caller: the first failure inside the transaction rolls it back.
    bool going = result.create_ok;
    if (going) {
        const int begin = kiv_sqlite_sql_stmt(writer, "BEGIN", nullptr);
        note(result, writer, "begin", begin, SQLITE_OK);
        going = begin == SQLITE_OK;
    }
    if (going) {
        const int prepare = kiv_sqlite_prepare(writer, "INSERT INTO t VALUES (?1, ?2)");
        note(result, writer, "prepare insert", prepare, SQLITE_OK);
        going = prepare == SQLITE_OK;
        for (int k = 1; going && k <= rows; ++k) {
            EXPECT_EQ(kiv_sqlite_bind_int(writer, 1, k), SQLITE_OK);
            EXPECT_EQ(kiv_sqlite_bind_text(writer, 2, value.data(), value.size()), SQLITE_OK);
            const int step = kiv_sqlite_step(writer);
            note(result, writer, "insert", step, SQLITE_DONE);
            going = step == SQLITE_DONE;
            // The reset repeats the step's error; the step's report is the one that counts.
            const int reset = kiv_sqlite_reset(writer);
            EXPECT_EQ(reset, step == SQLITE_DONE ? SQLITE_OK : step);
        }
        kiv_sqlite_finalize(writer);
        if (going) {
            const int commit = kiv_sqlite_sql_stmt(writer, "COMMIT", nullptr);
            note(result, writer, "commit", commit, SQLITE_OK);
            result.commit_ok = commit == SQLITE_OK;
        }
        if (!result.commit_ok) {
            // SQLite may have rolled back on its own already; then there is nothing to roll back.
            const int rollback = kiv_sqlite_sql_stmt(writer, "ROLLBACK", nullptr);
            if (rollback == SQLITE_ERROR) {
                EXPECT_STREQ(kiv_sqlite_last_error_message(writer), "cannot rollback - no transaction is active");
            } else {
                note(result, writer, "rollback", rollback, SQLITE_OK);
            }
        }
    }

    // Read back by the writer (from its cache, mostly) and by a second connection (from the file).
    const std::string expected = result.commit_ok ? std::to_string(rows) : "";
    if (result.create_ok) {
        const int prepare = kiv_sqlite_prepare(writer, "SELECT count(*) FROM t");
        note(result, writer, "prepare count", prepare, SQLITE_OK);
        if (prepare == SQLITE_OK) {
            const int step = kiv_sqlite_step(writer);
            note(result, writer, "count", step, SQLITE_ROW);
            if (step == SQLITE_ROW) {
                const int count = kiv_sqlite_column_int(writer, 0);
                EXPECT_TRUE(count == 0 || count == rows) << count;
                if (result.commit_ok) {
                    EXPECT_EQ(count, rows);
                }
            }
        }
        kiv_sqlite_finalize(writer);
    }
    const kiv_sqlite_handle reader = kiv_sqlite_new(path, "reader");
    result.objects = 2;
    note(result, reader, "reader open", kiv_sqlite_open(reader), SQLITE_OK);
    if (kiv_sqlite_is_opened(reader)) {
        const int prepare = kiv_sqlite_prepare(reader, "SELECT count(*), sum(length(v)) FROM base");
        note(result, reader, "reader prepare", prepare, SQLITE_OK);
        if (prepare == SQLITE_OK) {
            const int step = kiv_sqlite_step(reader);
            note(result, reader, "reader step", step, SQLITE_ROW);
            if (step == SQLITE_ROW) {
                EXPECT_EQ(kiv_sqlite_column_int(reader, 0), base_rows);
                EXPECT_EQ(kiv_sqlite_column_int(reader, 1), base_rows * 300);
            }
        }
        kiv_sqlite_finalize(reader);
    }
    kiv_sqlite_destroy(writer, __FILE__, __LINE__);
    kiv_sqlite_destroy(reader, __FILE__, __LINE__);
    return result;
}

// Without faults: intact, the earlier table whole, and the round's transaction whole or absent.
void check_database(const std::string& path, const round_result& result) {
    const kiv_sqlite_handle c = kiv_sqlite_new(path, "check");
    ASSERT_EQ(kiv_sqlite_try_open(c), SQLITE_OK);
    EXPECT_EQ(query_text(c, "PRAGMA integrity_check"), "ok");
    EXPECT_EQ(query_text(c, "SELECT count(*) || ' ' || sum(length(v)) FROM base"),
              std::to_string(base_rows) + " " + std::to_string(base_rows * 300));
    const std::string has_t = query_text(c, "SELECT count(*) FROM sqlite_schema WHERE name = 't'");
    if (result.create_ok) {
        EXPECT_EQ(has_t, "1") << "a reported CREATE is kept";
    }
    if (has_t == "1") {
        const std::string stored = query_text(c, "SELECT count(*) || ' ' || total(length(v)) FROM t");
        const std::string whole = std::to_string(rows) + " " + std::to_string(rows * 300) + ".0";
        EXPECT_TRUE(stored == "0 0.0" || stored == whole) << stored;
        if (result.commit_ok) {
            EXPECT_EQ(stored, whole) << "a reported COMMIT is kept";
        }
    }
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_test::drain_database_worker());
}

const char* kind_name(fault_kind kind) {
    switch (kind) {
        case fault_kind::write: return "xWrite";
        case fault_kind::sync: return "xSync";
        case fault_kind::read: return "xRead";
        default: return "none";
    }
}

TEST(IoFaults, EachWriteSyncAndReadFailsInTurnAndTheDatabaseStaysWhole) {
    kiv_test::temp_dir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string path = dir.file("faults.db");
    kiv_test::assertion_recorder assertions;
    kiv_test::cout_capture out;
    kiv_database_init();

    std::string summary;
    for (const char* mode_name : {"delete", "wal"}) {
        const std::string mode = mode_name;
        for (const fault_kind kind : {fault_kind::write, fault_kind::sync, fault_kind::read}) {
            const auto started = std::chrono::steady_clock::now();
            const long injected_before = faults_injected.load();
            long rounds = 0;
            long reported = 0;  // rounds in which some call failed
            constexpr long cap = 2000;
            for (long n = 1;; ++n) {
                SCOPED_TRACE(mode + ": " + kind_name(kind) + " call " + std::to_string(n) + " fails");
                ASSERT_LE(n, cap) << "still injecting faults after " << cap << " rounds";
                create_database(path, mode);
                ASSERT_FALSE(::testing::Test::HasFatalFailure());
                const long before = faults_injected.load();
                armed_calls = 0;
                fail_at = n;
                armed = kind;
                const round_result result = run_round(path);
                const bool drained = kiv_test::drain_database_worker();  // closes meet the faults too
                armed = fault_kind::none;
                ++rounds;
                ASSERT_TRUE(drained);
                const bool touched = faults_injected.load() != before;
                if (!touched) {
                    EXPECT_TRUE(result.failed.empty()) << "a failure without a fault: " << result.failed.front();
                    EXPECT_TRUE(result.commit_ok);
                }
                if (!result.failed.empty()) ++reported;
                // A single fault is reported once: the calls after it work again.
                EXPECT_LE(result.failed.size(), 1u) << result.failed.back();
                check_database(path, result);
                // No check fails: a failed call never leaves the object without what it needs.
                for (const kiv_test::assertion_call& call : assertions.take()) {
                    EXPECT_TRUE(call.cond) << call.message << " at line " << call.line;
                }
                // Nothing on the console but each object leaving: setup, the round's, the check.
                const std::string left = "left objects in database reference count: ";
                EXPECT_EQ(out.take(), left + "0\n" + (result.objects == 2 ? left + "1\n" : "") + left + "0\n" +
                                          left + "0\n");
                if (::testing::Test::HasFailure()) return;
                if (!touched) break;
            }
            const double seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            char line[160];
            std::snprintf(line, sizeof line, "%-6s %-6s: %4ld rounds, %4ld faults injected, %4ld reported, %.1f s\n",
                          mode.c_str(), kind_name(kind), rounds, faults_injected.load() - injected_before,
                          reported, seconds);
            summary += line;
            EXPECT_GT(reported, 0) << "no fault ever reached the caller";
        }
    }
    EXPECT_TRUE(kiv_test::join_database_service());
    std::fprintf(stderr, "%s", summary.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    // Over the default VFS before any connection is opened (test discovery runs this main too).
    if (!register_fault_vfs()) {
        std::fprintf(stderr, "cannot register the failing VFS\n");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
