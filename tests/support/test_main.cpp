// main of every test program: a child role when started with --child=<role>,
// the GoogleTest run otherwise.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/child_process.h"

int main(int argc, char** argv) {
    int exitCode = 0;
    if (testsupport::runChildRole(argc, argv, &exitCode)) {
        return exitCode;
    }
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
