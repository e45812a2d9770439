// A private Docker engine of the test's own (own socket, data and exec roots, bridge, live
// restore) is stopped and started again under the loaded module: the module reconnects and
// settles the difference between what it announced and what runs now.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "ContainerFeedFixture.h"
#include "support/Deadline.h"
#include "support/Shell.h"
#include "support/TempDir.h"

namespace Engine {
namespace Testing {
namespace {

using TestSupport::Shell;
using TestSupport::WaitUntil;

const char* const kImage = "tarnwick/busybox:latest";

class FeedAcrossEngineRestart : public ContainerFeedFixture {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a private Docker engine";
        if (::access("/usr/sbin/dockerd", X_OK) != 0) GTEST_SKIP() << "dockerd not installed";
        tmp_.reset(new TestSupport::TempDir("tarnwick-engine"));
        dir_ = tmp_->Path();
        socket_ = dir_ + "/docker.sock";
        // A bridge of its own: an engine told "--bridge none" deletes the host's docker0, which
        // the shared engine needs.
        bridge_ = "twbr" + std::to_string(::getpid() % 100000);
        const std::string subnet = "10.254." + std::to_string(::getpid() % 250) + ".1/24";
        ASSERT_FALSE(Shell::Output("ip link add " + bridge_ + " type bridge && ip addr add " +
                                   subnet + " dev " + bridge_ + " && ip link set " + bridge_ +
                                   " up && echo ok")
                         .empty())
            << "cannot create bridge " << bridge_;
        ASSERT_TRUE(Engine("start")) << "private dockerd did not start; see " << dir_;
        ASSERT_TRUE(Engine("image"));
    }
    void TearDown() override {
        if (!tmp_) return;
        for (const auto& id : containers_) Docker("rm -f " + id);
        ContainerFeedFixture::TearDown();
        Engine("stop");
        // A live-restore engine leaves its data root mounted; deepest mounts first.
        Shell::Output("awk '{print $5}' /proc/self/mountinfo | grep '^" + dir_ +
                      "' | sort -r | xargs -r umount -l");
        tmp_.reset();
        if (!bridge_.empty()) Shell::Output("ip link del " + bridge_);
    }
    bool Engine(const std::string& verb) {
        const std::string env = "DOCKER_SOCKET=" + socket_ + " DOCKERD_STATE=" + dir_ +
                                "/dockerd.pid DOCKERD_LOG=" + dir_ +
                                "/dockerd.log DOCKERD_LOCK=" + dir_ +
                                "/lock DOCKERD_ARGS='--data-root " + dir_ + "/data --exec-root " +
                                dir_ + "/exec --pidfile " + dir_ + "/docker.pid --bridge " +
                                bridge_ + " --iptables=false --ip-masq=false --live-restore'";
        return !Shell::Output(env + " bash " + TARNWICK_SOURCE_DIR "/scripts/dockerd.sh " + verb +
                              " 2>&1 && echo ok")
                    .empty();
    }
    std::string Docker(const std::string& args) {
        return Shell::Output("docker -H unix://" + socket_ + " " + args + " 2>/dev/null");
    }
    std::string Run() {
        const std::string id =
            Docker(std::string("run -d --network none ") + kImage + " sleep 300");
        if (!id.empty()) containers_.push_back(id);
        return id;
    }

    std::unique_ptr<TestSupport::TempDir> tmp_;  // made once the test knows it can run
    std::string dir_;
    std::string socket_;
    std::string bridge_;
    std::vector<std::string> containers_;
};

TEST_F(FeedAcrossEngineRestart, ContainerThatDiedWhileTheEngineWasAwayGetsItsExit) {
    LoadModule(socket_);
    RecordingTask* rec = AddRecorder("container_test_restart");
    rec->Subscribe(true);
    const std::string doomed = Run();
    const std::string survivor = Run();
    ASSERT_EQ(doomed.size(), 64u);
    ASSERT_EQ(survivor.size(), 64u);
    ASSERT_TRUE(
        WaitUntil([&] { return rec->Count(doomed, true) == 1 && rec->Count(survivor, true) == 1; },
                  kEngineWait));
    const int pid = std::atoi(Docker("inspect -f '{{.State.Pid}}' " + doomed).c_str());
    ASSERT_GT(pid, 1);

    // Live restore keeps both running while the engine is down; one of them dies unseen.
    ASSERT_TRUE(Engine("stop"));
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    ASSERT_TRUE(WaitUntil([&] { return ::kill(pid, 0) != 0; }, kEngineWait));
    ASSERT_TRUE(Engine("start"));

    ASSERT_TRUE(WaitUntil([&] { return rec->Count(doomed, false) == 1; }, std::chrono::seconds(40)))
        << "no exit for the container that died while the engine was away";
    const std::string later = Run();
    ASSERT_EQ(later.size(), 64u);
    ASSERT_TRUE(WaitUntil([&] { return rec->Count(later, true) == 1; }, kEngineWait))
        << "events are not followed after the engine came back";
    EXPECT_EQ(rec->Count(survivor, true), 1u);
    EXPECT_EQ(rec->Count(survivor, false), 0u);
}

}  // namespace
}  // namespace Testing
}  // namespace Engine
