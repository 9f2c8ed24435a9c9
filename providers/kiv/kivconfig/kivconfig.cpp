// The configuration object: key table, set, get, update and clear, the cache
// placement request and the reading of list and number values.
#include "kiv/kivconfig/kivconfig.h"

#include <cstring>
#include <utility>

#include "fiprovlib/TraceMethod.h"
#include "kiv/kivconfig/setconfiginfo.h"
#include "kiv/kivficoordinator.h"
#include "tarn/msgcatalog.h"
#include "tarn/tarnutil.h"

namespace {

const char16_t kSource[] = u"providers\\kiv\\kivconfig";

constexpr std::u16string_view kAutoPrep = u"TARN_CFS_AUTO_PREP";
constexpr std::u16string_view kSelectPrep = u"TARN_CFS_SELECT_PREP";

// Separators around the items of a volume list.
constexpr std::u16string_view kListSeparators = u" \t\n,";

struct KeyTableRow {
    const char16_t* prefix;
    const char* helpId;  // null: the key has no help text
    const char16_t* info;
};

// Each group in the order of its information document; readers try the keys
// in this order too.
constexpr KeyTableRow kSplitTable[] = {
    {u"snapshotVolumeName=", "MSG_CFGHELPTEXT_SNAPSHOTVOLUMENAME",
     u"key=snapshotVolumeName  type=SELECT value_type=wstring "
     u"value_selection_list=<name_of_snapshotvolume>"},
    {u"cacheFileName=", "MSG_CFGHELPTXT_CACHEFILENAME",
     u"key=cacheFileName type=SELECT value_type=wstring value_selection_list=<name_of_cachefile>"},
    {u"initialCacheFileSize=", "MSG_CFGHELPTXT_INITIALCACHEFILESIZE",
     u"key=initialCacheFileSize type=range value_range_min=0"},
    {u"maximumCacheFileSize=", "MSG_CFGHELPTXT_MAXCACHEFILESIZE",
     u"key=maximumCacheFileSize type=range value_range_min=0"},
};

constexpr KeyTableRow kQuiesceTable[] = {
    {u"quiesceWait=", "MSG_CFGHELPTXT_QUIESCEWAITTIME",
     u"key=quiesceWait type=range value_range_min=0"},
    {u"quiesceTimeout=", "MSG_CFGHELPTXT_QUIESCETIMEOUT",
     u"key=quiesceTimeout type=range value_range_min=0"},
};

constexpr KeyTableRow kCacheTable[] = {
    {u"cachefileAllowedVolumes=", "MSG_CFGHELPTXT_CACHEFILEALLOWEDVOLS",
     u"key=cachefileAllowedVolumes type=SELECT value_type=wstring "
     u"value_selection_list=<comma_delimited_drive_letter_eg.-g:\\,f:\\,etc.>"},
    {u"cachefileDisallowedVolumes=", "MSG_CFGHELPTXT_CACHEFILEEXCLUDEDVOLS",
     u"key=cachefileDisallowedVolumes type=SELECT value_type=wstring "
     u"value_selection_list=<comma_delimited_drive_letter_eg.-g:\\,f:\\,etc.>"},
    {u"cachefileInitSizeinMB=", "MSG_CFGHELPTXT_CACHEFILEINITSIZEMB",
     u"key=cachefileInitSizeinMB type=range value_range_min=0"},
    {u"cachefileMaxSizeInMB=", "MSG_CFGHELPTXT_CACHEFILEMAXSIZEMB",
     u"key=cachefileMaxSizeInMB type=range value_range_min=0"},
    {u"cachefileInitSizePercentage=", "MSG_CFGHELPTXT_CACHEFILEINITSIZEPCT",
     u"key=cachefileInitSizePercentage type=range value_range_min=0 value_range_max=100"},
    {u"cachefileMaxSizePercentage=", "MSG_CFGHELPTXT_CACHEFILEMAXSIZEPCT",
     u"key=cachefileMaxSizePercentage type=range value_range_min=0 value_range_max=100"},
    {u"cachefileDir=", nullptr,
     u"key=cachefileDir type=SELECT value_type=wstring value_selection_list=<name_of_directory>"},
};

// Positions in kCacheTable.
enum CacheKey : int {
    kAllowedVolumes,
    kDisallowedVolumes,
    kInitSizeMB,
    kMaxSizeMB,
    kInitSizePct,
    kMaxSizePct,
    kCacheDir,
};

template <std::size_t N>
std::vector<ConfigKeyDescriptor> buildKeys(const KeyTableRow (&table)[N]) {
    tarp_MsgCatalog* catalogue = activeCatalogue();
    std::vector<ConfigKeyDescriptor> keys;
    keys.reserve(N);
    for (const KeyTableRow& row : table) {
        const char16_t* helpText = nullptr;
        if (catalogue != nullptr && row.helpId != nullptr) {
            helpText = catalogue->getCachedMsg(row.helpId, false);
        }
        keys.push_back({row.prefix, helpText, row.info});
    }
    return keys;
}

// The identity of the provider's group object. The only place where the
// configuration depends on the coordinator.
const tarn_objid* groupIdentity() {
    return KivFiCoordinator::instance().groupObjid();
}

enum class Selector { kNone, kSplit, kQuiesce };

// Exactly one of the two selector words must be set.
Selector selectorOf(const tarn_config_request& request) {
    if (request.split_selector != 0 && request.quiesce_selector == 0) {
        return Selector::kSplit;
    }
    if (request.split_selector == 0 && request.quiesce_selector != 0) {
        return Selector::kQuiesce;
    }
    return Selector::kNone;
}

// Parses `document` and, when it is well formed and the group may take it,
// appends its entries to the group and makes it the group's text.
std::int32_t storeDocument(bool& configured, std::vector<std::u16string>& entries,
                           std::u16string& groupText, const char16_t* document,
                           bool refuseConfigured) {
    if (refuseConfigured && configured) {
        return kTarnInvalidRequest;
    }
    std::vector<std::u16string> parsed;
    if (parseSetConfigInfo(document, parsed) != kTarnSuccess) {
        return kTarnInvalidRequest;
    }
    // Everything that may throw comes first, so that a failure leaves the
    // group as it was.
    std::u16string newText(document);
    entries.reserve(entries.size() + parsed.size());
    for (std::u16string& entry : parsed) {
        entries.push_back(std::move(entry));
    }
    groupText.swap(newText);
    configured = true;
    return kTarnSuccess;
}

bool isWhiteSpace(char32_t c) {
    return c == U' ' || c == U'\t' || c == U'\n' || c == U'\v' || c == U'\f' || c == U'\r';
}

template <typename Char>
bool extract(std::basic_string_view<Char> text, std::uint32_t& field) {
    std::size_t at = 0;
    while (at < text.size() && isWhiteSpace(static_cast<char32_t>(text[at]))) {
        ++at;
    }
    bool negative = false;
    if (at < text.size() && (text[at] == Char('+') || text[at] == Char('-'))) {
        negative = text[at] == Char('-');
        ++at;
    }
    std::uint64_t magnitude = 0;
    bool anyDigit = false;
    bool overflow = false;
    for (; at < text.size() && text[at] >= Char('0') && text[at] <= Char('9'); ++at) {
        anyDigit = true;
        magnitude = magnitude * 10 + static_cast<std::uint64_t>(text[at] - Char('0'));
        if (magnitude > 0xFFFFFFFFull) {
            // All further digits still belong to the number, which is too
            // large however it goes on.
            overflow = true;
            magnitude = 0xFFFFFFFFull + 1;
        }
    }
    if (!anyDigit || overflow) {
        return false;
    }
    auto value = static_cast<std::uint32_t>(magnitude);
    field = negative ? 0u - value : value;
    return true;
}

}  // namespace

bool extractUnsigned32(std::u16string_view text, std::uint32_t& field) {
    return extract(text, field);
}

bool extractUnsigned32(std::string_view text, std::uint32_t& field) {
    return extract(text, field);
}

KivConfig::KivConfig()
    : splitKeys_(buildKeys(kSplitTable)),
      quiesceKeys_(buildKeys(kQuiesceTable)),
      cacheKeys_(buildKeys(kCacheTable)) {}

KivConfig::~KivConfig() {
    clearAll();
}

bool KivConfig::isGroupRequest(const tarn_node* record) {
    if (record == nullptr) {
        return false;
    }
    return tarn_objidcmp(record->objid, groupIdentity()) == 0;
}

std::int32_t KivConfig::store(tarn_node* record, tarn_config_request* request,
                              bool refuseConfigured) {
    if (request == nullptr) {
        return kTarnInvalidRequest;
    }
    Selector selector = selectorOf(*request);
    if (isGroupRequest(record)) {
        switch (selector) {
            case Selector::kQuiesce:
                return storeDocument(quiesceConfigured_, quiesceEntries_, quiesceText_,
                                     request->text, refuseConfigured);
            case Selector::kSplit:
                return storeDocument(cacheConfigured_, cacheEntries_, cacheText_, request->text,
                                     refuseConfigured);
            default:
                return kTarnInvalidRequest;
        }
    }
    // A volume request is refused once the split group is set, even one that
    // would store nothing.
    if (refuseConfigured && splitConfigured_) {
        return kTarnInvalidRequest;
    }
    switch (selector) {
        case Selector::kQuiesce:
            return kTarnSuccess;  // volume nodes keep no quiesce settings
        case Selector::kSplit:
            break;
        default:
            return kTarnInvalidRequest;
    }
    if (request->text == nullptr) {
        return kTarnInvalidRequest;
    }
    std::u16string_view text(request->text);
    // The automatic mode wins when a text names both.
    if (text.find(kAutoPrep) != std::u16string_view::npos) {
        // The values are computed during preparation; the text is kept as sent.
        splitText_.assign(text);
        splitConfigured_ = true;
        autoPrepare_ = true;
        return kTarnSuccess;
    }
    if (text.find(kSelectPrep) == std::u16string_view::npos) {
        return kTarnInvalidRequest;
    }
    return storeDocument(splitConfigured_, splitEntries_, splitText_, request->text,
                         /*refuseConfigured=*/false);
}

std::int32_t KivConfig::set(tarn_node* record, void* /*argument*/, tarn_config_request* request) {
    TARP_TRACE_METHOD(kSource, u"KivConfig::set");
    return store(record, request, /*refuseConfigured=*/true);
}

std::int32_t KivConfig::update(tarn_node* record, tarn_config_request* request) {
    return store(record, request, /*refuseConfigured=*/false);
}

std::int32_t KivConfig::get(tarn_node* record, void* /*argument*/, tarn_config_request* request) {
    TARP_TRACE_METHOD(kSource, u"KivConfig::get");
    if (request == nullptr) {
        return kTarnSuccess;
    }
    Selector selector = selectorOf(*request);
    if (isGroupRequest(record)) {
        if (selector == Selector::kQuiesce && quiesceConfigured_) {
            return handOver(quiesceText_, request);
        }
        if (selector == Selector::kSplit && cacheConfigured_) {
            return handOver(cacheText_, request);
        }
        return kTarnSuccess;
    }
    if (selector == Selector::kSplit && splitConfigured_ && !splitText_.empty()) {
        return handOver(splitText_, request);
    }
    if (selector == Selector::kQuiesce) {
        request->text = nullptr;
    }
    return kTarnSuccess;
}

std::int32_t KivConfig::handOver(const std::u16string& text, tarn_config_request* request) {
    std::uint64_t bytes = 2 * (static_cast<std::uint64_t>(text.size()) + 1);
    auto* buffer = static_cast<char16_t*>(tarn_alloc_buf(bytes));
    if (buffer == nullptr) {
        return kTarnOutOfMemory;
    }
    std::memcpy(buffer, text.data(), text.size() * sizeof(char16_t));
    buffer[text.size()] = u'\0';
    request->text = buffer;
    return kTarnSuccess;
}

void KivConfig::clearQuiesceConfig() {
    quiesceConfigured_ = false;
    quiesceEntries_.clear();
    quiesceText_.clear();
}

void KivConfig::clearCacheConfig() {
    cacheConfigured_ = false;
    cacheEntries_.clear();
    cacheText_.clear();
}

void KivConfig::clearSplitConfig() {
    splitConfigured_ = false;
    autoPrepare_ = false;
    splitEntries_.clear();
    splitText_.clear();
}

void KivConfig::clearAll() {
    clearQuiesceConfig();
    clearCacheConfig();
    clearSplitConfig();
}

int KivConfig::keyOf(const std::vector<ConfigKeyDescriptor>& keys, std::u16string_view entry) {
    for (std::size_t index = 0; index < keys.size(); ++index) {
        std::u16string_view prefix(keys[index].prefix);
        if (entry.starts_with(prefix)) {
            // Prefixes end in "=", so no entry matches two keys of a group;
            // one without a value counts for none.
            return entry.size() > prefix.size() ? static_cast<int>(index) : -1;
        }
    }
    return -1;
}

CacheFileHints KivConfig::getCacheFileHints() const {
    CacheFileHints hints;
    if (!cacheConfigured_ || cacheEntries_.size() > cacheKeys_.size()) {
        return hints;
    }
    for (const std::u16string& entry : cacheEntries_) {
        int key = keyOf(cacheKeys_, entry);
        if (key < 0) {
            continue;
        }
        std::u16string_view value = std::u16string_view(entry).substr(
            std::char_traits<char16_t>::length(cacheKeys_[key].prefix));
        switch (key) {
            case kAllowedVolumes:
                splitVolumeList(value, hints.preferredVolumes);
                break;
            case kDisallowedVolumes:
                splitVolumeList(value, hints.excludedVolumes);
                break;
            case kInitSizeMB:
                extractUnsigned32(value, hints.initialCacheFileSizeMB);
                break;
            case kMaxSizeMB:
                extractUnsigned32(value, hints.maxCacheFileSizeMB);
                break;
            case kInitSizePct:
                extractUnsigned32(value, hints.initialCacheFileSizePct);
                break;
            case kMaxSizePct:
                extractUnsigned32(value, hints.maxCacheFileSizePct);
                break;
            case kCacheDir:
                hints.cacheFileDir.assign(value);
                break;
            default:
                break;
        }
    }
    return hints;
}

void KivConfig::splitVolumeList(std::u16string_view value, std::vector<std::u16string>& out) {
    for (;;) {
        std::size_t comma = value.find(u',');
        std::u16string_view piece = trimSeparators(value.substr(0, comma), kListSeparators);
        if (!piece.empty()) {
            out.emplace_back(piece);
        }
        if (comma == std::u16string_view::npos) {
            return;
        }
        value.remove_prefix(comma + 1);
    }
}

std::u16string_view KivConfig::trimSeparators(std::u16string_view text,
                                              std::u16string_view separators) {
    std::size_t last = text.find_last_not_of(separators);
    if (last == std::u16string_view::npos) {
        return {};
    }
    text = text.substr(0, last + 1);
    return text.substr(text.find_first_not_of(separators));
}
