// Records exchanged between the frozen-image framework host and a provider
// plug-in, the host's message callback, and the framework status codes.
//
// Layouts are 64-bit little-endian with natural alignment. Only the fields the
// plug-in reads or writes are named; the rest is reserved for the host. Every
// named offset is pinned by a static_assert below, so a host built from this
// header and a plug-in built from it agree byte for byte.
#ifndef FRAMEWORK_INCLUDE_TARN_RECORDS_H_
#define FRAMEWORK_INCLUDE_TARN_RECORDS_H_

#include <cstddef>
#include <cstdint>

extern "C" {

struct tarn_context;

// The host's message sink: (context, first text, second text, level). Texts
// are NUL-terminated UTF-16 or null. Levels: 1 information, 2 warning, 3 error,
// 4 trace. The result is ignored.
typedef int (*tarn_msg_callback)(tarn_context* context, const char16_t* text,
                                 const char16_t* secondText, std::uint32_t level);

// A record whose first field points at a NUL-terminated narrow locale name.
struct tarn_locale {
    const char* name;
};

struct tarn_context {
    tarn_msg_callback msg_callback;  // 0x00, may be null
    void* reserved08;
    void* reserved10;
    tarn_locale* locale_ref;  // 0x18, may be null
};

struct tarn_objid {
    char16_t* name;       // 0x00, UTF-16
    std::int32_t length;  // 0x08, bytes including the terminating NUL
    std::uint32_t kind;   // 0x0C, host's kind of identity
};

struct tarn_fi_link;

struct tarn_node {
    std::uint32_t flags;        // 0x00
    std::uint32_t status;       // 0x04
    tarn_objid* objid;          // 0x08
    void* reserved10;           // 0x10
    std::uint32_t* fi_support;  // 0x18
    unsigned char reserved20[0x30];
    std::uint64_t attach_word;  // 0x50
    tarn_fi_link* fi_list;      // 0x58
    unsigned char reserved60[0x30];
    void* provider_data;    // 0x90
    char16_t* object_name;  // 0x98
};

struct tarn_fi_entry {
    const char* fi_type;    // 0x00
    tarn_node* node;        // 0x08
    tarn_node* group_node;  // 0x10
};

struct tarn_fi_link {
    tarn_fi_link* next;     // 0x00
    tarn_fi_entry* first;   // 0x08
    tarn_fi_entry* second;  // 0x10
};

struct tarn_version {
    std::uint16_t words[4];
};

struct tarn_fim_info {
    std::uint32_t words[6];  // 0x00 .. 0x14
    char16_t* description;   // 0x18
    char16_t* version_text;  // 0x20
};

// Handed with every configuration request.
struct tarn_config_request {
    std::uint64_t split_selector;    // 0x00
    std::uint64_t quiesce_selector;  // 0x08
    char16_t* text;                  // 0x10
};

// The access record of enable_access/disable_access: its first field points
// at the object's node record.
struct tarn_access_record {
    tarn_node* node;  // 0x00
};

// The tree record of deport_tree; the plug-in reads one word of it.
struct tarn_tree_record {
    void* reserved00;
    void* reserved08;
    std::uint32_t count;  // 0x10
};

// A list node built by the framework utility library; opaque to the plug-in.
struct tarn_list_node;

}  // extern "C"

// Framework status codes answered by every entry point.
enum TarnStatus : std::int32_t {
    kTarnSuccess = 0,
    kTarnInvalidRequest = 3,
    kTarnNotSupported = 4,
    kTarnOutOfMemory = 5,
    kTarnInternalFailure = 6,
    kTarnNoVersionRecord = 7,
    kTarnEntryPointNotFound = 15,
};

static_assert(offsetof(tarn_context, msg_callback) == 0x00);
static_assert(offsetof(tarn_context, locale_ref) == 0x18);
static_assert(offsetof(tarn_locale, name) == 0x00);
static_assert(offsetof(tarn_objid, name) == 0x00);
static_assert(offsetof(tarn_objid, length) == 0x08);
static_assert(sizeof(tarn_objid) == 0x10);
static_assert(offsetof(tarn_node, flags) == 0x00);
static_assert(offsetof(tarn_node, status) == 0x04);
static_assert(offsetof(tarn_node, objid) == 0x08);
static_assert(offsetof(tarn_node, fi_support) == 0x18);
static_assert(offsetof(tarn_node, attach_word) == 0x50);
static_assert(offsetof(tarn_node, fi_list) == 0x58);
static_assert(offsetof(tarn_node, provider_data) == 0x90);
static_assert(offsetof(tarn_node, object_name) == 0x98);
static_assert(sizeof(tarn_node) == 0xA0);
static_assert(offsetof(tarn_fi_entry, fi_type) == 0x00);
static_assert(offsetof(tarn_fi_entry, node) == 0x08);
static_assert(offsetof(tarn_fi_entry, group_node) == 0x10);
static_assert(sizeof(tarn_fi_entry) == 24);
static_assert(offsetof(tarn_fi_link, next) == 0x00);
static_assert(offsetof(tarn_fi_link, first) == 0x08);
static_assert(offsetof(tarn_fi_link, second) == 0x10);
static_assert(sizeof(tarn_fi_link) == 24);
static_assert(sizeof(tarn_version) == 8);
static_assert(offsetof(tarn_fim_info, words) == 0x00);
static_assert(offsetof(tarn_fim_info, description) == 0x18);
static_assert(offsetof(tarn_fim_info, version_text) == 0x20);
static_assert(sizeof(tarn_fim_info) == 0x28);
static_assert(offsetof(tarn_config_request, split_selector) == 0x00);
static_assert(offsetof(tarn_config_request, quiesce_selector) == 0x08);
static_assert(offsetof(tarn_config_request, text) == 0x10);
static_assert(offsetof(tarn_access_record, node) == 0x00);
static_assert(offsetof(tarn_tree_record, count) == 0x10);

#endif  // FRAMEWORK_INCLUDE_TARN_RECORDS_H_
