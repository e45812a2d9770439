#include "DockerFileTask.h"

#include <memory>

#include "DockerFileModule.h"
#include "DockerFilePolicy.h"
#include "RootFsMonitor.h"
#include "UserFileMonitor.h"
#include "container/ContainerRegisterMessage.h"
#include "framework/TaskCondition.h"
#include "process_collect/AuditUnsubscribeMessage.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/Log.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {
constexpr unsigned int kQueueCapacity = 1024;
constexpr int kWaitMs = 30;
constexpr int kBatch = 128;

// One tick mark per place that applies the limiter, each measuring its own stretch of work.
uint64_t gRunLoopTick = 0;
uint64_t gContainerTick = 0;
uint64_t gAuditTick = 0;
uint64_t gFileNotifyTick = 0;

void ApplyCpuLimit(uint64_t& lastAdjustTick, const char* file, int line) {
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) return;
    const uint64_t now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const uint64_t used = now > lastAdjustTick ? now - lastAdjustTick : lastAdjustTick - now;
    if (used <= SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) return;
    SDK::InnerCpuCtrlUtils::AdjustThreadCpu(file, line, DockerFileTask::kTaskName, now, used);
    lastAdjustTick = now;
}

Poco::Logger* Log() { return DockerFileModule::GetLoggerPtr(); }
}  // namespace

#define DOCKERFILE_CPU_LIMIT(tick) ApplyCpuLimit((tick), __FILE__, __LINE__)

DockerFileTask::DockerFileTask()
    : Framework::Task(kTaskName, kFeatureName, Framework::TaskCondition::TASK_TYPE_MESSAGE,
                      kQueueCapacity) {}

DockerFileTask::~DockerFileTask() = default;

int DockerFileTask::Init() {
    SendDirectMsg("container_collect_task", new ContainerRegisterMessage(this, true, false));
    Framework::Task::Init();
    return 0;
}

void DockerFileTask::UnInit() {
    SendDirectMsg("container_collect_task", new ContainerRegisterMessage(this, false, false));
    ClearDockerCache();
    SendDirectMsg("audit_task", new AuditUnsubscribeMessage(this));
    Framework::Task::UnInit();
}

int DockerFileTask::Run() {
    while (!isCancelled()) {
        DOCKERFILE_CPU_LIMIT(gRunLoopTick);
        if (GetEventWaiter().WaitAndHandleEvent(kWaitMs, kBatch) == -1) BulkConsumeMsg(kBatch);
    }
    return 0;
}

int DockerFileTask::Receive(const ContainerMessage& msg) {
    DOCKERFILE_CPU_LIMIT(gContainerTick);
    // Our own reference: the description stays alive for the whole call.
    const std::shared_ptr<ContainerInfo> container = msg.containerInfo;
    if (!container) return 0;
    if (container->running) {
        OnContainerStart(*container);
    } else {
        OnContainerExit(*container);
    }
    return 0;
}

void DockerFileTask::OnContainerStart(const ContainerInfo& container) {
    TW_LOG(Log(), PRIO_DEBUG,
           "Docker file module receive docker start message. docker(%s),cmd(%s),image(%s)",
           container.name, container.cmd, container.imageName);
    const std::shared_ptr<Framework::Policy> current = GetFeaturePolicy();
    const auto* policy = dynamic_cast<const DockerFilePolicy*>(current.get());
    if (policy == nullptr) {
        TW_LOG(Log(), PRIO_ERROR, "Docker file task get feature policy failed.");
        return;
    }
    DockerFileCacheInfo record;
    if (!policy->GetImageFileRule(container.imageId, container.imageName, record.protectFiles,
                                  record.elfForbidden)) {
        return;
    }
    record.containerInfo = container;
    if (!InsertDockerInfoCache(record)) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file task insert exist docker cache. name:%s, image:%s",
               container.name, container.imageName);
        return;
    }
    AddDockerUserFileMonitor(record, this);
    AddDockerRootFsMonitor(record, this);
}

void DockerFileTask::OnContainerExit(const ContainerInfo& container) {
    TW_LOG(Log(), PRIO_DEBUG,
           "Docker file module receive docker exit message. docker(%s), cmd(%s),image(%s)",
           container.name, container.cmd, container.imageName);
    DockerFileCacheInfo record;
    if (!GetDockerInfoFromCache(container.id, record)) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file task do not find containre cache.");
        return;
    }
    DeleteDockerUserFileMonitor(record, this);
    DeleteDockerRootFsMonitor(record, this);
    DeleteDockerInfoCache(container.id);
}

int DockerFileTask::Receive(const AuditEventMessage& msg) {
    AuditMessageProcess(msg, this);
    DOCKERFILE_CPU_LIMIT(gAuditTick);
    return 0;
}

int DockerFileTask::FileNotifyMessageAction(FileNotifyMessage* msg) {
    UserFileNotifyMessageProcess(msg, this);
    DOCKERFILE_CPU_LIMIT(gFileNotifyTick);
    return 0;
}

bool DockerFileTask::InsertDockerInfoCache(DockerFileCacheInfo& info) {
    const std::string& id = info.containerInfo.id;
    if (dockerInfoCache.count(id) != 0) return false;
    info.index = dockerIndex++;  // never reused; wraps modulo 2^64
    dockerInfoCache[id] = info;
    dockerIndexCache[info.index] = id;
    TW_LOG(Log(), PRIO_DEBUG, "Docker file add docker cache, index=%lu, name=%s.",
           static_cast<unsigned long>(info.index), info.containerInfo.name);
    return true;
}

void DockerFileTask::DeleteDockerInfoCache(const std::string& containerId) {
    const auto it = dockerInfoCache.find(containerId);
    if (it == dockerInfoCache.end()) return;
    TW_LOG(Log(), PRIO_DEBUG, "Docker file delete docker cache, index=%lu, name=%s.",
           static_cast<unsigned long>(it->second.index), it->second.containerInfo.name);
    dockerIndexCache.erase(it->second.index);
    dockerInfoCache.erase(it);
}

bool DockerFileTask::GetDockerInfoFromCache(const std::string& containerId,
                                            DockerFileCacheInfo& info) {
    const auto it = dockerInfoCache.find(containerId);
    if (it == dockerInfoCache.end()) return false;
    info = it->second;
    return true;
}

bool DockerFileTask::MatchDockerCache(const std::string& path, uint64_t index,
                                      DockerFileCacheInfo& info) {
    const auto byIndex = dockerIndexCache.find(index);
    if (byIndex == dockerIndexCache.end()) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file not match cache index. index=%lu, path=%s",
               static_cast<unsigned long>(index), path);
        return false;
    }
    const auto byId = dockerInfoCache.find(byIndex->second);
    if (byId == dockerInfoCache.end()) {
        TW_LOG(Log(), PRIO_WARNING, "Docker file not match container id. cid=%s, file=%s",
               byIndex->second, path);
        return false;
    }
    const ContainerInfo& container = byId->second.containerInfo;
    // A plain leading-substring test, deliberately blind to path separators.
    if (path.find(container.rootPath) != 0) {
        TW_LOG(Log(), PRIO_WARNING,
               "Docker file root path match failed. container=%s, file=%s, root=%s", container.name,
               path, container.rootPath);
        return false;
    }
    info = byId->second;
    TW_LOG(Log(), PRIO_DEBUG, "Docker file matched docker by index, index=%lu, name=%s.",
           static_cast<unsigned long>(index), container.name);
    return true;
}

void DockerFileTask::ClearDockerCache() {
    TW_LOG(Log(), PRIO_DEBUG, "Docker file module exit clear docker cache");
    for (const auto& entry : dockerInfoCache) {
        DeleteDockerUserFileMonitor(entry.second, this);
        DeleteDockerRootFsMonitor(entry.second, this);
    }
    dockerInfoCache.clear();
    dockerIndexCache.clear();
}

}  // namespace Engine
