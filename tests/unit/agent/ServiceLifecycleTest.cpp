#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "agent/ServiceNotifier.h"
#include "sdk/UniqueFd.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

bool WaitFor(const std::function<bool()>& condition) {
    return TestSupport::WaitUntil(condition, std::chrono::seconds(20));
}

// A datagram socket standing in for the service manager's notification socket.
class NotifySocket {
public:
    /// `name`: a path, or "@name" for the abstract namespace (as in NOTIFY_SOCKET).
    explicit NotifySocket(const std::string& name) : name_(name) {
        fd_.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name[0] == '@') address.sun_path[0] = '\0';
        const socklen_t length = offsetof(sockaddr_un, sun_path) + name.size();
        bound_ = ::bind(fd_.Get(), reinterpret_cast<sockaddr*>(&address), length) == 0;
    }
    bool Bound() const { return bound_; }
    /// The next datagram, or "" when none comes within `ms`.
    std::string Receive(int ms = 20000) {
        pollfd p{fd_.Get(), POLLIN, 0};
        if (::poll(&p, 1, ms) != 1) return std::string();
        char buffer[256];
        const ssize_t n = ::recv(fd_.Get(), buffer, sizeof(buffer), 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
    }

private:
    std::string name_;
    SDK::UniqueFd fd_;
    bool bound_ = false;
};

using ScratchDir = TestSupport::TempDir;

class ServiceNotifierTest : public ::testing::Test {
protected:
    void TearDown() override { ::unsetenv("NOTIFY_SOCKET"); }
    ScratchDir dir_;
};

TEST_F(ServiceNotifierTest, SendsTheStateToAPathOrAnAbstractSocket) {
    const std::string abstract = "@tarnwick-notify-" + std::to_string(::getpid());
    for (const std::string& name : {dir_.Path() + "/notify", abstract}) {
        NotifySocket socket(name);
        ASSERT_TRUE(socket.Bound()) << name;
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
        std::string error;
        ASSERT_TRUE(Agent::ServiceNotifier::Notify("READY=1", error)) << name << ": " << error;
        EXPECT_EQ(socket.Receive(5000), "READY=1") << name;
    }
}

TEST_F(ServiceNotifierTest, NothingToTellWithoutTheVariable) {
    ::unsetenv("NOTIFY_SOCKET");
    std::string error;
    EXPECT_TRUE(Agent::ServiceNotifier::Notify("READY=1", error));
    ::setenv("NOTIFY_SOCKET", "", 1);
    EXPECT_TRUE(Agent::ServiceNotifier::Notify("READY=1", error));
    EXPECT_EQ(error, "");
}

TEST_F(ServiceNotifierTest, AMalformedOrDeadSocketIsAnErrorNotACrash) {
    const std::string tooLong = "/" + std::string(200, 'x');
    for (const std::string& name :
         {std::string("relative/notify"), std::string("@"), tooLong, dir_.Path() + "/absent"}) {
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
        std::string error;
        EXPECT_FALSE(Agent::ServiceNotifier::Notify("READY=1", error)) << name;
        EXPECT_FALSE(error.empty()) << name;
    }
}

// The agent binary run with the loader's test modules, as a service manager would run it.
class AgentProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        log_ = dir_.Path() + "/agent.log";
        notify_ = std::make_unique<NotifySocket>(dir_.Path() + "/notify");
        ASSERT_TRUE(notify_->Bound());
    }
    void TearDown() override {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    void Launch() {
        pid_ = ::fork();
        ASSERT_GE(pid_, 0);
        if (pid_ > 0) return;
        ::setenv("NOTIFY_SOCKET", (dir_.Path() + "/notify").c_str(), 1);
        const std::string alarms = dir_.Path() + "/alarms.jsonl";
        const std::string spool = dir_.Path() + "/spool";
        ::execl(AGENT_BINARY, AGENT_BINARY, "--config", "/dev/null", "--module-dir",
                TEST_MODULE_DIR, "--policy-dir", dir_.Path().c_str(), "--log", log_.c_str(),
                "--alarms", alarms.c_str(), "--spool-dir", spool.c_str(), "--log-level", "debug",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // Exit code after SIGTERM, -1 when the agent did not end within the deadline.
    int Terminate() {
        ::kill(pid_, SIGTERM);
        int status = 0;
        const bool ended = WaitFor([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; });
        if (!ended) return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    ScratchDir dir_;
    std::string log_;
    std::unique_ptr<NotifySocket> notify_;
    pid_t pid_ = -1;
};

TEST_F(AgentProcessTest, ReadyOnlyOnceStartedAndStoppingOnTerm) {
    Launch();
    ASSERT_EQ(notify_->Receive(), "READY=1");
    EXPECT_NE(TestSupport::FileText::Read(log_).find("Agent started"), std::string::npos)
        << TestSupport::FileText::Read(log_);
    EXPECT_EQ(Terminate(), 0);
    EXPECT_EQ(notify_->Receive(5000), "STOPPING=1");
}

TEST_F(AgentProcessTest, SighupReopensTheLogFileMovedAway) {
    Launch();
    ASSERT_EQ(notify_->Receive(), "READY=1");
    ASSERT_EQ(::rename(log_.c_str(), (log_ + ".1").c_str()), 0);
    ASSERT_EQ(::kill(pid_, SIGHUP), 0);
    ASSERT_TRUE(WaitFor([&] {
        return TestSupport::FileText::Read(log_).find("reopened") != std::string::npos;
    })) << "no new log at "
        << log_;
    ASSERT_EQ(::kill(pid_, SIGHUP), 0);  // a second rotation in a row works too
    ASSERT_TRUE(WaitFor([&] {
        const std::string text = TestSupport::FileText::Read(log_);
        return text.find("reopened") != text.rfind("reopened");
    }));
    EXPECT_EQ(Terminate(), 0);
    EXPECT_NE(TestSupport::FileText::Read(log_ + ".1").find("Agent started"), std::string::npos);
    EXPECT_NE(TestSupport::FileText::Read(log_).find("Agent stopped"), std::string::npos);
}

}  // namespace
