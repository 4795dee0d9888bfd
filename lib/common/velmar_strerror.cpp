// SPDX-License-Identifier: Apache-2.0
// Return codes in words.
//
// Every layer keeps its own numbers: negative errno values in the framework's entry
// points and dm_hdc_init, small positive codes in dm_send_req, positive errno values in
// the containers, the poller and the other transports' init functions, unsigned 0x2000xxxx
// codes in the OS layer. So a reading starts from the function that returned the code:
// its name selects one family, whose table lists the codes the family itself makes, and
// whose fall-back says what any other number means there (an errno passed up from a
// system call, a device HAL code, a bounds-checked function's status, or nothing).
//
// Every text is a literal, except readings that name an errno or combine the readings of
// several families: those are composed once and kept for the life of the process in an
// intern set, so that every result stays valid and callers need no buffer.
#include <cstdint>
#include <cstring>
#include <mutex>
#include <span>
#include <string>
#include <unordered_set>

#include "velmar_ext.h"

namespace velmar::strerror_impl {
namespace {

struct Reading {
    long long code;
    const char *text;
};

// What a code that the family's table does not list means there.
enum class Rest {
    nothing, // the family returns no other code
    errno_up, // a positive errno (or a bounds-checked function's status) from below
    hal,      // a device HAL code, or a positive errno of a pipe call
    devmgr,   // a device-manager call's result, unchanged
    value,    // the function returns a value or nothing, never a status
};

struct Family {
    const char *label;             // who returns these codes, for combined readings
    std::span<const char *const> names; // exact function names; "prefix*" matches a prefix
    std::span<const Reading> table;
    Rest rest;
    bool unsigned32; // codes are unsigned 32-bit: -1 and 0xFFFFFFFF are the same code
};

constexpr long long kOsNone = 0xFFFFFFFFLL;

// Status values of the host platform's bounds-checked functions that are not errno
// numbers of Linux (22 and 34 are EINVAL and ERANGE).
constexpr Reading kSecurec[] = {
    {54, "a bounds-checked memory function refused overlapping areas"},
    {162, "a bounds-checked string function refused a string that does not fit"},
};

// ---- Families ------------------------------------------------------------------------

constexpr const char *kFrameworkNames[] = {"dm_init", "dm_destroy", "dm_intf_register",
                                           "dm_intf_deregister", "dm_cmd_register",
                                           "dm_cmd_deregister"};
constexpr Reading kFramework[] = {
    {0, "success"},
    {-22, "a required pointer argument is null (or a user-data size is not positive)"},
    {-12, "memory could not be allocated"},
    {22, "the poller or a list refused an argument (EINVAL from the layer below)"},
    {12, "the poller, a list or the self-loop could not allocate memory"},
    {16, "the self-loop interface of this context exists already"},
    {1, "the poller refused: the call came from the wrong thread or in the wrong state"},
};

constexpr const char *kSendReqNames[] = {"dm_send_req"};
constexpr Reading kSendReq[] = {
    {0, "sent; the answer or the time-out response comes to the response callback"},
    {3, "invalid argument: the interface, the address or the data is missing, or the address "
        "length is 0 (DM_ERR_INVALID_ARG)"},
    {48, "the pending request could not be recorded: allocation, timer or list failure "
         "(DM_ERR_PENDING_ADD)"},
    {27, "the interface's send_msg failed; its own result is not returned (DM_ERR_SEND)"},
};

constexpr const char *kInitNames[] = {"selfloop_init", "dm_udp_init", "dm_udp_init_intf",
                                      "dm_ipc_init"};
constexpr Reading kInit[] = {
    {0, "success"},
    {22, "invalid argument: no context or address, an address of another kind or family, or a "
         "name of 32 characters or more (or EINVAL from a system call)"},
    {16, "an interface of that name is already registered in this context"},
    {12, "the interface record could not be allocated"},
    {5, "the interface name could not be formatted (dm_ipc_init)"},
    {-1, "the device manager could not be opened, or its descriptor flags not set (dm_ipc_init)"},
};

constexpr const char *kHdcInitNames[] = {"dm_hdc_init"};
constexpr Reading kHdcInit[] = {
    {0, "success"},
    {-22, "invalid argument: no context or address, an address of another kind or family, or "
          "an option of 32 bytes or more"},
    {-16, "an interface of that name is already registered in this context"},
    {-12, "memory could not be allocated"},
    {5, "the interface name could not be formatted, or a device HAL call failed with 5 (host "
        "platform: an unexpected system-call failure, such as a simulator directory that "
        "cannot be created)"},
};

constexpr const char *kNameNames[] = {"dm_hdc_get_intf_name", "dm_ipc_get_intf_name"};
constexpr Reading kName[] = {
    {0, "success"},
    {5, "sprintf_s failed: the buffer cannot hold the name"},
};

constexpr const char *kSlotNames[] = {"dm_send_rsp", "send_msg", "send_msg_ex"};
constexpr Reading kSlot[] = {
    {0, "sent"},
    {-22, "the payload is longer than 4096 bytes, or a frame could not be zeroed (UDP, HDC)"},
    {-12, "the frame could not be allocated"},
    {22, "the payload is longer than 4096 bytes (self-loop)"},
    {48, "HDC server: the session of that address is closed already (a request is answered "
         "at most once), or the frame could not be allocated"},
    {-1, "HDC: no interface or own address, or the wait for the answer failed"},
    {16, "HDC client: no answer on the session within 15 s (five receive time-outs)"},
    {35, "HDC client: no server for the device, still after 40 retries"},
};

constexpr const char *kIpcSendNames[] = {"__dm_ipc_send", "__dm_ipc_settime_send"};
constexpr Reading kIpcSend[] = {{0, "sent"}};

constexpr const char *kSmbusNames[] = {"smbus_*"};
constexpr Reading kSmbus[] = {
    {0, "success (smbus_save_open: a descriptor, not a status)"},
    {-22, "invalid argument: null buffer or length, more than 32 bytes, a device length above "
          "32, or a failed zeroing"},
    {-1, "the I2C device could not be opened, or the I2C write failed"},
};

constexpr const char *kContainerNames[] = {"list_*", "poller_*"};
constexpr Reading kContainer[] = {
    {0, "success"},
    {22, "a null handle, item or argument, or a bad size (EINVAL)"},
    {12, "memory could not be allocated (ENOMEM)"},
    {1, "the poller refused: the call came from another thread than the poller's creator, or "
        "in the wrong state"},
};

constexpr const char *kHashNames[] = {"hash_33", "hash_table_*", "count_hash_table",
                                      "display_hash_table", "get_hash_table_value"};
constexpr Reading kHash[] = {
    {0, "success"},
    {-1, "the tag could not be copied (allocation failed)"},
};

constexpr const char *kThreadNames[] = {"osal_*", "set_thread_attr_by_prio",
                                        "set_thread_attr_by_prio_preempt", "test_task"};
constexpr Reading kThread[] = {
    {0, "success"},
    {1, "the thread no longer exists (osal_delete_task), or a null attribute object"},
    {2, "the thread could not be created (pthread_create refused, for instance SCHED_RR "
        "without the privilege)"},
    {5, "invalid priority (above 255) or thread attributes that could not be set"},
    {6, "the thread could not be cancelled"},
    {kOsNone, "the thread's start record could not be allocated or zeroed"},
};

constexpr const char *kLockNames[] = {"thread_timed_*", "thead_timed_*", "vos_sm_*",
                                      "vos_spl*", "get_abs_time"};
constexpr Reading kLock[] = {
    {0, "success"},
    {1, "a null semaphore (vos_sm_*), or the waiter list could not grow"},
    {2, "the semaphore record could not be allocated (vos_sm_bcreate)"},
    {0x20000201, "a null lock record"},
    {0x20000203, "time-out: the lock was not had within the time"},
    {0x20000204, "lock failure: a dead lock (the caller holds it already), a failed wait, or "
                 "busy (trylock)"},
    {0x20000205, "the read-write lock could not be unlocked"},
    {0x20000213, "an unknown lock type"},
};

constexpr const char *kQueueNames[] = {"vos_private_queue_create", "vos_queue_*"};
constexpr Reading kQueue[] = {
    {0, "success"},
    {1, "the queue could not be created or written (msgget or msgctl failed, allocation or "
        "copy failed)"},
    {0x20000500, "invalid parameter"},
    {0x20000519, "read time-out: no message within the time"},
    {kOsNone, "the read failed (null buffer, zero length, a message of the wrong size or a "
              "failed copy), or the kernel refused an asynchronous write or read (queue full "
              "or empty)"},
};

constexpr const char *kCallNames[] = {"velmar_dm_call"};
constexpr Reading kCall[] = {
    {0, "answered: the peer's answer is in the buffer (VELMAR_CALL_ANSWERED)"},
    {1, "timed out: the buffer holds the interface's time-out answer (VELMAR_CALL_TIMED_OUT)"},
    {2, "not sent: dm_send_req refused the request; its own result says why "
        "(VELMAR_CALL_NOT_SENT)"},
    {3, "refused on the context's poller thread, which delivers the answer: nothing was sent "
        "(VELMAR_CALL_ON_POLLER_THREAD)"},
};
constexpr const char *kStatsNames[] = {"velmar_dm_get_stats"};
constexpr Reading kStats[] = {
    {0, "success: the record is filled and its size field says how far"},
    {-2, "no interface of that name is registered with the context (ENOENT)"},
    {-22, "a null context or record, or a size too small for the first counter (EINVAL)"},
};
constexpr const char *kTaskNames[] = {"vos_*", "task_task_info_init", "init_task_cb",
                                      "free_task_cb", "search_free_tcb", "get_stackframe"};
constexpr Reading kTask[] = {
    {0, "success"},
    {0x20000000, "a bad or unused task number"},
    {0x20000001, "no free task control block, or a priority of 256 or more"},
    {0x20000002, "the task tables could not be allocated"},
    {0x20000003, "the task's thread could not be created"},
    {0x20000005, "the task's thread could not be cancelled"},
    {0x20000006, "no live task is counted"},
    {0x20000011, "a null parameter"},
    {kOsNone, "the look-up found nothing"},
};

constexpr const char *kValueNames[] = {"dm_get_intf", "dev_mon_get_log_flag",
                                       "dev_mon_set_log_flag"};

// Exact names and longer prefixes come first where they overlap (vos_sm_* before vos_*).
const Family kFamilies[] = {
    {"the framework's entry points", kFrameworkNames, kFramework, Rest::errno_up, false},
    {"dm_send_req", kSendReqNames, kSendReq, Rest::nothing, false},
    {"velmar_dm_call", kCallNames, kCall, Rest::nothing, false},
    {"velmar_dm_get_stats", kStatsNames, kStats, Rest::nothing, false},
    {"selfloop_init, dm_udp_init and dm_ipc_init", kInitNames, kInit, Rest::errno_up, false},
    {"dm_hdc_init", kHdcInitNames, kHdcInit, Rest::hal, false},
    {"the interface name functions", kNameNames, kName, Rest::nothing, false},
    {"a transport's send (dm_send_rsp)", kSlotNames, kSlot, Rest::errno_up, false},
    {"the IPC send functions", kIpcSendNames, kIpcSend, Rest::devmgr, false},
    {"the SMBus functions", kSmbusNames, kSmbus, Rest::nothing, false},
    {"the lists and the poller", kContainerNames, kContainer, Rest::errno_up, false},
    {"the hash table", kHashNames, kHash, Rest::errno_up, false},
    {"the OS layer's threads", kThreadNames, kThread, Rest::nothing, true},
    {"the OS layer's locks and semaphores", kLockNames, kLock, Rest::errno_up, true},
    {"the OS layer's message queues", kQueueNames, kQueue, Rest::nothing, true},
    {"the OS layer's tasks", kTaskNames, kTask, Rest::nothing, true},
    {"functions without a status", kValueNames, {}, Rest::value, false},
};

// Device HAL results as the host platform's HDC simulator gives them.
constexpr Reading kHostHal[] = {
    {5, "an unexpected system-call failure"},
    {9, "an unknown or closed handle"},
    {12, "out of memory"},
    {16, "the time-out passed"},
    {22, "an invalid argument"},
    {24, "too many sessions or buffers"},
    {32, "the peer closed the session"},
    {35, "no server listens for that device (yet)"},
    {71, "the peer is not a simulator endpoint"},
    {90, "a message above the largest segment"},
    {98, "that device has a live server already"},
};

// ---- Matching --------------------------------------------------------------------------

bool name_matches(const char *pattern, const char *function)
{
    const size_t len = strlen(pattern);
    if (len > 0 && pattern[len - 1] == '*') {
        return strncmp(pattern, function, len - 1) == 0;
    }
    return strcmp(pattern, function) == 0;
}

const Family *family_of(const char *function)
{
    if (function == nullptr) {
        return nullptr;
    }
    for (const Family &family : kFamilies) {
        for (const char *pattern : family.names) {
            if (name_matches(pattern, function)) {
                return &family;
            }
        }
    }
    return nullptr;
}

const char *find(std::span<const Reading> table, long long code)
{
    for (const Reading &r : table) {
        if (r.code == code) {
            return r.text;
        }
    }
    return nullptr;
}

// -1 as a signed 32-bit int and 0xFFFFFFFF are the same OS-layer code, and so is any
// other unsigned code that went through an int.
long long normalise(const Family &family, long long code)
{
    if (family.unsigned32 && code < 0 && code >= INT32_MIN) {
        return code + 0x100000000LL;
    }
    return code;
}

// Keeps composed readings for the life of the process; the set's nodes never move. The
// set is never destroyed, so that a thread still reading at exit finds it intact; it
// holds at most a few texts per errno number.
const char *intern(std::string text)
{
    static std::mutex lock;
    static auto *texts = new std::unordered_set<std::string>();
    std::lock_guard<std::mutex> guard(lock);
    return texts->insert(std::move(text)).first->c_str();
}

// "EINVAL, Invalid argument", or empty when the number is no errno of this system.
std::string errno_words(long long code)
{
    if (code <= 0 || code > 4095) {
        return {};
    }
    const char *name = strerrorname_np(static_cast<int>(code));
    const char *desc = strerrordesc_np(static_cast<int>(code));
    if (name == nullptr || desc == nullptr) {
        return {};
    }
    return std::string(name) + ", " + desc;
}

const char *read_rest(const Family &family, long long code)
{
    if (family.rest == Rest::value) {
        return "this function returns a value or nothing, never a status code";
    }
    if (family.rest == Rest::nothing || code == 0) {
        return "not a result of this function";
    }
    if (family.rest == Rest::hal) {
        if (const char *hal = find(kHostHal, code); hal != nullptr) {
            return intern(std::string("a device HAL call failed with ") + std::to_string(code) +
                          " (host platform: " + hal + "), or a pipe call with that errno");
        }
    }
    if (family.rest != Rest::devmgr) {
        if (const char *sec = find(kSecurec, code); sec != nullptr) {
            return sec;
        }
    }
    const std::string words = errno_words(code);
    if (words.empty()) {
        return family.rest == Rest::hal ? "a device HAL code passed up unchanged"
                                        : "not a result of this function";
    }
    switch (family.rest) {
    case Rest::hal:
        return intern("a device HAL call or a pipe call failed with " + std::to_string(code) +
                      " (as an errno: " + words + ")");
    case Rest::devmgr:
        return intern("the device-manager send failed: " + words);
    default:
        return intern("a call below failed with errno " + std::to_string(code) + ": " + words);
    }
}

const char *read_known(const Family &family, long long code)
{
    const long long c = normalise(family, code);
    const char *text = find(family.table, c);
    return text != nullptr ? text : read_rest(family, c);
}

// Every family's own reading of the number, and its errno reading: all that it can mean.
const char *read_unknown(long long code)
{
    if (code == 0) {
        return "ambiguous without the function's name, but 0 is success wherever a status is "
               "returned";
    }
    std::string text;
    for (const Family &family : kFamilies) {
        if (const char *own = find(family.table, normalise(family, code)); own != nullptr) {
            text += std::string(text.empty() ? "" : "; ") + family.label + ": " + own;
        }
    }
    const std::string words = errno_words(code < 0 ? -code : code);
    if (!words.empty()) {
        text += std::string(text.empty() ? "" : "; ") + (code < 0 ? "negative" : "positive") +
                " errno: " + words;
    }
    if (text.empty()) {
        return "ambiguous without the function's name, and no layer of the library is known "
               "to return this code";
    }
    return intern("ambiguous without the function's name: " + text);
}

} // namespace
} // namespace velmar::strerror_impl

const char *velmar_strerror(const char *function, long long code)
{
    using namespace velmar::strerror_impl;
    try {
        const Family *family = family_of(function);
        return family != nullptr ? read_known(*family, code) : read_unknown(code);
    } catch (...) {
        return "no reading: out of memory";
    }
}
