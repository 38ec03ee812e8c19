// The library as a plug-in: loaded with dlopen, unloaded in the states a host leaves it in.
//   cycles   200 x load, init, open, query, destroy, join, unload
//   running  unload with the service running; load again, one cycle, join
//   open     a host with a service of its own: unload with the database service running and an
//            open object (statement stepped) never destroyed, then exit
// Exit status 0 when every step did what it should (a failed one aborts); the sanitizers watch the rest.

#include <dlfcn.h>

#include <cstdlib>
#include <string>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

// The host links none of the library's functions: it resolves them by their mangled names (a
// missing one is a null call, which fails the run).
#define KIV_HANDLE "N5boost10shared_ptrI11_kiv_sqliteEE"
#define KIV_STRING "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
#define KIV_RESOLVE(name, function, mangled) \
    decltype(&function) name = reinterpret_cast<decltype(&function)>(dlsym(handle, mangled))

struct library {
    void* const handle = dlopen(KIV_DATABASE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    KIV_RESOLVE(init, kiv_database_init, "_Z17kiv_database_initv");
    KIV_RESOLVE(create, kiv_sqlite_new, "_Z14kiv_sqlite_new" KIV_STRING "S4_");
    KIV_RESOLVE(open, kiv_sqlite_open, "_Z15kiv_sqlite_open" KIV_HANDLE);
    KIV_RESOLVE(prepare, kiv_sqlite_prepare, "_Z18kiv_sqlite_prepare" KIV_HANDLE KIV_STRING);
    KIV_RESOLVE(step, kiv_sqlite_step, "_Z15kiv_sqlite_step" KIV_HANDLE);
    KIV_RESOLVE(destroy, kiv_sqlite_destroy, "_Z18kiv_sqlite_destroy" KIV_HANDLE KIV_STRING "i");

    kiv_sqlite_handle query() {
        init();
        kiv_sqlite_handle db = create(":memory:", "unload");
        if (open(db) != SQLITE_OK || prepare(db, "SELECT 1") != SQLITE_OK || step(db) != SQLITE_ROW) std::abort();
        return db;
    }
    void cycle() {
        destroy(query(), __FILE__, __LINE__);
        kiv_thread_service_join_all(0);
    }
};

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "open") kiv_thread_service_new("host");  // the framework then tears down after us
    for (int i = 0; i < (mode == "cycles" ? 200 : 1); ++i) {
        library kiv;
        if (mode == "cycles") kiv.cycle();
        if (mode == "running") kiv.init();   // left running
        if (mode == "open") kiv.query();     // left open, its statement stepped, never destroyed
        if (dlclose(kiv.handle) != 0) std::abort();
    }
    if (mode == "running") library().cycle();  // loaded again: the same library and its service
}
