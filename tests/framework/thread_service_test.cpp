// The thread service: ordering, timers, stop/join/finish, console lines and exit behaviour.

#include <gtest/gtest.h>

#include <boost/weak_ptr.hpp>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "framework/kiv_thread_service.h"
#include "tests/support/kiv_test_support.h"

// The leak checker asks this at exit. A forked child turns it off: its copy of the parent's
// queues is referenced only from the worker's stack, and that thread does not exist there.
static volatile int leak_check_off = 0;
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() { return leak_check_off; }

namespace {

using kiv_test::coloured;
using kiv_test::warning_banner;

// Hang guard only: a correct service finishes in milliseconds.
constexpr long hang_guard_ms = 30000;

// A one-shot signal between threads.
struct gate {
    std::promise<void> promise;
    std::shared_future<void> future = promise.get_future().share();
    void open() { promise.set_value(); }
    bool wait() const {
        return future.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    }
};

// Occupies the worker until the returned gate opens, so that work piles up behind it.
std::shared_ptr<gate> stall(const kiv_thread_service_handle& s) {
    auto release = std::make_shared<gate>();
    auto entered = std::make_shared<gate>();
    kiv_thread_service_exec(s, [release, entered] { entered->open(); release->wait(); }, "t", 0);
    entered->wait();
    return release;
}

void stop_and_wait(const kiv_thread_service_handle& s) {
    kiv_thread_service_stop(s, nullptr);
    ASSERT_TRUE(kiv_thread_service_wait(s, hang_guard_ms));
}

std::string stopped_line(const char* what, const std::string& name) {
    return warning_banner + what + " handed to a stopped thread service: " + coloured(name) + "\n";
}

}  // namespace

TEST(ThreadService, JobsRunOnTheWorkerInFifoOrder) {
    auto s = kiv_thread_service_new("a-rather-long-service-name");
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    std::string thread_name;
    std::mutex caller_lock;  // held across the calls, as the library holds its own
    {
        std::lock_guard<std::mutex> guard(caller_lock);
        kiv_thread_service_exec(s, [&] {
            char buf[32] = {};
            pthread_getname_np(pthread_self(), buf, sizeof buf);
            thread_name = buf;
        }, "t", 0);
        for (int i = 0; i < 1000; ++i) {
            kiv_thread_service_exec(s, [&, i] {
                std::lock_guard<std::mutex> inner(caller_lock);
                order.push_back(i);
                threads.push_back(std::this_thread::get_id());
            }, "t", 0);
        }
    }
    stop_and_wait(s);
    ASSERT_EQ(order.size(), 1000u);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(order[i], i);
    for (const auto& id : threads) EXPECT_NE(id, std::this_thread::get_id());
    EXPECT_EQ(thread_name, "a-rather-long-s");
}

TEST(ThreadService, TimersRunByDeadlineThenSchedulingOrderAndCanBeCleared) {
    auto s = kiv_thread_service_new("timers");
    std::vector<std::string> order;  // touched by the worker only until the stop
    auto done = std::make_shared<gate>();
    auto release = stall(s);
    auto record = [&](const char* tag) { return [&order, tag] { order.push_back(tag); }; };
    const unsigned long a = kiv_thread_service_set_timeout(s, [&, done] {
        order.push_back("a");
        done->open();
    }, 150, "t", 0);
    const unsigned long b = kiv_thread_service_set_timeout(s, record("b"), 0, "t", 0);
    const unsigned long c = kiv_thread_service_set_timeout(s, record("c"), 0, "t", 0);
    const unsigned long d = kiv_thread_service_set_timeout(s, record("d"), 50, "t", 0);
    const unsigned long f = kiv_thread_service_set_timeout(s, record("f"), 0, "t", 0);
    const unsigned long e = kiv_thread_service_set_timeout(s, record("e"), 0, "t", 0);
    const std::vector<unsigned long> ids{a, b, c, d, e, f};
    for (std::size_t i = 0; i < ids.size(); ++i) {
        EXPECT_NE(ids[i], 0u);
        for (std::size_t j = 0; j < i; ++j) EXPECT_NE(ids[i], ids[j]);
    }
    EXPECT_TRUE(kiv_thread_service_clear_timeout(s, f));
    EXPECT_FALSE(kiv_thread_service_clear_timeout(s, f));
    EXPECT_FALSE(kiv_thread_service_clear_timeout(s, 987654321));
    release->open();
    ASSERT_TRUE(done->wait());
    EXPECT_FALSE(kiv_thread_service_clear_timeout(s, b));  // already fired
    stop_and_wait(s);
    EXPECT_EQ(order, (std::vector<std::string>{"b", "c", "e", "d", "a"}));
}

TEST(ThreadService, TimersClearedFromInsideCallbacks) {
    auto s = kiv_thread_service_new("clearing");
    // Worker only until the stop; the ids are written before the worker is released.
    unsigned long victim = 0, fired = 0, self = 0, quitter = 0;
    int victim_runs = 0, self_runs = 0, quitter_runs = 0;
    bool cleared_victim = false, cleared_fired = true, cleared_self = false, quitter_gone = false;
    auto release = stall(s);
    auto clears = [&](bool& result, unsigned long& id) {
        return [&] { result = kiv_thread_service_clear_timeout(s, id); };
    };
    kiv_thread_service_set_timeout(s, clears(cleared_victim, victim), 0, "t", 0);
    victim = kiv_thread_service_set_timeout(s, [&] { ++victim_runs; }, 0, "t", 0);
    fired = kiv_thread_service_set_timeout(s, clears(cleared_fired, fired), 0, "t", 0);
    self = kiv_thread_service_set_interval(s, [&] {
        if (++self_runs == 2) cleared_self = kiv_thread_service_clear_interval(s, self);
        return true;
    }, 1, "t", 0);
    auto done = std::make_shared<gate>();
    quitter = kiv_thread_service_set_interval(s, [&, done] {
        if (++quitter_runs < 3) return true;
        kiv_thread_service_exec(s, [&, done] {  // runs once the callback has returned false
            quitter_gone = !kiv_thread_service_clear_interval(s, quitter);
            done->open();
        }, "t", 0);
        return false;
    }, 1, "t", 0);
    release->open();
    ASSERT_TRUE(done->wait());  // the self-clearing interval, armed first, ran twice by then
    EXPECT_FALSE(kiv_thread_service_clear_interval(s, self));
    stop_and_wait(s);
    EXPECT_TRUE(cleared_victim);
    EXPECT_EQ(victim_runs, 0);
    EXPECT_FALSE(cleared_fired);
    EXPECT_TRUE(cleared_self);
    EXPECT_EQ(self_runs, 2);
    EXPECT_TRUE(quitter_gone);
    EXPECT_EQ(quitter_runs, 3);
}

TEST(ThreadService, StopDrainsQueuedJobsCancelsTimersAndRefusesLaterWork) {
    kiv_test::cout_capture out;
    auto s = kiv_thread_service_new("stopper");
    std::vector<std::string> events;  // worker only until the wait
    int timer_runs = 0;
    std::thread::id callback_thread;
    auto release = stall(s);
    for (int i = 0; i < 3; ++i) {
        kiv_thread_service_exec(s, [&, i] { events.push_back("job" + std::to_string(i)); }, "t", 0);
    }
    const unsigned long due = kiv_thread_service_set_timeout(s, [&] { ++timer_runs; }, 0, "t", 0);
    kiv_thread_service_set_interval(s, [&] { return ++timer_runs > 0; }, 1, "t", 0);
    kiv_thread_service_on_finished(s, [&](kiv_thread_service_handle h, int code) {
        events.push_back("finish" + std::to_string(code) + (h == s ? "" : "?"));
    });
    kiv_thread_service_stop(s, [&](kiv_thread_service_handle h) {
        events.push_back(h == s ? "stop1" : "stop1?");
        callback_thread = std::this_thread::get_id();
    });
    kiv_thread_service_stop(s, [&](kiv_thread_service_handle) { events.push_back("stop2"); });
    release->open();
    ASSERT_TRUE(kiv_thread_service_wait(s, hang_guard_ms));
    EXPECT_EQ(events, (std::vector<std::string>{"job0", "job1", "job2", "stop1", "stop2",
                                                "finish0"}));
    EXPECT_EQ(timer_runs, 0);
    EXPECT_NE(callback_thread, std::this_thread::get_id());
    EXPECT_FALSE(kiv_thread_service_clear_timeout(s, due));
    EXPECT_EQ(out.take(), "");

    // A stop request on a stopped service calls back at once, here.
    bool inline_called = false;
    kiv_thread_service_stop(s, [&](kiv_thread_service_handle h) { inline_called = h == s; });
    EXPECT_TRUE(inline_called);

    // Later work is released unrun, with a warning.
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> watch = token;
    bool ran = false;
    kiv_thread_service_exec(s, [&ran, token] { ran = true; }, "t", 0);
    token.reset();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(kiv_thread_service_set_timeout(s, [&] { ran = true; }, 0, "t", 0), 0u);
    EXPECT_EQ(kiv_thread_service_set_interval(s, [&] { return ran = true; }, 1, "t", 0), 0u);
    EXPECT_EQ(kiv_thread_service_run_once(s), 0);
    EXPECT_FALSE(ran);
    EXPECT_EQ(out.take(), stopped_line("job", "stopper") + stopped_line("timeout", "stopper") +
                              stopped_line("interval", "stopper"));
    EXPECT_EQ(out.flushes(), 3);
}

TEST(ThreadService, StopFromInsideAJobStillRunsEarlierJobs) {
    kiv_test::cout_capture out;
    auto s = kiv_thread_service_new("self-stop");
    std::vector<std::string> events;
    auto release = stall(s);
    kiv_thread_service_exec(s, [&] {
        kiv_thread_service_stop(s, [&](kiv_thread_service_handle) { events.push_back("stopped"); });
        kiv_thread_service_exec(s, [&] { events.push_back("late"); }, "t", 0);
        events.push_back("stopper");
    }, "t", 0);
    kiv_thread_service_exec(s, [&] { events.push_back("queued"); }, "t", 0);
    release->open();
    ASSERT_TRUE(kiv_thread_service_wait(s, hang_guard_ms));
    EXPECT_EQ(events, (std::vector<std::string>{"stopper", "queued", "stopped"}));
    EXPECT_EQ(out.take(), stopped_line("job", "self-stop"));
}

TEST(ThreadService, FinishHandlerMayDropTheLastHandle) {
    boost::weak_ptr<_kiv_thread_service> watch;
    auto finished = std::make_shared<gate>();
    {
        auto s = kiv_thread_service_new("dropper");
        watch = s;
        auto held = std::make_shared<kiv_thread_service_handle>(s);
        kiv_thread_service_on_finished(s, [held, finished](kiv_thread_service_handle h, int) {
            h.reset();
            held->reset();
            finished->open();
        });
        // A handler holding the service must not keep it alive once it has finished.
        using handle = kiv_thread_service_handle;
        kiv_thread_service_set_join_handler(s, [s](handle, int) { return false; });
        kiv_thread_service_stop(s, nullptr);
    }
    ASSERT_TRUE(finished->wait());
    // The worker lets go of itself right after the handler; poll, bounded.
    for (int i = 0; i < 3000 && !watch.expired(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(watch.expired());
}

TEST(ThreadService, JoinHandlerMayDeferTheStopAndTheFinishHandlerGetsTheCode) {
    auto s = kiv_thread_service_new("deferring");
    EXPECT_EQ(kiv_thread_service_find("deferring"), s);
    std::vector<std::string> events;  // each step hands over to the next through the service
    kiv_thread_service_set_join_handler(s, [&](kiv_thread_service_handle h, int code) {
        events.push_back("join" + std::to_string(code) + (h == s ? "" : "?"));
        return true;
    });
    kiv_thread_service_on_finished(s, [&](kiv_thread_service_handle, int code) {
        events.push_back("finish" + std::to_string(code));
    });
    kiv_thread_service_join(s, 7);
    events.push_back("join returned");
    EXPECT_FALSE(kiv_thread_service_wait(s, 20));  // it goes on until something stops it
    bool worker_wait_result = true;
    kiv_thread_service_exec(s, [&] {
        worker_wait_result = kiv_thread_service_wait(s, -1);  // its own worker: no wait
        events.push_back("job");
        kiv_thread_service_stop(s, nullptr);
    }, "t", 0);
    ASSERT_TRUE(kiv_thread_service_wait(s, hang_guard_ms));
    EXPECT_FALSE(worker_wait_result);
    EXPECT_EQ(events, (std::vector<std::string>{"join7", "join returned", "job", "finish7"}));
    EXPECT_FALSE(kiv_thread_service_find("deferring"));

    // Without a join handler, or with one returning false, the join stops at once.
    auto plain = kiv_thread_service_new("plain");
    auto refusing = kiv_thread_service_new("refusing");
    int plain_code = -1, refusing_code = -1;
    using handle = kiv_thread_service_handle;
    kiv_thread_service_on_finished(plain, [&](handle, int c) { plain_code = c; });
    kiv_thread_service_on_finished(refusing, [&](handle, int c) { refusing_code = c; });
    kiv_thread_service_set_join_handler(refusing, [](handle, int) { return false; });
    kiv_thread_service_join(plain, 3);
    kiv_thread_service_join(refusing, 4);
    ASSERT_TRUE(kiv_thread_service_wait(plain, hang_guard_ms));
    ASSERT_TRUE(kiv_thread_service_wait(refusing, hang_guard_ms));
    EXPECT_EQ(plain_code, 3);
    EXPECT_EQ(refusing_code, 4);
}

TEST(ThreadService, JoinAllJoinsAndWaitsForEveryService) {
    auto quick = kiv_thread_service_new("quick");
    auto slow = kiv_thread_service_new("slow");
    std::atomic<int> quick_code{-1}, slow_code{-1};
    using handle = kiv_thread_service_handle;
    kiv_thread_service_on_finished(quick, [&](handle, int c) { quick_code = c; });
    kiv_thread_service_on_finished(slow, [&](handle, int c) { slow_code = c; });
    kiv_thread_service_set_join_handler(slow, [](kiv_thread_service_handle h, int) {
        kiv_thread_service_set_timeout(h, [h] { kiv_thread_service_stop(h, nullptr); }, 20, "t", 0);
        return true;
    });
    kiv_thread_service_join_all(5);
    EXPECT_TRUE(kiv_thread_service_wait(quick, 0));
    EXPECT_TRUE(kiv_thread_service_wait(slow, 0));
    EXPECT_EQ(quick_code, 5);
    EXPECT_EQ(slow_code, 5);
}

TEST(ThreadService, ExceptionsAreReportedAndTheServiceKeepsRunning) {
    kiv_test::cout_capture out;
    auto s = kiv_thread_service_new("throwing");
    auto done = std::make_shared<gate>();
    int ticks = 0;
    kiv_thread_service_exec(s, [] { throw std::runtime_error("boom"); }, "src/a.cpp", 42);
    kiv_thread_service_exec(s, [] { throw 7; }, "b.cpp", 7);
    kiv_thread_service_set_timeout(s, [] { throw std::logic_error("late"); }, 0, "c.cpp", 9);
    kiv_thread_service_set_interval(s, [&, done]() -> bool {
        if (++ticks == 1) throw std::runtime_error("tick");
        done->open();
        return false;
    }, 1, "d.cpp", 11);
    ASSERT_TRUE(done->wait());
    stop_and_wait(s);
    const std::string e = kiv_test::error_banner;
    EXPECT_EQ(out.str(), e + "exception in job scheduled at src/a.cpp:42: boom\n" + e +
                             "exception in job scheduled at b.cpp:7: unknown exception\n" + e +
                             "exception in timer scheduled at c.cpp:9: late\n" + e +
                             "exception in timer scheduled at d.cpp:11: tick\n");
    EXPECT_EQ(out.flushes(), 4);
    EXPECT_EQ(ticks, 2);
}

TEST(ThreadService, EmptyHandlesWarnAndReturnDefaults) {
    kiv_test::cout_capture out;
    const kiv_thread_service_handle none;
    bool called = false;
    kiv_thread_service_on_finished(none, [&](kiv_thread_service_handle, int) { called = true; });
    kiv_thread_service_set_join_handler(none, [&](kiv_thread_service_handle, int) {
        return called = true;
    });
    kiv_thread_service_stop(none, [&](kiv_thread_service_handle) { called = true; });
    kiv_thread_service_exec(none, [&] { called = true; }, "t", 0);
    EXPECT_EQ(kiv_thread_service_set_timeout(none, [&] { called = true; }, 0, "t", 0), 0u);
    EXPECT_EQ(kiv_thread_service_set_interval(none, [&] { return called = true; }, 1, "t", 0), 0u);
    EXPECT_FALSE(kiv_thread_service_clear_timeout(none, 1));
    EXPECT_FALSE(kiv_thread_service_clear_interval(none, 1));
    EXPECT_EQ(kiv_thread_service_run_once(none), -1);
    kiv_thread_service_join(none, 1);
    EXPECT_FALSE(kiv_thread_service_wait(none));
    EXPECT_FALSE(called);
    std::string expected;
    for (const char* f : {"kiv_thread_service_on_finished", "kiv_thread_service_set_join_handler",
                          "kiv_thread_service_stop", "kiv_thread_service_exec",
                          "kiv_thread_service_set_timeout", "kiv_thread_service_set_interval",
                          "kiv_thread_service_clear_timeout", "kiv_thread_service_clear_interval",
                          "kiv_thread_service_run_once", "kiv_thread_service_join",
                          "kiv_thread_service_wait"}) {
        expected += kiv_test::null_object_line(f);
    }
    EXPECT_EQ(out.take(), expected);
    EXPECT_EQ(out.flushes(), 11);
    EXPECT_FALSE(kiv_thread_service_find("no such service"));
    kiv_thread_service_join_all(0);  // nothing live: returns at once
    EXPECT_EQ(out.str(), "");
}

// Waits for a child process up to `timeout_ms`; kills it and returns false if it hangs.
bool wait_for_child(pid_t child, int& status, long timeout_ms) {
    for (long waited = 0; waited <= timeout_ms; waited += 10) {
        if (waitpid(child, &status, WNOHANG) == child) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return false;
}

TEST(ThreadService, HostExitingWithoutJoinExitsCleanly) {
    // Fork before any service exists here: the child starts from one thread.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(fds[0]);
        const int w = fds[1];
        auto busy = kiv_thread_service_new("busy");
        auto idle = kiv_thread_service_new("idle");
        kiv_thread_service_on_finished(busy, [w](kiv_thread_service_handle, int) {
            if (write(w, "F", 1) != 1) _exit(3);
        });
        for (int i = 0; i < 20; ++i) {
            kiv_thread_service_exec(
                busy, [] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }, "t", 0);
        }
        kiv_thread_service_exec(busy, [w] { if (write(w, "J", 1) != 1) _exit(3); }, "t", 0);
        kiv_thread_service_set_timeout(busy, [] { _exit(4); }, 60000, "t", 0);
        kiv_thread_service_set_interval(idle, [] { return true; }, 1, "t", 0);
        // The idle service's own finish handler holds its last handle.
        kiv_thread_service_on_finished(idle, [idle](kiv_thread_service_handle, int) {});
        std::exit(0);
    }
    close(fds[1]);
    int status = 0;
    if (!wait_for_child(child, status, hang_guard_ms)) {
        close(fds[0]);
        FAIL() << "the child hung at exit";
    }
    std::string seen;
    char c;
    while (read(fds[0], &c, 1) == 1) seen.push_back(c);
    close(fds[0]);
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(seen, "JF");  // queued jobs drained, then finished, before the exit completed
}

// A process that forks while a service runs: the child has no worker thread, so its exit must
// not wait for one; the parent's service carries on untouched.
TEST(ThreadService, ForkedChildExitsWithoutWaitingForTheParentsWorkers) {
    const kiv_thread_service_handle service = kiv_thread_service_new("parent");
    std::promise<void> ran;
    kiv_thread_service_exec(service, [&ran] { ran.set_value(); }, "t", 0);
    ran.get_future().wait();  // the worker is up
    std::cout.flush();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        leak_check_off = 1;
        std::exit(0);  // runs the exit-time teardown
    }
    int status = 0;
    ASSERT_TRUE(wait_for_child(child, status, 10000)) << "the child hung at exit";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    std::promise<void> again;
    kiv_thread_service_exec(service, [&again] { again.set_value(); }, "t", 0);
    EXPECT_EQ(again.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    kiv_thread_service_join(service, 0);
    EXPECT_TRUE(kiv_thread_service_wait(service, hang_guard_ms));
}

TEST(ThreadService, ManyProducersLoseNothing) {
    constexpr int producers = 8;
    constexpr int jobs = 10000;
    auto s = kiv_thread_service_new("producers");
    std::vector<std::vector<int>> seen(producers);  // written by the worker only
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < jobs; ++i) {
                kiv_thread_service_exec(s, [&seen, p, i] { seen[p].push_back(i); }, "t", 0);
            }
        });
    }
    for (auto& t : threads) t.join();
    stop_and_wait(s);
    for (int p = 0; p < producers; ++p) {
        ASSERT_EQ(seen[p].size(), static_cast<std::size_t>(jobs));
        for (int i = 0; i < jobs; ++i) ASSERT_EQ(seen[p][i], i) << "producer " << p;
    }
}

TEST(ThreadService, RunOnceRunsWhatIsDueNowWithoutDeadlock) {
    auto s = kiv_thread_service_new("run-once");
    std::vector<std::string> events;  // worker (or run_once inside its jobs) only
    int outer = -1, nested = -1, inner = -1;
    auto inside_done = std::make_shared<gate>();
    kiv_thread_service_exec(s, [&, inside_done] {
        kiv_thread_service_exec(s, [&] {
            events.push_back("j2");
            kiv_thread_service_exec(s, [&] { events.push_back("j4"); }, "t", 0);
        }, "t", 0);
        kiv_thread_service_exec(s, [&] { events.push_back("j3"); }, "t", 0);
        kiv_thread_service_set_timeout(s, [&] { events.push_back("t1"); }, 0, "t", 0);
        kiv_thread_service_set_timeout(s, [&] { events.push_back("never"); }, 60000, "t", 0);
        outer = kiv_thread_service_run_once(s);
        events.push_back("returned");
        // run_once from a job that run_once itself runs.
        kiv_thread_service_exec(s, [&, inside_done] {
            kiv_thread_service_exec(s, [&] { inner = kiv_thread_service_run_once(s); }, "t", 0);
            nested = kiv_thread_service_run_once(s);
            inside_done->open();
        }, "t", 0);
    }, "t", 0);
    ASSERT_TRUE(inside_done->wait());
    EXPECT_EQ(outer, 3);
    EXPECT_EQ(events, (std::vector<std::string>{"j2", "j3", "t1", "returned", "j4"}));
    EXPECT_EQ(nested, 1);
    EXPECT_EQ(inner, 0);

    // From another thread it waits for the worker's running job instead of overlapping it.
    std::atomic<bool> in_job{false};
    auto entered = std::make_shared<gate>();
    kiv_thread_service_exec(s, [&, entered] {
        in_job = true;
        entered->open();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        in_job = false;
    }, "t", 0);
    ASSERT_TRUE(entered->wait());
    EXPECT_GE(kiv_thread_service_run_once(s), 0);
    EXPECT_FALSE(in_job);
    stop_and_wait(s);
}
