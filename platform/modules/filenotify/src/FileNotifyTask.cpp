#include "filenotify/FileNotifyTask.h"

#include <chrono>

#include "filenotify/FileNotifyMessage.h"
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

uint64_t NowMs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

Poco::Logger* Logger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", true);
}
}  // namespace

FileNotifyTask::FileNotifyTask()
    : Framework::Task(kTaskName, "filenotify_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE,
                      kQueueCapacity) {}

int FileNotifyTask::Init() {
    table_.reset(new WatchTable());
    if (!table_->IsOpen()) {
        TW_LOG(Logger(), PRIO_ERROR, "File notify: task runs without inotify; watches are refused");
        return Framework::Task::Init();
    }
    if (!GetEventWaiter().AddFd(table_->Fd(), [this](int, uint32_t) { OnReadable(); })) {
        TW_LOG(Logger(), PRIO_ERROR, "File notify: inotify descriptor not added to the waiter");
    }
    return Framework::Task::Init();
}

void FileNotifyTask::UnInit() {
    if (table_ && table_->IsOpen()) GetEventWaiter().RemoveFd(table_->Fd());
    table_.reset();
    Framework::StatusBoard::Instance().Erase(kCoverageStatus);
    Framework::Task::UnInit();
}

int FileNotifyTask::Run() {
    uint64_t publishedAtMs = 0;
    while (!isCancelled()) {
        if (GetEventWaiter().WaitAndHandleEvent(kWaitMs, kMaxEvents) == -1) BulkConsumeMsg(kBulk);
        if (!table_) continue;
        const uint64_t now = NowMs();
        std::vector<WatchNotification> notifications;
        table_->Tick(now, notifications);
        Send(notifications);
        if (now - publishedAtMs >= kPublishEveryMs) {
            Framework::StatusBoard::Instance().Set(kCoverageStatus, table_->CoverageText());
            publishedAtMs = now;
        }
    }
    return 0;
}

int FileNotifyTask::Receive(const FileNotifyWatchMessage& msg) {
    if (!table_) return -1;
    if (!msg.add) return table_->Remove(msg.path, msg.requester) ? 0 : -1;
    uint32_t mask = 0;
    for (unsigned int m : msg.masks) mask |= m;
    return table_->Add(msg.path, msg.requester, mask, msg.options) ? 0 : -1;
}

void FileNotifyTask::OnReadable() {
    std::vector<WatchNotification> notifications;
    table_->ReadEvents(notifications);
    Send(notifications);
}

void FileNotifyTask::Send(std::vector<WatchNotification>& notifications) {
    for (auto& n : notifications) {
        auto* msg = new FileNotifyMessage(n.path, n.mask, n.extParm);
        msg->SetWatchPath(n.watchPath);
        // Drops (requester gone, queue full) are counted and logged by the framework.
        SendDirectMsg(n.requester, msg);
    }
}

}  // namespace Engine
