// Concurrency, from outside the plug-in:
//
// 1. Two and then four host processes snapshot different volumes of one
//    machine at the same time (each its own volume, the caches all placed on
//    the same cache volume), for a number of rounds each. Every process
//    either succeeds or fails with a status and a message to the user; while
//    all of them hold their snapshots, no two snapshots in the driver share a
//    cache file; after each round nothing is left behind. The clock is real:
//    the provider mutex and the agent's pipe are contended as in life.
// 2. Eight client threads exchange with one agent (register, retrieve,
//    release of names of their own, a connection each, waiting for a free
//    pipe instance as long as the pipe's default wait, as the provider
//    does): busy answers are counted and retried; every retrieve
//    finds the handle registered; at the end the agent holds nothing.
//
//   concurrency [--rounds N] [--exchanges N]   (defaults 100 and 10000)
//
// Prints how often each outcome happened; exits 1 when a rule was broken.
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lifecycle.h"
#include "orbhandle/protocol.h"
#include "os/error.h"
#include "sim/handles.h"
#include "support/agent_client.h"
#include "support/leftovers.h"
#include "support/wide_text.h"

namespace {

using robustness::Child;
using robustness::ChildResult;

// A snapshot with the real clock waits two seconds per volume.
constexpr unsigned kChildSeconds = 120;

// A one-way signal between the parent and one child.
struct Signal {
    int fds[2] = {-1, -1};
    Signal() {
        if (pipe(fds) != 0) {
            fds[0] = fds[1] = -1;
        }
    }
    ~Signal() {
        close(fds[0]);
        close(fds[1]);
    }
    void send() const { [[maybe_unused]] ssize_t n = write(fds[1], "x", 1); }
    // True when a signal came, false at end of file.
    bool receive() const {
        char byte = 0;
        return read(fds[0], &byte, 1) == 1;
    }
    void closeWriter() {
        close(fds[1]);
        fds[1] = -1;
    }
};

struct ProcessesTally {
    std::map<std::string, int> outcomes;
    int sharedCache = 0;  // rounds where two live snapshots shared a cache file
    int leftBehind = 0;   // rounds that left something
    int badOutcomes = 0;  // a process failed without a status and a message
};

int runProcesses(int processes, int rounds) {
    robustness::AgentMachine machine(processes);
    if (!machine.startAgent("concurrency")) {
        return 2;
    }
    ProcessesTally tally;
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::unique_ptr<Signal>> taken;
        std::vector<std::unique_ptr<Signal>> go;
        std::vector<std::unique_ptr<Child>> children;
        for (int i = 0; i < processes; ++i) {
            taken.push_back(std::make_unique<Signal>());
            go.push_back(std::make_unique<Signal>());
            Signal& myTaken = *taken.back();
            Signal& myGo = *go.back();
            std::string volume = robustness::sourceDrive(i + 1);
            children.push_back(std::make_unique<Child>(
                [&myTaken, &myGo, volume] {
                    robustness::LifecycleOptions options;
                    options.volumes = {volume};
                    options.virtualClock = false;
                    options.afterTake = [&] {
                        myTaken.send();
                        myGo.receive();
                    };
                    return robustness::runLifecycle(options);
                },
                kChildSeconds));
            taken.back()->closeWriter();
        }
        // Every child has taken its snapshot or finished without one.
        for (auto& signal : taken) {
            signal->receive();
        }
        std::vector<std::string> caches =
            testsupport::driverSnapshotFields(machine.directory(), "cacheKey");
        if (std::set<std::string>(caches.begin(), caches.end()).size() != caches.size()) {
            ++tally.sharedCache;
            std::cout << "round " << round << ": two live snapshots share a cache file\n";
        }
        for (auto& signal : go) {
            signal->send();
        }
        for (auto& child : children) {
            ChildResult result = child->wait();
            ++tally.outcomes[result.outcome()];
            bool acted =
                result.report.has_value() && (*result.report)["problems"].empty() &&
                ((*result.report)["failed"].empty() || !(*result.report)["messages"].empty());
            if (!acted) {
                ++tally.badOutcomes;
            }
        }
        std::vector<std::string> left = testsupport::machineLeftovers(machine.directory());
        if (!left.empty()) {
            ++tally.leftBehind;
            std::cout << "round " << round << " left: " << left.front() << "\n";
        }
    }
    std::cout << processes << " processes x " << rounds << " rounds (" << processes * rounds
              << " snapshots):\n";
    for (const auto& [outcome, count] : tally.outcomes) {
        std::cout << "  " << count << "  " << outcome << "\n";
    }
    std::cout << "  rounds with a cache file shared by two live snapshots: " << tally.sharedCache
              << "\n  rounds that left something behind: " << tally.leftBehind
              << "\n  failures without a status and a message: " << tally.badOutcomes << "\n";
    return tally.sharedCache + tally.leftBehind + tally.badOutcomes == 0 ? 0 : 1;
}

int runClients(int exchanges) {
    constexpr int kClients = 8;
    robustness::AgentMachine machine(1);
    if (!machine.startAgent("concurrency")) {
        return 2;
    }
    std::atomic<int> done{0};
    std::atomic<int> busy{0};
    std::atomic<int> failed{0};
    std::atomic<int> lost{0};
    auto client = [&](int number) {
        int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        auto handle = reinterpret_cast<std::uintptr_t>(sim::handleFromFd(fd));
        const std::u16string prefix =
            u"\\\\?\\Client" + testsupport::utf16(std::to_string(number)) + u"Snap";
        int turn = 0;
        // Busy answers are retried at once: they are what is counted.
        // Time-out 0 is the pipe's default wait, the provider's choice.
        auto exchange = [&](std::uint32_t code, const std::u16string& name, std::uint64_t value) {
            for (;;) {
                testsupport::AgentExchange answer =
                    testsupport::exchangeWithAgent(code, name, value, 0);
                if (answer.status() != os::ERROR_PIPE_BUSY) {
                    done++;
                    return answer;
                }
                busy++;
            }
        };
        while (done.load() < exchanges) {
            const std::u16string name = prefix + testsupport::utf16(std::to_string(turn++)) + u":";
            if (exchange(orbhandle::kRegisterVolumeHandle, name, handle).status() != 0) {
                failed++;
                continue;
            }
            testsupport::AgentExchange retrieved = exchange(orbhandle::kRetrieveHandle, name, 0);
            if (retrieved.status() != 0 || retrieved.reply.handle == 0) {
                lost++;
            }
            if (exchange(orbhandle::kReleaseVolumeHandle, name, 0).status() != 0) {
                failed++;
            }
        }
        close(fd);
    };
    std::vector<std::thread> threads;
    for (int number = 0; number < kClients; ++number) {
        threads.emplace_back(client, number);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::vector<std::string> held = testsupport::agentHolds(machine.directory());
    std::cout << kClients << " clients, one agent: " << done.load() << " exchanges answered, "
              << busy.load() << " busy answers (retried), " << failed.load() << " failed, "
              << lost.load() << " retrieves without the handle, " << held.size()
              << " handles still held at the end\n";
    return failed.load() + lost.load() == 0 && held.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 100;
    int exchanges = 10000;
    if (!robustness::readCounts(argc, argv, {{"--rounds", &rounds}, {"--exchanges", &exchanges}},
                                "concurrency [--rounds N] [--exchanges N]")) {
        return 2;
    }
    int result = 0;
    for (int processes : {2, 4}) {
        result = std::max(result, runProcesses(processes, rounds));
    }
    result = std::max(result, runClients(exchanges));
    return result;
}
