#include "host/snapshot_run.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "host/text.h"
#include "orbhandle/protocol.h"
#include "sim/observer.h"
#include "tarn/tarnutil.h"

namespace host {
namespace {

constexpr char16_t kGroupName[] = u"kiv-cow-snapshot-group";
constexpr std::uint32_t kConfigSet = 2;
// prepare's mode 2 is refused; the framework's ordinary preparation is 0.
constexpr std::uint32_t kPrepareMode = 0;
constexpr std::uint32_t kPipeBusy = 231;

std::string documentOf(const std::vector<std::pair<std::string, std::string>>& pairs) {
    std::string document = "<SET_CONFIG_INFO_LIST>";
    for (const auto& [key, value] : pairs) {
        document += " <SET_CONFIG_INFO key=" + key + " value=" + value + " />";
    }
    return document + " </SET_CONFIG_INFO_LIST>";
}

// A settings value is one token of the document: no white space, not empty,
// and not the document's "no value" mark.
bool isDocumentValue(std::string_view value) {
    return !value.empty() && value != ";" &&
           value.find_first_of(" \t\r\n") == std::string_view::npos;
}

std::string joined(const std::vector<std::string>& items, const char* separator) {
    std::string text;
    for (const std::string& item : items) {
        text += (text.empty() ? "" : separator) + item;
    }
    return text;
}

// The name of an identity, its trailing NULs removed.
std::string nameOf(const tarn_objid* identity) {
    if (identity == nullptr || identity->name == nullptr || identity->length <= 0) {
        return {};
    }
    std::u16string_view name(identity->name, static_cast<std::size_t>(identity->length) / 2);
    while (!name.empty() && name.back() == u'\0') {
        name.remove_suffix(1);
    }
    return toUtf8(name);
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

std::string withoutLineEnds(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

// A log line as a user reads it: without the "<plug-in name>:" and the time
// stamp "Www Mmm dd yyyy hh:mm:ss.uuuuuu " in front, and without trailing blanks.
std::string withoutLogPrefix(std::string line) {
    constexpr std::size_t kTimeStampLength = 31;
    std::size_t colon = line.find(':');
    if (colon != std::string::npos && line.size() > colon + 1 + kTimeStampLength + 1 &&
        line[colon + 1 + kTimeStampLength] == ' ') {
        line.erase(0, colon + 1 + kTimeStampLength + 1);
    }
    while (!line.empty() && (line.back() == ' ' || line.back() == '\n')) {
        line.pop_back();
    }
    return line;
}

std::uint32_t numberAfter(std::string_view text, std::string_view prefix) {
    std::uint32_t value = 0;
    for (char c : text.substr(prefix.size())) {
        if (c < '0' || c > '9') {
            break;
        }
        value = value * 10 + static_cast<std::uint32_t>(c - '0');
    }
    return value;
}

}  // namespace

const char* stepName(Step step) {
    switch (step) {
        case Step::kInterpose:
            return "interpose";
        case Step::kInitNode:
            return "initNode";
        case Step::kConfig:
            return "config";
        case Step::kSelect:
            return "select";
        case Step::kPrepare:
            return "prepare";
        case Step::kQuiesce:
            return "quiesce";
        case Step::kMake:
            return "make";
        case Step::kUnquiesce:
            return "unquiesce";
        case Step::kIsReady:
            return "isReady";
        case Step::kInitAltNode:
            return "initAltNode";
        case Step::kDispose:
            return "dispose";
        default:
            return "deInitNode";
    }
}

// A source volume's records: the one interpose is asked about, the object it
// made, and the snapshot volume's alternate record once make named it.
struct SnapshotRun::Source {
    std::unique_ptr<HostNode> volume;
    std::unique_ptr<HostNode> object;
    bool objectAttached = false;
    std::unique_ptr<HostNode> snapshot;
    bool snapshotAttached = false;
};

// Turns the platform layer's Sleep calls and agent exchanges into progress
// events. The plug-in sleeps after every exchange with the agent, and in
// dispose also between KIV_Destroy attempts that the driver answered busy; a
// sleep that follows no exchange is such a driver wait.
class SnapshotRun::Observer {
  public:
    explicit Observer(SnapshotRun& run) : run_(run) {
        sim::setPlatformObserver(sim::PlatformObserver{
            .onSleep = [this](std::uint32_t ms) { onSleep(ms); },
            .onPipeExchange = [this](const sim::PipeExchange& exchange) { onExchange(exchange); },
        });
    }
    ~Observer() { sim::setPlatformObserver({}); }
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

    // A new entry point call starts every count afresh.
    void reset() {
        afterExchange_ = false;
        busyCount_ = 0;
        driverCount_ = 0;
    }

  private:
    void onExchange(const sim::PipeExchange& exchange) {
        if (exchange.pipeName != std::u16string_view(orbhandle::kPipeName) ||
            exchange.request == nullptr || exchange.requestSize != sizeof(orbhandle::Request)) {
            return;
        }
        orbhandle::Request request{};
        std::memcpy(&request, exchange.request, sizeof(request));
        request.volumeName[orbhandle::kMaxVolumeNameLength] = u'\0';
        std::uint32_t status = exchange.error;
        if (exchange.succeeded) {
            status = 0;
            if (exchange.replySize >= sizeof(std::uint32_t)) {
                std::memcpy(&status, exchange.reply, sizeof(status));
            }
        }
        std::string volume = toUtf8(request.volumeName);
        std::string kind = orbhandle::requestName(request.code);
        if (status == kPipeBusy) {
            busyCount_ = (kind == busyRequest_ && volume == busyVolume_) ? busyCount_ + 1 : 1;
            busyRequest_ = kind;
            busyVolume_ = volume;
        } else {
            busyCount_ = 0;
        }
        lastStatus_ = status;
        afterExchange_ = true;
        ProgressEvent event;
        event.kind = ProgressEvent::Kind::kAgentExchange;
        event.step = run_.step_;
        event.request = kind;
        event.volume = volume;
        event.status = status;
        event.answered = exchange.succeeded;
        run_.progress_(event);
    }

    void onSleep(std::uint32_t ms) {
        ProgressEvent event;
        event.kind = ProgressEvent::Kind::kWait;
        event.step = run_.step_;
        event.milliseconds = ms;
        if (afterExchange_) {
            afterExchange_ = false;
            if (lastStatus_ == kPipeBusy) {
                event.reason = WaitReason::kAgentBusy;
                event.count = busyCount_;
                event.budget = kAgentRetryBudget;
            } else {
                event.reason = WaitReason::kAfterAgentAnswer;
            }
        } else {
            event.reason = WaitReason::kDriverBusy;
            event.count = ++driverCount_;
            event.budget = kDestroyAttempts;
        }
        run_.progress_(event);
    }

    SnapshotRun& run_;
    bool afterExchange_ = false;
    std::uint32_t lastStatus_ = 0;
    std::uint32_t busyCount_ = 0;
    std::string busyRequest_;
    std::string busyVolume_;
    std::uint32_t driverCount_ = 0;
};

SnapshotRun::SnapshotRun(PluginHost& plugin, HostContext& context, ProgressCallback progress)
    : plugin_(plugin), context_(context), progress_(std::move(progress)) {
    if (!progress_) {
        progress_ = [](const ProgressEvent&) {};
    }
    observer_ = std::make_unique<Observer>(*this);
    context_.setListener([this](const HostMessage& message) { onMessage(message); });
}

SnapshotRun::~SnapshotRun() {
    deInit();
    context_.setListener(nullptr);
    observer_.reset();
}

void SnapshotRun::begin(Step step, std::string text) {
    step_ = step;
    stepTexts_.clear();
    observer_->reset();
    ProgressEvent event;
    event.kind = ProgressEvent::Kind::kStep;
    event.step = step;
    event.text = std::move(text);
    progress_(event);
}

void SnapshotRun::detail(std::string text) {
    ProgressEvent event;
    event.kind = ProgressEvent::Kind::kDetail;
    event.step = step_;
    event.text = std::move(text);
    progress_(event);
}

Status SnapshotRun::failed(const std::string& what, std::int32_t status) {
    failureTexts_ = stepTexts_;
    failedStep_ = step_;
    return Status::pluginFailed(what, status);
}

void SnapshotRun::onMessage(const HostMessage& message) {
    if (forward_) {
        forward_(message);
    }
    std::string text = withoutLineEnds(message.text.value_or(""));
    // prepare hands its parameter dump to the callback line by line, level 1.
    if (step_ == Step::kPrepare && message.level == 1 && !message.secondText.has_value()) {
        std::string_view line = text;
        if (startsWith(line, "KIV_Prepare: KivSnapshotParameters has ")) {
            dumpElement_ = -1;
        } else if (line.find("SourceVolumeObject:") != std::string_view::npos) {
            ++dumpElement_;
        } else if (dumpElement_ >= 0 && static_cast<std::size_t>(dumpElement_) < volumes_.size()) {
            SnapshotVolume& volume = volumes_[static_cast<std::size_t>(dumpElement_)];
            if (startsWith(line, "\tCacheFileName:")) {
                volume.cacheFile = std::string(line.substr(std::strlen("\tCacheFileName:")));
            } else if (startsWith(line, "\tInitialCacheFileSize:")) {
                volume.initialCacheMb = numberAfter(line, "\tInitialCacheFileSize:");
            } else if (startsWith(line, "\tMaximumCacheFileSize:")) {
                volume.maximumCacheMb = numberAfter(line, "\tMaximumCacheFileSize:");
            }
        }
        return;
    }
    if (message.level < 2 || message.level > 3) {
        return;
    }
    // A catalogue report carries its locale wording first (null without a
    // locale) and its root wording second; a log line only the first.
    std::string readable = !message.secondText.has_value() ? withoutLogPrefix(text)
                           : message.text.has_value()      ? text
                                                           : withoutLineEnds(*message.secondText);
    stepTexts_.push_back(readable);
    ProgressEvent event;
    event.kind = ProgressEvent::Kind::kMessage;
    event.step = step_;
    event.text = readable;
    progress_(event);
}

Status SnapshotRun::take(const SnapshotOptions& options) {
    if (options.volumes.empty()) {
        return Status::invalidArgument("no volume to snapshot");
    }
    if (!sources_.empty() || group_ != nullptr) {
        return Status::invalidArgument("this run has already taken a snapshot");
    }
    for (const auto& [key, value] : options.cacheSettings) {
        if (!isDocumentValue(value)) {
            return Status::invalidArgument("the cache setting " + key +
                                           " must be one word without blanks: '" + value + "'");
        }
    }
    Status status = interposeAll(options);
    if (status.isOk()) {
        status = initNodes();
    }
    if (status.isOk()) {
        status = configure(options);
    }
    if (status.isOk()) {
        status = prepareMakeAndAttach();
    }
    if (!status.isOk()) {
        undo();
    }
    return status;
}

Status SnapshotRun::interposeAll(const SnapshotOptions& options) {
    begin(Step::kInterpose, joined(options.volumes, ", "));
    for (const std::string& name : options.volumes) {
        auto source = std::make_unique<Source>();
        source->volume = std::make_unique<HostNode>(toUtf16(name));
        tarn_objid* object = nullptr;
        tarn_objid** groups = nullptr;
        std::uint32_t groupCount = 0;
        std::int32_t answer =
            plugin_.interpose(source->volume->record(), &object, &groups, &groupCount);
        if (answer != 1 || object == nullptr) {
            return failed("the provider does not take " + name +
                              " for snapshots ('fihost volumes' says why); interpose answered",
                          answer);
        }
        if (group_ == nullptr && groupCount > 0 && groups != nullptr && groups[0] != nullptr) {
            group_ = std::make_unique<HostNode>(groups[0]);
        }
        source->object = std::make_unique<HostNode>(object);
        SnapshotVolume volume;
        volume.source = name;
        volume.objectName = nameOf(object);
        detail(name + " -> " + volume.objectName);
        volumes_.push_back(std::move(volume));
        sources_.push_back(std::move(source));
    }
    if (group_ == nullptr) {
        // interpose names the group object; without it the host knows it by name.
        group_ = std::make_unique<HostNode>(kGroupName);
    }
    return Status::ok();
}

Status SnapshotRun::initNodes() {
    begin(Step::kInitNode, "the group object and " + std::to_string(sources_.size()) +
                               (sources_.size() == 1 ? " volume" : " volumes"));
    // The group first, so that every volume's fi entries carry it.
    std::int32_t status = plugin_.init_node(group_->record(), nullptr, 0, nullptr);
    groupAttached_ = group_->providerData() != nullptr;
    if (status != 0) {
        return failed("initNode of the group object", status);
    }
    for (std::size_t i = 0; i < sources_.size(); ++i) {
        Source& source = *sources_[i];
        status = plugin_.init_node(source.object->record(), nullptr, 0, nullptr);
        source.objectAttached = source.object->providerData() != nullptr;
        if (status != 0) {
            return failed("initNode of " + volumes_[i].objectName, status);
        }
        if (source.object->fiEntries().empty()) {
            return failed("initNode of " + volumes_[i].objectName + " listed no fi entry", 0);
        }
    }
    return Status::ok();
}

Status SnapshotRun::configSet(tarn_node* record, bool quiesceGroup,
                              const std::u16string& document) {
    std::u16string text = document;
    tarn_config_request request{};
    request.split_selector = quiesceGroup ? 0 : 1;
    request.quiesce_selector = quiesceGroup ? 1 : 0;
    request.text = text.data();
    std::int32_t status = plugin_.config(record, kConfigSet, nullptr, &request);
    if (status != 0) {
        return failed("config of " + nameOf(record->objid) + " with " + toUtf8(document), status);
    }
    return Status::ok();
}

Status SnapshotRun::configure(const SnapshotOptions& options) {
    std::string quiesce = "quiesceWait=" + std::to_string(options.quiesceWait) +
                          ", quiesceTimeout=" + std::to_string(options.quiesceTimeout);
    const std::vector<std::pair<std::string, std::string>>& cache = options.cacheSettings;
    std::string cacheText;
    for (const auto& [key, value] : cache) {
        cacheText += ", " + key + "=" + value;
    }
    begin(Step::kConfig, quiesce + cacheText + "; automatic preparation of each volume");

    Status status = configSet(
        group_->record(), true,
        toUtf16(documentOf({{"quiesceWait", std::to_string(options.quiesceWait)},
                            {"quiesceTimeout", std::to_string(options.quiesceTimeout)}})));
    if (status.isOk() && !cache.empty()) {
        status = configSet(group_->record(), false, toUtf16(documentOf(cache)));
    }
    std::u16string automatic = toUtf16(documentOf({{"cs_flags", "TARN_CFS_AUTO_PREP"}}));
    for (std::size_t i = 0; status.isOk() && i < sources_.size(); ++i) {
        status = configSet(sources_[i]->object->record(), false, automatic);
    }
    if (!status.isOk()) {
        return status;
    }

    begin(Step::kSelect, "is the configuration valid");
    std::vector<tarn_fi_entry*> entries;
    for (const auto& source : sources_) {
        entries.push_back(source->object->fiEntries().front());
    }
    std::int32_t answer = plugin_.select(entries.front(), nullptr, entries.data(),
                                         static_cast<std::int32_t>(entries.size()));
    if (answer != 0) {
        std::string marked;
        if ((group_->record()->status & 0x4) != 0) {
            marked += " group object";
        }
        for (std::size_t i = 0; i < sources_.size(); ++i) {
            if ((sources_[i]->object->record()->status & 0x4) != 0) {
                marked += " " + volumes_[i].objectName;
            }
        }
        return failed("select refused the configuration of" +
                          (marked.empty() ? std::string(" the snapshot") : marked),
                      answer);
    }
    return Status::ok();
}

Status SnapshotRun::prepareMakeAndAttach() {
    std::vector<tarn_fi_entry*> list;
    for (const auto& source : sources_) {
        list.push_back(source->object->fiEntries().front());
    }
    tarn_fi_entry* entry = list.front();
    auto count = static_cast<std::uint32_t>(list.size());

    begin(Step::kPrepare, "placing cache files and preparing the snapshot in the driver");
    dumpElement_ = -1;
    std::int32_t status = plugin_.prepare(entry, nullptr, list.data(), count, kPrepareMode);
    if (status != 0) {
        return failed("prepare", status);
    }
    for (const SnapshotVolume& volume : volumes_) {
        detail("cache file of " + volume.source + " " +
               (volume.cacheFile.empty() ? "(none)" : volume.cacheFile) + ", initial " +
               std::to_string(volume.initialCacheMb) + " MB, maximum " +
               std::to_string(volume.maximumCacheMb) + " MB");
    }

    begin(Step::kQuiesce, "");
    status = plugin_.quiesce(entry, nullptr, 0, nullptr);
    if (status != 0) {
        return failed("quiesce", status);
    }

    begin(Step::kMake, "creating the snapshot and handing each snapshot volume to the agent");
    tarn_objid** identities = nullptr;
    std::uint32_t identityCount = 0;
    status = plugin_.make(entry, nullptr, list.data(), count, &identities, &identityCount);
    for (std::uint32_t i = 0; identities != nullptr && i < identityCount && i < sources_.size();
         ++i) {
        if (identities[i] == nullptr) {
            detail(volumes_[i].source + ": no snapshot volume identity");
            continue;
        }
        sources_[i]->snapshot = std::make_unique<HostNode>(identities[i]);
        volumes_[i].snapshotName = nameOf(identities[i]);
        detail(volumes_[i].source + " -> " + volumes_[i].snapshotName);
    }
    if (identities != nullptr) {
        tarn_free_buf(identities, sizeof(tarn_objid*) * std::max<std::uint32_t>(count, 1));
    }
    Status made = status == 0 ? Status::ok() : failed("make", status);

    begin(Step::kUnquiesce, "");
    plugin_.unquiesce(entry, nullptr, 0);
    if (!made.isOk()) {
        return made;
    }

    begin(Step::kIsReady, "");
    status = plugin_.isready(entry, nullptr, list.data(), count);
    if (status != 0) {
        return failed("isReady", status);
    }

    begin(Step::kInitAltNode, "attaching a node to each snapshot volume");
    Status attached = Status::ok();
    for (std::size_t i = 0; i < sources_.size(); ++i) {
        Source& source = *sources_[i];
        if (source.snapshot == nullptr) {
            continue;
        }
        status = plugin_.init_altnode(source.object->record(), nullptr, source.snapshot->record());
        source.snapshotAttached = source.snapshot->providerData() != nullptr;
        if (status != 0 && attached.isOk()) {
            attached = failed("initAltNode of " + volumes_[i].snapshotName, status);
        }
    }
    return attached;
}

Status SnapshotRun::adopt(const std::vector<std::string>& snapshotNames) {
    if (!sources_.empty() || group_ != nullptr) {
        return Status::invalidArgument("this run already holds a snapshot");
    }
    begin(Step::kInitAltNode, joined(snapshotNames, ", "));
    Status attached = Status::ok();
    for (const std::string& name : snapshotNames) {
        auto source = std::make_unique<Source>();
        // The alternate node takes its name from the source record; a kept
        // snapshot volume has no source record any more, so it is its own.
        source->object = std::make_unique<HostNode>(toUtf16(name));
        source->snapshot = std::make_unique<HostNode>(toUtf16(name));
        std::int32_t status =
            plugin_.init_altnode(source->object->record(), nullptr, source->snapshot->record());
        source->snapshotAttached = source->snapshot->providerData() != nullptr;
        if (status != 0 && attached.isOk()) {
            attached = failed("initAltNode of " + name, status);
        }
        SnapshotVolume volume;
        volume.snapshotName = name;
        volumes_.push_back(std::move(volume));
        sources_.push_back(std::move(source));
    }
    return attached;
}

Status SnapshotRun::dispose() {
    Status result = Status::ok();
    for (std::size_t i = 0; i < sources_.size(); ++i) {
        Source& source = *sources_[i];
        if (source.snapshot == nullptr || !source.snapshotAttached || volumes_[i].disposed) {
            continue;
        }
        begin(Step::kDispose, volumes_[i].snapshotName);
        std::int32_t status = plugin_.dispose(nullptr, source.snapshot->record(), nullptr, 0);
        if (status == 0) {
            volumes_[i].disposed = true;
        } else if (result.isOk()) {
            result = failed("dispose of " + volumes_[i].snapshotName, status);
        }
    }
    return result;
}

void SnapshotRun::deInit() {
    bool any = groupAttached_;
    for (const auto& source : sources_) {
        any = any || source->objectAttached || source->snapshotAttached;
    }
    if (!any) {
        return;
    }
    begin(Step::kDeInitNode, "");
    for (const auto& source : sources_) {
        if (source->snapshotAttached) {
            plugin_.deinit_node(source->snapshot->record());
            source->snapshotAttached = false;
        }
    }
    for (const auto& source : sources_) {
        if (source->objectAttached) {
            plugin_.deinit_node(source->object->record());
            source->objectAttached = false;
        }
    }
    if (groupAttached_) {
        plugin_.deinit_node(group_->record());
        groupAttached_ = false;
    }
}

void SnapshotRun::undo() {
    // Keep the texts of the step that failed; cleaning up runs steps of its own.
    std::vector<std::string> texts = failureTexts_;
    (void)dispose();
    deInit();
    failureTexts_ = std::move(texts);
}

}  // namespace host
