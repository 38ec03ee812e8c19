#include "framework/kiv_thread_service.h"

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "framework/kiv_console.h"

namespace {

using clock_type = std::chrono::steady_clock;

// Keeps the framework's own lines whole when several services write at once.
std::mutex console_lock;

void write_line(const std::string& line) {
    std::lock_guard<std::mutex> guard(console_lock);
    std::cout << line << std::flush;
}

void warn(const char* text, const std::string& name) {
    std::lock_guard<std::mutex> guard(console_lock);
    kiv_framework_detail::warn_named(text, name);
}

bool null_handle(const kiv_thread_service_handle& service, const char* function) {
    if (service) return false;
    warn("null object supplied: ", function);
    return true;
}

// Runs `work`, turning whatever escapes it into one error line; `origin` names where the work
// came from and is only evaluated then, so the common path allocates nothing.
template <typename Work, typename Origin>
void guarded(Work&& work, Origin&& origin) {
    std::string reason;
    try {
        work();
        return;
    } catch (const std::exception& e) {
        reason = e.what();
    } catch (...) {
        reason = "unknown exception";
    }
    std::string line = kiv_framework_detail::error_banner;
    line.append("exception in ").append(origin()).append(": ").append(reason).append("\n");
    write_line(line);
}

// Delays far beyond any real use are cut so that deadlines cannot overflow the clock.
clock_type::duration clamp_ms(unsigned long ms) {
    constexpr unsigned long max_ms = 100ul * 365 * 24 * 3600 * 1000;
    return std::chrono::milliseconds(std::min(ms, max_ms));
}

void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// For critical sections of a few dozen instructions shared by callers and the worker: a futex
// sleep on contention would cost far more than the section itself.
class spin_lock {
public:
    void lock() noexcept {
        for (unsigned spins = 0;;) {
            if (!locked_.exchange(true, std::memory_order_acquire)) return;
            while (locked_.load(std::memory_order_relaxed)) {
                if (++spins < 128) {
                    cpu_relax();
                } else {
                    std::this_thread::yield();  // the holder may have been preempted
                }
            }
        }
    }
    void unlock() noexcept { locked_.store(false, std::memory_order_release); }

private:
    std::atomic<bool> locked_{false};
};

// A worker that takes each job the moment it is posted makes every post pay for cache lines
// coming back from the worker's core. Pausing briefly after a small batch lets a stream of jobs
// pile up and change hands in bulk; a lone job waits two microseconds at most.
void gather_pause() {
    constexpr auto gather_time = std::chrono::microseconds(2);
    const clock_type::time_point until = clock_type::now() + gather_time;
    std::this_thread::yield();  // a caller sharing this core fills the queue meanwhile
    while (clock_type::now() < until) {
        for (int i = 0; i < 8; ++i) cpu_relax();
    }
}

void teardown_at_exit();

}  // namespace

class _kiv_thread_service {
public:
    explicit _kiv_thread_service(std::string name) : name_(std::move(name)) {}
    ~_kiv_thread_service();
    _kiv_thread_service(const _kiv_thread_service&) = delete;
    _kiv_thread_service& operator=(const _kiv_thread_service&) = delete;

    void start(kiv_thread_service_handle self);

    void exec(std::function<void()>&& job, const std::string& file, int line);
    unsigned long add_timer(std::function<void()> once, std::function<bool()> repeat,
                            unsigned long ms, std::string file, int line);
    bool clear(unsigned long id);
    void stop(const kiv_thread_service_handle& self, kiv_thread_service_stop_callback callback);
    int run_once();
    void join(const kiv_thread_service_handle& self, int code);
    bool wait(long timeout_ms);
    void on_finished(kiv_thread_service_finish_handler handler);
    void set_join_handler(kiv_thread_service_join_handler handler);

    bool finished();
    const std::string& name() const { return name_; }
    bool is_current_worker() const;
    void join_thread();

private:
    struct job_entry {
        std::function<void()> job;
        const std::string* file;  // in files_, or null when the name is in own_file
        std::unique_ptr<const std::string> own_file;
        int line;
    };
    struct timer_entry {
        unsigned long id;
        std::function<void()> once;
        std::function<bool()> repeat;  // set for intervals
        clock_type::duration interval;
        std::string file;
        int line;
    };
    // Deadline, then arming order: equal deadlines keep the order in which they were armed.
    using timer_key = std::pair<clock_type::time_point, std::uint64_t>;
    using schedule_map = std::map<timer_key, timer_entry>;
    using timer_node = schedule_map::node_type;
    enum class state { running, stopping, stopped, finished };
    enum class worker_mode { busy, spinning, sleeping };

    void loop(kiv_thread_service_handle self);
    void finish(const kiv_thread_service_handle& self);
    void run_jobs(std::vector<job_entry>& batch);
    bool run_next_timer(std::unique_lock<std::mutex>& lk, const timer_key& limit);
    void arm(timer_node node, clock_type::time_point deadline);
    void poke();                                         // lock_ held
    const std::string* intern(const std::string& file);  // queue_lock_ held
    void wait_for_work();
    void set_mode(worker_mode mode);

    // Fields written by different threads sit this far apart (two cache lines: neighbouring
    // lines are fetched in pairs). make_shared puts the reference counts, which every caller's
    // handle copy writes, just before the object: hence the leading gap too.
    static constexpr std::size_t line_pair = 128;
    [[maybe_unused]] char separate_lines_0_[line_pair] = {};
    const std::string name_;

    // Held while any job, timer or handler of this service runs, by the worker or by
    // run_once; recursive so that run_once works from inside them.
    std::recursive_mutex execution_;

    // The job queue, under a lock of its own so that posting a job never waits on lock_.
    // Lock order: lock_, then queue_lock_. Neither is held while user code runs or user
    // functions die.
    [[maybe_unused]] char separate_lines_1_[line_pair] = {};
    spin_lock queue_lock_;
    bool accepting_ = true;  // false from the stop request on
    worker_mode mode_ = worker_mode::busy;
    std::vector<job_entry> queue_;
    // File names of jobs, each kept once: callers pass the same few names again and again, and
    // a copy per job would be allocated on the caller's thread and freed on the worker.
    std::unordered_set<std::string> files_;
    const std::string* last_file_ = nullptr;
    [[maybe_unused]] char separate_lines_2_[line_pair] = {};

    // Set when work arrives while the worker spins; on a line of its own, as the worker polls it.
    std::atomic<bool> pending_{false};
    [[maybe_unused]] char separate_lines_3_[line_pair] = {};

    // Guards the fields from here to joined_.
    std::mutex lock_;
    std::condition_variable wake_;
    std::condition_variable finished_cv_;
    state state_ = state::running;
    bool sleeping_ = false;  // the worker waits on wake_
    schedule_map schedule_;
    std::unordered_map<unsigned long, timer_key> armed_;
    std::vector<unsigned long> running_intervals_;  // intervals whose callback runs right now
    unsigned long next_id_ = 1;
    std::uint64_t next_seq_ = 1;
    std::vector<kiv_thread_service_stop_callback> stop_callbacks_;
    kiv_thread_service_finish_handler finish_handler_;
    std::shared_ptr<const kiv_thread_service_join_handler> join_handler_;
    int join_code_ = 0;
    bool joined_ = false;

    std::mutex thread_lock_;  // guards thread_ against a join at exit racing the destructor
    std::thread thread_;
};

namespace {

thread_local const _kiv_thread_service* current_worker = nullptr;

// Every service ever created (weakly), and how many worker threads still run. Created on first
// use and never destroyed, so that workers and late callers always find it.
struct service_table {
    std::mutex lock;
    std::vector<boost::weak_ptr<_kiv_thread_service>> services;
    std::condition_variable workers_done;
    int workers_running = 0;
};

void lock_table_for_fork();
void unlock_table_after_fork();
void forget_parent_services();

service_table& table() {
    static service_table* const t = [] {
        service_table* created = std::make_unique<service_table>().release();
        // Registered after every load-time static constructor has run, so it runs before their
        // destructors: services are gone before the statics their jobs touch.
        std::atexit(teardown_at_exit);
        pthread_atfork(lock_table_for_fork, unlock_table_after_fork, forget_parent_services);
        return created;
    }();
    return *t;
}

// A forked child has none of the parent's worker threads: it forgets the parent's services, so
// that its exit does not wait for workers that only the parent has. The table's lock is held
// across the fork, so the child's copy of the table is consistent.
void lock_table_for_fork() { table().lock.lock(); }
void unlock_table_after_fork() { table().lock.unlock(); }
void forget_parent_services() {
    service_table& t = table();
    t.services.clear();
    t.workers_running = 0;
    t.lock.unlock();
}

std::vector<kiv_thread_service_handle> live_services() {
    std::vector<kiv_thread_service_handle> live;
    service_table& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    for (const auto& weak : t.services) {
        if (kiv_thread_service_handle s = weak.lock()) live.push_back(std::move(s));
    }
    return live;
}

void worker_exited() {
    service_table& t = table();
    {
        std::lock_guard<std::mutex> guard(t.lock);
        --t.workers_running;
    }
    t.workers_done.notify_all();
}

// A host may exit without joining: stop whatever still runs and make sure no worker thread is
// left running while the process tears down.
void teardown_at_exit() {
    std::vector<kiv_thread_service_handle> live = live_services();
    for (const auto& s : live) {
        if (s->is_current_worker()) continue;  // exit() called from one of its own jobs
        kiv_thread_service_stop(s, nullptr);
    }
    for (const auto& s : live) {
        if (s->is_current_worker()) continue;
        s->wait(-1);
        s->join_thread();
    }
    live.clear();
    // Workers detached by their own last handle may still be on their way out.
    service_table& t = table();
    const int own = current_worker ? 1 : 0;
    std::unique_lock<std::mutex> lk(t.lock);
    t.workers_done.wait(lk, [&] { return t.workers_running <= own; });
}

}  // namespace

_kiv_thread_service::~_kiv_thread_service() {
    std::lock_guard<std::mutex> guard(thread_lock_);
    if (!thread_.joinable()) return;
    // The last handle may go on the worker itself (e.g. in the finish handler's wake).
    if (thread_.get_id() == std::this_thread::get_id()) {
        thread_.detach();
    } else {
        thread_.join();
    }
}

void _kiv_thread_service::start(kiv_thread_service_handle self) {
    std::lock_guard<std::mutex> guard(thread_lock_);
    thread_ = std::thread([this, self = std::move(self)]() mutable { loop(std::move(self)); });
}

bool _kiv_thread_service::is_current_worker() const {
    return current_worker == this;
}

void _kiv_thread_service::join_thread() {
    std::lock_guard<std::mutex> guard(thread_lock_);
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

bool _kiv_thread_service::finished() {
    std::lock_guard<std::mutex> guard(lock_);
    return state_ == state::finished;
}

void _kiv_thread_service::poke() {
    pending_.store(true, std::memory_order_relaxed);
    if (!sleeping_) return;
    sleeping_ = false;  // one wake is enough; the worker re-checks everything
    wake_.notify_one();
}

void _kiv_thread_service::set_mode(worker_mode mode) {
    std::lock_guard<spin_lock> guard(queue_lock_);
    mode_ = mode;
}

const std::string* _kiv_thread_service::intern(const std::string& file) {
    constexpr std::size_t max_files = 1024;  // beyond that, jobs carry their own copy
    if (last_file_ && *last_file_ == file) return last_file_;
    auto found = files_.find(file);
    if (found == files_.end()) {
        if (files_.size() >= max_files) return nullptr;
        found = files_.insert(file).first;
    }
    last_file_ = &*found;
    return last_file_;
}

void _kiv_thread_service::exec(std::function<void()>&& job, const std::string& file, int line) {
    bool accepted = false;
    bool wake = false;
    {
        std::lock_guard<spin_lock> guard(queue_lock_);
        if (accepting_) {
            accepted = true;
            const std::string* interned = intern(file);
            queue_.push_back(
                job_entry{std::move(job), interned,
                          interned ? nullptr : std::make_unique<const std::string>(file), line});
            if (mode_ == worker_mode::spinning) {
                pending_.store(true, std::memory_order_relaxed);
            } else if (mode_ == worker_mode::sleeping) {
                wake = true;
            }
            mode_ = worker_mode::busy;  // one signal is enough
        }
    }
    if (!accepted) {
        warn("job handed to a stopped thread service: ", name_);
        return;  // the caller's job dies outside the locks
    }
    if (wake) {
        // The worker set `sleeping` holding lock_ and keeps it until it waits: taking lock_
        // here means the notification cannot slip in before the wait.
        std::lock_guard<std::mutex> guard(lock_);
        sleeping_ = false;
        wake_.notify_one();
    }
}

void _kiv_thread_service::arm(timer_node node, clock_type::time_point deadline) {
    node.key() = timer_key(deadline, next_seq_++);
    armed_[node.mapped().id] = node.key();
    schedule_.insert(std::move(node));
}

unsigned long _kiv_thread_service::add_timer(std::function<void()> once,
                                             std::function<bool()> repeat, unsigned long ms,
                                             std::string file, int line) {
    const bool is_interval = static_cast<bool>(repeat);
    const clock_type::duration delay = clamp_ms(ms);
    // Built before the lock: the node allocation stays out of the critical section.
    schedule_map staging;
    staging.emplace(timer_key(), timer_entry{0, std::move(once), std::move(repeat), delay,
                                             std::move(file), line});
    timer_node node = staging.extract(staging.begin());

    std::unique_lock<std::mutex> lk(lock_);
    if (state_ != state::running) {
        lk.unlock();
        warn(is_interval ? "interval handed to a stopped thread service: "
                         : "timeout handed to a stopped thread service: ",
             name_);
        return 0;
    }
    const unsigned long id = next_id_++;
    node.mapped().id = id;
    arm(std::move(node), clock_type::now() + delay);
    if (schedule_.begin()->second.id == id) {
        poke();  // it is now the earliest: the worker may sleep past it
    }
    return id;
}

bool _kiv_thread_service::clear(unsigned long id) {
    timer_node dropped;  // dies after the lock is released
    std::lock_guard<std::mutex> guard(lock_);
    auto armed = armed_.find(id);
    if (armed != armed_.end()) {
        dropped = schedule_.extract(armed->second);
        armed_.erase(armed);
        return true;
    }
    // An interval running right now: its runner sees it gone and does not re-arm it.
    auto running = std::find(running_intervals_.begin(), running_intervals_.end(), id);
    if (running == running_intervals_.end()) return false;
    running_intervals_.erase(running);
    return true;
}

void _kiv_thread_service::stop(const kiv_thread_service_handle& self,
                               kiv_thread_service_stop_callback callback) {
    std::unique_lock<std::mutex> lk(lock_);
    if (state_ == state::stopped || state_ == state::finished) {
        lk.unlock();
        if (callback) guarded([&] { callback(self); }, [&] { return "stop callback of " + name_; });
        return;
    }
    if (callback) stop_callbacks_.push_back(std::move(callback));
    if (state_ == state::running) {
        state_ = state::stopping;
        {
            std::lock_guard<spin_lock> guard(queue_lock_);
            accepting_ = false;
        }
        poke();
    }
}

void _kiv_thread_service::run_jobs(std::vector<job_entry>& batch) {
    for (job_entry& entry : batch) {
        guarded(entry.job, [&] {
            const std::string& file = entry.file ? *entry.file : *entry.own_file;
            return "job scheduled at " + file + ":" + std::to_string(entry.line);
        });
    }
    batch.clear();  // user functions die here, outside the lock
}

// Runs the earliest timer if its key is not after `limit`; `lk` is held on entry and on return.
bool _kiv_thread_service::run_next_timer(std::unique_lock<std::mutex>& lk, const timer_key& limit) {
    if (state_ != state::running || schedule_.empty() || limit < schedule_.begin()->first) {
        return false;
    }
    timer_node node = schedule_.extract(schedule_.begin());
    timer_entry& timer = node.mapped();
    const clock_type::time_point deadline = node.key().first;
    armed_.erase(timer.id);
    const bool is_interval = static_cast<bool>(timer.repeat);
    if (is_interval) running_intervals_.push_back(timer.id);
    lk.unlock();

    bool again = true;
    guarded(
        [&] {
            if (is_interval) {
                again = timer.repeat();
            } else {
                timer.once();
            }
        },
        [&] { return "timer scheduled at " + timer.file + ":" + std::to_string(timer.line); });

    lk.lock();
    if (!is_interval) {
        lk.unlock();
        node = timer_node();  // the job dies outside the lock
        lk.lock();
        return true;
    }
    auto running = std::find(running_intervals_.begin(), running_intervals_.end(), timer.id);
    const bool still_registered = running != running_intervals_.end();
    if (still_registered) running_intervals_.erase(running);
    if (still_registered && again && state_ == state::running) {
        // Keep the rhythm, but never fire a burst to catch up after a slow callback.
        const clock_type::time_point now = clock_type::now();
        clock_type::time_point next = deadline + timer.interval;
        if (next <= now) next = now + timer.interval;
        arm(std::move(node), next);
        if (!is_current_worker() && schedule_.begin()->second.id == timer.id) poke();
        return true;
    }
    lk.unlock();
    node = timer_node();
    lk.lock();
    return true;
}

// Returns once there are jobs, a due timer or a stop.
void _kiv_thread_service::wait_for_work() {
    // A caller posting a stream of jobs usually adds the next one within microseconds: spinning
    // that long first spares both sides a sleep and a wake-up per handful of jobs.
    constexpr auto spin_time = std::chrono::microseconds(20);
    // Waking from a sleep takes tens of microseconds on a busy machine: the worker sleeps until
    // this long before a timer's deadline and spins through the rest.
    constexpr auto early_wake = std::chrono::microseconds(50);
    bool spun = false;
    std::unique_lock<std::mutex> lk(lock_);
    for (;;) {
        if (state_ != state::running) return;
        const bool timed = !schedule_.empty();
        const clock_type::time_point due =
            timed ? schedule_.begin()->first.first : clock_type::time_point::max();
        const clock_type::time_point now = clock_type::now();
        if (due <= now) return;
        const bool near = due - now <= early_wake;
        const bool spin = !spun || near;
        {
            std::lock_guard<spin_lock> guard(queue_lock_);
            if (!queue_.empty()) return;
            mode_ = spin ? worker_mode::spinning : worker_mode::sleeping;
            if (spin) pending_.store(false, std::memory_order_relaxed);
        }
        if (spin) {
            spun = true;
            lk.unlock();
            const clock_type::time_point until = near ? due : std::min(due, now + spin_time);
            for (int i = 1; !pending_.load(std::memory_order_relaxed); ++i) {
                if (i % 16 == 0) {
                    if (clock_type::now() >= until) break;
                    // On a crowded machine a caller may be waiting for this very core; with a
                    // deadline this close, the core is not given away.
                    if (!near) std::this_thread::yield();
                }
                cpu_relax();
            }
            if (!near && pending_.load(std::memory_order_relaxed)) gather_pause();
            lk.lock();
        } else {
            // Still holding lock_ since `sleeping` was set: see exec.
            sleeping_ = true;
            if (timed) {
                wake_.wait_until(lk, due - early_wake);
            } else {
                wake_.wait(lk);
            }
            sleeping_ = false;
        }
        set_mode(worker_mode::busy);
    }
}

void _kiv_thread_service::loop(kiv_thread_service_handle self) {
    current_worker = this;
    pthread_setname_np(pthread_self(), name_.substr(0, 15).c_str());
    // Timed waits end at the deadline, not up to the default 50 us of timer slack after it.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    std::vector<job_entry> batch;
    for (;;) {
        {
            std::lock_guard<std::recursive_mutex> running(execution_);
            {
                std::lock_guard<spin_lock> guard(queue_lock_);
                batch.swap(queue_);
            }
            if (!batch.empty()) {
                constexpr std::size_t bulk = 256;  // callers outpace the worker: no pause
                const bool small = batch.size() < bulk;
                run_jobs(batch);
                if (small) gather_pause();
                continue;
            }
            std::unique_lock<std::mutex> lk(lock_);
            if (state_ == state::stopping) {
                // A job may have come in between the swap and the stop; after the stop none can.
                std::lock_guard<spin_lock> guard(queue_lock_);
                if (queue_.empty()) break;  // every job queued before the stop has run
                continue;
            }
            if (run_next_timer(lk, timer_key(clock_type::now(), UINT64_MAX))) continue;
        }
        wait_for_work();
    }
    finish(self);
    self.reset();  // may be the last handle: the destructor then detaches this thread
    worker_exited();
}

void _kiv_thread_service::finish(const kiv_thread_service_handle& self) {
    std::vector<kiv_thread_service_stop_callback> callbacks;
    kiv_thread_service_finish_handler handler;
    kiv_thread_service_finish_handler late_handler;
    std::shared_ptr<const kiv_thread_service_join_handler> join_handler;
    schedule_map cancelled;
    int code = 0;
    {
        std::lock_guard<std::recursive_mutex> running(execution_);
        {
            std::lock_guard<std::mutex> guard(lock_);
            state_ = state::stopped;
            cancelled.swap(schedule_);
            armed_.clear();
            callbacks.swap(stop_callbacks_);
        }
        cancelled.clear();
        for (auto& callback : callbacks) {
            guarded([&] { callback(self); }, [&] { return "stop callback of " + name_; });
        }
        callbacks.clear();
        {
            std::lock_guard<std::mutex> guard(lock_);
            handler.swap(finish_handler_);
            code = join_code_;
        }
        if (handler)
            guarded([&] { handler(self, code); }, [&] { return "finish handler of " + name_; });
        {
            std::lock_guard<std::mutex> guard(lock_);
            state_ = state::finished;
            join_handler.swap(join_handler_);
            late_handler.swap(finish_handler_);  // installed from inside the finish handler
        }
    }
    finished_cv_.notify_all();
    // Handlers often hold handles to the service itself; letting them go breaks that cycle.
    handler = nullptr;
    late_handler = nullptr;
    join_handler.reset();
}

int _kiv_thread_service::run_once() {
    std::lock_guard<std::recursive_mutex> running(execution_);
    std::vector<job_entry> batch;
    timer_key limit;
    {
        std::lock_guard<std::mutex> guard(lock_);
        limit = timer_key(clock_type::now(), next_seq_ - 1);
        std::lock_guard<spin_lock> queue_guard(queue_lock_);
        batch.swap(queue_);
    }
    int count = static_cast<int>(batch.size());
    run_jobs(batch);
    std::unique_lock<std::mutex> lk(lock_);
    while (run_next_timer(lk, limit)) ++count;
    return count;
}

void _kiv_thread_service::join(const kiv_thread_service_handle& self, int code) {
    std::shared_ptr<const kiv_thread_service_join_handler> handler;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!joined_) {
            joined_ = true;
            join_code_ = code;
        }
        handler = join_handler_;
    }
    bool deferred = false;
    if (handler) {
        guarded([&] { deferred = (*handler)(self, code); },
                [&] { return "join handler of " + name_; });
    }
    if (!deferred) stop(self, nullptr);
}

bool _kiv_thread_service::wait(long timeout_ms) {
    if (is_current_worker()) return false;
    std::unique_lock<std::mutex> lk(lock_);
    const auto done = [this] { return state_ == state::finished; };
    if (timeout_ms < 0) {
        finished_cv_.wait(lk, done);
        return true;
    }
    return finished_cv_.wait_for(lk, clamp_ms(static_cast<unsigned long>(timeout_ms)), done);
}

void _kiv_thread_service::on_finished(kiv_thread_service_finish_handler handler) {
    std::lock_guard<std::mutex> guard(lock_);
    // A finished service calls nothing more: the handler is dropped (outside the lock).
    if (state_ != state::finished) finish_handler_.swap(handler);
}

void _kiv_thread_service::set_join_handler(kiv_thread_service_join_handler handler) {
    std::shared_ptr<const kiv_thread_service_join_handler> next;
    if (handler) next = std::make_shared<const kiv_thread_service_join_handler>(std::move(handler));
    std::lock_guard<std::mutex> guard(lock_);
    if (state_ != state::finished) join_handler_.swap(next);
}

// --- Exported functions -------------------------------------------------------------------

kiv_thread_service_handle kiv_thread_service_new(std::string name) {
    service_table& t = table();
    kiv_thread_service_handle service = boost::make_shared<_kiv_thread_service>(std::move(name));
    {
        std::lock_guard<std::mutex> guard(t.lock);
        t.services.erase(std::remove_if(t.services.begin(), t.services.end(),
                                        [](const boost::weak_ptr<_kiv_thread_service>& w) {
                                            return w.expired();
                                        }),
                         t.services.end());
        t.services.push_back(service);
        ++t.workers_running;
    }
    try {
        service->start(service);
    } catch (const std::system_error& e) {
        worker_exited();
        write_line(std::string(kiv_framework_detail::error_banner) +
                   "cannot start thread service " +
                   kiv_framework_detail::coloured(service->name()) + ": " + e.what() + "\n");
        return kiv_thread_service_handle();
    }
    return service;
}

void kiv_thread_service_on_finished(kiv_thread_service_handle service,
                                    kiv_thread_service_finish_handler handler) {
    if (null_handle(service, "kiv_thread_service_on_finished")) return;
    service->on_finished(std::move(handler));
}

void kiv_thread_service_set_join_handler(kiv_thread_service_handle service,
                                         kiv_thread_service_join_handler handler) {
    if (null_handle(service, "kiv_thread_service_set_join_handler")) return;
    service->set_join_handler(std::move(handler));
}

void kiv_thread_service_stop(kiv_thread_service_handle service,
                             kiv_thread_service_stop_callback callback) {
    if (null_handle(service, "kiv_thread_service_stop")) return;
    service->stop(service, std::move(callback));
}

void kiv_thread_service_exec(kiv_thread_service_handle service, std::function<void()> job,
                             std::string file, int line) {
    if (null_handle(service, "kiv_thread_service_exec")) return;
    service->exec(std::move(job), file, line);
}

unsigned long kiv_thread_service_set_timeout(kiv_thread_service_handle service,
                                             std::function<void()> job, unsigned long delay_ms,
                                             std::string file, int line) {
    if (null_handle(service, "kiv_thread_service_set_timeout")) return 0;
    return service->add_timer(std::move(job), nullptr, delay_ms, std::move(file), line);
}

unsigned long kiv_thread_service_set_interval(kiv_thread_service_handle service,
                                              std::function<bool()> callback,
                                              unsigned long interval_ms, std::string file,
                                              int line) {
    if (null_handle(service, "kiv_thread_service_set_interval")) return 0;
    if (!callback) {
        // An empty callback would make the entry look like a timeout; it throws when run, as
        // an empty job does.
        callback = [] { return std::function<bool()>()(); };
    }
    return service->add_timer(nullptr, std::move(callback), interval_ms, std::move(file), line);
}

bool kiv_thread_service_clear_timeout(kiv_thread_service_handle service, unsigned long timer_id) {
    if (null_handle(service, "kiv_thread_service_clear_timeout")) return false;
    return service->clear(timer_id);
}

bool kiv_thread_service_clear_interval(kiv_thread_service_handle service, unsigned long timer_id) {
    if (null_handle(service, "kiv_thread_service_clear_interval")) return false;
    return service->clear(timer_id);
}

int kiv_thread_service_run_once(kiv_thread_service_handle service) {
    if (null_handle(service, "kiv_thread_service_run_once")) return -1;
    return service->run_once();
}

void kiv_thread_service_join(kiv_thread_service_handle service, int code) {
    if (null_handle(service, "kiv_thread_service_join")) return;
    service->join(service, code);
}

bool kiv_thread_service_wait(kiv_thread_service_handle service, long timeout_ms) {
    if (null_handle(service, "kiv_thread_service_wait")) return false;
    return service->wait(timeout_ms);
}

kiv_thread_service_handle kiv_thread_service_find(std::string name) {
    for (kiv_thread_service_handle& s : live_services()) {
        if (s->name() == name && !s->finished()) return std::move(s);
    }
    return kiv_thread_service_handle();
}

void kiv_thread_service_join_all(int code) {
    const std::vector<kiv_thread_service_handle> live = live_services();
    for (const auto& s : live) {
        if (!s->finished()) kiv_thread_service_join(s, code);
    }
    for (const auto& s : live) s->wait(-1);
}
