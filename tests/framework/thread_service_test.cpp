// The thread service: order, timers, shutdown, console lines, and when what callers hand over dies.

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <future>
#include <map>
#include <stdexcept>
#include <thread>

#include "framework/kiv_thread_service.h"
#include "tests/support/kiv_test_support.h"

namespace {

using namespace std::chrono_literals;
using handle = kiv_thread_service_handle;
using strings = std::vector<std::string>;

// Occupies the worker until the returned latch is set, so that work piles up behind it.
std::shared_ptr<std::promise<void>> stall(const handle& s) {
    auto release = std::make_shared<std::promise<void>>(), entered = std::make_shared<std::promise<void>>();
    kiv_thread_service_exec(s, [entered, gate = release->get_future().share()] { entered->set_value(), gate.wait(); }, "t", 0);
    entered->get_future().wait();
    return release;
}

thread_local bool in_call = false;  // set by a job around a service call that it makes

// Counts its death, and whether that came inside a service call made by whoever handed it over: this test's
// thread (which never drops one itself) or a job flagged `in_call`. Like a host's guard, it is slow to go and
// calls back into the service.
std::shared_ptr<void> guard(std::atomic<int>& dead, std::atomic<int>& inside, handle s) {
    return std::shared_ptr<void>(nullptr, [&dead, &inside, s, caller = std::this_thread::get_id()](void*) {
        std::this_thread::sleep_for(5ms);
        kiv_thread_service_clear_timeout(s, 0);
        inside += in_call || std::this_thread::get_id() == caller;
        ++dead;
    });
}

}  // namespace

TEST(ThreadService, JobsKeepEachProducersOrderAndTimersRunByDeadlineThenArmingOrder) {
    auto old = kiv_thread_service_new("old");
    const unsigned long stale = kiv_thread_service_set_interval(old, [] { return true; }, 1000, "t", 0);
    kiv_thread_service_join(old, 0);  // without a join handler: stops at once
    ASSERT_TRUE(kiv_thread_service_wait(old, 30000));
    auto s = kiv_thread_service_new("order");
    std::vector<std::vector<int>> seen(4);  // like `order` below, the worker's until the wait
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p) producers.emplace_back([&, p] {
        for (int i = 0; i < 5000; ++i) kiv_thread_service_exec(s, [&seen, p, i] { seen[p].push_back(i); }, "t", 0);
    });
    for (auto& t : producers) t.join();
    const auto token = std::make_shared<int>();
    bool released = false;
    kiv_thread_service_exec(s, [token] {}, "t", 0);
    kiv_thread_service_exec(s, [&] { released = token.use_count() == 1; }, "t", 0);
    strings order;
    auto release = stall(s);
    std::map<std::string, unsigned long> id;
    const std::pair<const char*, unsigned long> timeouts[] = {{"late", 200}, {"a", 0}, {"gone", 0}, {"b", 0}};
    for (const auto& [tag, ms] : timeouts)
        id[tag] = kiv_thread_service_set_timeout(s, [&order, tag = tag] { order.push_back(tag); }, ms, "t", 0);
    const unsigned long self = kiv_thread_service_set_interval(s, [&] {
        order.push_back("tick");
        EXPECT_TRUE(order.size() != 5 || kiv_thread_service_clear_interval(s, self));  // from inside its own callback
        return true;
    }, 1, "t", 0);
    kiv_thread_service_set_interval(s, [&] { return order.push_back("once"), false; }, 1, "t", 0);
    EXPECT_FALSE(kiv_thread_service_clear_interval(s, stale));  // ids name one timer in the whole process
    EXPECT_TRUE(kiv_thread_service_clear_timeout(s, id["gone"]));
    EXPECT_FALSE(kiv_thread_service_clear_timeout(s, id["gone"]));
    kiv_thread_service_set_timeout(s, [&] { kiv_thread_service_stop(s, nullptr); }, 250, "t", 0);
    release->set_value();
    ASSERT_TRUE(kiv_thread_service_wait(s, 30000));
    for (const auto& v : seen) for (int i = 0; i < 5000; ++i) ASSERT_EQ(v.at(i), i);
    EXPECT_TRUE(released);
    EXPECT_EQ(order, (strings{"a", "b", "tick", "once", "tick", "late"}));
}

// Stop: queued jobs run, timers are cancelled, callbacks come in order; later work is refused. What callers hand
// over never dies inside their own calls (they may hold a lock its destructor takes), and all of it is gone once
// wait has returned (a host may unload its code then).
TEST(ThreadService, StopDrainsJobsAndEverythingHandedOverDiesOnTheWorkerBeforeWaitReturns) {
    std::atomic<int> dead{0}, inside{0};
    auto s = kiv_thread_service_new("stopper");
    auto g = [&] { return guard(dead, inside, s); };
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
    release->set_value();
    ASSERT_TRUE(kiv_thread_service_wait(s, 30000));
    EXPECT_EQ(dead, 12);
    EXPECT_EQ(inside, 0);
    kiv_thread_service_join(s, 9);
    kiv_thread_service_stop(s, [&](handle) { events.push_back("at once"); });
    kiv_thread_service_exec(s, [p = g()] {}, "t", 0);  // no worker left: it dies at once
    EXPECT_EQ(dead, 13);
    EXPECT_EQ(events, (strings{"join7", "job", "stop1", "stop2", "finish7", "at once"}));
}

// run_once runs what is due now on the calling thread; a throwing job or timer
// is one error line; an empty handle is one warning line per call.
TEST(ThreadService, RunOnceAndConsoleLinesForThrowingWorkAndEmptyHandles) {
    kiv_test::cout_capture out;
    auto s = kiv_thread_service_new("run-once");
    strings events;  // the worker's until the wait
    kiv_thread_service_exec(s, [] {}, "t", 0);  // this thread's last file name, then another
    kiv_thread_service_exec(s, [] { throw std::runtime_error("boom"); }, "src/a.cpp", 42);
    kiv_thread_service_set_interval(s, [&, n = 0]() mutable -> bool {
        if (++n == 1) throw std::logic_error("tick");  // and it keeps ticking
        kiv_thread_service_exec(s, [&] {  // then run_once from the worker
            events.push_back("job");
            kiv_thread_service_exec(s, [&] { events.push_back("added"); }, "t", 0);
        }, "t", 0);
        kiv_thread_service_set_timeout(s, [&] { events.push_back("due"); }, 0, "t", 0);
        kiv_thread_service_set_timeout(s, [&] { events.push_back("later"); }, 60000, "t", 0);
        events.push_back("returned " + std::to_string(kiv_thread_service_run_once(s)));  // how many it ran
        kiv_thread_service_stop(s, nullptr);  // after "added" was queued: it runs
        return false;
    }, 1, "c.cpp", 9);
    ASSERT_TRUE(kiv_thread_service_wait(s, 30000));
    EXPECT_EQ(events, (strings{"job", "due", "returned 2", "added"}));
    const std::string e = kiv_test::error_banner + "exception in ";
    EXPECT_EQ(out.take(), e + "job scheduled at src/a.cpp:42: boom\n" + e + "timer scheduled at c.cpp:9: tick\n");
    const handle n;
    kiv_thread_service_on_finished(n, {}), kiv_thread_service_set_join_handler(n, {}), kiv_thread_service_stop(n, {});
    kiv_thread_service_exec(n, {}, "t", 0), kiv_thread_service_join(n, 1);
    EXPECT_EQ(kiv_thread_service_set_timeout(n, {}, 0, "t", 0) + kiv_thread_service_set_interval(n, {}, 0, "t", 0), 0u);
    EXPECT_FALSE(kiv_thread_service_clear_timeout(n, 1) || kiv_thread_service_clear_interval(n, 1));
    EXPECT_TRUE(kiv_thread_service_run_once(n) == -1 && !kiv_thread_service_wait(n));
    std::string expected;
    for (const char* f : {"on_finished", "set_join_handler", "stop", "exec", "join", "set_timeout", "set_interval",
                          "clear_timeout", "clear_interval", "run_once", "wait"})
        expected += kiv_test::null_object_line(std::string("kiv_thread_service_") + f);
    EXPECT_EQ(out.str(), expected);
    EXPECT_EQ(out.flushes(), 13);  // one per line
}

// A host that exits without joining: queued jobs still run, then the finish handler, and the exit does not hang.
TEST(ThreadService, ExitWithoutJoinRunsQueuedJobsThenFinishes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the process runs afresh, with no service yet
    EXPECT_EXIT(([] {
        alarm(30);  // a hang ends the process by a signal
        static std::atomic<bool> job_ran{false};
        auto busy = kiv_thread_service_new("busy");
        kiv_thread_service_on_finished(busy, [](handle, int) { _exit(job_ran ? 7 : 6); });  // the exit status
        kiv_thread_service_exec(busy, [] { std::this_thread::sleep_for(20ms), job_ran = true; }, "t", 0);
        kiv_thread_service_set_timeout(busy, [] { _exit(4); }, 60000, "t", 0);
        std::exit(0);
    }()), testing::ExitedWithCode(7), "");
}
