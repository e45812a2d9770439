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
    Engine::AuditLogSyscall syscall;
    long long sizeAtReceipt = -1;
};

// Stands in for the feature module: records every audit event it is sent.
class RecorderTask : public TestSupport::RecordingTask<Received>,
                     public Engine::AbstructMessage<Engine::AuditEventMessage>::Receiver {
public:
    RecorderTask() : TestSupport::RecordingTask<Received>("audit_test_recorder", 256) {}

    int Receive(const Engine::AuditEventMessage& msg) override {
        Received item{msg.key, *msg.syscall};
        struct stat st {};
        if (!msg.syscall->paths.empty() && ::stat(msg.syscall->paths[0].name.c_str(), &st) == 0)
            item.sizeAtReceipt = st.st_size;
        Record(item);
        return 0;
    }
};

class AuditModuleTest : public ::testing::Test {
protected:
    // The module turns audit on when it finds it off and may raise the backlog limit: the
    // commands that leave the machine as it was (none without root or auditctl).
    static void SetUpTestSuite() {
        restoreAudit_ = Shell::Output(
            "auditctl -s 2>/dev/null | sed -n -e 's/^enabled 0$/auditctl -e 0;/p' "
            "-e 's/^backlog_limit \\([0-9]*\\)$/auditctl -b \\1;/p'");
    }

    static void TearDownTestSuite() {
        Shell::Run("{ " + restoreAudit_ + " true; } >/dev/null 2>&1");
    }

    void SetUp() override {
        if (::geteuid() != 0 || Shell::Output("command -v auditctl").empty())
            GTEST_SKIP()
                << "needs root (kernel audit rules, the audit multicast group) and auditctl";
        keyPrefix_ = "cid:twtest-" + std::to_string(::getpid()) + "-";
        SDK::ConfigUtils::Set("audit.settle_ms", "200");
        SDK::ConfigUtils::Set("audit.max_delay_ms", "4000");
        SDK::ConfigUtils::Set("audit.rule_check_ms", "200");
        SDK::ConfigUtils::Set("audit.state_file", ledger_);
        recorder_ = host_.Add(new RecorderTask());
        ASSERT_NE(nullptr, recorder_);
    }

    void TearDown() override {
        service_.Stop();
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

    TestSupport::TempDir tmp_{"tw-audit-test"};
    const std::string ledger_ = tmp_ / "state/audit-rules.json";
    std::string keyPrefix_;
    TestSupport::TaskHost host_{"audit_test_recorder_module"};
    TestSupport::ServiceModule service_;
    RecorderTask* recorder_ = nullptr;
    static inline std::string restoreAudit_;
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

    const auto tool = [&](const Received& r) {
        return r.key == key && !r.syscall.paths.empty() && r.syscall.paths[0].name == file;
    };
    Received got;
    ASSERT_TRUE(WaitUntil([&] { return recorder_->Find(tool, got); }));
    EXPECT_TRUE(got.syscall.write);
    EXPECT_EQ(std::to_string(writer), got.syscall.pid);
    EXPECT_EQ(static_cast<long long>(image.size()), got.sizeAtReceipt);
    EXPECT_EQ(1u, recorder_->Count(tool));
}

// At start, only what an earlier run of the agent remembered adding goes; another tool's rule
// stays. A subscriber's bad requests are dropped (counted); its rules are kept in the kernel and
// in the ledger; at stop every rule this run added goes, also a file rule whose path does not
// exist. (The feature module unsubscribes as it stops: the end-to-end run's SIGTERM case.)
TEST_F(AuditModuleTest, RulesFollowTheSubscriberAndOnlyTheAgentsGo) {
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

    auto& rejected = Framework::Counters::Instance().Get("audit.rules.rejected");
    const uint64_t rejectedBefore = rejected.load();
    Request("-w", "relative/path", keyPrefix_ + "relative");
    Request("-x", tmp_.Path(), keyPrefix_ + "option");
    const std::string kept = keyPrefix_ + "kept";
    ASSERT_TRUE(Watch(tmp_.Dir("kept"), kept)) << AuditRules();
    EXPECT_EQ(rejectedBefore + 2, rejected.load());
    EXPECT_NE(std::string::npos, FileText::Read(ledger_).find(kept));

    const std::string missing = keyPrefix_ + "missing";
    ASSERT_TRUE(Watch(tmp_ / "missing-file", missing)) << AuditRules();
    service_.Stop();
    EXPECT_FALSE(HasRuleWithKey(missing) || HasRuleWithKey(kept)) << AuditRules();
    EXPECT_TRUE(HasRuleWithKey(foreign)) << AuditRules();
}

}  // namespace
