// A second framework core, for running the service tests on choices our stand-in does not make
// but a real core may: timer ids from 1 per service, reused after a clear; cleared, replaced
// and refused functions destroyed inside the call; the stop callback inside stop when the
// worker is idle; the finish handler on the worker; run_once on the caller's thread; nothing on
// fork or exit; no "object-destroyed" entered by the base object. Deliberately small.
// With KIV_DOUBLE_THREADLESS set it has no worker at all: jobs, timers, the stop callbacks and
// the finish handler run only inside run_once, on the host's thread, and wait cannot wait.

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include <chrono>
#include <cstdlib>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "framework/kiv_assertion.h"
#include "framework/kiv_object.h"
#include "framework/kiv_thread_service.h"

namespace {
using lock_t = std::unique_lock<std::mutex>;
std::mutex refs_lock;
std::map<const _kiv_object*, boost::shared_ptr<_kiv_object>> refs;  // released at exit
}  // namespace

_kiv_object::_kiv_object() = default;
_kiv_object::~_kiv_object() = default;
boost::shared_ptr<_kiv_object> _kiv_object::shared_object() { return boost::static_pointer_cast<_kiv_object>(shared_from_this()); }
std::string _kiv_object::type_tag() { return "[kiv_object]"; }
void _kiv_object::destroy(std::string, int) {}
void _kiv_object::describe() {}
bool _kiv_object::is_reffed() {
    const lock_t guard(refs_lock);
    return refs.count(this) != 0;
}
void kiv_object_ref(boost::shared_ptr<_kiv_object> object) { lock_t guard(refs_lock); refs.emplace(object.get(), object); }
void kiv_object_unref_real(boost::shared_ptr<_kiv_object> object) { lock_t guard(refs_lock); refs.erase(object.get()); }
bool kiv_property_get(std::map<std::string, boost::any>& properties, std::string key, boost::any& value) {
    const auto found = properties.find(key);
    if (found == properties.end()) return false;
    value = found->second;
    return true;
}
void kiv_assertion_faild(bool, std::string, std::string, std::string, int) {}

namespace {
struct timer {
    std::function<bool()> callback;  // empty while it runs
    std::chrono::steady_clock::time_point due;
    unsigned long interval;  // a timeout's callback returns false: it runs once
};
}  // namespace

class _kiv_thread_service {
public:
    std::string name;
    std::mutex lock, execution;  // execution: one job at a time, on the worker or in run_once
    std::condition_variable finished_cv;
    std::deque<std::function<void()>> jobs;
    std::map<unsigned long, timer> timers;
    bool busy = false, stopped = false, finished = false, threadless = false;
    int code = 0;
    std::vector<kiv_thread_service_stop_callback> stop_callbacks;
    kiv_thread_service_finish_handler finish_handler;
    kiv_thread_service_join_handler join_handler;
};

namespace {
thread_local _kiv_thread_service* running_service = nullptr;
std::mutex services_lock;
std::vector<boost::weak_ptr<_kiv_thread_service>> services;

// Runs the first queued job, else the first due timer (none once stopped); false when none.
bool run_one(_kiv_thread_service& s, lock_t& lk) {
    std::function<bool()> work;
    unsigned long id = 0;
    if (!s.jobs.empty()) {
        work = [job = std::move(s.jobs.front())] { return job(), false; };
        s.jobs.pop_front();
    }
    for (auto t = s.timers.begin(); !work && !s.stopped && t != s.timers.end(); ++t) {
        if (t->second.callback && t->second.due <= std::chrono::steady_clock::now()) id = t->first, work.swap(t->second.callback);
    }
    if (!work) return false;
    s.busy = true;
    lk.unlock();
    lock_t one_at_a_time(s.execution);
    _kiv_thread_service* const outer = std::exchange(running_service, &s);
    const bool again = work();
    running_service = outer;
    one_at_a_time.unlock();
    lk.lock();
    s.busy = false;
    const auto t = s.timers.find(id);  // gone when cleared meanwhile
    if (t != s.timers.end() && again) t->second.due += std::chrono::milliseconds(t->second.interval), t->second.callback.swap(work);
    else if (t != s.timers.end()) s.timers.erase(t);
    lk.unlock();
    work = nullptr;  // dies outside the lock, on this thread
    return lk.lock(), true;
}

// After the stop, once the queue is empty: the stop callbacks, then the finish handler.
void finish(const kiv_thread_service_handle& s, lock_t& lk) {
    auto callbacks = std::exchange(s->stop_callbacks, {});
    auto dropped = std::make_tuple(std::exchange(s->timers, {}), std::exchange(s->join_handler, nullptr),
                                   std::exchange(s->finish_handler, nullptr));
    lk.unlock();
    for (auto& callback : callbacks) callback(s);
    if (std::get<2>(dropped)) std::get<2>(dropped)(s, s->code);
    lk.lock();
    s->finished = true;
    s->finished_cv.notify_all();
}

void loop(kiv_thread_service_handle s) {
    lock_t lk(s->lock);
    while (run_one(*s, lk) || !s->stopped) {  // queued jobs still run after a stop
        lk.unlock();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        lk.lock();
    }
    finish(s, lk);
}

template <class F>
void install(const kiv_thread_service_handle& s, F _kiv_thread_service::*slot, F f) {
    if (!s) return;
    lock_t guard(s->lock);
    if (!s->stopped) std::swap((*s).*slot, f);
}  // the replaced or refused one dies inside the call, after the unlock

unsigned long add_timer(const kiv_thread_service_handle& s, std::function<bool()> f, unsigned long ms) {
    if (!s) return 0;
    lock_t guard(s->lock);
    unsigned long id = 1;
    while (s->timers.count(id) != 0) ++id;
    if (s->stopped) return 0;  // refused: dies inside this call
    s->timers[id] = timer{std::move(f), std::chrono::steady_clock::now() + std::chrono::milliseconds(ms), ms};
    return id;
}

bool clear_timer(const kiv_thread_service_handle& s, unsigned long id) {
    timer cleared;  // dies inside this call, after the unlock
    lock_t guard(s->lock);
    const auto t = s->timers.find(id);
    if (t == s->timers.end()) return false;
    cleared = std::move(t->second);
    return s->timers.erase(t), true;
}
}  // namespace

kiv_thread_service_handle kiv_thread_service_new(std::string name) {
    auto s = boost::make_shared<_kiv_thread_service>();
    s->name = std::move(name);
    s->threadless = std::getenv("KIV_DOUBLE_THREADLESS") != nullptr;
    lock_t guard(services_lock);
    services.push_back(s);
    if (!s->threadless) std::thread(loop, s).detach();
    return s;
}
void kiv_thread_service_on_finished(kiv_thread_service_handle s, kiv_thread_service_finish_handler h) {
    install(s, &_kiv_thread_service::finish_handler, std::move(h));
}
void kiv_thread_service_set_join_handler(kiv_thread_service_handle s, kiv_thread_service_join_handler h) {
    install(s, &_kiv_thread_service::join_handler, std::move(h));
}
void kiv_thread_service_stop(kiv_thread_service_handle s, kiv_thread_service_stop_callback callback) {
    lock_t lk(s->lock);
    const bool idle = s->stopped || (!s->busy && s->jobs.empty());
    s->stopped = true;
    if (!idle) return s->stop_callbacks.push_back(std::move(callback));
    lk.unlock();
    callback(s);
}
void kiv_thread_service_exec(kiv_thread_service_handle s, std::function<void()> job, std::string, int) {
    if (!s) return;
    lock_t guard(s->lock);
    if (!s->stopped) s->jobs.push_back(std::move(job));
}  // a refused job dies inside the call, after the unlock
unsigned long kiv_thread_service_set_timeout(kiv_thread_service_handle s, std::function<void()> job,
                                             unsigned long ms, std::string, int) {
    return add_timer(s, [job = std::move(job)] { return job(), false; }, ms);
}
unsigned long kiv_thread_service_set_interval(kiv_thread_service_handle s, std::function<bool()> f,
                                              unsigned long ms, std::string, int) {
    return add_timer(s, std::move(f), ms);
}
bool kiv_thread_service_clear_timeout(kiv_thread_service_handle s, unsigned long id) { return s && clear_timer(s, id); }
bool kiv_thread_service_clear_interval(kiv_thread_service_handle s, unsigned long id) { return s && clear_timer(s, id); }
int kiv_thread_service_run_once(kiv_thread_service_handle s) {
    if (!s) return -1;
    lock_t lk(s->lock);
    int count = 0;
    for (std::size_t due = s->jobs.size() + s->timers.size(); due > 0 && run_one(*s, lk); --due) ++count;
    if (s->threadless && s->stopped && s->jobs.empty() && !s->busy && !s->finished) s->busy = true, finish(s, lk);
    return count;
}

// What the tests need as hosts: join, wait, find.
void kiv_thread_service_join(kiv_thread_service_handle s, int code) {
    lock_t lk(s->lock);
    if (s->stopped) return;
    s->code = code;
    const kiv_thread_service_join_handler handler = s->join_handler;
    lk.unlock();
    if (!handler || !handler(s, code)) kiv_thread_service_stop(s, [](kiv_thread_service_handle) {});
}
bool kiv_thread_service_wait(kiv_thread_service_handle s, long timeout_ms) {
    if (running_service == s.get()) return false;
    lock_t lk(s->lock);
    if (s->threadless) return s->finished;  // nothing would end the wait: the host pumps
    const auto done = [&] { return s->finished; };
    if (timeout_ms >= 0) return s->finished_cv.wait_for(lk, std::chrono::milliseconds(timeout_ms), done);
    s->finished_cv.wait(lk, done);
    return true;
}
kiv_thread_service_handle kiv_thread_service_find(std::string name) {
    lock_t guard(services_lock);
    for (auto weak = services.rbegin(); weak != services.rend(); ++weak) {  // the newest first
        const kiv_thread_service_handle s = weak->lock();
        if (!s || s->name != name) continue;
        const lock_t finished_guard(s->lock);
        if (!s->finished) return s;
    }
    return {};
}
