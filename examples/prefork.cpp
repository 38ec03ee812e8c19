// A pre-forking program: the parent forks its children before it starts any thread (and before
// it calls the library); each child initializes the library, works on a database file of its
// own and joins the service before it exits. The parent then uses the library itself to check
// what each child committed. Each child's exit status tells the parent whether it succeeded.
// Works on database files in the current directory, removed at the end.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

constexpr int kChildren = 3;
constexpr int kRows = 100;

std::string file_of(const std::string& dir, int child) { return dir + "prefork_" + std::to_string(child) + ".db"; }

// A child's whole life with the library: init, its own file, inserts, destroy, join.
int child_main(const std::string& path, int child) {
    kiv_database_init();
    const kiv_sqlite_handle db = kiv_sqlite_new(path, "child");
    bool ok =
        kiv_sqlite_open(db) == SQLITE_OK &&
        kiv_sqlite_sql_stmt(db, "DROP TABLE IF EXISTS t; CREATE TABLE t(child, n); BEGIN", nullptr) == SQLITE_OK &&
        kiv_sqlite_prepare(db, "INSERT INTO t VALUES (?1, ?2)") == SQLITE_OK;
    for (int i = 0; ok && i < kRows; ++i) {
        ok = kiv_sqlite_bind_int(db, 1, child) == SQLITE_OK && kiv_sqlite_bind_int(db, 2, i) == SQLITE_OK &&
             kiv_sqlite_step(db) == SQLITE_DONE;
        kiv_sqlite_reset(db);
    }
    kiv_sqlite_finalize(db);
    ok = kiv_sqlite_sql_stmt(db, "COMMIT", nullptr) == SQLITE_OK && ok;
    kiv_sqlite_destroy(db, __FILE__, __LINE__);
    kiv_thread_service_join_all(0);
    return ok && !kiv_thread_service_find("database") ? 0 : 1;
}

int count_rows(const std::string& path) {
    const kiv_sqlite_handle db = kiv_sqlite_new(path, "check");
    int rows = -1;
    if (kiv_sqlite_try_open(db) == SQLITE_OK && kiv_sqlite_prepare(db, "SELECT count(*) FROM t") == SQLITE_OK &&
        kiv_sqlite_step(db) == SQLITE_ROW)
        rows = kiv_sqlite_column_int(db, 0);
    kiv_sqlite_finalize(db);
    kiv_sqlite_destroy(db, __FILE__, __LINE__);
    return rows;
}

}  // namespace

int main() {
    const std::string dir;
    std::cout.flush();  // nothing buffered may be written twice
    std::vector<pid_t> children;
    for (int child = 0; child < kChildren; ++child) {
        const pid_t pid = fork();
        if (pid < 0) return 1;
        if (pid == 0) {
            const int status = child_main(file_of(dir, child), child);
            std::cout.flush();
            _exit(status);  // leaves the parent's atexit work to the parent
        }
        children.push_back(pid);
    }
    bool ok = true;
    for (int child = 0; child < kChildren; ++child) {
        int status = 0;
        const bool exited =
            waitpid(children[child], &status, 0) == children[child] && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        ok = exited && ok;
    }
    // The parent starts the library only now, after every fork.
    kiv_database_init();
    for (int child = 0; child < kChildren; ++child) {
        const int rows = count_rows(file_of(dir, child));
        std::cout << "child " << child << ": " << rows << " rows in " << file_of(dir, child) << std::endl;
        ok = rows == kRows && ok;
        std::remove(file_of(dir, child).c_str());
    }
    kiv_thread_service_join_all(0);
    ok = !kiv_thread_service_find("database") && ok;
    std::cout << (ok ? "every child succeeded" : "a child FAILED") << std::endl;
    return ok ? 0 : 1;
}
