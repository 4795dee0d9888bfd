// SPDX-License-Identifier: Apache-2.0
// The OS layer's locks against the bare POSIX primitives in the same run:
// - uncontended lock + unlock of each timed-lock type (0 binary, 1 counting, 2 recursive
//   mutex, 3 read-write), beside pthread_mutex_t, sem_t and pthread_rwlock_t;
// - a two-thread ping-pong over a pair of binary semaphores (vos_sm_p / vos_sm_v), beside
//   the same ping-pong over a pair of sem_t. The semaphore takes there use a long finite
//   time-out: with an infinite one, the thread that took a semaphore last and takes it
//   again before the partner's give is reported as dead-locked (the lock remembers its
//   last taker until the next give), so a signalling pattern must not wait forever.
#include <benchmark/benchmark.h>

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "vos_sm.h"

namespace {

constexpr uint32_t kWaitForever = 0;
constexpr uint32_t kPingPongTimeoutMs = 10000;

THREAD_TIMED_MUTEX_ST *make_lock(int32_t type, int32_t count)
{
    THREAD_TIMED_MUTEX_ST *m = thread_timed_malloc_id();
    if (m == nullptr || thread_timed_mutex_init("bnch", m, type, count) != 0) {
        std::abort();
    }
    return m;
}

void release_lock(THREAD_TIMED_MUTEX_ST *m)
{
    thread_timed_mutex_destroy(m);
    free(m);
}

// range(0): the lock type. For type 3 the argument 0 takes the write lock.
void BM_TimedLockUncontended(benchmark::State &state)
{
    const auto type = static_cast<int32_t>(state.range(0));
    THREAD_TIMED_MUTEX_ST *m = make_lock(type, 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(thread_timed_mutex_lock(m, kWaitForever));
        benchmark::DoNotOptimize(thread_timed_mutex_unlock(m));
    }
    release_lock(m);
}
BENCHMARK(BM_TimedLockUncontended)->Arg(0)->Arg(1)->Arg(2)->Arg(3);

void BM_TimedLockReadUncontended(benchmark::State &state)
{
    THREAD_TIMED_MUTEX_ST *m = make_lock(3, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(thread_timed_mutex_lock(m, 1));
        benchmark::DoNotOptimize(thread_timed_mutex_unlock(m));
    }
    release_lock(m);
}
BENCHMARK(BM_TimedLockReadUncontended);

void BM_PthreadMutexUncontended(benchmark::State &state)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pthread_mutex_lock(&mutex));
        benchmark::DoNotOptimize(pthread_mutex_unlock(&mutex));
    }
    pthread_mutex_destroy(&mutex);
}
BENCHMARK(BM_PthreadMutexUncontended);

void BM_PosixSemUncontended(benchmark::State &state)
{
    sem_t sem;
    sem_init(&sem, 0, 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(sem_wait(&sem));
        benchmark::DoNotOptimize(sem_post(&sem));
    }
    sem_destroy(&sem);
}
BENCHMARK(BM_PosixSemUncontended);

void BM_PthreadRwlockWriteUncontended(benchmark::State &state)
{
    pthread_rwlock_t rwlock = PTHREAD_RWLOCK_INITIALIZER;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pthread_rwlock_wrlock(&rwlock));
        benchmark::DoNotOptimize(pthread_rwlock_unlock(&rwlock));
    }
    pthread_rwlock_destroy(&rwlock);
}
BENCHMARK(BM_PthreadRwlockWriteUncontended);

// One round: the main thread gives `ping` and takes `pong`; the partner takes `ping` and
// gives `pong`. Both semaphores start taken. A stop flag plus one extra give ends the
// partner after the last round.
template <typename Sem> void ping_pong(benchmark::State &state, Sem &ping, Sem &pong)
{
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (;;) {
            ping.take();
            if (stop.load(std::memory_order_relaxed)) {
                return;
            }
            pong.give();
        }
    });
    for (auto _ : state) {
        ping.give();
        pong.take();
    }
    stop.store(true, std::memory_order_relaxed);
    ping.give();
    partner.join();
    state.SetItemsProcessed(state.iterations());
}

struct VosSem {
    THREAD_TIMED_MUTEX_ST *sm = nullptr;
    VosSem()
    {
        if (vos_sm_bcreate("pp", 0, 0, &sm) != 0) {
            std::abort();
        }
    }
    ~VosSem() { vos_sm_delete(sm); }
    VosSem(const VosSem &) = delete;
    VosSem &operator=(const VosSem &) = delete;
    void take()
    {
        if (vos_sm_p(sm, kPingPongTimeoutMs) != 0) {
            std::abort(); // a failed take would make the figures meaningless
        }
    }
    void give() { vos_sm_v(sm); }
};

struct PosixSem {
    sem_t sem{};
    PosixSem() { sem_init(&sem, 0, 0); }
    ~PosixSem() { sem_destroy(&sem); }
    PosixSem(const PosixSem &) = delete;
    PosixSem &operator=(const PosixSem &) = delete;
    void take()
    {
        while (sem_wait(&sem) != 0) {
        }
    }
    void give() { sem_post(&sem); }
};

void BM_VosSemPingPong(benchmark::State &state)
{
    VosSem ping;
    VosSem pong;
    ping_pong(state, ping, pong);
}
BENCHMARK(BM_VosSemPingPong)->UseRealTime();

void BM_PosixSemPingPong(benchmark::State &state)
{
    PosixSem ping;
    PosixSem pong;
    ping_pong(state, ping, pong);
}
BENCHMARK(BM_PosixSemPingPong)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
