#include "kiv_database/database_service.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "framework/kiv_thread_service.h"
#include "kiv_database/kiv_sqlite.h"

namespace {

// Process-wide state that is never destroyed: a framework may run work late in exit, on a
// worker that outlives the statics, or keep the library's jobs after it is unloaded, and such
// work must never meet destroyed state. A forked child starts afresh (below).
template <class T>
class no_destructor {
public:
    no_destructor() { new (bytes_) T(); }
    T* operator->() { return std::launder(reinterpret_cast<T*>(bytes_)); }
    // The parent's state is left as it was: releasing it could run SQLite or framework code
    // that is not fork-safe, on state another thread of the parent was changing. Its bytes stay
    // reachable (for leak checkers), and fresh state, locks included, takes its place.
    void start_afresh() {
        std::memcpy(kept_, bytes_, sizeof(T));
        new (bytes_) T();
    }

private:
    alignas(T) unsigned char bytes_[sizeof(T)]{};
    alignas(T) unsigned char kept_[sizeof(T)]{};
};

// A job handed over with kiv_database_exec, shared by the thread service's copies of it. Listed
// from hand-over until the thread service lets go of it, so that the exit can run what the
// framework has not.
struct queued_job {
    std::function<void()> function;  // empty once taken to run
    bool destroy_job = false;        // the library's own: run at exit even when queued late
    unsigned long long seq = 0;
    queued_job* prev = nullptr;
    queued_job* next = nullptr;
    ~queued_job();
};

struct service_state {
    // Guards database_service, shutdown_requested and database_objects. Never held together
    // with an object mutex or the registry's lock.
    std::mutex database_mutex;
    boost::shared_ptr<_kiv_thread_service> database_service;
    bool shutdown_requested = false;
    std::vector<boost::shared_ptr<_kiv_object>> database_objects;

    // Guards the registry map, and the statement of a registered connection while a lookup or
    // its destroy job releases it. Never held together with database_mutex or an object mutex.
    std::mutex registry_mutex;
    std::map<std::string, boost::shared_ptr<_kiv_sqlite>> sqlite_registry;

    // Guards the work below; a leaf: nothing else is locked or called while it is held.
    std::mutex work_mutex;
    std::condition_variable work_done;  // for the exit, waiting for work on other threads
    queued_job* first = nullptr;        // queued jobs, oldest first
    queued_job* last = nullptr;
    unsigned long long next_seq = 0;
    std::atomic<int> running{0};                             // forwarded functions running now, on any thread
    std::vector<std::shared_ptr<queued_job>> left_for_exit;  // skipped elsewhere, kept for the exit
};
// NOLINTNEXTLINE(cert-err58-cpp): empty containers and locks, nothing allocated
no_destructor<service_state> state;

// Whether the stop callback has printed for the current service: at exit, a finish that the
// framework brings about on its own (no handshake) prints nothing.
std::atomic<bool> handshake_stopped{false};
// Set once, by the exit: from then on only the exiting thread runs the library's work.
std::atomic<bool> exiting{false};
thread_local bool exiting_here = false;
bool exit_step_registered = false;  // under database_mutex; a forked child inherits it

// Forwarded functions this thread is running (jobs may nest: run_once inside a job).
thread_local int running_here = 0;

void unlist(queued_job& job) {
    (job.prev != nullptr ? job.prev->next : state->first) = job.next;
    (job.next != nullptr ? job.next->prev : state->last) = job.prev;
}

queued_job::~queued_job() {
    const std::lock_guard<std::mutex> guard(state->work_mutex);
    if (prev != nullptr || state->first == this) unlist(*this);  // not when listing it failed
}

// database_mutex around a call into the thread service. What the thread service destroys of the
// caller's meanwhile (a core may destroy cleared, replaced or refused work right inside the call)
// is held back and dies after the unlock: its destructor may call back into the library (a
// host's guard calling kiv_sqlite_destroy).
struct service_lock;
thread_local service_lock* current_service_lock = nullptr;

struct service_lock {
    // A call lets go of one function or so (cleared, refused, replaced); slots allocate nothing,
    // so that a destructor can use them. Members go in reverse: these after the unlock.
    std::array<std::shared_ptr<void>, 4> held_back;
    std::size_t held = 0;
    std::unique_lock<std::mutex> lock{state->database_mutex};
    service_lock() { current_service_lock = this; }
    ~service_lock() { current_service_lock = nullptr; }
};

// Counts a forwarded function as running while it runs (and dies), for the exit's wait: the
// count goes up before `exiting` is read, and the exit sets `exiting` before it reads the count,
// so one of them sees the other. Once the process is exiting, work elsewhere is skipped.
class running_scope {
public:
    running_scope() {
        ++state->running;
        ++running_here;
        if (exiting && !exiting_here) leave();
    }
    running_scope(const running_scope&) = delete;
    running_scope& operator=(const running_scope&) = delete;
    ~running_scope() {
        if (admitted_) leave();
    }
    bool admitted() const { return admitted_; }

private:
    void leave() {
        admitted_ = false;
        --running_here;
        --state->running;
        if (!exiting) return;
        const std::lock_guard<std::mutex> guard(state->work_mutex);
        state->work_done.notify_all();
    }
    bool admitted_ = true;
};

// The thread service's copy of a caller's function, shared among the copies it makes. A copy
// that dies inside a call into the thread service hands its share to the library's lock, which
// drops it after the unlock (service_lock).
template <class Shared>
class shared_work {
public:
    explicit shared_work(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
    shared_work(const shared_work&) = default;
    shared_work(shared_work&&) noexcept = default;  // a moved-from copy holds nothing back
    shared_work& operator=(const shared_work&) = default;
    shared_work& operator=(shared_work&&) noexcept = default;
    ~shared_work() {
        service_lock* const lock = current_service_lock;
        if (lock != nullptr && shared_ && lock->held < lock->held_back.size())
            lock->held_back[lock->held++] = std::move(shared_);
    }

protected:
    std::shared_ptr<Shared> shared_;
};

// A timeout's job or an interval's callback: runs where the thread service runs it.
template <class R>
class forwarded_timer : public shared_work<std::function<R()>> {
public:
    using shared_work<std::function<R()>>::shared_work;
    R operator()() const {
        const running_scope running;
        if (!running.admitted()) return R(true);  // skipped at exit; an interval keeps its timer
        return (*this->shared_)();
    }
};

// A job of kiv_database_exec: taken off the list when it starts, so that it runs once, whether
// the thread service or the exit runs it.
class forwarded_job : public shared_work<queued_job> {
public:
    using shared_work<queued_job>::shared_work;
    void operator()() const {
        const running_scope running;
        if (!running.admitted()) return leave_for_exit();
        // No lock: the exit takes queued functions only once nothing runs elsewhere.
        std::function<void()> work;
        work.swap(shared_->function);  // stays empty when the exit ran it already
        if (work) work();
    }  // the function dies here, still counted as running; the job leaves the list as it dies

private:
    // The exiting thread runs it: kept from dying with the thread service's copies.
    void leave_for_exit() const {
        const std::lock_guard<std::mutex> guard(state->work_mutex);
        if (!shared_->function) return;  // run already
        try {
            state->left_for_exit.push_back(shared_);
        } catch (const std::bad_alloc&) {  // lost, as it would be on a core that drops it
        }
    }
};

// Lists a new job; it leaves the list when the thread service lets go of
// every copy unrun.
std::function<void()> forward_job(std::function<void()>&& function, bool destroy_job) {
    if (!function) return {};  // an empty function is the thread service's to handle
    auto job = std::make_shared<queued_job>();
    job->function = std::move(function);
    job->destroy_job = destroy_job;
    const std::lock_guard<std::mutex> guard(state->work_mutex);
    job->seq = state->next_seq++;
    job->prev = state->last;
    (state->last != nullptr ? state->last->next : state->first) = job.get();
    state->last = job.get();
    return forwarded_job(std::move(job));
}

template <class R>
std::function<R()> forward_timer(std::function<R()>&& function) {
    if (!function) return {};
    return forwarded_timer<R>(std::make_shared<std::function<R()>>(std::move(function)));
}

// At exit, work must neither hang the process nor run on state that is gone. The library waits
// only for what it can see finishing: its work running on other threads. Then it runs, on the
// exiting thread and in order, the jobs queued before exit (and destroy jobs they queue), for a
// framework that has no worker to run them or is asked to exit from its worker. From then on the
// library's work runs nowhere else. The service is not stopped: that is the framework's.
void run_queued_work_at_exit() {
    if (exiting.exchange(true)) return;
    exiting_here = true;
    std::unique_lock<std::mutex> lock(state->work_mutex);
    const unsigned long long queued_before = state->next_seq;
    state->work_done.wait(lock, [] { return state->running <= running_here; });
    for (queued_job* job = state->first; job != nullptr; job = state->first) {
        while (job != nullptr && (!job->function || (job->seq >= queued_before && !job->destroy_job))) job = job->next;
        if (job == nullptr) break;
        std::function<void()> work;
        work.swap(job->function);  // the job stays listed, empty, until it dies
        lock.unlock();
        ++running_here;
        try {
            work();
            work = nullptr;
        } catch (...) {  // the framework would report it; at exit there is no one to tell
        }
        --running_here;
        lock.lock();
    }
}

// A forked child starts as if the library had just been loaded.
// NOLINTNEXTLINE(cert-err58-cpp): a C function, it does not throw
const int fork_handler = pthread_atfork(nullptr, nullptr, [] {
    state.start_afresh();
    handshake_stopped = false;
    exiting = false;
});

void service_line(const char* text) { std::cout << text << std::endl; }

void on_service_stopped(const boost::shared_ptr<_kiv_thread_service>&) {
    handshake_stopped = true;
    service_line("DATABASE THREAD SERVICE STOPPED");
}

void on_service_finished(const boost::shared_ptr<_kiv_thread_service>&, int) {
    if (!exiting || handshake_stopped) service_line("DATABASE SERVICE DONE");
    boost::shared_ptr<_kiv_thread_service> released;  // dropped after the lock
    const std::lock_guard<std::mutex> guard(state->database_mutex);
    released.swap(state->database_service);
}

// A join stops the service at once when no connection object is alive; otherwise the removal
// that empties the live-object list stops it (kiv_database_unref).
bool on_join_requested(const boost::shared_ptr<_kiv_thread_service>&, int) {
    service_line("DATABASE SERVICE SHOT DONW REQUEST");
    const service_lock guard;
    state->shutdown_requested = true;
    if (state->database_objects.empty()) kiv_thread_service_stop(state->database_service, on_service_stopped);
    return true;
}

// Called with database_mutex held. The exit step is registered after the thread service has
// been created, so it runs before a framework's own exit step registered then.
void create_service() {
    if (state->database_service) return;
    state->database_service = kiv_thread_service_new("database");
    handshake_stopped = false;
    kiv_thread_service_on_finished(state->database_service, on_service_finished);
    kiv_thread_service_set_join_handler(state->database_service, on_join_requested);
    if (!std::exchange(exit_step_registered, true)) std::atexit(run_queued_work_at_exit);
}

// The scheduling functions hold database_mutex across the forwarding call, so that they never
// see the handle half reset by the finish handler. `forward` gets its own copy of the handle.
template <class Forward>
auto with_service(Forward&& forward) {
    const service_lock guard;
    return forward(state->database_service);
}

auto find_object(const _kiv_object* object) {
    return std::find_if(state->database_objects.begin(), state->database_objects.end(),
                        [object](const boost::shared_ptr<_kiv_object>& entry) { return entry.get() == object; });
}

void exec_job(std::function<void()> job, std::string file, int line, bool destroy_job) {
    with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        kiv_thread_service_exec(std::move(service), forward_job(std::move(job), destroy_job), std::move(file), line);
    });
}

}  // namespace

void kiv_database_init() {
    const service_lock guard;
    create_service();
}

// --- Work scheduling ---

void kiv_database_exec(std::function<void()> job, std::string file, int line) {
    exec_job(std::move(job), std::move(file), line, false);
}

void kiv_database_exec_destroy_job(std::function<void()> job, std::string file, int line) {
    exec_job(std::move(job), std::move(file), line, true);
}

unsigned long kiv_database_set_timeout(std::function<void()> job, unsigned long delay, std::string file, int line) {
    return with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        return kiv_thread_service_set_timeout(std::move(service), forward_timer(std::move(job)), delay, std::move(file),
                                              line);
    });
}

unsigned long kiv_database_set_interval(std::function<bool()> callback, unsigned long interval, std::string file,
                                        int line) {
    return with_service([&](boost::shared_ptr<_kiv_thread_service> service) {
        return kiv_thread_service_set_interval(std::move(service), forward_timer(std::move(callback)), interval,
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
        const std::lock_guard<std::mutex> guard(state->database_mutex);
        service = state->database_service;
    }
    return kiv_thread_service_run_once(std::move(service));
}

// --- Live-object tracking ---

void kiv_database_ref(boost::shared_ptr<_kiv_object> object) {
    const std::lock_guard<std::mutex> guard(state->database_mutex);
    if (find_object(object.get()) == state->database_objects.end())
        state->database_objects.push_back(std::move(object));
}

void kiv_database_unref(const boost::shared_ptr<_kiv_object>& object) {
    // The caller's handle keeps the object alive, so no destructor runs under the lock.
    const service_lock guard;
    const auto entry = find_object(object.get());
    if (entry == state->database_objects.end()) return;
    state->database_objects.erase(entry);
    std::cout << "left objects in database reference count: " << state->database_objects.size() << std::endl;
    if (state->shutdown_requested && state->database_objects.empty())
        kiv_thread_service_stop(state->database_service, on_service_stopped);
}

// --- Named-connection registry ---

void kiv_database_register_sqlite(const boost::shared_ptr<_kiv_sqlite>& connection) {
    std::string name = connection->get_name();
    const std::lock_guard<std::mutex> guard(state->registry_mutex);
    state->sqlite_registry.try_emplace(std::move(name), connection);  // the first one stays
}

void kiv_database_unregister_sqlite(const boost::shared_ptr<_kiv_sqlite>& connection) {
    const std::string name = connection->get_name();
    boost::shared_ptr<_kiv_sqlite> removed;  // released after the lock
    const std::lock_guard<std::mutex> guard(state->registry_mutex);
    const auto entry = state->sqlite_registry.find(name);
    if (entry == state->sqlite_registry.end()) return;
    removed.swap(entry->second);
    state->sqlite_registry.erase(entry);
}

boost::shared_ptr<_kiv_sqlite> kiv_database_get_sqlite(std::string name) {
    boost::shared_ptr<_kiv_sqlite> found;
    {
        const std::lock_guard<std::mutex> guard(state->registry_mutex);
        const auto entry = state->sqlite_registry.find(name);
        if (entry == state->sqlite_registry.end()) return {};
        found = entry->second;
    }
    if (!found->is_opened()) {
        boost::shared_ptr<_kiv_sqlite> stale;  // released after the lock
        const std::lock_guard<std::mutex> guard(state->registry_mutex);
        const auto entry = state->sqlite_registry.find(name);
        // Another thread may have re-entered the name meanwhile: remove only this object's entry.
        if (entry != state->sqlite_registry.end() && entry->second == found) {
            stale.swap(entry->second);
            state->sqlite_registry.erase(entry);
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
    const std::lock_guard<std::mutex> guard(state->registry_mutex);
    connection.finalize();
}
