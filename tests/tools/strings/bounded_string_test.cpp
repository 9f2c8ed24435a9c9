// Bounded copy, append, length and formatters, with a canary after capacity.
#include "strings/bounded_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

constexpr char16_t kCanary = 0x1111;

// A wide buffer of `capacity` units followed by canaries.
struct WideBuffer {
    explicit WideBuffer(std::size_t capacity) : capacity(capacity), units(capacity + 4, kCanary) {}
    char16_t* data() { return units.data(); }
    std::u16string text() const { return std::u16string(units.data()); }
    bool canaryIntact() const { return units.substr(capacity) == std::u16string(4, kCanary); }
    std::size_t capacity;
    std::u16string units;
};

TEST(BoundedFormatTest, NarrowResultsAndTruncation) {
    // clang-format off
    struct Row { const char* name; std::size_t capacity; const char* argument; std::int32_t expectedResult; const char* expectedText; };
    const Row rows[] = {
        {"Fits",              16, "short",                5,  "short"},
        {"ExactlyCapacity",   16, "abcdefghijklmnop",     15, "abcdefghijklmno"},
        {"CapacityOne",       1,  "abc",                  0,  ""},
        {"EmptyText",         4,  "",                     0,  ""},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        char buffer[32];
        std::memset(buffer, 0x11, sizeof(buffer));
        EXPECT_EQ(boundedFormat(buffer, row.capacity, "%s", row.argument), row.expectedResult);
        EXPECT_STREQ(buffer, row.expectedText);
        EXPECT_EQ(buffer[row.capacity], 0x11) << "wrote past the capacity";
    }
    char untouched[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(boundedFormat(untouched, 0, "%d", 1), -1);
    EXPECT_EQ(untouched[0], 'x');
    EXPECT_EQ(boundedFormat(nullptr, 8, "%d", 1), -1);
}

TEST(BoundedFormatWideTest, ResultTellsFitExactFillAndOverflow) {
    // clang-format off
    struct Row { const char* name; std::size_t capacity; std::size_t textLength; std::int32_t expectedResult; std::size_t expectedLength; };
    const Row rows[] = {
        {"Exactly512Into512",  512, 512, 512, 511},
        {"511Into512",         512, 511, 511, 511},
        {"513Into512",         512, 513, -1,  511},
        {"Empty",              512, 0,   0,   0},
        {"CapacityOneOneChar", 1,   1,   1,   0},
        {"CapacityOneLonger",  1,   5,   -1,  0},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::u16string text(row.textLength, u'a');
        WideBuffer buffer(row.capacity);
        EXPECT_EQ(boundedFormatWide(buffer.data(), row.capacity, u"%s", text.c_str()),
                  row.expectedResult);
        EXPECT_EQ(buffer.text(), text.substr(0, row.expectedLength));
        EXPECT_TRUE(buffer.canaryIntact());
    }
    char16_t unit = u'x';
    EXPECT_EQ(boundedFormatWide(&unit, 0, u"%s", u"abc"), -1);
    EXPECT_EQ(unit, u'x');
}

TEST(BoundedCopyTest, CopiesTerminatedPrefix) {
    // clang-format off
    struct Row { const char* name; const char16_t* source; std::size_t capacity; std::size_t expectedResult; const char16_t* expectedText; };
    const Row rows[] = {
        {"Fits",                               u"abc",  8, 3, u"abc"},
        {"ExactlyFillsWithTerminator",         u"abc",  4, 3, u"abc"},
        {"OneTooLong",                         u"abcd", 4, 3, u"abc"},
        {"CapacityOneWritesOnlyTheTerminator", u"abc",  1, 0, u""},
        {"EmptySource",                        u"",     4, 0, u""},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        WideBuffer buffer(row.capacity);
        EXPECT_EQ(boundedCopy(buffer.data(), row.source, row.capacity), row.expectedResult);
        EXPECT_EQ(buffer.text(), row.expectedText);
        EXPECT_TRUE(buffer.canaryIntact());
    }
    char16_t untouched[4] = {u'x', u'x', u'x', 0};
    EXPECT_EQ(boundedCopy(untouched, u"abc", 0), 0u);
    EXPECT_EQ(boundedCopy(untouched, nullptr, 4), 0u);
    EXPECT_EQ(untouched[0], u'x');
    EXPECT_EQ(boundedCopy(nullptr, u"abc", 4), 0u);
}

TEST(BoundedAppendTest, AppendsOnlyWithRoomForMoreThanTheTerminator) {
    // clang-format off
    struct Row { const char* name; std::size_t existing; std::size_t capacity; const char16_t* source; std::size_t expectedResult; };
    const Row rows[] = {
        {"LineFeedAfter510Of512",    510, 512, u"\n",  1},
        {"LineFeedAfter511Of512",    511, 512, u"\n",  0},
        {"ThreeAfter509Of512IsCut",  509, 512, u"xyz", 2},
        {"IntoEmpty",                0,   8,   u"abc", 3},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        WideBuffer buffer(row.capacity);
        const std::u16string before(row.existing, u'a');
        boundedCopy(buffer.data(), before.c_str(), row.capacity);
        EXPECT_EQ(boundedAppend(buffer.data(), row.source, row.capacity), row.expectedResult);
        EXPECT_EQ(buffer.text(), before + std::u16string(row.source).substr(0, row.expectedResult));
        EXPECT_TRUE(buffer.canaryIntact());
    }
    char16_t unterminated[4] = {u'a', u'b', u'c', u'd'};
    EXPECT_EQ(boundedAppend(unterminated, u"x", 4), 0u);
    EXPECT_EQ(std::u16string(unterminated, 4), u"abcd");
    EXPECT_EQ(boundedAppend(unterminated, u"x", 0), 0u);
    EXPECT_EQ(boundedAppend(nullptr, u"x", 4), 0u);
}

// The length is 0 whenever the answer is -1.
TEST(BoundedLengthTest, FindsTerminatorWithinCapacity) {
    // clang-format off
    struct Row { const char* name; const char16_t* text; std::size_t capacity; std::int32_t expectedResult; std::size_t expectedLength; };
    const Row rows[] = {
        {"TerminatorInRange",   u"abc",  4, 0,  3},
        {"TerminatorOutOfRange", u"abc", 3, -1, 0},
        {"Null",                nullptr, 3, -1, 0},
        {"Empty",               u"",     1, 0,  0},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::size_t length = 99;
        EXPECT_EQ(boundedLength(row.text, row.capacity, &length), row.expectedResult);
        EXPECT_EQ(length, row.expectedLength);
    }
}

}  // namespace
