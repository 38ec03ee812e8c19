// The library as a plug-in: loaded with dlopen, unloaded in the states a host leaves it in.
//   cycles   200 x load, init, open, query, destroy, join, unload
//   running  unload with the service running; load again, one cycle, join
//   open     a host with a service of its own: unload with the database service running and an
//            open object (statement stepped) never destroyed, then exit
// Exit status 0 when every step did what it should; the sanitizers watch the rest.

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "framework/kiv_thread_service.h"
#include "kiv_database/database_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "failed: %s\n", what);
    std::exit(1);
}

// The host links none of the library's functions: it resolves them by their mangled names.
template <class F>
F* resolve(void* library, const char* mangled) {
    void* const symbol = dlsym(library, mangled);
    check(symbol != nullptr, mangled);
    return reinterpret_cast<F*>(symbol);
}

void* load() {
    void* const library = dlopen(KIV_DATABASE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    check(library != nullptr, library ? "" : dlerror());
    return library;
}

#define KIV_SQLITE_ARG "N5boost10shared_ptrI11_kiv_sqliteEE"
#define KIV_STRING_ARG "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"

struct library {
    void* handle = load();
    decltype(&kiv_database_init) init = resolve<decltype(kiv_database_init)>(handle, "_Z17kiv_database_initv");
    decltype(&kiv_sqlite_new) create =
        resolve<decltype(kiv_sqlite_new)>(handle, "_Z14kiv_sqlite_new" KIV_STRING_ARG "S4_");
    decltype(&kiv_sqlite_open) open = resolve<decltype(kiv_sqlite_open)>(handle, "_Z15kiv_sqlite_open" KIV_SQLITE_ARG);
    decltype(&kiv_sqlite_prepare) prepare =
        resolve<decltype(kiv_sqlite_prepare)>(handle, "_Z18kiv_sqlite_prepare" KIV_SQLITE_ARG KIV_STRING_ARG);
    decltype(&kiv_sqlite_step) step = resolve<decltype(kiv_sqlite_step)>(handle, "_Z15kiv_sqlite_step" KIV_SQLITE_ARG);
    decltype(&kiv_sqlite_column_int) column_int =
        resolve<decltype(kiv_sqlite_column_int)>(handle, "_Z21kiv_sqlite_column_int" KIV_SQLITE_ARG "i");
    decltype(&kiv_sqlite_destroy) destroy =
        resolve<decltype(kiv_sqlite_destroy)>(handle, "_Z18kiv_sqlite_destroy" KIV_SQLITE_ARG KIV_STRING_ARG "i");

    void unload() {
        if (dlclose(handle) != 0) check(false, dlerror());
    }
    kiv_sqlite_handle query() {
        init();
        kiv_sqlite_handle db = create(":memory:", "unload");
        check(open(db) == SQLITE_OK && prepare(db, "SELECT 42") == SQLITE_OK, "open and prepare");
        check(step(db) == SQLITE_ROW && column_int(db, 0) == 42, "query");
        return db;
    }
    void cycle() {
        destroy(query(), __FILE__, __LINE__);
        kiv_thread_service_join_all(0);
        check(!kiv_thread_service_find("database"), "the service finished");
    }
};

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "cycles") {
        for (int i = 0; i < 200; ++i) {
            library kiv;
            kiv.cycle();
            kiv.unload();
        }
    } else if (mode == "running") {
        library first;
        first.init();
        first.unload();
        library again;
        again.cycle();
        again.unload();
    } else if (mode == "open") {
        kiv_thread_service_new("host");  // the framework's teardown at exit then comes after ours
        library kiv;
        kiv.query();
        kiv.unload();
    } else {
        return 2;
    }
    return 0;
}
