// A node record as the host builds it for one framework object: a tarn_node
// at the framework's offsets, its identity made by tarn_get_objid and the
// word into which the plug-in writes its fi-type answer.
//
// Not thread-safe; the host calls the plug-in one call at a time.
#ifndef FRAMEWORK_HOST_HOST_HOST_NODE_H_
#define FRAMEWORK_HOST_HOST_HOST_NODE_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tarn/records.h"

namespace host {

// The kind of identity the host uses for volumes and plug-in objects.
inline constexpr std::uint32_t kObjidKind = 3;

// A framework-owned identity for `name`, whose length counts one terminating
// NUL.
tarn_objid* makeObjid(std::u16string_view name, std::uint32_t kind = kObjidKind);

class HostNode {
  public:
    // A record for the object `name`.
    explicit HostNode(std::u16string_view name, std::uint32_t kind = kObjidKind);
    // A record for an identity the host already has (such as one that
    // interpose made); null leaves objid null.
    explicit HostNode(tarn_objid* identity);
    HostNode(const HostNode&) = delete;
    HostNode& operator=(const HostNode&) = delete;

    tarn_node* record() { return &node_; }
    const tarn_node* record() const { return &node_; }
    tarn_objid* objid() const { return node_.objid; }
    std::uint32_t fiSupport() const { return fiSupport_; }
    // The plug-in's node attached to the record, or null.
    void* providerData() const { return node_.provider_data; }
    // The fi entries the plug-in listed in fi_list, link by link, first then
    // second of each link, nulls left out.
    std::vector<tarn_fi_entry*> fiEntries() const;

  private:
    tarn_node node_{};
    std::uint32_t fiSupport_ = 0;
};

}  // namespace host

#endif  // FRAMEWORK_HOST_HOST_HOST_NODE_H_
