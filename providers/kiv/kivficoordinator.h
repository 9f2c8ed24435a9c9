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

#define FI_COORDINATOR_OVERRIDE override
#include "kiv/ficoordinator_operations.inc"
#undef FI_COORDINATOR_OVERRIDE

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
