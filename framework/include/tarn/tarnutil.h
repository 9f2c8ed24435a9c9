// The framework utility library (libtarnutil.so): buffers owned by the
// framework, object identities and the list nodes of the provider and method
// lists.
//
// Thread-safe. Test switches at the end are off unless a test turns them on.
#ifndef FRAMEWORK_INCLUDE_TARN_TARNUTIL_H_
#define FRAMEWORK_INCLUDE_TARN_TARNUTIL_H_

#include <cstddef>
#include <cstdint>

#include "tarn/records.h"

#define TARN_UTIL_API __attribute__((visibility("default")))

extern "C" {

// A zero-filled buffer of at least `size` bytes that the host frees with
// tarn_free_buf, or null.
TARN_UTIL_API void* tarn_alloc_buf(std::uint64_t size);
// Frees a buffer of tarn_alloc_buf; `size` must be the size it was allocated
// with (a mismatch is counted as a fault, see tarn_test_buffer_faults).
TARN_UTIL_API void tarn_free_buf(void* buffer, std::uint64_t size);
// 0 when both identities name the same object (same kind and same name,
// trailing NULs ignored), non-zero otherwise; null compares unequal to all.
TARN_UTIL_API int tarn_objidcmp(const tarn_objid* a, const tarn_objid* b);
// A new identity of `kind` for the UTF-16 `name` of `length` bytes (the
// terminating NUL included), owned by the framework (kept until the library
// is unloaded). Null for a null name or a negative length.
TARN_UTIL_API tarn_objid* tarn_get_objid(const char16_t* name, std::int32_t length,
                                         std::uint32_t kind);
// A provider-list node: name, two host numbers, version, and a host flag.
TARN_UTIL_API tarn_list_node* tarn_build_providerlist_node(const char16_t* name, std::uint32_t a,
                                                           std::uint32_t b,
                                                           const tarn_version* version,
                                                           std::uint32_t flags);
// A method-list node. Takes over the two tarn_alloc_buf buffers named in
// `info`, which are freed with the node.
TARN_UTIL_API tarn_list_node* tarn_build_fim_list_node(const char16_t* method,
                                                       const tarn_fim_info* info,
                                                       const char16_t* extra,
                                                       const char16_t* provider);

// --- host and test helpers (not called by the plug-in) ---

// What a list node holds, for the host to read. The texts belong to the node
// and stay valid until it is freed.
struct tarn_list_view {
    int is_fim;                        // 0 provider list, 1 method list
    const char16_t* name;              // provider name or method name
    std::uint32_t number_a, number_b;  // provider list: the two host numbers
    tarn_version version;              // provider list
    std::uint32_t flags;               // provider list
    tarn_fim_info info;                // method list (buffers owned by the node)
    const char16_t* extra;             // method list: third argument
    const char16_t* provider;          // method list: provider name
};
// Fills `view` from `node`: 0, or 3 when either is null.
TARN_UTIL_API int tarn_list_node_view(const tarn_list_node* node, tarn_list_view* view);
// Frees a list node and, for a method list, the two buffers it took over.
// Null is ignored.
TARN_UTIL_API void tarn_free_list_node(tarn_list_node* node);

// Makes tarn_alloc_buf fail (return null) on its calls number skip+1 ..
// skip+count from now; count 0 turns the switch off.
TARN_UTIL_API void tarn_test_fail_alloc(std::uint32_t skip, std::uint32_t count);
// Buffers currently allocated and not freed, and frees whose size did not
// match the allocation (or of a buffer not allocated here). Either pointer
// may be null.
TARN_UTIL_API void tarn_test_buffer_stats(std::uint64_t* outstanding, std::uint64_t* size_faults);
// The size `buffer` was allocated with, or 0 when it is not a live buffer of
// tarn_alloc_buf.
TARN_UTIL_API std::uint64_t tarn_test_buffer_size(const void* buffer);

}  // extern "C"

#endif  // FRAMEWORK_INCLUDE_TARN_TARNUTIL_H_
