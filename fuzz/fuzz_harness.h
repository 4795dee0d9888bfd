/* SPDX-License-Identifier: Apache-2.0 */
// What every fuzz target shares: one framework context per process whose poller thread
// receives and dispatches the fuzzer's bytes exactly as a daemon's would, a command
// handler that answers every request, and a way to wait until the poller thread has
// consumed all that one input delivered, so that nothing of it leaks into the next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "dm_msg.h"

namespace fuzz {

// A request kept pending in the context at all times. An input whose req_id field holds
// kLiveToken gets this request's identity instead, so that the fuzzer can reach the
// matching of a response with a pending request: the identities are serials it cannot
// guess, and they change every time a response completes the request.
constexpr uint64_t kLiveToken = UINT64_MAX;

// The context, created on first use with its self-loop interface, the answering command
// handler and a barrier descriptor on the poller. Never destroyed: the process ends with
// the fuzzer.
DM_CB_ST *context();
DM_INTF_ST *selfloop();

// Adds a descriptor that settle() waits to see drained.
void watch(int fd);

// Makes sure the pending request exists (re-creating it after a response completed it)
// and writes its identity over a kLiveToken found at `offset` of `frame`.
void patch_req_id(uint8_t *frame, size_t size, size_t offset);

// Returns once the poller thread has read everything waiting on the watched descriptors
// and every handler those messages reached has returned. Aborts when the poller thread
// does not come back within seconds: a hang is a finding too.
void settle();

// Aborts with `what` when `ok` is false; the fuzzer reports it as a crash.
void check(bool ok, const char *what);

// A private run-time directory for the simulators of this process, so that parallel
// fuzzers and test runs never meet; `env` is the simulator's directory variable.
void private_dir(const char *env, const char *tag);

} // namespace fuzz
