// The plug-in's exported entry points: name, result and parameters of each, in
// one list that the host expands into function-pointer types, typed call
// wrappers and the table of names it resolves.
//
// FIKIV_HOST_ENTRY_POINTS(X) calls X(name, result, parameters, arguments) once
// per entry point; `name` is the part after "fikiv_fi_pgn_".
#ifndef FRAMEWORK_HOST_HOST_ENTRY_POINTS_H_
#define FRAMEWORK_HOST_HOST_ENTRY_POINTS_H_

#include <array>
#include <cstddef>
#include <cstdint>

#include "tarn/records.h"

namespace host {

using i32 = std::int32_t;
using u32 = std::uint32_t;

// clang-format off
#define FIKIV_HOST_ENTRY_POINTS(X) \
    X(init, i32, (tarn_context* context, tarn_version* version), (context, version)) \
    X(fini, void, (), ()) \
    X(errmsg, i32, (u32 status, const char16_t** text), (status, text)) \
    X(claim, i32, (tarn_objid* identity, void* a, u32* flag), (identity, a, flag)) \
    X(getattr, i32, (void* a, void* b, void* c, void* d), (a, b, c, d)) \
    X(deport_tree, i32, (void* a, void* b, tarn_tree_record* tree), (a, b, tree)) \
    X(import_tree, i32, (void* a, void* b, void* c, u32 d), (a, b, c, d)) \
    X(init_remnode, i32, (void* a, void* b, void* c), (a, b, c)) \
    X(pre_prepare, i32, (void* a), (a)) \
    X(get_provider_info, i32, (tarn_list_node** out), (out)) \
    X(enumerate_nodes, i32, (tarn_list_node** out, void* a, u32 b, void* c), (out, a, b, c)) \
    X(enumerate_group_nodes, i32, (tarn_list_node** out), (out)) \
    X(enumerate_fims, i32, (tarn_list_node** out), (out)) \
    X(enumerate_associations, i32, (tarn_list_node** out), (out)) \
    X(isvalid_node_association, i32, (void* a, void* b), (a, b)) \
    X(get_associated_nodes, i32, (void* a, tarn_list_node** out), (a, out)) \
    X(check_node_existence, i32, (tarn_node* record, u32* exists), (record, exists)) \
    X(get_last_error, i32, (void* a), (a)) \
    X(del_last_error, i32, (void* a), (a)) \
    X(get_locale_message, i32, (void* a, void* b, void* c, void* d), (a, b, c, d)) \
    X(del_locale_message, i32, (void* a), (a)) \
    X(supports_fitype, i32, (tarn_node* record, const char* fiType), (record, fiType)) \
    X(init_node, i32, (tarn_node* record, void* a, u32 b, void* c), (record, a, b, c)) \
    X(config, i32, (tarn_node* record, u32 operation, void* a, tarn_config_request* request), \
      (record, operation, a, request)) \
    X(init_altnode, i32, (tarn_node* source, void* a, tarn_node* alternate), \
      (source, a, alternate)) \
    X(reaccess_tmpobj, i32, (tarn_node* record, void* a, void* b, void* c, void* d, u32 e), \
      (record, a, b, c, d, e)) \
    X(reaccess_altnode, i32, \
      (tarn_node* record, void* a, void* b, void* c, void* d, void* e, u32 f, u32 g), \
      (record, a, b, c, d, e, f, g)) \
    X(deinit_node, void, (tarn_node* record), (record)) \
    X(dispose, i32, (void* a, tarn_node* record, void* b, u32 c), (a, record, b, c)) \
    X(online, i32, (void* a, tarn_node* record, u32 b, u32 c), (a, record, b, c)) \
    X(subobj_list, i32, (tarn_node* record, void* list, void* count), (record, list, count)) \
    X(build_alttree, i32, (tarn_node* record, void* a, void* b, void* c, u32 d, void* e), \
      (record, a, b, c, d, e)) \
    X(quiesce, i32, (tarn_fi_entry* entry, void* a, u32 b, void* c), (entry, a, b, c)) \
    X(unquiesce, void, (tarn_fi_entry* entry, void* a, u32 b), (entry, a, b)) \
    X(make, i32, \
      (tarn_fi_entry* entry, void* a, tarn_fi_entry** list, u32 count, \
       tarn_objid*** identities, u32* identityCount), \
      (entry, a, list, count, identities, identityCount)) \
    X(prepare, i32, (tarn_fi_entry* entry, void* a, tarn_fi_entry** list, u32 count, u32 mode), \
      (entry, a, list, count, mode)) \
    X(select, i32, (tarn_fi_entry* entry, void* a, tarn_fi_entry** entries, i32 count), \
      (entry, a, entries, count)) \
    X(isready, i32, (tarn_fi_entry* entry, void* a, tarn_fi_entry** list, u32 count), \
      (entry, a, list, count)) \
    X(cache_disable, i32, (tarn_node* record), (record)) \
    X(cache_enable, void, (tarn_node* record), (record)) \
    X(interpose, i32, \
      (tarn_node* record, tarn_objid** newIdentity, tarn_objid*** groupIdentities, \
       u32* groupCount), \
      (record, newIdentity, groupIdentities, groupCount)) \
    X(process_providerstate, i32, (tarn_node* record, void* a, u32 b), (record, a, b)) \
    X(objctl, i32, (void* a, void* b, void* c, void* d), (a, b, c, d)) \
    X(enable_access, i32, (tarn_access_record* access, u32 a, u32 b, u32 flags), \
      (access, a, b, flags)) \
    X(disable_access, i32, (tarn_access_record* access, u32 a), (access, a)) \
    X(restore, i32, (void* a, void* b, u32 c, void* d, void* e, u32 f, void* g), \
      (a, b, c, d, e, f, g)) \
    X(resync, i32, (void* a, void* b, u32 c, void* d, void* e, u32 f, void* g), \
      (a, b, c, d, e, f, g)) \
    X(get_status, i32, (void* a, void* b, u32 c, void* d, u32 e, void* f), (a, b, c, d, e, f)) \
    X(query_valid_secondaries, i32, (void* a, void* b, void* c), (a, b, c))
// clang-format on

// The prefix every exported entry point's name starts with.
inline constexpr const char* kEntryPointPrefix = "fikiv_fi_pgn_";

// Function-pointer types, one per entry point: EntryPoint_init, ...
#define FIKIV_HOST_ENTRY_TYPE(name, result, parameters, arguments) \
    using EntryPoint_##name = result(*) parameters;
FIKIV_HOST_ENTRY_POINTS(FIKIV_HOST_ENTRY_TYPE)
#undef FIKIV_HOST_ENTRY_TYPE

// Position of each entry point in the table below.
enum class Entry : std::size_t {
#define FIKIV_HOST_ENTRY_ENUM(name, result, parameters, arguments) name,
    FIKIV_HOST_ENTRY_POINTS(FIKIV_HOST_ENTRY_ENUM)
#undef FIKIV_HOST_ENTRY_ENUM
        kCount
};

inline constexpr std::size_t kEntryPointCount = static_cast<std::size_t>(Entry::kCount);

// The names after the prefix, in table order.
inline constexpr std::array<const char*, kEntryPointCount> kEntryPointNames = {
#define FIKIV_HOST_ENTRY_NAME(name, result, parameters, arguments) #name,
    FIKIV_HOST_ENTRY_POINTS(FIKIV_HOST_ENTRY_NAME)
#undef FIKIV_HOST_ENTRY_NAME
};

}  // namespace host

#endif  // FRAMEWORK_HOST_HOST_ENTRY_POINTS_H_
