/* SPDX-License-Identifier: Apache-2.0 */
// Printing shared by the subcommands: payloads as text and hex, peer addresses,
// durations, JSON strings.
#ifndef DMCTL_OUTPUT_H
#define DMCTL_OUTPUT_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "dm_msg.h"

namespace dmctl {

// The payload as text: printable ASCII as it is, everything else as \n, \t or \xNN.
std::string as_text(const uint8_t *data, size_t len, size_t max_len = 4096);

// Classic hex dump, 16 bytes a line, each line indented by `indent`.
void hex_dump(FILE *out, const uint8_t *data, size_t len, const char *indent);

// A peer address as a reader wants it: "udp 127.0.0.1:40000", "hdc device 3 session 12",
// "ipc device 7", "selfloop".
std::string describe_addr(const DM_ADDR_ST *addr);

// Milliseconds with a sensible number of decimals ("0.084", "12.5", "1500").
std::string format_ms(double ms);

// "dm_hdc_init returned 5 (what 5 means there)": every message of dmctl that reports a
// library code says it this way, read by velmar_strerror.
std::string returned(const char *function, long long code);

// Monotonic clock in nanoseconds.
int64_t now_ns();

} // namespace dmctl

#endif // DMCTL_OUTPUT_H
