// Opening what is not a healthy database file: SQLite's codes through the API, no crash, no
// memory kept, and the caller's files exactly as they were.

#include "kiv_db_test_util.h"

namespace {

TEST(HostileFiles, RefusedWithSQLiteCodesAndLeftAsTheyWere) {
    kiv_database_init();
    kiv_test::temp_dir dir;
    kiv_test::cout_capture out;
    kiv_test::assertion_recorder assertions;
    // Opens `path` as a host does and reads table t: the open's code, then the first read's.
    const auto open_and_read = [](const std::string& path, bool create) {
        const kiv_sqlite_handle c = kiv_sqlite_new(path, "hostile");
        const int open = create ? kiv_sqlite_open(c) : kiv_sqlite_try_open(c);
        EXPECT_EQ(kiv_database_get_sqlite("hostile") == c, open == SQLITE_OK);
        const std::string sum = open ? "" : kiv_test::query(c, "SELECT sum(length(b)) FROM t");
        const std::string codes = std::to_string(open) + (open ? "" : " " + (sum.empty() ? std::to_string(kiv_sqlite_last_error_code(c)) : sum));
        kiv_sqlite_destroy(c, __FILE__, __LINE__);
        EXPECT_TRUE(kiv_test::drain_database_worker());
        return codes;
    };
    const std::string healthy = dir.file("healthy.db");
    const kiv_sqlite_handle maker = kiv_sqlite_new(healthy, "maker");
    ASSERT_EQ(kiv_sqlite_open(maker) + kiv_sqlite_sql_stmt(maker, "CREATE TABLE t(id INTEGER PRIMARY KEY, b BLOB); WITH RECURSIVE n(i) AS (SELECT 1 "
                                    "UNION ALL SELECT i + 1 FROM n WHERE i < 200) INSERT INTO t SELECT i, randomblob(300) FROM n", nullptr), 0);
    kiv_sqlite_destroy(maker, __FILE__, __LINE__);
    ASSERT_EQ(open_and_read(healthy, false), "0 60000");  // and SQLite's one-time set-up is out of the measure
    const std::string image = kiv_test::read_file(healthy);
    const auto damaged = [&](std::size_t size, std::size_t at, int flip) {
        std::string bytes = image.substr(0, size);
        return bytes[at] = static_cast<char>(bytes[at] ^ flip), bytes;
    };
    const std::vector<std::tuple<std::string, std::string, std::string>> files = {  // path, bytes written first, codes
        {dir.file("missing/x.db"), "", "14"}, {dir.file(std::string(300, 'n')), "", "14"}, {std::string(5000, '/'), "", "14"},
        {dir.file("text.db"), std::string(8192, 'w'), "0 26"}, {dir.file("header.db"), damaged(image.size(), 3, 1), "0 26"},
        {dir.file("truncated.db"), image.substr(0, 3 * 4096 + 100), "0 11"}, {dir.file("flipped.db"), damaged(image.size(), 4096, 0x40), "0 11"},
        {dir.file("d\xC3\xA4t\xC3\xA4 \xE2\x9C\x93.db"), image, "0 60000"}};
    const sqlite3_int64 baseline = sqlite3_memory_used();
    for (const auto& [path, bytes, codes] : files) {
        if (!bytes.empty()) std::ofstream(path, std::ios::binary) << bytes;
        for (const bool create : {true, false}) EXPECT_EQ(open_and_read(path, create), codes) << path.substr(0, 80) << create;
        EXPECT_EQ(sqlite3_memory_used(), baseline) << path.substr(0, 80);
        EXPECT_EQ(bytes.empty() ? "" : kiv_test::read_file(path), bytes) << path.substr(0, 80);
        EXPECT_NE(access((path + "-journal").c_str(), F_OK), 0) << path.substr(0, 80);
    }
    EXPECT_NE(access(dir.file("missing").c_str(), F_OK), 0);
    // A file without write permission refuses writes and still reads. Root ignores permissions,
    // so the child gives its privileges up first.
    ASSERT_EQ(chmod(healthy.c_str(), 0444) + chmod(dir.path.c_str(), 0755), 0);
    EXPECT_EQ(kiv_test::run_in_child([&] {
                  const kiv_sqlite_handle c = kiv_sqlite_new(healthy, "read_only");
                  if ((geteuid() == 0 && (setgid(65534) || setuid(65534))) || kiv_sqlite_open(c)) return 2;
                  if (kiv_sqlite_sql_stmt(c, "INSERT INTO t(b) VALUES (x'00')", nullptr) != SQLITE_READONLY) return 3;
                  return kiv_sqlite_last_error_code(c) == SQLITE_READONLY && kiv_test::query(c, "SELECT count(*) FROM t") == "200" ? 0 : 4;
              }), 0);
    EXPECT_EQ(kiv_test::read_file(healthy), image);
    for (const kiv_test::assertion_call& call : assertions.take()) EXPECT_TRUE(call.cond) << call.message;
    EXPECT_TRUE(kiv_test::join_database_service());
    EXPECT_EQ(out.str().find("KIV-SYSTEM**"), std::string::npos) << out.str();
}

}  // namespace
