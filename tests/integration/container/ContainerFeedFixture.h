#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "container/ContainerInfo.h"
#include "container/ContainerMessage.h"
#include "framework/Module.h"
#include "framework/Task.h"

namespace Engine {
namespace Testing {

/// Runs a shell command; its standard output without the trailing newline, "" on failure.
std::string Shell(const std::string& command);

/// Polls `condition` until it holds or `timeout` passes; true when it held.
bool WaitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds timeout = std::chrono::seconds(20));

/// A subscriber that records every container notification it receives.
class RecordingTask : public Framework::Task, public AbstructMessage<ContainerMessage>::Receiver {
public:
    explicit RecordingTask(const std::string& name);
    int Receive(const ContainerMessage& msg) override;
    /// Sends this task's (un)subscription to the container task.
    void Subscribe(bool on);
    std::vector<ContainerInfo> Received();
    /// Notifications about `id` with running == `start`.
    size_t Count(const std::string& id, bool start);
    /// The first notification about `id` with running == `start`; false when none yet.
    bool Find(const std::string& id, bool start, ContainerInfo& out);

private:
    std::mutex mutex_;  // guards received_ (task thread writes, test thread reads)
    std::vector<ContainerInfo> received_;
};

/// The container module loaded from the build's lib/ as the agent loads it, plus a host module
/// for recording subscribers. TearDown stops both.
class ContainerFeedFixture : public ::testing::Test {
protected:
    void TearDown() override;
    /// Loads and initialises libcontainer_module.so against `socketPath`.
    void LoadModule(const std::string& socketPath);
    /// Registers a recording subscriber (not yet subscribed).
    RecordingTask* AddRecorder(const std::string& name);

    Framework::Module* containerModule_ = nullptr;
    Framework::Module* hostModule_ = nullptr;
    std::vector<std::string> recorders_;
};

}  // namespace Testing
}  // namespace Engine
