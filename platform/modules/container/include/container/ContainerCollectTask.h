#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "container/ContainerEventMessage.h"
#include "container/ContainerInfo.h"
#include "container/ContainerRegisterMessage.h"
#include "container/DockerApiClient.h"
#include "container/DockerEventStream.h"
#include "framework/Task.h"

namespace Engine {

/// "container_collect_task": tells subscribers which containers run. It follows the engine's
/// start/die events (DockerEventStream thread), inspects each started container on its own
/// thread and sends every subscriber a ContainerMessage per start and exit. A new subscriber
/// gets a start for every container already running; after the engine comes back the task
/// compares a fresh container list with what it announced and sends the difference.
///
/// All state below lives on the task thread (messages, resynchronisation); the stream thread
/// only enqueues ContainerEventMessages and raises the resync flag.
class ContainerCollectTask : public Framework::Task,
                             public AbstructMessage<ContainerRegisterMessage>::Receiver,
                             public AbstructMessage<ContainerEventMessage>::Receiver {
public:
    static constexpr const char* kTaskName = "container_collect_task";
    static constexpr const char* kFeature = "container_collect";
    static constexpr unsigned int kQueueCapacity = 4096;

    ContainerCollectTask();

    /// Reads "docker.socket" (default /var/run/docker.sock) and starts the event stream.
    int Init() override;
    /// Stops the event stream and joins its thread.
    void UnInit() override;

    /// Adds or removes the sender as a subscriber; a new subscriber gets the replay.
    int Receive(const ContainerRegisterMessage& msg) override;
    /// A start or die from the engine.
    int Receive(const ContainerEventMessage& msg) override;

protected:
    ~ContainerCollectTask() override;
    /// Sends notifications held back at start-up and resynchronises when asked or due.
    void OnTurn(uint64_t nowMs) override;

private:
    void OnStreamConnected();
    void OnStreamEvent(const ContainerEvent& event);
    void HandleStart(const std::string& id);
    void HandleDie(const std::string& id);
    // Brings `running_` in line with the engine's list; false when the list was unavailable.
    bool Resync();
    // Inspects a container (and its first process's pid); false (logged, counted) when
    // unavailable or malformed, with `gone` set when the engine no longer knows it.
    bool Inspect(const std::string& id, ContainerInfo& info, int& pid, bool& gone);
    // A container that ended before anyone heard of its start: counted, told at info level.
    static void CountGone(const std::string& id);
    void Announce(const std::shared_ptr<ContainerInfo>& info);
    void SendTo(const std::string& subscriber, const std::shared_ptr<ContainerInfo>& info);
    void SendDeferred();

    std::unique_ptr<DockerApiClient> api_;
    std::unique_ptr<DockerEventStream> stream_;
    std::atomic<bool> resyncRequested_{false};
    uint64_t resyncRetryAtMs_ = 0;                  // 0: no retry pending
    std::set<std::string> subscribers_;             // task names
    std::map<std::string, ContainerInfo> running_;  // id -> what subscribers were told
    // Notifications held while the agent's start-up gate is closed, in order (task thread).
    std::vector<std::pair<std::string, std::shared_ptr<ContainerInfo>>> deferred_;
};

}  // namespace Engine
