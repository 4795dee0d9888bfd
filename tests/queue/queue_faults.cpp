#include "queue/queue_faults.h"

#include <cerrno>
#include <cstring>

#include "dm_platform.h"

namespace velmar::test {

FaultPoint g_msgget_fault;
FaultPoint g_stat_fault;
FaultPoint g_set_fault;
FaultPoint g_msgsnd_fault;
FaultPoint g_msgrcv_fault;
std::atomic<int> g_last_created_queue{-1};

void disarm_queue_faults()
{
    for (FaultPoint *point : {&g_msgget_fault, &g_stat_fault, &g_set_fault, &g_msgsnd_fault,
                              &g_msgrcv_fault, &g_malloc_fault}) {
        point->disarm();
    }
    disarm_platform_faults();
}

int real_msgctl(int msqid, int cmd, msqid_ds *ds)
{
    static const auto real = next_symbol<int (*)(int, int, msqid_ds *)>("msgctl");
    return real(msqid, cmd, ds);
}

ssize_t real_msgrcv(int msqid, void *msg, size_t size, long type, int flags)
{
    static const auto real = next_symbol<ssize_t (*)(int, void *, size_t, long, int)>("msgrcv");
    return real(msqid, msg, size, type, flags);
}

} // namespace velmar::test

using namespace velmar::test;

extern "C" int msgget(key_t key, int flags) __THROW
{
    static const auto real = next_symbol<int (*)(key_t, int)>("msgget");
    int err = 0;
    if (g_msgget_fault.trip(err)) {
        errno = err;
        return -1;
    }
    const int msqid = real(key, flags);
    if (msqid != -1) {
        g_last_created_queue.store(msqid);
    }
    return msqid;
}

extern "C" int msgctl(int msqid, int cmd, msqid_ds *ds) __THROW
{
    FaultPoint *point = cmd == IPC_STAT ? &g_stat_fault : cmd == IPC_SET ? &g_set_fault : nullptr;
    int err = 0;
    if (point != nullptr && point->trip(err)) {
        errno = err;
        return -1;
    }
    return real_msgctl(msqid, cmd, ds);
}

namespace {
// A queue message is the type followed by one pointer to its heap block.
const void *block_of(const void *msg)
{
    const void *block = nullptr;
    memcpy(&block, static_cast<const char *>(msg) + sizeof(long), sizeof block);
    return block;
}
} // namespace

extern "C" int msgsnd(int msqid, const void *msg, size_t size, int flags)
{
    static const auto real = next_symbol<int (*)(int, const void *, size_t, int)>("msgsnd");
    watch_block(block_of(msg));
    int err = 0;
    if (g_msgsnd_fault.trip(err)) {
        errno = err;
        return -1;
    }
    return real(msqid, msg, size, flags);
}

extern "C" ssize_t msgrcv(int msqid, void *msg, size_t size, long type, int flags)
{
    int err = 0;
    if (g_msgrcv_fault.trip(err)) {
        errno = err;
        return -1;
    }
    const ssize_t got = real_msgrcv(msqid, msg, size, type, flags);
    if (got == static_cast<ssize_t>(sizeof(void *))) {
        watch_block(block_of(msg));
    }
    return got;
}
