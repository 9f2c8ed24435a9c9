// One node per framework object the provider handles (a source volume, an
// alternate object, or the provider's group object): its configuration and
// its two driver handles.
//
// kivnode.cpp holds the node's life and handles, the fi-type test, the
// dispatch of configuration requests, and the operations this provider
// answers without driver work; kivprepare.cpp, kivmake.cpp and kivdispose.cpp
// hold snapshot preparation, creation and disposal.
//
// A node takes no lock; the host calls one operation at a time.
#ifndef PROVIDERS_KIV_KIVNODE_H_
#define PROVIDERS_KIV_KIVNODE_H_

#include <string>

#include "kiv/cachefile/kivapi.h"
#include "kiv/frozenimagenode.h"
#include "kiv/kivconfig/kivconfig.h"

class KivNode;

// The KivNode attached to `record`, or null when the record is null, has no
// node, or its node is of another kind.
KivNode* kivNodeOf(const tarn_node* record);

class KivNode final : public FrozenImageNode {
  public:
    // A node for `record` (initNode), or an alternate node (initAltNode).
    // Its name is the record's identity name.
    KivNode(tarn_node* record, bool isAltNode);
    ~KivNode() override;
    KivNode(const KivNode&) = delete;
    KivNode& operator=(const KivNode&) = delete;

    const std::u16string& nodeName() const { return nodeName_; }
    bool isAltNode() const { return isAltNode_; }
    KivConfig& configuration() { return config_; }
    KivHandle snapshotHandle() const { return snapshotHandle_; }
    KivHandle volumeHandle() const { return volumeHandle_; }

    // The source volume's driver handle: volumeHandle when it is valid,
    // else the volume named by the tag-stripped node name opened with
    // KIV_Open (3, 128, 3, 1000). A refusal is reported (MSG_ERROR_KIVAPI)
    // and gives kInvalidKivHandle.
    KivHandle open();

    std::int32_t supportsFiType(tarn_node* record, const char* fiType) override;
    std::int32_t config(tarn_node* record, std::uint32_t operation, void* argument,
                        tarn_config_request* request) override;
    std::int32_t reAccessTmpObj(tarn_node*, void*, void*, void*, void*, std::uint32_t) override;
    std::int32_t reAccessAltNode(tarn_node*, void*, void*, void*, void*, void*, std::uint32_t,
                                 std::uint32_t) override;
    std::int32_t dispose(void*, tarn_node*, void*, std::uint32_t) override;
    std::int32_t online(void*, tarn_node*, std::uint32_t, std::uint32_t) override;
    std::int32_t subobjList(tarn_node* record, void* list, void* count) override;
    std::int32_t buildAltTree(tarn_node*, void*, void*, void*, std::uint32_t, void*) override;
    std::int32_t quiesce(tarn_fi_entry*, void*, std::uint32_t, void*) override;
    void unquiesce(tarn_fi_entry*, void*, std::uint32_t) override;
    std::int32_t make(tarn_fi_entry*, void*, tarn_fi_entry**, std::uint32_t, tarn_objid***,
                      std::uint32_t*) override;
    std::int32_t prepare(tarn_fi_entry*, void*, tarn_fi_entry**, std::uint32_t,
                         std::uint32_t) override;
    bool isValidQuiesceConfig() override;
    bool isValidNodeSplitConfig() override;
    std::int32_t isReady(tarn_fi_entry* entry, void*, tarn_fi_entry** list,
                         std::uint32_t count) override;
    std::int32_t cacheDisable(tarn_node*, std::uint32_t) override;
    void cacheEnable(tarn_node*, std::uint32_t) override;
    void cacheFlush(tarn_node*, std::uint32_t) override;
    std::int32_t queryOperation(void*, tarn_node*, void*, void*) override;
    std::int32_t spareNodeOperationA(void*) override { return 0; }
    std::int32_t spareNodeOperationB(void*) override { return 0; }
    std::int32_t spareNodeOperationC(void*) override { return 0; }
    std::int32_t spareNodeOperationD(void*) override { return 0; }
    std::int32_t spareNodeOperationE(void*) override { return 0; }
    std::int32_t checkNodeExistence(tarn_node* record, std::uint32_t* exists) override;
    std::int32_t spareNodeOperationF(void*) override { return 0; }
    std::int32_t spareNodeOperationG(void*) override { return 0; }
    std::int32_t processProviderState(tarn_node*, void*, std::uint32_t) override { return 0; }
    std::int32_t setAccess(tarn_access_record*, std::uint32_t, std::uint32_t,
                           std::uint32_t) override {
        return 0;
    }
    std::int32_t spareNodeOperationH(void*) override { return 0; }

  private:
    bool isAltNode_;
    KivConfig config_;
    KivHandle snapshotHandle_ = kInvalidKivHandle;
    KivHandle volumeHandle_ = kInvalidKivHandle;
    std::u16string nodeName_;
};

#endif  // PROVIDERS_KIV_KIVNODE_H_
