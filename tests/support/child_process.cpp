#include "support/child_process.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace testsupport {
namespace {

std::map<std::string, ChildMain>& roles() {
    static auto* table = new std::map<std::string, ChildMain>;
    return *table;
}

std::string selfPath() {
    char path[4096];
    ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length < 0) {
        throw std::runtime_error("cannot read /proc/self/exe");
    }
    path[length] = '\0';
    return path;
}

}  // namespace

void publishFile(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::path temporary = path;
    temporary += ".new";
    std::ofstream(temporary) << text;
    std::filesystem::rename(temporary, path);
}

bool waitForFile(const std::filesystem::path& path) {
    for (int i = 0; i < 60000; ++i) {
        if (std::filesystem::exists(path)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

bool ChildChecks::check(bool condition, const char* what, unsigned long long value) {
    if (!condition) {
        ++failures_;
        std::fprintf(stderr, "child %d: check failed: %s (value %llu)\n",
                     static_cast<int>(getpid()), what, value);
    }
    return condition;
}

ChildRole::ChildRole(const char* name, ChildMain main) {
    roles()[name] = main;
}

pid_t startChild(const std::string& role, const std::vector<std::string>& arguments) {
    std::string program = selfPath();
    std::string roleArgument = "--child=" + role;
    std::vector<char*> argv;
    argv.push_back(program.data());
    argv.push_back(roleArgument.data());
    std::vector<std::string> copies = arguments;
    for (auto& argument : copies) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t child = 0;
    int error = posix_spawn(&child, program.c_str(), nullptr, nullptr, argv.data(), environ);
    if (error != 0) {
        throw std::runtime_error(std::string("posix_spawn failed: ") + std::strerror(error));
    }
    return child;
}

int waitChild(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return 128 + WTERMSIG(status);
}

bool runChildRole(int argc, char** argv, int* exitCode) {
    if (argc < 2 || std::strncmp(argv[1], "--child=", 8) != 0) {
        return false;
    }
    std::string role = argv[1] + 8;
    auto found = roles().find(role);
    if (found == roles().end()) {
        std::fprintf(stderr, "unknown child role %s\n", role.c_str());
        *exitCode = 100;
        return true;
    }
    std::vector<std::string> arguments(argv + 2, argv + argc);
    *exitCode = found->second(arguments);
    return true;
}

}  // namespace testsupport
