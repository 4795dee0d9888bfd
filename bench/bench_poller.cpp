// SPDX-License-Identifier: Apache-2.0
// Poller benchmarks. Each one measures the poller and a baseline in the same run; the
// two comparisons that the busy shared machine makes noisy alternate poller and baseline
// sample by sample and report the median and 90th percentile of each.
//
// - Timer add-and-fire: add N timers due at once, wake the loop with one pipe byte, wait
//   until the N-th callback ran. Baseline: the same work in one thread with a
//   std::multimap ordered by deadline (ties after equals), one poll() on a pipe, then the
//   due entries fired in order.
// - Timer insertion order on an idle poller: deadlines ascending (the usual case), all
//   equal (clock frozen) and descending (every insert walks the whole list).
// - Pipe-to-callback latency: one byte written, time until the descriptor callback has
//   run on the poll thread. Baseline: a thread of ours running a bare poll() loop on
//   another pipe at the same scheduling policy.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <vector>
#include <cstdint>
#include <map>
#include <thread>

#include "dm_platform.h"
#include "dm_poller.h"

namespace {

std::atomic<bool> g_clock_frozen{false};
std::atomic<int64_t> g_frozen_sec{0};
std::atomic<int64_t> g_frozen_nsec{0};

struct Pipe {
    int fd[2] = {-1, -1};
    Pipe() { (void)pipe(fd); }
    ~Pipe()
    {
        close(fd[0]);
        close(fd[1]);
    }
    void put() const
    {
        const char byte = 1;
        (void)write(fd[1], &byte, 1);
    }
    void take() const
    {
        char byte = 0;
        (void)read(fd[0], &byte, 1);
    }
};

void wait_until(const std::atomic<uint64_t> &counter, uint64_t target)
{
    while (counter.load(std::memory_order_acquire) < target) {
        std::this_thread::yield(); // the machine is shared: do not starve the poll thread
    }
}

template <typename Fn> double elapsed_us(Fn fn)
{
    const auto start = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

void report(benchmark::State &state, const std::string &name, std::vector<double> &samples)
{
    if (samples.empty()) {
        return;
    }
    std::sort(samples.begin(), samples.end());
    state.counters[name + "_p50"] = samples[samples.size() / 2];
    state.counters[name + "_p90"] = samples[samples.size() * 9 / 10];
}

// A running poller with one wake pipe, destroyed (by its own thread) at the end.
class RunningPoller {
public:
    explicit RunningPoller(POLLER_FD_CALLBACK on_wake)
    {
        void *datum = nullptr;
        (void)poller_create(&poller_);
        (void)poller_fd_add(poller_, wake_.fd[0], POLLIN, on_wake, &datum, sizeof(datum));
        (void)poller_run(poller_);
    }
    ~RunningPoller()
    {
        (void)poller_destory(poller_);
        std::this_thread::sleep_for(std::chrono::milliseconds(60)); // let it leave
    }
    POLLER_ST *get() const { return poller_; }
    const Pipe &wake() const { return wake_; }

private:
    Pipe wake_;
    POLLER_ST *poller_ = nullptr;
};

std::atomic<uint64_t> g_fired{0};

int count_timer(uint32_t, int32_t, void *, uint32_t)
{
    g_fired.fetch_add(1, std::memory_order_release);
    return 0;
}

int drain_wake(int fd, int, void *, uint32_t)
{
    char buf[64];
    (void)read(fd, buf, sizeof(buf));
    return 0;
}

struct BaselineTimer {
    POLLER_TIMER_CALLBACK callback;
    void *datum;
};

int64_t now_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

void poller_add_fire(const RunningPoller &running, uint64_t n)
{
    const uint64_t target = g_fired.load() + n;
    void *datum = running.get();
    for (uint64_t i = 0; i < n; ++i) {
        (void)poller_timer_add(running.get(), 0, count_timer, &datum, sizeof(datum), nullptr);
    }
    running.wake().put();
    wait_until(g_fired, target);
}

void baseline_add_fire(const Pipe &wake, std::multimap<int64_t, BaselineTimer> &timers, uint64_t n)
{
    const uint64_t target = g_fired.load() + n;
    void *datum = &timers;
    for (uint64_t i = 0; i < n; ++i) {
        timers.emplace_hint(timers.end(), now_ns(), BaselineTimer{count_timer, datum});
    }
    wake.put();
    pollfd pfd{wake.fd[0], POLLIN, 0};
    const int64_t left_ms = (timers.begin()->first - now_ns()) / 1000000;
    if (poll(&pfd, 1, left_ms > 0 ? static_cast<int>(left_ms) : 1) > 0) {
        wake.take();
    }
    const int64_t now = now_ns();
    auto it = timers.begin();
    while (it != timers.end() && it->first <= now) {
        it->second.callback(0, 1, &it->second.datum, sizeof(datum));
        it = timers.erase(it);
    }
    wait_until(g_fired, target);
}

void BM_TimerAddFire(benchmark::State &state)
{
    const auto n = static_cast<uint64_t>(state.range(0));
    RunningPoller running(drain_wake);
    Pipe wake;
    std::multimap<int64_t, BaselineTimer> timers;
    std::vector<double> poller_us;
    std::vector<double> baseline_us;
    for (auto _ : state) {
        poller_us.push_back(elapsed_us([&] { poller_add_fire(running, n); }));
        baseline_us.push_back(elapsed_us([&] { baseline_add_fire(wake, timers, n); }));
    }
    report(state, "poller_us", poller_us);
    report(state, "baseline_us", baseline_us);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n * 2));
}

enum class Order { kAscending, kEqual, kDescending };

void BM_PollerTimerInsert(benchmark::State &state)
{
    const auto order = static_cast<Order>(state.range(0));
    const auto n = static_cast<uint32_t>(state.range(1));
    void *datum = nullptr;
    for (auto _ : state) {
        state.PauseTiming();
        POLLER_ST *poller = nullptr;
        (void)poller_create(&poller);
        g_clock_frozen = order == Order::kEqual;
        if (g_clock_frozen) {
            const mmTimespec now = mmGetTickCount();
            g_frozen_sec = now.tv_sec;
            g_frozen_nsec = now.tv_nsec;
        }
        state.ResumeTiming();
        for (uint32_t i = 0; i < n; ++i) {
            const uint32_t interval = order == Order::kDescending ? n - i : 1000000 + i;
            (void)poller_timer_add(poller, interval, count_timer, &datum, sizeof(datum), nullptr);
        }
        state.PauseTiming();
        g_clock_frozen = false;
        (void)poller_destory(poller); // idle: released at once
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

std::atomic<uint64_t> g_seen{0};

int note_byte(int fd, int, void *, uint32_t)
{
    char byte = 0;
    (void)read(fd, &byte, 1);
    g_seen.fetch_add(1, std::memory_order_release);
    return 0;
}

// A bare poll() loop on `data` until `stop` becomes readable, at the poll thread's
// policy and priority when the system allows it.
void baseline_loop(const Pipe &data, const Pipe &stop)
{
    sched_param param{};
    param.sched_priority = 60;
    (void)pthread_setschedparam(pthread_self(), SCHED_RR, &param);
    pollfd fds[2] = {{data.fd[0], POLLIN, 0}, {stop.fd[0], POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, 50) > 0) {
            if (fds[1].revents != 0) {
                return;
            }
            if (fds[0].revents != 0) {
                note_byte(data.fd[0], fds[0].revents, nullptr, 0);
            }
        }
    }
}

void round_trip(const Pipe &pipe)
{
    const uint64_t target = g_seen.load() + 1;
    pipe.put();
    wait_until(g_seen, target);
}

void BM_PipeToCallback(benchmark::State &state)
{
    RunningPoller running(note_byte);
    Pipe data;
    Pipe stop;
    std::thread loop(baseline_loop, std::cref(data), std::cref(stop));
    std::vector<double> poller_us;
    std::vector<double> baseline_us;
    for (auto _ : state) {
        poller_us.push_back(elapsed_us([&] { round_trip(running.wake()); }));
        baseline_us.push_back(elapsed_us([&] { round_trip(data); }));
    }
    stop.put();
    loop.join();
    report(state, "poller_us", poller_us);
    report(state, "baseline_us", baseline_us);
}

} // namespace

// Frozen on demand so that timers can be given exactly equal deadlines.
extern "C" mmTimespec mmGetTickCount(void)
{
    static auto real = reinterpret_cast<mmTimespec (*)(void)>(dlsym(RTLD_NEXT, "mmGetTickCount"));
    if (g_clock_frozen.load(std::memory_order_relaxed)) {
        return mmTimespec{g_frozen_sec.load(), g_frozen_nsec.load()};
    }
    return real();
}

BENCHMARK(BM_TimerAddFire)->Arg(1000)->Arg(100000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PollerTimerInsert)
    ->ArgsProduct({{static_cast<int>(Order::kAscending), static_cast<int>(Order::kEqual)}, {1000, 100000}})
    ->Args({static_cast<int>(Order::kDescending), 1000})
    ->Args({static_cast<int>(Order::kDescending), 10000})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PipeToCallback)->UseRealTime()->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
