#include "ContainerFeedFixture.h"

#include <dlfcn.h>

#include <cstdio>
#include <thread>

#include "container/ContainerRegisterMessage.h"
#include "sdk/ConfigUtils.h"

namespace Engine {
namespace Testing {

namespace {
class HostModule : public Framework::Module {
public:
    HostModule() : Framework::Module("container_test_host") {}
};
}  // namespace

std::string Shell(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buf[256];
    while (fgets(buf, sizeof buf, pipe) != nullptr) out += buf;
    if (pclose(pipe) != 0) return "";
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    return out;
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

RecordingTask::RecordingTask(const std::string& name)
    : Framework::Task(name, "test", Framework::TaskCondition::TASK_TYPE_MESSAGE, 1024) {}

int RecordingTask::Receive(const ContainerMessage& msg) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (msg.containerInfo) received_.push_back(*msg.containerInfo);
    return 0;
}

void RecordingTask::Subscribe(bool on) {
    SendDirectMsg("container_collect_task", new ContainerRegisterMessage(this, on, false));
}

std::vector<ContainerInfo> RecordingTask::Received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

size_t RecordingTask::Count(const std::string& id, bool start) {
    size_t n = 0;
    for (const auto& info : Received()) {
        if (info.id == id && info.running == start) ++n;
    }
    return n;
}

bool RecordingTask::Find(const std::string& id, bool start, ContainerInfo& out) {
    for (const auto& info : Received()) {
        if (info.id == id && info.running == start) {
            out = info;
            return true;
        }
    }
    return false;
}

void ContainerFeedFixture::LoadModule(const std::string& socketPath) {
    SDK::ConfigUtils::Set("docker.socket", socketPath);
    const std::string file = std::string(TARNWICK_LIB_DIR) + "/libcontainer_module.so";
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto create = reinterpret_cast<CreateModuleFunc>(dlsym(handle, "CreateModule"));
    ASSERT_NE(create, nullptr);
    containerModule_ = create();
    ASSERT_NE(containerModule_, nullptr);
    ASSERT_EQ(containerModule_->Init(), 0);
}

RecordingTask* ContainerFeedFixture::AddRecorder(const std::string& name) {
    if (hostModule_ == nullptr) hostModule_ = new HostModule();
    auto* task = new RecordingTask(name);
    EXPECT_EQ(hostModule_->RegisterTask(task, false), 0);
    recorders_.push_back(name);
    return task;
}

void ContainerFeedFixture::TearDown() {
    if (containerModule_ != nullptr) {
        containerModule_->UnInit();
        containerModule_->release();
        containerModule_ = nullptr;
    }
    if (hostModule_ != nullptr) {
        for (const auto& name : recorders_) hostModule_->UnRegisterTask(name);
        hostModule_->release();
        hostModule_ = nullptr;
    }
    SDK::ConfigUtils::Clear();
}

}  // namespace Testing
}  // namespace Engine
