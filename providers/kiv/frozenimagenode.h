// The node interface of the framework's provider kit: one node per object the
// provider handles. The coordinator calls the operations by position, so their
// order is fixed; an implementation overrides all of them.
#ifndef PROVIDERS_KIV_FROZENIMAGENODE_H_
#define PROVIDERS_KIV_FROZENIMAGENODE_H_

#include <cstdint>

#include "tarn/records.h"

class FrozenImageNode {
  public:
    virtual ~FrozenImageNode() = default;
    virtual std::int32_t supportsFiType(tarn_node* record, const char* fiType) = 0;
    virtual std::int32_t config(tarn_node* record, std::uint32_t operation, void* argument,
                                tarn_config_request* request) = 0;
    virtual std::int32_t reAccessTmpObj(tarn_node* record, void* a, void* b, void* c, void* d,
                                        std::uint32_t e) = 0;
    virtual std::int32_t reAccessAltNode(tarn_node* record, void* a, void* b, void* c, void* d,
                                         void* e, std::uint32_t f, std::uint32_t g) = 0;
    virtual std::int32_t dispose(void* a, tarn_node* record, void* b, std::uint32_t c) = 0;
    virtual std::int32_t online(void* a, tarn_node* record, std::uint32_t b, std::uint32_t c) = 0;
    virtual std::int32_t subobjList(tarn_node* record, void* list, void* count) = 0;
    virtual std::int32_t buildAltTree(tarn_node* record, void* a, void* b, void* c, std::uint32_t d,
                                      void* e) = 0;
    virtual std::int32_t quiesce(tarn_fi_entry* entry, void* a, std::uint32_t b, void* c) = 0;
    virtual void unquiesce(tarn_fi_entry* entry, void* a, std::uint32_t b) = 0;
    virtual std::int32_t make(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                              std::uint32_t count, tarn_objid*** identities,
                              std::uint32_t* identityCount) = 0;
    virtual std::int32_t prepare(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                                 std::uint32_t count, std::uint32_t mode) = 0;
    virtual bool isValidQuiesceConfig() = 0;
    virtual bool isValidNodeSplitConfig() = 0;
    virtual std::int32_t isReady(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                                 std::uint32_t count) = 0;
    virtual std::int32_t cacheDisable(tarn_node* record, std::uint32_t flags) = 0;
    virtual void cacheEnable(tarn_node* record, std::uint32_t flags) = 0;
    virtual void cacheFlush(tarn_node* record, std::uint32_t flags) = 0;
    virtual std::int32_t queryOperation(void* a, tarn_node* record, void* b, void* c) = 0;
    virtual std::int32_t spareNodeOperationA(void* a) = 0;
    virtual std::int32_t spareNodeOperationB(void* a) = 0;
    virtual std::int32_t spareNodeOperationC(void* a) = 0;
    virtual std::int32_t spareNodeOperationD(void* a) = 0;
    virtual std::int32_t spareNodeOperationE(void* a) = 0;
    virtual std::int32_t checkNodeExistence(tarn_node* record, std::uint32_t* exists) = 0;
    virtual std::int32_t spareNodeOperationF(void* a) = 0;
    virtual std::int32_t spareNodeOperationG(void* a) = 0;
    virtual std::int32_t processProviderState(tarn_node* record, void* a, std::uint32_t b) = 0;
    virtual std::int32_t setAccess(tarn_access_record* access, std::uint32_t a, std::uint32_t b,
                                   std::uint32_t c) = 0;
    virtual std::int32_t spareNodeOperationH(void* a) = 0;
};

#endif  // PROVIDERS_KIV_FROZENIMAGENODE_H_
