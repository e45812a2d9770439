#include "ContainerFeedFixture.h"

#include "container/ContainerRegisterMessage.h"
#include "sdk/ConfigUtils.h"

namespace Engine {
namespace Testing {

namespace {
std::function<bool(const ContainerInfo&)> About(const std::string& id, bool start) {
    return
        [id, start](const ContainerInfo& info) { return info.id == id && info.running == start; };
}
}  // namespace

RecordingTask::RecordingTask(const std::string& name)
    : TestSupport::RecordingTask<ContainerInfo>(name) {}

int RecordingTask::Receive(const ContainerMessage& msg) {
    if (msg.containerInfo) Record(*msg.containerInfo);
    return 0;
}

void RecordingTask::Subscribe(bool on) {
    SendDirectMsg("container_collect_task", new ContainerRegisterMessage(this, on, false));
}

size_t RecordingTask::Count(const std::string& id, bool start) const {
    return TestSupport::RecordingTask<ContainerInfo>::Count(About(id, start));
}

bool RecordingTask::Find(const std::string& id, bool start, ContainerInfo& out) const {
    return TestSupport::RecordingTask<ContainerInfo>::Find(About(id, start), out);
}

void ContainerFeedFixture::LoadModule(const std::string& socketPath) {
    SDK::ConfigUtils::Set("docker.socket", socketPath);
    ASSERT_TRUE(containerModule_.Load("libcontainer_module.so")) << containerModule_.Error();
}

RecordingTask* ContainerFeedFixture::AddRecorder(const std::string& name) {
    RecordingTask* task = host_.Add(new RecordingTask(name));
    EXPECT_NE(task, nullptr) << name;
    return task;
}

void ContainerFeedFixture::TearDown() {
    // The service goes first: it must not send to subscribers that are gone.
    containerModule_.Stop();
    host_.Clear();
    SDK::ConfigUtils::Clear();
}

}  // namespace Testing
}  // namespace Engine
