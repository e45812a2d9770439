// The loaded module against the real Docker engine (root, dockerd running, image imported by
// scripts/dockerd.sh): real containers start and die, and a late subscriber is told of them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ContainerFeedFixture.h"
#include "container/DockerApiClient.h"
#include "support/Deadline.h"
#include "support/Shell.h"

namespace Engine {
namespace Testing {
namespace {

using TestSupport::Shell;
using TestSupport::WaitUntil;

const char* const kSocket = "/var/run/docker.sock";
const char* const kImage = "tarnwick/busybox:latest";

bool IsDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

class FeedAgainstDocker : public ContainerFeedFixture {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root to drive the Docker engine";
        DockerApiClient api(kSocket, 2000, 1 << 20);
        std::string body;
        std::string error;
        if (api.Get("/_ping", body, error) != 200) {
            GTEST_SKIP() << "no Docker engine on " << kSocket << " (scripts/dockerd.sh start)";
        }
        if (api.Get(std::string("/images/") + kImage + "/json", body, error) != 200) {
            GTEST_SKIP() << "image " << kImage << " missing (scripts/dockerd.sh image)";
        }
    }
    void TearDown() override {
        for (const auto& id : containers_) Shell::Output("docker rm -f " + id + " >/dev/null 2>&1");
        ContainerFeedFixture::TearDown();
    }
    // Starts a container that sleeps; its full id.
    std::string RunContainer(const std::string& name) {
        // Removed by name: a run that fails half-way still leaves a created container.
        containers_.push_back(name);
        return Shell::Output("docker run -d --name " + name + " " + kImage + " sleep 300");
    }
    std::string UniqueName(const std::string& what) {
        return "tarnwick-test-" + what + "-" + std::to_string(::getpid());
    }

    std::vector<std::string> containers_;
};

TEST_F(FeedAgainstDocker, StartAndExitOfARealContainer) {
    LoadModule(kSocket);
    RecordingTask* rec = AddRecorder("container_test_docker1");
    rec->Subscribe(true);
    const std::string name = UniqueName("start");
    const std::string id = RunContainer(name);
    ASSERT_EQ(id.size(), 64u) << "docker run failed";

    ContainerInfo info;
    ASSERT_TRUE(WaitUntil([&] { return rec->Find(id, true, info); }, kEngineWait))
        << "no start for " << id;
    EXPECT_TRUE(info.running);
    EXPECT_EQ(info.name, name);
    EXPECT_EQ(info.cmd, "sleep 300");
    EXPECT_EQ(info.imageName, kImage);
    EXPECT_EQ(info.imageId,
              Shell::Output(std::string("docker image inspect -f '{{.Id}}' ") + kImage));
    EXPECT_TRUE(IsDirectory(info.rootPath)) << info.rootPath;
    EXPECT_TRUE(IsDirectory(info.rootPath + "/bin")) << "not the container's root filesystem";

    ASSERT_FALSE(Shell::Output("docker kill " + id).empty());
    ContainerInfo exited;
    ASSERT_TRUE(WaitUntil([&] { return rec->Find(id, false, exited); }, kEngineWait))
        << "no exit for " << id;
    EXPECT_FALSE(exited.running);
    EXPECT_EQ(exited.rootPath, info.rootPath);
    EXPECT_EQ(rec->Count(id, true), 1u);
}

TEST_F(FeedAgainstDocker, ContainersRunningBeforeTheAgentAreReplayed) {
    const std::string id = RunContainer(UniqueName("early"));
    ASSERT_EQ(id.size(), 64u) << "docker run failed";
    LoadModule(kSocket);
    RecordingTask* first = AddRecorder("container_test_docker2");
    first->Subscribe(true);
    ASSERT_TRUE(WaitUntil([&] { return first->Count(id, true) == 1; }, kEngineWait));

    RecordingTask* late = AddRecorder("container_test_docker3");
    late->Subscribe(true);
    ContainerInfo replayed;
    ASSERT_TRUE(WaitUntil([&] { return late->Find(id, true, replayed); }, kEngineWait));
    EXPECT_TRUE(IsDirectory(replayed.rootPath));

    ASSERT_FALSE(Shell::Output("docker rm -f " + id).empty());
    ASSERT_TRUE(WaitUntil(
        [&] { return first->Count(id, false) == 1 && late->Count(id, false) == 1; }, kEngineWait));
    EXPECT_EQ(first->Count(id, true), 1u);
    EXPECT_EQ(late->Count(id, true), 1u);
}

}  // namespace
}  // namespace Testing
}  // namespace Engine
