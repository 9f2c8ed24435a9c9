// One snapshot of a set of volumes, driven through the plug-in's entry points
// in the framework's order: interpose, initNode, config, select, prepare,
// quiesce, make, unquiesce, isReady, initAltNode for each snapshot volume that
// make names, dispose of each, and deInitNode. The records are built at the
// framework's offsets; each volume's fi entries are the ones the plug-in's
// initNode listed, carrying the group record.
//
// While a run exists it listens to the plug-in's messages (to read the
// parameter dump of prepare and the catalogue text of a failure) and observes
// the platform layer's Sleep calls and pipe exchanges, so that a caller sees
// what the plug-in waits for inside make and dispose. Progress goes to one
// callback, on the calling thread.
//
// Not thread-safe, like the plug-in: one call at a time. The run must not
// outlive the PluginHost and HostContext it was given; only one run may exist
// at a time in a process (the platform observer is process-wide).
#ifndef FRAMEWORK_HOST_HOST_SNAPSHOT_RUN_H_
#define FRAMEWORK_HOST_HOST_SNAPSHOT_RUN_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/host_context.h"
#include "host/host_node.h"
#include "host/plugin_host.h"
#include "host/status.h"

namespace host {

enum class Step : std::uint8_t {
    kInterpose,
    kInitNode,
    kConfig,
    kSelect,
    kPrepare,
    kQuiesce,
    kMake,
    kUnquiesce,
    kIsReady,
    kInitAltNode,
    kDispose,
    kDeInitNode,
};

// The entry point's operation name: "interpose", "initNode", ...
const char* stepName(Step step);

// What a snapshot is taken with. Volumes are named as a user names them (C:,
// E:\, C:\mnt\data, or a volume GUID path); each gets automatic preparation
// of its split settings. The cache settings and quiesce settings go to the
// provider's group object as settings documents.
struct SnapshotOptions {
    std::vector<std::string> volumes;
    // (key, value) of the cache group, such as ("cachefileDir", "kiv"); each
    // value one token without blanks.
    std::vector<std::pair<std::string, std::string>> cacheSettings;
    std::uint32_t quiesceWait = 10;
    std::uint32_t quiesceTimeout = 30;
};

// Why the plug-in sleeps, as far as the host can tell from what came before.
enum class WaitReason : std::uint8_t {
    kAgentBusy,         // the agent's pipe answered busy; count of budget
    kAfterAgentAnswer,  // the pause the provider makes after every answered exchange
    kDriverBusy,        // KIV_Destroy answered busy; count of budget
};

struct ProgressEvent {
    enum class Kind : std::uint8_t {
        kStep,           // a step starts; text says what it is given
        kDetail,         // a result of the step (a volume interposed, a name made)
        kAgentExchange,  // one request to the backup agent and its outcome
        kWait,           // the plug-in starts a wait
        kMessage,        // the plug-in reported a warning or error
    };
    Kind kind = Kind::kStep;
    Step step = Step::kInterpose;
    std::string text;
    // kAgentExchange: the request ("register", "retrieve", "release"), the
    // volume name and the status (0, the agent's error, or the pipe's error);
    // answered is false when no agent answered and status is the pipe's error.
    std::string request;
    std::string volume;
    std::uint32_t status = 0;
    bool answered = false;
    // kWait.
    WaitReason reason = WaitReason::kAfterAgentAnswer;
    std::uint32_t count = 0;
    std::uint32_t budget = 0;
    std::uint32_t milliseconds = 0;
};

using ProgressCallback = std::function<void(const ProgressEvent& event)>;

// One source volume of the snapshot and what became of it.
struct SnapshotVolume {
    std::string source;        // as given
    std::string objectName;    // the identity interpose made: "<kiv>" + volume name
    std::string snapshotName;  // the identity make handed back
    std::string cacheFile;     // as the provider's parameter dump shows it
    std::uint32_t initialCacheMb = 0;
    std::uint32_t maximumCacheMb = 0;
    bool disposed = false;
};

// The agent's retry budget per exchange and the driver's attempts at destroy.
inline constexpr std::uint32_t kAgentRetryBudget = 30;
inline constexpr std::uint32_t kDestroyAttempts = 100;

class SnapshotRun {
  public:
    SnapshotRun(PluginHost& plugin, HostContext& context, ProgressCallback progress);
    // Detaches every record still attached (without disposing anything).
    ~SnapshotRun();
    SnapshotRun(const SnapshotRun&) = delete;
    SnapshotRun& operator=(const SnapshotRun&) = delete;

    // interpose .. initAltNode. On failure nothing stays behind: snapshot
    // volumes already made are disposed and every record is detached.
    Status take(const SnapshotOptions& options);
    // Takes over snapshot volumes kept by an earlier process: initAltNode on
    // a record of each name, ready for dispose.
    Status adopt(const std::vector<std::string>& snapshotNames);
    // dispose of every snapshot volume not yet disposed; goes on after a
    // failure and answers the first.
    Status dispose();
    // deInitNode of every attached record: snapshot volumes, sources, group.
    void deInit();

    const std::vector<SnapshotVolume>& volumes() const { return volumes_; }
    // Hands every message of the plug-in's callback on to `sink` as well,
    // before the run reads it.
    void forwardMessages(std::function<void(const HostMessage&)> sink) {
        forward_ = std::move(sink);
    }
    // The plug-in's catalogue texts and warnings during the step that failed
    // last, oldest first.
    const std::vector<std::string>& failureTexts() const { return failureTexts_; }
    // The step that failed last.
    Step failedStep() const { return failedStep_; }

  private:
    struct Source;
    class Observer;

    void begin(Step step, std::string text);
    void detail(std::string text);
    Status failed(const std::string& what, std::int32_t status);
    void onMessage(const HostMessage& message);
    Status interposeAll(const SnapshotOptions& options);
    Status initNodes();
    Status configure(const SnapshotOptions& options);
    Status configSet(tarn_node* record, bool quiesceGroup, const std::u16string& document);
    Status prepareMakeAndAttach();
    void undo();

    PluginHost& plugin_;
    HostContext& context_;
    ProgressCallback progress_;
    std::function<void(const HostMessage&)> forward_;
    std::unique_ptr<Observer> observer_;
    Step step_ = Step::kInterpose;

    std::unique_ptr<HostNode> group_;
    bool groupAttached_ = false;
    std::vector<std::unique_ptr<Source>> sources_;
    std::vector<SnapshotVolume> volumes_;
    std::vector<std::string> failureTexts_;
    Step failedStep_ = Step::kInterpose;
    std::vector<std::string> stepTexts_;
    // Reading prepare's parameter dump: the element being read, -1 before the first.
    int dumpElement_ = -1;
};

}  // namespace host

#endif  // FRAMEWORK_HOST_HOST_SNAPSHOT_RUN_H_
