// A host that commits numbered transactions until it is killed. Each transaction n inserts the
// rows (n, 0) .. (n, parts - 1); after COMMIT returned SQLITE_OK it reports "n\n" on stdout.
// usage: kiv_crash_writer <database> <journal mode>

#include <unistd.h>

#include <cstdio>
#include <string>

#include "kiv_database/kiv_sqlite.h"

namespace {

constexpr int parts = 5;
constexpr long max_commits = 1000000;  // a bound in case nobody kills us

bool report(long n) {
    const std::string line = std::to_string(n) + "\n";
    return ::write(STDOUT_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: kiv_crash_writer <database> <journal mode>\n");
        return 2;
    }
    const kiv_sqlite_handle db = kiv_sqlite_new(argv[1], "crash_writer");
    if (kiv_sqlite_open(db) != SQLITE_OK) return 3;
    const std::string setup = std::string("PRAGMA journal_mode=") + argv[2] +
                              "; CREATE TABLE IF NOT EXISTS commits(n INTEGER, part INTEGER, PRIMARY KEY(n, part));";
    if (kiv_sqlite_sql_stmt(db, setup.c_str(), nullptr) != SQLITE_OK) return 4;
    if (kiv_sqlite_prepare(db, "SELECT coalesce(max(n), 0) FROM commits") != SQLITE_OK ||
        kiv_sqlite_step(db) != SQLITE_ROW)
        return 5;
    const long first = kiv_sqlite_column_int64(db, 0) + 1;
    kiv_sqlite_finalize(db);
    if (kiv_sqlite_prepare(db, "INSERT INTO commits VALUES (?1, ?2)") != SQLITE_OK) return 6;

    for (long n = first; n < first + max_commits; ++n) {
        if (kiv_sqlite_sql_stmt(db, "BEGIN", nullptr) != SQLITE_OK) return 7;
        for (int part = 0; part < parts; ++part) {
            kiv_sqlite_bind_int64(db, 1, n);
            kiv_sqlite_bind_int(db, 2, part);
            if (kiv_sqlite_step(db) != SQLITE_DONE) return 8;
            kiv_sqlite_reset(db);
        }
        if (kiv_sqlite_sql_stmt(db, "COMMIT", nullptr) != SQLITE_OK) return 9;
        if (!report(n)) return 10;
    }
    return 0;
}
