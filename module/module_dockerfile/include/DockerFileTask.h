#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "container/ContainerInfo.h"
#include "container/ContainerMessage.h"
#include "engine/AbstractMessageReceiver.h"
#include "engine/AbstructMessage.h"
#include "filenotify/FileNotifyMessage.h"
#include "framework/Task.h"
#include "process_collect/AuditEventMessage.h"

namespace Engine {

/// One protected container: its description, the protected files and executable flag of the
/// rule that matched at its start, and its cache index.
struct DockerFileCacheInfo {
    ContainerInfo containerInfo;
    std::vector<std::string> protectFiles;
    bool elfForbidden = false;
    uint64_t index = 0;
};

/// "dockerfile_task": follows container starts and exits, keeps the cache of protected
/// containers, and turns their file-notify and audit events into alarms. Everything runs on
/// the task's own thread, so the cache carries no lock.
class DockerFileTask : public Framework::Task,
                       public AbstractMessageReceiver,
                       public AbstructMessage<ContainerMessage>::Receiver,
                       public AbstructMessage<AuditEventMessage>::Receiver {
public:
    static constexpr const char* kTaskName = "dockerfile_task";
    static constexpr const char* kFeatureName = "dockerfile_feature";

    /// Owned by the module once registered; released by the framework, never deleted.
    DockerFileTask();
    ~DockerFileTask() override;

    /// Subscribes to container notifications.
    int Init() override;
    /// Unsubscribes, tears every cached container down and withdraws the audit subscription.
    void UnInit() override;
    /// The task thread's loop: waits on the event waiter and drains the queue until cancelled.
    int Run() override;

    /// Container start (running set) or exit; always 0.
    int Receive(const ContainerMessage& msg) override;
    /// An audit event of a root-filesystem watch; always 0.
    int Receive(const AuditEventMessage& msg) override;
    /// A file-notify event of a protected-file watch; always 0. The message stays the caller's.
    int FileNotifyMessageAction(FileNotifyMessage* msg) override;

    /// Stores a new container under the next index (written into info.index); false, with
    /// nothing changed, when the id is already cached.
    bool InsertDockerInfoCache(DockerFileCacheInfo& info);
    /// Forgets a container and its index; an unknown id changes nothing.
    void DeleteDockerInfoCache(const std::string& containerId);
    /// A copy of the record of that container; false and `info` untouched when not cached.
    bool GetDockerInfoFromCache(const std::string& containerId, DockerFileCacheInfo& info);
    /// The record of the container a file event belongs to: the index must be cached and the
    /// path must begin with the container's root path.
    bool MatchDockerCache(const std::string& path, uint64_t index, DockerFileCacheInfo& info);
    /// Withdraws every cached container's watches and audit rule and empties the cache.
    void ClearDockerCache();

private:
    void OnContainerStart(const ContainerInfo& container);
    void OnContainerExit(const ContainerInfo& container);

    std::map<std::string, DockerFileCacheInfo> dockerInfoCache;
    std::map<unsigned long, std::string> dockerIndexCache;
    unsigned long dockerIndex = 0;
};

}  // namespace Engine
