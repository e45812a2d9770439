#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <regex>
#include <string>

#include "agent/ServiceNotifier.h"
#include "sdk/UniqueFd.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using TestSupport::FileText;

// Without a service manager there is nothing to tell; a malformed or dead socket is an error,
// never a crash. (The agent tells a socket in the process test below.)
TEST(ServiceNotifierTest, NothingToTellWithoutTheVariableAndABadSocketIsAnError) {
    TestSupport::TempDir dir;
    for (const std::string& variable : {std::string(), std::string("relative/notify"),
                                        "/" + std::string(200, 'x'), dir / "absent"}) {
        ::setenv("NOTIFY_SOCKET", variable.c_str(), 1);
        std::string error;
        EXPECT_EQ(Agent::ServiceNotifier::Notify("READY=1", error), variable.empty()) << variable;
        EXPECT_EQ(error.empty(), variable.empty()) << variable << ": " << error;
    }
    ::unsetenv("NOTIFY_SOCKET");
}

// The agent binary, as a service manager would run it: its log at log_, told to notify an
// abstract socket (the manager's end played by notify_).
class AgentProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        notify_.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, notifyName_.data() + 1, notifyName_.size() - 1);
        const socklen_t length = offsetof(sockaddr_un, sun_path) + notifyName_.size();
        ASSERT_EQ(::bind(notify_.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    }
    void TearDown() override {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    void Launch(const std::string& moduleDir, const std::string& policyDir) {
        // env sets the variables in the child: between fork and exec a multi-threaded process
        // may only make async-signal-safe calls, and setenv allocates.
        const std::string command =
            "exec env NOTIFY_SOCKET=" + notifyName_ + " LD_LIBRARY_PATH=" + TARNWICK_LIB_DIR + " " +
            AGENT_BINARY + " --config=/dev/null --log-level=debug --module-dir=" + moduleDir +
            " --policy-dir=" + policyDir + " --log=" + log_ + " --alarms=" + dir_.Path() +
            "/alarms.jsonl --spool-dir=" + dir_.Path() + "/spool";
        pid_ = ::fork();
        ASSERT_GE(pid_, 0);
        if (pid_ > 0) return;
        ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        ::_exit(127);
    }
    // The next notification, or "" when none comes within `ms`.
    std::string Notified(int ms = 20000) {
        pollfd p{notify_.Get(), POLLIN, 0};
        if (::poll(&p, 1, ms) != 1) return std::string();
        char buffer[256];
        const ssize_t n = ::recv(notify_.Get(), buffer, sizeof(buffer), 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
    }
    // The rotated log and the current one.
    std::string Log() const { return FileText::Read(log_ + ".1") + FileText::Read(log_); }
    // How many times `needle` was logged.
    std::size_t Logged(const std::string& needle) const {
        const std::string log = Log();
        std::size_t n = 0;
        for (auto at = log.find(needle); at != std::string::npos; at = log.find(needle, at + 1))
            ++n;
        return n;
    }
    bool WaitForLog(const std::string& needle, std::size_t count = 1) const {
        return TestSupport::WaitUntil([&] { return Logged(needle) >= count; },
                                      std::chrono::seconds(20));
    }

    TestSupport::TempDir dir_;
    std::string log_ = dir_ / "agent.log";
    std::string notifyName_ = "@tarnwick-notify-" + std::to_string(::getpid());
    SDK::UniqueFd notify_;
    pid_t pid_ = -1;
};

// As a service manager runs it: ready only once started, the log moved away by rotation
// reopened on SIGHUP, twice in a row, a policy that protects nothing warned about once,
// stopping on SIGTERM.
TEST_F(AgentProcessTest, ReadyOnceStartedReopensItsLogWarnsOnceAndStopsOnTerm) {
    // Only the feature module is loaded; the libraries it needs come from the build.
    const std::string modules = dir_.Dir("modules");
    const std::string library = std::string(TARNWICK_LIB_DIR) + "/libdockerfile_module.so";
    ASSERT_EQ(::symlink(library.c_str(), (modules + "/libdockerfile_module.so").c_str()), 0);
    const std::string policies = dir_.Dir("policy.d");
    FileText::Write(policies + "/10001.json", R"({"content": {"rules": {"image_id": "x"}}})");
    Launch(modules, policies);
    ASSERT_EQ(Notified(), "READY=1");
    EXPECT_EQ(Logged("Agent started"), 1u) << Log();
    EXPECT_TRUE(WaitForLog("protects nothing: content.rules is an object, not an array"))
        << FileText::Read(log_);
    ASSERT_EQ(::rename(log_.c_str(), (log_ + ".1").c_str()), 0);
    ASSERT_EQ(::kill(pid_, SIGHUP), 0);
    ASSERT_TRUE(WaitForLog("reopened")) << "no new log at " << log_;
    ASSERT_EQ(::kill(pid_, SIGHUP), 0);
    ASSERT_TRUE(WaitForLog("reopened", 2));
    // Its exit code after SIGTERM is checked by every end-to-end case.
    ASSERT_EQ(::kill(pid_, SIGTERM), 0);
    EXPECT_EQ(Notified(5000), "STOPPING=1");
    // Warned once, not again at every scan of the policy directory.
    EXPECT_EQ(Logged("protects nothing"), 1u) << Log();
    EXPECT_TRUE(std::regex_search(
        Log(),
        std::regex(R"(\[Warning\] agent AgentApplication\.cpp:[0-9]+: [^\n]*protects nothing)")))
        << Log();
}

}  // namespace
