// A node's configuration: three independent settings groups kept as the
// "key=value" entries in which they arrived, and interpreted only when a
// reader asks for them.
//
// - quiesce group (group node): quiesceWait, quiesceTimeout;
// - cache group (group node): where cache files may go and how large they are;
// - split group (volume node): snapshot volume, cache file and its sizes, or
//   the order to compute them automatically during preparation.
//
// Not thread-safe: the host calls into a node one call at a time.
#ifndef PROVIDERS_KIV_KIVCONFIG_KIVCONFIG_H_
#define PROVIDERS_KIV_KIVCONFIG_KIVCONFIG_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kiv/cachefile/cachefilehints.h"
#include "kiv/kivconfig/splitconfig.h"
#include "tarn/records.h"

// One configuration key, fixed at construction.
struct ConfigKeyDescriptor {
    const char16_t* prefix;    // the entry prefix, ending in "="
    const char16_t* helpText;  // catalogue help text, or null
    const char16_t* info;      // descriptor text of the information document
};

class KivConfig {
  public:
    // Builds the key lists; help texts come from the active catalogue and
    // stay null when there is none.
    KivConfig();
    ~KivConfig();
    KivConfig(const KivConfig&) = delete;
    KivConfig& operator=(const KivConfig&) = delete;

    // The request's selector words pick the group: `split_selector` alone the
    // cache group (group request) or the split group (volume request),
    // `quiesce_selector` alone the quiesce group. A request addressed to the
    // provider's group object is a group request, any other a volume request.

    // Hands a copy of the selected group's last accepted text to the host in
    // `request->text` (a tarn_alloc_buf buffer the host then owns). Sets
    // `text` to null for a volume request with `quiesce_selector` alone;
    // otherwise leaves it as it was when there is nothing to hand over.
    // Answers 0, or 5 when the buffer cannot be allocated (`text` then stays
    // as it was). Changes nothing in the configuration.
    std::int32_t get(tarn_node* record, void* argument, tarn_config_request* request);
    // Stores the settings document of `request->text` in the selected group.
    // 0 on success; 3 for selectors that name no group, a group already set
    // (a volume request is refused once its split group is set, whatever its
    // selectors), a split request naming neither preparation mode, a null
    // text or a document that does not parse. A refused request leaves the
    // configuration as it was. A volume request with `quiesce_selector` alone
    // answers 0 and stores nothing. A split text containing
    // "TARN_CFS_AUTO_PREP" selects automatic preparation and is not parsed.
    std::int32_t set(tarn_node* record, void* argument, tarn_config_request* request);
    // As set, but a group already set is not refused: the new entries are
    // appended to the old ones and the group's text is replaced.
    std::int32_t update(tarn_node* record, tarn_config_request* request);
    // Hands the information document of the selected group to the host in
    // `request->text`, building it on first use; sets `text` to null for a
    // volume request with `quiesce_selector` alone. 3 (text untouched) for
    // selectors that name no group; 5 (text untouched) when the buffer
    // cannot be allocated; 0 otherwise.
    std::int32_t getConfigInfo(tarn_node* record, void* argument, tarn_config_request* request);

    void clearQuiesceConfig();
    void clearCacheConfig();
    // Also leaves automatic preparation.
    void clearSplitConfig();
    void clearAll();

    // The cache placement request of the cache group. All defaults when the
    // group is not set or holds more entries than it has keys.
    CacheFileHints getCacheFileHints() const;

    // The quiesce times; (0, 0) unless the group holds exactly its two
    // entries.
    QuiesceConfig getQuiesceConfig() const;
    // True when the quiesce group holds exactly one valued entry per key.
    bool isValidQuiesceConfig() const;
    // The split values; defaults unless the group holds exactly four entries.
    SplitConfig getSplitConfig() const;
    // True when the split group holds exactly one valued entry per key, or,
    // in automatic preparation, before the values have been stored.
    bool isValidNodeSplitConfig() const;
    // Stores automatically computed split values, once: false (and nothing
    // changed) unless in automatic preparation with no split entries yet.
    bool setAutoSplitConfig(SplitConfig values);
    bool isAutoPrepare() const { return autoPrepare_; }

    const std::vector<ConfigKeyDescriptor>& splitKeys() const { return splitKeys_; }
    const std::vector<ConfigKeyDescriptor>& quiesceKeys() const { return quiesceKeys_; }
    const std::vector<ConfigKeyDescriptor>& cacheKeys() const { return cacheKeys_; }
    const std::vector<std::u16string>& quiesceEntries() const { return quiesceEntries_; }
    const std::vector<std::u16string>& cacheEntries() const { return cacheEntries_; }
    const std::vector<std::u16string>& splitEntries() const { return splitEntries_; }

  private:
    // Lets the tests store entries as they are kept, also ones that no
    // settings document can carry (values with blanks, a prefix alone).
    friend class KivConfigTestPeer;

    std::int32_t store(tarn_node* record, tarn_config_request* request, bool refuseConfigured);
    static bool isGroupRequest(const tarn_node* record);
    static void splitVolumeList(std::u16string_view value, std::vector<std::u16string>& out);
    static std::u16string_view trimSeparators(std::u16string_view text,
                                              std::u16string_view separators);
    // Index in `keys` of the key that `entry` counts for, or -1. An entry
    // counts only when its value is not empty.
    static int keyOf(const std::vector<ConfigKeyDescriptor>& keys, std::u16string_view entry);
    // Copies `text` into a new tarn_alloc_buf buffer stored in
    // `request->text`: 0, or 5 with `text` unchanged.
    static std::int32_t handOver(const std::u16string& text, tarn_config_request* request);

    bool quiesceConfigured_ = false;
    bool cacheConfigured_ = false;
    bool splitConfigured_ = false;
    bool autoPrepare_ = false;
    std::vector<ConfigKeyDescriptor> splitKeys_;
    std::vector<ConfigKeyDescriptor> quiesceKeys_;
    std::vector<ConfigKeyDescriptor> cacheKeys_;
    std::vector<std::u16string> quiesceEntries_;
    std::vector<std::u16string> cacheEntries_;
    std::vector<std::u16string> splitEntries_;
    std::u16string quiesceText_;
    std::u16string cacheText_;
    std::u16string splitText_;
    std::u16string quiesceInfo_;
    std::u16string infoDocument_;
};

// Reads `text` as formatted stream extraction reads an unsigned 32-bit decimal
// integer: leading white space (blank, tab, line feed, vertical tab, form feed,
// carriage return) is skipped, an optional sign and the digits up to the first
// other character are read, and the rest is ignored ("50%" reads 50). A minus
// sign negates modulo 2^32 as that extraction does ("-5" reads 4294967291).
// No digit, or a magnitude above 4294967295, is a failed extraction: false,
// and `field` keeps its value.
bool extractUnsigned32(std::u16string_view text, std::uint32_t& field);
bool extractUnsigned32(std::string_view text, std::uint32_t& field);

#endif  // PROVIDERS_KIV_KIVCONFIG_KIVCONFIG_H_
