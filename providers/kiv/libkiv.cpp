// The plug-in's exported entry points, resolved by name by the framework host.
//
// No entry point takes a lock; the host calls into the plug-in one call at a
// time. No exception leaves an entry point.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fiprovlib/TraceMethod.h"
#include "kiv/kivficoordinator.h"
#include "os/types.h"
#include "tarn/records.h"
#include "tarn/tarnutil.h"

#define FIKIV_ENTRY extern "C" __attribute__((visibility("default")))

namespace {

constexpr char16_t kProviderName[] = u"fikiv";
constexpr char16_t kMethodName[] = u"KIV_fim";
constexpr char16_t kMethodDescription[] = u"Kiv Snapshot Provider";
constexpr char16_t kMethodVersionText[] = u"1.05";
constexpr char16_t kMethodListExtra[] = u"none";

// The host's two fixed numbers for a provider-list node.
constexpr std::uint32_t kProviderListNumberA = 8;
constexpr std::uint32_t kProviderListNumberB = 4;

// A zero-filled framework buffer holding `text` and its terminator, or null.
// `bytes` receives the size the buffer was allocated with.
template <std::size_t N>
char16_t* allocTextBuffer(const char16_t (&text)[N], std::uint64_t* bytes) {
    *bytes = 2 * N;  // N counts the terminator already
    auto* buffer = static_cast<char16_t*>(tarn_alloc_buf(*bytes));
    if (buffer == nullptr) {
        return nullptr;
    }
    std::memset(buffer, 0, *bytes);
    std::memcpy(buffer, text, 2 * (N - 1));
    return buffer;
}

}  // namespace

// Who the provider is and which interface version it speaks.
FIKIV_ENTRY std::int32_t fikiv_fi_pgn_get_provider_info(tarn_list_node** out) {
    if (out == nullptr) {
        return kTarnInvalidRequest;
    }
    tarn_version version{{7, 0, 0, 0}};
    *out = tarn_build_providerlist_node(kProviderName, kProviderListNumberA, kProviderListNumberB,
                                        &version, /*flags=*/0);
    return kTarnSuccess;
}

// The one frozen-image method the provider offers. An allocation failure is
// answered 0 with nothing written and no buffer left allocated; the host is
// expected to have cleared its list pointer.
FIKIV_ENTRY std::int32_t fikiv_fi_pgn_enumerate_fims(tarn_list_node** out) {
    if (out == nullptr) {
        return kTarnInvalidRequest;
    }
    tarn_fim_info info{};
    const std::uint32_t words[6] = {0, 1, 1, 0, 0, 1};
    std::memcpy(info.words, words, sizeof(words));

    std::uint64_t descriptionBytes = 0;
    info.description = allocTextBuffer(kMethodDescription, &descriptionBytes);
    if (info.description == nullptr) {
        return kTarnSuccess;
    }
    std::uint64_t versionBytes = 0;
    info.version_text = allocTextBuffer(kMethodVersionText, &versionBytes);
    if (info.version_text == nullptr) {
        tarn_free_buf(info.description, descriptionBytes);
        return kTarnSuccess;
    }
    // The list node takes over both buffers.
    *out = tarn_build_fim_list_node(kMethodName, &info, kMethodListExtra, kProviderName);
    return kTarnSuccess;
}

namespace {

// Process-wide state of the entry points, written only by fikiv_fi_pgn_init.
bool initialised = false;

KivFiCoordinator& coordinator() {
    return KivFiCoordinator::instance();
}

// No exception may cross into the host: an unexpected failure below the
// coordinator (an operating-system error code, an allocation failure) becomes
// the internal-failure status, or `failed` where the entry point answers a
// yes/no value.
template <class Call>
std::int32_t guarded(Call call, std::int32_t failed = kTarnInternalFailure) noexcept {
    try {
        return call();
    } catch (...) {
        return failed;
    }
}

template <class Call>
void guardedVoid(Call call) noexcept {
    try {
        call();
    } catch (...) {
    }
}

const char* localeOf(const tarn_context* context) {
    if (context == nullptr || context->locale_ref == nullptr) {
        return nullptr;
    }
    return context->locale_ref->name;
}

}  // namespace

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_init(tarn_context* context, tarn_version* version) {
    if (version == nullptr) {
        return kTarnNoVersionRecord;
    }
    return guarded([&] {
        try {
            KivFiCoordinator& instance = coordinator();
            instance.setFrameworkContext(context);
            initialised = true;
            instance.initCatalogues(localeOf(context));
        } catch (os::DWORD) {
            // The driver library or one of its entry points is missing: the
            // provider stays uninitialised and takes no object.
            initialised = false;
        }
        version->words[0] = 7;
        version->words[1] = 0;
        version->words[2] = 0;
        version->words[3] = 0;
        setLogContext(context);
        setPluginName(u"fikiv");
        return kTarnSuccess;
    });
}

FIKIV_ENTRY void fikiv_fi_pgn_fini() {}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_errmsg(std::uint32_t status, const char16_t** text) {
    return guarded([&] { return coordinator().errMsg(status, text); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_claim(tarn_objid* identity, void* argument,
                                            std::uint32_t* flag) {
    if (identity == nullptr || argument == nullptr || flag == nullptr || !initialised) {
        return 0;
    }
    return guarded([&] { return coordinator().claim(identity, argument, flag); }, 0);
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_getattr(void*, void*, void*, void*) {
    return kTarnNotSupported;
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_deport_tree(void*, void* second, tarn_tree_record* tree) {
    if (tree == nullptr || tree->count != 0 || second != nullptr) {
        return kTarnNotSupported;
    }
    return kTarnSuccess;
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_import_tree(void*, void*, void*, std::uint32_t) {
    return kTarnNotSupported;
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_init_remnode(void*, void*, void*) {
    return kTarnNotSupported;
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_pre_prepare(void*) {
    return kTarnSuccess;
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_enumerate_nodes(tarn_list_node** list, void*, std::uint32_t,
                                                      void*) {
    if (list == nullptr) {
        return kTarnInvalidRequest;
    }
    *list = nullptr;
    return kTarnSuccess;
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_enumerate_group_nodes(tarn_list_node** list) {
    if (list == nullptr) {
        return kTarnInvalidRequest;
    }
    *list = nullptr;
    return kTarnSuccess;
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_enumerate_associations(tarn_list_node** list) {
    if (list == nullptr) {
        return kTarnInvalidRequest;
    }
    *list = nullptr;
    return kTarnSuccess;
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_isvalid_node_association(void* first, void* second) {
    if (first == nullptr || second == nullptr) {
        return kTarnInvalidRequest;
    }
    return kTarnNotSupported;
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_get_associated_nodes(void* node, tarn_list_node** list) {
    if (node == nullptr || list == nullptr) {
        return kTarnInvalidRequest;
    }
    *list = nullptr;
    return kTarnSuccess;
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_check_node_existence(tarn_node* record,
                                                           std::uint32_t* exists) {
    if (record == nullptr || exists == nullptr) {
        return kTarnInvalidRequest;
    }
    return guarded([&] { return coordinator().checkNodeExistence(record, exists); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_get_last_error(void* a) {
    return guarded([&] { return coordinator().getLastError(a); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_del_last_error(void* a) {
    return guarded([&] { return coordinator().delLastError(a); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_get_locale_message(void* a, void* b, void* c, void* d) {
    return guarded([&] { return coordinator().getLocaleMessage(a, b, c, d); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_del_locale_message(void* a) {
    return guarded([&] { return coordinator().delLocaleMessage(a); });
}

// Entry points handed to the node of the host's record through the coordinator.

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_supports_fitype(tarn_node* record, const char* fiType) {
    return guarded([&] { return coordinator().supportsFiType(record, fiType); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_init_node(tarn_node* record, void* a, std::uint32_t b,
                                                void* c) {
    return guarded([&] { return coordinator().initNode(record, a, b, c); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_config(tarn_node* record, std::uint32_t operation,
                                             void* argument, tarn_config_request* request) {
    return guarded([&] { return coordinator().config(record, operation, argument, request); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_init_altnode(tarn_node* source, void* argument,
                                                   tarn_node* alternate) {
    return guarded([&] { return coordinator().initAltNode(source, argument, alternate); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_reaccess_tmpobj(tarn_node* record, void* a, void* b, void* c,
                                                      void* d, std::uint32_t e) {
    return guarded([&] { return coordinator().reAccessTmpObj(record, a, b, c, d, e); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_reaccess_altnode(tarn_node* record, void* a, void* b, void* c,
                                                       void* d, void* e, std::uint32_t f,
                                                       std::uint32_t g) {
    return guarded([&] { return coordinator().reAccessAltNode(record, a, b, c, d, e, f, g); });
}

FIKIV_ENTRY void fikiv_fi_pgn_deinit_node(tarn_node* record) {
    guardedVoid([&] { coordinator().deInitNode(record); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_dispose(void* a, tarn_node* record, void* b,
                                              std::uint32_t c) {
    return guarded([&] { return coordinator().dispose(a, record, b, c); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_online(void* a, tarn_node* record, std::uint32_t b,
                                             std::uint32_t c) {
    return guarded([&] { return coordinator().online(a, record, b, c); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_subobj_list(tarn_node* record, void* list, void* count) {
    if (record == nullptr || list == nullptr || count == nullptr) {
        return kTarnInvalidRequest;
    }
    return guarded([&] { return coordinator().subobjList(record, list, count); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_build_alttree(tarn_node* record, void* a, void* b, void* c,
                                                    std::uint32_t d, void* e) {
    return guarded([&] { return coordinator().buildAltTree(record, a, b, c, d, e); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_quiesce(tarn_fi_entry* entry, void* a, std::uint32_t b,
                                              void* c) {
    return guarded([&] { return coordinator().quiesce(entry, a, b, c); });
}

FIKIV_ENTRY void fikiv_fi_pgn_unquiesce(tarn_fi_entry* entry, void* a, std::uint32_t b) {
    guardedVoid([&] { coordinator().unquiesce(entry, a, b); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_make(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                                           std::uint32_t count, tarn_objid*** identities,
                                           std::uint32_t* identityCount) {
    return guarded(
        [&] { return coordinator().make(entry, a, list, count, identities, identityCount); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_prepare(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                                              std::uint32_t count, std::uint32_t mode) {
    return guarded([&] { return coordinator().prepare(entry, a, list, count, mode); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_select(tarn_fi_entry* entry, void* a, tarn_fi_entry** entries,
                                             std::int32_t count) {
    return guarded([&] { return coordinator().select(entry, a, entries, count); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_isready(tarn_fi_entry* entry, void* a, tarn_fi_entry** list,
                                              std::uint32_t count) {
    return guarded([&] { return coordinator().isReady(entry, a, list, count); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_cache_disable(tarn_node* record) {
    return guarded([&] { return coordinator().cacheDisable(record, 0); });
}

FIKIV_ENTRY void fikiv_fi_pgn_cache_enable(tarn_node* record) {
    guardedVoid([&] { coordinator().cacheEnable(record, 0); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_interpose(tarn_node* record, tarn_objid** newIdentity,
                                                tarn_objid*** groupIdentities,
                                                std::uint32_t* groupCount) {
    if (!initialised) {
        return 0;
    }
    return guarded(
        [&] { return coordinator().interpose(record, newIdentity, groupIdentities, groupCount); },
        0);
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_process_providerstate(tarn_node* record, void* a,
                                                            std::uint32_t b) {
    return guarded([&] { return coordinator().processProviderState(record, a, b); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_objctl(void* a, void* b, void* c, void* d) {
    return guarded([&] { return coordinator().objctl(a, b, c, d); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_enable_access(tarn_access_record* access, std::uint32_t a,
                                                    std::uint32_t b, std::uint32_t flags) {
    return guarded([&] { return coordinator().enableAccess(access, a, b, flags); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_disable_access(tarn_access_record* access, std::uint32_t a) {
    return guarded([&] { return coordinator().disableAccess(access, a); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_restore(void* a, void* b, std::uint32_t c, void* d, void* e,
                                              std::uint32_t f, void* g) {
    return guarded([&] { return coordinator().restore(a, b, c, d, e, f, g); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_resync(void* a, void* b, std::uint32_t c, void* d, void* e,
                                             std::uint32_t f, void* g) {
    return guarded([&] { return coordinator().resync(a, b, c, d, e, f, g); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_get_status(void* a, void* b, std::uint32_t c, void* d,
                                                 std::uint32_t e, void* f) {
    return guarded([&] { return coordinator().getStatus(a, b, c, d, e, f); });
}

FIKIV_ENTRY std::int32_t fikiv_fi_pgn_query_valid_secondaries(void* a, void* b, void* c) {
    return guarded([&] { return coordinator().queryValidSecondaries(a, b, c); });
}
