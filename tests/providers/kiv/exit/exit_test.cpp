// The ways a host leaves the plug-in: each run of a host (this program as the
// child role leavePlugin) is checked by valgrind's memcheck (no invalid access,
// no definite leak), and its output shows that the plug-in tore itself down in
// order, tracing to the last line. valgrind cannot run an AddressSanitizer
// build: there the host runs alone, checked by AddressSanitizer from inside.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "host/host_context.h"
#include "host/host_node.h"
#include "host/plugin_host.h"
#include "support/child_process.h"
#include "support/shell.h"
#include "support/temp_machine.h"

// The host's context, the plug-in and the node records outlive the role: the
// plug-in keeps them while loaded and still reports while it tears down on
// exit. External linkage keeps the pointers that make them reachable.
host::HostContext* context = nullptr;
host::PluginHost* plugin = nullptr;
host::HostNode* node = nullptr;
host::HostNode* group = nullptr;
host::HostNode* secondNode = nullptr;

namespace {

using testsupport::TempMachine;

// Prints every line the plug-in sends as "<level> <text>", straight to the
// descriptor: the last lines come after the C++ runtime has started taking
// the process down.
void printLine(const host::HostMessage& message) {
    std::string line = std::to_string(message.level) + " ";
    line += message.text.value_or(message.secondText.value_or(""));
    line += line.back() == '\n' ? "" : "\n";
    // A short write shows as a missing or cut line, which the test reports.
    [[maybe_unused]] ssize_t written = write(STDOUT_FILENO, line.data(), line.size());
}

// Ends the run with exit code 3 when a step did not answer as expected.
void require(const char* step, std::int32_t status, std::int32_t expected = 0) {
    if (status != expected) {
        std::fprintf(stderr, "exit_host: %s answered %d\n", step, status);
        std::_Exit(3);
    }
}

// A node for `volume`, interposed first as a host would. The record stays
// with the node until the plug-in goes.
host::HostNode* attachVolume(const char16_t* volume) {
    host::HostNode source(volume);
    tarn_objid* identity = nullptr;
    tarn_objid** groups = nullptr;
    std::uint32_t count = 0;
    require("interpose", plugin->interpose(source.record(), &identity, &groups, &count), 1);
    auto* record = new host::HostNode(identity);
    require("initNode", plugin->init_node(record->record(), nullptr, 0, nullptr));
    return record;
}

// The host: init, the group node and nodes for C: and E:, one prepare of
// both with their caches placed automatically (the nodes then hold driver
// handles), and then, as arguments[0] says, "unload" and return, or "exit"
// with the plug-in loaded. Exit code 0 when every step answered as expected,
// 3 when one did not.
FIKIV_CHILD_ROLE(leavePlugin) {
    context = new host::HostContext();
    context->setListener(&printLine);
    plugin = new host::PluginHost();
    if (host::Status status = plugin->load(FIKIV_PLUGIN_PATH); !status.isOk()) {
        std::fprintf(stderr, "leavePlugin: %s\n", status.toString().c_str());
        return 3;
    }
    tarn_version version{};
    require("init", plugin->init(context->context(), &version));
    group = new host::HostNode(u"kiv-cow-snapshot-group");
    require("initNode", plugin->init_node(group->record(), nullptr, 0, nullptr));
    node = attachVolume(u"C:");
    secondNode = attachVolume(u"E:");
    std::u16string document =
        u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=TARN_CFS_AUTO_PREP /> "
        u"</SET_CONFIG_INFO_LIST>";
    for (host::HostNode* volume : {node, secondNode}) {
        tarn_config_request request{};
        request.split_selector = 1;
        request.text = document.data();
        require("config", plugin->config(volume->record(), 2, nullptr, &request));
    }
    tarn_fi_entry* entries[] = {node->fiEntries().front(), secondNode->fiEntries().front()};
    require("prepare", plugin->prepare(entries[0], nullptr, entries, 2, 0));
    if (arguments.at(0) == "unload") {
        // The records keep the fi lists the plug-in attached to them: only
        // deInitNode, never called here, takes those away.
        plugin->unload();
    }
    return 0;
}

class PluginExitTest : public ::testing::TestWithParam<std::string> {};

// Whichever way the host leaves, the coordinator is deleted while tracing
// still works, and its nodes go inside that frame.
TEST_P(PluginExitTest, TearsDownInOrderAndCleanly) {
#ifdef FIKIV_EXIT_TEST_SANITIZED
    std::printf(
        "valgrind cannot run an AddressSanitizer build: the host runs under "
        "AddressSanitizer instead\n");
#endif
    TempMachine machine(nlohmann::json{
        {"volumes", {TempMachine::volume(1, {"C:\\"}), TempMachine::volume(2, {"E:\\"})}}});
    // The host, under valgrind unless this is the sanitizer build.
    std::string command;
#ifndef FIKIV_EXIT_TEST_SANITIZED
    command = FIKIV_VALGRIND
        " --quiet --leak-check=full --errors-for-leak-kinds=definite "
        "--error-exitcode=9 ";
#endif
    const std::filesystem::path out = machine.directory() / "host.out";
    const std::filesystem::path err = machine.directory() / "host.err";
    command += "'" + std::filesystem::read_symlink("/proc/self/exe").string() +
               "' --child=leavePlugin " + GetParam() + " >'" + out.string() + "' 2>'" +
               err.string() + "'";
    const int status = std::system(command.c_str());
    const std::string output = testsupport::readFile(out);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << testsupport::readFile(err) << output;
    EXPECT_EQ(testsupport::readFile(err), "");

    // The teardown's frames in output order: the coordinator's encloses its
    // three nodes' (the group's, and the two volumes', which close their
    // driver handles on the way out: valgrind would see a call into an
    // unloaded driver library), and its end is the output's last line.
    const std::string enter = "Entering Function KivFiCoordinator::~KivFiCoordinator";
    const std::string node = "Exiting Function KivNode::~KivNode";
    const std::string exit = "Exiting Function KivFiCoordinator::~KivFiCoordinator";
    std::vector<std::string> frames;
    std::istringstream lines(output);
    std::string last;
    for (std::string line; std::getline(lines, line);) {
        for (const std::string& frame : {enter, node, exit}) {
            if (line.find(frame) != std::string::npos) {
                frames.push_back(frame);
            }
        }
        last = line;
    }
    EXPECT_EQ(frames, (std::vector<std::string>{enter, node, node, node, exit})) << output;
    EXPECT_NE(last.find(exit), std::string::npos) << output;
}

INSTANTIATE_TEST_SUITE_P(Exits, PluginExitTest, ::testing::Values("unload", "exit"),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             return info.param;
                         });

}  // namespace
