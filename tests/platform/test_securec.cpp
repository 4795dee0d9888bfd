// SPDX-License-Identifier: Apache-2.0
// Bounds-checked functions, one row per case: the result code, what the destination
// holds afterwards, and that no byte outside [dest, dest + dest_max) is touched (guard
// zones on both sides).
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "host_platform.h"

using namespace std::literals;

namespace {

constexpr char kNoTerminator[4] = {'u', 'u', 'u', 'u'};

TEST(Securec, EachCallReturnsItsCodeAndLeavesTheDocumentedDestination)
{
    constexpr size_t kHuge = size_t{HOST_SEC_MAX_DEST} + 1;
    constexpr const char *src = "0123456789abcdef";
    const std::string untouched = "abcdefgh", zeroed(8, '\0'), emptied = "\0???????"s; // '?': any byte
    const struct {
        const char *what;
        std::function<int(char *)> call;
        int rc;
        std::string after;
    } cases[] = {
        {"memcpy_s", [](char *d) { return memcpy_s(d, 8, src, 8); }, 0, "01234567"},
        {"memmove_s forwards", [](char *d) { return memmove_s(d + 2, 6, d, 5); }, 0, "ababcdeh"},
        {"memmove_s backwards", [](char *d) { return memmove_s(d, 8, d + 2, 5); }, 0, "cdefgfgh"},
        {"memcpy_s adjacent", [](char *d) { return memcpy_s(d, 4, d + 4, 4); }, 0, "efghefgh"},
        {"memset_s count 0", [](char *d) { return memset_s(d, 8, 'z', 0); }, 0, untouched},
        {"memset_s", [](char *d) { return memset_s(d, 8, 'm', 8); }, 0, "mmmmmmmm"},
        {"strcpy_s exact fit", [](char *d) { return strcpy_s(d, 8, "1234567"); }, 0, "1234567\0"s},
        {"strncpy_s count", [](char *d) { return strncpy_s(d, 8, src, 3); }, 0, "012\0????"s},
        {"strncpy_s short source", [](char *d) { return strncpy_s(d, 8, "ab", 8); }, 0, "ab\0?????"s},
        // No terminator within `count`: the address sanitizer reports any read past it.
        {"strncpy_s unterminated", [](char *d) { return strncpy_s(d, 8, kNoTerminator, 4); }, 0, "uuuu\0???"s},
        {"sprintf_s exact fit", [](char *d) { return sprintf_s(d, 8, "%s-%d", "ab", 1234); }, 7, "ab-1234\0"s},
        {"memset_s dest_max 0", [](char *d) { return memset_s(d, 0, 0, 0); }, HOST_SEC_ERANGE, untouched},
        {"memcpy_s huge dest_max", [](char *d) { return memcpy_s(d, kHuge, src, 1); }, HOST_SEC_ERANGE, untouched},
        {"memmove_s huge dest_max", [](char *d) { return memmove_s(d, kHuge, src, 1); }, HOST_SEC_ERANGE, untouched},
        {"strncpy_s huge dest_max", [](char *d) { return strncpy_s(d, kHuge, src, 1); }, HOST_SEC_ERANGE, untouched},
        {"strcpy_s dest_max 0", [](char *d) { return strcpy_s(d, 0, "a"); }, HOST_SEC_ERANGE, untouched},
        {"sprintf_s dest_max 0", [](char *d) { return sprintf_s(d, 0, "a"); }, -1, untouched},
        {"memset_s null dest", [](char *) { return memset_s(nullptr, 8, 0, 1); }, HOST_SEC_EINVAL, untouched},
        {"memcpy_s null dest", [](char *) { return memcpy_s(nullptr, 8, src, 1); }, HOST_SEC_EINVAL, untouched},
        {"memmove_s null dest", [](char *) { return memmove_s(nullptr, 8, src, 1); }, HOST_SEC_EINVAL, untouched},
        {"strncpy_s null dest", [](char *) { return strncpy_s(nullptr, 8, src, 1); }, HOST_SEC_EINVAL, untouched},
        {"strcpy_s null dest", [](char *) { return strcpy_s(nullptr, 8, src); }, HOST_SEC_EINVAL, untouched},
        {"sprintf_s null dest", [](char *) { return sprintf_s(nullptr, 8, "x"); }, -1, untouched},
        {"memcpy_s null src", [](char *d) { return memcpy_s(d, 8, nullptr, 1); }, HOST_SEC_EINVAL, zeroed},
        {"memmove_s null src", [](char *d) { return memmove_s(d, 8, nullptr, 1); }, HOST_SEC_EINVAL, zeroed},
        {"strncpy_s null src", [](char *d) { return strncpy_s(d, 8, nullptr, 1); }, HOST_SEC_EINVAL, emptied},
        {"strcpy_s null src", [](char *d) { return strcpy_s(d, 8, nullptr); }, HOST_SEC_EINVAL, emptied},
        {"memset_s count > dest_max", [](char *d) { return memset_s(d, 8, 'm', 9); }, HOST_SEC_ERANGE, "mmmmmmmm"},
        {"memcpy_s count > dest_max", [](char *d) { return memcpy_s(d, 8, src, 9); }, HOST_SEC_ERANGE, zeroed},
        {"memmove_s count > dest_max", [](char *d) { return memmove_s(d, 8, src, 9); }, HOST_SEC_ERANGE, zeroed},
        {"strncpy_s count > dest_max", [](char *d) { return strncpy_s(d, 8, "a", 9); }, HOST_SEC_ERANGE, emptied},
        {"memcpy_s overlap", [](char *d) { return memcpy_s(d + 1, 7, d, 4); }, HOST_SEC_EOVERLAP, untouched},
        {"strncpy_s overlap", [](char *d) { return strncpy_s(d, 8, d + 2, 3); }, HOST_SEC_EOVERLAP, untouched},
        {"strcpy_s too long", [](char *d) { return strcpy_s(d, 8, "12345678"); }, HOST_SEC_ETRUNC, emptied},
        {"strncpy_s too long", [](char *d) { return strncpy_s(d, 8, src, 8); }, HOST_SEC_ETRUNC, emptied},
        {"sprintf_s too long", [](char *d) { return sprintf_s(d, 8, "%d", 12345678); }, -1, emptied},
    };
    for (const auto &c : cases) {
        std::string bytes = std::string(16, '#') + untouched + std::string(16, '#');
        EXPECT_EQ(c.call(bytes.data() + 16), c.rc) << c.what;
        for (size_t i = 0; i < 8; ++i) {
            EXPECT_TRUE(c.after[i] == '?' || bytes[16 + i] == c.after[i]) << c.what << ": byte " << i;
        }
        EXPECT_EQ(bytes.substr(0, 16) + bytes.substr(24), std::string(32, '#')) << c.what;
    }
}

} // namespace
