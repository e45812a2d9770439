// Container start, exit and shutdown: what the module asks its neighbours to watch and when.

#include <gtest/gtest.h>

#include "HarnessFixture.h"
#include "container/ContainerRegisterMessage.h"
#include "process_collect/AuditUnsubscribeMessage.h"

namespace DockerFileHarness {
namespace {

using Engine::AuditFileSystemCtrlMessage;
using Engine::FileNotifyWatchMessage;

const std::string kRoot = "/var/lib/docker/overlay2/abc/merged";

class ContainerStartTest : public ModuleFixture {};

TEST_F(ContainerStartTest, ProtectedStartRequestsOneWatchPerFileThenTheAuditRule) {
    Policy(
        PolicyDocument({IdRule("sha256:aa", {"/etc/passwd", "/etc/shadow", "/usr/bin/x"}, true)}));
    Sent().Clear();
    Logs().Clear();
    Notify(MakeContainer("c1", "web", "sha256:aa", "nginx:1", kRoot));
    Framework::Task* task = harness.ModuleTask();

    auto start = Logs().Exactly(
        "Docker file module receive docker start message. docker(web),cmd(/bin/sh -c "
        "run-web),image(nginx:1)");
    ASSERT_EQ(1u, start.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, start[0].priority);
    auto match = Logs().Exactly("Docker file match image by id: name(nginx:1), id(sha256:aa)");
    ASSERT_EQ(1u, match.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, match[0].priority);
    auto cached = Logs().Exactly("Docker file add docker cache, index=0, name=web.");
    ASSERT_EQ(1u, cached.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, cached[0].priority);

    auto all = Sent().All();
    ASSERT_EQ(4u, all.size()) << "three watches and one audit rule";
    const std::vector<std::string> expected = {kRoot + "/etc/passwd", kRoot + "/etc/shadow",
                                               kRoot + "/usr/bin/x"};
    uint64_t previous = cached[0].seq;
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(expected[i]);
        EXPECT_EQ(kFileNotifyTask, all[i].task);
        auto* w = dynamic_cast<FileNotifyWatchMessage*>(all[i].msg.get());
        ASSERT_NE(nullptr, w);
        EXPECT_EQ(expected[i], w->path);
        EXPECT_TRUE(w->add);
        EXPECT_EQ(WatchMasks(), w->masks);
        ExpectDefaultOptions(w->options, 0);
        EXPECT_EQ(task, w->sender);
        auto line = Logs().Exactly("Docker file add notify: " + expected[i]);
        ASSERT_EQ(1u, line.size());
        EXPECT_EQ(Poco::Message::PRIO_DEBUG, line[0].priority);
        EXPECT_LT(previous, line[0].seq);
        EXPECT_LT(line[0].seq, all[i].seq) << "logged before it is sent";
        previous = all[i].seq;
    }
    EXPECT_EQ(kAuditTask, all[3].task);
    auto* rule = dynamic_cast<AuditFileSystemCtrlMessage*>(all[3].msg.get());
    ASSERT_NE(nullptr, rule);
    EXPECT_EQ("cid:c1", rule->ruleKey);
    EXPECT_EQ("-w", rule->ruleOption);
    EXPECT_EQ(kRoot + " -p wa", rule->ruleArgument);
    EXPECT_FALSE(rule->flag);
    EXPECT_EQ("", rule->text);
    ExpectDefaultOptions(rule->notifyOpt, 0);
    EXPECT_EQ(0, rule->number);
    EXPECT_EQ(task, rule->sender);
    auto auditLine =
        Logs().Exactly("Docker file rootFs monitor add audit rule, container(web), image(nginx:1)");
    ASSERT_EQ(1u, auditLine.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, auditLine[0].priority);
    EXPECT_LT(all[2].seq, auditLine[0].seq);
}

TEST_F(ContainerStartTest, NoAuditRuleWhenTheImageAllowsExecutables) {
    Policy(PolicyDocument({IdRule("sha256:aa", {"/etc/passwd"}, false)}));
    Sent().Clear();
    Notify(MakeContainer("c1", "web", "sha256:aa", "nginx:1", kRoot));
    EXPECT_EQ(std::vector<std::string>{kRoot + "/etc/passwd"}, WatchedPaths());
    EXPECT_TRUE(AuditRules().empty());
    Notify(MakeContainer("c1", "web", "sha256:aa", "nginx:1", kRoot, false));
    EXPECT_EQ(2u, Watches().size());
    EXPECT_TRUE(AuditRules().empty());
    EXPECT_TRUE(Logs().Containing("rootFs monitor").empty()) << Logs().Dump();
}

TEST_F(ContainerStartTest, UnprotectedImageSendsNothingAndExitWarns) {
    Policy(PolicyDocument({IdRule("sha256:other", {"/a"}, true), NameRule("redis", {"/b"})}));
    Sent().Clear();
    Logs().Clear();
    Notify(MakeContainer("c1", "web", "sha256:aa", "nginx:1", kRoot));
    EXPECT_TRUE(Sent().All().empty());
    EXPECT_TRUE(Logs().Containing("docker cache").empty());
    EXPECT_TRUE(Logs().Containing("match image").empty());

    const size_t before = Logs().Exactly("Docker file task do not find containre cache.").size();
    harness.SendContainer(MakeContainer("c1", "web", "sha256:aa", "nginx:1", kRoot, false));
    LogLine exitLine = Logs().WaitExact(
        "Docker file module receive docker exit message. docker(web), cmd(/bin/sh -c "
        "run-web),image(nginx:1)");
    ASSERT_NE(0u, exitLine.seq) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, exitLine.priority);
    ASSERT_TRUE(harness.Sync());
    auto warnings = Logs().Exactly("Docker file task do not find containre cache.");
    ASSERT_EQ(before + 1, warnings.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_WARNING, warnings[before].priority);
    EXPECT_LT(exitLine.seq, warnings[before].seq);
    EXPECT_TRUE(Sent().All().empty());
}

TEST_F(ContainerStartTest, WatchedPathIsPlainConcatenationOfRootAndEntry) {
    Policy(
        PolicyDocument({IdRule("sha256:aa", {"/etc/passwd", "etc/hosts", "/etc/passwd"}, true)}));
    Sent().Clear();
    Notify(MakeContainer("c1", "web", "sha256:aa", "nginx:1", "/srv/c1/"));
    EXPECT_EQ((std::vector<std::string>{"/srv/c1//etc/passwd", "/srv/c1/etc/hosts",
                                        "/srv/c1//etc/passwd"}),
              WatchedPaths());
    ASSERT_EQ(1u, AuditRules().size());
    EXPECT_EQ("/srv/c1/ -p wa", AuditRules()[0]->ruleArgument);
}

TEST_F(ContainerStartTest, EmptyRootAndIdAreSentAsTheyAre) {
    Policy(PolicyDocument({IdRule("sha256:aa", {"/a"}, true)}));
    Sent().Clear();
    Notify(MakeContainer("", "anon", "sha256:aa", "img", ""));
    EXPECT_EQ(std::vector<std::string>{"/a"}, WatchedPaths());
    ASSERT_EQ(1u, AuditRules().size());
    EXPECT_EQ("cid:", AuditRules()[0]->ruleKey);
    EXPECT_EQ(" -p wa", AuditRules()[0]->ruleArgument);
}

TEST_F(ContainerStartTest, RuleWithoutFilesStillGetsTheAuditRule) {
    Json::Value rule(Json::objectValue);
    rule["image_id"] = "sha256:aa";
    rule["elf_forbidden"] = true;
    Policy(PolicyDocument({rule}));
    EXPECT_EQ(1u, Logs()
                      .Exactly("Docker file insert  id rules list: id(sha256:aa), filesNum(0), "
                               "elfForbidden(1)")
                      .size())
        << Logs().Dump();
    Sent().Clear();
    Notify(MakeContainer("c1", "web", "sha256:aa", "img", "/r"));
    EXPECT_TRUE(Watches().empty());
    ASSERT_EQ(1u, AuditRules().size());
    EXPECT_EQ("-w", AuditRules()[0]->ruleOption);
    EXPECT_TRUE(Logs().Containing("Docker file add notify").empty());
}

class ContainerCacheIndexTest : public ModuleFixture {
protected:
    void SetUp() override {
        ModuleFixture::SetUp();
        Policy(PolicyDocument({NameRule("app", {"/f"}, true, true)}));
        Sent().Clear();
    }
    /// Extra parameter of the newest add-watch request.
    uint64_t LastIndex() {
        auto w = Watches();
        return w.empty() ? UINT64_MAX : w.back()->options.extParm;
    }
};

TEST_F(ContainerCacheIndexTest, IndexesCountUpAndAreNeverReused) {
    Notify(MakeContainer("a", "a", "", "myapp", "/ra"));
    EXPECT_EQ(0u, LastIndex());
    Notify(MakeContainer("b", "b", "", "myapp", "/rb"));
    EXPECT_EQ(1u, LastIndex());
    Notify(MakeContainer("a", "a", "", "myapp", "/ra", false));
    auto deleted = Logs().Exactly("Docker file delete docker cache, index=0, name=a.");
    ASSERT_EQ(1u, deleted.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, deleted[0].priority);
    Notify(MakeContainer("c", "c", "", "myapp", "/rc"));
    EXPECT_EQ(2u, LastIndex()) << "index 0 is not handed out again";
    EXPECT_EQ(1u, Logs().Exactly("Docker file add docker cache, index=2, name=c.").size());
    // The container that left comes back: a new index, not its old one.
    Notify(MakeContainer("a", "a", "", "myapp", "/ra"));
    EXPECT_EQ(3u, LastIndex());
}

TEST_F(ContainerCacheIndexTest, SecondStartOfACachedContainerIsRefusedWithoutUsingAnIndex) {
    Notify(MakeContainer("a", "first", "", "myapp", "/ra"));
    const size_t sent = Sent().All().size();
    Notify(MakeContainer("a", "second", "", "myapp:2", "/elsewhere"));
    auto refused =
        Logs().Exactly("Docker file task insert exist docker cache. name:second, image:myapp:2");
    ASSERT_EQ(1u, refused.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_WARNING, refused[0].priority);
    EXPECT_EQ(sent, Sent().All().size()) << "no second watch or audit request";

    Notify(MakeContainer("b", "b", "", "myapp", "/rb"));
    EXPECT_EQ(1u, LastIndex());

    // The first record stays: the exit withdraws what was set up for it.
    Sent().Clear();
    Notify(MakeContainer("a", "second", "", "myapp:2", "/elsewhere", false));
    EXPECT_EQ(std::vector<std::string>{"/ra/f"}, WatchedPaths());
    ASSERT_EQ(1u, AuditRules().size());
    EXPECT_EQ("/ra -p wa", AuditRules()[0]->ruleArgument);
    EXPECT_EQ(1u, Logs().Exactly("Docker file delete docker cache, index=0, name=first.").size());
}

TEST_F(ContainerCacheIndexTest, ExitWithdrawsWatchesThenAuditRuleThenForgetsWithTheCachedRecord) {
    Policy(PolicyDocument({NameRule("app", {"/f", "/g"}, true, true)}));
    Notify(MakeContainer("a", "web", "", "myapp", "/ra"));
    Framework::Task* task = harness.ModuleTask();
    Sent().Clear();
    Logs().Clear();
    // The exit notification carries other details; the cached record decides what is withdrawn.
    Notify(MakeContainer("a", "renamed", "", "other", "/changed", false));
    EXPECT_EQ(1u, Logs()
                      .Exactly("Docker file module receive docker exit message. docker(renamed), "
                               "cmd(/bin/sh -c run-renamed),image(other)")
                      .size())
        << Logs().Dump();

    auto all = Sent().All();
    ASSERT_EQ(3u, all.size());
    const std::vector<std::string> paths = {"/ra/f", "/ra/g"};
    for (size_t i = 0; i < 2; ++i) {
        auto* w = dynamic_cast<FileNotifyWatchMessage*>(all[i].msg.get());
        ASSERT_NE(nullptr, w);
        EXPECT_EQ(kFileNotifyTask, all[i].task);
        EXPECT_EQ(paths[i], w->path);
        EXPECT_FALSE(w->add);
        EXPECT_TRUE(w->masks.empty());
        EXPECT_EQ(task, w->sender);
        auto line = Logs().Exactly("Docker file delete notify: " + paths[i]);
        ASSERT_EQ(1u, line.size()) << Logs().Dump();
        EXPECT_EQ(Poco::Message::PRIO_DEBUG, line[0].priority);
        EXPECT_LT(line[0].seq, all[i].seq);
    }
    auto* rule = dynamic_cast<AuditFileSystemCtrlMessage*>(all[2].msg.get());
    ASSERT_NE(nullptr, rule);
    EXPECT_EQ("-W", rule->ruleOption);
    EXPECT_EQ("cid:a", rule->ruleKey);
    EXPECT_EQ("/ra -p wa", rule->ruleArgument);
    EXPECT_FALSE(rule->flag);
    EXPECT_EQ("", rule->text);
    ExpectDefaultOptions(rule->notifyOpt, 0);
    EXPECT_EQ(0, rule->number);
    EXPECT_EQ(1u, Logs()
                      .Exactly("Docker file rootFs monitor delete audit rule, container(web), "
                               "image(myapp)")
                      .size());
    auto deleted = Logs().Exactly("Docker file delete docker cache, index=0, name=web.");
    ASSERT_EQ(1u, deleted.size());
    EXPECT_LT(all[2].seq, deleted[0].seq) << "the record leaves the cache last";

    // A second exit finds nothing.
    Sent().Clear();
    Notify(MakeContainer("a", "web", "", "myapp", "/ra", false));
    EXPECT_TRUE(Sent().All().empty());
}

TEST_F(ContainerCacheIndexTest, PolicyChangesDoNotReachCachedContainers) {
    Notify(MakeContainer("a", "a", "", "myapp", "/ra"));
    Policy(PolicyDocument({NameRule("app", {"/new"}, true, false)}));
    Sent().Clear();
    Notify(MakeContainer("a", "a", "", "myapp", "/ra", false));
    EXPECT_EQ(std::vector<std::string>{"/ra/f"}, WatchedPaths());
    EXPECT_EQ(1u, AuditRules().size()) << "the cached flag decides the audit withdrawal";

    Notify(MakeContainer("b", "b", "", "myapp", "/rb"));
    Sent().Clear();
    // A policy with no rules at all: the cached container is still torn down as it was set up.
    Policy(R"({"feature_name":"dockerfile_feature","content":{}})");
    Notify(MakeContainer("b", "b", "", "myapp", "/rb", false));
    EXPECT_EQ(std::vector<std::string>{"/rb/new"}, WatchedPaths());
    Sent().Clear();
    Notify(MakeContainer("c", "c", "", "myapp", "/rc"));
    EXPECT_TRUE(Sent().All().empty()) << "the empty policy protects nothing";
}

class ShutdownTest : public ModuleFixture {};

TEST_F(ShutdownTest, UnInitTearsDownEveryCachedContainerInIdOrder) {
    Policy(PolicyDocument({IdRule("img-b", {"/x", "/y"}, true), IdRule("img-a", {"/z"}, true),
                           IdRule("img-c", {"/w"}, false)}));
    Notify(MakeContainer("bbb", "b", "img-b", "b", "/rb"));
    Notify(MakeContainer("aaa", "a", "img-a", "a", "/ra"));
    Notify(MakeContainer("ccc", "c", "img-c", "c", "/rc"));
    Sent().Clear();
    Logs().Clear();
    harness.UnInitModule();

    auto all = Sent().All();
    std::vector<std::string> seen;
    for (const auto& r : all) {
        if (auto* reg = dynamic_cast<Engine::ContainerRegisterMessage*>(r.msg.get())) {
            seen.push_back(std::string("unsubscribe containers ") + (reg->subscribe ? "1" : "0"));
        } else if (auto* w = dynamic_cast<FileNotifyWatchMessage*>(r.msg.get())) {
            seen.push_back((w->add ? "add " : "remove ") + w->path);
        } else if (auto* a = dynamic_cast<AuditFileSystemCtrlMessage*>(r.msg.get())) {
            seen.push_back(a->ruleOption + " " + a->ruleKey + " " + a->ruleArgument);
        } else if (dynamic_cast<Engine::AuditUnsubscribeMessage*>(r.msg.get()) != nullptr) {
            seen.push_back("unsubscribe audit");
        } else {
            seen.push_back("unexpected " + r.msg->TypeName());
        }
    }
    const std::vector<std::string> expected = {
        "unsubscribe containers 0",
        "remove /ra/z",
        "-W cid:aaa /ra -p wa",
        "remove /rb/x",
        "remove /rb/y",
        "-W cid:bbb /rb -p wa",
        "remove /rc/w",
        "unsubscribe audit",
    };
    EXPECT_EQ(expected, seen);
    auto clear = Logs().Exactly("Docker file module exit clear docker cache");
    ASSERT_EQ(1u, clear.size());
    ASSERT_GE(all.size(), 2u);
    EXPECT_LT(all[0].seq, clear[0].seq);
    EXPECT_LT(clear[0].seq, all[1].seq);
    EXPECT_TRUE(Logs().Containing("Docker file delete docker cache").empty())
        << "clearing the cache does not go through the per-container removal";
}

}  // namespace
}  // namespace DockerFileHarness
