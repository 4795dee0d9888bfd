// SPDX-License-Identifier: Apache-2.0
// The other daemon of the two-process HDC tests.
//
//   hdc_peer server <intf_num> <count>
//       serves device <intf_num>, answering every request with its payload as it
//       arrived; prints "ready" once it listens, and after <count> requests one line
//       per request; exits 0, or 1 when they did not come within 10 s.
//   hdc_peer client <intf_num> <dev_id> <len>...
//       sends one request of each length to device <dev_id>, one after the other, and
//       prints one line per answer; exits 0 when every answer came, 1 otherwise.
//
// A line: "len=<n> word=<bytes 8..11> src_type=<t> src_index=<i> src_id=<s> role=<r>
// intact=<0|1>", where intact says that the data equals pattern(len) outside the word
// at bytes 8 to 11.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "hdc/hdc_test_support.h"

using namespace hdc_test;

namespace {

int serve(uint32_t intf_num, size_t count)
{
    HdcContext ctx;
    Inbox inbox;
    if (ctx.open(DM_HDC_ROLE_SERVER, intf_num, intf_num) == nullptr || ctx.serve(&inbox) != 0) {
        return 1;
    }
    printf("ready\n");
    fflush(stdout);
    const std::vector<Seen> requests = inbox.wait(count);
    for (const Seen &seen : requests) {
        printf("%s\n", describe(seen).c_str());
    }
    return requests.size() == count ? 0 : 1;
}

int ask(uint32_t intf_num, uint32_t dev_id, const std::vector<size_t> &lens)
{
    HdcContext ctx;
    Inbox inbox;
    DM_INTF_ST *intf = ctx.open(DM_HDC_ROLE_CLIENT, intf_num, dev_id);
    if (intf == nullptr) {
        return 1;
    }
    for (size_t len : lens) {
        if (request(intf, dev_id, pattern(len), &inbox) != 0) {
            return 1;
        }
    }
    const std::vector<Seen> answers = inbox.wait(lens.size());
    for (const Seen &seen : answers) {
        printf("%s\n", describe(seen).c_str());
    }
    return answers.size() == lens.size() ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 4 && strcmp(argv[1], "server") == 0) {
        return serve(static_cast<uint32_t>(atoi(argv[2])), static_cast<size_t>(atoi(argv[3])));
    }
    if (argc >= 4 && strcmp(argv[1], "client") == 0) {
        std::vector<size_t> lens;
        for (int i = 4; i < argc; ++i) {
            lens.push_back(static_cast<size_t>(atoi(argv[i])));
        }
        return ask(static_cast<uint32_t>(atoi(argv[2])), static_cast<uint32_t>(atoi(argv[3])),
                   lens);
    }
    fprintf(stderr,
            "usage: hdc_peer server <intf_num> <count> | client <intf_num> <dev_id> <len>...\n");
    return 2;
}
