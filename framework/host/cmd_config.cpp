// fihost config-info and fihost config-set: the provider's configuration as
// the framework sees it. Both make node records for the provider's group
// object and for one volume, as the framework does before configuring, and
// talk to the nodes through the config entry point.
#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "host/host_node.h"
#include "kiv/kivconfig/setconfiginfo.h"
#include "output.h"
#include "host/text.h"
#include "session.h"
#include "tarn/tarnutil.h"

namespace fihost {
namespace {

constexpr char16_t kGroupName[] = u"kiv-cow-snapshot-group";
constexpr std::uint32_t kConfigGet = 1;
constexpr std::uint32_t kConfigSet = 2;
constexpr std::uint32_t kConfigInfo = 4;

// The three settings groups and the record and selector that address each.
enum class Group { kQuiesce, kCache, kSplit };

struct Addressed {
    const char* name;
    bool groupObject;
    bool splitSelector;
};

Addressed addressOf(Group group) {
    switch (group) {
        case Group::kQuiesce:
            return {"quiesce", true, false};
        case Group::kCache:
            return {"cache", true, true};
        default:
            return {"split", false, true};
    }
}

// Node records for the group object and one volume, attached to the
// provider's nodes for as long as this object lives.
class ConfigNodes {
  public:
    ConfigNodes(host::PluginHost& plugin, const std::u16string& volume)
        : plugin_(plugin), group_(kGroupName), volume_(volume) {
        groupStatus_ = plugin_.init_node(group_.record(), nullptr, 0, nullptr);
        volumeStatus_ = plugin_.init_node(volume_.record(), nullptr, 0, nullptr);
    }
    ~ConfigNodes() {
        plugin_.deinit_node(volume_.record());
        plugin_.deinit_node(group_.record());
    }
    bool attached() const { return groupStatus_ == 0 && volumeStatus_ == 0; }
    std::int32_t status() const { return groupStatus_ != 0 ? groupStatus_ : volumeStatus_; }
    tarn_node* recordFor(const Addressed& addressed) {
        return addressed.groupObject ? group_.record() : volume_.record();
    }

  private:
    host::PluginHost& plugin_;
    host::HostNode group_;
    host::HostNode volume_;
    std::int32_t groupStatus_ = 0;
    std::int32_t volumeStatus_ = 0;
};

// Sends one request; on success `text` receives what the provider handed back
// (and the buffer goes back to the framework).
std::int32_t request(host::PluginHost& plugin, tarn_node* record, std::uint32_t operation,
                     const Addressed& addressed, const std::u16string* document,
                     std::string* text) {
    std::u16string input = document != nullptr ? *document : std::u16string();
    tarn_config_request configRequest{};
    configRequest.split_selector = addressed.splitSelector ? 1 : 0;
    configRequest.quiesce_selector = addressed.splitSelector ? 0 : 1;
    configRequest.text = document != nullptr ? input.data() : nullptr;
    std::int32_t status = plugin.config(record, operation, nullptr, &configRequest);
    if (configRequest.text != nullptr && configRequest.text != input.data()) {
        std::u16string handed(configRequest.text);
        if (text != nullptr) {
            *text = host::toUtf8(handed);
        }
        tarn_free_buf(configRequest.text, 2 * (handed.size() + 1));
    }
    return status;
}

int runConfigInfo(const GlobalOptions& options) {
    ProviderSession session(options);
    if (!session.start(options)) {
        return kExitFailed;
    }
    ConfigNodes nodes(session.plugin(), u"<kiv>C:");
    if (!nodes.attached()) {
        std::cerr << "fihost config-info: the provider refused the configuration nodes ("
                  << statusText(nodes.status(), options) << ")\n";
        return kExitFailed;
    }
    int exitCode = kExitOk;
    nlohmann::json facts = nlohmann::json::array();
    for (Group group : {Group::kQuiesce, Group::kCache, Group::kSplit}) {
        Addressed addressed = addressOf(group);
        std::string document;
        std::int32_t status = request(session.plugin(), nodes.recordFor(addressed), kConfigInfo,
                                      addressed, nullptr, &document);
        facts.push_back({{"group", addressed.name}, {"status", status}, {"document", document}});
        if (status != 0) {
            std::cerr << "fihost config-info: no " << addressed.name << " settings document ("
                      << statusText(status, options) << ")\n";
            exitCode = kExitFailed;
            continue;
        }
        if (!options.output->json()) {
            std::cout << addressed.name << " settings:\n" << document << "\n\n";
        }
    }
    options.output->result({{"groups", facts}});
    return exitCode;
}

struct SetOptions {
    std::string group = "quiesce";
    std::string document;
    std::string file;
    std::string volume = "<kiv>C:";
};

// Why the provider refused a settings document, as far as the host can tell.
std::string refusalReason(Group group, const std::string& document) {
    std::vector<std::u16string> entries;
    std::u16string wide = host::toUtf16(document);
    if (group == Group::kSplit && wide.find(u"TARN_CFS_AUTO_PREP") == std::u16string::npos &&
        wide.find(u"TARN_CFS_SELECT_PREP") == std::u16string::npos) {
        return "split settings name their preparation mode, TARN_CFS_AUTO_PREP or "
               "TARN_CFS_SELECT_PREP";
    }
    if (parseSetConfigInfo(wide.c_str(), entries) != 0) {
        return "the document does not parse; it reads <SET_CONFIG_INFO_LIST> "
               "<SET_CONFIG_INFO key=KEY value=VALUE /> ... </SET_CONFIG_INFO_LIST>, separated by "
               "blanks ('fihost config-info' lists the keys)";
    }
    return "the provider gave no reason";
}

int runConfigSet(const GlobalOptions& options, const SetOptions& set) {
    std::string document = set.document;
    if (!set.file.empty()) {
        std::ifstream in(set.file);
        if (!in) {
            std::cerr << "fihost config-set: cannot read the settings document " << set.file << ": "
                      << std::strerror(errno) << "\n";
            return kExitFailed;
        }
        std::ostringstream contents;
        contents << in.rdbuf();
        document = contents.str();
        while (!document.empty() && (document.back() == '\n' || document.back() == '\r')) {
            document.pop_back();
        }
    }
    Group group = set.group == "cache"   ? Group::kCache
                  : set.group == "split" ? Group::kSplit
                                         : Group::kQuiesce;
    ProviderSession session(options);
    if (!session.start(options)) {
        return kExitFailed;
    }
    ConfigNodes nodes(session.plugin(), host::toUtf16(set.volume));
    if (!nodes.attached()) {
        std::cerr << "fihost config-set: the provider refused the configuration nodes ("
                  << statusText(nodes.status(), options) << ")\n";
        return kExitFailed;
    }
    Addressed addressed = addressOf(group);
    std::u16string wide = host::toUtf16(document);
    std::int32_t status = request(session.plugin(), nodes.recordFor(addressed), kConfigSet,
                                  addressed, &wide, nullptr);
    std::string stored;
    request(session.plugin(), nodes.recordFor(addressed), kConfigGet, addressed, nullptr, &stored);
    nlohmann::json facts = {
        {"group", addressed.name}, {"status", status}, {"accepted", status == 0}, {"held", stored}};
    if (status != 0) {
        std::string reason = refusalReason(group, document);
        facts["reason"] = reason;
        options.output->result(facts);
        std::cerr << "fihost config-set: the provider refused the " << addressed.name
                  << " settings (" << statusText(status, options) << "): " << reason << "\n";
        return kExitFailed;
    }
    options.output->result(facts);
    if (!options.output->json()) {
        std::cout << addressed.name << " settings accepted\n";
        std::cout << "provider holds: " << (stored.empty() ? "(nothing)" : stored) << "\n";
        printMessages(session.context().takeMessages(), 3, "  ");
    }
    return kExitOk;
}

}  // namespace

CommandRun configureConfigInfo(CLI::App& command) {
    command.footer(
        "Examples:\n"
        "  fihost config-info            the quiesce, cache and split keys with their ranges\n"
        "  fihost --json config-info     the same documents as JSON strings");
    return &runConfigInfo;
}

CommandRun configureConfigSet(CLI::App& command) {
    auto set = std::make_shared<SetOptions>();
    command.add_option("--group", set->group, "quiesce, cache or split")
        ->check(CLI::IsMember({"quiesce", "cache", "split"}));
    CLI::Option_group* source =
        command.add_option_group("document", "The settings document, inline or from a file");
    source->add_option("--document", set->document, "The SET_CONFIG_INFO settings document itself");
    source->add_option("--file", set->file, "A file holding the settings document");
    source->require_option(1);
    command.add_option("--volume", set->volume, "The volume object for split settings");
    command.footer(
        "A settings document is one line of elements separated by blanks:\n"
        "  <SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO key=KEY value=VALUE /> ... "
        "</SET_CONFIG_INFO_LIST>\n"
        "Examples:\n"
        "  fihost config-set --group quiesce --document '<SET_CONFIG_INFO_LIST> "
        "<SET_CONFIG_INFO key=quiesceWait value=10 /> </SET_CONFIG_INFO_LIST>'\n"
        "  fihost config-set --group cache --file cache-settings.txt\n"
        "  fihost config-set --group split --document 'TARN_CFS_AUTO_PREP'");
    return [set](const GlobalOptions& options) { return runConfigSet(options, *set); };
}

}  // namespace fihost
