// SPDX-License-Identifier: Apache-2.0
// The platform adapter on a POSIX host: thin wrappers over pthreads, clocks and file
// descriptors. Results follow the calls they wrap: thread and mutex functions return
// the pthread error number (0 on success), file functions a count or -1 with errno set.
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "dm_platform.h"

namespace {

constexpr size_t kThreadNameMax = 15; // the kernel's limit, without the terminating zero

// Owns a pthread_attr_t for the length of one thread creation.
class ThreadAttr {
public:
    ThreadAttr() : rc_(pthread_attr_init(&attr_)) {}
    ~ThreadAttr()
    {
        if (rc_ == 0) {
            pthread_attr_destroy(&attr_);
        }
    }
    ThreadAttr(const ThreadAttr &) = delete;
    ThreadAttr &operator=(const ThreadAttr &) = delete;

    int init_result() const { return rc_; }
    pthread_attr_t *get() { return &attr_; }

private:
    pthread_attr_t attr_{};
    int rc_;
};

// Applies each value of `want` whose flag is 1. Returns the first pthread error.
int apply_attributes(pthread_attr_t *attr, const mmThreadAttr &want)
{
    int rc = 0;
    if (want.detachFlag == 1) {
        rc = pthread_attr_setdetachstate(attr, PTHREAD_CREATE_DETACHED);
    }
    if (rc == 0 && want.policyFlag == 1) {
        // Without explicit scheduling the new thread would silently inherit ours.
        rc = pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED);
        if (rc == 0) {
            rc = pthread_attr_setschedpolicy(attr, want.policy);
        }
    }
    if (rc == 0 && want.priorityFlag == 1) {
        struct sched_param param {};
        param.sched_priority = want.priority;
        rc = pthread_attr_setschedparam(attr, &param);
    }
    if (rc == 0 && want.stackFlag == 1) {
        rc = pthread_attr_setstacksize(attr, want.stackSize);
    }
    return rc;
}

} // namespace

extern "C" {

int mmCreateTask(mmThread *thread, mmUserBlock_t *block)
{
    if (thread == nullptr || block == nullptr || block->procFunc == nullptr) {
        return EINVAL;
    }
    return pthread_create(thread, nullptr, block->procFunc, block->pulArg);
}

int mmCreateTaskWithThreadAttr(mmThread *thread, const mmUserBlock_t *block,
                               const mmThreadAttr *attr)
{
    if (thread == nullptr || block == nullptr || block->procFunc == nullptr || attr == nullptr) {
        return EINVAL;
    }
    ThreadAttr pattr;
    if (pattr.init_result() != 0) {
        return pattr.init_result();
    }
    const int rc = apply_attributes(pattr.get(), *attr);
    if (rc != 0) {
        return rc;
    }
    // EPERM here when the process may not use the requested policy or priority.
    return pthread_create(thread, pattr.get(), block->procFunc, block->pulArg);
}

int mmSetCurrentThreadName(const char *name)
{
    if (name == nullptr) {
        return EINVAL;
    }
    char shortened[kThreadNameMax + 1] = {};
    std::strncpy(shortened, name, kThreadNameMax);
    if (prctl(PR_SET_NAME, shortened, 0, 0, 0) != 0) {
        return errno;
    }
    return 0;
}

int mmMutexLock(mmMutex_t *m) { return m == nullptr ? EINVAL : pthread_mutex_lock(m); }

int mmMutexUnLock(mmMutex_t *m) { return m == nullptr ? EINVAL : pthread_mutex_unlock(m); }

int mmMutexDestroy(mmMutex_t *m) { return m == nullptr ? EINVAL : pthread_mutex_destroy(m); }

mmTimespec mmGetTickCount(void)
{
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return mmTimespec{static_cast<int64_t>(now.tv_sec), static_cast<int64_t>(now.tv_nsec)};
}

int mmSleep(unsigned int ms)
{
    struct timespec left {};
    left.tv_sec = static_cast<time_t>(ms / 1000U);
    left.tv_nsec = static_cast<long>(ms % 1000U) * 1000000L;
    // A signal must not cut the sleep short: go on with what remains.
    while (nanosleep(&left, &left) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

// One read() or write(), as the callers expect: an EINTR or a short count is theirs to
// handle, so that an interrupted blocking call can still be noticed.
ssize_t mmReadFile(int fd, void *buf, unsigned int len)
{
    if (fd < 0 || buf == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return read(fd, buf, len);
}

ssize_t mmWriteFile(int fd, const void *buf, unsigned int len)
{
    if (fd < 0 || buf == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return write(fd, buf, len);
}

int mmCloseFile(int fd) { return close(fd); }

// The new descriptor, or -1 with errno set.
int mmSocket(int domain, int type, int protocol) { return socket(domain, type, protocol); }

} // extern "C"
