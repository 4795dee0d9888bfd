/* SPDX-License-Identifier: Apache-2.0 */
// The library's own counters (velmar_dm_get_stats) as dmctl prints them: at the end of
// serve and bench, and every --stats SECONDS while they run.
#ifndef DMCTL_LIB_STATS_H
#define DMCTL_LIB_STATS_H

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dm_msg.h"
#include "json_out.h"

namespace dmctl {

// The context's counters and those of each named interface, as one JSON object:
// {"pending_now":..,"pending_max":..,"interfaces":{"<name>":{"frames_sent":..,..}}}.
Json stats_json(DM_CB_ST *cb, const std::vector<std::string> &interfaces);

// The same as text: "counters: pending now N, most M" and one line per interface; or, with
// `json`, one object {"event":"counters", ...stats_json} on one line.
void print_stats(FILE *out, DM_CB_ST *cb, const std::vector<std::string> &interfaces, bool json);

// The names of the interfaces of `cb` that dmctl reports: the self-loop and `intf`s.
std::vector<std::string> stats_names(const std::vector<DM_INTF_ST *> &intfs);

// Prints the counters every `seconds` on its own thread until stopped or destroyed.
class StatsTicker {
public:
    StatsTicker() = default;
    ~StatsTicker() { stop(); }
    StatsTicker(const StatsTicker &) = delete;
    StatsTicker &operator=(const StatsTicker &) = delete;

    void start(uint64_t seconds, DM_CB_ST *cb, std::vector<std::string> interfaces, bool json);
    void stop();

private:
    std::mutex lock_;
    std::condition_variable cv_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace dmctl

#endif // DMCTL_LIB_STATS_H
