// SPDX-License-Identifier: Apache-2.0
// Timed locks: one record that is a binary or counting semaphore, a recursive mutex with
// an owner, or a read-write lock, with millisecond time-outs, a waiter list and a
// self-dead-lock report for semaphores.
//
// Clock choice: the condition variable keeps its default clock (CLOCK_REALTIME) because
// every deadline is built by get_abs_time from the wall clock; the two must agree. The
// elapsed-time check of the semaphore wait uses CLOCK_MONOTONIC, so a wall-clock jump
// can end one timed wait early or late but never the overall time-out accounting.
#include "vos_sm.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <csignal>

#include "common/dm_log.h"
#include "vos/vos_lock_codes.h"

static_assert(offsetof(THREAD_TIMED_MUTEX_ST, name) == 0);
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, mutex) < offsetof(THREAD_TIMED_MUTEX_ST, rwlock));
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, rwlock) < offsetof(THREAD_TIMED_MUTEX_ST, cond));
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, cond) < offsetof(THREAD_TIMED_MUTEX_ST, wait_num));
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, wait_num) + 4 == offsetof(THREAD_TIMED_MUTEX_ST, locked));
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, locked) + 4 == offsetof(THREAD_TIMED_MUTEX_ST, nest_num));
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, nest_num) + 4 == offsetof(THREAD_TIMED_MUTEX_ST, count));
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, count) + 4 == offsetof(THREAD_TIMED_MUTEX_ST, max_count));
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, max_count) + 4 == offsetof(THREAD_TIMED_MUTEX_ST, type));
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, type) < offsetof(THREAD_TIMED_MUTEX_ST, owner));
static_assert(sizeof(pthread_t) == 8);
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, owner) + 8 == offsetof(THREAD_TIMED_MUTEX_ST, pwater_list));
static_assert(offsetof(THREAD_TIMED_MUTEX_ST, pwater_list) + 8 ==
              offsetof(THREAD_TIMED_MUTEX_ST, pwater_list_tail));
static_assert(sizeof(THREAD_TIMED_MUTEX_ST) == offsetof(THREAD_TIMED_MUTEX_ST, pwater_list_tail) + 8);
// The storage shape that strict C sees for the read-write lock must match the real one.
static_assert(sizeof(VOS_RWLOCK_T) == __SIZEOF_PTHREAD_RWLOCK_T);
static_assert(alignof(VOS_RWLOCK_T) == alignof(long int));

using namespace velmar::vos;

namespace {

void unlock_mutex(void *mutex)
{
    pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex));
}

// Long time-outs give up at 80 %: an early wake caused by a forward wall-clock jump then
// counts as a time-out. The product wraps like the signed 32-bit arithmetic it stands for.
int32_t give_up_limit(uint32_t timeout_ms)
{
    const auto timeout = static_cast<int32_t>(timeout_ms);
    if (timeout > 1000) {
        return static_cast<int32_t>(timeout_ms * 8U) / 10;
    }
    return timeout;
}

int64_t monotonic_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool owned_by(const THREAD_TIMED_MUTEX_ST *m, pthread_t self)
{
    return m->owner != 0 && pthread_equal(m->owner, self) != 0;
}

// Waits for a handed-over unit with m->mutex held. Any wake without an error counts as
// the hand-over. On failure the reserved unit is given back.
uint32_t wait_for_unit(THREAD_TIMED_MUTEX_ST *m, uint32_t timeout_ms, int32_t limit)
{
    if (timeout_ms == 0) {
        pthread_cond_wait(&m->cond, &m->mutex);
        return kLockOk;
    }
    const int64_t start = monotonic_ms();
    uint32_t remaining = timeout_ms;
    for (;;) {
        timespec deadline{};
        get_abs_time(&deadline, remaining);
        const int rc = pthread_cond_timedwait(&m->cond, &m->mutex, &deadline);
        if (rc == 0) {
            return kLockOk;
        }
        if (rc != ETIMEDOUT) {
            m->count++;
            return kLockFailed;
        }
        const int64_t elapsed = monotonic_ms() - start;
        if (elapsed >= limit) {
            m->count++;
            return kLockTimeout;
        }
        remaining = timeout_ms - static_cast<uint32_t>(elapsed);
    }
}

// A recursive mutex handed over by an unlock stays marked locked, with no owner, until one
// of its waiters takes it.
bool handover_pending(const THREAD_TIMED_MUTEX_ST *m)
{
    return m->locked != 0 && m->owner == 0;
}

// Why the state decides rather than the wake-up: a waiter that times out just as the lock
// is handed to it would leave the lock with nobody for good, and a wake-up that finds no
// hand-over (spurious, or another waiter came first) would make a second owner. So
// whichever waiter gets the record's mutex next takes a pending hand-over, even one whose
// time is up, and the others wait on until their one deadline.
uint32_t wait_for_handover(THREAD_TIMED_MUTEX_ST *m, uint32_t timeout_ms)
{
    timespec deadline{};
    if (timeout_ms != 0) {
        get_abs_time(&deadline, timeout_ms);
    }
    for (;;) {
        const int rc = timeout_ms == 0 ? pthread_cond_wait(&m->cond, &m->mutex)
                                       : pthread_cond_timedwait(&m->cond, &m->mutex, &deadline);
        if (handover_pending(m)) {
            return kLockOk;
        }
        if (rc == ETIMEDOUT) {
            return kLockTimeout;
        }
        if (rc != 0) {
            return kLockFailed;
        }
    }
}

struct Waiter {
    THREAD_TIMED_MUTEX_ST *m;
    pthread_t self;
};

// Cancellation clean-ups of a waiter; they run with the record's mutex held again. Why:
// without them a cancelled waiter kept its node, its place in wait_num and, for the
// semaphores, its reserved unit, so the unit was lost for good.
void stop_waiting(const Waiter *w)
{
    thread_timed_mutex_list_del(w->m, static_cast<uint64_t>(w->self));
    w->m->wait_num--;
}

void abandon_unit_wait(void *arg)
{
    const auto *w = static_cast<const Waiter *>(arg);
    w->m->count++; // the reserved unit, or one already handed over, goes back
    stop_waiting(w);
}

// A hand-over this waiter may have swallowed goes on to another waiter, or, with none
// left, is released as an unlock without waiters would.
void abandon_handover_wait(void *arg)
{
    const auto *w = static_cast<const Waiter *>(arg);
    THREAD_TIMED_MUTEX_ST *m = w->m;
    stop_waiting(w);
    if (!handover_pending(m)) {
        return;
    }
    if (m->wait_num >= 1) {
        pthread_cond_signal(&m->cond);
        return;
    }
    m->locked = 0;
    if (m->count < m->max_count) {
        m->count++;
    }
}

void take(THREAD_TIMED_MUTEX_ST *m, pthread_t self)
{
    m->owner = self;
    m->locked = 1;
}

uint32_t sem_trylock(THREAD_TIMED_MUTEX_ST *m, pthread_t self)
{
    uint32_t result = kLockFailed;
    pthread_mutex_lock(&m->mutex);
    if (m->count >= 1 && m->wait_num < 1) {
        take(m, self);
        m->count--;
        result = kLockOk;
    }
    pthread_mutex_unlock(&m->mutex);
    return result;
}

// A recursive trylock by the owner adds no nesting level, so it needs no extra unlock;
// the blocking lock does add one. Callers depend on this difference.
uint32_t mutex_trylock(THREAD_TIMED_MUTEX_ST *m, pthread_t self)
{
    uint32_t result = kLockFailed;
    pthread_mutex_lock(&m->mutex);
    if (owned_by(m, self)) {
        m->count = 0;
        result = kLockOk;
    } else if (m->count >= 1) {
        m->count--;
        take(m, self);
        result = kLockOk;
    }
    pthread_mutex_unlock(&m->mutex);
    return result;
}

// In C++ the field is a pthread_rwlock_t; the cast only matters to the strict-C view.
pthread_rwlock_t *rwlock_of(THREAD_TIMED_MUTEX_ST *m)
{
    return reinterpret_cast<pthread_rwlock_t *>(&m->rwlock);
}

uint32_t rw_lock(THREAD_TIMED_MUTEX_ST *m, bool read)
{
    pthread_rwlock_t *rw = rwlock_of(m);
    const int rc = read ? pthread_rwlock_rdlock(rw) : pthread_rwlock_wrlock(rw);
    return rc == 0 ? kLockOk : kLockFailed;
}

uint32_t rw_trylock(THREAD_TIMED_MUTEX_ST *m, bool read)
{
    pthread_rwlock_t *rw = rwlock_of(m);
    const int rc = read ? pthread_rwlock_tryrdlock(rw) : pthread_rwlock_trywrlock(rw);
    return rc == 0 ? kLockOk : kLockFailed;
}

uint32_t rw_unlock(THREAD_TIMED_MUTEX_ST *m)
{
    return pthread_rwlock_unlock(rwlock_of(m)) == 0 ? kLockOk : kRwUnlockFailed;
}

uint32_t init_primitives(THREAD_TIMED_MUTEX_ST *m)
{
    switch (m->type) {
    case kTypeBinary:
    case kTypeCounting:
    case kTypeMutex: {
        const int rc = pthread_mutex_init(&m->mutex, nullptr);
        return static_cast<uint32_t>(rc != 0 ? rc : pthread_cond_init(&m->cond, nullptr));
    }
    case kTypeReadWrite:
        return static_cast<uint32_t>(pthread_rwlock_init(rwlock_of(m), nullptr));
    default:
        return kBadType;
    }
}

} // namespace

extern "C" {

THREAD_TIMED_MUTEX_ST *thread_timed_malloc_id(void)
{
    auto *m = static_cast<THREAD_TIMED_MUTEX_ST *>(malloc(sizeof(THREAD_TIMED_MUTEX_ST)));
    if (m == nullptr) {
        DM_LOG_ERR("psm malloc fail!\n");
        return nullptr;
    }
    const int rc = memset_s(m, sizeof(*m), 0, sizeof(*m));
    if (rc != 0) {
        DM_LOG_ERR("memset_s fail: %d\n", rc);
        free(m);
        return nullptr;
    }
    return m;
}

uint32_t thread_timed_mutex_init(const char *name, THREAD_TIMED_MUTEX_ST *m, int32_t type, int32_t initial_count)
{
    if (m == nullptr) {
        return kNullRecord;
    }
    int rc = memset_s(m->name, sizeof(m->name), 0, sizeof(m->name));
    if (rc != 0) {
        DM_LOG_ERR("memset_s error\n");
        return static_cast<uint32_t>(rc);
    }
    rc = strncpy_s(m->name, sizeof(m->name), name, sizeof(m->name) - 1);
    if (rc != 0) {
        DM_LOG_ERR("strncpy_s error\n");
        return static_cast<uint32_t>(rc);
    }
    m->locked = 0;
    m->count = initial_count;
    m->max_count = type == kTypeCounting ? initial_count : 1;
    m->type = type;
    m->owner = 0;
    m->pwater_list = nullptr;
    m->pwater_list_tail = nullptr;
    m->wait_num = 0;
    m->nest_num = 0;
    return init_primitives(m);
}

uint32_t thead_timed_sem_bin_or_count_lock(THREAD_TIMED_MUTEX_ST *m, uint32_t timeout_ms, pthread_t self)
{
    if (m == nullptr) {
        return kNullRecord;
    }
    const int32_t limit = give_up_limit(timeout_ms);
    uint32_t result = kLockOk;
    pthread_mutex_lock(&m->mutex);
    pthread_cleanup_push(unlock_mutex, &m->mutex);
    if (m->count > 0 && m->wait_num <= 0) {
        m->count--;
    } else if (timeout_ms == 0 && owned_by(m, self)) {
        DM_LOG_ERR("\r\nERROR: thread %u DEAD LOCK by %s.", static_cast<unsigned>(self), m->name);
        result = kLockFailed;
    } else {
        m->count--; // reserved before waiting: a woken waiter does not decrement again
        (void)thread_timed_mutex_list_add(m, self);
        m->wait_num++;
        const Waiter waiter{m, self};
        pthread_cleanup_push(abandon_unit_wait, const_cast<Waiter *>(&waiter));
        result = wait_for_unit(m, timeout_ms, limit);
        pthread_cleanup_pop(0);
        stop_waiting(&waiter);
    }
    if (result == kLockOk) {
        take(m, self);
    }
    pthread_cleanup_pop(1);
    return result;
}

uint32_t thead_timed_sem_mutex_lock(THREAD_TIMED_MUTEX_ST *m, uint32_t timeout_ms, pthread_t self)
{
    if (m == nullptr) {
        return kNullRecord;
    }
    uint32_t result = kLockOk;
    pthread_mutex_lock(&m->mutex);
    pthread_cleanup_push(unlock_mutex, &m->mutex);
    if (owned_by(m, self)) {
        m->count = 0;
        m->nest_num++;
    } else if (m->count < 1) {
        m->wait_num++;
        (void)thread_timed_mutex_list_add(m, self);
        const Waiter waiter{m, self};
        pthread_cleanup_push(abandon_handover_wait, const_cast<Waiter *>(&waiter));
        result = wait_for_handover(m, timeout_ms);
        pthread_cleanup_pop(0);
        stop_waiting(&waiter);
    } else {
        m->count--;
    }
    if (result == kLockOk) {
        take(m, self);
    }
    pthread_cleanup_pop(1);
    return result;
}

uint32_t thread_timed_sem_bin_or_count_unlock(THREAD_TIMED_MUTEX_ST *m)
{
    if (m == nullptr) {
        return kNullRecord;
    }
    pthread_mutex_lock(&m->mutex);
    if (m->count < m->max_count) {
        m->count++;
    }
    m->locked = 0;
    m->owner = 0;
    const bool waiters = m->wait_num >= 1;
    pthread_mutex_unlock(&m->mutex);
    if (waiters) {
        pthread_cond_signal(&m->cond); // after unlocking: the woken waiter can run at once
    }
    return kLockOk;
}

uint32_t thread_timed_sem_mutex_unlock(THREAD_TIMED_MUTEX_ST *m, pthread_t self)
{
    if (m == nullptr) {
        return kNullRecord;
    }
    pthread_mutex_lock(&m->mutex);
    if (m->nest_num == 0) {
        m->owner = 0;
        if (m->wait_num != 0) {
            // The lock passes to a waiter: count stays as it is, and `locked` stays 1 with
            // no owner until a waiter takes it (why: that mark is how the waiters, and one
            // timing out or cancelled meanwhile, tell a hand-over from a held lock).
            m->locked = 1;
            pthread_mutex_unlock(&m->mutex);
            pthread_cond_signal(&m->cond);
            return kLockOk;
        }
        m->locked = 0;
        if (m->count < m->max_count) {
            m->count++;
        }
    } else if (owned_by(m, self)) {
        m->nest_num--;
    } else if (m->owner != 0 && pthread_kill(m->owner, 0) == ESRCH) {
        m->nest_num = 0; // owner gone: the next unlock releases the lock
    }
    pthread_mutex_unlock(&m->mutex);
    return kLockOk;
}

uint32_t thread_timed_mutex_lock(THREAD_TIMED_MUTEX_ST *m, uint32_t timeout_ms)
{
    if (m == nullptr) {
        return kNullRecord;
    }
    const pthread_t self = pthread_self();
    switch (m->type) {
    case kTypeBinary:
    case kTypeCounting:
        return thead_timed_sem_bin_or_count_lock(m, timeout_ms, self);
    case kTypeMutex:
        return thead_timed_sem_mutex_lock(m, timeout_ms, self);
    case kTypeReadWrite:
        return rw_lock(m, timeout_ms != 0);
    default:
        return kBadType;
    }
}

uint32_t thread_timed_mutex_trylock(THREAD_TIMED_MUTEX_ST *m, uint32_t read)
{
    if (m == nullptr) {
        DM_CHECK_FAILED("(m != ((void *)0))");
        return kNullRecord;
    }
    const pthread_t self = pthread_self();
    switch (m->type) {
    case kTypeBinary:
    case kTypeCounting:
        return sem_trylock(m, self);
    case kTypeMutex:
        return mutex_trylock(m, self);
    case kTypeReadWrite:
        return rw_trylock(m, read != 0);
    default:
        return kBadType;
    }
}

uint32_t thread_timed_mutex_unlock(THREAD_TIMED_MUTEX_ST *m)
{
    if (m == nullptr) {
        return kNullRecord;
    }
    const pthread_t self = pthread_self();
    switch (m->type) {
    case kTypeBinary:
    case kTypeCounting:
        return thread_timed_sem_bin_or_count_unlock(m);
    case kTypeMutex:
        return thread_timed_sem_mutex_unlock(m, self);
    case kTypeReadWrite:
        return rw_unlock(m);
    default:
        return kBadType;
    }
}

uint32_t thread_timed_mutex_list_add(THREAD_TIMED_MUTEX_ST *m, uint64_t tid)
{
    if (m == nullptr) {
        return 1;
    }
    if (m->pwater_list == nullptr) {
        auto *node = static_cast<THREAD_WAITER_NODE_ST *>(malloc(sizeof(THREAD_WAITER_NODE_ST)));
        if (node == nullptr) {
            return 1;
        }
        const int rc = memset_s(node, sizeof(*node), 0, sizeof(*node));
        if (rc != 0) {
            DM_LOG_ERR("memset_s fail: %d\n", rc);
            free(node);
            return static_cast<uint32_t>(rc);
        }
        node->tid = tid;
        m->pwater_list = node;
        m->pwater_list_tail = node;
        return 0;
    }
    if (m->pwater_list_tail == nullptr) {
        m->pwater_list_tail = m->pwater_list;
    }
    THREAD_WAITER_NODE_ST *tail = m->pwater_list_tail;
    tail->next = static_cast<THREAD_WAITER_NODE_ST *>(malloc(sizeof(THREAD_WAITER_NODE_ST)));
    if (tail->next == nullptr) {
        DM_LOG_ERR("malloc m->pwater_list_tail->next fail!\n");
        return 1;
    }
    const int rc = memset_s(tail->next, sizeof(*tail->next), 0, sizeof(*tail->next));
    if (rc != 0) {
        DM_LOG_ERR("memset_s fail: %d\n", rc);
        free(tail->next);
        tail->next = nullptr;
        return static_cast<uint32_t>(rc);
    }
    m->pwater_list_tail = tail->next;
    m->pwater_list_tail->tid = tid;
    m->pwater_list_tail->next = nullptr;
    return 0;
}

// Only the first node of `tid` goes. Removing the head leaves the tail pointer alone: an
// emptied list is recognised by its null head, and the next add resets the tail.
void thread_timed_mutex_list_del(THREAD_TIMED_MUTEX_ST *m, uint64_t tid)
{
    if (m == nullptr || m->pwater_list == nullptr) {
        return;
    }
    THREAD_WAITER_NODE_ST *node = m->pwater_list;
    if (node->tid == tid) {
        m->pwater_list = node->next;
        free(node);
        return;
    }
    while (node->next != nullptr && node->next->tid != tid) {
        node = node->next;
    }
    THREAD_WAITER_NODE_ST *victim = node->next;
    if (victim == nullptr) {
        return;
    }
    if (victim == m->pwater_list_tail) {
        m->pwater_list_tail = node;
    }
    node->next = victim->next;
    free(victim);
}

uint32_t thread_timed_mutex_destroy(THREAD_TIMED_MUTEX_ST *m)
{
    if (m == nullptr) {
        return kNullRecord;
    }
    if (m->type < 0) {
        return kLockOk;
    }
    if (m->type <= kTypeMutex) {
        pthread_mutex_destroy(&m->mutex);
        pthread_cond_destroy(&m->cond);
    } else if (m->type == kTypeReadWrite) {
        pthread_rwlock_destroy(rwlock_of(m));
    }
    return kLockOk;
}

} // extern "C"
