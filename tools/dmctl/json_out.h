/* SPDX-License-Identifier: Apache-2.0 */
// dmctl's machine-readable output: one JSON object per line, made by nlohmann::json so
// that every string is escaped as JSON requires (payload bytes never reach it raw).
#ifndef DMCTL_JSON_OUT_H
#define DMCTL_JSON_OUT_H

#include <cstdint>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace dmctl {

using Json = nlohmann::ordered_json; // keys in the order they were set: easier to read

// A payload as JSON fields: "bytes", "hex" (two digits a byte) and "text" (as_text).
Json payload_json(const uint8_t *data, size_t len);

// `value` on one line of `out`, flushed.
void print_json(FILE *out, const Json &value);

} // namespace dmctl

#endif // DMCTL_JSON_OUT_H
