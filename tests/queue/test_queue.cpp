// SPDX-License-Identifier: Apache-2.0
// Message queues against real private System V queues, whose calls this program replaces
// so that any of them can fail on command (unarmed, each forwards to the real one). Every
// queue a test makes is drained (its heap blocks freed) and removed however the test ends.
#include <gtest/gtest.h>

#include <sys/msg.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "host_platform.h"
#include "support/malloc_faults.h"
#include "support/waiting.h"
#include "vos_queue.h"

using namespace velmar::test;

namespace {

FaultPoint g_msgget_fault;
FaultPoint g_stat_fault; // msgctl IPC_STAT
FaultPoint g_set_fault;  // msgctl IPC_SET
FaultPoint g_msgsnd_fault;
FaultPoint g_msgrcv_fault;
std::atomic<int> g_last_created_queue{-1}; // the last queue msgget really made

const auto real_msgctl = next_symbol<int (*)(int, int, msqid_ds *)>("msgctl");
const auto real_msgrcv = next_symbol<ssize_t (*)(int, void *, size_t, long, int)>("msgrcv");

// A queue message is the type followed by one pointer to its heap block.
const void *block_of(const void *msg)
{
    const void *block = nullptr;
    memcpy(&block, static_cast<const char *>(msg) + sizeof(long), sizeof block);
    return block;
}

bool tripped(FaultPoint &point)
{
    int err = 0;
    if (point.trip(err)) {
        errno = err;
        return true;
    }
    return false;
}

} // namespace

extern "C" int msgget(key_t key, int flags) __THROW
{
    static const auto real = next_symbol<int (*)(key_t, int)>("msgget");
    const int msqid = tripped(g_msgget_fault) ? -1 : real(key, flags);
    if (msqid != -1) {
        g_last_created_queue.store(msqid);
    }
    return msqid;
}

extern "C" int msgctl(int msqid, int cmd, msqid_ds *ds) __THROW
{
    FaultPoint *point = cmd == IPC_STAT ? &g_stat_fault : cmd == IPC_SET ? &g_set_fault : nullptr;
    return point != nullptr && tripped(*point) ? -1 : real_msgctl(msqid, cmd, ds);
}

extern "C" int msgsnd(int msqid, const void *msg, size_t size, int flags)
{
    static const auto real = next_symbol<int (*)(int, const void *, size_t, int)>("msgsnd");
    watch_block(block_of(msg));
    return tripped(g_msgsnd_fault) ? -1 : real(msqid, msg, size, flags);
}

extern "C" ssize_t msgrcv(int msqid, void *msg, size_t size, long type, int flags)
{
    const ssize_t got = tripped(g_msgrcv_fault) ? -1 : real_msgrcv(msqid, msg, size, type, flags);
    if (got == static_cast<ssize_t>(sizeof(void *))) {
        watch_block(block_of(msg));
    }
    return got;
}

namespace {

constexpr uint32_t kParam = VOS_QUEUE_ERR_PARAM;
constexpr uint32_t kTimeout = VOS_QUEUE_ERR_TIMEOUT;
constexpr uint32_t kFailed = VOS_QUEUE_ERR_READ; // also -1 from a refused system call

struct Payload {
    uint32_t writer;
    uint32_t seq;
    bool operator==(const Payload &) const = default;
};
constexpr uint32_t kSize = sizeof(Payload);

// Queues alive in this program, as msqid + 1 (0 marks a free slot). A sanitizer that
// halts the program skips every destructor, so its death callback removes them too.
std::array<std::atomic<int>, 64> g_live{};

void remove_live_queues(bool drain)
{
    for (auto &slot : g_live) {
        const int q = slot.exchange(0) - 1;
        struct {
            long mtype;
            void *data;
        } msg{};
        while (drain && q >= 0 && real_msgrcv(q, &msg, sizeof msg.data, 0, IPC_NOWAIT) == sizeof msg.data) {
            free(msg.data);
        }
        if (q >= 0) {
            real_msgctl(q, IPC_RMID, nullptr);
        }
    }
}

extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));
[[maybe_unused]] const bool g_death_callback_set = [] {
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback([] { remove_live_queues(false); });
    }
    return true;
}();

size_t queued(uint32_t q)
{
    msqid_ds ds{};
    return real_msgctl(static_cast<int>(q), IPC_STAT, &ds) == 0 ? ds.msg_qnum : SIZE_MAX;
}

class QueueTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (FaultPoint *p : {&g_msgget_fault, &g_stat_fault, &g_set_fault, &g_msgsnd_fault, &g_msgrcv_fault,
                              &g_malloc_fault}) {
            p->disarm();
        }
        disarm_platform_faults();
        remove_live_queues(true);
    }

    static void guard(int msqid)
    {
        for (auto &slot : g_live) {
            int free_slot = 0;
            if (slot.compare_exchange_strong(free_slot, msqid + 1)) {
                return;
            }
        }
    }

    // A queue of `depth` messages. Without the right to change a queue's owner the
    // library refuses to finish creating it; then the test sets the depth itself.
    static uint32_t make_queue(uint64_t depth)
    {
        uint32_t qid = 0;
        const uint32_t ret = vos_private_queue_create("qtest", depth, &qid, 10, 1);
        if (ret == 0) {
            guard(static_cast<int>(qid));
            return qid;
        }
        EXPECT_EQ(ret, 1U); // and the library removed its queue: make one the same way
        const int created = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
        guard(created);
        msqid_ds ds{};
        real_msgctl(created, IPC_STAT, &ds);
        ds.msg_qbytes = depth * sizeof(void *);
        EXPECT_EQ(real_msgctl(created, IPC_SET, &ds), 0);
        return static_cast<uint32_t>(created);
    }
};

} // namespace

TEST_F(QueueTest, RejectsBadArgumentsWithoutSystemCallsOrConsumption)
{
    struct Create {
        const char *name;
        uint64_t depth;
        bool out;
        uint32_t mode;
        uint32_t extra;
    };
    uint32_t qid = 77;
    for (const Create &c : {Create{nullptr, 4, true, 10, 1}, Create{"q", 0, true, 10, 1}, Create{"q", 4, false, 10, 1},
                            Create{"q", 4, true, 8, 1}, Create{"q", 4, true, 11, 1}, Create{"q", 4, true, 10, 0},
                            Create{"q", UINT64_MAX / 8 + 1, true, 10, 1}}) { // bytes would wrap
        EXPECT_EQ(vos_private_queue_create(c.name, c.depth, c.out ? &qid : nullptr, c.mode, c.extra), kParam)
            << c.depth << " " << c.mode << " " << c.extra;
    }
    EXPECT_EQ(g_msgget_fault.calls(), 0);
    EXPECT_EQ(qid, 77U);

    const uint32_t q = make_queue(4);
    const Payload p{1, 1};
    g_msgsnd_fault.disarm();
    EXPECT_EQ(vos_queue_asy_write(0xFFFFFFFFU, &p, kSize), kParam);
    EXPECT_EQ(vos_queue_asy_write(q, nullptr, kSize), kParam);
    EXPECT_EQ(vos_queue_asy_write(q, &p, 0), kParam);
    EXPECT_EQ(g_msgsnd_fault.calls(), 0);
    ASSERT_EQ(vos_queue_asy_write(q, &p, kSize), 0U);
    Payload got{};
    EXPECT_EQ(vos_queue_read(q, 0, nullptr, kSize), kFailed);
    EXPECT_EQ(vos_queue_read(q, 0, &got, 0), kFailed);
    EXPECT_EQ(vos_queue_asy_read(q, nullptr, kSize), kFailed);
    EXPECT_EQ(vos_queue_asy_read(q, &got, 0), kFailed);
    EXPECT_EQ(queued(q), 1U) << "a rejected read must not consume";
}

TEST_F(QueueTest, CreateSetsTheDepthAndTagsTheOwnerWithTheName)
{
    for (const char *name : {"abcdefghij", "ab"}) {
        g_last_created_queue.store(-1);
        LogCapture log;
        uint32_t qid = 0;
        const uint32_t ret = vos_private_queue_create(name, 16, &qid, 9, 1);
        const int created = g_last_created_queue.load();
        ASSERT_NE(created, -1);
        guard(created);
        msqid_ds ds{};
        if (ret != 0) {
            // A user namespace that does not map the ids (EINVAL) or a missing right
            // (EPERM) makes the kernel refuse; the half-made queue must then be gone.
            EXPECT_EQ(ret, 1U);
            EXPECT_EQ(log.lines().size(), 1U) << log.dump();
            EXPECT_TRUE(log.contains("\r\nset queue stat error!! errno is 0x")) << log.dump();
            EXPECT_NE(real_msgctl(created, IPC_STAT, &ds), 0);
            continue;
        }
        EXPECT_EQ(qid, static_cast<uint32_t>(created));
        ASSERT_EQ(real_msgctl(created, IPC_STAT, &ds), 0);
        EXPECT_EQ(ds.msg_qbytes, 16U * 8U);
        EXPECT_EQ(ds.msg_perm.mode & 0777U, 0600U);
        // The first 7 characters, zero-padded to 8 bytes: 4 in uid, 4 in gid.
        char tag[8] = {};
        strncpy(tag, name, 7);
        uint32_t ids[2] = {};
        memcpy(ids, tag, 8);
        EXPECT_EQ(ds.msg_perm.uid, ids[0]) << name;
        EXPECT_EQ(ds.msg_perm.gid, ids[1]) << name;
    }
}

// Each failure: result 1, the caller's cell untouched, its one line, no queue left behind.
TEST_F(QueueTest, CreateFailuresReturnOneWithTheirLineAndLeaveNoQueue)
{
    struct Case {
        FaultPoint *point;
        int nth;
        int code;
        const char *line;
    };
    const Case cases[] = {
        {&g_msgget_fault, 0, ENOSPC, "\r\ncreat queue error!! errno is 0x1c."},
        {&g_stat_fault, 0, EACCES, "\r\nget queue stat error!! errno is 0xd."},
        {&g_set_fault, 0, EPERM, "\r\nset queue stat error!! errno is 0x1."},
        {&g_memset_fault, 0, HOST_SEC_ERANGE, "memset_s error\n"},
        {&g_memcpy_fault, 0, HOST_SEC_ERANGE, "memcpy_s error\n"},
        {&g_memcpy_fault, 1, HOST_SEC_EINVAL, "memcpy_s error\n"},
    };
    for (const Case &c : cases) {
        g_last_created_queue.store(-1);
        LogCapture log;
        uint32_t qid = 77;
        uint32_t ret = 0;
        {
            ArmedFault fault(*c.point, c.nth, c.code);
            ret = vos_private_queue_create("failing", 4, &qid, 10, 1);
        }
        const int created = g_last_created_queue.load();
        msqid_ds ds{};
        if (created != -1) {
            EXPECT_NE(real_msgctl(created, IPC_STAT, &ds), 0) << "left behind after: " << c.line;
            guard(created);
        }
        EXPECT_EQ(ret, 1U) << c.line;
        EXPECT_EQ(qid, 77U) << c.line;
        EXPECT_EQ(log.count_ending_with(c.line), 1U) << log.dump();
    }
}

// A depth-16 queue takes 16 copies; the seventeenth write is refused (after one more
// round) and its block freed; reads hand the copies out in order, as many bytes as asked.
TEST_F(QueueTest, WritesAndReadsHandOverCopiesUpToTheDepth)
{
    const uint32_t q = make_queue(16);
    Payload p{1, 0};
    for (; p.seq < 16; ++p.seq) {
        ASSERT_EQ(vos_queue_asy_write(q, &p, kSize), 0U) << p.seq;
    }
    EXPECT_FALSE(watched_block_freed()) << "a queued block belongs to the queue";
    g_msgsnd_fault.disarm();
    EXPECT_EQ(vos_queue_asy_write(q, &p, kSize), kFailed);
    EXPECT_EQ(g_msgsnd_fault.calls(), 2) << "a full queue gets one more round";
    EXPECT_EQ(watched_block_freed(), kMallocReplaceable) << "the refused block must be freed";
    EXPECT_EQ(queued(q), 16U);
    Payload got{};
    EXPECT_EQ(vos_queue_asy_read(q, &got, kSize), kSize);
    EXPECT_EQ(got, (Payload{1, 0}));
    EXPECT_EQ(vos_queue_asy_write(q, &p, kSize), 0U) << "room again after a read";
    EXPECT_EQ(vos_queue_read(q, 0, &got, kSize), kSize);
    EXPECT_EQ(got, (Payload{1, 1}));
    uint32_t first_half = 0;
    EXPECT_EQ(vos_queue_read(q, 100, &first_half, 4), 4U);
    EXPECT_EQ(first_half, 1U);
    while (vos_queue_asy_read(q, &got, kSize) == kSize) {
    }
    EXPECT_EQ(got, (Payload{1, 16}));
    EXPECT_EQ(vos_queue_asy_read(q, &got, kSize), kFailed) << "empty queue";
}

TEST_F(QueueTest, SendRetriesOnInterruptionAndOnceMoreWhenFull)
{
    const uint32_t q = make_queue(64);
    const Payload p{2, 0};
    auto check = [&](std::initializer_list<int> errnos, uint32_t expected, int calls) {
        const size_t before = queued(q);
        g_msgsnd_fault.arm_sequence(errnos);
        EXPECT_EQ(vos_queue_asy_write(q, &p, kSize), expected);
        EXPECT_EQ(g_msgsnd_fault.calls(), calls);
        EXPECT_EQ(queued(q), before + (expected == 0 ? 1 : 0));
    };
    check({EINTR, EINTR}, 0, 3);
    check({EAGAIN, EINTR}, 0, 3);
    check({EINTR, EAGAIN, EINTR, EAGAIN}, kFailed, 4);
    check({EAGAIN, EINVAL}, kFailed, 2);
    check({EINVAL}, kFailed, 1); // anything else is not retried
}

// Every local failure of a write gives 1 with its line; a reader that cannot copy still
// owns, and frees, the block it took.
// Every local failure of a write gives 1 with its line; a reader that cannot copy still
// owns, and frees, the block it took (the leak checker of the sanitizer builds watches
// the blocks of the failed writes).
TEST_F(QueueTest, CopyFailuresOnWriteAndReadFreeTheBlock)
{
    const uint32_t q = make_queue(4);
    const Payload p{3, 3};
    struct Case {
        FaultPoint *point;
        int code;
        const char *line;
        bool read;
    };
    for (const Case &c : {Case{&g_memset_fault, HOST_SEC_ERANGE, "memset_s fail: 34\n", false},
                          Case{&g_memcpy_fault, HOST_SEC_EINVAL, "memcpy_s error\n", false},
                          Case{&g_malloc_fault, ENOMEM, "\r\ncan't alloc memory!\n", false},
                          Case{&g_memcpy_fault, HOST_SEC_ERANGE, "memcpy_s error\n", true}}) {
        if (c.point == &g_malloc_fault && !kMallocReplaceable) {
            continue;
        }
        if (c.read) {
            ASSERT_EQ(vos_queue_asy_write(q, &p, kSize), 0U);
        }
        LogCapture log;
        Payload got{};
        ArmedFault fault(*c.point, 0, c.code);
        EXPECT_EQ(c.read ? vos_queue_asy_read(q, &got, kSize) : vos_queue_asy_write(q, &p, kSize),
                  c.read ? kFailed : 1U)
            << c.line;
        EXPECT_EQ(log.count_ending_with(c.line), 1U) << log.dump();
        EXPECT_EQ(queued(q), 0U);
    }
    EXPECT_EQ(watched_block_freed(), kMallocReplaceable);
}

TEST_F(QueueTest, TimedReadTriesOnceEvery100ms)
{
    const uint32_t q = make_queue(4);
    Payload got{};
    g_msgrcv_fault.disarm();
    const int64_t took = elapsed_ms([&] { EXPECT_EQ(vos_queue_read(q, 250, &got, kSize), kTimeout); });
    EXPECT_EQ(g_msgrcv_fault.calls(), 2);
    EXPECT_GE(took, 150);
    EXPECT_LT(took, 5000);
    // Below one step no attempt is made at all, even with a message waiting; so too for
    // a time-out that is negative as a signed 32-bit number.
    const Payload p{4, 4};
    ASSERT_EQ(vos_queue_asy_write(q, &p, kSize), 0U);
    g_msgrcv_fault.disarm();
    EXPECT_EQ(vos_queue_read(q, 50, &got, kSize), kTimeout);
    EXPECT_EQ(vos_queue_read(q, 0x80000000U, &got, kSize), kTimeout);
    EXPECT_EQ(g_msgrcv_fault.calls(), 0);
    // A failing attempt counts as an empty queue; the next step finds the message.
    g_msgrcv_fault.arm_sequence({EINVAL});
    EXPECT_EQ(vos_queue_read(q, 300, &got, kSize), kSize);
    EXPECT_EQ(g_msgrcv_fault.calls(), 2);
    EXPECT_EQ(got, p);
}

TEST_F(QueueTest, BlockingReadWaitsAndFailsWhenTheQueueGoes)
{
    const uint32_t q = make_queue(4);
    const Payload p{5, 5};
    Payload got{};
    g_msgrcv_fault.arm_sequence({EINTR, EINTR});
    std::thread writer([&] {
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(vos_queue_asy_write(q, &p, kSize), 0U);
    });
    EXPECT_EQ(vos_queue_read(q, 0, &got, kSize), kSize);
    writer.join();
    EXPECT_EQ(got, p);
    EXPECT_EQ(g_msgrcv_fault.calls(), 3) << "interrupted receives are repeated";
    std::thread remover([&] {
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(vos_queue_delete(q), 0U);
    });
    EXPECT_EQ(vos_queue_read(q, 0, &got, kSize), kFailed);
    remover.join();
    EXPECT_EQ(vos_queue_delete(q), kFailed);
    EXPECT_EQ(vos_queue_asy_write(q, &p, kSize), kFailed);
    EXPECT_EQ(watched_block_freed(), kMallocReplaceable);
    EXPECT_EQ(vos_queue_asy_read(q, &got, kSize), kFailed);
}

TEST_F(QueueTest, WriterThreadsHandEveryBlockToOneReaderInOrder)
{
    constexpr uint32_t kWriters = 3;
    constexpr uint32_t kPerWriter = 300;
    const uint32_t q = make_queue(8); // small, so that writers meet a full queue
    std::atomic<bool> stop{false};
    std::atomic<bool> reader_done{false};
    std::vector<uint32_t> next_seq(kWriters, 0);
    std::thread reader([&] {
        for (uint32_t n = 0; n < kWriters * kPerWriter; ++n) {
            Payload got{};
            const uint32_t ret = vos_queue_read(q, 0, &got, kSize);
            if (ret != kSize || got.writer >= kWriters) {
                ADD_FAILURE() << "message " << n << ": result " << ret << ", writer " << got.writer;
                break;
            }
            EXPECT_EQ(got.seq, next_seq[got.writer]++) << "writer " << got.writer;
        }
        reader_done.store(true);
    });
    std::vector<std::thread> writers;
    for (uint32_t w = 0; w < kWriters; ++w) {
        writers.emplace_back([q, w, &stop] {
            for (uint32_t seq = 0; seq < kPerWriter && !stop.load(); ++seq) {
                const Payload p{w, seq};
                while (vos_queue_asy_write(q, &p, kSize) == kFailed && !stop.load()) {
                    std::this_thread::sleep_for(1ms);
                }
            }
        });
    }
    // A reader stuck in its blocking read is released by removing the queue.
    if (!wait_until([&] { return reader_done.load(); }, 60s)) {
        ADD_FAILURE() << "reader still waiting after 60 s";
        vos_queue_delete(q);
    }
    stop.store(true);
    reader.join();
    for (auto &t : writers) {
        t.join();
    }
    EXPECT_EQ(next_seq, std::vector<uint32_t>(kWriters, kPerWriter));
}
