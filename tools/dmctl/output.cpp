// SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <ctime>

#include "dm_hdc.h"
#include "dm_ipc.h"
#include "velmar_ext.h"

namespace dmctl {

std::string as_text(const uint8_t *data, size_t len, size_t max_len)
{
    std::string text;
    const size_t shown = len < max_len ? len : max_len;
    for (size_t i = 0; i < shown; ++i) {
        const uint8_t c = data[i];
        if (c == '\n') {
            text += "\\n";
        } else if (c == '\t') {
            text += "\\t";
        } else if (c == '\\') {
            text += "\\\\";
        } else if (c >= 0x20 && c < 0x7f) {
            text += static_cast<char>(c);
        } else {
            char esc[8];
            snprintf(esc, sizeof(esc), "\\x%02x", c);
            text += esc;
        }
    }
    if (shown < len) {
        text += "...";
    }
    return text;
}

void hex_dump(FILE *out, const uint8_t *data, size_t len, const char *indent)
{
    for (size_t row = 0; row < len; row += 16) {
        fprintf(out, "%s%04zx ", indent, row);
        std::string ascii;
        for (size_t i = row; i < row + 16; ++i) {
            if (i < len) {
                fprintf(out, " %02x", data[i]);
                ascii += (data[i] >= 0x20 && data[i] < 0x7f) ? static_cast<char>(data[i]) : '.';
            } else {
                fputs("   ", out);
            }
        }
        fprintf(out, "  |%s|\n", ascii.c_str());
    }
}

std::string describe_addr(const DM_ADDR_ST *addr)
{
    switch (addr->kind) {
    case DM_ADDR_KIND_UDP: {
        sockaddr_in sa{};
        memcpy(&sa, addr->sa, sizeof(sa));
        char host[INET_ADDRSTRLEN] = "?";
        inet_ntop(AF_INET, &sa.sin_addr, host, sizeof(host));
        return std::string("udp ") + host + ":" + std::to_string(ntohs(sa.sin_port));
    }
    case DM_ADDR_KIND_HDC: {
        DM_HDC_ADDR_ST hdc{};
        memcpy(&hdc, addr, sizeof(hdc));
        return "hdc device " + std::to_string(hdc.src_dev) + " session " +
               std::to_string(hdc.session);
    }
    case DM_ADDR_KIND_IPC:
        return "ipc device " + std::to_string(addr->peer_id);
    case DM_ADDR_KIND_SELFLOOP:
        return "selfloop";
    default:
        return "kind " + std::to_string(addr->kind);
    }
}

std::string format_ms(double ms)
{
    char text[32];
    if (ms < 1.0) {
        snprintf(text, sizeof(text), "%.3f", ms);
    } else if (ms < 100.0) {
        snprintf(text, sizeof(text), "%.1f", ms);
    } else {
        snprintf(text, sizeof(text), "%.0f", ms);
    }
    return text;
}

std::string returned(const char *function, long long code)
{
    return std::string(function) + " returned " + std::to_string(code) + " (" +
           velmar_strerror(function, code) + ")";
}

int64_t now_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

} // namespace dmctl
