// The audit module loaded as the agent loads it, on the real framework and the kernel's audit
// system, with a recording task in place of the feature module. Needs root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <string>

#include "engine/AbstructMessage.h"
#include "framework/Counters.h"
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

// The test's keys are letters, digits, ':' and '-': plain text in a pattern.
bool HasRuleWithKey(const std::string& key) {
    return Shell::Run("auditctl -l | grep -q -e ' -k " + key + "$'").Ok();
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
    RecorderTask() : TestSupport::RecordingTask<Received>("audit_test_recorder", 256) {}

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
        return Shell::Output("auditctl -s 2>/dev/null | sed -n 's/^" + name + " //p'");
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
        SDK::ConfigUtils::Set("audit.state_file", ledger_);
        recorder_ = host_.Add(new RecorderTask());
        ASSERT_NE(nullptr, recorder_);
    }

    void TearDown() override {
        StopModule();
        host_.Clear();
        SDK::ConfigUtils::Clear();
        // Whatever failed above, no rule of this test may stay in the kernel (and without a
        // prefix, as when skipped, no rule is this test's).
        if (keyPrefix_.empty()) return;
        Shell::Run("auditctl -l | grep -e ' -k " + keyPrefix_ + "' | sed 's/^-w /-W /' | " +
                   "while read -r rule; do auditctl $rule; done >/dev/null 2>&1");
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

    // Asks for a watch of `path` under `key`; true once the kernel has the rule.
    bool Watch(const std::string& path, const std::string& key) {
        Request("-w", path, key);
        return WaitUntil([&] { return HasRuleWithKey(key); });
    }

    // Events of `key` whose first path is `path`.
    static std::function<bool(const Received&)> Naming(const std::string& key,
                                                       const std::string& path) {
        return [key, path](const Received& r) {
            return r.key == key && !r.syscall.paths.empty() && r.syscall.paths[0].name == path;
        };
    }

    // Waits for an event of `key` whose first path is `path` and that `also` accepts.
    bool WaitForEvent(const std::string& key, const std::string& path, Received& got,
                      const std::function<bool(const Received&)>& also = nullptr) {
        const auto match = Naming(key, path);
        return WaitUntil([&] {
            return recorder_->Find(
                [&](const Received& r) { return match(r) && (!also || also(r)); }, got);
        });
    }

    TestSupport::TempDir tmp_{"tw-audit-test"};
    const std::string dir_ = tmp_.Path();
    const std::string ledger_ = tmp_ / "state/audit-rules.json";
    std::string keyPrefix_;
    TestSupport::TaskHost host_{"audit_test_recorder_module"};
    TestSupport::ServiceModule service_;
    RecorderTask* recorder_ = nullptr;
    static inline std::string wasEnabled_;
    static inline std::string backlogBefore_;
};

TEST_F(AuditModuleTest, ExecutableWrittenUnderAWatchArrivesWhenItHasSettled) {
    StartModule();
    const std::string root = tmp_.Dir("root");
    const std::string key = keyPrefix_ + "write";
    ASSERT_TRUE(Watch(root, key)) << AuditRules();

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
    ASSERT_TRUE(WaitForEvent(key, file, got));
    EXPECT_TRUE(got.syscall.write);
    EXPECT_EQ(std::to_string(writer), got.syscall.pid);
    EXPECT_EQ(std::to_string(::getpid()), got.syscall.ppid);
    std::string comm = FileText::Read("/proc/self/comm");  // a forked child keeps its name
    while (!comm.empty() && comm.back() == '\n') comm.pop_back();
    EXPECT_EQ(comm, got.syscall.processName);
    EXPECT_EQ(static_cast<long long>(image.size()), got.sizeAtReceipt);
    EXPECT_EQ(1u, recorder_->Count(Naming(key, file)));

    ASSERT_GT(ForkAndWait([&] { return ::chmod(file.c_str(), 0700) == 0; }), 0);
    EXPECT_TRUE(WaitForEvent(key, file, got,
                             [](const Received& r) { return r.syscall.attr && !r.syscall.write; }));

    Request("-W", root, key);
    EXPECT_TRUE(WaitUntil([&] { return !HasRuleWithKey(key); })) << AuditRules();
}

// A subscriber's bad requests are dropped (counted), its rules are kept in the kernel and in
// the ledger against whoever removes them, and go when it unsubscribes.
TEST_F(AuditModuleTest, RulesFollowTheSubscriber) {
    StartModule();
    auto& rejected = Framework::Counters::Instance().Get("audit.rules.rejected");
    auto& restored = Framework::Counters::Instance().Get("audit.rules.restored");
    const uint64_t rejectedBefore = rejected.load();
    Request("-w", "", keyPrefix_ + "empty");
    Request("-w", "relative/path", keyPrefix_ + "relative");
    Request("-x", dir_, keyPrefix_ + "option");
    const std::string root = tmp_.Dir("repaired");
    const std::string key = keyPrefix_ + "repaired";
    const std::string other = keyPrefix_ + "other";
    ASSERT_TRUE(Watch(root, key)) << AuditRules();
    ASSERT_TRUE(Watch(tmp_.Dir("other"), other)) << AuditRules();
    EXPECT_EQ(rejectedBefore + 3, rejected.load());
    EXPECT_FALSE(HasRuleWithKey(keyPrefix_ + "relative"));
    EXPECT_NE(std::string::npos, FileText::Read(ledger_).find(key));

    const uint64_t restoredBefore = restored.load();
    // The repair may come before a look at the rules could see the gap: the counter says it
    // happened.
    ASSERT_TRUE(Shell::Run("auditctl -W " + root + " -p wa -k " + key + " >/dev/null 2>&1").Ok());
    EXPECT_TRUE(WaitUntil([&] { return restored.load() == restoredBefore + 1; }));
    EXPECT_TRUE(HasRuleWithKey(key)) << AuditRules();

    ASSERT_EQ(
        0, recorder_->SendDirectMsg("audit_task", new Engine::AuditUnsubscribeMessage(recorder_)));
    EXPECT_TRUE(WaitUntil([&] { return !HasRuleWithKey(key) && !HasRuleWithKey(other); }))
        << AuditRules();
}

// At start, only what an earlier run of the agent remembered adding goes; at stop, every rule
// this run added, whether its path exists or not. Another tool's rule stays.
TEST_F(AuditModuleTest, RulesOfAnEarlierRunGoAtStartAndOursAtStop) {
    const std::string stale = tmp_.Dir("stale");
    const std::string key = keyPrefix_ + "stale";
    const std::string foreign = keyPrefix_ + "foreign";
    Shell::Run("auditctl -w " + stale + " -p wa -k " + key + " >/dev/null 2>&1");
    Shell::Run("auditctl -w " + stale + " -p wa -k " + foreign + " >/dev/null 2>&1");
    ASSERT_TRUE(HasRuleWithKey(key)) << AuditRules();
    tmp_.Dir("state");
    FileText::Write(ledger_, "[{\"path\":\"" + stale + "\",\"perms\":\"wa\",\"key\":\"" + key +
                                 "\",\"directory\":true}]");
    StartModule();
    EXPECT_FALSE(HasRuleWithKey(key)) << AuditRules();
    EXPECT_TRUE(HasRuleWithKey(foreign)) << AuditRules();
    EXPECT_EQ(0u, FileText::Read(ledger_).find("[]"));

    const std::string keyA = keyPrefix_ + "a";
    const std::string keyB = keyPrefix_ + "b";
    ASSERT_TRUE(Watch(tmp_.Dir("a"), keyA)) << AuditRules();
    ASSERT_TRUE(Watch(dir_ + "/missing-file", keyB)) << AuditRules();
    StopModule();
    EXPECT_FALSE(HasRuleWithKey(keyA));
    EXPECT_FALSE(HasRuleWithKey(keyB));
    EXPECT_TRUE(HasRuleWithKey(foreign)) << AuditRules();
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

// A write inside the container arrives under its host path once complete. What a hostile
// container spells (a climb above its root, links to host paths) arrives as a path inside its
// root, or not at all; never as a host path outside it.
TEST_F(AuditContainerTest, WritesArriveAsHostPathsInsideTheContainerRoot) {
    StartModule();
    const std::string key = keyPrefix_ + container_;
    ASSERT_TRUE(Watch(merged_, key)) << AuditRules();
    Shell::Run("docker exec -w /usr/bin " + container_ + " sh -c 'cp /bin/busybox /usr/bin/tool;" +
               " ln -s " + dir_ + " /usr/bin/hostdir; ln -s /bin/busybox /usr/bin/evil;" +
               " cp /bin/busybox ../../../../../usr/bin/climbed'");
    Received got;
    ASSERT_TRUE(WaitForEvent(key, merged_ + "/usr/bin/tool", got,
                             [](const Received& r) { return r.syscall.write; }));
    EXPECT_EQ("cp", got.syscall.processName);
    struct stat st {};
    ASSERT_EQ(0, ::stat("/bin/busybox", &st));
    EXPECT_EQ(static_cast<long long>(st.st_size), got.sizeAtReceipt);
    ASSERT_TRUE(WaitForEvent(key, merged_ + "/usr/bin/climbed", got));
    EXPECT_EQ(merged_, got.root);
    ASSERT_TRUE(WaitForEvent(key, merged_ + "/bin/busybox", got))
        << "the link to /bin/busybox is not judged by the container's busybox";
    EXPECT_EQ(0u, recorder_->Count([&](const Received& r) {
        for (const auto& item : r.syscall.paths) {
            if (item.name.compare(0, merged_.size() + 1, merged_ + "/") != 0) return true;
        }
        return false;
    }));
}

}  // namespace
