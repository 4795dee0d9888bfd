// Message queues against real private System V queues. Every queue a test creates is
// drained (its heap blocks freed) and removed when the test ends, however it ends.
#include <gtest/gtest.h>

#include <sys/msg.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

#include "host_platform.h"
#include "queue/queue_faults.h"
#include "vos_queue.h"

using namespace velmar::test;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t kParam = VOS_QUEUE_ERR_PARAM;
constexpr uint32_t kTimeout = VOS_QUEUE_ERR_TIMEOUT;
constexpr uint32_t kFailed = VOS_QUEUE_ERR_READ; // also -1 from a refused system call

struct Payload {
    uint32_t writer;
    uint32_t seq;
    bool operator==(const Payload &) const = default;
};
constexpr uint32_t kPayloadSize = sizeof(Payload);

// Queues alive in this program. A sanitizer that halts the program skips every
// destructor, so its death callback removes what is still listed here.
// A slot holds msqid + 1; 0 marks a free slot (0 is a valid identifier).
std::array<std::atomic<int>, 64> g_live_queues{};

void drain_and_remove(int msqid)
{
    struct {
        long mtype;
        void *data;
    } msg{};
    while (real_msgrcv(msqid, &msg, sizeof msg.data, 0, IPC_NOWAIT) == sizeof msg.data) {
        free(msg.data);
    }
    real_msgctl(msqid, IPC_RMID, nullptr);
}

extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

[[maybe_unused]] const bool g_death_callback_set = [] {
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback([] {
            for (auto &slot : g_live_queues) {
                const int entry = slot.exchange(0);
                if (entry != 0) {
                    real_msgctl(entry - 1, IPC_RMID, nullptr);
                }
            }
        });
    }
    return true;
}();

class QueueGuard {
public:
    explicit QueueGuard(int msqid) : msqid_(msqid)
    {
        for (auto &slot : g_live_queues) {
            int free_slot = 0;
            if (slot.compare_exchange_strong(free_slot, msqid + 1)) {
                break;
            }
        }
    }
    ~QueueGuard()
    {
        for (auto &slot : g_live_queues) {
            int mine = msqid_ + 1;
            if (slot.compare_exchange_strong(mine, 0)) {
                break;
            }
        }
        drain_and_remove(msqid_);
    }
    QueueGuard(const QueueGuard &) = delete;
    QueueGuard &operator=(const QueueGuard &) = delete;

private:
    int msqid_;
};

class QueueTest : public ::testing::Test {
protected:
    void TearDown() override { disarm_queue_faults(); }

    void guard(int msqid) { guards_.push_back(std::make_unique<QueueGuard>(msqid)); }

    // A queue of `depth` messages. Without the right to change a queue's owner the
    // library refuses to finish creating it; then the test sets the depth itself.
    uint32_t make_queue(uint64_t depth)
    {
        uint32_t qid = 0;
        const uint32_t ret = vos_private_queue_create("qtest", depth, &qid, 10, 1);
        if (ret == 0) {
            guard(static_cast<int>(qid));
            return qid;
        }
        EXPECT_EQ(ret, 1U); // and the library removed its queue: make one the same way
        const int created = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
        EXPECT_NE(created, -1);
        guard(created);
        msqid_ds ds{};
        real_msgctl(created, IPC_STAT, &ds);
        ds.msg_qbytes = depth * sizeof(void *);
        EXPECT_EQ(real_msgctl(created, IPC_SET, &ds), 0);
        return static_cast<uint32_t>(created);
    }

    static size_t queued(int msqid)
    {
        msqid_ds ds{};
        return real_msgctl(msqid, IPC_STAT, &ds) == 0 ? ds.msg_qnum : SIZE_MAX;
    }

    static bool exists(int msqid)
    {
        msqid_ds ds{};
        return real_msgctl(msqid, IPC_STAT, &ds) == 0;
    }

    std::vector<std::unique_ptr<QueueGuard>> guards_;
};

} // namespace

TEST_F(QueueTest, RejectsBadArguments)
{
    uint32_t qid = 77;
    g_msgget_fault.disarm();
    EXPECT_EQ(vos_private_queue_create(nullptr, 4, &qid, 10, 1), kParam);
    EXPECT_EQ(vos_private_queue_create("q", 0, &qid, 10, 1), kParam);
    EXPECT_EQ(vos_private_queue_create("q", 4, nullptr, 10, 1), kParam);
    EXPECT_EQ(vos_private_queue_create("q", 4, &qid, 8, 1), kParam);
    EXPECT_EQ(vos_private_queue_create("q", 4, &qid, 11, 1), kParam);
    EXPECT_EQ(vos_private_queue_create("q", 4, &qid, 10, 0), kParam);
    EXPECT_EQ(vos_private_queue_create("q", UINT64_MAX / 8 + 1, &qid, 10, 1), kParam); // bytes would wrap
    EXPECT_EQ(g_msgget_fault.calls(), 0);
    EXPECT_EQ(qid, 77U);

    const uint32_t q = make_queue(4);
    const Payload p{1, 1};
    g_msgsnd_fault.disarm();
    EXPECT_EQ(vos_queue_asy_write(0xFFFFFFFFU, &p, kPayloadSize), kParam);
    EXPECT_EQ(vos_queue_asy_write(q, nullptr, kPayloadSize), kParam);
    EXPECT_EQ(vos_queue_asy_write(q, &p, 0), kParam);
    EXPECT_EQ(g_msgsnd_fault.calls(), 0);

    ASSERT_EQ(vos_queue_asy_write(q, &p, kPayloadSize), 0U);
    Payload got{};
    EXPECT_EQ(vos_queue_read(q, 0, nullptr, kPayloadSize), kFailed);
    EXPECT_EQ(vos_queue_read(q, 0, &got, 0), kFailed);
    EXPECT_EQ(vos_queue_asy_read(q, nullptr, kPayloadSize), kFailed);
    EXPECT_EQ(vos_queue_asy_read(q, &got, 0), kFailed);
    EXPECT_EQ(queued(static_cast<int>(q)), 1U) << "a rejected read must not consume";
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
        if (ret != 0) {
            // The creator may set any owner ids, but a user namespace that does not map
            // them (EINVAL) or a missing right (EPERM) makes the kernel refuse.
            EXPECT_EQ(ret, 1U);
            const auto lines = log.lines();
            ASSERT_EQ(lines.size(), 1U) << log.dump();
            EXPECT_NE(lines[0].find("\r\nset queue stat error!! errno is 0x"), std::string::npos);
            EXPECT_FALSE(exists(created)) << "the half-made queue must be removed";
            std::cout << "[ owner tag ] refused by the kernel here:" << lines[0] << "\n";
            continue;
        }
        std::cout << "[ owner tag ] applied to '" << name << "'\n";
        EXPECT_EQ(qid, static_cast<uint32_t>(created));
        msqid_ds ds{};
        ASSERT_EQ(real_msgctl(created, IPC_STAT, &ds), 0);
        EXPECT_EQ(ds.msg_qbytes, 16U * 8U);
        EXPECT_EQ(ds.msg_perm.mode & 0777U, 0600U);
        // The first 7 characters, zero-padded to 8 bytes: 4 in uid, 4 in gid.
        char tag[8] = {};
        strncpy(tag, name, 7);
        uint32_t uid = 0;
        uint32_t gid = 0;
        memcpy(&uid, tag, 4);
        memcpy(&gid, tag + 4, 4);
        EXPECT_EQ(ds.msg_perm.uid, uid) << name;
        EXPECT_EQ(ds.msg_perm.gid, gid) << name;
    }
}

TEST_F(QueueTest, CreateFailuresReturnOneWithTheirLine)
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
        if (created != -1) {
            guard(created);
        }
        EXPECT_EQ(ret, 1U) << c.line;
        EXPECT_EQ(qid, 77U) << c.line;
        EXPECT_EQ(log.count_ending_with(c.line), 1U) << log.dump();
        EXPECT_FALSE(created != -1 && exists(created)) << "left behind after: " << c.line;
    }
}

TEST_F(QueueTest, WritesAndReadsHandOverCopies)
{
    const uint32_t q = make_queue(8);
    Payload sent[] = {{1, 10}, {1, 11}, {1, 12}};
    for (const Payload &p : sent) {
        ASSERT_EQ(vos_queue_asy_write(q, &p, kPayloadSize), 0U);
    }
    sent[0].seq = 99; // the queue holds its own copies

    Payload got{};
    EXPECT_EQ(vos_queue_asy_read(q, &got, kPayloadSize), kPayloadSize);
    EXPECT_EQ(got, (Payload{1, 10}));
    EXPECT_EQ(vos_queue_read(q, 0, &got, kPayloadSize), kPayloadSize);
    EXPECT_EQ(got, (Payload{1, 11}));
    // The reader decides how many bytes to copy out of the block.
    uint32_t first_half = 0;
    EXPECT_EQ(vos_queue_read(q, 100, &first_half, 4), 4U);
    EXPECT_EQ(first_half, 1U);
    EXPECT_EQ(vos_queue_asy_read(q, &got, kPayloadSize), kFailed) << "empty queue";
}

TEST_F(QueueTest, SeventeenthWriteToADepth16QueueIsRefusedAndFreed)
{
    const uint32_t q = make_queue(16);
    for (uint32_t i = 0; i < 16; ++i) {
        const Payload p{0, i};
        ASSERT_EQ(vos_queue_asy_write(q, &p, kPayloadSize), 0U) << i;
    }
    const Payload extra{0, 16};
    EXPECT_FALSE(watched_block_freed()) << "a queued block belongs to the queue";
    g_msgsnd_fault.disarm();
    EXPECT_EQ(vos_queue_asy_write(q, &extra, kPayloadSize), kFailed);
    EXPECT_EQ(g_msgsnd_fault.calls(), 2) << "a full queue gets one more round";
    EXPECT_EQ(watched_block_freed(), kMallocReplaceable) << "the refused block must be freed";
    EXPECT_EQ(queued(static_cast<int>(q)), 16U);

    Payload got{};
    ASSERT_EQ(vos_queue_asy_read(q, &got, kPayloadSize), kPayloadSize);
    EXPECT_EQ(got, (Payload{0, 0}));
    EXPECT_EQ(vos_queue_asy_write(q, &extra, kPayloadSize), 0U) << "room again after a read";
}

TEST_F(QueueTest, SendRetriesOnInterruptionAndOnceMoreWhenFull)
{
    const uint32_t q = make_queue(64);
    const Payload p{2, 0};
    auto check = [&](std::initializer_list<int> errnos, uint32_t expected, int calls) {
        const size_t before = queued(static_cast<int>(q));
        g_msgsnd_fault.arm_sequence(errnos);
        EXPECT_EQ(vos_queue_asy_write(q, &p, kPayloadSize), expected);
        EXPECT_EQ(g_msgsnd_fault.calls(), calls);
        EXPECT_EQ(queued(static_cast<int>(q)), before + (expected == 0 ? 1 : 0));
    };
    check({EINTR, EINTR}, 0, 3);
    check({EAGAIN, EINTR}, 0, 3);
    check({EINTR, EAGAIN, EINTR, EAGAIN}, kFailed, 4);
    check({EAGAIN, EINVAL}, kFailed, 2);
    check({EINVAL}, kFailed, 1); // anything else is not retried
}

TEST_F(QueueTest, CopyFailuresOnWriteAndReadFreeTheBlock)
{
    const uint32_t q = make_queue(4);
    const Payload p{3, 3};
    struct Case {
        FaultPoint *point;
        int code;
        const char *line;
    };
    std::vector<Case> cases = {{&g_memset_fault, HOST_SEC_ERANGE, "memset_s fail: 34\n"},
                               {&g_memcpy_fault, HOST_SEC_EINVAL, "memcpy_s error\n"}};
    if (kMallocReplaceable) {
        cases.push_back({&g_malloc_fault, ENOMEM, "\r\ncan't alloc memory!\n"});
    }
    for (const Case &c : cases) {
        LogCapture log;
        uint32_t ret = 0;
        {
            ArmedFault fault(*c.point, 0, c.code);
            ret = vos_queue_asy_write(q, &p, kPayloadSize);
        }
        EXPECT_EQ(ret, 1U) << c.line;
        EXPECT_EQ(log.count_ending_with(c.line), 1U) << log.dump();
        EXPECT_EQ(queued(static_cast<int>(q)), 0U);
    }

    // A reader that cannot copy still owns, and frees, the block it took.
    ASSERT_EQ(vos_queue_asy_write(q, &p, kPayloadSize), 0U);
    LogCapture log;
    Payload got{};
    uint32_t ret = 0;
    {
        ArmedFault fault(g_memcpy_fault, 0, HOST_SEC_ERANGE);
        ret = vos_queue_asy_read(q, &got, kPayloadSize);
    }
    EXPECT_EQ(ret, kFailed);
    EXPECT_EQ(log.count_ending_with("memcpy_s error\n"), 1U) << log.dump();
    EXPECT_EQ(watched_block_freed(), kMallocReplaceable);
    EXPECT_EQ(queued(static_cast<int>(q)), 0U);
}

TEST_F(QueueTest, TimedReadTriesOnceEvery100ms)
{
    const uint32_t q = make_queue(4);
    Payload got{};
    g_msgrcv_fault.disarm();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(vos_queue_read(q, 250, &got, kPayloadSize), kTimeout);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(g_msgrcv_fault.calls(), 2);
    EXPECT_GE(elapsed, 150ms);
    EXPECT_LT(elapsed, 5s);

    // Below one step no attempt is made at all, even with a message waiting; so too for
    // a time-out that is negative as a signed 32-bit number.
    const Payload p{4, 4};
    ASSERT_EQ(vos_queue_asy_write(q, &p, kPayloadSize), 0U);
    g_msgrcv_fault.disarm();
    EXPECT_EQ(vos_queue_read(q, 50, &got, kPayloadSize), kTimeout);
    EXPECT_EQ(vos_queue_read(q, 0x80000000U, &got, kPayloadSize), kTimeout);
    EXPECT_EQ(g_msgrcv_fault.calls(), 0);

    // A failing attempt counts as an empty queue; the next step finds the message.
    g_msgrcv_fault.arm_sequence({EINVAL});
    EXPECT_EQ(vos_queue_read(q, 300, &got, kPayloadSize), kPayloadSize);
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
        EXPECT_EQ(vos_queue_asy_write(q, &p, kPayloadSize), 0U);
    });
    EXPECT_EQ(vos_queue_read(q, 0, &got, kPayloadSize), kPayloadSize);
    writer.join();
    EXPECT_EQ(got, p);
    EXPECT_EQ(g_msgrcv_fault.calls(), 3) << "interrupted receives are repeated";

    std::thread remover([&] {
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(vos_queue_delete(q), 0U);
    });
    EXPECT_EQ(vos_queue_read(q, 0, &got, kPayloadSize), kFailed);
    remover.join();
    EXPECT_EQ(vos_queue_delete(q), kFailed);
    EXPECT_EQ(vos_queue_asy_write(q, &p, kPayloadSize), kFailed);
    EXPECT_EQ(watched_block_freed(), kMallocReplaceable);
    EXPECT_EQ(vos_queue_asy_read(q, &got, kPayloadSize), kFailed);
}

TEST_F(QueueTest, WriterThreadsHandEveryBlockToOneReaderInOrder)
{
    constexpr uint32_t kWriters = 3;
    constexpr uint32_t kPerWriter = 300;
    constexpr uint32_t kTotal = kWriters * kPerWriter;
    const uint32_t q = make_queue(8); // small, so that writers meet a full queue
    std::atomic<bool> stop{false};
    std::atomic<bool> reader_done{false};
    std::vector<uint32_t> next_seq(kWriters, 0);

    std::thread reader([&] {
        for (uint32_t n = 0; n < kTotal; ++n) {
            Payload got{};
            const uint32_t ret = vos_queue_read(q, 0, &got, kPayloadSize);
            if (ret != kPayloadSize || got.writer >= kWriters) {
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
                uint32_t ret;
                while ((ret = vos_queue_asy_write(q, &p, kPayloadSize)) == kFailed && !stop.load()) {
                    std::this_thread::sleep_for(1ms);
                }
                EXPECT_TRUE(ret == 0 || stop.load()) << ret;
            }
        });
    }
    // A reader stuck in its blocking read is released by removing the queue.
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (!reader_done.load() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    stop.store(true);
    if (!reader_done.load()) {
        ADD_FAILURE() << "reader still waiting after 60 s";
        vos_queue_delete(q);
    }
    reader.join();
    for (auto &t : writers) {
        t.join();
    }
    EXPECT_EQ(next_seq, std::vector<uint32_t>(kWriters, kPerWriter));
}
