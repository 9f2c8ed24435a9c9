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

// A test catalogue needs a fresh process. Ids have four digits at least; a
// six-digit code is cut to five.
FIKIV_CHILD_ROLE(testCatalogue) {
    testsupport::ChildChecks checks;
    TarnError fortyTwo(42, u"f", 1, u"fn");
    FIKIV_CHILD_FAIL_IF(checks, textOf(fortyTwo.message()) != u"Status forty-two.");
    FIKIV_CHILD_FAIL_IF(checks, textOf(fortyTwo.localizedMessage()) != u"Status forty-two.");
    FIKIV_CHILD_FAIL_IF(checks, fortyTwo.status() != 42);
    FIKIV_CHILD_FAIL_IF(checks, std::u16string(fortyTwo.kindName()) != u"Tarn Error Code");
    FIKIV_CHILD_FAIL_IF(checks, textOf(TarnError(12345, u"f", 1, u"fn").message()) !=
                                    u"Status {0} with five digits.");
    FIKIV_CHILD_FAIL_IF(checks, textOf(TarnError(123456, u"f", 1, u"fn").message()) !=
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
