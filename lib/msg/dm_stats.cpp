// SPDX-License-Identifier: Apache-2.0
// The framework's counters: per-interface blocks owned by the context, and the extension
// that reads them (velmar_dm_get_stats).
#include <cstddef>
#include <cstring>
#include <new>

#include "dm_msg.h"
#include "msg/dm_msg_internal.h"
#include "velmar_ext.h"

namespace velmar::msg {

IntfCounters *stats_attach(Context *ctx, const DM_INTF_ST *intf)
{
#if VELMAR_COUNTERS
    try {
        auto block = std::make_unique<IntfCounters>();
        memcpy(block->name, intf->name, DM_INTF_NAME_LEN);
        std::unique_lock<std::shared_mutex> guard(ctx->stats.mutex);
        ctx->stats.blocks.push_back(std::move(block));
        IntfCounters *raw = ctx->stats.blocks.back().get();
        ctx->stats.live[intf] = raw;
        return raw;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
#else
    (void)ctx;
    (void)intf;
    return nullptr;
#endif
}

void stats_detach(Context *ctx, const DM_INTF_ST *intf)
{
#if VELMAR_COUNTERS
    std::unique_lock<std::shared_mutex> guard(ctx->stats.mutex);
    ctx->stats.live.erase(intf);
#else
    (void)ctx;
    (void)intf;
#endif
}

IntfCounters *stats_of(Context *ctx, const DM_INTF_ST *intf)
{
#if VELMAR_COUNTERS
    std::shared_lock<std::shared_mutex> guard(ctx->stats.mutex);
    auto found = ctx->stats.live.find(intf);
    return found == ctx->stats.live.end() ? nullptr : found->second;
#else
    (void)ctx;
    (void)intf;
    return nullptr;
#endif
}

void stats_pending_added(Context *ctx)
{
#if VELMAR_COUNTERS
    const uint64_t now = ctx->stats.pending_now.fetch_add(1, std::memory_order_relaxed) + 1;
    uint64_t max = ctx->stats.pending_max.load(std::memory_order_relaxed);
    while (now > max &&
           !ctx->stats.pending_max.compare_exchange_weak(max, now, std::memory_order_relaxed)) {
    }
#else
    (void)ctx;
#endif
}

void stats_pending_removed(Context *ctx)
{
#if VELMAR_COUNTERS
    ctx->stats.pending_now.fetch_sub(1, std::memory_order_relaxed);
#else
    (void)ctx;
#endif
}

} // namespace velmar::msg

using namespace velmar::msg;

namespace {

constexpr int kErrInval = -22;
constexpr int kErrNoEnt = -2;

uint64_t get(const std::atomic<uint64_t> &counter) { return counter.load(std::memory_order_relaxed); }

} // namespace

extern "C" int velmar_dm_get_stats(DM_CB_ST *dm_cb, const char *intf_name, VELMAR_DM_STATS *stats)
{
    constexpr size_t kFirst = offsetof(VELMAR_DM_STATS, pending_now);
    if (dm_cb == nullptr || stats == nullptr || stats->size < kFirst + sizeof(uint64_t)) {
        return kErrInval;
    }
    Context *ctx = context_of(dm_cb);
    VELMAR_DM_STATS all{};
    all.pending_now = get(ctx->stats.pending_now);
    all.pending_max = get(ctx->stats.pending_max);
    if (intf_name != nullptr) {
        std::shared_lock<std::shared_mutex> guard(ctx->stats.mutex);
        const IntfCounters *c = nullptr;
        for (const auto &entry : ctx->stats.live) {
            if (same_name(entry.second->name, intf_name)) {
                c = entry.second;
                break;
            }
        }
#if VELMAR_COUNTERS
        if (c == nullptr && dm_get_intf(dm_cb, intf_name, DM_INTF_NAME_LEN) == nullptr) {
            return kErrNoEnt;
        }
#else
        if (dm_get_intf(dm_cb, intf_name, DM_INTF_NAME_LEN) == nullptr) {
            return kErrNoEnt;
        }
#endif
        if (c != nullptr) {
            all.frames_sent = get(c->sent);
            all.frames_received = get(c->received);
            all.requests_resent = get(c->resent);
            all.requests_timed_out = get(c->timed_out);
            all.answers_matched = get(c->matched);
            all.answers_dropped = get(c->dropped);
            all.frames_malformed = get(c->malformed);
            all.send_failures = get(c->send_failed);
            all.pipe_full = get(c->pipe_full);
            all.requests_unhandled = get(c->unhandled);
        }
    }
    // Whole counters only, never beyond the caller's record.
    size_t filled = stats->size < sizeof(all) ? stats->size : sizeof(all);
    filled = kFirst + (filled - kFirst) / sizeof(uint64_t) * sizeof(uint64_t);
    all.size = static_cast<uint32_t>(filled);
    memcpy(stats, &all, filled);
    return 0;
}
