// The provider interface behind the plug-in's entry points. Callers reach the
// operations by position, so their order is fixed; an implementation keeps it.
// Arguments named a, b, ... are passed through for the host and not read by
// this provider.
#ifndef PROVIDERS_KIV_FICOORDINATOR_H_
#define PROVIDERS_KIV_FICOORDINATOR_H_

#include <cstdint>

#include "tarn/records.h"

class FiCoordinator {
  public:
    virtual ~FiCoordinator() = default;
    virtual std::int32_t errMsg(std::uint32_t status, const char16_t** text) = 0;
    virtual std::int32_t claim(tarn_objid* identity, void* unused, std::uint32_t* flag) = 0;
    virtual std::int32_t supportsFiType(tarn_node* record, const char* fiType) = 0;
    virtual std::int32_t initNode(tarn_node* record, void* a, std::uint32_t b, void* c) = 0;
    virtual std::int32_t config(tarn_node* record, std::uint32_t operation, void* argument,
                                tarn_config_request* request) = 0;
    virtual std::int32_t initAltNode(tarn_node* source, void* argument, tarn_node* alternate) = 0;
    virtual std::int32_t reAccessTmpObj(tarn_node* record, void* a, void* b, void* c, void* d,
                                        std::uint32_t e) = 0;
    virtual std::int32_t reAccessAltNode(tarn_node* record, void* a, void* b, void* c, void* d,
                                         void* e, std::uint32_t f, std::uint32_t g) = 0;
    virtual void deInitNode(tarn_node* record) = 0;
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
    virtual std::int32_t select(tarn_fi_entry* entry, void* a, tarn_fi_entry** entries,
                                std::int32_t count) = 0;
    virtual std::int32_t isReady(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                                 std::uint32_t count) = 0;
    virtual std::int32_t cacheDisable(tarn_node* record, std::uint32_t flags) = 0;
    virtual void cacheEnable(tarn_node* record, std::uint32_t flags) = 0;
    virtual void cacheFlush(tarn_node* record, std::uint32_t flags) = 0;
    virtual std::int32_t interpose(tarn_node* record, tarn_objid** newIdentity,
                                   tarn_objid*** groupIdentities, std::uint32_t* groupCount) = 0;
    virtual std::int32_t queryOperation(void* a, tarn_node* record, void* b, void* c) = 0;
    virtual std::int32_t spareOperationA(void* a) = 0;
    virtual std::int32_t spareOperationB(void* a, void* b, std::uint32_t c) = 0;
    virtual std::int32_t spareOperationC(void* a) = 0;
    virtual std::int32_t spareOperationD(void* a, void* b) = 0;
    virtual std::int32_t spareOperationE(void* a, void* b) = 0;
    virtual std::int32_t checkNodeExistence(tarn_node* record, std::uint32_t* exists) = 0;
    virtual std::int32_t spareOperationF(void* a) = 0;
    virtual std::int32_t spareOperationG(void* a) = 0;
    virtual std::int32_t objctl(void* a, void* b, void* c, void* d) = 0;
    virtual std::int32_t processProviderState(tarn_node* record, void* a, std::uint32_t b) = 0;
    virtual std::int32_t getLastError(void* a) = 0;
    virtual std::int32_t delLastError(void* a) = 0;
    virtual std::int32_t getLocaleMessage(void* a, void* b, void* c, void* d) = 0;
    virtual std::int32_t delLocaleMessage(void* a) = 0;
    virtual std::int32_t enableAccess(tarn_access_record* access, std::uint32_t a, std::uint32_t b,
                                      std::uint32_t flags) = 0;
    virtual std::int32_t disableAccess(tarn_access_record* access, std::uint32_t a) = 0;
    virtual std::int32_t restore(void* a, void* b, std::uint32_t c, void* d, void* e,
                                 std::uint32_t f, void* g) = 0;
    virtual std::int32_t resync(void* a, void* b, std::uint32_t c, void* d, void* e,
                                std::uint32_t f, void* g) = 0;
    virtual std::int32_t getStatus(void* a, void* b, std::uint32_t c, void* d, std::uint32_t e,
                                   void* f) = 0;
    virtual std::int32_t queryValidSecondaries(void* a, void* b, void* c) = 0;
};

#endif  // PROVIDERS_KIV_FICOORDINATOR_H_
