// Fault injection: SQLite's allocator, and a VFS over the default one, fail the Nth allocation
// (only that one, or that one and all after it) or the Nth xWrite, xSync or xRead, for N = 1, 2,
// ... until a round runs without a fault. One round is a careful host: it writes a transaction
// and reads it back, also through a second connection, and stops at the first failure. Every
// failure must be SQLite's code for the fault, reported by the connection too; afterwards the
// database is intact and holds the transaction whole or not at all (whole once COMMIT succeeded),
// no memory is kept, no check failed and the console shows only the objects leaving.
//
// Its own executable: the allocator can only be replaced before SQLite initialises.

#include <malloc.h>

#include "kiv_db_test_util.h"

namespace {

enum fault { none, write, sync, read, alloc_once, alloc_on };
std::atomic<int> armed{none};
std::atomic<long> calls{0}, fail_at{0}, injected{0};

bool inject(fault kind) {
    const int a = armed.load();
    if (a != kind && !(kind == alloc_once && a == alloc_on)) return false;
    const long n = ++calls;
    if (n < fail_at.load() || (n > fail_at.load() && a != alloc_on)) return false;
    return ++injected > 0;
}

sqlite3_mem_methods memory;
sqlite3_vfs* base_vfs;
sqlite3_vfs fault_vfs;

// The default VFS opens the file; its methods are then replaced by a copy that fails on demand
// (one copy per table of methods: database files lock, journals do not).
struct fault_methods {
    sqlite3_io_methods io;
    const sqlite3_io_methods* base;
} tables[4];
const sqlite3_io_methods& base(sqlite3_file* f) { return *reinterpret_cast<const fault_methods*>(f->pMethods)->base; }

int fault_open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* out) {
    const int rc = base_vfs->xOpen(base_vfs, name, file, flags, out);
    fault_methods* t = tables;
    while (t->base != nullptr && t->base != file->pMethods) ++t;
    if (file->pMethods == nullptr || t == std::end(tables)) return rc;
    if (t->base == nullptr) {
        *t = {*file->pMethods, file->pMethods};
        t->io.xRead = [](sqlite3_file* f, void* p, int n, sqlite3_int64 at) {
            return inject(read) ? SQLITE_IOERR_READ : base(f).xRead(f, p, n, at);
        };
        t->io.xWrite = [](sqlite3_file* f, const void* p, int n, sqlite3_int64 at) {
            return inject(write) ? SQLITE_IOERR_WRITE : base(f).xWrite(f, p, n, at);
        };
        t->io.xSync = [](sqlite3_file* f, int how) {
            return inject(sync) ? SQLITE_IOERR_FSYNC : base(f).xSync(f, how);
        };
        if (t->io.iVersion >= 3)
            t->io.xFetch = [](sqlite3_file*, sqlite3_int64, int, void** p) {
                *p = nullptr;  // every read through xRead
                return SQLITE_OK;
            };
    }
    file->pMethods = &t->io;
    return rc;
}

bool install_faults() {
    if (sqlite3_config(SQLITE_CONFIG_GETMALLOC, &memory) != SQLITE_OK) return false;
    sqlite3_mem_methods failing = memory;
    failing.xMalloc = [](int n) { return inject(alloc_once) ? nullptr : memory.xMalloc(n); };
    failing.xRealloc = [](void* p, int n) { return inject(alloc_once) ? nullptr : memory.xRealloc(p, n); };
    if (sqlite3_config(SQLITE_CONFIG_MALLOC, &failing) != SQLITE_OK || sqlite3_initialize() != SQLITE_OK) return false;
    base_vfs = sqlite3_vfs_find(nullptr);
    fault_vfs = *base_vfs;
    fault_vfs.zName = "kiv_fault";
    fault_vfs.xOpen = fault_open;
    return sqlite3_vfs_register(&fault_vfs, 1) == SQLITE_OK;
}

constexpr int base_rows = 40, rows = 12;
const std::string value(800, 'v'), whole = std::to_string(rows) + " " + std::to_string(rows * 800) + ".0";
std::size_t heap_in_use() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

struct round_result {
    std::string failed;  // the call that failed
    bool create_ok = false, commit_ok = false;
};

// The careful host; its objects are destroyed at the end.
round_result run_round(const std::string& path, int fault_code) {
    round_result r;
    const kiv_sqlite_handle w = kiv_sqlite_new(path, "writer"), reader = kiv_sqlite_new(path, "reader");
    const auto ok = [&](const char* call, const kiv_sqlite_handle& c, int rc, int success = SQLITE_OK) {
        EXPECT_TRUE(rc == success ||
                    (rc == fault_code && (!kiv_sqlite_is_opened(c) || kiv_sqlite_last_error_code(c) == rc)))
            << call << rc;
        return rc == success || (r.failed = call, false);
    };
    const auto exec = [&](const char* sql) { return ok(sql, w, kiv_sqlite_sql_stmt(w, sql, nullptr)); };
    bool going = ok("open", w, kiv_sqlite_open(w)) &&
                 exec("PRAGMA cache_size=2") &&  // spills to the file mid-transaction
                 (r.create_ok = exec("CREATE TABLE t(k INTEGER PRIMARY KEY, v TEXT)")) && exec("BEGIN") &&
                 ok("prepare", w, kiv_sqlite_prepare(w, "INSERT INTO t VALUES (?1, ?2)"));
    for (int k = 1; going && k <= rows; ++k, kiv_sqlite_reset(w))
        going = ok("bind", w, kiv_sqlite_bind_int(w, 1, k)) &&
                ok("bind", w, kiv_sqlite_bind_text(w, 2, value.data(), value.size())) &&
                ok("insert", w, kiv_sqlite_step(w), SQLITE_DONE);
    kiv_sqlite_finalize(w);
    going = going && (r.commit_ok = exec("COMMIT"));
    if (r.create_ok && !r.commit_ok) kiv_sqlite_sql_stmt(w, "ROLLBACK", nullptr);  // may have happened already
    // A zero-filled blob bound directly: SQLite expands it only when column_blob asks for it.
    if (going && ok("select", w, kiv_sqlite_prepare(w, "SELECT count(*), ?1 FROM t")) &&
        ok("zeroblob", w, sqlite3_bind_zeroblob(w->stmt, 1, 70000)) && ok("step", w, kiv_sqlite_step(w), SQLITE_ROW)) {
        EXPECT_EQ(kiv_sqlite_column_int(w, 0), rows);
        unsigned char* data = nullptr;
        int size = 0;
        const std::size_t heap = heap_in_use();
        const sqlite3_int64 held = sqlite3_memory_used();
        kiv_sqlite_column_blob(w, 1, data, size);
        const bool copied = data != nullptr;
        std::free(data);
        // When SQLite cannot expand it: no copy, none kept, and the connection tells why.
        EXPECT_LT(static_cast<long>(heap_in_use() - heap) - (sqlite3_memory_used() - held), 35000) << "copy leaked";
        EXPECT_TRUE(size == 70000 ? copied : !copied && kiv_sqlite_last_error_code(w) == fault_code) << size;
        r.failed = size == 70000 ? r.failed : "expand";
    }
    kiv_sqlite_finalize(w);
    if (going && ok("reader open", reader, kiv_sqlite_open(reader)) &&
        ok("reader select", reader, kiv_sqlite_prepare(reader, "SELECT count(*) || ' ' || sum(length(v)) FROM base")) &&
        ok("reader step", reader, kiv_sqlite_step(reader), SQLITE_ROW)) {
        EXPECT_EQ(kiv_sqlite_column_text(reader, 0), std::to_string(base_rows) + " " + std::to_string(base_rows * 300));
    }
    kiv_sqlite_destroy(w, __FILE__, __LINE__);
    kiv_sqlite_destroy(reader, __FILE__, __LINE__);
    return r;
}

TEST(Faults, EachAllocationWriteSyncAndReadFailsInTurn) {
    kiv_test::assertion_recorder assertions;
    kiv_test::cout_capture out;
    kiv_database_init();
    const char* names[] = {"", "xWrite", "xSync", "xRead", "allocation once", "allocation on"};
    for (const std::string mode : {"delete", "wal"}) {
        kiv_test::temp_dir dir;
        const std::string path = dir.file("faults.db");
        const kiv_sqlite_handle setup = kiv_sqlite_new(path, "setup");
        ASSERT_EQ(kiv_sqlite_open(setup), SQLITE_OK);
        ASSERT_EQ(kiv_test::query(setup, "PRAGMA journal_mode=" + mode), mode);
        ASSERT_EQ(kiv_sqlite_sql_stmt(
                      setup,
                      ("CREATE TABLE base(k INTEGER PRIMARY KEY, v TEXT); WITH RECURSIVE n(k) AS (SELECT 1 UNION ALL "
                       "SELECT k + 1 FROM n WHERE k < " +
                       std::to_string(base_rows) + ") INSERT INTO base SELECT k, printf('%.300c', 'b') FROM n")
                          .c_str(),
                      nullptr),
                  SQLITE_OK);
        kiv_sqlite_destroy(setup, __FILE__, __LINE__);
        ASSERT_TRUE(kiv_test::drain_database_worker());
        const std::string image = kiv_test::read_file(path);
        out.take();
        for (const fault kind : {write, sync, read, alloc_once, alloc_on}) {
            const auto started = std::chrono::steady_clock::now();
            const long injected_before = injected.load();
            long n = 1, reported = 0;
            for (bool touched = true; touched; ++n) {
                SCOPED_TRACE(mode + ": " + names[kind] + " " + std::to_string(n) + " fails");
                for (const char* suffix : {"-journal", "-wal", "-shm"}) std::remove((path + suffix).c_str());
                std::ofstream(path, std::ios::binary | std::ios::trunc) << image;
                const sqlite3_int64 memory_before = sqlite3_memory_used();
                const long before = injected.load();
                calls = 0, fail_at = n, armed = kind;
                const round_result r = run_round(path, kind >= alloc_once ? SQLITE_NOMEM : SQLITE_IOERR);
                ASSERT_TRUE(kiv_test::drain_database_worker() &&
                            kiv_test::drain_database_worker());  // closes meet faults too
                armed = none;
                touched = injected.load() != before;
                reported += !r.failed.empty();
                EXPECT_EQ(sqlite3_memory_used(), memory_before) << "SQLite memory kept";
                EXPECT_TRUE(touched || (r.failed.empty() && r.commit_ok)) << "a failure without a fault: " << r.failed;
                const kiv_sqlite_handle check = kiv_sqlite_new(path, "check");
                ASSERT_EQ(kiv_sqlite_try_open(check), SQLITE_OK);
                EXPECT_EQ(kiv_test::query(check, "PRAGMA integrity_check"), "ok");
                EXPECT_EQ(kiv_test::query(check, "SELECT count(*) FROM base"), std::to_string(base_rows));
                const std::string stored = kiv_test::query(check, "SELECT count(*) || ' ' || total(length(v)) FROM t");
                EXPECT_TRUE((stored == "" && !r.create_ok) || (stored == "0 0.0" && !r.commit_ok) || stored == whole)
                    << stored;
                kiv_sqlite_destroy(check, __FILE__, __LINE__);
                ASSERT_TRUE(kiv_test::drain_database_worker());
                for (const kiv_test::assertion_call& call : assertions.take()) EXPECT_TRUE(call.cond) << call.message;
                const std::string lines = out.take();
                EXPECT_EQ(kiv_test::count_of(lines, "left objects in database reference count: ") * 10 +
                              kiv_test::count_of(lines, "\n"),
                          33u)
                    << lines;
                ASSERT_LT(n, 20000) << "still injecting";
                if (::testing::Test::HasFailure()) return;
            }
            EXPECT_GT(reported, 0) << "no fault reached the caller";
            std::fprintf(stderr, "%-6s %-15s: %5ld rounds, %5ld faults injected, %4ld reported, %.1f s\n", mode.c_str(),
                         names[kind], n - 1, injected.load() - injected_before, reported,
                         std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
        }
    }
    EXPECT_TRUE(kiv_test::join_database_service());
}

}  // namespace

int main(int argc, char** argv) {
    // Before anything touches SQLite (test discovery runs this main too).
    // Syncs are still made, at no cost, when memory backs the files; elsewhere they take longer.
    if (access("/dev/shm", W_OK | X_OK) == 0) setenv("TMPDIR", "/dev/shm", 0);
    else std::fprintf(stderr, "note: /dev/shm is not writable here; the files go to TMPDIR or /tmp (slower)\n");
    if (!install_faults()) return std::fprintf(stderr, "cannot install the failing allocator and VFS\n"), 1;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
