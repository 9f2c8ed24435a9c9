// Fuzzes a node configuration with a byte-driven sequence of the host's
// requests (set, update, get, information, clear) for the group object and a
// volume, and of the readers the node uses. Checks after every step that
// refused requests and get change nothing, that answers stay within their
// codes, that the readers agree with what the groups hold, and that every
// buffer handed to the host is exactly 2 x (length + 1) bytes.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"
#include "kiv/kivconfig/kivconfig.h"
#include "kiv/kivficoordinator.h"
#include "tarn/tarnutil.h"

namespace {

using fuzzsupport::check;

// Pieces from which documents are put together, so that short inputs reach
// deep into the grammar and the key table.
constexpr const char16_t* kPieces[] = {
    u"<SET_CONFIG_INFO_LIST>",
    u"<SET_CONFIG_INFO",
    u"/>",
    u"</SET_CONFIG_INFO_LIST>",
    u"key=",
    u"value=",
    u"cs_flags",
    u"TARN_CFS_AUTO_PREP",
    u"TARN_CFS_SELECT_PREP",
    u";",
    u"quiesceWait",
    u"quiesceTimeout",
    u"snapshotVolumeName",
    u"cacheFileName",
    u"initialCacheFileSize",
    u"maximumCacheFileSize",
    u"cachefileAllowedVolumes",
    u"cachefileDisallowedVolumes",
    u"cachefileInitSizeinMB",
    u"cachefileMaxSizeInMB",
    u"cachefileInitSizePercentage",
    u"cachefileMaxSizePercentage",
    u"cachefileDir",
    u"10",
    u"-5",
    u"4294967296",
    u"50%",
    u"g:\\,,f:\\,",
    u"\t",
    u"=",
    u"",
    u"x",
};

class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool empty() const { return at_ >= size_; }
    std::uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
    std::uint32_t number() {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            value = (value << 8) | byte();
        }
        return value;
    }
    // Either up to 1023 bytes of raw text or a document of up to 23 pieces.
    std::u16string text() {
        std::uint8_t mode = byte();
        std::size_t length = byte();
        length |= static_cast<std::size_t>(byte() & 0x03) << 8;
        if ((mode & 1) == 0) {
            std::size_t take = std::min(length, size_ - std::min(at_, size_));
            std::u16string raw = fuzzsupport::decode(data_ + std::min(at_, size_), take);
            at_ += take;
            return raw;
        }
        std::u16string document;
        for (std::size_t i = 0; i < length % 24; ++i) {
            std::uint8_t choice = byte();
            document += kPieces[choice % std::size(kPieces)];
            // Mostly blanks between pieces, sometimes none.
            if ((choice & 0x80) == 0) {
                document += u' ';
            }
        }
        return document;
    }
    // Printable ASCII, so names survive the trip through UTF-8 unchanged.
    std::string name() {
        std::string value(byte() % 12, ' ');
        for (char& c : value) {
            c = static_cast<char>(' ' + byte() % 95);
        }
        return value;
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

enum class Target { kGroup, kVolume };

tarn_node& record(Target target) {
    static tarn_node group = [] {
        tarn_node node{};
        node.objid = makeObjid(u"kiv-cow-snapshot-group");
        return node;
    }();
    static tarn_node volume = [] {
        tarn_node node{};
        node.objid = makeObjid(u"<kiv>E:\\");
        return node;
    }();
    return target == Target::kGroup ? group : volume;
}

tarn_config_request request(std::uint8_t selector, const char16_t* text) {
    tarn_config_request r{};
    r.split_selector = (selector & 1) != 0 ? 1 : 0;
    r.quiesce_selector = (selector & 2) != 0 ? 0x8000000000000000ull : 0;
    r.text = const_cast<char16_t*>(text);
    return r;
}

constexpr char16_t kSentinel[] = u"<sentinel>";

// Takes over what the configuration handed to the host.
std::u16string take(tarn_config_request& r) {
    if (r.text == nullptr) {
        return u"<null>";
    }
    if (r.text == kSentinel) {
        return kSentinel;
    }
    std::u16string text(r.text);
    tarn_free_buf(r.text, 2 * (text.size() + 1));
    return text;
}

struct State {
    std::vector<std::u16string> quiesce, cache, split;
    bool autoPrepare;
    std::u16string groupQuiesce, groupCache, volumeSplit;
    bool operator==(const State&) const = default;
};

std::u16string getText(KivConfig& config, Target target, std::uint8_t selector) {
    tarn_config_request r = request(selector, kSentinel);
    check(config.get(&record(target), nullptr, &r) == 0, "get answers 0");
    return take(r);
}

State snapshot(KivConfig& config) {
    return State{config.quiesceEntries(),
                 config.cacheEntries(),
                 config.splitEntries(),
                 config.isAutoPrepare(),
                 getText(config, Target::kGroup, 2),
                 getText(config, Target::kGroup, 1),
                 getText(config, Target::kVolume, 1)};
}

void storeStep(KivConfig& config, Input& input, bool isSet) {
    Target target = (input.byte() & 1) != 0 ? Target::kGroup : Target::kVolume;
    std::uint8_t selector = input.byte() % 4;
    std::u16string text = input.text();
    bool nullText = (input.byte() & 0x0F) == 0;
    tarn_config_request r = request(selector, nullText ? nullptr : text.c_str());
    State before = snapshot(config);
    std::int32_t result =
        isSet ? config.set(&record(target), nullptr, &r) : config.update(&record(target), &r);
    check(result == 0 || result == 3, "set and update answer 0 or 3");
    check(r.text == (nullText ? nullptr : text.c_str()), "the request text stays");
    State after = snapshot(config);
    if (result == 3) {
        check(after == before, "a refused request changes nothing");
    }
    if (isSet) {
        bool configured = target == Target::kVolume ? before.volumeSplit != kSentinel
                          : selector == 2           ? before.groupQuiesce != kSentinel
                          : selector == 1           ? before.groupCache != kSentinel
                                                    : false;
        check(!configured || result == 3, "set of a configured group is refused");
    }
    if (result == 0 && target == Target::kVolume && selector == 2) {
        check(after == before, "a volume keeps no quiesce settings");
    }
}

void infoStep(KivConfig& config, Input& input) {
    Target target = (input.byte() & 1) != 0 ? Target::kGroup : Target::kVolume;
    std::uint8_t selector = input.byte() % 4;
    tarn_config_request r = request(selector, kSentinel);
    State before = snapshot(config);
    std::int32_t result = config.getConfigInfo(&record(target), nullptr, &r);
    std::u16string text = take(r);
    check(snapshot(config) == before, "an information request changes no setting");
    if (selector == 0 || selector == 3) {
        check(result == 3 && text == kSentinel, "no group: 3 and text untouched");
        return;
    }
    check(result == 0, "a group's information is handed over");
    if (target == Target::kVolume && selector == 2) {
        check(text == u"<null>", "a volume has no quiesce information");
        return;
    }
    check(
        text.starts_with(u"<GET_CONFIG_INFO_LIST> ") && text.ends_with(u"</GET_CONFIG_INFO_LIST> "),
        "an information document is a list");
}

void readersStep(KivConfig& config) {
    const std::size_t quiesceCount = config.quiesceEntries().size();
    const std::size_t splitCount = config.splitEntries().size();
    QuiesceConfig quiesce = config.getQuiesceConfig();
    if (config.isValidQuiesceConfig()) {
        check(quiesceCount == 2, "valid quiesce settings are two entries");
    }
    if (quiesceCount != 2) {
        check(quiesce.quiesceWait == 0 && quiesce.quiesceTimeout == 0,
              "incomplete quiesce settings read as defaults");
    }
    SplitConfig split = config.getSplitConfig();
    if (config.isValidNodeSplitConfig() && !config.isAutoPrepare()) {
        check(splitCount == 4, "valid selected split settings are four entries");
    }
    if (splitCount != 4) {
        check(split.snapshotVolumeName.empty() && split.cacheFileName.empty() &&
                  split.initialCacheFileSize == 0 && split.maximumCacheFileSize == 0,
              "incomplete split settings read as defaults");
    }
    CacheFileHints hints = config.getCacheFileHints();
    if (config.cacheEntries().size() > config.cacheKeys().size()) {
        check(hints.preferredVolumes.empty() && hints.excludedVolumes.empty() &&
                  hints.cacheFileDir.empty() && hints.initialCacheFileSizeMB == 0 &&
                  hints.maxCacheFileSizeMB == 0 && hints.initialCacheFileSizePct == 0 &&
                  hints.maxCacheFileSizePct == 0,
              "more cache entries than keys read as defaults");
    }
    for (const auto* list : {&hints.preferredVolumes, &hints.excludedVolumes}) {
        for (const std::u16string& item : *list) {
            constexpr std::u16string_view kSeparators = u" \t\n,";
            check(!item.empty() && kSeparators.find(item.front()) == std::u16string_view::npos &&
                      kSeparators.find(item.back()) == std::u16string_view::npos,
                  "volume list items are trimmed and not empty");
        }
    }
}

void autoStep(KivConfig& config, Input& input) {
    SplitConfig values;
    values.snapshotVolumeName = input.name();
    values.cacheFileName = input.name();
    values.initialCacheFileSize = input.number();
    values.maximumCacheFileSize = input.number();
    bool expected = config.isAutoPrepare() && config.splitEntries().empty();
    State before = snapshot(config);
    bool stored = config.setAutoSplitConfig(values);
    check(stored == expected, "automatic values are stored once, in automatic mode only");
    if (!stored) {
        check(snapshot(config) == before, "refused automatic values change nothing");
        return;
    }
    const std::vector<std::u16string>& entries = config.splitEntries();
    check(entries.size() == 4 && entries[0].starts_with(u"cacheFileName=") &&
              entries[1].starts_with(u"initialCacheFileSize=") &&
              entries[2].starts_with(u"maximumCacheFileSize=") &&
              entries[3].starts_with(u"snapshotVolumeName="),
          "automatic entries in their order");
    SplitConfig read = config.getSplitConfig();
    check(read.snapshotVolumeName == values.snapshotVolumeName &&
              read.cacheFileName == values.cacheFileName &&
              read.initialCacheFileSize == values.initialCacheFileSize &&
              read.maximumCacheFileSize == values.maximumCacheFileSize,
          "automatic values read back");
    check(config.isValidNodeSplitConfig() ==
              (!values.snapshotVolumeName.empty() && !values.cacheFileName.empty()),
          "automatic values are valid when the names are not empty");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // The group object's identity comes from the coordinator.
    KivFiCoordinator::instance();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::uint64_t outstandingBefore = 0;
    std::uint64_t faultsBefore = 0;
    tarn_test_buffer_stats(&outstandingBefore, &faultsBefore);
    {
        KivConfig config;
        Input input(data, size);
        for (int step = 0; step < 64 && !input.empty(); ++step) {
            switch (input.byte() % 8) {
                case 0:
                    storeStep(config, input, /*isSet=*/true);
                    break;
                case 1:
                    storeStep(config, input, /*isSet=*/false);
                    break;
                case 2: {
                    Target target = (input.byte() & 1) != 0 ? Target::kGroup : Target::kVolume;
                    std::uint8_t selector = input.byte() % 4;
                    State before = snapshot(config);
                    std::u16string text = getText(config, target, selector);
                    check(snapshot(config) == before, "get changes nothing");
                    if (selector == 0 || selector == 3) {
                        check(text == kSentinel, "get without a group leaves the text");
                    }
                    break;
                }
                case 3:
                    infoStep(config, input);
                    break;
                case 4:
                    switch (input.byte() % 4) {
                        case 0:
                            config.clearQuiesceConfig();
                            check(config.quiesceEntries().empty(), "quiesce cleared");
                            break;
                        case 1:
                            config.clearCacheConfig();
                            check(config.cacheEntries().empty(), "cache cleared");
                            break;
                        case 2:
                            config.clearSplitConfig();
                            check(config.splitEntries().empty() && !config.isAutoPrepare(),
                                  "split cleared");
                            break;
                        default:
                            config.clearAll();
                            check(snapshot(config) ==
                                      State{{}, {}, {}, false, kSentinel, kSentinel, kSentinel},
                                  "everything cleared");
                            break;
                    }
                    break;
                case 5:
                case 6:
                    readersStep(config);
                    break;
                default:
                    autoStep(config, input);
                    break;
            }
        }
    }
    std::uint64_t outstanding = 0;
    std::uint64_t faults = 0;
    tarn_test_buffer_stats(&outstanding, &faults);
    check(outstanding == outstandingBefore, "every handed-over buffer was taken back");
    check(faults == faultsBefore, "every buffer is 2 x (length + 1) bytes");
    return 0;
}
