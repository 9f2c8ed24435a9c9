// The coordinator object: its life, its catalogues and message reporting, and
// the operations that need no node (error text, claim, the tag test, and the
// questions this provider answers with 0).
#include "kiv/kivficoordinator.h"

#include <cstring>

#include <unicode/msgfmt.h>
#include <unicode/unistr.h>

#include "fiprovlib/TarnError.h"
#include "fiprovlib/TraceMethod.h"
#include "kiv/cachefile/kivapi.h"
#include "kiv/frozenimagenode.h"
#include "os/codepage.h"
#include "string_helper.h"
#include "tarn/msgcatalog.h"
#include "tarn/tarnutil.h"

namespace {

const char16_t kSource[] = u"providers\\kiv\\kivficoordinator";
const char16_t kGroupName[] = u"kiv-cow-snapshot-group";
const char kCatalogueName[] = "libfikiv";
constexpr std::uint32_t kObjidKind = 3;

KivFiCoordinator*& instanceSlot() {
    static KivFiCoordinator* instance = nullptr;
    return instance;
}

KivApi*& kivApiSlot() {
    static KivApi* api = nullptr;
    return api;
}

tarp_MsgCatalog*& activeCatalogueSlot() {
    static tarp_MsgCatalog* catalogue = nullptr;
    return catalogue;
}

}  // namespace

const std::u16string& kivTag() {
    static const std::u16string tag(u"<kiv>");
    return tag;
}

bool hasKivTag(const tarn_objid* identity) {
    if (identity == nullptr || identity->name == nullptr) {
        return false;
    }
    const std::u16string& tag = kivTag();
    std::size_t units = identity->length > 0 ? static_cast<std::size_t>(identity->length) / 2 : 0;
    return units >= tag.size() &&
           std::memcmp(identity->name, tag.data(), tag.size() * sizeof(char16_t)) == 0;
}

FrozenImageNode* nodeOf(const tarn_node* record) {
    return record != nullptr ? static_cast<FrozenImageNode*>(record->provider_data) : nullptr;
}

std::u16string objectName(const tarn_objid* identity) {
    if (identity == nullptr || identity->name == nullptr || identity->length <= 0) {
        return {};
    }
    std::u16string name(identity->name, static_cast<std::size_t>(identity->length) / 2);
    while (!name.empty() && name.back() == u'\0') {
        name.pop_back();
    }
    return name;
}

tarn_objid* makeObjid(const std::u16string& name) {
    auto length = static_cast<std::int32_t>((name.size() + 1) * sizeof(char16_t));
    return tarn_get_objid(name.c_str(), length, kObjidKind);
}

KivApi* coordinatorKivApi() {
    return kivApiSlot();
}

tarp_MsgCatalog* activeCatalogue() {
    return activeCatalogueSlot();
}

KivFiCoordinator& KivFiCoordinator::instance() {
    KivFiCoordinator*& slot = instanceSlot();
    if (slot == nullptr) {
        // A failing driver binding throws out of the constructor; the slot
        // stays empty and the next call tries again.
        slot = new KivFiCoordinator();
    }
    return *slot;
}

void KivFiCoordinator::destroyInstance() {
    KivFiCoordinator*& slot = instanceSlot();
    delete slot;
    slot = nullptr;
    kivApiSlot() = nullptr;
}

KivFiCoordinator::KivFiCoordinator() {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::KivFiCoordinator", __LINE__);
    // The process-wide binding (the member accessor of the same name would
    // only read the field).
    kivApi_ = ::kivApi();
    kivApiSlot() = kivApi_;
    groupObjid_ = makeObjid(kGroupName);
}

KivFiCoordinator::~KivFiCoordinator() {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::~KivFiCoordinator", __LINE__);
    for (FrozenImageNode* node : nodes_) {
        delete node;
    }
    activeCatalogueSlot() = nullptr;
    localeCatalogue_.reset();
    rootCatalogue_.reset();
    nodes_.clear();
}

void KivFiCoordinator::initCatalogues(const char* localeName) {
    rootCatalogue_ = std::make_unique<tarp_MsgCatalog>(kCatalogueName, "root", false);
    if (localeName != nullptr) {
        localeCatalogue_ = std::make_unique<tarp_MsgCatalog>(kCatalogueName, localeName, false);
        activeCatalogueSlot() = localeCatalogue_.get();
    } else {
        activeCatalogueSlot() = rootCatalogue_.get();
    }
}

void KivFiCoordinator::reportMessage(const char* key, const icu::Formattable* arguments,
                                     std::int32_t count, std::uint32_t level) {
    try {
        tarp_MsgCatalog* root = rootCatalogue_.get();
        tarp_MsgCatalog* locale = localeCatalogue_.get();
        tarn_context* context = frameworkContext_;

        // One status serves both formats, so a root failure also drops the
        // locale text.
        UErrorCode status = U_ZERO_ERROR;
        icu::UnicodeString rootText;
        icu::UnicodeString localeText;
        bool haveRoot = false;
        bool haveLocale = false;
        auto format = [&](tarp_MsgCatalog* catalogue, icu::UnicodeString& result) {
            const char16_t* pattern = catalogue->getCachedMsg(key, false);
            if (pattern == nullptr) {
                return false;
            }
            icu::MessageFormat::format(icu::UnicodeString(pattern), arguments, count, result,
                                       status);
            return U_SUCCESS(status) != 0;
        };
        if (root != nullptr) {
            haveRoot = format(root, rootText);
        }
        if (locale != nullptr) {
            haveLocale = format(locale, localeText);
        }
        if (context != nullptr && context->msg_callback != nullptr) {
            context->msg_callback(context, haveLocale ? localeText.getTerminatedBuffer() : nullptr,
                                  haveRoot ? rootText.getTerminatedBuffer() : nullptr, level);
        }
    } catch (const std::exception&) {
        // A report that cannot be made is dropped; the caller goes on.
    }
}

std::int32_t KivFiCoordinator::errMsg(std::uint32_t status, const char16_t** text) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::errMsg", __LINE__);
    if (text == nullptr) {
        return kTarnInvalidRequest;
    }
    TarnError error(status, kSource, __LINE__, u"KivFiCoordinator::errMsg");
    *text = error.localizedMessage();
    logError(error, kLogError, /*report=*/true);
    return kTarnSuccess;
}

std::int32_t KivFiCoordinator::claim(tarn_objid* identity, void* /*unused*/, std::uint32_t* flag) {
    tarp_TraceMethod trace(kSource, u"KivFiCoordinator::claim", __LINE__);
    std::string driverName = toNarrow(objectName(identity), os::CP_UTF8);
    KivHandle handle = kInvalidKivHandle;
    std::uint32_t status = KIV_Open(kivApi_, driverName.c_str(), /*access=*/1, /*flags=*/0x80,
                                    /*a=*/0, /*b=*/0, &handle);
    if (status == 0 && isValidKivHandle(handle)) {
        KivVolumeInformation information{};
        std::uint32_t read =
            KIV_GetVolumeInformation(kivApi_, handle, sizeof(information), &information);
        KIV_Close(kivApi_, &handle);
        if (read != 0) {
            return 0;
        }
        return (information.attributes & KIV_ATTRIBUTE_CLAIMED) != 0 ? 1 : 0;
    }
    // The driver does not know the object: it may be one that interpose named.
    if (hasKivTag(identity)) {
        *flag = 0;
        return kTarnInvalidRequest;
    }
    return 0;
}

std::int32_t KivFiCoordinator::checkNodeExistence(tarn_node* record, std::uint32_t* exists) {
    if (exists == nullptr || record == nullptr) {
        return kTarnInvalidRequest;
    }
    *exists = hasKivTag(record->objid) ? 1 : 0;
    return kTarnSuccess;
}

std::int32_t KivFiCoordinator::spareOperationA(void*) {
    return 0;
}
std::int32_t KivFiCoordinator::spareOperationB(void*, void*, std::uint32_t) {
    return 0;
}
std::int32_t KivFiCoordinator::spareOperationC(void*) {
    return 0;
}
std::int32_t KivFiCoordinator::spareOperationD(void*, void*) {
    return 0;
}
std::int32_t KivFiCoordinator::spareOperationE(void*, void*) {
    return 0;
}
std::int32_t KivFiCoordinator::spareOperationF(void*) {
    return 0;
}
std::int32_t KivFiCoordinator::spareOperationG(void*) {
    return 0;
}
std::int32_t KivFiCoordinator::getLastError(void*) {
    return 0;
}
std::int32_t KivFiCoordinator::delLastError(void*) {
    return 0;
}
std::int32_t KivFiCoordinator::getLocaleMessage(void*, void*, void*, void*) {
    return 0;
}
std::int32_t KivFiCoordinator::delLocaleMessage(void*) {
    return 0;
}
