// Bounds-checked functions: result codes, what a failure leaves in the destination, and
// that no byte outside [dest, dest + dest_max) is touched (guard zones on both sides).
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <string>

#include "host_platform.h"

namespace {

constexpr size_t kGuard = 16;
constexpr size_t kSize = 8;
const char kSrc[] = "0123456789abcdef";

struct Guarded {
    std::array<char, kSize + 2 * kGuard> bytes;
    Guarded() { bytes.fill('#'); std::memset(dest(), 'x', kSize); }
    char *dest() { return bytes.data() + kGuard; }
    std::string content() const { return std::string(bytes.data() + kGuard, kSize); }
    bool guards_intact() const
    {
        const std::string all(bytes.data(), bytes.size());
        return all.substr(0, kGuard) == std::string(kGuard, '#') &&
               all.substr(kGuard + kSize) == std::string(kGuard, '#');
    }
};

TEST(Securec, SuccessfulCallsWriteExactlyWhatWasAsked)
{
    Guarded g;
    EXPECT_EQ(memcpy_s(g.dest(), kSize, kSrc, kSize), HOST_SEC_OK);
    EXPECT_EQ(g.content(), "01234567");
    EXPECT_EQ(memmove_s(g.dest() + 2, kSize - 2, g.dest(), 5), HOST_SEC_OK); // forwards
    EXPECT_EQ(g.content(), "01012347");
    EXPECT_EQ(memmove_s(g.dest(), kSize, g.dest() + 2, 5), HOST_SEC_OK); // backwards
    EXPECT_EQ(g.content(), "01234347");
    EXPECT_EQ(memcpy_s(g.dest(), 4, g.dest() + 4, 4), HOST_SEC_OK); // adjacent, no overlap
    EXPECT_EQ(g.content(), "43474347");
    EXPECT_EQ(memset_s(g.dest(), kSize, 'z', 0), HOST_SEC_OK);
    EXPECT_EQ(memset_s(g.dest(), kSize, 'm', kSize), HOST_SEC_OK);
    EXPECT_EQ(g.content(), "mmmmmmmm");
    EXPECT_EQ(strcpy_s(g.dest(), kSize, "1234567"), HOST_SEC_OK); // exact fit
    EXPECT_STREQ(g.dest(), "1234567");
    EXPECT_EQ(strncpy_s(g.dest(), kSize, kSrc, 3), HOST_SEC_OK);
    EXPECT_STREQ(g.dest(), "012");
    EXPECT_EQ(strncpy_s(g.dest(), kSize, "ab", kSize), HOST_SEC_OK); // source shorter than count
    EXPECT_STREQ(g.dest(), "ab");
    // No terminator within `count` bytes: the address sanitizer reports any read past them.
    const std::string unterminated(4, 'u');
    EXPECT_EQ(strncpy_s(g.dest(), kSize, unterminated.data(), 4), HOST_SEC_OK);
    EXPECT_STREQ(g.dest(), "uuuu");
    EXPECT_EQ(sprintf_s(g.dest(), kSize, "%s-%d", "ab", 1234), 7); // exact fit
    EXPECT_STREQ(g.dest(), "ab-1234");
    EXPECT_TRUE(g.guards_intact());
}

enum class Leaves { Untouched, Zeroed, EmptyString, FilledWithM };

TEST(Securec, FailuresReturnTheirCodeAndLeaveTheDocumentedDestination)
{
    using Call = std::function<int(char *)>;
    constexpr size_t kHuge = size_t{HOST_SEC_MAX_DEST} + 1;
    const struct {
        const char *what;
        Call call;
        int rc;
        Leaves leaves;
    } cases[] = {
        {"memset_s dest_max 0", [](char *d) { return memset_s(d, 0, 0, 0); }, HOST_SEC_ERANGE, Leaves::Untouched},
        {"memcpy_s huge dest_max", [](char *d) { return memcpy_s(d, kHuge, kSrc, 1); }, HOST_SEC_ERANGE, Leaves::Untouched},
        {"memmove_s huge dest_max", [](char *d) { return memmove_s(d, kHuge, kSrc, 1); }, HOST_SEC_ERANGE, Leaves::Untouched},
        {"strncpy_s huge dest_max", [](char *d) { return strncpy_s(d, kHuge, kSrc, 1); }, HOST_SEC_ERANGE, Leaves::Untouched},
        {"strcpy_s dest_max 0", [](char *d) { return strcpy_s(d, 0, "a"); }, HOST_SEC_ERANGE, Leaves::Untouched},
        {"sprintf_s dest_max 0", [](char *d) { return sprintf_s(d, 0, "a"); }, -1, Leaves::Untouched},
        {"memcpy_s null src", [](char *d) { return memcpy_s(d, kSize, nullptr, 1); }, HOST_SEC_EINVAL, Leaves::Zeroed},
        {"memmove_s null src", [](char *d) { return memmove_s(d, kSize, nullptr, 1); }, HOST_SEC_EINVAL, Leaves::Zeroed},
        {"strncpy_s null src", [](char *d) { return strncpy_s(d, kSize, nullptr, 1); }, HOST_SEC_EINVAL, Leaves::EmptyString},
        {"strcpy_s null src", [](char *d) { return strcpy_s(d, kSize, nullptr); }, HOST_SEC_EINVAL, Leaves::EmptyString},
        {"memset_s count > dest_max", [](char *d) { return memset_s(d, kSize, 'm', kSize + 1); }, HOST_SEC_ERANGE, Leaves::FilledWithM},
        {"memcpy_s count > dest_max", [](char *d) { return memcpy_s(d, kSize, kSrc, kSize + 1); }, HOST_SEC_ERANGE, Leaves::Zeroed},
        {"memmove_s count > dest_max", [](char *d) { return memmove_s(d, kSize, kSrc, kSize + 1); }, HOST_SEC_ERANGE, Leaves::Zeroed},
        {"strncpy_s count > dest_max", [](char *d) { return strncpy_s(d, kSize, "a", kSize + 1); }, HOST_SEC_ERANGE, Leaves::EmptyString},
        {"memcpy_s overlap", [](char *d) { return memcpy_s(d + 1, kSize - 1, d, 4); }, HOST_SEC_EOVERLAP, Leaves::Untouched},
        {"strncpy_s overlap", [](char *d) { return strncpy_s(d, kSize, d + 2, 3); }, HOST_SEC_EOVERLAP, Leaves::Untouched},
        {"strcpy_s too long", [](char *d) { return strcpy_s(d, kSize, "12345678"); }, HOST_SEC_ETRUNC, Leaves::EmptyString},
        {"strncpy_s too long", [](char *d) { return strncpy_s(d, kSize, kSrc, kSize); }, HOST_SEC_ETRUNC, Leaves::EmptyString},
        {"sprintf_s too long", [](char *d) { return sprintf_s(d, kSize, "%d", 12345678); }, -1, Leaves::EmptyString},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Guarded g;
        EXPECT_EQ(c.call(g.dest()), c.rc);
        switch (c.leaves) {
        case Leaves::Untouched: EXPECT_EQ(g.content(), std::string(kSize, 'x')); break;
        case Leaves::Zeroed: EXPECT_EQ(g.content(), std::string(kSize, '\0')); break;
        case Leaves::EmptyString: EXPECT_EQ(g.content()[0], '\0'); break;
        case Leaves::FilledWithM: EXPECT_EQ(g.content(), std::string(kSize, 'm')); break;
        }
        EXPECT_TRUE(g.guards_intact());
    }
    EXPECT_EQ(memset_s(nullptr, kSize, 0, 1), HOST_SEC_EINVAL);
    EXPECT_EQ(memcpy_s(nullptr, kSize, kSrc, 1), HOST_SEC_EINVAL);
    EXPECT_EQ(memmove_s(nullptr, kSize, kSrc, 1), HOST_SEC_EINVAL);
    EXPECT_EQ(strncpy_s(nullptr, kSize, kSrc, 1), HOST_SEC_EINVAL);
    EXPECT_EQ(strcpy_s(nullptr, kSize, kSrc), HOST_SEC_EINVAL);
    EXPECT_EQ(sprintf_s(nullptr, kSize, "x"), -1);
}

} // namespace
