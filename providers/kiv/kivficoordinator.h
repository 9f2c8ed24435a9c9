// The provider's one process-wide object behind the entry points: owns the
// nodes and the message catalogues, routes per-object calls to nodes, claims
// objects and checks volumes for interposition.
//
// It takes no lock of its own: the host calls into the plug-in one call at a
// time. Only the driver binding it holds is built under a lock.
#ifndef PROVIDERS_KIV_KIVFICOORDINATOR_H_
#define PROVIDERS_KIV_KIVFICOORDINATOR_H_

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include <unicode/fmtable.h>

#include "kiv/ficoordinator.h"
#include "tarn/records.h"

struct KivApi;
class FrozenImageNode;
class tarp_MsgCatalog;

// "<kiv>", the tag in front of the names of interposed objects.
const std::u16string& kivTag();
// True when the identity's name begins with the tag.
bool hasKivTag(const tarn_objid* identity);
// The record's node, or null for a null record.
FrozenImageNode* nodeOf(const tarn_node* record);
// The identity's name as a wide string, trailing NULs removed.
std::u16string objectName(const tarn_objid* identity);
// A framework identity (kind 3) for a wide name.
tarn_objid* makeObjid(const std::u16string& name);
// The driver binding kept for the nodes, or null before the coordinator exists.
KivApi* coordinatorKivApi();
// The catalogue that configuration help texts come from: the locale catalogue
// when the host gave a locale, else the root catalogue; null before init.
tarp_MsgCatalog* activeCatalogue();

class KivFiCoordinator final : public FiCoordinator {
  public:
    // The process-wide coordinator, created on first call. Throws the os::DWORD
    // error of the driver binding when it cannot be built; the next call tries
    // again.
    static KivFiCoordinator& instance();
    // Deletes the coordinator (and with it every node still registered and
    // both catalogues) when the plug-in is unloaded; a later instance() builds
    // a new one.
    static void destroyInstance();
    ~KivFiCoordinator() override;

    void setFrameworkContext(tarn_context* context) { frameworkContext_ = context; }
    tarn_context* frameworkContext() const { return frameworkContext_; }
    // Builds the root catalogue and, for a non-null locale, the locale one.
    void initCatalogues(const char* localeName);
    tarp_MsgCatalog* rootCatalogue() const { return rootCatalogue_.get(); }
    tarp_MsgCatalog* localeCatalogue() const { return localeCatalogue_.get(); }
    // Formats the catalogue message `key` in both catalogues and hands the
    // locale text and the root text to the host at `level`. Never fails.
    void reportMessage(const char* key, const icu::Formattable* arguments, std::int32_t count,
                       std::uint32_t level);

    const tarn_objid* groupObjid() const { return groupObjid_; }
    KivApi* kivApi() const { return kivApi_; }

    std::int32_t errMsg(std::uint32_t status, const char16_t** text) override;
    std::int32_t claim(tarn_objid* identity, void* unused, std::uint32_t* flag) override;
    std::int32_t supportsFiType(tarn_node* record, const char* fiType) override;
    std::int32_t initNode(tarn_node* record, void* a, std::uint32_t b, void* c) override;
    std::int32_t config(tarn_node* record, std::uint32_t operation, void* argument,
                        tarn_config_request* request) override;
    std::int32_t initAltNode(tarn_node* source, void* argument, tarn_node* alternate) override;
    std::int32_t reAccessTmpObj(tarn_node* record, void* a, void* b, void* c, void* d,
                                std::uint32_t e) override;
    std::int32_t reAccessAltNode(tarn_node* record, void* a, void* b, void* c, void* d, void* e,
                                 std::uint32_t f, std::uint32_t g) override;
    void deInitNode(tarn_node* record) override;
    std::int32_t dispose(void* a, tarn_node* record, void* b, std::uint32_t c) override;
    std::int32_t online(void* a, tarn_node* record, std::uint32_t b, std::uint32_t c) override;
    std::int32_t subobjList(tarn_node* record, void* list, void* count) override;
    std::int32_t buildAltTree(tarn_node* record, void* a, void* b, void* c, std::uint32_t d,
                              void* e) override;
    std::int32_t quiesce(tarn_fi_entry* entry, void* a, std::uint32_t b, void* c) override;
    void unquiesce(tarn_fi_entry* entry, void* a, std::uint32_t b) override;
    std::int32_t make(tarn_fi_entry* entry, void* a, tarn_fi_entry** list, std::uint32_t count,
                      tarn_objid*** identities, std::uint32_t* identityCount) override;
    std::int32_t prepare(tarn_fi_entry* entry, void* a, tarn_fi_entry** list, std::uint32_t count,
                         std::uint32_t mode) override;
    std::int32_t select(tarn_fi_entry* entry, void* a, tarn_fi_entry** entries,
                        std::int32_t count) override;
    std::int32_t isReady(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                         std::uint32_t count) override;
    std::int32_t cacheDisable(tarn_node* record, std::uint32_t flags) override;
    void cacheEnable(tarn_node* record, std::uint32_t flags) override;
    void cacheFlush(tarn_node* record, std::uint32_t flags) override;
    std::int32_t interpose(tarn_node* record, tarn_objid** newIdentity,
                           tarn_objid*** groupIdentities, std::uint32_t* groupCount) override;
    std::int32_t queryOperation(void* a, tarn_node* record, void* b, void* c) override;
    std::int32_t spareOperationA(void* a) override;
    std::int32_t spareOperationB(void* a, void* b, std::uint32_t c) override;
    std::int32_t spareOperationC(void* a) override;
    std::int32_t spareOperationD(void* a, void* b) override;
    std::int32_t spareOperationE(void* a, void* b) override;
    std::int32_t checkNodeExistence(tarn_node* record, std::uint32_t* exists) override;
    std::int32_t spareOperationF(void* a) override;
    std::int32_t spareOperationG(void* a) override;
    std::int32_t objctl(void* a, void* b, void* c, void* d) override;
    std::int32_t processProviderState(tarn_node* record, void* a, std::uint32_t b) override;
    std::int32_t getLastError(void* a) override;
    std::int32_t delLastError(void* a) override;
    std::int32_t getLocaleMessage(void* a, void* b, void* c, void* d) override;
    std::int32_t delLocaleMessage(void* a) override;
    std::int32_t enableAccess(tarn_access_record* access, std::uint32_t a, std::uint32_t b,
                              std::uint32_t flags) override;
    std::int32_t disableAccess(tarn_access_record* access, std::uint32_t a) override;
    std::int32_t restore(void* a, void* b, std::uint32_t c, void* d, void* e, std::uint32_t f,
                         void* g) override;
    std::int32_t resync(void* a, void* b, std::uint32_t c, void* d, void* e, std::uint32_t f,
                        void* g) override;
    std::int32_t getStatus(void* a, void* b, std::uint32_t c, void* d, std::uint32_t e,
                           void* f) override;
    std::int32_t queryValidSecondaries(void* a, void* b, void* c) override;

  private:
    KivFiCoordinator();

    std::set<FrozenImageNode*> nodes_;
    KivApi* kivApi_ = nullptr;
    tarn_objid* groupObjid_ = nullptr;
    tarn_node* groupNode_ = nullptr;
    bool groupNodeInitialised_ = false;
    tarn_context* frameworkContext_ = nullptr;
    std::unique_ptr<tarp_MsgCatalog> rootCatalogue_;
    std::unique_ptr<tarp_MsgCatalog> localeCatalogue_;
};

#endif  // PROVIDERS_KIV_KIVFICOORDINATOR_H_
