#include "kiv_database/database_service.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
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
// Signalled by the finish handler, for the wait at exit.
std::condition_variable service_finished;

// Set while this thread runs a job or timer that the library forwarded.
thread_local bool in_forwarded_job = false;

// database_mutex around a call into the thread service. What the thread service destroys of the
// caller's meanwhile (a core may destroy cleared, replaced or refused work right inside the call)
// is held back and dies after the unlock: its destructor may call back into the library (a
// host's guard calling kiv_sqlite_destroy).
struct service_lock;
thread_local service_lock* current_service_lock = nullptr;

struct service_lock {
    std::vector<std::shared_ptr<void>> held_back;  // members go in reverse: after the unlock
    std::unique_lock<std::mutex> lock{database_mutex};
    service_lock() { current_service_lock = this; }
    ~service_lock() { current_service_lock = nullptr; }
};

// Destroyed first at unload, which -z nodelete puts at process exit. A service still running
// then (no join) would run destroy jobs and the finish handler on the state above after it is
// gone: stop it and wait for its finish handler. Not from inside one of its jobs, which would
// wait for itself; a forked child starts afresh (below), so this is always its own service.
struct service_drain {
    ~service_drain() {
        service_lock guard;
        if (!database_service || in_forwarded_job) return;
        kiv_thread_service_stop(database_service, [](const boost::shared_ptr<_kiv_thread_service>&) {});
        service_finished.wait(guard.lock, [] { return !database_service; });
    }
} drain_at_unload;

// A forked child starts as if the library had just been loaded. The parent's service, objects
// and registry are its own: releasing them here could run SQLite or framework code that is not
// fork-safe, on state another thread of the parent may have been changing. So they are left
// alone, their bytes kept reachable (for leak checkers), and fresh state takes their place. The
// locks are made anew too: the thread that held one at the fork does not exist here.
template <class T>
void start_afresh(T& value) {
    alignas(T) static unsigned char kept[sizeof(T)];
    std::memcpy(kept, static_cast<void*>(&value), sizeof(T));
    new (&value) T();
}

// NOLINTNEXTLINE(cert-err58-cpp): a C function, it does not throw
const int fork_handler = pthread_atfork(nullptr, nullptr, [] {
    start_afresh(database_service);
    start_afresh(database_objects);
    start_afresh(sqlite_registry);
    new (&database_mutex) std::mutex();
    new (&registry_mutex) std::mutex();
    shutdown_requested = false;
});

void service_line(const char* text) { std::cout << text << std::endl; }

void on_service_stopped(const boost::shared_ptr<_kiv_thread_service>&) {
    service_line("DATABASE THREAD SERVICE STOPPED");
}

void on_service_finished(const boost::shared_ptr<_kiv_thread_service>&, int) {
    service_line("DATABASE SERVICE DONE");
    boost::shared_ptr<_kiv_thread_service> released;  // dropped after the lock
    std::lock_guard<std::mutex> guard(database_mutex);
    released.swap(database_service);
    service_finished.notify_all();
}

// A join stops the service at once when no connection object is alive; otherwise the removal
// that empties the live-object list stops it (kiv_database_unref).
bool on_join_requested(const boost::shared_ptr<_kiv_thread_service>&, int) {
    service_line("DATABASE SERVICE SHOT DONW REQUEST");
    service_lock guard;
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
    service_lock guard;
    return forward(database_service);
}

// Marks the thread as running a forwarded job, for the wait at exit; nests (run_once in a job).
struct job_marker {
    const bool outer = std::exchange(in_forwarded_job, true);
    ~job_marker() { in_forwarded_job = outer; }
};

// The thread service's copy of a caller's function, shared among the copies it makes. A copy
// that dies inside a call into the thread service hands its share to the library's lock, which
// drops it after the unlock (service_lock).
template <class R>
class forwarded {
public:
    explicit forwarded(std::function<R()>&& function)
        : function_(std::make_shared<std::function<R()>>(std::move(function))) {}
    forwarded(const forwarded&) = default;
    forwarded(forwarded&&) noexcept = default;  // a moved-from copy holds nothing back
    forwarded& operator=(const forwarded&) = default;
    forwarded& operator=(forwarded&&) noexcept = default;
    ~forwarded() {
        if (current_service_lock != nullptr && function_)
            current_service_lock->held_back.push_back(std::move(function_));
    }
    R operator()() const {
        const job_marker marker;
        return (*function_)();
    }

private:
    std::shared_ptr<std::function<R()>> function_;
};

// Empty for an empty function, which the thread service handles.
template <class R>
std::function<R()> forward_function(std::function<R()>&& function) {
    if (!function) return {};
    return forwarded<R>(std::move(function));
}

auto find_object(const _kiv_object* object) {
    return std::find_if(database_objects.begin(), database_objects.end(),
                        [object](const boost::shared_ptr<_kiv_object>& entry) { return entry.get() == object; });
}

}  // namespace

void kiv_database_init() {
    service_lock guard;
    create_service();
}

// --- Work scheduling ---

void kiv_database_exec(std::function<void()> job, std::string file, int line) {
    with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        kiv_thread_service_exec(std::move(service), forward_function(std::move(job)), std::move(file), line);
    });
}

unsigned long kiv_database_set_timeout(std::function<void()> job, unsigned long delay, std::string file, int line) {
    return with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        return kiv_thread_service_set_timeout(std::move(service), forward_function(std::move(job)), delay,
                                              std::move(file), line);
    });
}

unsigned long kiv_database_set_interval(std::function<bool()> callback, unsigned long interval, std::string file,
                                        int line) {
    return with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        return kiv_thread_service_set_interval(std::move(service), forward_function(std::move(callback)), interval,
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

void kiv_database_unref(const boost::shared_ptr<_kiv_object>& object) {
    // The caller's handle keeps the object alive, so no destructor runs under the lock.
    service_lock guard;
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
