#include "kiv/kivprepare.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "fiprovlib/TraceMethod.h"
#include "fiprovlib/volumeiterator/volumeiterator.h"
#include "kiv/cachefile/cachefileplacement.h"
#include "kiv/cachefile/providermutex.h"
#include "kiv/kivficoordinator.h"
#include "kiv/kivnode.h"
#include "kiv/kivvolume.h"
#include "kiv/nodereport.h"
#include "os/codepage.h"
#include "os/sync.h"
#include "os/version.h"
#include "string_helper.h"
#include "strings/bounded_string.h"

namespace {

const char16_t kSource[] = u"providers\\kiv\\kivnode";
constexpr std::uint32_t kRefusedMode = 2;
constexpr std::uint16_t kParametersSize = 40;

// The state of snapshot volume name generation, created on first use and
// shared by every node of the process.
struct NameGeneration {
    os::CRITICAL_SECTION section;
    bool majorVersionChecked = false;
    bool isMajorVersion4 = false;
    std::uint32_t counter = 0;

    NameGeneration() { os::InitializeCriticalSectionAndSpinCount(&section, /*spinCount=*/4000); }
    ~NameGeneration() { os::DeleteCriticalSection(&section); }
    NameGeneration(const NameGeneration&) = delete;
    NameGeneration& operator=(const NameGeneration&) = delete;
};

NameGeneration& nameGeneration() {
    static NameGeneration state;
    return state;
}

class SectionLock {
  public:
    explicit SectionLock(os::CRITICAL_SECTION* section) : section_(section) {
        os::EnterCriticalSection(section_);
    }
    ~SectionLock() { os::LeaveCriticalSection(section_); }
    SectionLock(const SectionLock&) = delete;
    SectionLock& operator=(const SectionLock&) = delete;

  private:
    os::CRITICAL_SECTION* section_;
};

// The sources of a prepare or make: the list when it has entries, else the
// entry alone.
std::vector<tarn_fi_entry*> sourcesOf(tarn_fi_entry* entry, tarn_fi_entry** list,
                                      std::uint32_t count) {
    if (list != nullptr && count != 0) {
        return std::vector<tarn_fi_entry*>(list, list + count);
    }
    return {entry};
}

tarn_node* nodeRecordOf(const tarn_fi_entry* entry) {
    return entry != nullptr ? entry->node : nullptr;
}

// Widens a narrow line as the C library does in the process's locale. Where
// the locale cannot read the bytes, each byte becomes the character of the
// same value, as in the "C" locale of the system this product came from.
std::u16string widenLine(const std::string& line) {
    std::u16string result;
    std::size_t needed = std::mbstowcs(nullptr, line.c_str(), 0);
    if (needed == static_cast<std::size_t>(-1)) {
        for (unsigned char byte : line) {
            result.push_back(static_cast<char16_t>(byte));
        }
        return result;
    }
    std::wstring wide(needed + 1, L'\0');
    std::mbstowcs(wide.data(), line.c_str(), needed + 1);
    wide.resize(needed);
    for (wchar_t character : wide) {
        // mbstowcs gives code points, never negative.
        auto code = static_cast<std::uint32_t>(character);  // NOLINT(bugprone-signed-char-misuse)
        if (code > 0xFFFF) {
            code -= 0x10000;
            result.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
            result.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
        } else {
            result.push_back(static_cast<char16_t>(code));
        }
    }
    return result;
}

// "<volume path>\rest" of a cache file path, its volume part shown as a drive
// root or mount point where the machine has one.
std::string displayCacheFileName(const char* cacheFileName) {
    std::u16string path = toWide(cacheFileName != nullptr ? cacheFileName : "", os::CP_UTF8);
    std::size_t slash = path.rfind(u'\\');
    if (slash == std::u16string::npos) {
        return toNarrow(path, os::CP_UTF8);
    }
    std::u16string volume = path.substr(0, slash + 1);
    replaceByVolumePath(volume);
    return toNarrow(volume + path.substr(slash + 1), os::CP_UTF8);
}

std::string displaySourceName(const std::u16string& sourceName) {
    std::u16string name = sourceName;
    stripKivTag(name);
    name += u'\\';
    replaceByVolumePath(name);
    return toNarrow(name, os::CP_UTF8);
}

}  // namespace

void sendLineToHost(const std::string& line, std::uint32_t level) {
    tarn_context* context = KivFiCoordinator::instance().frameworkContext();
    if (context == nullptr || context->msg_callback == nullptr) {
        return;
    }
    std::u16string text = widenLine(line);
    context->msg_callback(context, text.c_str(), nullptr, level);
}

std::string generateSnapshotVolumeName(KivApi* api) {
    NameGeneration& state = nameGeneration();
    SectionLock lock(&state.section);
    if (!state.majorVersionChecked) {
        os::OSVERSIONINFOW version{};
        version.dwOSVersionInfoSize = sizeof(version);
        os::GetVersionExW(&version);
        state.isMajorVersion4 = version.dwMajorVersion == 4;
        state.majorVersionChecked = true;
    }
    if (state.isMajorVersion4) {
        for (;;) {
            std::string candidate = "\\\\.\\Snap" + std::to_string(state.counter++) + ":";
            KivHandle probe = kInvalidKivHandle;
            std::uint32_t status = KIV_Open(api, candidate.c_str(), /*access=*/3, /*flags=*/128,
                                            /*a=*/0, /*b=*/0, &probe);
            if (status != 0 || !isValidKivHandle(probe)) {
                return candidate;
            }
            KIV_Close(api, &probe);
        }
    }
    char* text = nullptr;
    std::uint32_t status = KIV_GenerateVolumeName(api, /*kind=*/2, &text);
    std::string name;
    if (status != 0) {
        reportNodeMessage("MSG_ERROR_KIVAPI_2",
                          {textArgument(u"KIV_generateVolumeName"), numberArgument(status)});
    } else if (text != nullptr) {
        name = std::string("\\\\?\\") + text;
    }
    KIV_FreeResource(api, &text);
    return name;
}

std::int32_t autoConfigure(KivApi* api, tarn_fi_entry* entry, tarn_fi_entry** list,
                           std::uint32_t count) {
    KivNode* group = kivNodeOf(entry->group_node);
    CacheFileHints hints =
        group != nullptr ? group->configuration().getCacheFileHints() : CacheFileHints{};
    std::vector<KivNode*> targetNodes;
    std::vector<std::u16string> targets;
    for (tarn_fi_entry* source : sourcesOf(entry, list, count)) {
        KivNode* node = kivNodeOf(nodeRecordOf(source));
        if (node != nullptr && node->configuration().isAutoPrepare()) {
            targetNodes.push_back(node);
            targets.push_back(objectName(source->node->objid));
        }
    }
    if (targets.empty()) {
        return 0;
    }
    for (std::u16string& target : targets) {
        stripKivTag(target);
    }
    try {
        os::HANDLE mutex = ProviderMutex();
        std::vector<std::u16string> paths;
        std::vector<CacheFileSizes> sizes;
        if (!placeCacheFiles(mutex, targets, hints, paths, sizes)) {
            reportNodeMessage("MSG_ERROR_AUTOCONFIG",
                              {textArgument(formatCacheFileRequest(targets, hints))});
            return 0;
        }
        for (std::size_t j = 0; j < targetNodes.size() && j < paths.size() && j < sizes.size();
             ++j) {
            SplitConfig split;
            split.snapshotVolumeName = generateSnapshotVolumeName(api);
            split.cacheFileName = toNarrow(paths[j], os::CP_UTF8);
            split.initialCacheFileSize = sizes[j].first;
            split.maximumCacheFileSize = sizes[j].second;
            targetNodes[j]->configuration().setAutoSplitConfig(split);
        }
        return 1;
    } catch (os::DWORD code) {
        char16_t text[260];
        boundedFormatWide(text, 260, u"Error occured in CreateMutex, GetLastError() is: %d",
                          static_cast<int>(code));
        reportNodeMessage("MSG_ERROR_AUTOCONFIG", {textArgument(text)});
        return kTarnInternalFailure;
    }
}

void dumpSnapshotParameters(const std::vector<KivSnapshotParameters>& parameters,
                            const std::vector<std::u16string>& sourceNames,
                            const QuiesceConfig& quiesce) {
    char number[32];
    std::snprintf(number, sizeof(number), "%zu", parameters.size());
    sendLineToHost(std::string("KIV_Prepare: KivSnapshotParameters has ") + number + " elements\n",
                   kLogInformation);
    for (std::size_t i = 0; i < parameters.size(); ++i) {
        const KivSnapshotParameters& element = parameters[i];
        char handle[32];
        std::snprintf(handle, sizeof(handle), "%016" PRIX64, element.sourceVolumeObject());
        sendLineToHost(std::string("\n\tSourceVolumeObject:") + handle + "( " +
                           displaySourceName(i < sourceNames.size() ? sourceNames[i] : u"") +
                           " )\n",
                       kLogInformation);
        sendLineToHost(
            std::string("\tSnapshotVolumeName:") +
                (element.snapshotVolumeName() != nullptr ? element.snapshotVolumeName() : "") +
                "\n",
            kLogInformation);
        sendLineToHost("\tCacheFileName:" + displayCacheFileName(element.cacheFileName()) + "\n",
                       kLogInformation);
        sendLineToHost(
            "\tInitialCacheFileSize:" + std::to_string(element.initialCacheFileSize()) + "\n",
            kLogInformation);
        sendLineToHost(
            "\tMaximumCacheFileSize:" + std::to_string(element.maximumCacheFileSize()) + "\n",
            kLogInformation);
    }
    sendLineToHost("\n\tQuiesceWait:" + std::to_string(quiesce.quiesceWait) + "\n",
                   kLogInformation);
    sendLineToHost("\tQuiesceTimeout:" + std::to_string(quiesce.quiesceTimeout) + "\n",
                   kLogInformation);
}

std::int32_t KivNode::prepare(tarn_fi_entry* entry, void*, tarn_fi_entry** list,
                              std::uint32_t count, std::uint32_t mode) {
    tarp_TraceMethod trace(kSource, u"KivNode::prepare", __LINE__);
    std::int32_t result = kTarnInvalidRequest;
    if (mode == kRefusedMode) {
        reportNodeMessage("MSG_ERROR_INVAL",
                          {textArgument(u"KIV_Prepare"), textArgument(u"KIV_INVAL_ARGS")});
        return kTarnInvalidRequest;
    }
    if (entry == nullptr) {
        return kTarnInvalidRequest;
    }
    // Every source must be one of this provider's nodes before anything is
    // placed or opened.
    std::vector<tarn_fi_entry*> sources = sourcesOf(entry, list, count);
    for (tarn_fi_entry* source : sources) {
        if (kivNodeOf(nodeRecordOf(source)) == nullptr) {
            return kTarnInvalidRequest;
        }
    }
    KivApi* api = coordinatorKivApi();
    try {
        autoConfigure(api, entry, list, count);
        KivNode* group = kivNodeOf(entry->group_node);
        QuiesceConfig quiesce =
            group != nullptr ? group->configuration().getQuiesceConfig() : QuiesceConfig{};

        std::vector<KivSnapshotParameters> parameters;
        std::vector<std::u16string> sourceNames;
        parameters.reserve(sources.size());
        sourceNames.reserve(sources.size());
        for (tarn_fi_entry* source : sources) {
            KivNode* node = kivNodeOf(source->node);
            SplitConfig split = node->configuration().getSplitConfig();
            KivHandle handle = node->open();
            parameters.emplace_back(handle, split.snapshotVolumeName, split.cacheFileName,
                                    split.initialCacheFileSize, split.maximumCacheFileSize, 0);
            sourceNames.push_back(node->nodeName());
        }

        std::uint32_t status =
            KIV_Prepare(api, parameters.data(), static_cast<std::uint16_t>(parameters.size()),
                        kParametersSize, &snapshotHandle_);
        if (status == 0 && snapshotHandle_ != 0) {
            result = kTarnSuccess;
        } else {
            reportNodeMessage("MSG_ERROR_KIVAPI",
                              {textArgument(u"KIV_Prepare"), numberArgument(status),
                               textArgument(u"KIV_Prepare")});
        }
        dumpSnapshotParameters(parameters, sourceNames, quiesce);
    } catch (...) {
        sendLineToHost("WARNING: caught unhandled exception in KIV prepare", kLogWarning);
        return kTarnInternalFailure;
    }
    return result;
}
