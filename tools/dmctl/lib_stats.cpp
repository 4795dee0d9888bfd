// SPDX-License-Identifier: Apache-2.0
#include "lib_stats.h"

#include <chrono>
#include <cstring>

#include "velmar_ext.h"

namespace dmctl {

namespace {

using Field = uint64_t VELMAR_DM_STATS::*;
struct Named {
    const char *key;
    const char *text;
    Field field;
};
const Named kIntfFields[] = {
    {"frames_sent", "sent", &VELMAR_DM_STATS::frames_sent},
    {"frames_received", "received", &VELMAR_DM_STATS::frames_received},
    {"requests_resent", "re-sent", &VELMAR_DM_STATS::requests_resent},
    {"requests_timed_out", "timed out", &VELMAR_DM_STATS::requests_timed_out},
    {"answers_matched", "answers matched", &VELMAR_DM_STATS::answers_matched},
    {"answers_dropped", "dropped (late, duplicate, unknown)", &VELMAR_DM_STATS::answers_dropped},
    {"frames_malformed", "malformed", &VELMAR_DM_STATS::frames_malformed},
    {"send_failures", "send failures", &VELMAR_DM_STATS::send_failures},
    {"pipe_full", "pipe full", &VELMAR_DM_STATS::pipe_full},
    {"requests_unhandled", "no handler", &VELMAR_DM_STATS::requests_unhandled},
};

bool read_stats(DM_CB_ST *cb, const char *name, VELMAR_DM_STATS &s)
{
    s = VELMAR_DM_STATS{};
    s.size = sizeof(s);
    return velmar_dm_get_stats(cb, name, &s) == 0;
}

} // namespace

Json stats_json(DM_CB_ST *cb, const std::vector<std::string> &interfaces)
{
    VELMAR_DM_STATS s{};
    Json j;
    read_stats(cb, nullptr, s);
    j["pending_now"] = s.pending_now;
    j["pending_max"] = s.pending_max;
    Json per = Json::object();
    for (const std::string &name : interfaces) {
        if (!read_stats(cb, name.c_str(), s)) {
            continue;
        }
        Json one;
        for (const Named &f : kIntfFields) {
            one[f.key] = s.*f.field;
        }
        per[name] = one;
    }
    j["interfaces"] = per;
    return j;
}

void print_stats(FILE *out, DM_CB_ST *cb, const std::vector<std::string> &interfaces, bool json)
{
    if (json) {
        Json j{{"event", "counters"}};
        j.update(stats_json(cb, interfaces));
        print_json(out, j);
        return;
    }
    VELMAR_DM_STATS s{};
    read_stats(cb, nullptr, s);
    std::string text = "counters: pending now " + std::to_string(s.pending_now) + ", most " +
                       std::to_string(s.pending_max) + "\n";
    for (const std::string &name : interfaces) {
        if (!read_stats(cb, name.c_str(), s)) {
            continue;
        }
        text += "counters " + name + ":";
        const char *sep = " ";
        for (const Named &f : kIntfFields) {
            text += sep + std::string(f.text) + " " + std::to_string(s.*f.field);
            sep = ", ";
        }
        text += "\n";
    }
    fputs(text.c_str(), out); // one write: a periodic report never splits another line
    fflush(out);
}

std::vector<std::string> stats_names(const std::vector<DM_INTF_ST *> &intfs)
{
    std::vector<std::string> names{"selfloop"};
    for (const DM_INTF_ST *intf : intfs) {
        if (intf != nullptr) {
            names.emplace_back(intf->name, strnlen(intf->name, DM_INTF_NAME_LEN));
        }
    }
    return names;
}

void StatsTicker::start(uint64_t seconds, DM_CB_ST *cb, std::vector<std::string> interfaces,
                        bool json)
{
    if (seconds == 0) {
        return;
    }
    thread_ = std::thread([this, seconds, cb, names = std::move(interfaces), json] {
        std::unique_lock<std::mutex> guard(lock_);
        while (!cv_.wait_for(guard, std::chrono::seconds(seconds), [this] { return stopping_; })) {
            print_stats(stdout, cb, names, json);
        }
    });
}

void StatsTicker::stop()
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

} // namespace dmctl
