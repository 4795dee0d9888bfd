// Bounds-checked functions: every result code, what each failure leaves in the
// destination, and that no byte outside [dest, dest + dest_max) is ever touched.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host_platform.h"

namespace {

constexpr unsigned char kGuard = 0xA5;
constexpr size_t kGuardLen = 16;

// A destination of `size` bytes (pre-filled with `fill`) between two guard zones.
class Guarded {
public:
    explicit Guarded(size_t size, unsigned char fill = 'x')
        : size_(size), bytes_(size + 2 * kGuardLen, kGuard)
    {
        std::memset(dest(), fill, size);
    }
    char *dest() { return reinterpret_cast<char *>(bytes_.data() + kGuardLen); }
    size_t size() const { return size_; }
    bool guards_intact() const
    {
        for (size_t i = 0; i < bytes_.size(); ++i) {
            const bool inside = i >= kGuardLen && i < kGuardLen + size_;
            if (!inside && bytes_[i] != kGuard) {
                return false;
            }
        }
        return true;
    }
    bool all(unsigned char value) const
    {
        for (size_t i = 0; i < size_; ++i) {
            if (bytes_[kGuardLen + i] != value) {
                return false;
            }
        }
        return true;
    }

private:
    size_t size_;
    std::vector<unsigned char> bytes_;
};

const char kSrc[] = "0123456789abcdefghijklmnopqrstuvwxyz";

TEST(Securec, SuccessfulCallsWriteExactlyWhatWasAsked)
{
    Guarded a(16);
    EXPECT_EQ(memset_s(a.dest(), a.size(), 0, a.size()), HOST_SEC_OK);
    EXPECT_TRUE(a.all(0));
    EXPECT_EQ(memcpy_s(a.dest(), a.size(), kSrc, 16), HOST_SEC_OK);
    EXPECT_EQ(std::memcmp(a.dest(), kSrc, 16), 0);
    EXPECT_EQ(memset_s(a.dest(), a.size(), 'q', 0), HOST_SEC_OK);
    EXPECT_EQ(a.dest()[0], '0');

    // memmove_s must handle overlap in both directions.
    EXPECT_EQ(memmove_s(a.dest() + 2, a.size() - 2, a.dest(), 10), HOST_SEC_OK);
    EXPECT_EQ(std::string(a.dest(), 12), "010123456789");
    EXPECT_EQ(memmove_s(a.dest(), a.size(), a.dest() + 2, 10), HOST_SEC_OK);
    EXPECT_EQ(std::string(a.dest(), 10), "0123456789");

    Guarded s(8);
    EXPECT_EQ(strcpy_s(s.dest(), s.size(), "1234567"), HOST_SEC_OK); // exact fit
    EXPECT_STREQ(s.dest(), "1234567");
    EXPECT_EQ(strncpy_s(s.dest(), s.size(), kSrc, 3), HOST_SEC_OK);
    EXPECT_STREQ(s.dest(), "012");
    EXPECT_EQ(strncpy_s(s.dest(), s.size(), "ab", 8), HOST_SEC_OK); // short source
    EXPECT_STREQ(s.dest(), "ab");
    EXPECT_TRUE(a.guards_intact());
    EXPECT_TRUE(s.guards_intact());
}

TEST(Securec, StrncpyReadsNoMoreThanCountFromTheSource)
{
    // No terminator within the source's own bytes: reading past count would be a
    // heap overflow that the address sanitizer reports.
    std::vector<char> unterminated(4, 'z');
    Guarded s(8);
    EXPECT_EQ(strncpy_s(s.dest(), s.size(), unterminated.data(), unterminated.size()),
              HOST_SEC_OK);
    EXPECT_STREQ(s.dest(), "zzzz");
}

TEST(Securec, UnusableDestMaxWritesNothing)
{
    for (const size_t bad : {size_t{0}, size_t{HOST_SEC_MAX_DEST} + 1}) {
        Guarded g(8);
        EXPECT_EQ(memset_s(g.dest(), bad, 0, 1), HOST_SEC_ERANGE);
        EXPECT_EQ(memcpy_s(g.dest(), bad, kSrc, 1), HOST_SEC_ERANGE);
        EXPECT_EQ(memmove_s(g.dest(), bad, kSrc, 1), HOST_SEC_ERANGE);
        EXPECT_EQ(strncpy_s(g.dest(), bad, kSrc, 1), HOST_SEC_ERANGE);
        EXPECT_EQ(strcpy_s(g.dest(), bad, "a"), HOST_SEC_ERANGE);
        EXPECT_EQ(sprintf_s(g.dest(), bad, "%d", 1), -1);
        EXPECT_TRUE(g.all('x')) << "dest_max " << bad;
        EXPECT_TRUE(g.guards_intact());
    }
}

TEST(Securec, NullPointersFailAndANullSourceClearsTheDestination)
{
    EXPECT_EQ(memset_s(nullptr, 8, 0, 1), HOST_SEC_EINVAL);
    EXPECT_EQ(memcpy_s(nullptr, 8, kSrc, 1), HOST_SEC_EINVAL);
    EXPECT_EQ(memmove_s(nullptr, 8, kSrc, 1), HOST_SEC_EINVAL);
    EXPECT_EQ(strncpy_s(nullptr, 8, kSrc, 1), HOST_SEC_EINVAL);
    EXPECT_EQ(strcpy_s(nullptr, 8, kSrc), HOST_SEC_EINVAL);
    EXPECT_EQ(sprintf_s(nullptr, 8, "x"), -1);

    Guarded g(8);
    EXPECT_EQ(memcpy_s(g.dest(), g.size(), nullptr, 1), HOST_SEC_EINVAL);
    EXPECT_TRUE(g.all(0));
    std::memset(g.dest(), 'x', g.size());
    EXPECT_EQ(memmove_s(g.dest(), g.size(), nullptr, 1), HOST_SEC_EINVAL);
    EXPECT_TRUE(g.all(0));
    for (auto call : {+[](char *d, size_t n) { return strcpy_s(d, n, nullptr); },
                      +[](char *d, size_t n) { return strncpy_s(d, n, nullptr, 2); }}) {
        std::memset(g.dest(), 'x', g.size());
        EXPECT_EQ(call(g.dest(), g.size()), HOST_SEC_EINVAL);
        EXPECT_EQ(g.dest()[0], '\0');
    }
    EXPECT_TRUE(g.guards_intact());
}

TEST(Securec, CountAboveDestMaxStopsAtDestMax)
{
    Guarded g(8);
    EXPECT_EQ(memset_s(g.dest(), g.size(), 'm', 9), HOST_SEC_ERANGE);
    EXPECT_TRUE(g.all('m'));
    EXPECT_EQ(memcpy_s(g.dest(), g.size(), kSrc, 9), HOST_SEC_ERANGE);
    EXPECT_TRUE(g.all(0));
    std::memset(g.dest(), 'x', g.size());
    EXPECT_EQ(memmove_s(g.dest(), g.size(), kSrc, 9), HOST_SEC_ERANGE);
    EXPECT_TRUE(g.all(0));
    std::memset(g.dest(), 'x', g.size());
    EXPECT_EQ(strncpy_s(g.dest(), g.size(), "ab", 9), HOST_SEC_ERANGE);
    EXPECT_EQ(g.dest()[0], '\0');
    EXPECT_TRUE(g.guards_intact());
}

TEST(Securec, OverlapIsRefusedByTheCopiesThatCannotHandleIt)
{
    Guarded g(16);
    std::memcpy(g.dest(), kSrc, 16);
    EXPECT_EQ(memcpy_s(g.dest() + 4, 12, g.dest(), 8), HOST_SEC_EOVERLAP);
    EXPECT_EQ(memcpy_s(g.dest(), 16, g.dest() + 7, 8), HOST_SEC_EOVERLAP);
    EXPECT_EQ(std::memcmp(g.dest(), kSrc, 16), 0) << "nothing may be written on overlap";
    // Adjacent but disjoint ranges are not an overlap.
    EXPECT_EQ(memcpy_s(g.dest(), 8, g.dest() + 8, 8), HOST_SEC_OK);
    EXPECT_EQ(std::memcmp(g.dest(), kSrc + 8, 8), 0);

    std::strcpy(g.dest(), "abcdef");
    EXPECT_EQ(strcpy_s(g.dest() + 2, 14, g.dest()), HOST_SEC_EOVERLAP);
    EXPECT_EQ(strncpy_s(g.dest(), 16, g.dest() + 1, 4), HOST_SEC_EOVERLAP);
    EXPECT_STREQ(g.dest(), "abcdef");
    EXPECT_TRUE(g.guards_intact());
}

TEST(Securec, StringsThatDoNotFitFailAndLeaveAnEmptyString)
{
    Guarded g(8);
    EXPECT_EQ(strcpy_s(g.dest(), g.size(), "12345678"), HOST_SEC_ETRUNC);
    EXPECT_EQ(g.dest()[0], '\0');
    std::memset(g.dest(), 'x', g.size());
    EXPECT_EQ(strncpy_s(g.dest(), g.size(), kSrc, 8), HOST_SEC_ETRUNC);
    EXPECT_EQ(g.dest()[0], '\0');
    EXPECT_TRUE(g.guards_intact());
}

TEST(Securec, SprintfCountsCharactersAndRefusesOutputThatDoesNotFit)
{
    Guarded g(8);
    EXPECT_EQ(sprintf_s(g.dest(), g.size(), "%s-%d", "ab", 1234), 7); // exact fit
    EXPECT_STREQ(g.dest(), "ab-1234");
    EXPECT_EQ(sprintf_s(g.dest(), g.size(), "%d", 12345678), -1);
    EXPECT_EQ(g.dest()[0], '\0');
    EXPECT_EQ(sprintf_s(g.dest(), g.size(), "%s", ""), 0);
    EXPECT_TRUE(g.guards_intact());
}

} // namespace
