// SPDX-License-Identifier: Apache-2.0
// The HDC frame as it reaches the interface's pipe: the fuzzer's bytes are written in
// one write, as a session thread hands over what arrived on a session, and the poller
// thread reads them back frame by frame. The interface is a client endpoint: it takes
// its session from the frame and asks the simulator nothing, so every byte counts. (The
// server side, with a real session, is fuzz_hdc_session.)
#include <unistd.h>

#include <vector>

#include "dm_hdc.h"
#include "fuzz_harness.h"
#include "host_hdc.h"

namespace {

constexpr size_t kReqIdOffset = 16;

int32_t no_answer(DM_DATA_ST *, DM_DATA_ST *) { return 0; }

DM_INTF_ST *client()
{
    static DM_INTF_ST *intf = [] {
        fuzz::private_dir(HOST_HDC_DIR_ENV, "hdc-pipe");
        DM_HDC_ADDR_ST addr{};
        addr.kind = DM_ADDR_KIND_HDC;
        addr.family = DM_ADDR_FAMILY_HDC;
        addr.role = DM_HDC_ROLE_CLIENT;
        DM_INTF_ST *made = nullptr;
        fuzz::check(dm_hdc_init(&made, fuzz::context(), no_answer, reinterpret_cast<DM_ADDR_ST *>(&addr),
                                nullptr, 0) == 0,
                    "dm_hdc_init");
        fuzz::watch(made->fd);
        return made;
    }();
    return intf;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    DM_INTF_ST *intf = client();
    if (size == 0) {
        return 0;
    }
    std::vector<uint8_t> bytes(data, data + size);
    fuzz::patch_req_id(bytes.data(), bytes.size(), kReqIdOffset);
    const ssize_t written = write(intf->wfd, bytes.data(), bytes.size());
    fuzz::check(written == static_cast<ssize_t>(bytes.size()), "write into the pipe");
    fuzz::settle();
    return 0;
}
