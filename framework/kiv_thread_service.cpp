#include "framework/kiv_thread_service.h"

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <vector>

#include "framework/kiv_console.h"

namespace {

using clock_type = std::chrono::steady_clock;
// Deadline, then arming order: equal deadlines keep the order in which they were armed.
using timer_key = std::pair<clock_type::time_point, unsigned long long>;

// One counter for the whole process: an id kept from one service never names another's timer.
std::atomic<unsigned long> next_timer_id{1};

// One write of the whole line: the stream's own lock keeps it whole beside other threads' lines,
// and no lock of ours can be left held in a forked child.
void write_line(const std::string& line) { std::cout << line << std::flush; }

void warn(const char* text, const std::string& name) {
    write_line(kiv_framework_detail::warning_banner + (text + kiv_framework_detail::coloured(name)) + "\n");
}

bool null_handle(const kiv_thread_service_handle& service, const char* function) {
    if (!service) warn("null object supplied: ", function);
    return !service;
}

void report(const char* what, const std::string& where, int line, const char* reason) {
    const std::string at = line < 0 ? where : where + ":" + std::to_string(line);
    write_line(kiv_framework_detail::error_banner + ("exception in " + (what + at)) + ": " + reason + "\n");
}

// Runs `work`; whatever escapes it becomes one error line naming what it was and where it came
// from (`line` < 0: no line). Nothing is built on the way in: this wraps every job.
template <typename Work>
void guarded(Work&& work, const char* what, const std::string& where, int line = -1) {
    try {
        work();
    } catch (const std::exception& e) {
        report(what, where, line, e.what());
    } catch (...) {
        report(what, where, line, "unknown exception");
    }
}

// Delays far beyond any real use are cut so that deadlines cannot overflow the clock.
clock_type::duration clamp_ms(unsigned long ms) {
    return std::chrono::milliseconds(std::min(ms, 100ul * 365 * 24 * 3600 * 1000));
}

// A caller's function (job, timer, handler) kept only to be destroyed later, on the worker.
using parcel = std::shared_ptr<const void>;
template <typename T>
parcel wrap(T value) {
    return std::make_shared<T>(std::move(value));
}

struct job_entry {
    std::function<void()> job;
    const std::string* file;  // interned
    int line;
};

// Runs a batch in order. Each job's function dies as soon as it has returned, so that what it
// captured is gone before the next job runs.
void run_jobs(std::vector<job_entry>& batch) {
    for (job_entry& entry : batch) {
        guarded(entry.job, "job scheduled at ", *entry.file, entry.line);
        entry.job = nullptr;
    }
    batch.clear();
}

struct timer_entry {
    unsigned long id;
    std::function<bool()> callback;  // a timeout's returns false
    bool repeat;
    clock_type::duration interval;
    std::string file;
    int line;
};

using schedule_map = std::map<timer_key, timer_entry>;
enum class state { running, stopping, stopped, finished };

}  // namespace

// Defined here only: everyone else holds handles and never looks inside.
class _kiv_thread_service {
public:
    explicit _kiv_thread_service(std::string service_name) : name(std::move(service_name)) {}
    ~_kiv_thread_service();
    void loop(const kiv_thread_service_handle& self);
    void finish(const kiv_thread_service_handle& self);
    bool run_timer(std::unique_lock<std::mutex>& lk, const timer_key& limit);
    // `lock` held.
    void arm(timer_entry timer, clock_type::time_point deadline) {
        const timer_key key(deadline, next_seq++);
        armed[timer.id] = key;
        const auto at = schedule.emplace(key, std::move(timer)).first;
        if (at == schedule.begin()) wake_locked();  // a new earliest deadline shortens the sleep
    }
    // For the worker to destroy, outside any caller's call.
    void release_later(parcel dropped) {
        std::lock_guard<std::mutex> guard(lock);
        if (current == state::finished) return;  // no worker left: it dies here, after the unlock
        released.push_back(std::move(dropped));
        wake_locked();
    }
    void refuse(const char* text, parcel work) {
        warn(text, name);
        release_later(std::move(work));
    }
    // `lock` held: a sleeping worker needs one notify, a busy one none.
    void wake_locked() {
        if (sleeping) wake.notify_all();  // callers of wait share the condition variable
        sleeping = false;
    }

    const std::string name;
    const pid_t owner_pid = getpid();
    std::thread thread;

    // Held while a job, timer or handler runs, by the worker or by run_once; recursive so that
    // run_once works from inside them. Taken before `lock`, and never across a sleep.
    std::recursive_mutex execution;

    // Guards everything below. Never held while a caller's function runs or dies.
    std::mutex lock;
    std::condition_variable wake;  // the sleeping worker, and callers of wait
    state current = state::running;
    bool sleeping = false;  // the worker waits on `wake` and needs a notify
    std::vector<job_entry> jobs;
    schedule_map schedule;
    std::map<unsigned long, timer_key> armed;
    std::set<unsigned long> running_intervals;  // intervals whose callback runs right now
    unsigned long long next_seq = 1;
    std::vector<parcel> released;  // for the worker to destroy
    std::vector<kiv_thread_service_stop_callback> stop_callbacks;
    kiv_thread_service_finish_handler finish_handler;
    kiv_thread_service_join_handler join_handler;
    std::optional<int> join_code;  // from the first join
};

namespace {

thread_local const _kiv_thread_service* current_worker = nullptr;

// Every service created (weakly). Never destroyed, so that late callers always find it.
struct service_table {
    std::mutex lock;
    std::vector<boost::weak_ptr<_kiv_thread_service>> services;
    std::set<std::string> file_names;  // of jobs, never erased
};

void teardown_at_exit();

service_table& table() {
    static service_table* const t = [] {
        service_table* created = std::make_unique<service_table>().release();
        // Registered after the load-time static constructors, so it runs before their
        // destructors: services are gone before the statics their jobs touch.
        std::atexit(teardown_at_exit);
        // A forked child has none of the parent's workers: it forgets their services, so that
        // its exit does not wait for them. The lock is held across the fork.
        pthread_atfork([] { table().lock.lock(); }, [] { table().lock.unlock(); },
                       [] {
                           table().services.clear();
                           table().lock.unlock();
                       });
        return created;
    }();
    return *t;
}

// Jobs' file names, each kept once for the life of the process: callers pass the same few names
// again and again, and a copy per job would be allocated by the caller's thread and freed by the
// worker's. Each thread remembers the last name it passed, so that a repeated one takes no lock.
// The table's lock is the one a fork leaves usable in the child.
const std::string* intern(const std::string& file) {
    thread_local const std::string* last = nullptr;
    if (last == nullptr || *last != file) {
        std::lock_guard<std::mutex> guard(table().lock);
        last = &*table().file_names.insert(file).first;
    }
    return last;
}

std::vector<kiv_thread_service_handle> live_services() {
    std::vector<kiv_thread_service_handle> live;
    std::lock_guard<std::mutex> guard(table().lock);
    for (const auto& weak : table().services) {
        if (kiv_thread_service_handle s = weak.lock()) live.push_back(std::move(s));
    }
    return live;
}

// A host may exit without joining: stop whatever still runs, wait until it has finished and
// join its worker, so that no job, handler or thread runs on while the process tears down.
void teardown_at_exit() {
    const std::vector<kiv_thread_service_handle> live = live_services();
    for (const auto& s : live)
        if (current_worker != s.get()) kiv_thread_service_stop(s, nullptr);
    for (const auto& s : live) {  // not exit() called from one of its own jobs
        if (current_worker != s.get() && kiv_thread_service_wait(s) && s->thread.joinable()) s->thread.join();
    }
}

}  // namespace

// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): a forked child leaks the thread on purpose
_kiv_thread_service::~_kiv_thread_service() {
    if (!thread.joinable()) return;
    if (getpid() != owner_pid) {
        // A forked child's copy: the thread exists in the parent only; it can be neither joined
        // nor detached here.
        static_cast<void>(std::make_unique<std::thread>(std::move(thread)).release());
    } else if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();  // the worker dropped the last handle itself
    } else {
        thread.join();
    }
}
// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

// Runs the earliest timer if its key is not after `limit`; `lk` is held on entry and on return.
bool _kiv_thread_service::run_timer(std::unique_lock<std::mutex>& lk, const timer_key& limit) {
    if (current != state::running || schedule.empty() || limit < schedule.begin()->first) return false;
    schedule_map::node_type node = schedule.extract(schedule.begin());
    timer_entry& timer = node.mapped();
    armed.erase(timer.id);
    if (timer.repeat) running_intervals.insert(timer.id);
    lk.unlock();
    bool again = true;
    guarded([&] { again = timer.callback(); }, "timer scheduled at ", timer.file, timer.line);
    lk.lock();
    // Cleared meanwhile, the interval is no longer among the running ones.
    if (running_intervals.erase(timer.id) != 0 && again && current == state::running) {
        // Keep the rhythm, but never fire a burst to catch up after a slow callback.
        clock_type::time_point next = node.key().first + timer.interval;
        if (next <= clock_type::now()) next = clock_type::now() + timer.interval;
        arm(std::move(timer), next);
        return true;
    }
    lk.unlock();
    node = schedule_map::node_type();  // the callback dies outside the lock
    lk.lock();
    return true;
}

void _kiv_thread_service::loop(const kiv_thread_service_handle& self) {
    current_worker = this;
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    // Timed waits end at the deadline, not up to the default 50 us of timer slack after it.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    std::vector<job_entry> batch;
    for (;;) {
        std::unique_lock<std::recursive_mutex> running(execution);
        std::unique_lock<std::mutex> lk(lock);
        if (!jobs.empty() || !released.empty()) {
            const auto dropped = std::exchange(released, {});  // dies outside the lock
            batch.swap(jobs);  // the whole queue at once; the emptied batch becomes the queue
            lk.unlock();
            run_jobs(batch);
            continue;
        }
        if (current != state::running) break;  // every job queued before the stop has run
        if (run_timer(lk, timer_key(clock_type::now(), ~0ULL))) continue;
        running.unlock();
        sleeping = true;
        if (schedule.empty()) wake.wait(lk);
        else wake.wait_until(lk, schedule.begin()->first.first);
        sleeping = false;
    }
    finish(self);
}

void _kiv_thread_service::finish(const kiv_thread_service_handle& self) {
    std::lock_guard<std::recursive_mutex> running(execution);
    std::unique_lock<std::mutex> lk(lock);
    current = state::stopped;  // from here on handlers are refused and stop calls back at once
    armed.clear();
    {
        // Pending timers are cancelled; they and the join handler die after the handlers ran.
        const auto cancelled = std::exchange(schedule, {});
        const auto join = std::exchange(join_handler, nullptr);
        const auto callbacks = std::exchange(stop_callbacks, {});
        const auto handler = std::exchange(finish_handler, nullptr);
        const int code = join_code.value_or(0);
        lk.unlock();
        for (const auto& callback : callbacks) guarded([&] { callback(self); }, "stop callback of ", name);
        if (handler) guarded([&] { handler(self, code); }, "finish handler of ", name);
    }
    // Nothing of the callers' may outlive the finish: a host may unload the code behind these
    // functions as soon as wait returns.
    lk.lock();
    while (!released.empty()) {
        auto dropped = std::exchange(released, {});
        lk.unlock();
        dropped.clear();
        lk.lock();
    }
    current = state::finished;
    wake.notify_all();
}

// --- Exported functions -------------------------------------------------------------------

kiv_thread_service_handle kiv_thread_service_new(std::string name) {
    kiv_thread_service_handle service = boost::make_shared<_kiv_thread_service>(std::move(name));
    {
        std::lock_guard<std::mutex> guard(table().lock);
        auto& services = table().services;
        const auto expired = [](const auto& weak) { return weak.expired(); };
        services.erase(std::remove_if(services.begin(), services.end(), expired), services.end());
        services.push_back(service);
    }
    try {
        // The thread's own handle goes when loop returns; if it is the last, the destructor detaches it.
        service->thread = std::thread([s = service] { s->loop(s); });
    } catch (const std::system_error& e) {
        write_line(kiv_framework_detail::error_banner +
                   ("cannot start thread service " + kiv_framework_detail::coloured(service->name)) + ": " + e.what() +
                   "\n");
        return kiv_thread_service_handle();
    }
    return service;
}

namespace {

// Installs a handler; a stopped service calls none any more, so the new one is dropped then. The
// one replaced or dropped dies on the worker.
template <typename Handler>
void install(const kiv_thread_service_handle& service, Handler _kiv_thread_service::*slot, Handler handler) {
    {
        std::lock_guard<std::mutex> guard(service->lock);
        if (service->current < state::stopped) ((*service).*slot).swap(handler);
    }
    if (handler) service->release_later(wrap(std::move(handler)));
}

}  // namespace

void kiv_thread_service_on_finished(kiv_thread_service_handle service, kiv_thread_service_finish_handler handler) {
    if (!null_handle(service, __func__)) install(service, &_kiv_thread_service::finish_handler, std::move(handler));
}

void kiv_thread_service_set_join_handler(kiv_thread_service_handle service, kiv_thread_service_join_handler handler) {
    if (!null_handle(service, __func__)) install(service, &_kiv_thread_service::join_handler, std::move(handler));
}

void kiv_thread_service_stop(kiv_thread_service_handle service, kiv_thread_service_stop_callback callback) {
    if (null_handle(service, __func__)) return;
    std::unique_lock<std::mutex> lk(service->lock);
    if (service->current < state::stopped) {
        if (service->current == state::running) service->wake_locked();
        service->current = state::stopping;
        if (callback) service->stop_callbacks.push_back(std::move(callback));
        return;
    }
    lk.unlock();
    // Already stopped: the callback runs here, as promised, and dies with this call.
    if (callback) guarded([&] { callback(service); }, "stop callback of ", service->name);
}

void kiv_thread_service_exec(kiv_thread_service_handle service, std::function<void()> job, std::string file, int line) {
    if (null_handle(service, __func__)) return;
    const std::string* const name = intern(file);  // before the lock: the lock is contended
    std::unique_lock<std::mutex> lk(service->lock);
    if (service->current != state::running) {
        lk.unlock();
        return service->refuse("job handed to a stopped thread service: ", wrap(std::move(job)));
    }
    service->jobs.push_back(job_entry{std::move(job), name, line});
    const bool wake = std::exchange(service->sleeping, false);
    lk.unlock();
    if (wake) service->wake.notify_all();  // after the unlock, so that the worker does not wake into it
}

namespace {

unsigned long add_timer(const kiv_thread_service_handle& service, std::function<bool()> callback, bool repeat,
                        unsigned long ms, std::string file, int line) {
    {
        std::lock_guard<std::mutex> guard(service->lock);
        if (service->current == state::running) {
            const unsigned long id = next_timer_id.fetch_add(1, std::memory_order_relaxed);
            const clock_type::duration delay = clamp_ms(ms);
            service->arm(timer_entry{id, std::move(callback), repeat, delay, std::move(file), line},
                         clock_type::now() + delay);
            return id;
        }
    }
    service->refuse(
        repeat ? "interval handed to a stopped thread service: " : "timeout handed to a stopped thread service: ",
        wrap(std::move(callback)));
    return 0;
}

bool clear_timer(const kiv_thread_service_handle& service, unsigned long id) {
    schedule_map::node_type dropped;
    {
        std::lock_guard<std::mutex> guard(service->lock);
        const auto armed = service->armed.find(id);
        // An interval running right now: its runner sees it gone and does not re-arm it.
        if (armed == service->armed.end()) return service->running_intervals.erase(id) != 0;
        dropped = service->schedule.extract(armed->second);
        service->armed.erase(armed);
    }
    service->release_later(wrap(std::move(dropped)));
    return true;
}

}  // namespace

unsigned long kiv_thread_service_set_timeout(kiv_thread_service_handle service, std::function<void()> job,
                                             unsigned long delay_ms, std::string file, int line) {
    if (null_handle(service, __func__)) return 0;
    // An empty job throws when run, as an empty job of exec does.
    auto once = [job = std::move(job)] {
        job();
        return false;
    };
    return add_timer(service, std::move(once), false, delay_ms, std::move(file), line);
}

unsigned long kiv_thread_service_set_interval(kiv_thread_service_handle service, std::function<bool()> callback,
                                              unsigned long interval_ms, std::string file, int line) {
    if (null_handle(service, __func__)) return 0;
    return add_timer(service, std::move(callback), true, interval_ms, std::move(file), line);
}

bool kiv_thread_service_clear_timeout(kiv_thread_service_handle service, unsigned long timer_id) {
    return !null_handle(service, __func__) && clear_timer(service, timer_id);
}

bool kiv_thread_service_clear_interval(kiv_thread_service_handle service, unsigned long timer_id) {
    return !null_handle(service, __func__) && clear_timer(service, timer_id);
}

int kiv_thread_service_run_once(kiv_thread_service_handle service) {
    if (null_handle(service, __func__)) return -1;
    std::lock_guard<std::recursive_mutex> running(service->execution);
    // Meanwhile this thread stands in for the worker: a wait from inside one of these jobs (a
    // join) returns at once, as on the worker, instead of waiting for a worker that waits for it.
    const _kiv_thread_service* const outer = std::exchange(current_worker, service.get());
    std::vector<job_entry> batch;
    std::unique_lock<std::mutex> lk(service->lock);
    const timer_key limit(clock_type::now(), service->next_seq - 1);
    batch.swap(service->jobs);
    lk.unlock();
    int count = static_cast<int>(batch.size());
    run_jobs(batch);
    lk.lock();
    while (service->run_timer(lk, limit)) ++count;
    current_worker = outer;
    return count;
}

void kiv_thread_service_join(kiv_thread_service_handle service, int code) {
    if (null_handle(service, __func__)) return;
    kiv_thread_service_join_handler handler;  // a copy: it may be replaced meanwhile
    {
        std::lock_guard<std::mutex> guard(service->lock);
        if (service->current != state::running) return;  // a stop is under way, or over
        if (!service->join_code) service->join_code = code;
        handler = service->join_handler;
    }
    bool deferred = false;
    if (handler) guarded([&] { deferred = handler(service, code); }, "join handler of ", service->name);
    if (!deferred) kiv_thread_service_stop(service, nullptr);
}

bool kiv_thread_service_wait(kiv_thread_service_handle service, long timeout_ms) {
    if (null_handle(service, __func__) || current_worker == service.get()) return false;
    std::unique_lock<std::mutex> lk(service->lock);
    const auto done = [&] { return service->current == state::finished; };
    if (timeout_ms >= 0) return service->wake.wait_for(lk, clamp_ms(static_cast<unsigned long>(timeout_ms)), done);
    service->wake.wait(lk, done);
    return true;
}

kiv_thread_service_handle kiv_thread_service_find(std::string name) {
    for (kiv_thread_service_handle& s : live_services()) {
        std::lock_guard<std::mutex> guard(s->lock);
        if (s->name == name && s->current != state::finished) return s;
    }
    return kiv_thread_service_handle();
}

void kiv_thread_service_join_all(int code) {
    const std::vector<kiv_thread_service_handle> live = live_services();
    for (const auto& s : live) kiv_thread_service_join(s, code);
    for (const auto& s : live) kiv_thread_service_wait(s);
}
