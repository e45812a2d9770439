#include "filenotify/FileNotifyTask.h"

#include "filenotify/FileNotifyLog.h"
#include "filenotify/FileNotifyMessage.h"
#include "framework/DegradedCounter.h"
#include "framework/Gauges.h"
#include "framework/StatusBoard.h"
#include "sdk/Log.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {
constexpr unsigned int kQueueCapacity = 8192;
constexpr int kWaitMs = 100;
constexpr int kMaxEvents = 16;
constexpr int kBulk = 128;
constexpr uint64_t kPublishEveryMs = 1000;
constexpr const char* kCoverageStatus = "filenotify.coverage";
// Waiting events: per container and in all (a notification is a few hundred bytes).
constexpr std::size_t kPerSourceLimit = 16384;
constexpr std::size_t kTotalLimit = 65536;
constexpr int kRetryMs = 1;  // how soon a held-back event is offered again
// Reads that follow each other this closely mean a storm: the next events gather in the kernel
// this long, so that a wake-up and a read carry many of them instead of one each.
constexpr uint64_t kGatherMs = 1;

Framework::DegradedCounter gBacklogDropped("filenotify.dropped.backlog", 5000);
Framework::DegradedCounter gReadPaused("filenotify.read_paused");

}  // namespace

FileNotifyTask::FileNotifyTask()
    : Framework::Task(kTaskName, "filenotify_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE,
                      kQueueCapacity),
      pending_(kPerSourceLimit, kTotalLimit) {
    LoopSettings loop;
    loop.waitMs = kWaitMs;
    loop.maxEvents = kMaxEvents;
    loop.batch = kBulk;
    SetLoopSettings(loop);
}

int FileNotifyTask::Init() {
    table_.reset(new WatchTable(GetClock()));
    if (!table_->IsOpen()) {
        TW_LOG(FileNotifyLogger(), PRIO_ERROR,
               "File notify: task runs without inotify; watches are refused");
        return Framework::Task::Init();
    }
    if (!GetEventWaiter().AddFd(table_->Fd(), [this](int, uint32_t) { OnReadable(); })) {
        TW_LOG(FileNotifyLogger(), PRIO_ERROR,
               "File notify: inotify descriptor not added to the waiter");
    }
    return Framework::Task::Init();
}

void FileNotifyTask::UnInit() {
    if (table_ && table_->IsOpen() && reading_) GetEventWaiter().RemoveFd(table_->Fd());
    table_.reset();
    Framework::StatusBoard::Instance().Erase(kCoverageStatus);
    PublishCoverage(WatchTable::Coverage());
    Framework::Task::UnInit();
}

void FileNotifyTask::PublishCoverage(const WatchTable::Coverage& coverage) {
    auto& gauges = Framework::Gauges::Instance();
    gauges.Set(Framework::GaugeNames::kWatchesRequested, static_cast<int64_t>(coverage.requested));
    gauges.Set(Framework::GaugeNames::kWatchesArmed,
               static_cast<int64_t>(coverage.requested - coverage.refused));
    gauges.Set(Framework::GaugeNames::kWatchesFailed, static_cast<int64_t>(coverage.refused));
    gauges.SetContainers(kTaskName, coverage.containers);
}

int FileNotifyTask::NextWaitMs() {
    if (gathering_) return static_cast<int>(kGatherMs);
    return pending_.Empty() ? kWaitMs : kRetryMs;
}

void FileNotifyTask::OnTurn(uint64_t nowMs) {
    if (!table_) return;
    if (gathering_ && nowMs >= resumeReadingAtMs_) {
        gathering_ = false;
        UpdateReading();
    }
    std::vector<WatchNotification> notifications;
    table_->Tick(nowMs, notifications);
    Queue(notifications);
    Dispatch();
    if (nowMs - publishedAtMs_ >= kPublishEveryMs) {
        Framework::StatusBoard::Instance().Set(kCoverageStatus, table_->CoverageText());
        PublishCoverage(table_->CoverageNumbers());
        publishedAtMs_ = nowMs;
    }
}

int FileNotifyTask::Receive(const FileNotifyWatchMessage& msg) {
    if (!table_) return -1;
    if (!msg.add) {
        // Events still waiting for a watch its requester gave up are not wanted any more.
        pending_.EraseIf([&msg](const Source& source, const WatchNotification& n) {
            return source.first == msg.requester && n.watchPath == msg.path;
        });
        return table_->Remove(msg.path, msg.requester) ? 0 : -1;
    }
    uint32_t mask = 0;
    for (unsigned int m : msg.masks) mask |= m;
    return table_->Add(msg.path, msg.requester, mask, msg.options) ? 0 : -1;
}

void FileNotifyTask::OnReadable() {
    const uint64_t now = NowMs();
    std::vector<WatchNotification> notifications;
    table_->ReadEvents(notifications);
    Queue(notifications);
    if (now - lastReadMs_ <= kGatherMs) {
        gathering_ = true;
        resumeReadingAtMs_ = now + kGatherMs;
    }
    lastReadMs_ = now;
    Dispatch();
}

void FileNotifyTask::Queue(std::vector<WatchNotification>& notifications) {
    for (auto& n : notifications) {
        Source source(n.requester, n.extParm);
        const std::string watchPath = n.watchPath;
        if (pending_.Push(source, std::move(n))) continue;
        TW_DEGRADED(gBacklogDropped, 1, FileNotifyLogger(), PRIO_WARNING,
                    "File notify: %s is not keeping up with the events of %s; event dropped",
                    source.first, watchPath);
    }
    notifications.clear();
}

bool FileNotifyTask::Offer(WatchNotification& n) {
    // The requester's queue, and every queue behind it (alarms go on to the reporting task).
    if (Framework::Task::QueuedMessages(n.requester) >= kHighWater) return false;
    if (Framework::Task::PipelineCongested()) return false;
    auto* raw = new FileNotifyMessage(n.path, n.mask, n.extParm);
    raw->SetWatchPath(n.watchPath);
    std::shared_ptr<Framework::Message> msg(raw);
    // Full: offered again on the next turn. A requester that is gone is counted by the
    // framework, and the event is done with.
    return TrySendDirectMsg(n.requester, msg) != 1;
}

void FileNotifyTask::Dispatch() {
    pending_.Drain([this](WatchNotification& n) { return Offer(n); });
    const bool full = pending_.Full();
    if (full && !backlogFull_) gReadPaused.Add();
    backlogFull_ = full;
    UpdateReading();
}

void FileNotifyTask::UpdateReading() {
    const bool read = !backlogFull_ && !gathering_;
    if (read == reading_ || !table_ || !table_->IsOpen()) return;
    reading_ = read;
    if (!read) {
        GetEventWaiter().RemoveFd(table_->Fd());
        return;
    }
    GetEventWaiter().AddFd(table_->Fd(), [this](int, uint32_t) { OnReadable(); });
}

}  // namespace Engine
