// TarnError: status, kind and the catalogue text looked up by its id.
#include "fiprovlib/TarnError.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/child_process.h"

namespace {

std::u16string textOf(const char16_t* text) {
    return text != nullptr ? std::u16string(text) : u"<null>";
}

// Runs with the catalogues the framework runtime installs next to itself.
TEST(TarnErrorTest, FrameworkTextsForTheStatusCodes) {
    // clang-format off
    struct Row { std::uint32_t code; std::u16string expected; };
    const Row rows[] = {
        {3, u"The request is invalid."},
        {15, u"An entry point of the provider could not be found."},
        {999, u"<null>"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.code);
        TarnError error(row.code, u"f", 1, u"fn");
        // The coordinator answers a raised error's status: its code unchanged.
        EXPECT_EQ(error.status(), static_cast<std::int32_t>(row.code));
        EXPECT_EQ(std::u16string(error.kindName()), u"Tarn Error Code");
        EXPECT_EQ(textOf(error.message()), row.expected);
        EXPECT_EQ(textOf(error.localizedMessage()), textOf(error.message()));
    }
}

// The catalogue is made once per process, so a catalogue of test texts can
// only be used by a fresh process.
FIKIV_CHILD_ROLE(testCatalogue) {
    testsupport::ChildChecks checks;
    FIKIV_CHILD_FAIL_IF(checks,
                        textOf(TarnError(42, u"f", 1, u"fn").message()) != u"Status forty-two.");
    FIKIV_CHILD_FAIL_IF(checks, textOf(TarnError(12345, u"f", 1, u"fn").message()) !=
                                    u"Status {0} with five digits.");
    FIKIV_CHILD_FAIL_IF(checks, textOf(TarnError(4, u"f", 1, u"fn").message()) != u"<null>");
    return checks.failures();
}

// The tests run without FIKIV_CATALOG_PATH; only the child sees it.
TEST(TarnErrorTest, IdHasFourDigitsAtLeast) {
    setenv("FIKIV_CATALOG_PATH", FIPROVLIB_TEST_CATALOGS, 1);
    pid_t child = testsupport::startChild("testCatalogue");
    unsetenv("FIKIV_CATALOG_PATH");
    EXPECT_EQ(testsupport::waitChild(child), 0);
}

}  // namespace
