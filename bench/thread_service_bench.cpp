// The thread service against Boost.Asio's io_context (one worker thread running io_context::run
// with a work guard), in interleaved rounds of one run: exec throughput from 1 and from 4
// producers, and how late 1 ms timers fire. Counters: kiv_* and asio_* figures over all rounds,
// and kiv/asio_{min,median,max}, the spread of the per-round ratios (throughput: kiv over asio,
// higher is better; lateness: kiv's median over asio's, lower is better).

#include <benchmark/benchmark.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "framework/kiv_thread_service.h"

namespace {

using bench_clock = std::chrono::steady_clock;

constexpr int rounds = 5;            // per contender and repetition
constexpr int exec_jobs = 1000000;   // per round, shared among the producers
constexpr int timer_count = 200;     // per round, one after the other
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
    template <typename F>
    void post(F&& f) { boost::asio::post(io, std::forward<F>(f)); }
    template <typename F>
    void after(std::chrono::milliseconds delay, F&& f) {
        auto timer = std::make_shared<boost::asio::steady_timer>(io, delay);
        timer->async_wait(
            [timer, f = std::forward<F>(f)](const boost::system::error_code&) { f(); });
    }
};

struct kiv_worker {
    kiv_thread_service_handle service = kiv_thread_service_new("bench");
    ~kiv_worker() {
        kiv_thread_service_stop(service, nullptr);
        kiv_thread_service_wait(service);
    }
    // As a caller of the library passes it: the source file and line of the call.
    template <typename F>
    void post(F&& f) { kiv_thread_service_exec(service, std::forward<F>(f), __FILE__, __LINE__); }
    template <typename F>
    void after(std::chrono::milliseconds delay, F&& f) {
        kiv_thread_service_set_timeout(service, std::forward<F>(f), delay.count(), __FILE__, __LINE__);
    }
};

double quantile(std::vector<double> values, double q) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(q * static_cast<double>(values.size() - 1))];
}

// Jobs per second: `producers` threads post exec_jobs empty jobs between them; the clock stops
// when the worker has run the last one.
template <typename Worker>
double exec_rate(Worker& w, int producers) {
    std::promise<void> done;
    std::atomic<int> left{producers};
    const auto start = bench_clock::now();
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&] {
            for (int i = 0; i < exec_jobs / producers; ++i) w.post([] {});
            w.post([&] {
                if (--left == 0) done.set_value();
            });
        });
    }
    done.get_future().wait();
    const double seconds = std::chrono::duration<double>(bench_clock::now() - start).count();
    for (auto& t : threads) t.join();
    return exec_jobs / seconds;
}

// Microseconds past the deadline of timer_count 1 ms timers, armed one after the other.
template <typename Worker>
std::vector<double> lateness(Worker& w) {
    std::vector<double> late;
    for (int i = 0; i < timer_count; ++i) {
        std::promise<void> fired;
        const auto deadline = bench_clock::now() + timer_delay;
        w.after(timer_delay, [&] {
            const auto past = bench_clock::now() - deadline;
            late.push_back(std::chrono::duration<double, std::micro>(past).count());
            fired.set_value();
        });
        fired.get_future().wait();
    }
    return late;
}

void set_ratios(benchmark::State& state, const std::vector<double>& ratios) {
    state.counters["kiv/asio_min"] = *std::min_element(ratios.begin(), ratios.end());
    state.counters["kiv/asio_median"] = quantile(ratios, 0.5);
    state.counters["kiv/asio_max"] = *std::max_element(ratios.begin(), ratios.end());
}

void BM_ThreadService_Exec(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    kiv_worker kiv;
    asio_worker asio;
    std::vector<double> kiv_rates, asio_rates, ratios;
    for (auto _ : state) {
        for (int r = 0; r < rounds; ++r) {  // which one goes first alternates
            double k = 0, a = 0;
            if (r % 2 == 0) {
                k = exec_rate(kiv, producers), a = exec_rate(asio, producers);
            } else {
                a = exec_rate(asio, producers), k = exec_rate(kiv, producers);
            }
            kiv_rates.push_back(k);
            asio_rates.push_back(a);
            ratios.push_back(k / a);
        }
    }
    state.counters["kiv_items_per_second"] = quantile(kiv_rates, 0.5);
    state.counters["asio_items_per_second"] = quantile(asio_rates, 0.5);
    set_ratios(state, ratios);
}

void BM_ThreadService_TimerLateness(benchmark::State& state) {
    kiv_worker kiv;
    asio_worker asio;
    std::vector<double> kiv_late, asio_late, ratios;
    for (auto _ : state) {
        for (int r = 0; r < rounds; ++r) {
            std::vector<double> k, a;
            if (r % 2 == 0) {
                k = lateness(kiv), a = lateness(asio);
            } else {
                a = lateness(asio), k = lateness(kiv);
            }
            ratios.push_back(quantile(k, 0.5) / quantile(a, 0.5));
            kiv_late.insert(kiv_late.end(), k.begin(), k.end());
            asio_late.insert(asio_late.end(), a.begin(), a.end());
        }
    }
    state.counters["kiv_lateness_median_us"] = quantile(kiv_late, 0.5);
    state.counters["kiv_lateness_p99_us"] = quantile(kiv_late, 0.99);
    state.counters["asio_lateness_median_us"] = quantile(asio_late, 0.5);
    state.counters["asio_lateness_p99_us"] = quantile(asio_late, 0.99);
    set_ratios(state, ratios);
}

}  // namespace

BENCHMARK(BM_ThreadService_Exec)
    ->ArgName("producers")
    ->Arg(1)
    ->Arg(4)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ThreadService_TimerLateness)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
