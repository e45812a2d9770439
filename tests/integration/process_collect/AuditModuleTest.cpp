// The audit module loaded as the agent loads it, on the real framework and the kernel's audit
// system, with a recording task in place of the feature module. Needs root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "engine/AbstructMessage.h"
#include "framework/Counters.h"
#include "framework/Task.h"
#include "process_collect/AuditEventMessage.h"
#include "process_collect/AuditFileSystemCtrlMessage.h"
#include "process_collect/AuditUnsubscribeMessage.h"
#include "sdk/ConfigUtils.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/RecordingTask.h"
#include "support/ServiceModule.h"
#include "support/Shell.h"
#include "support/TaskHost.h"
#include "support/TempDir.h"

namespace {

using TestSupport::FileText;
using TestSupport::Shell;
using TestSupport::WaitUntil;

constexpr const char* kRecorderName = "audit_test_recorder";

// Runs `work` in a child forked now and waits for it: the child's pid, or -1 when the fork
// failed or `work` returned false. `work` may only make system calls (no allocation: the
// parent has threads).
pid_t ForkAndWait(const std::function<bool()>& work) {
    const pid_t child = ::fork();
    if (child < 0) return -1;
    if (child == 0) ::_exit(work() ? 0 : 1);
    int status = 0;
    if (::waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? child : -1;
}

std::string AuditRules() { return Shell::Run("auditctl -l 2>&1").out; }

bool HasRuleWithKey(const std::string& key) {
    std::istringstream lines(AuditRules());
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t at = line.rfind("-k ");
        if (at != std::string::npos && line.substr(at + 3) == key) return true;
    }
    return false;
}

struct Received {
    std::string key;
    std::string root;
    Engine::AuditLogSyscall syscall;
    long long sizeAtReceipt = -1;
};

// Stands in for the feature module: records every audit event it is sent.
class RecorderTask : public TestSupport::RecordingTask<Received>,
                     public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    RecorderTask() : TestSupport::RecordingTask<Received>(kRecorderName, 256) {}

    int Receive(const Engine::AuditEventMessage& msg) override {
        Received item;
        item.key = msg.key;
        item.root = msg.root;
        item.syscall = *msg.syscall;
        struct stat st {};
        if (!msg.syscall->paths.empty() && ::stat(msg.syscall->paths[0].name.c_str(), &st) == 0) {
            item.sizeAtReceipt = st.st_size;
        }
        Record(item);
        return 0;
    }
};

class AuditModuleTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (::geteuid() != 0) return;
        wasEnabled_ = AuditStatus("enabled");
        backlogBefore_ = AuditStatus("backlog_limit");
    }

    static void TearDownTestSuite() {
        // The module turns audit on when it finds it off; leave the machine as it was.
        if (::geteuid() != 0) return;
        if (wasEnabled_ == "0") Shell::Run("auditctl -e 0 >/dev/null 2>&1");
        if (!backlogBefore_.empty())
            Shell::Run("auditctl -b " + backlogBefore_ + " >/dev/null 2>&1");
    }

    static std::string AuditStatus(const std::string& name) {
        std::istringstream lines(Shell::Run("auditctl -s 2>/dev/null").out);
        std::string line;
        const std::string prefix = name + " ";
        while (std::getline(lines, line)) {
            if (line.compare(0, prefix.size(), prefix) == 0) return line.substr(prefix.size());
        }
        return std::string();
    }

    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root: kernel audit rules and the audit multicast group";
        }
        if (Shell::Output("command -v auditctl").empty())
            GTEST_SKIP() << "auditctl is not installed";
        keyPrefix_ = "cid:twtest-" + std::to_string(::getpid()) + "-";
        SDK::ConfigUtils::Set("audit.settle_ms", "200");
        SDK::ConfigUtils::Set("audit.max_delay_ms", "4000");
        SDK::ConfigUtils::Set("audit.rule_check_ms", "200");
        SDK::ConfigUtils::Set("audit.state_file", dir_ + "/state/audit-rules.json");
        recorder_ = host_.Add(new RecorderTask());
        ASSERT_NE(nullptr, recorder_);
    }

    void TearDown() override {
        StopModule();
        host_.Clear();
        // Whatever failed above, no rule of this test may stay in the kernel.
        std::istringstream lines(AuditRules());
        std::string line;
        while (std::getline(lines, line)) {
            if (line.find("-k " + keyPrefix_) == std::string::npos) continue;
            Shell::Run("auditctl " + std::string(line).replace(0, 2, "-W") + " >/dev/null 2>&1");
        }
        SDK::ConfigUtils::Clear();
    }

    void StartModule() {
        ASSERT_TRUE(service_.Load("libprocess_collect_module.so")) << service_.Error();
        ASSERT_NE(nullptr, service_.Get()->FindTask("audit_task"));
    }

    void StopModule() { service_.Stop(); }

    void Request(const std::string& option, const std::string& path, const std::string& key) {
        auto* msg = new Engine::AuditFileSystemCtrlMessage(recorder_);
        msg->ruleKey = key;
        msg->ruleOption = option;
        msg->ruleArgument = path + " -p wa";
        ASSERT_EQ(0, recorder_->SendDirectMsg("audit_task", msg));
    }

    std::string MakeDir(const std::string& name) {
        const std::string path = dir_ + "/" + name;
        ::mkdir(path.c_str(), 0755);
        return path;
    }

    TestSupport::TempDir tmp_{"tw-audit-test"};
    const std::string dir_ = tmp_.Path();
    std::string keyPrefix_;
    TestSupport::TaskHost host_{"audit_test_recorder_module"};
    TestSupport::ServiceModule service_;
    RecorderTask* recorder_ = nullptr;
    static std::string wasEnabled_;
    static std::string backlogBefore_;
};

std::string AuditModuleTest::wasEnabled_;
std::string AuditModuleTest::backlogBefore_;

TEST_F(AuditModuleTest, ExecutableWrittenUnderAWatchArrivesWhenItHasSettled) {
    StartModule();
    const std::string root = MakeDir("root");
    const std::string key = keyPrefix_ + "write";
    Request("-w", root, key);
    ASSERT_TRUE(WaitUntil([&] { return HasRuleWithKey(key); })) << AuditRules();

    const std::string image = FileText::Read("/bin/true");
    ASSERT_GT(image.size(), 1000u);
    const std::string file = root + "/tool";
    const std::size_t half = image.size() / 2;
    // The writer is a process forked now: the kernel audits only processes forked after audit
    // was first enabled since boot, and on a fresh machine the module enables it in this one.
    const pid_t writer = ForkAndWait([&] {
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
        if (fd < 0 || ::write(fd, image.data(), half) != static_cast<ssize_t>(half)) return false;
        // A writer that pauses midway: the event must wait for the rest of the file.
        const timespec pause{0, 100 * 1000 * 1000};
        ::nanosleep(&pause, nullptr);
        const std::size_t rest = image.size() - half;
        const bool whole = ::write(fd, image.data() + half, rest) == static_cast<ssize_t>(rest);
        return ::close(fd) == 0 && whole;
    });
    ASSERT_GT(writer, 0);

    Received got;
    const auto isOurs = [&](const Received& r) {
        return r.key == key && !r.syscall.paths.empty() && r.syscall.paths[0].name == file;
    };
    ASSERT_TRUE(WaitUntil([&] { return recorder_->Find(isOurs, got); }));
    EXPECT_TRUE(got.syscall.write);
    EXPECT_EQ(std::to_string(writer), got.syscall.pid);
    EXPECT_EQ(std::to_string(::getpid()), got.syscall.ppid);
    std::string comm = FileText::Read("/proc/self/comm");  // a forked child keeps its name
    while (!comm.empty() && comm.back() == '\n') comm.pop_back();
    EXPECT_EQ(comm, got.syscall.processName);
    EXPECT_EQ(static_cast<long long>(image.size()), got.sizeAtReceipt);
    EXPECT_EQ(1u, recorder_->Count(isOurs));

    ASSERT_GT(ForkAndWait([&] { return ::chmod(file.c_str(), 0700) == 0; }), 0);
    ASSERT_TRUE(WaitUntil([&] {
        return recorder_->Find(
            [&](const Received& r) { return isOurs(r) && r.syscall.attr && !r.syscall.write; },
            got);
    }));

    Request("-W", root, key);
    EXPECT_TRUE(WaitUntil([&] { return !HasRuleWithKey(key); })) << AuditRules();
}

TEST_F(AuditModuleTest, StoppingTheModuleDeletesEveryRuleItAdded) {
    StartModule();
    const std::string keyA = keyPrefix_ + "a";
    const std::string keyB = keyPrefix_ + "b";
    Request("-w", MakeDir("a"), keyA);
    Request("-w", dir_ + "/missing-file", keyB);  // a path that does not exist yet
    ASSERT_TRUE(WaitUntil([&] { return HasRuleWithKey(keyA) && HasRuleWithKey(keyB); }))
        << AuditRules();
    StopModule();
    EXPECT_FALSE(HasRuleWithKey(keyA));
    EXPECT_FALSE(HasRuleWithKey(keyB));
}

TEST_F(AuditModuleTest, UnsubscribeDeletesTheSubscribersRules) {
    StartModule();
    const std::string keyA = keyPrefix_ + "u1";
    const std::string keyB = keyPrefix_ + "u2";
    Request("-w", MakeDir("u1"), keyA);
    Request("-w", MakeDir("u2"), keyB);
    ASSERT_TRUE(WaitUntil([&] { return HasRuleWithKey(keyA) && HasRuleWithKey(keyB); }));
    ASSERT_EQ(
        0, recorder_->SendDirectMsg("audit_task", new Engine::AuditUnsubscribeMessage(recorder_)));
    EXPECT_TRUE(WaitUntil([&] { return !HasRuleWithKey(keyA) && !HasRuleWithKey(keyB); }))
        << AuditRules();
}

// Only what an earlier run of the agent remembered adding goes; another tool's rule stays.
TEST_F(AuditModuleTest, RulesLeftByAnEarlierRunAreDeletedAtStart) {
    const std::string stale = MakeDir("stale");
    const std::string key = keyPrefix_ + "stale";
    const std::string foreign = keyPrefix_ + "foreign";
    Shell::Run("auditctl -w " + stale + " -p wa -k " + key + " >/dev/null 2>&1");
    Shell::Run("auditctl -w " + stale + " -p wa -k " + foreign + " >/dev/null 2>&1");
    ASSERT_TRUE(HasRuleWithKey(key)) << AuditRules();
    Shell::Run("mkdir -p " + dir_ + "/state && printf '[{\"path\":\"" + stale +
               "\",\"perms\":\"wa\",\"key\":\"" + key + "\",\"directory\":true}]' > " + dir_ +
               "/state/audit-rules.json");
    StartModule();
    EXPECT_FALSE(HasRuleWithKey(key)) << AuditRules();
    EXPECT_TRUE(HasRuleWithKey(foreign)) << AuditRules();
    EXPECT_EQ(0u, FileText::Read(dir_ + "/state/audit-rules.json").find("[]"));
}

TEST_F(AuditModuleTest, RuleRemovedBehindTheAgentsBackIsAddedAgain) {
    StartModule();
    const std::string root = MakeDir("repaired");
    const std::string key = keyPrefix_ + "repaired";
    Request("-w", root, key);
    ASSERT_TRUE(WaitUntil([&] { return HasRuleWithKey(key); })) << AuditRules();
    EXPECT_NE(std::string::npos, FileText::Read(dir_ + "/state/audit-rules.json").find(key));
    auto& restored = Framework::Counters::Instance().Get("audit.rules.restored");
    const uint64_t before = restored.load();
    Shell::Run("auditctl -W " + root + " -p wa -k " + key + " >/dev/null 2>&1");
    ASSERT_FALSE(HasRuleWithKey(key)) << AuditRules();
    EXPECT_TRUE(WaitUntil([&] { return HasRuleWithKey(key); })) << AuditRules();
    EXPECT_EQ(before + 1, restored.load());
}

TEST_F(AuditModuleTest, BadRuleRequestsAreDroppedAndTheTaskGoesOn) {
    StartModule();
    auto& rejected = Framework::Counters::Instance().Get("audit.rules.rejected");
    const uint64_t before = rejected.load();
    Request("-w", "", keyPrefix_ + "empty");
    Request("-w", "relative/path", keyPrefix_ + "relative");
    Request("-x", dir_, keyPrefix_ + "option");
    const std::string key = keyPrefix_ + "good";
    Request("-w", MakeDir("good"), key);
    ASSERT_TRUE(WaitUntil([&] { return HasRuleWithKey(key); }));
    EXPECT_EQ(before + 3, rejected.load());
    EXPECT_FALSE(HasRuleWithKey(keyPrefix_ + "relative"));
}

// Docker engine needed: a container image made of busybox-static, local to this test.
class AuditContainerTest : public AuditModuleTest {
protected:
    void SetUp() override {
        AuditModuleTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        if (Shell::Output("docker info >/dev/null 2>&1 && echo up").empty()) {
            GTEST_SKIP() << "needs a running Docker engine";
        }
        if (::access("/bin/busybox", X_OK) != 0) GTEST_SKIP() << "needs busybox-static";
        image_ = "tw-audit-test:" + std::to_string(::getpid());
        const std::string rootfs = dir_ + "/rootfs";
        Shell::Run("mkdir -p " + rootfs + "/bin " + rootfs + "/usr/bin && cp /bin/busybox " +
                   rootfs + "/bin/ && for c in sh cp sleep; do ln -s busybox " + rootfs +
                   "/bin/$c; done && tar -C " + rootfs + " -c . | docker import - " + image_ +
                   " >/dev/null 2>&1");
        container_ =
            Shell::Output("docker run -d --network none " + image_ + " /bin/sleep 300 2>/dev/null");
        ASSERT_EQ(64u, container_.size()) << "container did not start";
        merged_ =
            Shell::Output("docker inspect -f '{{.GraphDriver.Data.MergedDir}}' " + container_);
        ASSERT_FALSE(merged_.empty());
    }

    void TearDown() override {
        StopModule();  // its rule goes before the container does
        if (!container_.empty()) Shell::Run("docker rm -f " + container_ + " >/dev/null 2>&1");
        if (!image_.empty()) Shell::Run("docker rmi -f " + image_ + " >/dev/null 2>&1");
        AuditModuleTest::TearDown();
    }

    std::string image_;
    std::string container_;
    std::string merged_;
};

TEST_F(AuditContainerTest, WriteInsideAContainerArrivesAsAHostPath) {
    StartModule();
    const std::string key = keyPrefix_ + container_;
    Request("-w", merged_, key);
    ASSERT_TRUE(WaitUntil([&] { return HasRuleWithKey(key); })) << AuditRules();
    Shell::Run("docker exec " + container_ + " cp /bin/busybox /usr/bin/tool");

    const std::string file = merged_ + "/usr/bin/tool";
    Received got;
    ASSERT_TRUE(WaitUntil([&] {
        return recorder_->Find(
            [&](const Received& r) {
                return r.key == key && !r.syscall.paths.empty() &&
                       r.syscall.paths[0].name == file && r.syscall.write;
            },
            got);
    }));
    EXPECT_EQ("cp", got.syscall.processName);
    struct stat st {};
    ASSERT_EQ(0, ::stat("/bin/busybox", &st));
    EXPECT_EQ(static_cast<long long>(st.st_size), got.sizeAtReceipt);
}

// What a hostile container spells (a climb above its root, links to host paths) arrives as a
// path inside its root, or not at all; never as a host path outside it.
TEST_F(AuditContainerTest, ClimbsAndLinksStayInsideTheContainer) {
    StartModule();
    const std::string key = keyPrefix_ + container_;
    Request("-w", merged_, key);
    ASSERT_TRUE(WaitUntil([&] { return HasRuleWithKey(key); })) << AuditRules();
    Shell::Run("docker exec -w /usr/bin " + container_ + " sh -c 'ln -s " + dir_ +
               " /usr/bin/hostdir; ln -s /bin/busybox /usr/bin/evil;"
               " cp /bin/busybox ../../../../../usr/bin/climbed'");
    Received got;
    ASSERT_TRUE(WaitUntil([&] {
        return recorder_->Find(
            [&](const Received& r) {
                return r.key == key && !r.syscall.paths.empty() &&
                       r.syscall.paths[0].name == merged_ + "/usr/bin/climbed";
            },
            got);
    }));
    EXPECT_EQ(merged_, got.root);
    ASSERT_TRUE(WaitUntil([&] {
        return recorder_->Find(
            [&](const Received& r) {
                return r.key == key && !r.syscall.paths.empty() &&
                       r.syscall.paths[0].name == merged_ + "/bin/busybox";
            },
            got);
    })) << "the link to /bin/busybox is not judged by the container's busybox";
    EXPECT_EQ(0u, recorder_->Count([&](const Received& r) {
        for (const auto& item : r.syscall.paths) {
            if (item.name.compare(0, merged_.size() + 1, merged_ + "/") != 0) return true;
        }
        return false;
    }));
}

}  // namespace
