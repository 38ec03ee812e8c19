// Opening what is not a healthy database file: SQLite's codes through the API, no crash, no
// memory kept, and the caller's files exactly as they were.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

// Opens `path` as a host does and reads table t: the open's code and the first read's.
std::pair<int, int> open_and_read(const std::string& path, bool create) {
    const kiv_sqlite_handle c = kiv_sqlite_new(path, "hostile");
    const int open = create ? kiv_sqlite_open(c) : kiv_sqlite_try_open(c);
    EXPECT_EQ(kiv_database_get_sqlite("hostile") != nullptr, open == SQLITE_OK);
    int read = -1;
    if (open == SQLITE_OK && (read = kiv_sqlite_prepare(c, "SELECT count(*), sum(length(b)) FROM t")) == SQLITE_OK)
        read = kiv_sqlite_step(c);
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_test::drain_database_worker());
    return {open, read};
}

// Writes through a file without write permission: refused, reads still work. Exit status 0 when all hold.
int write_to_read_only(const std::string& path) {
    const kiv_sqlite_handle c = kiv_sqlite_new(path, "read_only");
    if (kiv_sqlite_open(c) != SQLITE_OK) return 10;
    if (kiv_sqlite_sql_stmt(c, "INSERT INTO t(b) VALUES (x'00')", nullptr) != SQLITE_READONLY) return 11;
    if (kiv_sqlite_last_error_code(c) != SQLITE_READONLY) return 12;
    return kiv_test::query(c, "SELECT count(*) FROM t") == "200" ? 0 : 13;
}

TEST(HostileFiles, RefusedWithSQLiteCodesAndLeftAsTheyWere) {
    kiv_database_init();
    kiv_test::temp_dir dir;
    kiv_test::cout_capture out;
    kiv_test::assertion_recorder assertions;
    const std::string healthy = dir.file("healthy.db");
    {
        const kiv_sqlite_handle c = kiv_sqlite_new(healthy, "maker");
        ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
        ASSERT_EQ(kiv_sqlite_sql_stmt(c, "CREATE TABLE t(id INTEGER PRIMARY KEY, b BLOB); WITH RECURSIVE n(i) AS "
                                         "(SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
                                         "INSERT INTO t SELECT i, randomblob(300) FROM n;", nullptr), SQLITE_OK);
        kiv_sqlite_destroy(c, __FILE__, __LINE__);
        ASSERT_TRUE(kiv_test::drain_database_worker());
    }
    const std::string image = kiv_test::read_file(healthy);
    const auto damaged = [&](std::size_t at, char byte, std::size_t size) {
        std::string bytes = image.substr(0, size);
        if (at < size) bytes[at] = byte;
        return bytes;
    };
    std::string long_path = dir.path();
    while (long_path.size() < 5000) long_path += "/segment";
    ASSERT_EQ(mkdir(dir.file("folder").c_str(), 0755), 0);
    struct file {
        std::string path, bytes;  // bytes written first unless empty
        int open, read;
    };
    const std::vector<file> files = {
        {dir.file("folder"), "", SQLITE_CANTOPEN, -1},
        {dir.file("missing/sub/x.db"), "", SQLITE_CANTOPEN, -1},
        {dir.file(std::string(300, 'n') + ".db"), "", SQLITE_CANTOPEN, -1},
        {long_path + "/x.db", "", SQLITE_CANTOPEN, -1},
        {dir.file("text.db"), std::string(8192, 'w'), SQLITE_OK, SQLITE_NOTADB},
        {dir.file("header.db"), damaged(3, 'X', image.size()), SQLITE_OK, SQLITE_NOTADB},
        {dir.file("truncated.db"), damaged(0, 'S', 3 * 4096 + 100), SQLITE_OK, SQLITE_CORRUPT},
        {dir.file("flipped.db"), damaged(4096, static_cast<char>(image[4096] ^ 0x40), image.size()), SQLITE_OK, SQLITE_CORRUPT},
        {dir.file("d\xC3\xA4t\xC3\xA4 \xE2\x9C\x93.db"), image, SQLITE_OK, SQLITE_ROW},
    };
    open_and_read(healthy, false);  // SQLite's one-time set-up, out of the measure
    const sqlite3_int64 baseline = sqlite3_memory_used();
    for (const file& f : files) {
        if (!f.bytes.empty()) std::ofstream(f.path, std::ios::binary) << f.bytes;
        for (const bool create : {true, false}) {
            EXPECT_EQ(open_and_read(f.path, create), std::make_pair(f.open, f.read)) << f.path.substr(0, 80) << create;
            EXPECT_EQ(sqlite3_memory_used(), baseline) << f.path.substr(0, 80);
        }
        EXPECT_EQ(f.bytes.empty() ? "" : kiv_test::read_file(f.path), f.bytes) << f.path;
        EXPECT_NE(access((f.path + "-journal").c_str(), F_OK), 0) << f.path;
    }
    EXPECT_NE(access(dir.file("missing").c_str(), F_OK), 0);
    EXPECT_NE(access(dir.file("folder/x.db").c_str(), F_OK), 0);

    // Root ignores permissions: the child gives its privileges up first.
    ASSERT_EQ(chmod(healthy.c_str(), 0444), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    EXPECT_EQ(kiv_test::run_in_child([&] {
                  if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 2;
                  return write_to_read_only(healthy);
              }),
              0);
    EXPECT_EQ(kiv_test::read_file(healthy), image);
    for (const kiv_test::assertion_call& call : assertions.take()) EXPECT_TRUE(call.cond) << call.message;
    EXPECT_TRUE(kiv_test::join_database_service());
    EXPECT_EQ(out.str().find("KIV-SYSTEM**"), std::string::npos) << out.str();
}

}  // namespace
