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
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/ServiceNotifier.h"
#include "sdk/UniqueFd.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using TestSupport::FileText;

bool WaitFor(const std::function<bool()>& condition) {
    return TestSupport::WaitUntil(condition, std::chrono::seconds(20));
}

// A datagram socket standing in for the service manager's notification socket.
class NotifySocket {
public:
    /// `name`: a path, or "@name" for the abstract namespace (as in NOTIFY_SOCKET).
    explicit NotifySocket(const std::string& name) {
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
    SDK::UniqueFd fd_;
    bool bound_ = false;
};

class ServiceNotifierTest : public ::testing::Test {
protected:
    void TearDown() override { ::unsetenv("NOTIFY_SOCKET"); }
    TestSupport::TempDir dir_;
};

// Without a service manager there is nothing to tell; a malformed or dead socket is an error,
// never a crash. (The agent tells an abstract socket in the process test below.)
TEST_F(ServiceNotifierTest, TellsASocketFileNothingWithoutTheVariableAndFailsOnABadSocket) {
    NotifySocket manager(dir_ / "notify");
    ASSERT_TRUE(manager.Bound());
    ::setenv("NOTIFY_SOCKET", (dir_ / "notify").c_str(), 1);
    std::string error;
    EXPECT_TRUE(Agent::ServiceNotifier::Notify("READY=1", error)) << error;
    EXPECT_EQ(manager.Receive(), "READY=1");
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_TRUE(Agent::ServiceNotifier::Notify("READY=1", error));
    const std::pair<std::string, bool> cases[] = {{"", true},
                                                  {"relative/notify", false},
                                                  {"@", false},
                                                  {"/" + std::string(200, 'x'), false},
                                                  {dir_.Path() + "/absent", false}};
    for (const auto& [variable, ok] : cases) {
        ::setenv("NOTIFY_SOCKET", variable.c_str(), 1);
        error.clear();
        EXPECT_EQ(Agent::ServiceNotifier::Notify("READY=1", error), ok) << variable;
        EXPECT_EQ(error.empty(), ok) << variable << ": " << error;
    }
}

// The agent binary, as a service manager would run it: its log at log_, told where to notify.
class AgentProcessTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    // `notify`: the socket the agent is told to notify, a path or "@name" (abstract).
    void Launch(const std::string& moduleDir, const std::string& policyDir,
                const std::string& notify) {
        notify_ = std::make_unique<NotifySocket>(notify);
        ASSERT_TRUE(notify_->Bound()) << notify;
        std::vector<std::string> args = {
            AGENT_BINARY,          "--config",    "/dev/null",    "--module-dir", moduleDir,
            "--policy-dir",        policyDir,     "--log",        log_,           "--alarms",
            dir_ / "alarms.jsonl", "--spool-dir", dir_ / "spool", "--log-level",  "debug"};
        std::vector<char*> argv;
        for (auto& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        // Made before the fork: between fork and exec a multi-threaded process may only make
        // async-signal-safe calls, and setenv allocates.
        std::vector<std::string> env = {"NOTIFY_SOCKET=" + notify,
                                        std::string("LD_LIBRARY_PATH=") + TARNWICK_LIB_DIR};
        for (char** e = environ; *e != nullptr; ++e) {
            const std::string entry = *e;
            if (entry.rfind("NOTIFY_SOCKET=", 0) != 0 && entry.rfind("LD_LIBRARY_PATH=", 0) != 0) {
                env.push_back(entry);
            }
        }
        std::vector<char*> envp;
        for (auto& entry : env) envp.push_back(entry.data());
        envp.push_back(nullptr);
        pid_ = ::fork();
        ASSERT_GE(pid_, 0);
        if (pid_ > 0) return;
        ::execve(AGENT_BINARY, argv.data(), envp.data());
        ::_exit(127);
    }
    // Exit code after SIGTERM, -1 when the agent did not end within the deadline.
    int Terminate() {
        ::kill(pid_, SIGTERM);
        int status = 0;
        if (!WaitFor([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; })) return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // The log lines that hold `needle`, in the rotated log and the current one.
    std::vector<std::string> LogLines(const std::string& needle) const {
        std::vector<std::string> lines;
        for (const auto& file : {log_ + ".1", log_}) {
            for (const auto& line : FileText::Lines(file)) {
                if (line.find(needle) != std::string::npos) lines.push_back(line);
            }
        }
        return lines;
    }
    bool WaitForLog(const std::string& needle, std::size_t count = 1) const {
        return WaitFor([&] { return LogLines(needle).size() >= count; });
    }

    TestSupport::TempDir dir_;
    std::string log_ = dir_ / "agent.log";
    std::unique_ptr<NotifySocket> notify_;
    pid_t pid_ = -1;
};

// As a service manager runs it: ready only once started (told through an abstract socket), the
// log moved away by rotation reopened on SIGHUP, twice in a row, a policy that protects nothing
// warned about once each time it is delivered, stopping on SIGTERM.
TEST_F(AgentProcessTest, ReadyOnceStartedReopensItsLogWarnsOncePerDeliveryAndStopsOnTerm) {
    // Only the feature module is loaded; the libraries it needs come from the build.
    const std::string modules = dir_.Dir("modules");
    const std::string library = std::string(TARNWICK_LIB_DIR) + "/libdockerfile_module.so";
    ASSERT_EQ(::symlink(library.c_str(), (modules + "/libdockerfile_module.so").c_str()), 0);
    const std::string policies = dir_.Dir("policy.d");
    FileText::Write(policies + "/10001.json", R"({"content": {"rules": {"image_id": "x"}}})");
    Launch(modules, policies, "@tarnwick-notify-" + std::to_string(::getpid()));
    ASSERT_EQ(notify_->Receive(), "READY=1");
    EXPECT_EQ(LogLines("Agent started").size(), 1u) << FileText::Read(log_);
    const std::string object = "protects nothing: content.rules is an object, not an array";
    EXPECT_TRUE(WaitForLog(object)) << FileText::Read(log_);
    ASSERT_EQ(::rename(log_.c_str(), (log_ + ".1").c_str()), 0);
    ASSERT_EQ(::kill(pid_, SIGHUP), 0);
    ASSERT_TRUE(WaitForLog("reopened")) << "no new log at " << log_;
    // A second delivery, of another document that protects nothing.
    FileText::Write(policies + "/.next", R"({"content": "{\"rules\": []}"})");
    ASSERT_EQ(std::rename((policies + "/.next").c_str(), (policies + "/10001.json").c_str()), 0);
    EXPECT_TRUE(WaitForLog("protects nothing: content is a string")) << FileText::Read(log_);
    ASSERT_EQ(::kill(pid_, SIGHUP), 0);
    ASSERT_TRUE(WaitForLog("reopened", 2));
    EXPECT_EQ(Terminate(), 0);
    EXPECT_EQ(notify_->Receive(5000), "STOPPING=1");
    EXPECT_EQ(LogLines(object).size(), 1u);
    const auto warnings = LogLines("protects nothing");
    EXPECT_EQ(warnings.size(), 2u) << FileText::Read(log_);
    for (const auto& line : warnings) {
        EXPECT_NE(line.find("[Warning] agent AgentApplication.cpp"), std::string::npos) << line;
    }
}

}  // namespace
