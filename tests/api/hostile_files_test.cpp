// Opening what is not a healthy database file: SQLite's codes through the API, no crash, and
// the caller's files exactly as they were.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "kiv_db_test_util.h"
#include "kiv_test_support.h"

namespace {

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

bool exists(const std::string& path) {
    struct stat info;
    return ::stat(path.c_str(), &info) == 0;
}

// A healthy database of several pages: table t(id, b) with 200 rows of 300-byte blobs.
void make_database(const std::string& path) {
    const kiv_sqlite_handle c = kiv_sqlite_new(path, "maker");
    ASSERT_EQ(kiv_sqlite_open(c), SQLITE_OK);
    ASSERT_EQ(kiv_sqlite_sql_stmt(c,
                                  "CREATE TABLE t(id INTEGER PRIMARY KEY, b BLOB);"
                                  "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) "
                                  "INSERT INTO t SELECT i, randomblob(300) FROM n;",
                                  nullptr),
              SQLITE_OK);
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    ASSERT_TRUE(kiv_test::drain_database_worker());
}

// Opens `path` the way a host does and reads the whole table; the first failing code, or OK.
struct attempt {
    int open = -1;
    int query = -1;
    std::string message;
};

attempt open_and_read(const std::string& path, bool create) {
    attempt result;
    const kiv_sqlite_handle c = kiv_sqlite_new(path, "hostile");
    result.open = create ? kiv_sqlite_open(c) : kiv_sqlite_try_open(c);
    EXPECT_EQ(kiv_sqlite_is_opened(c), result.open == SQLITE_OK);
    EXPECT_EQ(kiv_database_get_sqlite("hostile") != nullptr, result.open == SQLITE_OK);
    if (result.open == SQLITE_OK) {
        result.query = kiv_sqlite_prepare(c, "SELECT count(*), sum(length(b)) FROM t");
        if (result.query == SQLITE_OK) {
            result.query = kiv_sqlite_step(c);
            if (result.query == SQLITE_ROW) result.query = SQLITE_OK;
        }
        result.message = kiv_sqlite_last_error_message(c);
    }
    kiv_sqlite_destroy(c, __FILE__, __LINE__);
    EXPECT_TRUE(kiv_test::drain_database_worker());
    return result;
}

class HostileFiles : public ::testing::Test {
protected:
    void SetUp() override { kiv_database_init(); }
    void TearDown() override {
        EXPECT_TRUE(kiv_test::join_database_service());
        EXPECT_EQ(out.str().find("KIV-SYSTEM**"), std::string::npos) << out.str();
    }
    kiv_test::cout_capture out;
    kiv_test::assertion_recorder assertions;
    kiv_test::temp_dir dir;
};

// Paths that cannot be opened: a directory, a missing directory, names too long for the system.
// Nothing is created on the way.
TEST_F(HostileFiles, PathsThatCannotBeOpened) {
    const std::string folder = dir.file("folder");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    const std::string missing = dir.file("missing/sub/x.db");
    const std::string long_name = dir.file(std::string(300, 'n') + ".db");
    std::string long_path = dir.path();
    while (long_path.size() < 5000) long_path += "/segment";
    long_path += "/x.db";

    for (const std::string& path : {folder, missing, long_name, long_path}) {
        for (const bool create : {true, false}) {
            const attempt a = open_and_read(path, create);
            EXPECT_EQ(a.open, SQLITE_CANTOPEN) << path.substr(0, 80) << " create=" << create;
        }
    }
    EXPECT_FALSE(exists(dir.file("missing")));
    EXPECT_EQ(read_file(dir.file("folder/x")), "");
    std::ostringstream listing;
    for (const char* name : {"folder-journal", "folder-wal", "folder-shm"}) listing << exists(dir.file(name));
    EXPECT_EQ(listing.str(), "000");
}

// Files that are not healthy databases open (SQLite reads lazily) and fail at the first read
// with SQLite's code; the bytes on disk stay exactly as they were.
TEST_F(HostileFiles, DamagedFilesFailAtTheFirstReadAndStayUntouched) {
    const std::string healthy = dir.file("healthy.db");
    make_database(healthy);
    const std::string image = read_file(healthy);
    ASSERT_GT(image.size(), 10u * 4096u);

    const std::string text = dir.file("text.db");
    std::string words;
    while (words.size() < 8192) words += "this is not a database, only words in a file\n";
    write_file(text, words);

    const std::string truncated = dir.file("truncated.db");
    write_file(truncated, image.substr(0, 3 * 4096 + 100));

    // The root page of t is page 2: an impossible page type there.
    const std::string flipped = dir.file("flipped.db");
    std::string bits = image;
    bits[4096] = static_cast<char>(bits[4096] ^ 0x40);
    write_file(flipped, bits);

    const std::string header = dir.file("header.db");
    std::string magic = image;
    magic[3] = 'X';  // "SQLite format 3" misspelt
    write_file(header, magic);

    struct damaged {
        std::string path;
        int query;
    };
    for (const damaged& d : {damaged{text, SQLITE_NOTADB}, damaged{header, SQLITE_NOTADB},
                             damaged{truncated, SQLITE_CORRUPT}, damaged{flipped, SQLITE_CORRUPT}}) {
        const std::string before = read_file(d.path);
        for (const bool create : {true, false}) {
            const attempt a = open_and_read(d.path, create);
            EXPECT_EQ(a.open, SQLITE_OK) << d.path;
            EXPECT_EQ(a.query, d.query) << d.path << ": " << a.message;
            EXPECT_EQ(a.message, sqlite3_errstr(d.query)) << d.path;
        }
        EXPECT_EQ(read_file(d.path), before) << d.path;
        EXPECT_FALSE(exists(d.path + "-journal")) << d.path;
    }

    // The healthy one reads whole, as a control.
    const attempt a = open_and_read(healthy, false);
    EXPECT_EQ(a.query, SQLITE_OK) << a.message;
}

// A name beyond ASCII opens, holds data and is found on disk under exactly those bytes.
TEST_F(HostileFiles, NonAsciiPathIsTakenByteForByte) {
    const std::string path = dir.file("d\xC3\xA4t\xC3\xA4 \xE2\x9C\x93 \xE3\x83\x87\xE3\x83\xBC\xE3\x82\xBF.db");
    make_database(path);
    EXPECT_TRUE(exists(path));
    const attempt a = open_and_read(path, false);
    EXPECT_EQ(a.open, SQLITE_OK);
    EXPECT_EQ(a.query, SQLITE_OK) << a.message;
}

// The checks a read-only file must pass, as plain exit statuses so that a child process can run
// them: 0 when all hold.
int write_to_read_only(const std::string& path) {
    const kiv_sqlite_handle c = kiv_sqlite_new(path, "read_only");
    if (kiv_sqlite_open(c) != SQLITE_OK) return 10;  // SQLite falls back to reading only
    if (kiv_sqlite_sql_stmt(c, "INSERT INTO t(b) VALUES (x'00')", nullptr) != SQLITE_READONLY) return 11;
    if (kiv_sqlite_last_error_code(c) != SQLITE_READONLY) return 12;
    if (kiv_sqlite_prepare(c, "DELETE FROM t") != SQLITE_OK) return 13;
    if (kiv_sqlite_step(c) != SQLITE_READONLY) return 14;
    kiv_sqlite_finalize(c);
    if (kiv_sqlite_prepare(c, "SELECT count(*) FROM t") != SQLITE_OK || kiv_sqlite_step(c) != SQLITE_ROW) return 15;
    if (kiv_sqlite_column_int(c, 0) != 200) return 16;
    kiv_sqlite_finalize(c);
    kiv_sqlite_close(c);
    return 0;
}

// A file without write permission: reads work, writes give SQLITE_READONLY, the file is
// unchanged. Root ignores file permissions, so then the checks run in a child that gives its
// privileges up first.
TEST_F(HostileFiles, ReadOnlyFileRefusesWrites) {
    const std::string path = dir.file("read_only.db");
    make_database(path);
    const std::string before = read_file(path);
    ASSERT_EQ(::chmod(path.c_str(), 0444), 0);
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    int status = 0;
    if (::geteuid() != 0) {
        status = write_to_read_only(path);
    } else {
        std::cout.flush();
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
            ::_exit(write_to_read_only(path));
        }
        int wait_status = 0;
        ASSERT_EQ(::waitpid(child, &wait_status, 0), child);
        ASSERT_TRUE(WIFEXITED(wait_status));
        status = WEXITSTATUS(wait_status);
    }
    EXPECT_EQ(status, 0) << "failed check number " << status;
    EXPECT_EQ(read_file(path), before);
    EXPECT_FALSE(exists(path + "-journal"));
    ::chmod(path.c_str(), 0644);
}

}  // namespace
