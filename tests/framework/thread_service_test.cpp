// The thread service: order, timers, shutdown, console lines, and when what callers hand over dies.

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <future>
#include <stdexcept>
#include <thread>

#include "framework/kiv_thread_service.h"
#include "tests/support/kiv_test_support.h"

// A forked copy of a running service is referenced only from a worker stack that the child
// does not have: the leak checker, which asks this at exit, is turned off there.
static volatile int leak_check_off = 0;
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() { return leak_check_off; }

namespace {

using namespace std::chrono_literals;
using handle = kiv_thread_service_handle;
using strings = std::vector<std::string>;
using latch = std::shared_ptr<std::promise<void>>;

// Occupies the worker until the returned latch is set, so that work piles up behind it.
latch stall(const handle& s) {
    latch release = std::make_shared<std::promise<void>>(), entered = std::make_shared<std::promise<void>>();
    kiv_thread_service_exec(s, [entered, gate = release->get_future().share()] { entered->set_value(), gate.wait(); }, "t", 0);
    entered->get_future().wait();
    return release;
}

thread_local bool in_call = false;  // set by a job around a service call that it makes

// Counts its death, and whether that came inside a service call made by whoever handed it over:
// this test's thread (which never drops one itself) or a job flagged `in_call`. Like a host's
// guard, it is slow to go and calls back into the service.
struct guard {
    guard(std::atomic<int>& d, std::atomic<int>& i, handle s) : dead(d), inside(i), service(std::move(s)) {}
    ~guard() {
        std::this_thread::sleep_for(5ms);
        kiv_thread_service_clear_timeout(service, 0);
        inside += in_call || std::this_thread::get_id() == caller;
        ++dead;
    }
    std::atomic<int>&dead, &inside;
    const handle service;
    const std::thread::id caller = std::this_thread::get_id();
};

}  // namespace

TEST(ThreadService, JobsRunInOrderOnTheWorkerAndDropWhatTheyCapturedAtOnce) {
    auto s = kiv_thread_service_new("a-rather-long-service-name");
    std::vector<std::vector<int>> seen(4);  // the worker's until the wait
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p) producers.emplace_back([&, p] {
        for (int i = 0; i < 5000; ++i) kiv_thread_service_exec(s, [&seen, p, i] { seen[p].push_back(i); }, "t", 0);
    });
    for (auto& t : producers) t.join();
    auto token = std::make_shared<int>();
    const std::weak_ptr<int> watch = token;
    bool released = false;
    char name[16] = {};
    kiv_thread_service_exec(s, [token = std::move(token)] {}, "t", 0);
    kiv_thread_service_exec(s, [&] { released = watch.expired(), pthread_getname_np(pthread_self(), name, 16); }, "t", 0);
    const std::clock_t before = std::clock();  // the process's CPU time: an idle worker sleeps
    std::this_thread::sleep_for(100ms);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 50);
    kiv_thread_service_stop(s, nullptr);
    ASSERT_TRUE(kiv_thread_service_wait(s, 30000));
    for (const auto& v : seen) for (int i = 0; i < 5000; ++i) ASSERT_EQ(v.at(i), i);
    EXPECT_TRUE(released);
    EXPECT_STREQ(name, "a-rather-long-s");
}

TEST(ThreadService, TimersRunByDeadlineThenArmingOrderAndIdsNameOneTimerInTheProcess) {
    auto old = kiv_thread_service_new("old");
    const unsigned long stale = kiv_thread_service_set_interval(old, [] { return true; }, 1000, "t", 0);
    kiv_thread_service_join(old, 0);  // without a join handler: stops at once
    ASSERT_TRUE(kiv_thread_service_wait(old, 30000));
    auto s = kiv_thread_service_new("timers");
    strings order;  // the worker's until the wait
    auto release = stall(s);
    auto add = [&](const char* tag, unsigned long ms) {
        return kiv_thread_service_set_timeout(s, [&order, tag] { order.push_back(tag); }, ms, "t", 0);
    };
    add("late", 200), add("a", 0);
    const unsigned long gone = add("gone", 0);
    add("b", 0);
    const unsigned long self = kiv_thread_service_set_interval(s, [&] {
        order.push_back("tick");
        EXPECT_TRUE(order.size() != 5 || kiv_thread_service_clear_interval(s, self));  // from inside its own callback
        return true;
    }, 1, "t", 0);
    kiv_thread_service_set_interval(s, [&] { return order.push_back("once"), false; }, 1, "t", 0);
    EXPECT_FALSE(kiv_thread_service_clear_interval(s, stale));
    EXPECT_TRUE(kiv_thread_service_clear_timeout(s, gone));
    EXPECT_FALSE(kiv_thread_service_clear_timeout(s, gone));
    kiv_thread_service_set_timeout(s, [&] { kiv_thread_service_stop(s, nullptr); }, 250, "t", 0);
    release->set_value();
    ASSERT_TRUE(kiv_thread_service_wait(s, 30000));
    EXPECT_FALSE(kiv_thread_service_find("timers"));
    EXPECT_EQ(order, (strings{"a", "b", "tick", "once", "tick", "late"}));
}

// Stop: queued jobs run, timers are cancelled, callbacks come in order; later work is refused. What callers hand
// over never dies inside their own calls (they may hold a lock its destructor takes), and all of it is gone once
// wait has returned (a host may unload its code then).
TEST(ThreadService, StopDrainsJobsAndEverythingHandedOverDiesOnTheWorkerBeforeWaitReturns) {
    kiv_test::cout_capture out;
    std::atomic<int> dead{0}, inside{0};
    auto s = kiv_thread_service_new("stopper");
    auto g = [&] { return std::make_shared<guard>(dead, inside, s); };
    EXPECT_EQ(kiv_thread_service_find("stopper"), s);
    strings events;  // this thread's until the release, then the worker's
    kiv_thread_service_on_finished(s, [p = g()](handle, int) {});  // replaced below
    kiv_thread_service_set_join_handler(s, [p = g()](handle, int) { return false; });
    kiv_thread_service_set_join_handler(s, [&, p = g()](handle, int code) {
        return events.push_back("join" + std::to_string(code)), true;  // defers the stop
    });
    kiv_thread_service_on_finished(s, [&, p = g()](handle h, int code) {
        events.push_back("finish" + std::to_string(code) + (h == s ? "" : "?"));
    });
    const unsigned long timeout = kiv_thread_service_set_timeout(s, [p = g()] {}, 60000, "t", 0);
    const unsigned long interval = kiv_thread_service_set_interval(s, [p = g()] { return true; }, 60000, "t", 0);
    const unsigned long by_job = kiv_thread_service_set_timeout(s, [p = g()] {}, 60000, "t", 0);
    EXPECT_TRUE(kiv_thread_service_clear_timeout(s, timeout) && kiv_thread_service_clear_interval(s, interval));
    kiv_thread_service_exec(s, [&] { in_call = true, kiv_thread_service_clear_timeout(s, by_job), in_call = false; }, "t", 0);
    auto release = stall(s);
    kiv_thread_service_exec(s, [&] { events.push_back("job"); }, "t", 0);
    kiv_thread_service_set_timeout(s, [&, p = g()] { events.push_back("timer"); }, 0, "t", 0);
    kiv_thread_service_join(s, 7);
    for (const char* tag : {"stop1", "stop2"}) {
        kiv_thread_service_stop(s, [&events, tag, p = g()](handle) { events.push_back(tag); });
        kiv_thread_service_join(s, 8);  // a stop is under way: the handler is not asked again
    }
    kiv_thread_service_exec(s, [p = g()] {}, "t", 0);
    EXPECT_EQ(kiv_thread_service_set_timeout(s, [p = g()] {}, 0, "t", 0), 0u);
    EXPECT_EQ(kiv_thread_service_set_interval(s, [] { return true; }, 1, "t", 0), 0u);
    release->set_value();
    ASSERT_TRUE(kiv_thread_service_wait(s, 30000));
    EXPECT_EQ(dead, 12);
    EXPECT_EQ(inside, 0);
    kiv_thread_service_join(s, 9);
    kiv_thread_service_stop(s, [&](handle) { events.push_back("at once"); });
    kiv_thread_service_exec(s, [p = g()] {}, "t", 0);  // no worker left: it dies at once
    EXPECT_EQ(dead, 13);
    EXPECT_EQ(events, (strings{"join7", "job", "stop1", "stop2", "finish7", "at once"}));
    std::string refused;
    for (const char* what : {"job", "timeout", "interval", "job"}) {
        refused += kiv_test::warning_banner + what + " handed to a stopped thread service: " + kiv_test::coloured("stopper") + "\n";
    }
    EXPECT_EQ(out.take(), refused);
    EXPECT_FALSE(kiv_thread_service_find("stopper"));
}

// run_once runs what is due now on the calling thread, never beside the worker; a throwing job or timer
// is one error line; an empty handle is one warning line per call.
TEST(ThreadService, RunOnceAndConsoleLinesForThrowingWorkAndEmptyHandles) {
    kiv_test::cout_capture out;
    auto s = kiv_thread_service_new("run-once");
    auto release = stall(s);
    std::atomic<bool> over{false};
    std::thread later([&] { std::this_thread::sleep_for(20ms), over = true, release->set_value(); });
    EXPECT_EQ(kiv_thread_service_run_once(s), 0);  // only once the worker's job is over
    EXPECT_TRUE(over);
    later.join();
    strings events;  // the worker's until the wait
    int ran = -1;
    kiv_thread_service_exec(s, [] { throw std::runtime_error("boom"); }, "src/a.cpp", 42);
    kiv_thread_service_exec(s, [] { throw 7; }, "b.cpp", 7);
    kiv_thread_service_set_interval(s, [&, n = 0]() mutable -> bool {
        if (++n == 1) throw std::logic_error("tick");  // and it keeps ticking
        kiv_thread_service_exec(s, [&] {  // run_once from a job on the worker
            kiv_thread_service_exec(s, [&] {
                events.push_back("job");
                kiv_thread_service_exec(s, [&] { events.push_back("added"); }, "t", 0);
            }, "t", 0);
            kiv_thread_service_set_timeout(s, [&] { events.push_back("due"); }, 0, "t", 0);
            kiv_thread_service_set_timeout(s, [&] { events.push_back("later"); }, 60000, "t", 0);
            ran = kiv_thread_service_run_once(s);
            events.push_back("returned");
            kiv_thread_service_stop(s, nullptr);  // after "added" was queued: it runs
        }, "t", 0);
        return false;
    }, 1, "c.cpp", 9);
    ASSERT_TRUE(kiv_thread_service_wait(s, 30000));
    EXPECT_EQ(ran, 2);
    EXPECT_EQ(events, (strings{"job", "due", "returned", "added"}));
    const std::string e = kiv_test::error_banner + "exception in ";
    EXPECT_EQ(out.take(), e + "job scheduled at src/a.cpp:42: boom\n" + e + "job scheduled at b.cpp:7: unknown exception\n" +
                              e + "timer scheduled at c.cpp:9: tick\n");
    const handle n;
    kiv_thread_service_on_finished(n, {}), kiv_thread_service_set_join_handler(n, {}), kiv_thread_service_stop(n, {});
    kiv_thread_service_exec(n, {}, "t", 0), kiv_thread_service_join(n, 1);
    EXPECT_EQ(kiv_thread_service_set_timeout(n, {}, 0, "t", 0) + kiv_thread_service_set_interval(n, {}, 0, "t", 0), 0u);
    EXPECT_FALSE(kiv_thread_service_clear_timeout(n, 1) || kiv_thread_service_clear_interval(n, 1));
    EXPECT_TRUE(kiv_thread_service_run_once(n) == -1 && !kiv_thread_service_wait(n));
    std::string expected;
    for (const char* f : {"on_finished", "set_join_handler", "stop", "exec", "join", "set_timeout", "set_interval",
                          "clear_timeout", "clear_interval", "run_once", "wait"}) {
        expected += kiv_test::null_object_line(std::string("kiv_thread_service_") + f);
    }
    EXPECT_EQ(out.str(), expected);
    EXPECT_EQ(out.flushes(), 14);
}

// A host that exits without joining: queued jobs still run, then the finish handler, and the exit does not hang.
// A child forked meanwhile neither runs nor waits for the parent's work.
TEST(ThreadService, ExitWithoutJoinFinishesAndAForkedChildIgnoresTheParentsServices) {
    std::cout.flush();
    const pid_t child = fork();  // before this process has any service
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(30);  // a hang ends the child by a signal
        static std::atomic<bool> job_ran{false};
        auto busy = kiv_thread_service_new("busy");
        kiv_thread_service_on_finished(busy, [](handle, int) { _exit(job_ran ? 7 : 6); });  // the child's status
        kiv_thread_service_exec(busy, [] { std::this_thread::sleep_for(20ms); }, "t", 0);
        const pid_t grandchild = fork();
        if (grandchild == 0) leak_check_off = 1, std::exit(0);
        int status = 0;
        if (waitpid(grandchild, &status, 0) != grandchild || status != 0) _exit(5);
        kiv_thread_service_exec(busy, [] { job_ran = true; }, "t", 0);
        kiv_thread_service_set_timeout(busy, [] { _exit(4); }, 60000, "t", 0);
        std::exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << "status " << status;
}
