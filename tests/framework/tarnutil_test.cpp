// The framework utility library: identities, buffers and list nodes.
#include "tarn/tarnutil.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// The buffer counters, read before a step so the test can compare after it.
struct BufferCounters {
    std::uint64_t outstanding = 0;
    std::uint64_t sizeFaults = 0;

    static BufferCounters now() {
        BufferCounters counters;
        tarn_test_buffer_stats(&counters.outstanding, &counters.sizeFaults);
        return counters;
    }
};

// An identity whose length counts `nuls` terminating NULs.
tarn_objid* objidWithNuls(const std::u16string& name, int nuls, std::uint32_t kind = 3) {
    std::u16string stored = name + std::u16string(static_cast<std::size_t>(nuls), u'\0');
    return tarn_get_objid(stored.c_str(), static_cast<std::int32_t>(stored.size() * 2), kind);
}

TEST(TarnObjidTest, CompareIgnoresTrailingNulsButNotKindOrName) {
    // clang-format off
    struct Row { const char* name; std::u16string first; int firstNuls; std::uint32_t firstKind; std::u16string second; int secondNuls; std::uint32_t secondKind; bool same; };
    const Row rows[] = {
        {"OneAndTwoNuls",  u"C:\\",                  1, 3, u"C:\\",                  2, 3, true},
        {"NoNulAndOneNul", u"C:\\",                  0, 3, u"C:\\",                  1, 3, true},
        {"EmptyNames",     u"",                      1, 3, u"",                      3, 3, true},
        {"OtherKind",      u"C:\\",                  1, 3, u"C:\\",                  1, 2, false},
        {"CaseDiffers",    u"\\\\?\\Volume{a}\\",    1, 3, u"\\\\?\\Volume{A}\\",    1, 3, false},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        tarn_objid* a = objidWithNuls(row.first, row.firstNuls, row.firstKind);
        tarn_objid* b = objidWithNuls(row.second, row.secondNuls, row.secondKind);
        ASSERT_NE(a, nullptr);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(tarn_objidcmp(a, b) == 0, row.same);
        EXPECT_EQ(tarn_objidcmp(b, a) == 0, row.same);
    }
    // Null is equal to nothing, not even to null.
    tarn_objid* a = objidWithNuls(u"C:\\", 1);
    EXPECT_NE(tarn_objidcmp(a, nullptr), 0);
    EXPECT_NE(tarn_objidcmp(nullptr, a), 0);
    EXPECT_NE(tarn_objidcmp(nullptr, nullptr), 0);
}

// Hosts ask for the same objects snapshot after snapshot: one identity per
// name, length and kind, holding its own copy of the name.
TEST(TarnObjidTest, OneIdentityPerNameLengthAndKind) {
    std::u16string name = u"<kiv>\\\\?\\Volume{2}";
    const auto bytes = static_cast<std::int32_t>((name.size() + 1) * 2);
    tarn_objid* first = tarn_get_objid(name.c_str(), bytes, 3);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->length, bytes);
    EXPECT_EQ(first->kind, 3u);
    EXPECT_EQ(tarn_get_objid(name.c_str(), bytes, 3), first);
    EXPECT_NE(tarn_get_objid(name.c_str(), bytes, 4), first) << "another kind";
    tarn_objid* twoNuls = tarn_get_objid((name + u'\0').c_str(), bytes + 2, 3);
    EXPECT_NE(twoNuls, first) << "another length";
    EXPECT_EQ(twoNuls->length, bytes + 2);
    EXPECT_EQ(tarn_objidcmp(twoNuls, first), 0) << "still the same object";

    name[0] = u'X';  // the caller's buffer changes after the call
    EXPECT_EQ(std::u16string(first->name), u"<kiv>\\\\?\\Volume{2}");

    EXPECT_EQ(tarn_get_objid(nullptr, 4, 3), nullptr);
    EXPECT_EQ(tarn_get_objid(u"C:", -2, 3), nullptr);
}

TEST(TarnBufferTest, BuffersAreZeroFilledAndAccounted) {
    BufferCounters before = BufferCounters::now();
    auto* buffer = static_cast<unsigned char*>(tarn_alloc_buf(44));
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(tarn_test_buffer_size(buffer), 44u);
    for (int i = 0; i < 44; ++i) {
        ASSERT_EQ(buffer[i], 0) << "byte " << i;
    }
    EXPECT_EQ(BufferCounters::now().outstanding, before.outstanding + 1);
    tarn_free_buf(buffer, 44);
    EXPECT_EQ(BufferCounters::now().outstanding, before.outstanding);
    EXPECT_EQ(BufferCounters::now().sizeFaults, before.sizeFaults);
    EXPECT_EQ(tarn_test_buffer_size(buffer), 0u);

    // A wrong size frees but counts a fault, as does a second free; null is none.
    void* wrongSize = tarn_alloc_buf(10);
    ASSERT_NE(wrongSize, nullptr);
    tarn_free_buf(wrongSize, 12);
    EXPECT_EQ(BufferCounters::now().sizeFaults, before.sizeFaults + 1);
    EXPECT_EQ(BufferCounters::now().outstanding, before.outstanding);
    tarn_free_buf(wrongSize, 10);
    tarn_free_buf(nullptr, 10);
    EXPECT_EQ(BufferCounters::now().sizeFaults, before.sizeFaults + 2);
}

// A list node keeps its own copy of the name; a missing node is refused.
TEST(TarnListNodeTest, ProviderListNodeKeepsItsOwnName) {
    tarn_version version{{7, 0, 0, 0}};
    std::u16string name = u"fikiv";
    tarn_list_node* node = tarn_build_providerlist_node(name.c_str(), 8, 4, &version, 0);
    ASSERT_NE(node, nullptr);
    name[0] = u'X';
    tarn_list_view view{};
    ASSERT_EQ(tarn_list_node_view(node, &view), 0);
    EXPECT_EQ(std::u16string(view.name), u"fikiv");
    tarn_free_list_node(node);
    EXPECT_EQ(tarn_list_node_view(nullptr, &view), 3);
}

}  // namespace
