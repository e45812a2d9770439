#include "container/ContainerCollectTask.h"

#include <new>
#include <vector>

#include "container/ContainerMessage.h"
#include "container/ContainerModule.h"
#include "framework/ContainerRegistry.h"
#include "framework/Counters.h"
#include "framework/DegradedCounter.h"
#include "framework/Gauges.h"
#include "framework/StartupGate.h"
#include "sdk/ConfigUtils.h"
#include "sdk/Log.h"

namespace Engine {

namespace {
constexpr const char* kDefaultSocket = "/var/run/docker.sock";
constexpr int kApiTimeoutMs = 5000;
constexpr size_t kMaxInspectBytes = 4 * 1024 * 1024;
constexpr size_t kMaxListBytes = 16 * 1024 * 1024;
constexpr uint64_t kResyncRetryMs = 2000;
constexpr uint64_t kWarnIntervalMs = 5000;

Framework::DegradedCounter gEventsDropped("container.events.dropped", kWarnIntervalMs);
Framework::DegradedCounter gInspectMalformed("container.inspect.malformed", kWarnIntervalMs);
Framework::DegradedCounter gInspectFailed("container.inspect.failed", kWarnIntervalMs);
Framework::DegradedCounter gListMalformed("container.list.malformed", kWarnIntervalMs);
// Started, but gone before it could be looked at, so nobody protected it.
Framework::DegradedCounter gGoneBeforeProtected(Framework::CounterNames::kContainerStartGone,
                                                kWarnIntervalMs);

Poco::Logger* Log() { return ContainerModule::GetLoggerPtr(); }
}  // namespace

ContainerCollectTask::ContainerCollectTask()
    : Framework::Task(kTaskName, kFeature, Framework::TaskCondition::TASK_TYPE_MESSAGE,
                      kQueueCapacity) {}

ContainerCollectTask::~ContainerCollectTask() = default;

int ContainerCollectTask::Init() {
    const std::string socketPath = SDK::ConfigUtils::GetString("docker.socket", kDefaultSocket);
    api_.reset(new DockerApiClient(socketPath, kApiTimeoutMs, kMaxInspectBytes));
    DockerEventStream::Callbacks callbacks;
    callbacks.onConnected = [this] { OnStreamConnected(); };
    callbacks.onEvent = [this](const ContainerEvent& e) { OnStreamEvent(e); };
    callbacks.onDisconnected = [] {
        Framework::Gauges::Instance().Set(Framework::GaugeNames::kEngineConnected, 0);
    };
    Framework::Gauges::Instance().Set(Framework::GaugeNames::kEngineConnected, 0);
    stream_.reset(new DockerEventStream(socketPath, std::move(callbacks)));
    stream_->Start();
    TW_LOG(Log(), PRIO_INFORMATION, "Docker monitor %s started on %s", name(), socketPath);
    return Framework::Task::Init();
}

void ContainerCollectTask::UnInit() {
    if (stream_) stream_->Stop();
    stream_.reset();
    Framework::Gauges::Instance().Erase(Framework::GaugeNames::kEngineConnected);
    TW_LOG(Log(), PRIO_INFORMATION, "Docker monitor %s stopped (%z containers known)", name(),
           running_.size());
    Framework::Task::UnInit();
}

void ContainerCollectTask::OnTurn(uint64_t nowMs) {
    SendDeferred();
    const bool retryDue = resyncRetryAtMs_ != 0 && nowMs >= resyncRetryAtMs_;
    if (resyncRequested_.exchange(false) || retryDue) {
        resyncRetryAtMs_ = Resync() ? 0 : NowMs() + kResyncRetryMs;
    }
}

// Stream thread: must not block.
void ContainerCollectTask::OnStreamConnected() {
    Framework::Gauges::Instance().Set(Framework::GaugeNames::kEngineConnected, 1);
    resyncRequested_ = true;
    GetEventWaiter().Notify();
}

// Stream thread: must not block. A lost event is made good by a resynchronisation.
void ContainerCollectTask::OnStreamEvent(const ContainerEvent& event) {
    auto* raw = new (std::nothrow) ContainerEventMessage(event);
    std::shared_ptr<Framework::Message> msg(raw);
    if (raw != nullptr && EnqueueMsg(msg) == 1) return;
    resyncRequested_ = true;
    GetEventWaiter().Notify();
    TW_DEGRADED(gEventsDropped, 1, Log(), PRIO_WARNING,
                "Docker monitor queue full: event for %s dropped, will resynchronise", event.id);
}

int ContainerCollectTask::Receive(const ContainerRegisterMessage& msg) {
    // The name taken when the message was built: an unsubscribing task is released right
    // after sending it.
    const std::string subscriber = msg.taskName;
    if (subscriber.empty()) {
        TW_LOG(Log(), PRIO_WARNING, "Docker monitor ignored a registration without a task");
        return 0;
    }
    if (!msg.subscribe) {
        const bool had = subscribers_.erase(subscriber) != 0;
        TW_LOG(Log(), PRIO_INFORMATION, "Docker monitor unsubscribed %s%s", subscriber,
               std::string(had ? "" : " (was not subscribed)"));
        return 0;
    }
    if (!subscribers_.insert(subscriber).second) {
        TW_LOG(Log(), PRIO_DEBUG, "Docker monitor: %s is already subscribed", subscriber);
        return 0;
    }
    TW_LOG(Log(), PRIO_INFORMATION, "Docker monitor subscribed %s (%z running containers)",
           subscriber, running_.size());
    if (msg.option) return 0;
    for (const auto& entry : running_) {
        SendTo(subscriber, std::make_shared<ContainerInfo>(entry.second));
    }
    return 0;
}

int ContainerCollectTask::Receive(const ContainerEventMessage& msg) {
    // Events still queued at shutdown are dropped: nobody is left to hear of them.
    if (isCancelled()) return 0;
    if (msg.event.action == ContainerEvent::Action::kStart) {
        HandleStart(msg.event.id);
    } else {
        HandleDie(msg.event.id);
    }
    return 0;
}

void ContainerCollectTask::HandleStart(const std::string& id) {
    if (running_.count(id) != 0) {
        TW_LOG(Log(), PRIO_DEBUG, "Docker monitor: start of %s already announced", id);
        return;
    }
    ContainerInfo info;
    int pid = 0;
    bool gone = false;
    if (!Inspect(id, info, pid, gone)) {
        if (gone) CountGone(id);
        return;
    }
    if (!info.running) {
        // Gone again before we looked: its die event follows and is ignored likewise.
        CountGone(id);
        return;
    }
    running_[id] = info;
    // Before subscribers hear of it: their watch requests for its files must find it.
    Framework::ContainerRegistry::Instance().Started(info.rootPath, id, pid);
    TW_LOG(Log(), PRIO_DEBUG, "Docker monitor: container %s (%s, image %s) started, root %s",
           info.name, id, info.imageName, info.rootPath);
    Announce(std::make_shared<ContainerInfo>(info));
}

void ContainerCollectTask::HandleDie(const std::string& id) {
    auto it = running_.find(id);
    if (it == running_.end()) {
        TW_LOG(Log(), PRIO_DEBUG, "Docker monitor: exit of %s, never announced", id);
        return;
    }
    auto info = std::make_shared<ContainerInfo>(it->second);
    running_.erase(it);
    info->running = false;
    info->status = "exited";
    TW_LOG(Log(), PRIO_DEBUG, "Docker monitor: container %s (%s) exited", info->name, id);
    Announce(info);
    Framework::ContainerRegistry::Instance().Exited(info->rootPath);
}

bool ContainerCollectTask::Resync() {
    DockerApiClient lister(api_->SocketPath(), kApiTimeoutMs, kMaxListBytes);
    std::string body;
    std::string error;
    const int status = lister.Get("/containers/json", body, error);
    std::vector<std::string> ids;
    if (status != 200) {
        if (status > 0) error = "HTTP " + std::to_string(status);
        TW_LOG(Log(), PRIO_WARNING, "Docker monitor could not list containers: %s", error);
        return false;
    }
    if (!ParseContainerList(body, ids, error)) {
        TW_DEGRADED(gListMalformed, 1, Log(), PRIO_ERROR,
                    "Docker monitor dropped a malformed container list: %s", error);
        return false;
    }
    const std::set<std::string> listed(ids.begin(), ids.end());
    std::vector<std::string> vanished;
    for (const auto& entry : running_) {
        if (listed.count(entry.first) == 0) vanished.push_back(entry.first);
    }
    for (const auto& id : vanished) HandleDie(id);
    for (const auto& id : ids) HandleStart(id);
    TW_LOG(Log(), PRIO_INFORMATION,
           "Docker monitor resynchronised: %z running, %z exits for vanished containers",
           running_.size(), vanished.size());
    return true;
}

void ContainerCollectTask::CountGone(const std::string& id) {
    TW_DEGRADED(gGoneBeforeProtected, 1, Log(), PRIO_INFORMATION,
                "Docker monitor: container %s exited before it could be protected", id);
}

bool ContainerCollectTask::Inspect(const std::string& id, ContainerInfo& info, int& pid,
                                   bool& gone) {
    std::string body;
    std::string error;
    const int status = api_->Get("/containers/" + id + "/json", body, error);
    if (status == 200 && ParseContainerInspect(body, info, pid, error)) return true;
    gone = status == 404;
    if (gone) return false;  // removed already (docker run --rm): counted by the caller
    if (status != 200 && status > 0) error = "HTTP " + std::to_string(status);
    TW_DEGRADED(status == 200 ? gInspectMalformed : gInspectFailed, 1, Log(), PRIO_WARNING,
                "Docker monitor dropped container %s: inspect failed: %s", id, error);
    return false;
}

void ContainerCollectTask::Announce(const std::shared_ptr<ContainerInfo>& info) {
    for (const auto& subscriber : subscribers_) SendTo(subscriber, info);
}

void ContainerCollectTask::SendTo(const std::string& subscriber,
                                  const std::shared_ptr<ContainerInfo>& info) {
    if (!Framework::StartupGate::IsOpen() || !deferred_.empty()) {
        deferred_.emplace_back(subscriber, info);
        return;
    }
    auto* msg = new (std::nothrow) ContainerMessage(info);
    if (msg == nullptr) return;
    msg->sender = this;
    SendDirectMsg(subscriber, msg);
}

void ContainerCollectTask::SendDeferred() {
    if (deferred_.empty() || !Framework::StartupGate::IsOpen()) return;
    std::vector<std::pair<std::string, std::shared_ptr<ContainerInfo>>> held;
    held.swap(deferred_);
    TW_LOG(Log(), PRIO_DEBUG, "Docker monitor: %z notifications held during start-up go out",
           held.size());
    for (const auto& item : held) SendTo(item.first, item.second);
}

}  // namespace Engine
