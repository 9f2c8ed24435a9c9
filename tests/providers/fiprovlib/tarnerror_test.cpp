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
    struct Row {
        std::uint32_t code;
        std::u16string expected;
    };
    const Row rows[] = {
        {3, u"The request is invalid."},
        {15, u"An entry point of the provider could not be found."},
        {999, u"<null>"},
    };
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

TEST(TarnErrorTest, IdHasFourDigitsAtLeast) {
    const char* previous = std::getenv("FIKIV_CATALOG_PATH");
    const std::string saved = previous != nullptr ? previous : "";
    setenv("FIKIV_CATALOG_PATH", FIPROVLIB_TEST_CATALOGS, 1);
    pid_t child = testsupport::startChild("testCatalogue");
    if (previous != nullptr) {
        setenv("FIKIV_CATALOG_PATH", saved.c_str(), 1);
    } else {
        unsetenv("FIKIV_CATALOG_PATH");
    }
    EXPECT_EQ(testsupport::waitChild(child), 0);
}

}  // namespace
