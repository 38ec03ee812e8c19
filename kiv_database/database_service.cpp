#include "kiv_database/database_service.h"

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "framework/kiv_thread_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

// Process-wide state, constructed at load in this order and destroyed in reverse at unload.
boost::shared_ptr<_kiv_thread_service> database_service;
std::vector<boost::shared_ptr<_kiv_object>> database_objects;
std::map<std::string, boost::shared_ptr<_kiv_sqlite>> sqlite_registry;

// Guards database_service, shutdown_requested and database_objects. Never held together with
// an object mutex or the registry's lock.
std::mutex database_mutex;
bool shutdown_requested = false;
// Guards the registry map, and the statement of a registered connection while a lookup or its
// destroy job releases it. Never held together with database_mutex or an object mutex.
std::mutex registry_mutex;

// Destroyed first at unload, which -z nodelete puts at process exit. A service still running
// then (no join; the framework tears its services down after ours when the host created one
// before loading us) would run destroy jobs and the finish handler on the state above after it
// is gone: stop it and wait until it has finished. Nothing to do after a join.
struct service_drain {
    ~service_drain() {
        boost::shared_ptr<_kiv_thread_service> service;
        {
            std::lock_guard<std::mutex> guard(database_mutex);
            service = database_service;
        }
        if (!service) return;
        kiv_thread_service_stop(service, nullptr);
        kiv_thread_service_wait(service);  // returns at once when exit was called on the worker
    }
} drain_at_unload;

void service_line(const char* text) { std::cout << text << std::endl; }

void on_service_stopped(const boost::shared_ptr<_kiv_thread_service>&) {
    service_line("DATABASE THREAD SERVICE STOPPED");
}

void on_service_finished(const boost::shared_ptr<_kiv_thread_service>&, int) {
    service_line("DATABASE SERVICE DONE");
    boost::shared_ptr<_kiv_thread_service> released;  // dropped after the lock
    std::lock_guard<std::mutex> guard(database_mutex);
    released.swap(database_service);
}

// A join stops the service at once when no connection object is alive; otherwise the removal
// that empties the live-object list stops it (kiv_database_unref).
bool on_join_requested(const boost::shared_ptr<_kiv_thread_service>&, int) {
    service_line("DATABASE SERVICE SHOT DONW REQUEST");
    std::lock_guard<std::mutex> guard(database_mutex);
    shutdown_requested = true;
    if (database_objects.empty()) kiv_thread_service_stop(database_service, on_service_stopped);
    return true;
}

// Called with database_mutex held.
void create_service() {
    if (database_service) return;
    database_service = kiv_thread_service_new("database");
    kiv_thread_service_on_finished(database_service, on_service_finished);
    kiv_thread_service_set_join_handler(database_service, on_join_requested);
}

// The scheduling functions hold database_mutex across the forwarding call, so that they never
// see the handle half reset by the finish handler. `forward` gets its own copy of the handle.
template <class Forward>
auto with_service(Forward&& forward) {
    std::lock_guard<std::mutex> guard(database_mutex);
    return forward(database_service);
}

// The caller's function, shared between the library and the copy handed to the thread service.
// That copy may die inside the forwarding call, under database_mutex (a refused job), and a
// destructor of what the function holds may call back into the library (a host's guard calling
// kiv_sqlite_destroy). With the library's share dropped only after the lock, such a destructor
// runs there, or on the worker, never under the lock.
template <class R>
using shared_function = std::shared_ptr<std::function<R()>>;

template <class R>
shared_function<R> share(std::function<R()>&& function) {
    return std::make_shared<std::function<R()>>(std::move(function));
}

// The thread service's copy; empty for an empty function, which the thread service handles.
template <class R>
std::function<R()> forwarded(const shared_function<R>& function) {
    if (!*function) return {};
    return [function] { return (*function)(); };
}

auto find_object(const _kiv_object* object) {
    return std::find_if(database_objects.begin(), database_objects.end(),
                        [object](const boost::shared_ptr<_kiv_object>& entry) { return entry.get() == object; });
}

}  // namespace

void kiv_database_init() {
    std::lock_guard<std::mutex> guard(database_mutex);
    create_service();
}

// --- Work scheduling ---

// `own` is declared before the lock is taken, so it goes after the lock is released.
void kiv_database_exec(std::function<void()> job, std::string file, int line) {
    const shared_function<void> own = share(std::move(job));
    with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        kiv_thread_service_exec(std::move(service), forwarded(own), std::move(file), line);
    });
}

unsigned long kiv_database_set_timeout(std::function<void()> job, unsigned long delay, std::string file, int line) {
    const shared_function<void> own = share(std::move(job));
    return with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        return kiv_thread_service_set_timeout(std::move(service), forwarded(own), delay, std::move(file), line);
    });
}

unsigned long kiv_database_set_interval(std::function<bool()> callback, unsigned long interval, std::string file,
                                        int line) {
    const shared_function<bool> own = share(std::move(callback));
    return with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        return kiv_thread_service_set_interval(std::move(service), forwarded(own), interval, std::move(file), line);
    });
}

void kiv_database_clear_timeout(unsigned long timer_id) {
    with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        kiv_thread_service_clear_timeout(std::move(service), timer_id);
    });
}

void kiv_database_clear_interval(unsigned long timer_id) {
    with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        kiv_thread_service_clear_interval(std::move(service), timer_id);
    });
}

// Without the lock around the call: the jobs it runs (destroy jobs among them) take it.
int kiv_database_run_once() {
    boost::shared_ptr<_kiv_thread_service> service;
    {
        std::lock_guard<std::mutex> guard(database_mutex);
        service = database_service;
    }
    return kiv_thread_service_run_once(std::move(service));
}

// --- Live-object tracking ---

void kiv_database_ref(boost::shared_ptr<_kiv_object> object) {
    std::lock_guard<std::mutex> guard(database_mutex);
    if (find_object(object.get()) == database_objects.end()) database_objects.push_back(std::move(object));
}

void kiv_database_unref(const boost::shared_ptr<_kiv_object>& object) {
    // The caller's handle keeps the object alive, so no destructor runs under the lock.
    std::lock_guard<std::mutex> guard(database_mutex);
    const auto entry = find_object(object.get());
    if (entry == database_objects.end()) return;
    database_objects.erase(entry);
    std::cout << "left objects in database reference count: " << database_objects.size() << std::endl;
    if (shutdown_requested && database_objects.empty()) kiv_thread_service_stop(database_service, on_service_stopped);
}

// --- Named-connection registry ---

void kiv_database_register_sqlite(const boost::shared_ptr<_kiv_sqlite>& connection) {
    std::string name = connection->get_name();
    std::lock_guard<std::mutex> guard(registry_mutex);
    sqlite_registry.try_emplace(std::move(name), connection);  // the first one stays
}

void kiv_database_unregister_sqlite(const boost::shared_ptr<_kiv_sqlite>& connection) {
    const std::string name = connection->get_name();
    boost::shared_ptr<_kiv_sqlite> removed;  // released after the lock
    std::lock_guard<std::mutex> guard(registry_mutex);
    const auto entry = sqlite_registry.find(name);
    if (entry == sqlite_registry.end()) return;
    removed.swap(entry->second);
    sqlite_registry.erase(entry);
}

boost::shared_ptr<_kiv_sqlite> kiv_database_get_sqlite(std::string name) {
    boost::shared_ptr<_kiv_sqlite> found;
    {
        std::lock_guard<std::mutex> guard(registry_mutex);
        const auto entry = sqlite_registry.find(name);
        if (entry == sqlite_registry.end()) return {};
        found = entry->second;
    }
    if (!found->is_opened()) {
        boost::shared_ptr<_kiv_sqlite> stale;  // released after the lock
        std::lock_guard<std::mutex> guard(registry_mutex);
        const auto entry = sqlite_registry.find(name);
        // Another thread may have re-entered the name meanwhile: remove only this object's entry.
        if (entry != sqlite_registry.end() && entry->second == found) {
            stale.swap(entry->second);
            sqlite_registry.erase(entry);
        }
        return {};
    }
    // A destroyed object belongs to its job on the worker, which closes it.
    if (found->is_destroyed()) return {};
    kiv_database_release_statement(*found);
    return found;
}

// Two lookups of the same connection, or a lookup and the destroy job, may reach here at once:
// the registry's lock makes the statement go exactly once. finalize() takes no other lock.
void kiv_database_release_statement(_kiv_sqlite& connection) {
    std::lock_guard<std::mutex> guard(registry_mutex);
    connection.finalize();
}
