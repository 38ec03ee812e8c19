// The thread service against Boost.Asio's io_context (one worker running io_context::run with a
// work guard): exec throughput and timer lateness, side by side in one run.

#include <benchmark/benchmark.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "framework/kiv_thread_service.h"

namespace {

using bench_clock = std::chrono::steady_clock;

constexpr int exec_jobs = 1000000;
constexpr int timer_count = 1000;
constexpr auto timer_delay = std::chrono::milliseconds(1);

// One worker thread running an io_context until destroyed.
struct asio_worker {
    boost::asio::io_context io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard =
        boost::asio::make_work_guard(io);
    std::thread thread{[this] { io.run(); }};
    ~asio_worker() {
        guard.reset();
        thread.join();
    }
};

struct kiv_worker {
    kiv_thread_service_handle service = kiv_thread_service_new("bench");
    ~kiv_worker() {
        kiv_thread_service_stop(service, nullptr);
        kiv_thread_service_wait(service);
    }
};

void report_lateness(benchmark::State& state, std::vector<double>& lateness_us) {
    std::sort(lateness_us.begin(), lateness_us.end());
    const auto at = [&](double q) {
        return lateness_us[static_cast<std::size_t>(q *
                                                    static_cast<double>(lateness_us.size() - 1))];
    };
    state.counters["lateness_median_us"] = at(0.5);
    state.counters["lateness_p99_us"] = at(0.99);
}

double micros_since(bench_clock::time_point deadline) {
    return std::chrono::duration<double, std::micro>(bench_clock::now() - deadline).count();
}

// --- exec throughput: one producer posts 1,000,000 empty jobs, then waits for all of them ---

void BM_ThreadService_Exec_kiv(benchmark::State& state) {
    kiv_worker w;
    for (auto _ : state) {
        for (int i = 0; i < exec_jobs; ++i)
            kiv_thread_service_exec(
                w.service, [] {}, __FILE__, __LINE__);
        std::promise<void> done;
        kiv_thread_service_exec(
            w.service, [&done] { done.set_value(); }, __FILE__, __LINE__);
        done.get_future().wait();
    }
    state.SetItemsProcessed(state.iterations() * exec_jobs);
}

void BM_ThreadService_Exec_asio(benchmark::State& state) {
    asio_worker w;
    for (auto _ : state) {
        for (int i = 0; i < exec_jobs; ++i) boost::asio::post(w.io, [] {});
        std::promise<void> done;
        boost::asio::post(w.io, [&done] { done.set_value(); });
        done.get_future().wait();
    }
    state.SetItemsProcessed(state.iterations() * exec_jobs);
}

// --- timer lateness: 1,000 one-shot 1 ms timers, one after the other from this thread ---------

void BM_ThreadService_TimerLateness_kiv(benchmark::State& state) {
    kiv_worker w;
    std::vector<double> lateness;
    for (auto _ : state) {
        for (int i = 0; i < timer_count; ++i) {
            std::promise<void> fired;
            const auto deadline = bench_clock::now() + timer_delay;
            kiv_thread_service_set_timeout(
                w.service,
                [&] {
                    lateness.push_back(micros_since(deadline));
                    fired.set_value();
                },
                timer_delay.count(), __FILE__, __LINE__);
            fired.get_future().wait();
        }
    }
    report_lateness(state, lateness);
}

void BM_ThreadService_TimerLateness_asio(benchmark::State& state) {
    asio_worker w;
    boost::asio::steady_timer timer(w.io);
    std::vector<double> lateness;
    for (auto _ : state) {
        for (int i = 0; i < timer_count; ++i) {
            std::promise<void> fired;
            const auto deadline = bench_clock::now() + timer_delay;
            timer.expires_after(timer_delay);
            timer.async_wait([&](const boost::system::error_code&) {
                lateness.push_back(micros_since(deadline));
                fired.set_value();
            });
            fired.get_future().wait();
        }
    }
    report_lateness(state, lateness);
}

// --- timer burst: 1,000 one-shot 1 ms timers armed at once; lateness and run order -------------

void BM_ThreadService_TimerBurst_kiv(benchmark::State& state) {
    kiv_worker w;
    std::vector<double> lateness;
    std::vector<int> order;
    double out_of_order = 0;
    for (auto _ : state) {
        std::promise<void> all_fired;
        std::vector<bench_clock::time_point> deadlines(timer_count);
        order.clear();
        for (int i = 0; i < timer_count; ++i) {
            deadlines[i] = bench_clock::now() + timer_delay;
            kiv_thread_service_set_timeout(
                w.service,
                [&, i] {
                    lateness.push_back(micros_since(deadlines[i]));
                    order.push_back(i);
                    if (i == timer_count - 1) all_fired.set_value();
                },
                timer_delay.count(), __FILE__, __LINE__);
        }
        all_fired.get_future().wait();
        for (int i = 1; i < static_cast<int>(order.size()); ++i)
            out_of_order += order[i] < order[i - 1];
    }
    report_lateness(state, lateness);
    state.counters["out_of_order"] = out_of_order;
}

void BM_ThreadService_TimerBurst_asio(benchmark::State& state) {
    asio_worker w;
    std::vector<double> lateness;
    std::vector<int> order;
    double out_of_order = 0;
    for (auto _ : state) {
        std::vector<bench_clock::time_point> deadlines(timer_count);
        std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
        std::promise<void> all_fired;
        int fired = 0;
        order.clear();
        for (int i = 0; i < timer_count; ++i) {
            deadlines[i] = bench_clock::now() + timer_delay;
            timers.push_back(std::make_unique<boost::asio::steady_timer>(w.io, timer_delay));
            timers.back()->async_wait([&, i](const boost::system::error_code&) {
                lateness.push_back(micros_since(deadlines[i]));
                order.push_back(i);
                if (++fired == timer_count) all_fired.set_value();
            });
        }
        all_fired.get_future().wait();
        for (int i = 1; i < static_cast<int>(order.size()); ++i)
            out_of_order += order[i] < order[i - 1];
    }
    report_lateness(state, lateness);
    state.counters["out_of_order"] = out_of_order;
}

}  // namespace

BENCHMARK(BM_ThreadService_Exec_kiv)
    ->Name("BM_ThreadService_Exec/kiv")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ThreadService_Exec_asio)
    ->Name("BM_ThreadService_Exec/asio")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ThreadService_TimerLateness_kiv)
    ->Name("BM_ThreadService_TimerLateness/kiv")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);
BENCHMARK(BM_ThreadService_TimerLateness_asio)
    ->Name("BM_ThreadService_TimerLateness/asio")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);
BENCHMARK(BM_ThreadService_TimerBurst_kiv)
    ->Name("BM_ThreadService_TimerBurst/kiv")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
BENCHMARK(BM_ThreadService_TimerBurst_asio)
    ->Name("BM_ThreadService_TimerBurst/asio")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
