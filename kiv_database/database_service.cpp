#include "kiv_database/database_service.h"

#include <algorithm>
#include <iostream>
#include <map>
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
// Guards only the registry map's own reads and changes.
std::mutex registry_mutex;

void service_line(const char* text) { std::cout << text << std::endl; }

void on_service_stopped(boost::shared_ptr<_kiv_thread_service>) {
    service_line("DATABASE THREAD SERVICE STOPPED");
}

void on_service_finished(boost::shared_ptr<_kiv_thread_service>, int) {
    service_line("DATABASE SERVICE DONE");
    boost::shared_ptr<_kiv_thread_service> released;  // dropped after the lock
    std::lock_guard<std::mutex> guard(database_mutex);
    released.swap(database_service);
}

// A join stops the service at once when no connection object is alive; otherwise the removal
// that empties the live-object list stops it (kiv_database_unref).
bool on_join_requested(boost::shared_ptr<_kiv_thread_service>, int) {
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

void kiv_database_exec(std::function<void()> job, std::string file, int line) {
    with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        kiv_thread_service_exec(std::move(service), std::move(job), std::move(file), line);
    });
}

unsigned long kiv_database_set_timeout(std::function<void()> job, unsigned long delay, std::string file,
                                       int line) {
    return with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        return kiv_thread_service_set_timeout(std::move(service), std::move(job), delay, std::move(file), line);
    });
}

unsigned long kiv_database_set_interval(std::function<bool()> callback, unsigned long interval,
                                        std::string file, int line) {
    return with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        return kiv_thread_service_set_interval(std::move(service), std::move(callback), interval,
                                               std::move(file), line);
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

void kiv_database_unref(boost::shared_ptr<_kiv_object> object) {
    // The caller's handle keeps the object alive, so no destructor runs under the lock.
    std::lock_guard<std::mutex> guard(database_mutex);
    const auto entry = find_object(object.get());
    if (entry == database_objects.end()) return;
    database_objects.erase(entry);
    std::cout << "left objects in database reference count: " << database_objects.size() << std::endl;
    if (shutdown_requested && database_objects.empty())
        kiv_thread_service_stop(database_service, on_service_stopped);
}

// --- Named-connection registry ---

void kiv_database_register_sqlite(boost::shared_ptr<_kiv_sqlite> connection) {
    std::string name = connection->get_name();
    std::lock_guard<std::mutex> guard(registry_mutex);
    sqlite_registry.try_emplace(std::move(name), std::move(connection));  // the first one stays
}

void kiv_database_unregister_sqlite(boost::shared_ptr<_kiv_sqlite> connection) {
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
    // A destroyed object is closed by its job on the worker, which finalizes the statement
    // too: handing the object out now would have two threads releasing the same statement.
    if (found->is_destroyed()) return {};
    found->finalize();
    return found;
}
