// Container start, exit and shutdown: what the module asks its neighbours to watch and when.

#include <gtest/gtest.h>

#include "HarnessFixture.h"

namespace DockerFileHarness {
namespace {

const std::string kRoot = "/var/lib/docker/overlay2/abc/merged";

class ContainerStartTest : public ModuleFixture {};

const std::string kMasks = " masks 100 2 200 c0 4 400 800";

TEST_F(ContainerStartTest, ProtectedStartRequestsOneWatchPerFileThenTheAuditRule) {
    Policy(
        PolicyDocument({IdRule("sha256:aa", {"/etc/passwd", "/etc/shadow", "/usr/bin/x"}, true)}));
    Sent().Clear();
    Logs().Clear();
    Notify(MakeContainer("c1", "web", "sha256:aa", "nginx:1", kRoot));
    EXPECT_EQ((std::vector<std::string>{
                  "D Docker file module receive docker start message. docker(web),cmd(/bin/sh -c "
                  "run-web),image(nginx:1)",
                  "D Docker file match image by id: name(nginx:1), id(sha256:aa)",
                  "D Docker file add docker cache, index=0, name=web.",
                  "D Docker file add notify: " + kRoot + "/etc/passwd",
                  "to filenotify_task: add " + kRoot + "/etc/passwd" + kMasks + " ext 0",
                  "D Docker file add notify: " + kRoot + "/etc/shadow",
                  "to filenotify_task: add " + kRoot + "/etc/shadow" + kMasks + " ext 0",
                  "D Docker file add notify: " + kRoot + "/usr/bin/x",
                  "to filenotify_task: add " + kRoot + "/usr/bin/x" + kMasks + " ext 0",
                  "D Docker file rootFs monitor add audit rule, container(web), image(nginx:1)",
                  "to audit_task: -w cid:c1 " + kRoot + " -p wa"}),
              Timeline());
}

TEST_F(ContainerStartTest, UnprotectedImageSendsNothingAndExitWarns) {
    Policy(PolicyDocument({IdRule("sha256:other", {"/a"}, true), NameRule("redis", {"/b"})}));
    Sent().Clear();
    Logs().Clear();
    Notify(MakeContainer("c1", "web", "sha256:aa", "nginx:1", kRoot));
    Notify(MakeContainer("c1", "web", "sha256:aa", "nginx:1", kRoot, false));
    EXPECT_EQ((std::vector<std::string>{
                  "D Docker file module receive docker start message. docker(web),cmd(/bin/sh -c "
                  "run-web),image(nginx:1)",
                  "D Docker file module receive docker exit message. docker(web), cmd(/bin/sh -c "
                  "run-web),image(nginx:1)",
                  "W Docker file task do not find containre cache."}),
              Timeline());
}

// Root and entry are joined as they stand, slashes and empty ones included; a rule without files
// still gets the audit rule.
TEST_F(ContainerStartTest, RequestsCarryRootEntryAndIdAsTheyAre) {
    const struct {
        std::string id;
        std::string root;
        std::vector<std::string> files;
        std::vector<std::string> watched;
        std::string key;
        std::string argument;
    } rows[] = {
        {"c1",
         "/srv/c1/",
         {"/etc/passwd", "etc/hosts", "/etc/passwd"},
         {"/srv/c1//etc/passwd", "/srv/c1/etc/hosts", "/srv/c1//etc/passwd"},
         "cid:c1",
         "/srv/c1/ -p wa"},
        {"", "", {"/a"}, {"/a"}, "cid:", " -p wa"},
        {"c3", "/r", {}, {}, "cid:c3", "/r -p wa"},
        {"c4", "/r", {"etc/hosts"}, {"/retc/hosts"}, "cid:c4", "/r -p wa"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("root " + row.root);
        Logs().Clear();
        Policy(PolicyDocument({IdRule("sha256:aa", row.files, true)}));
        EXPECT_EQ(1u, Logs()
                          .Exactly("Docker file insert  id rules list: id(sha256:aa), filesNum(" +
                                   std::to_string(row.files.size()) + "), elfForbidden(1)")
                          .size())
            << Logs().Dump();
        Sent().Clear();
        Notify(MakeContainer(row.id, "web", "sha256:aa", "img", row.root));
        EXPECT_EQ(row.watched, WatchedPaths());
        ASSERT_EQ(1u, AuditRules().size());
        EXPECT_EQ("-w", AuditRules()[0]->ruleOption);
        EXPECT_EQ(row.key, AuditRules()[0]->ruleKey);
        EXPECT_EQ(row.argument, AuditRules()[0]->ruleArgument);
        Notify(MakeContainer(row.id, "web", "sha256:aa", "img", row.root, false));
    }
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
    Sent().Clear();
    Logs().Clear();
    Notify(MakeContainer("a", "second", "", "myapp:2", "/elsewhere"));
    EXPECT_EQ((std::vector<std::string>{
                  "D Docker file module receive docker start message. docker(second),cmd(/bin/sh "
                  "-c run-second),image(myapp:2)",
                  "D Docker file match image by fuzzy name: name(myapp:2), id()",
                  "W Docker file task insert exist docker cache. name:second, image:myapp:2"}),
              Timeline());

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

// The exit notification carries other details; the cached record decides what is withdrawn,
// and it leaves the cache last.
TEST_F(ContainerCacheIndexTest, ExitWithdrawsWatchesThenAuditRuleThenForgetsWithTheCachedRecord) {
    Policy(PolicyDocument({NameRule("app", {"/f", "/g"}, true, true)}));
    Notify(MakeContainer("a", "web", "", "myapp", "/ra"));
    Sent().Clear();
    Logs().Clear();
    Notify(MakeContainer("a", "renamed", "", "other", "/changed", false));
    EXPECT_EQ((std::vector<std::string>{
                  "D Docker file module receive docker exit message. docker(renamed), "
                  "cmd(/bin/sh -c run-renamed),image(other)",
                  "D Docker file delete notify: /ra/f", "to filenotify_task: remove /ra/f",
                  "D Docker file delete notify: /ra/g", "to filenotify_task: remove /ra/g",
                  "D Docker file rootFs monitor delete audit rule, container(web), image(myapp)",
                  "to audit_task: -W cid:a /ra -p wa",
                  "D Docker file delete docker cache, index=0, name=web."}),
              Timeline());

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

    // Clearing the cache does not go through the per-container removal and its log line.
    const std::vector<std::string> expected = {
        "root I Docker file module exit",
        "to container_collect_task: unsubscribe",
        "D Docker file module exit clear docker cache",
        "D Docker file delete notify: /ra/z",
        "to filenotify_task: remove /ra/z",
        "D Docker file rootFs monitor delete audit rule, container(a), image(a)",
        "to audit_task: -W cid:aaa /ra -p wa",
        "D Docker file delete notify: /rb/x",
        "to filenotify_task: remove /rb/x",
        "D Docker file delete notify: /rb/y",
        "to filenotify_task: remove /rb/y",
        "D Docker file rootFs monitor delete audit rule, container(b), image(b)",
        "to audit_task: -W cid:bbb /rb -p wa",
        "D Docker file delete notify: /rc/w",
        "to filenotify_task: remove /rc/w",
        "to audit_task: unsubscribe",
    };
    EXPECT_EQ(expected, Timeline());
}

}  // namespace
}  // namespace DockerFileHarness
