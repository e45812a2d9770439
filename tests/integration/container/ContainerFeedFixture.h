#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "container/ContainerInfo.h"
#include "container/ContainerMessage.h"
#include "support/RecordingTask.h"
#include "support/ServiceModule.h"
#include "support/TaskHost.h"

namespace Engine {
namespace Testing {

/// How long a wait on a real engine may take: it pulls, starts and stops containers.
constexpr std::chrono::seconds kEngineWait{20};

/// A subscriber that records every container notification it receives.
class RecordingTask : public TestSupport::RecordingTask<ContainerInfo>,
                      public AbstructMessage<ContainerMessage>::Receiver {
public:
    explicit RecordingTask(const std::string& name);
    int Receive(const ContainerMessage& msg) override;
    /// Sends this task's (un)subscription to the container task.
    void Subscribe(bool on);
    /// Notifications about `id` with running == `start`.
    size_t Count(const std::string& id, bool start) const;
    /// The first notification about `id` with running == `start`; false when none yet.
    bool Find(const std::string& id, bool start, ContainerInfo& out) const;
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

    TestSupport::TaskHost host_{"container_test_host"};
    TestSupport::ServiceModule containerModule_;
};

}  // namespace Testing
}  // namespace Engine
