// The typed readers of the quiesce and split groups, their validation before a
// snapshot, and the storing of split values computed during preparation.
#include "kiv/kivconfig/splitconfig.h"

#include <string_view>

#include "fiprovlib/TraceMethod.h"
#include "kiv/kivconfig/kivconfig.h"
#include "os/codepage.h"
#include "string_helper.h"

namespace {

const char16_t kSource[] = u"providers\\kiv\\kivconfig";

// Positions in the quiesce and split key lists.
enum QuiesceKey : int { kQuiesceWait, kQuiesceTimeout };
enum SplitKey : int {
    kSnapshotVolumeName,
    kCacheFileName,
    kInitialCacheFileSize,
    kMaximumCacheFileSize,
};

std::u16string_view valueOf(const std::u16string& entry, const ConfigKeyDescriptor& key) {
    return std::u16string_view(entry).substr(std::char_traits<char16_t>::length(key.prefix));
}

// Numbers of the quiesce and split groups are read from their UTF-8 form.
void readNumber(std::u16string_view value, std::uint32_t& field) {
    extractUnsigned32(toNarrow(value, os::CP_UTF8), field);
}

}  // namespace

bool KivConfig::isValidQuiesceConfig() const {
    TARP_TRACE_METHOD(kSource, u"KivConfig::isValidQuiesceConfig");
    if (!quiesceConfigured_ || quiesceEntries_.size() != quiesceKeys_.size()) {
        return false;
    }
    bool counted[2] = {false, false};
    for (const std::u16string& entry : quiesceEntries_) {
        int key = keyOf(quiesceKeys_, entry);
        if (key >= 0) {
            counted[key] = true;
        }
    }
    return counted[kQuiesceWait] && counted[kQuiesceTimeout];
}

QuiesceConfig KivConfig::getQuiesceConfig() const {
    TARP_TRACE_METHOD(kSource, u"KivConfig::getQuiesceConfig");
    QuiesceConfig values;
    if (!quiesceConfigured_ || quiesceEntries_.size() != quiesceKeys_.size()) {
        return values;
    }
    for (const std::u16string& entry : quiesceEntries_) {
        int key = keyOf(quiesceKeys_, entry);
        if (key == kQuiesceWait) {
            readNumber(valueOf(entry, quiesceKeys_[key]), values.quiesceWait);
        } else if (key == kQuiesceTimeout) {
            readNumber(valueOf(entry, quiesceKeys_[key]), values.quiesceTimeout);
        }
    }
    return values;
}

bool KivConfig::isValidNodeSplitConfig() const {
    TARP_TRACE_METHOD(kSource, u"KivConfig::isValidNodeSplitConfig");
    if (!splitConfigured_) {
        return false;
    }
    // In automatic preparation the values come later, so a node is valid
    // before they are stored; in the selected mode a missing or extra entry
    // makes it invalid.
    if (splitEntries_.size() != splitKeys_.size()) {
        return autoPrepare_;
    }
    bool counted[4] = {false, false, false, false};
    for (const std::u16string& entry : splitEntries_) {
        int key = keyOf(splitKeys_, entry);
        if (key >= 0) {
            counted[key] = true;
        }
    }
    return counted[kSnapshotVolumeName] && counted[kCacheFileName] &&
           counted[kInitialCacheFileSize] && counted[kMaximumCacheFileSize];
}

SplitConfig KivConfig::getSplitConfig() const {
    TARP_TRACE_METHOD(kSource, u"KivConfig::getSplitConfig");
    SplitConfig values;
    if (!splitConfigured_ || splitEntries_.size() != splitKeys_.size()) {
        return values;
    }
    for (const std::u16string& entry : splitEntries_) {
        int key = keyOf(splitKeys_, entry);
        if (key < 0) {
            continue;
        }
        std::u16string_view value = valueOf(entry, splitKeys_[key]);
        switch (key) {
            case kSnapshotVolumeName:
                values.snapshotVolumeName = toNarrow(value, os::CP_UTF8);
                break;
            case kCacheFileName:
                values.cacheFileName = toNarrow(value, os::CP_UTF8);
                break;
            case kInitialCacheFileSize:
                readNumber(value, values.initialCacheFileSize);
                break;
            case kMaximumCacheFileSize:
                readNumber(value, values.maximumCacheFileSize);
                break;
            default:
                break;
        }
    }
    return values;
}

bool KivConfig::setAutoSplitConfig(SplitConfig values) {
    // Values computed once are kept until the split group is cleared, also
    // when preparation runs again.
    if (!autoPrepare_ || !splitEntries_.empty()) {
        return false;
    }
    auto decimal = [](std::uint32_t number) {
        std::string digits = std::to_string(number);
        return std::u16string(digits.begin(), digits.end());
    };
    std::vector<std::u16string> entries;
    entries.reserve(4);
    entries.push_back(splitKeys_[kCacheFileName].prefix +
                      toWide(values.cacheFileName, os::CP_UTF8));
    entries.push_back(splitKeys_[kInitialCacheFileSize].prefix +
                      decimal(values.initialCacheFileSize));
    entries.push_back(splitKeys_[kMaximumCacheFileSize].prefix +
                      decimal(values.maximumCacheFileSize));
    entries.push_back(splitKeys_[kSnapshotVolumeName].prefix +
                      toWide(values.snapshotVolumeName, os::CP_UTF8));
    splitEntries_.swap(entries);
    return true;
}
