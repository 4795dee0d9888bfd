// The queue test program replaces the System V message calls that the queues use, so
// that any of them can fail on command. Unarmed, each
// forwards to the real function.
#pragma once

#include <sys/msg.h>

#include <atomic>

#include "support/malloc_faults.h"

namespace velmar::test {

extern FaultPoint g_msgget_fault;
extern FaultPoint g_stat_fault; // msgctl IPC_STAT
extern FaultPoint g_set_fault;  // msgctl IPC_SET
extern FaultPoint g_msgsnd_fault;
extern FaultPoint g_msgrcv_fault;

// The identifier of the last queue that msgget really created, or -1.
extern std::atomic<int> g_last_created_queue;

void disarm_queue_faults();

// The real functions, for test bookkeeping that must not touch the fault points.
int real_msgctl(int msqid, int cmd, msqid_ds *ds);
ssize_t real_msgrcv(int msqid, void *msg, size_t size, long type, int flags);

} // namespace velmar::test
