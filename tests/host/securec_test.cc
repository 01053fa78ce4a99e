// The host's bounded operations never write past the destination size and
// report every refusal by their result.
#include <cstring>
#include <functional>
#include <string>

#include "qov_utils_base.h"
#include "support/test_env.h"

namespace {

constexpr size_t kBuf = 32;
constexpr char kCanary = '#';

struct BoundCase {
    const char *name;
    size_t destMax;
    std::function<int(char *, size_t)> op;
    bool ok;
    const char *text;  // destination content on success; on failure "" (strings) or null (untouched)
};

class Bounded : public ::testing::TestWithParam<BoundCase> {};

TEST_P(Bounded, RespectsTheDestinationSize) {
    const BoundCase &c = GetParam();
    char buf[kBuf];
    std::memset(buf, kCanary, sizeof buf);
    int r = c.op(buf, c.destMax);
    if (c.ok) {
        EXPECT_GE(r, 0);
        EXPECT_EQ(std::string(buf, std::strlen(c.text)), c.text);
    } else {
        EXPECT_NE(r, 0);
        EXPECT_EQ(buf[0], c.text != nullptr ? '\0' : kCanary);
    }
    for (size_t i = c.destMax; i < kBuf; ++i) ASSERT_EQ(buf[i], kCanary) << "write past the bound at " << i;
}

int Cat(char *d, size_t n, const char *a, const char *b) {
    int r = strcpy_s(d, n, a);
    return r != 0 ? r : strcat_s(d, n, b);
}

INSTANTIATE_TEST_SUITE_P(
    Ops, Bounded,
    ::testing::Values(
        BoundCase{"StrcpyFits", 4, [](char *d, size_t n) { return strcpy_s(d, n, "abc"); }, true, "abc"},
        BoundCase{"StrcpyNoRoomForNul", 3, [](char *d, size_t n) { return strcpy_s(d, n, "abc"); }, false, ""},
        BoundCase{"StrcpyNullSrc", 3, [](char *d, size_t n) { return strcpy_s(d, n, nullptr); }, false, ""},
        BoundCase{"StrcatFits", 6, [](char *d, size_t n) { return Cat(d, n, "ab", "cde"); }, true, "abcde"},
        BoundCase{"StrcatTooLong", 5, [](char *d, size_t n) { return Cat(d, n, "ab", "cde"); }, false, ""},
        BoundCase{"MemcpyFits", 4, [](char *d, size_t n) { return memcpy_s(d, n, "wxyz", 4); }, true, "wxyz"},
        BoundCase{"MemcpyTooLong", 3, [](char *d, size_t n) { return memcpy_s(d, n, "wxyz", 4); }, false, nullptr},
        BoundCase{"MemcpyZeroDest", 0, [](char *d, size_t n) { return memcpy_s(d, n, "w", 1); }, false, nullptr},
        BoundCase{"MemsetFits", 5, [](char *d, size_t n) { return memset_s(d, n, 'z', 5); }, true, "zzzzz"},
        BoundCase{"MemsetTooLong", 5, [](char *d, size_t n) { return memset_s(d, n, 'z', 6); }, false, nullptr},
        BoundCase{"SprintfFits", 8, [](char *d, size_t n) { return sprintf_s(d, n, "%s-%u", "ab", 12u); }, true,
                  "ab-12"},
        BoundCase{"SprintfExactlyFull", 6, [](char *d, size_t n) { return sprintf_s(d, n, "%s-%u", "ab", 12u); },
                  true, "ab-12"},
        BoundCase{"SprintfOneShort", 5, [](char *d, size_t n) { return sprintf_s(d, n, "%s-%u", "ab", 12u); },
                  false, ""}),
    qovtest::RowName());

TEST(Bounded, SprintfReturnsTheCharactersWrittenAndNegativeWhenItDoesNotFit) {
    char buf[8];
    EXPECT_EQ(sprintf_s(buf, sizeof buf, "%d", 1234567), 7);
    EXPECT_LT(sprintf_s(buf, sizeof buf, "%d", 12345678), 0);
    EXPECT_LT(sprintf_s(nullptr, 8, "x"), 0);
    EXPECT_NE(strcpy_s(nullptr, 8, "x"), 0);
    EXPECT_NE(strcat_s(buf, 0, "x"), 0);
}

}  // namespace
