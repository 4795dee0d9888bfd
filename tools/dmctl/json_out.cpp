// SPDX-License-Identifier: Apache-2.0
#include "json_out.h"

#include <string>

#include "output.h"

namespace dmctl {

Json payload_json(const uint8_t *data, size_t len)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * len);
    for (size_t i = 0; i < len; ++i) {
        hex += kDigits[data[i] >> 4];
        hex += kDigits[data[i] & 0xf];
    }
    Json out;
    out["bytes"] = len;
    out["hex"] = hex;
    out["text"] = as_text(data, len);
    return out;
}

void print_json(FILE *out, const Json &value)
{
    // `replace`: a string that is not UTF-8 comes out with U+FFFD instead of throwing.
    const std::string line = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    fprintf(out, "%s\n", line.c_str());
    fflush(out);
}

} // namespace dmctl
