// Lookup by name: code that has no handle finds an open connection by the name it was created
// with, from any thread. The lookup finalizes the connection's statement, so whoever held one
// loses it and every lookup costs a new prepare: several times the instructions of a held
// statement (README, Benchmarks). Only one thread at a time may use what it finds: here the
// threads take turns.
// Works on lookup_by_name.db in the current directory, removed at the end.
#include <cstdio>
#include <cstring>
#include <future>
#include <iostream>
#include <string>
#include <thread>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

// What a module without a handle does: look the connection up, prepare, insert, finalize.
bool insert_by_name(const char* item) {
    const kiv_sqlite_handle db = kiv_database_get_sqlite("inventory");
    if (!db) return false;
    // The slot is empty whatever the owner had prepared: the lookup finalized it.
    bool ok = kiv_sqlite_prepare(db, "INSERT INTO items VALUES (?1)") == SQLITE_OK;
    ok = ok && kiv_sqlite_bind_text(db, 1, item, std::strlen(item)) == SQLITE_OK;
    ok = ok && kiv_sqlite_step(db) == SQLITE_DONE;
    kiv_sqlite_finalize(db);
    return ok;
}

}  // namespace

int main() {
    const std::string path = "lookup_by_name.db";
    kiv_database_init();
    const kiv_sqlite_handle owner = kiv_sqlite_new(path, "inventory");
    bool ok = kiv_sqlite_open(owner) == SQLITE_OK &&
              kiv_sqlite_sql_stmt(owner, "DROP TABLE IF EXISTS items; CREATE TABLE items(name)", nullptr) == SQLITE_OK;
    // The owner prepares a statement, then lets others use the connection by name.
    ok = ok && kiv_sqlite_prepare(owner, "SELECT count(*) FROM items") == SQLITE_OK;

    bool from_thread = false;
    std::thread other([&from_thread] { from_thread = insert_by_name("from a thread"); });
    other.join();  // taking turns: the owner waits until the thread is done with the connection
    std::promise<bool> from_job;
    kiv_database_exec([&from_job] { from_job.set_value(insert_by_name("from a job on the worker")); }, __FILE__,
                      __LINE__);
    const bool in_job = from_job.get_future().get();
    const bool unknown_empty = !kiv_database_get_sqlite("no such name");
    std::cout << "lookup from a thread: " << (from_thread ? "inserted" : "FAILED") << std::endl;
    std::cout << "lookup from a job: " << (in_job ? "inserted" : "FAILED") << std::endl;
    std::cout << "lookup of an unknown name: " << (unknown_empty ? "empty handle" : "FAILED") << std::endl;

    // The owner's SELECT was finalized by the first lookup: it prepares again before counting.
    int rows = -1;
    if (kiv_sqlite_prepare(owner, "SELECT count(*) FROM items") == SQLITE_OK && kiv_sqlite_step(owner) == SQLITE_ROW)
        rows = kiv_sqlite_column_int(owner, 0);
    kiv_sqlite_finalize(owner);
    std::cout << "rows: " << rows << std::endl;
    kiv_sqlite_destroy(owner, __FILE__, __LINE__);
    kiv_thread_service_join_all(0);
    const bool joined = !kiv_thread_service_find("database");  // the join returned: the service is gone
    std::remove(path.c_str());
    return joined && ok && from_thread && in_job && unknown_empty && rows == 2 ? 0 : 1;
}
