// Bounded copy, append, length and the truncation rules of the two bounded
// formatters, checked with a canary after the stated capacity.
#include "strings/bounded_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr char16_t kCanary = 0x1111;

// A wide buffer of `capacity` units followed by canaries.
struct WideBuffer {
    explicit WideBuffer(std::size_t capacity) : capacity(capacity), units(capacity + 4, kCanary) {}
    char16_t* data() { return units.data(); }
    std::u16string text() const { return std::u16string(units.data()); }
    bool canaryIntact() const {
        for (std::size_t i = capacity; i < units.size(); ++i) {
            if (units[i] != kCanary) {
                return false;
            }
        }
        return true;
    }
    std::size_t capacity;
    std::vector<char16_t> units;
};

std::u16string repeated(char16_t unit, std::size_t count) {
    return std::u16string(count, unit);
}

TEST(BoundedFormatTest, NarrowResultsAndTruncation) {
    struct Row {
        const char* name;
        std::size_t capacity;
        const char* argument;
        std::int32_t expectedResult;
        const char* expectedText;
    };
    const Row rows[] = {
        {"fits", 16, "short", 5, "short"},
        {"one below capacity", 16, "abcdefghijklmno", 15, "abcdefghijklmno"},
        {"exactly capacity", 16, "abcdefghijklmnop", 15, "abcdefghijklmno"},
        {"twenty into sixteen", 16, "abcdefghijklmnopqrst", 15, "abcdefghijklmno"},
        {"capacity one", 1, "abc", 0, ""},
        {"empty text", 4, "", 0, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        char buffer[32];
        std::memset(buffer, 0x11, sizeof(buffer));
        EXPECT_EQ(boundedFormat(buffer, row.capacity, "%s", row.argument), row.expectedResult);
        EXPECT_STREQ(buffer, row.expectedText);
        EXPECT_EQ(buffer[row.capacity], 0x11) << "wrote past the capacity";
    }
}

TEST(BoundedFormatTest, NarrowRefusesNoRoomWithoutWriting) {
    char buffer[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(boundedFormat(buffer, 0, "%d", 1), -1);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(boundedFormat(nullptr, 8, "%d", 1), -1);
}

TEST(BoundedFormatTest, CatalogueIdsAreZeroPadded) {
    char id[16];
    EXPECT_EQ(boundedFormat(id, sizeof(id), "MSG_TARN_E%04u", 42u), 14);
    EXPECT_STREQ(id, "MSG_TARN_E0042");
    EXPECT_EQ(boundedFormat(id, sizeof(id), "MSG_TARN_E%04u", 12345u), 15);
    EXPECT_STREQ(id, "MSG_TARN_E12345");
    // Six digits no longer fit: the id is cut, never overrun.
    EXPECT_EQ(boundedFormat(id, sizeof(id), "MSG_TARN_E%04u", 123456u), 15);
    EXPECT_STREQ(id, "MSG_TARN_E12345");
}

TEST(BoundedFormatWideTest, ResultTellsFitExactFillAndOverflow) {
    struct Row {
        const char* name;
        std::size_t capacity;
        std::size_t textLength;
        std::int32_t expectedResult;
        std::size_t expectedLength;
    };
    const Row rows[] = {
        {"600 into 512", 512, 600, -1, 511},
        {"exactly 512 into 512", 512, 512, 512, 511},
        {"511 into 512", 512, 511, 511, 511},
        {"513 into 512", 512, 513, -1, 511},
        {"empty", 512, 0, 0, 0},
        {"capacity one, one char", 1, 1, 1, 0},
        {"capacity one, empty", 1, 0, 0, 0},
        {"capacity one, longer", 1, 5, -1, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::u16string text = repeated(u'a', row.textLength);
        WideBuffer buffer(row.capacity);
        EXPECT_EQ(boundedFormatWide(buffer.data(), row.capacity, u"%s", text.c_str()),
                  row.expectedResult);
        EXPECT_EQ(buffer.text(), text.substr(0, row.expectedLength));
        EXPECT_TRUE(buffer.canaryIntact());
    }
}

TEST(BoundedFormatWideTest, CapacityZeroWritesNothing) {
    char16_t unit = u'x';
    EXPECT_EQ(boundedFormatWide(&unit, 0, u"%s", u"abc"), -1);
    EXPECT_EQ(unit, u'x');
}

TEST(BoundedCopyTest, CopiesTerminatedPrefix) {
    struct Row {
        const char* name;
        const char16_t* source;
        std::size_t capacity;
        std::size_t expectedResult;
        const char16_t* expectedText;
    };
    const Row rows[] = {
        {"fits", u"abc", 8, 3, u"abc"},
        {"exactly fills with terminator", u"abc", 4, 3, u"abc"},
        {"one too long", u"abcd", 4, 3, u"abc"},
        {"capacity one writes only the terminator", u"abc", 1, 0, u""},
        {"empty source", u"", 4, 0, u""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        WideBuffer buffer(row.capacity);
        EXPECT_EQ(boundedCopy(buffer.data(), row.source, row.capacity), row.expectedResult);
        EXPECT_EQ(buffer.text(), row.expectedText);
        EXPECT_TRUE(buffer.canaryIntact());
    }
}

TEST(BoundedCopyTest, NullOrNoRoomCopiesNothing) {
    char16_t buffer[4] = {u'x', u'x', u'x', 0};
    EXPECT_EQ(boundedCopy(buffer, u"abc", 0), 0u);
    EXPECT_EQ(buffer[0], u'x');
    EXPECT_EQ(boundedCopy(buffer, nullptr, 4), 0u);
    EXPECT_EQ(buffer[0], u'x');
    EXPECT_EQ(boundedCopy(nullptr, u"abc", 4), 0u);
}

TEST(BoundedAppendTest, AppendsOnlyWithRoomForMoreThanTheTerminator) {
    struct Row {
        const char* name;
        std::size_t existing;
        std::size_t capacity;
        const char16_t* source;
        std::size_t expectedResult;
    };
    const Row rows[] = {
        {"line feed after 510 of 512", 510, 512, u"\n", 1},
        {"line feed after 511 of 512", 511, 512, u"\n", 0},
        {"two after 509 of 512", 509, 512, u"xy", 2},
        {"three after 509 of 512 is cut", 509, 512, u"xyz", 2},
        {"into empty", 0, 8, u"abc", 3},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        WideBuffer buffer(row.capacity);
        const std::u16string before = repeated(u'a', row.existing);
        boundedCopy(buffer.data(), before.c_str(), row.capacity);
        EXPECT_EQ(boundedAppend(buffer.data(), row.source, row.capacity), row.expectedResult);
        EXPECT_EQ(buffer.text(), before + std::u16string(row.source).substr(0, row.expectedResult));
        EXPECT_TRUE(buffer.canaryIntact());
    }
}

TEST(BoundedAppendTest, UnterminatedDestinationGetsNothing) {
    char16_t buffer[4] = {u'a', u'b', u'c', u'd'};
    EXPECT_EQ(boundedAppend(buffer, u"x", 4), 0u);
    EXPECT_EQ(std::u16string(buffer, 4), u"abcd");
    EXPECT_EQ(boundedAppend(buffer, u"x", 0), 0u);
    EXPECT_EQ(boundedAppend(nullptr, u"x", 4), 0u);
}

TEST(BoundedLengthTest, FindsTerminatorWithinCapacity) {
    std::size_t length = 99;
    EXPECT_EQ(boundedLength(u"abc", 4, &length), 0);
    EXPECT_EQ(length, 3u);
    length = 99;
    EXPECT_EQ(boundedLength(u"abc", 3, &length), -1);
    EXPECT_EQ(length, 0u);
    length = 99;
    EXPECT_EQ(boundedLength(nullptr, 3, &length), -1);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(boundedLength(u"", 1, &length), 0);
    EXPECT_EQ(length, 0u);
}

}  // namespace
