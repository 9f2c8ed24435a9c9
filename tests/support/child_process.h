// Cross-process tests: the test program starts itself again with
// --child=<role>, runs the role's function instead of the tests, and exits
// with its result (the number of failures; 0 is success).
#ifndef TESTS_SUPPORT_CHILD_PROCESS_H_
#define TESTS_SUPPORT_CHILD_PROCESS_H_

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace testsupport {

using ChildMain = int (*)(const std::vector<std::string>& arguments);

// Registers a role; use FIKIV_CHILD_ROLE at namespace scope.
struct ChildRole {
    ChildRole(const char* name, ChildMain main);
};

#define FIKIV_CHILD_ROLE(name)                                                \
    static int name##ChildMain(const std::vector<std::string>& arguments);    \
    static ::testsupport::ChildRole name##ChildRole(#name, &name##ChildMain); \
    static int name##ChildMain([[maybe_unused]] const std::vector<std::string>& arguments)

// The checks of a child role. Each failed check is written to stderr with
// what it checked (and a value, where one helps), so the test's output says
// which one failed; the role returns failures() as its exit code.
class ChildChecks {
  public:
    // Counts a failure, and says so, unless `condition` holds; returns it.
    bool check(bool condition, const char* what, unsigned long long value = 0);
    int failures() const { return failures_; }

  private:
    int failures_ = 0;
};

// A check written as the failure it guards against.
#define FIKIV_CHILD_FAIL_IF(checks, failure) (checks).check(!(failure), "not " #failure)

// Starts this program as `role` with the arguments; the child inherits the
// environment (so FIKIV_MACHINE too). Returns its process id.
pid_t startChild(const std::string& role, const std::vector<std::string>& arguments = {});
// Waits for the child; its exit code, or 128 + signal when it was killed.
int waitChild(pid_t child);

// Cross-process signals through files: publishFile writes `text` so that a
// reader sees the whole file or none of it; waitForFile waits (for real,
// another process decides) until the file exists, false after a minute, which
// only guards against a hung peer.
void publishFile(const std::filesystem::path& path, const std::string& text = "x");
bool waitForFile(const std::filesystem::path& path);

// Runs the role named by --child=<role> in argv, if any; called by main.
// Returns true (and sets *exitCode) when this process is a child.
bool runChildRole(int argc, char** argv, int* exitCode);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_CHILD_PROCESS_H_
