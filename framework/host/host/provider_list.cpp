#include "host/provider_list.h"

#include <string>
#include <utility>

#include "host/plugin_host.h"
#include "host/text.h"
#include "tarn/tarnutil.h"

namespace host {

namespace {

// Frees a list node when the reader is done with it.
class ListNodeOwner final {
  public:
    ListNodeOwner() = default;
    ~ListNodeOwner() { tarn_free_list_node(node_); }
    ListNodeOwner(const ListNodeOwner&) = delete;
    ListNodeOwner& operator=(const ListNodeOwner&) = delete;

    tarn_list_node** out() { return &node_; }
    const tarn_list_node* get() const { return node_; }

  private:
    tarn_list_node* node_ = nullptr;
};

}  // namespace

std::string versionString(const tarn_version& version) {
    std::string text;
    for (std::size_t i = 0; i < 4; ++i) {
        if (i != 0) {
            text += '.';
        }
        text += std::to_string(version.words[i]);
    }
    return text;
}

Status readProviderInfo(PluginHost& plugin, ProviderInfo* info) {
    if (info == nullptr) {
        return Status::invalidArgument("readProviderInfo needs a place for the answer");
    }
    ListNodeOwner list;
    std::int32_t status = plugin.get_provider_info(list.out());
    if (status != kTarnSuccess) {
        return Status::pluginFailed("get_provider_info", status);
    }
    tarn_list_view view{};
    if (tarn_list_node_view(list.get(), &view) != kTarnSuccess || view.is_fim != 0) {
        return Status::notFound("get_provider_info answered no provider list node");
    }
    info->name = toUtf8(view.name);
    info->numberA = view.number_a;
    info->numberB = view.number_b;
    info->version = view.version;
    info->flags = view.flags;
    return Status::ok();
}

Status readMethods(PluginHost& plugin, std::vector<MethodInfo>* methods) {
    if (methods == nullptr) {
        return Status::invalidArgument("readMethods needs a place for the answer");
    }
    methods->clear();
    ListNodeOwner list;
    std::int32_t status = plugin.enumerate_fims(list.out());
    if (status != kTarnSuccess) {
        return Status::pluginFailed("enumerate_fims", status);
    }
    if (list.get() == nullptr) {
        return Status::ok();
    }
    tarn_list_view view{};
    if (tarn_list_node_view(list.get(), &view) != kTarnSuccess || view.is_fim != 1) {
        return Status::notFound("enumerate_fims answered a list node that is not a method list");
    }
    MethodInfo method;
    method.name = toUtf8(view.name);
    for (std::size_t i = 0; i < method.words.size(); ++i) {
        method.words[i] = view.info.words[i];
    }
    method.description = toUtf8(view.info.description);
    method.versionText = toUtf8(view.info.version_text);
    method.extra = toUtf8(view.extra);
    method.provider = toUtf8(view.provider);
    methods->push_back(std::move(method));
    return Status::ok();
}

}  // namespace host
