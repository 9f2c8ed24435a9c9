// A host that leaves the plug-in in one of the ways a real host may: it
// unloads it, or it exits with the plug-in still loaded. It prints every
// line the plug-in sends, as "<level> <text>", so that the test that starts
// it can see what the plug-in did on the way out.
//
//   exit_host PLUGIN MODE
//
// MODE is "unload" (init, one initNode, unload, return from main), "exit"
// (init, one initNode, exit() with the plug-in loaded) or "prepare" (init, the
// group node and two volume nodes, one prepare of both volumes with their
// caches placed automatically, exit() with the plug-in loaded and the nodes
// holding driver handles). Exit code 0 when every step answered as expected,
// 3 when one did not, 2 for bad usage.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host/host_context.h"
#include "host/host_node.h"
#include "host/plugin_host.h"

// The context, the host and the node record outlive main: the plug-in keeps
// the context and the record for as long as it is loaded, and on exit it
// still reports while it tears down. External linkage, so that the compiler
// keeps the pointers that make them reachable.
host::HostContext* context = nullptr;
host::PluginHost* plugin = nullptr;
host::HostNode* node = nullptr;
host::HostNode* group = nullptr;
host::HostNode* secondNode = nullptr;

namespace {

void printLine(const host::HostMessage& message) {
    std::string line = std::to_string(message.level) + " ";
    line += message.text.value_or(message.secondText.value_or(""));
    if (line.empty() || line.back() != '\n') {
        line += '\n';
    }
    // Straight to the descriptor: the last lines come after the C++ runtime
    // has started taking the process down.
    for (std::size_t written = 0; written < line.size();) {
        ssize_t result = write(STDOUT_FILENO, line.data() + written, line.size() - written);
        if (result <= 0) {
            return;
        }
        written += static_cast<std::size_t>(result);
    }
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

// C: and E: prepared together, their caches placed automatically: the volume
// nodes hold their source volumes' handles and C:'s node the snapshot set's.
void prepareTwoVolumes() {
    group = new host::HostNode(u"kiv-cow-snapshot-group");
    require("initNode", plugin->init_node(group->record(), nullptr, 0, nullptr));
    node = attachVolume(u"C:");
    secondNode = attachVolume(u"E:");
    for (host::HostNode* volume : {node, secondNode}) {
        std::u16string document =
            u"<SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=cs_flags value=TARN_CFS_AUTO_PREP /> "
            u"</SET_CONFIG_INFO_LIST>";
        tarn_config_request request{};
        request.split_selector = 1;
        request.text = document.data();
        require("config", plugin->config(volume->record(), 2, nullptr, &request));
    }
    tarn_fi_entry* entries[] = {node->fiEntries().front(), secondNode->fiEntries().front()};
    require("prepare", plugin->prepare(entries[0], nullptr, entries, 2, 0));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: exit_host PLUGIN unload|exit|prepare\n");
        return 2;
    }
    const std::string mode = argv[2];
    if (mode != "unload" && mode != "exit" && mode != "prepare") {
        std::fprintf(stderr, "exit_host: unknown mode %s\n", argv[2]);
        return 2;
    }
    context = new host::HostContext();
    context->setListener(&printLine);
    plugin = new host::PluginHost();
    if (host::Status status = plugin->load(argv[1]); !status.isOk()) {
        std::fprintf(stderr, "exit_host: %s\n", status.toString().c_str());
        return 3;
    }
    tarn_version version{};
    require("init", plugin->init(context->context(), &version));
    if (mode == "prepare") {
        prepareTwoVolumes();
    } else {
        node = attachVolume(u"C:");
    }
    if (mode == "unload") {
        // The record keeps the fi list the plug-in attached to it: only
        // deInitNode, never called here, takes that away.
        plugin->unload();
        return 0;
    }
    std::exit(0);
}
