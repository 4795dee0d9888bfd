// SPDX-License-Identifier: Apache-2.0
// The self-loop frame: the fuzzer's bytes go into the self-loop pipe in one write, as a
// sender does, and the poller thread reads them frame by frame (one input may hold
// several frames, or a frame cut short), dispatching what it can.
#include <unistd.h>

#include <vector>

#include "fuzz_harness.h"

namespace {
constexpr size_t kReqIdOffset = 44;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    DM_INTF_ST *loop = fuzz::selfloop();
    if (size == 0) {
        return 0; // nothing to write, nothing wakes the poller
    }
    std::vector<uint8_t> bytes(data, data + size);
    fuzz::patch_req_id(bytes.data(), bytes.size(), kReqIdOffset);
    const ssize_t written = write(loop->wfd, bytes.data(), bytes.size());
    fuzz::check(written == static_cast<ssize_t>(bytes.size()), "write into the pipe");
    fuzz::settle();
    return 0;
}
