// SPDX-License-Identifier: Apache-2.0
// Message queues on private System V queues. A message carries only a pointer to a heap
// copy of the payload, which travels with the message from writer to reader.
#include "vos_queue.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <limits>

#include "common/dm_log.h"

namespace {

constexpr uint32_t kQueueOk = 0;
constexpr uint32_t kQueueParamInvalid = VOS_QUEUE_ERR_PARAM;
constexpr uint32_t kQueueReadTimeout = VOS_QUEUE_ERR_TIMEOUT;
constexpr uint32_t kQueueReadFailed = VOS_QUEUE_ERR_READ;
constexpr uint32_t kQueueLocalFailure = 1;
constexpr uint32_t kInvalidQueueId = 0xFFFFFFFFU;

constexpr int kCreateFlags = IPC_CREAT | 0600;
static_assert(kCreateFlags == 0x380);
constexpr uint32_t kModeNine = 9;
constexpr uint32_t kModeTen = 10;

constexpr long kMessageType = 1;
constexpr int32_t kReadStepMs = 100;
constexpr useconds_t kReadStepUs = 100000;

// The owner fields take the first 7 characters of the name: 4 bytes of uid, 3 of gid
// and the terminating zero.
constexpr size_t kNameTagBytes = 8;
constexpr size_t kNameTagChars = kNameTagBytes - 1;

struct QueueMessage {
    long mtype;
    void *data;
};
// The kernel sees only the body after mtype: the pointer.
constexpr size_t kMessageBodySize = sizeof(void *);
static_assert(sizeof(QueueMessage) == 16);
static_assert(offsetof(QueueMessage, data) == 8);
static_assert(kMessageBodySize == 8);
static_assert(sizeof(msqid_ds{}.msg_perm.uid) == 4 && sizeof(msqid_ds{}.msg_perm.gid) == 4);

// The kernel orders msgsnd before the msgrcv that returns the same message, but neither
// the C++ memory model nor ThreadSanitizer knows that. Every writer publishes its filled
// block with a release step here before sending, and every reader acquires after
// receiving, so the hand-over of the block's bytes is ordered in the language too.
std::atomic<uint64_t> m_ul_block_handoffs{0};

constexpr uint64_t kMaxDepth = std::numeric_limits<msglen_t>::max() / kMessageBodySize;

// Why a failed creation removes its queue: the caller never learns its identifier, so
// nobody else could.
uint32_t remove_unfinished(int msqid)
{
    msqid_ds ds{};
    (void)msgctl(msqid, IPC_RMID, &ds);
    return kQueueLocalFailure;
}

int to_msqid(uint64_t qid)
{
    return static_cast<int>(static_cast<uint32_t>(qid));
}

// The queue helpers log on behalf of the function that called them (`writer`).
uint32_t tag_owner_with_name(msqid_ds &ds, const char *name, const char *writer)
{
    char tag[kNameTagBytes];
    if (memset_s(tag, sizeof tag, 0, sizeof tag) != 0) {
        DM_LOG_ERR_AS(writer, "memset_s error\n");
        return kQueueLocalFailure;
    }
    // Cannot fail with these sizes and a non-null name; kept checked like every copy.
    if (strncpy_s(tag, sizeof tag, name, kNameTagChars) != 0) {
        DM_LOG_ERR_AS(writer, "strncpy_s error\n");
        return kQueueLocalFailure;
    }
    if (memcpy_s(&ds.msg_perm.uid, sizeof ds.msg_perm.uid, tag, 4) != 0) {
        DM_LOG_ERR_AS(writer, "memcpy_s error\n");
        return kQueueLocalFailure;
    }
    if (memcpy_s(&ds.msg_perm.gid, sizeof ds.msg_perm.gid, tag + 4, 4) != 0) {
        DM_LOG_ERR_AS(writer, "memcpy_s error\n");
        return kQueueLocalFailure;
    }
    return kQueueOk;
}

// One round of sending: IPC_NOWAIT, repeated while a signal interrupts it.
int send_round(int msqid, const QueueMessage &msg)
{
    int ret;
    do {
        ret = msgsnd(msqid, &msg, kMessageBodySize, IPC_NOWAIT);
    } while (ret == -1 && errno == EINTR);
    return ret;
}

ssize_t receive_forever(int msqid, QueueMessage &msg)
{
    ssize_t got;
    do {
        got = msgrcv(msqid, &msg, kMessageBodySize, kMessageType, 0);
    } while (got == -1 && errno == EINTR);
    return got;
}

// timeout_ms / 100 attempts, 100 ms apart; every receive error counts as an empty queue.
bool receive_polling(int msqid, uint32_t timeout_ms, QueueMessage &msg)
{
    const int32_t attempts = static_cast<int32_t>(timeout_ms) / kReadStepMs;
    for (int32_t i = 0; i < attempts; ++i) {
        if (msgrcv(msqid, &msg, kMessageBodySize, kMessageType, IPC_NOWAIT) ==
            static_cast<ssize_t>(kMessageBodySize)) {
            return true;
        }
        usleep(kReadStepUs);
    }
    return false;
}

// The reader now owns the block: copy out and free it whatever the copy did.
uint32_t take_payload(const QueueMessage &msg, void *buf, uint32_t len, const char *writer)
{
    m_ul_block_handoffs.load(std::memory_order_acquire);
    const int ret = memcpy_s(buf, len, msg.data, len);
    free(msg.data);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "memcpy_s error\n");
        return kQueueReadFailed;
    }
    return len;
}

void *copy_payload(const void *data, uint32_t len, uint32_t &failure, const char *writer)
{
    void *block = malloc(len);
    if (block == nullptr) {
        DM_LOG_ERR_AS(writer, "\r\ncan't alloc memory!\n");
        failure = kQueueLocalFailure;
        return nullptr;
    }
    const int ret = memset_s(block, len, 0, len);
    if (ret != 0) {
        DM_LOG_ERR_AS(writer, "memset_s fail: %d\n", ret);
        free(block);
        failure = kQueueLocalFailure;
        return nullptr;
    }
    if (memcpy_s(block, len, data, len) != 0) {
        free(block);
        DM_LOG_ERR_AS(writer, "memcpy_s error\n");
        failure = kQueueLocalFailure;
        return nullptr;
    }
    return block;
}

} // namespace

extern "C" {

DM_EXPORT uint32_t vos_private_queue_create(const char *name, uint64_t depth, uint32_t *out_qid,
                                            uint32_t mode, uint64_t extra)
{
    // mode and extra carry no meaning here; they are validated so that callers written
    // for the two documented modes keep failing loudly on anything else.
    // A depth whose byte limit does not fit would wrap to a queue that refuses every message.
    if (name == nullptr || depth == 0 || depth > kMaxDepth || out_qid == nullptr || extra == 0 ||
        (mode != kModeTen && mode != kModeNine)) {
        return kQueueParamInvalid;
    }
    const int msqid = msgget(IPC_PRIVATE, kCreateFlags);
    if (msqid == -1) {
        const auto err = static_cast<unsigned>(errno); // before the logger reads the clock
        DM_LOG_ERR("\r\ncreat queue error!! errno is 0x%x.", err);
        return kQueueLocalFailure;
    }
    msqid_ds ds{};
    if (msgctl(msqid, IPC_STAT, &ds) != 0) {
        const auto err = static_cast<unsigned>(errno);
        DM_LOG_ERR("\r\nget queue stat error!! errno is 0x%x.", err);
        return remove_unfinished(msqid);
    }
    // Each message is one pointer, so a byte limit of depth * 8 holds depth messages.
    ds.msg_qbytes = static_cast<msglen_t>(depth * kMessageBodySize);
    // The owner fields carry the name's bytes: a deliberate tag that makes the queue
    // recognisable in the system's queue listing.
    if (tag_owner_with_name(ds, name, __func__) != kQueueOk) {
        return remove_unfinished(msqid);
    }
    if (msgctl(msqid, IPC_SET, &ds) != 0) {
        const auto err = static_cast<unsigned>(errno);
        DM_LOG_ERR("\r\nset queue stat error!! errno is 0x%x.", err);
        return remove_unfinished(msqid);
    }
    *out_qid = static_cast<uint32_t>(msqid);
    return kQueueOk;
}

DM_EXPORT uint32_t vos_queue_asy_write(uint64_t qid, const void *data, uint32_t len)
{
    if (static_cast<uint32_t>(qid) == kInvalidQueueId || data == nullptr || len == 0) {
        return kQueueParamInvalid;
    }
    uint32_t failure = kQueueOk;
    void *block = copy_payload(data, len, failure, __func__);
    if (block == nullptr) {
        return failure;
    }
    m_ul_block_handoffs.fetch_add(1, std::memory_order_release);
    const QueueMessage msg{kMessageType, block};
    const int msqid = to_msqid(qid);
    int ret = send_round(msqid, msg);
    if (ret == -1 && errno == EAGAIN) {
        // Full: a reader may have made room meanwhile, so try one more round.
        ret = send_round(msqid, msg);
    }
    if (ret != 0) {
        free(block);
    }
    return static_cast<uint32_t>(ret);
}

DM_EXPORT uint32_t vos_queue_read(uint64_t qid, uint32_t timeout_ms, void *buf, uint32_t len)
{
    if (buf == nullptr || len == 0) {
        return kQueueReadFailed;
    }
    QueueMessage msg{};
    const int msqid = to_msqid(qid);
    if (timeout_ms == 0) {
        if (receive_forever(msqid, msg) != static_cast<ssize_t>(kMessageBodySize)) {
            return kQueueReadFailed;
        }
    } else if (!receive_polling(msqid, timeout_ms, msg)) {
        return kQueueReadTimeout;
    }
    return take_payload(msg, buf, len, __func__);
}

DM_EXPORT uint32_t vos_queue_asy_read(uint64_t qid, void *buf, uint32_t len)
{
    if (buf == nullptr || len == 0) {
        return kQueueReadFailed;
    }
    QueueMessage msg{};
    const ssize_t got = msgrcv(to_msqid(qid), &msg, kMessageBodySize, kMessageType, IPC_NOWAIT);
    if (got != static_cast<ssize_t>(kMessageBodySize)) {
        return static_cast<uint32_t>(got);
    }
    return take_payload(msg, buf, len, __func__);
}

DM_EXPORT uint32_t vos_queue_delete(uint64_t qid)
{
    msqid_ds ds{};
    return static_cast<uint32_t>(msgctl(to_msqid(qid), IPC_RMID, &ds));
}

} // extern "C"
