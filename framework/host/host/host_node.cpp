#include "host/host_node.h"

#include "tarn/tarnutil.h"

namespace host {

tarn_objid* makeObjid(std::u16string_view name, std::uint32_t kind) {
    std::u16string terminated(name);
    auto bytes = static_cast<std::int32_t>((terminated.size() + 1) * sizeof(char16_t));
    return tarn_get_objid(terminated.c_str(), bytes, kind);
}

HostNode::HostNode(std::u16string_view name, std::uint32_t kind)
    : HostNode(makeObjid(name, kind)) {}

HostNode::HostNode(tarn_objid* identity) {
    node_.objid = identity;
    node_.fi_support = &fiSupport_;
}

std::vector<tarn_fi_entry*> HostNode::fiEntries() const {
    std::vector<tarn_fi_entry*> entries;
    for (const tarn_fi_link* link = node_.fi_list; link != nullptr; link = link->next) {
        if (link->first != nullptr) {
            entries.push_back(link->first);
        }
        if (link->second != nullptr) {
            entries.push_back(link->second);
        }
    }
    return entries;
}

}  // namespace host
