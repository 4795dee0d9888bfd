// SPDX-License-Identifier: Apache-2.0
#include "counters.h"

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_map>

#include "output.h"

namespace dmctl {

namespace {

// One watched interface and the slots it had before.
struct Watched {
    const DM_INTF_ST *intf = nullptr;
    DM_SEND_MSG_FN send = nullptr;
    DM_RECV_MSG_FN recv = nullptr;
    std::string label;
    SlotCounters counters;
};

constexpr size_t kMaxWatched = 16;
std::array<Watched, kMaxWatched> g_watched;
// Entries below this index are complete and never change again (their slots are read
// by wrappers on any thread without a lock).
std::atomic<size_t> g_watched_count{0};
std::mutex g_watch_lock; // serialises adding entries

std::atomic<uint64_t> g_timeouts{0};

std::mutex g_history_lock;
std::unordered_map<uint64_t, SendHistory> g_history; // under g_history_lock
uint64_t g_latest_req = 0;                           // under g_history_lock

// Newest first: an address reused by a later interface finds the later entry.
Watched *find_watched(const DM_INTF_ST *intf)
{
    for (size_t i = g_watched_count.load(std::memory_order_acquire); i-- > 0;) {
        if (g_watched[i].intf == intf) {
            return &g_watched[i];
        }
    }
    return nullptr;
}

// Notes where the first answer to a known request came from (the blocking call that send
// uses hands back the payload only); false for an answer to no known request.
bool note_answer_from(const DM_MSG_ST *msg)
{
    std::lock_guard<std::mutex> guard(g_history_lock);
    auto it = g_history.find(msg->req_id);
    if (it == g_history.end()) {
        return false;
    }
    if (!it->second.answered && msg->addr != nullptr) {
        it->second.answered = true;
        it->second.from = *msg->addr;
    }
    return true;
}

// Notes one send of a request before it goes out (the answer may come back before the
// send call returns). Returns true for the first send of that req_id.
bool note_request_send(uint64_t req_id)
{
    std::lock_guard<std::mutex> guard(g_history_lock);
    try {
        SendHistory &h = g_history[req_id];
        if (h.sends < SendHistory::kKeptTimes) {
            h.at_ns[h.sends] = now_ns();
        }
        h.sends++;
        g_latest_req = req_id;
        return h.sends == 1;
    } catch (const std::bad_alloc &) {
        return true; // counted, just without a history
    }
}

void note_send_result(uint64_t req_id, int32_t result)
{
    std::lock_guard<std::mutex> guard(g_history_lock);
    if (auto it = g_history.find(req_id); it != g_history.end()) {
        it->second.last_result = result;
    }
}

int32_t counting_send(DM_INTF_ST *intf, uint32_t type, DM_ADDR_ST *addr, uint32_t addr_len,
                      DM_DATA_ST *data, uint64_t req_id) noexcept
{
    Watched *w = find_watched(intf);
    if (w == nullptr) {
        return -22; // cannot happen: only watched interfaces get this slot
    }
    if (type == DM_MSG_REQ) {
        const bool first = note_request_send(req_id);
        (first ? w->counters.requests : w->counters.resends).fetch_add(1);
    } else {
        w->counters.responses.fetch_add(1);
    }
    const int32_t ret = w->send(intf, type, addr, addr_len, data, req_id);
    if (ret != 0) {
        w->counters.send_failures.fetch_add(1);
    }
    if (type == DM_MSG_REQ) {
        note_send_result(req_id, ret);
    }
    return ret;
}

int32_t counting_recv(DM_INTF_ST *intf, int32_t fd, int16_t events, DM_MSG_ST *msg) noexcept
{
    Watched *w = find_watched(intf);
    if (w == nullptr) {
        return -22;
    }
    const int32_t ret = w->recv(intf, fd, events, msg);
    if (ret == -1) {
        w->counters.malformed.fetch_add(1);
    } else if (ret != 0) {
        w->counters.recv_errors.fetch_add(1);
    } else if ((events & 0x0001) != 0) {
        w->counters.received.fetch_add(1);
        // The framework drops such answers without a word; this is where they show.
        if (msg->type == DM_MSG_RSP && !note_answer_from(msg)) {
            w->counters.late.fetch_add(1);
        }
    }
    return ret;
}

struct WrapJob {
    Watched *entry;
    DM_INTF_ST *intf;
    std::mutex lock;
    std::condition_variable cv;
    bool done = false;
};

int run_wrap_job(uint32_t, int32_t, void *user_data, uint32_t) noexcept
{
    auto *job = *static_cast<WrapJob **>(user_data);
    DM_INTF_ST *intf = job->intf;
    job->entry->send = intf->send_msg;
    job->entry->recv = intf->recv_msg;
    g_watched_count.fetch_add(1, std::memory_order_release);
    intf->send_msg = counting_send;
    intf->recv_msg = counting_recv;
    if (intf->timeout_hndl == nullptr) {
        intf->timeout_hndl = timeout_handler;
    }
    std::lock_guard<std::mutex> guard(job->lock);
    job->done = true;
    job->cv.notify_one();
    return 0;
}

} // namespace

int watch_interface(DM_CB_ST *cb, DM_INTF_ST *intf, const std::string &label)
{
    std::lock_guard<std::mutex> watch_guard(g_watch_lock);
    const size_t index = g_watched_count.load();
    if (index >= kMaxWatched) {
        return 12;
    }
    Watched &entry = g_watched[index];
    entry.intf = intf;
    entry.label = label;
    WrapJob job{&entry, intf, {}, {}, false};
    WrapJob *job_ptr = &job;
    const int ret =
        poller_timer_add(cb->poller, 0, run_wrap_job, &job_ptr, sizeof(job_ptr), nullptr);
    if (ret != 0) {
        return ret;
    }
    std::unique_lock<std::mutex> lock(job.lock);
    job.cv.wait(lock, [&job] { return job.done; });
    return 0;
}

int32_t timeout_handler(DM_DATA_ST *req_data, DM_DATA_ST *rsp_data)
{
    (void)req_data;
    g_timeouts.fetch_add(1);
    // Static storage: the framework sends these bytes after the handler has returned.
    static char marker[] = "dmctl: no answer (time-out)";
    static_assert(sizeof(marker) == sizeof(kTimeoutMarker));
    rsp_data->data = reinterpret_cast<uint8_t *>(marker);
    rsp_data->data_len = sizeof(marker) - 1;
    return 0;
}

bool is_timeout_response(const DM_INTF_ST *request_intf, const DM_INTF_ST *arrival_intf,
                         const DM_MSG_ST *msg)
{
    if (request_intf != arrival_intf) {
        return true; // stand-ins come through the self-loop; real answers do not
    }
    return msg->data.data_len == sizeof(kTimeoutMarker) - 1 &&
           memcmp(msg->data.data, kTimeoutMarker, sizeof(kTimeoutMarker) - 1) == 0;
}

std::optional<SendHistory> take_history(uint64_t req_id)
{
    std::lock_guard<std::mutex> guard(g_history_lock);
    auto it = g_history.find(req_id);
    if (it == g_history.end()) {
        return std::nullopt;
    }
    SendHistory h = it->second;
    g_history.erase(it);
    return h;
}

std::optional<SendHistory> latest_history()
{
    std::lock_guard<std::mutex> guard(g_history_lock);
    auto it = g_history.find(g_latest_req);
    if (it == g_history.end()) {
        return std::nullopt;
    }
    return it->second;
}

uint64_t timeouts_reported()
{
    return g_timeouts.load();
}

const SlotCounters *counters_of(const DM_INTF_ST *intf)
{
    const Watched *w = find_watched(intf);
    return w != nullptr ? &w->counters : nullptr;
}

void print_counters(FILE *out)
{
    const size_t count = g_watched_count.load(std::memory_order_acquire);
    for (size_t i = 0; i < count; ++i) {
        const SlotCounters &c = g_watched[i].counters;
        fprintf(out,
                "counters %s: requests sent %llu, re-sends %llu, responses sent %llu, send "
                "failures %llu; frames received %llu, malformed %llu, receive errors %llu, "
                "late or unknown answers %llu\n",
                g_watched[i].label.c_str(), static_cast<unsigned long long>(c.requests.load()),
                static_cast<unsigned long long>(c.resends.load()),
                static_cast<unsigned long long>(c.responses.load()),
                static_cast<unsigned long long>(c.send_failures.load()),
                static_cast<unsigned long long>(c.received.load()),
                static_cast<unsigned long long>(c.malformed.load()),
                static_cast<unsigned long long>(c.recv_errors.load()),
                static_cast<unsigned long long>(c.late.load()));
    }
    fprintf(out, "counters: time-outs reported %llu\n",
            static_cast<unsigned long long>(g_timeouts.load()));
}

} // namespace dmctl
