// UTF-16 to UTF-8 and back, as the host copies the plug-in's texts.
#include "host/text.h"

#include <gtest/gtest.h>

#include "support/text_cases.h"

namespace {

// The host replaces ill-formed text as the platform and the driver do; null
// and empty text give empty text.
TEST(HostTextTest, FollowsTheConversionTable) {
    for (const testsupport::Utf8Case& row : testsupport::utf8Cases()) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(host::toUtf16(row.bytes), row.units);
    }
    for (const testsupport::Utf16Case& row : testsupport::utf16Cases()) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(host::toUtf8(row.units.c_str()), row.bytes);
    }
    EXPECT_EQ(host::toUtf8(static_cast<const char16_t*>(nullptr)), "");
    EXPECT_EQ(host::toUtf8(u""), "");
}

}  // namespace
