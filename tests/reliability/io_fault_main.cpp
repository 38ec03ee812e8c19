// I/O faults: a VFS over the default one fails the Nth xWrite, xSync or xRead, for N = 1, 2, ...
// until a round runs untouched, through open, create, a transaction of inserts, commit and a
// query, in rollback-journal and WAL mode. Each error reaches the caller as SQLite's code, and
// afterwards the database is intact and holds the whole transaction or none of it.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

enum class fault { none, write, sync, read };

sqlite3_vfs* real_vfs = nullptr;
std::atomic<fault> armed{fault::none};
std::atomic<long> calls{0};
std::atomic<long> fail_at{0};
std::atomic<long> injected{0};

// Counts the armed kind of call; true for the one that is to fail.
bool inject(fault kind) {
    if (armed.load() != kind) return false;
    if (++calls != fail_at.load()) return false;
    ++injected;
    return true;
}

struct fault_file {
    sqlite3_file base;
    sqlite3_file* real;  // the default VFS's file, allocated right behind this struct
};

sqlite3_file* real_of(sqlite3_file* file) { return reinterpret_cast<fault_file*>(file)->real; }

int fault_close(sqlite3_file* f) { return real_of(f)->pMethods->xClose(real_of(f)); }
int fault_read(sqlite3_file* f, void* out, int amount, sqlite3_int64 offset) {
    if (inject(fault::read)) return SQLITE_IOERR_READ;
    return real_of(f)->pMethods->xRead(real_of(f), out, amount, offset);
}
int fault_write(sqlite3_file* f, const void* data, int amount, sqlite3_int64 offset) {
    if (inject(fault::write)) return SQLITE_IOERR_WRITE;
    return real_of(f)->pMethods->xWrite(real_of(f), data, amount, offset);
}
int fault_truncate(sqlite3_file* f, sqlite3_int64 size) { return real_of(f)->pMethods->xTruncate(real_of(f), size); }
int fault_sync(sqlite3_file* f, int flags) {
    if (inject(fault::sync)) return SQLITE_IOERR_FSYNC;
    return real_of(f)->pMethods->xSync(real_of(f), flags);
}
int fault_file_size(sqlite3_file* f, sqlite3_int64* size) { return real_of(f)->pMethods->xFileSize(real_of(f), size); }
int fault_lock(sqlite3_file* f, int level) { return real_of(f)->pMethods->xLock(real_of(f), level); }
int fault_unlock(sqlite3_file* f, int level) { return real_of(f)->pMethods->xUnlock(real_of(f), level); }
int fault_check_reserved(sqlite3_file* f, int* out) {
    return real_of(f)->pMethods->xCheckReservedLock(real_of(f), out);
}
int fault_file_control(sqlite3_file* f, int op, void* arg) {
    return real_of(f)->pMethods->xFileControl(real_of(f), op, arg);
}
int fault_sector_size(sqlite3_file* f) { return real_of(f)->pMethods->xSectorSize(real_of(f)); }
int fault_device(sqlite3_file* f) { return real_of(f)->pMethods->xDeviceCharacteristics(real_of(f)); }
int fault_shm_map(sqlite3_file* f, int region, int size, int extend, void volatile** out) {
    return real_of(f)->pMethods->xShmMap(real_of(f), region, size, extend, out);
}
int fault_shm_lock(sqlite3_file* f, int offset, int n, int flags) {
    return real_of(f)->pMethods->xShmLock(real_of(f), offset, n, flags);
}
void fault_shm_barrier(sqlite3_file* f) { real_of(f)->pMethods->xShmBarrier(real_of(f)); }
int fault_shm_unmap(sqlite3_file* f, int remove) { return real_of(f)->pMethods->xShmUnmap(real_of(f), remove); }
// No memory-mapped pages: every read goes through xRead, where the faults are.
int fault_fetch(sqlite3_file*, sqlite3_int64, int, void** out) {
    *out = nullptr;
    return SQLITE_OK;
}
int fault_unfetch(sqlite3_file*, sqlite3_int64, void*) { return SQLITE_OK; }

const sqlite3_io_methods fault_methods = {
    3,           fault_close,   fault_read,      fault_write,     fault_truncate,    fault_sync,
    fault_file_size, fault_lock, fault_unlock,   fault_check_reserved, fault_file_control,
    fault_sector_size, fault_device, fault_shm_map, fault_shm_lock, fault_shm_barrier,
    fault_shm_unmap, fault_fetch, fault_unfetch};

int fault_open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
    auto* const self = reinterpret_cast<fault_file*>(file);
    self->real = reinterpret_cast<sqlite3_file*>(self + 1);
    const int rc = real_vfs->xOpen(real_vfs, name, self->real, flags, out_flags);
    // SQLite calls xClose only on files whose pMethods is set.
    self->base.pMethods = rc == SQLITE_OK && self->real->pMethods != nullptr ? &fault_methods : nullptr;
    return rc;
}

sqlite3_vfs fault_vfs;

// The default VFS's functions serve as they are; only files are wrapped.
bool register_fault_vfs() {
    real_vfs = sqlite3_vfs_find(nullptr);
    if (real_vfs == nullptr) return false;
    fault_vfs = *real_vfs;
    fault_vfs.pNext = nullptr;
    fault_vfs.zName = "kiv_fault";
    fault_vfs.szOsFile = static_cast<int>(sizeof(fault_file)) + real_vfs->szOsFile;
    fault_vfs.xOpen = fault_open;
    return sqlite3_vfs_register(&fault_vfs, 1) == SQLITE_OK;
}

constexpr int rows = 50;

// One pass of the scenario; the codes of the calls that failed, in order, and the commit's.
struct pass {
    std::vector<std::pair<std::string, int>> failures;
    int commit = -1;  // -1: no COMMIT was tried
};

pass scenario(const std::string& path, const char* mode) {
    pass p;
    const kiv_sqlite_handle c = kiv_sqlite_new(path, "io");
    auto note = [&](const char* what, int rc, int ok) {
        if (rc == ok) return;
        p.failures.emplace_back(what, rc);
        // The connection tells the same code as the call.
        if (kiv_sqlite_is_opened(c)) {
            EXPECT_EQ(kiv_sqlite_last_error_code(c), rc) << what;
        }
    };
    note("open", kiv_sqlite_open(c), SQLITE_OK);
    note("journal", kiv_sqlite_sql_stmt(c, (std::string("PRAGMA journal_mode=") + mode).c_str(), nullptr), SQLITE_OK);
    note("create", kiv_sqlite_sql_stmt(c, "CREATE TABLE t(k INTEGER PRIMARY KEY, v TEXT)", nullptr), SQLITE_OK);
    // As a careful caller does: the first failure inside the transaction rolls it back.
    const int begin = kiv_sqlite_sql_stmt(c, "BEGIN", nullptr);
    note("begin", begin, SQLITE_OK);
    bool whole = begin == SQLITE_OK;
    if (whole && kiv_sqlite_prepare(c, "INSERT INTO t VALUES (?1, ?2)") == SQLITE_OK) {
        const std::string value(300, 'v');  // a few pages' worth in all
        for (int k = 1; whole && k <= rows; ++k) {
            kiv_sqlite_bind_int(c, 1, k);
            kiv_sqlite_bind_text(c, 2, value.data(), value.size());
            const int rc = kiv_sqlite_step(c);
            note("insert", rc, SQLITE_DONE);
            whole = rc == SQLITE_DONE;
            kiv_sqlite_reset(c);
        }
        kiv_sqlite_finalize(c);
    } else {
        whole = false;
    }
    if (whole) {
        p.commit = kiv_sqlite_sql_stmt(c, "COMMIT", nullptr);
        note("commit", p.commit, SQLITE_OK);
    }
    if (p.commit != SQLITE_OK) kiv_sqlite_sql_stmt(c, "ROLLBACK", nullptr);
    if (kiv_sqlite_prepare(c, "SELECT count(*) FROM t") == SQLITE_OK) {
        note("query", kiv_sqlite_step(c), SQLITE_ROW);
        kiv_sqlite_finalize(c);
    }
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_test::drain_database_worker());  // the close may meet a fault too
    return p;
}

// After a round, without faults: intact, and the transaction whole or absent.
void check_database(const std::string& path, const pass& p) {
    const kiv_sqlite_handle c = kiv_sqlite_new(path, "check");
    ASSERT_EQ(kiv_sqlite_try_open(c), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_prepare(c, "PRAGMA integrity_check"), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
    EXPECT_EQ(kiv_sqlite_column_text(c, 0), "ok");
    kiv_sqlite_finalize(c);
    long long stored = 0;
    if (kiv_sqlite_prepare(c, "SELECT count(*) FROM t") == SQLITE_OK) {  // the create may have failed
        EXPECT_EQ(kiv_sqlite_step(c), SQLITE_ROW);
        stored = kiv_sqlite_column_int64(c, 0);
        kiv_sqlite_finalize(c);
    }
    EXPECT_TRUE(stored == 0 || stored == rows) << stored << " rows";
    if (p.commit == SQLITE_OK) {
        EXPECT_EQ(stored, rows) << "a reported commit is there";
    }
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_test::drain_database_worker());
}

void remove_database(const std::string& path) {
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) std::remove((path + suffix).c_str());
}

TEST(IoFaults, EachWriteSyncAndReadFailsInTurn) {
    ASSERT_TRUE(register_fault_vfs());
    kiv_database_init();
    kiv_test::cout_capture out;
    kiv_test::assertion_recorder assertions;  // statement calls after a failed prepare
    kiv_test::temp_dir dir;
    const std::string path = dir.file("io.db");
    long rounds = 0;
    for (const char* mode : {"delete", "wal"}) {
        for (const fault kind : {fault::write, fault::sync, fault::read}) {
            constexpr long limit = 10000;
            for (long n = 1;; ++n) {
                SCOPED_TRACE(std::string(mode) + " fault " + std::to_string(static_cast<int>(kind)) + " at call " +
                             std::to_string(n));
                ASSERT_LT(n, limit) << "no untouched round";
                remove_database(path);
                const long before = injected.load();
                calls = 0;
                fail_at = n;
                armed = kind;
                const pass p = scenario(path, mode);
                armed = fault::none;
                ++rounds;
                const bool touched = injected.load() != before;
                // The first failure is the fault itself, with its primary code.
                if (!p.failures.empty()) {
                    EXPECT_TRUE(touched);
                    EXPECT_EQ(p.failures.front().second, SQLITE_IOERR) << p.failures.front().first;
                }
                check_database(path, p);
                if (::testing::Test::HasFailure()) return;
                if (!touched) break;
            }
        }
    }
    EXPECT_TRUE(kiv_test::join_database_service());
    std::fprintf(stderr, "I/O faults: %ld rounds, %ld faults injected\n", rounds, injected.load());
}

}  // namespace
