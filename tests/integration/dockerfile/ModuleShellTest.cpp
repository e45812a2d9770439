// The module as the framework drives it: start, stop, policy hook, the task's subscriptions.

#include <gtest/gtest.h>

#include "HarnessFixture.h"
#include "container/ContainerRegisterMessage.h"
#include "framework/FeaturePolicy.h"
#include "framework/TaskPolicy.h"
#include "framework/TaskRegistry.h"
#include "process_collect/AuditUnsubscribeMessage.h"

namespace DockerFileHarness {
namespace {

using Engine::AuditUnsubscribeMessage;
using Engine::ContainerRegisterMessage;

class ModuleLifecycleTest : public ModuleFixture {};

TEST_F(ModuleLifecycleTest, InitLogsOnRootLoggerAndSubscribesToContainers) {
    auto init = Logs().Exactly("Docker file module init");
    ASSERT_EQ(1u, init.size()) << Logs().Dump();
    EXPECT_EQ("", init[0].logger) << "the module's Init writes through the root logger";
    EXPECT_EQ(Poco::Message::PRIO_INFORMATION, init[0].priority);

    Framework::Task* task = harness.ModuleTask();
    ASSERT_NE(nullptr, task);
    EXPECT_EQ("dockerfile_feature", task->GetFeatureName());
    EXPECT_EQ(Framework::TaskCondition::TASK_TYPE_MESSAGE, task->GetTaskType());
    EXPECT_TRUE(Framework::TaskRegistry::Instance().Has(kModuleTask));

    auto subs = Sent().Of<ContainerRegisterMessage>(kContainerTask);
    ASSERT_EQ(1u, subs.size());
    EXPECT_EQ(task, subs[0]->task);
    EXPECT_TRUE(subs[0]->subscribe);
    EXPECT_FALSE(subs[0]->option);
    // Nothing else goes out at start.
    EXPECT_EQ(1u, Sent().All().size());
}

TEST_F(ModuleLifecycleTest, UnInitWithdrawsSubscriptionsInOrderAndUnregistersEverything) {
    Framework::Task* task = harness.ModuleTask();
    Sent().Clear();
    Logs().Clear();
    harness.UnInitModule();

    auto exitLine = Logs().Exactly("Docker file module exit");
    ASSERT_EQ(1u, exitLine.size()) << Logs().Dump();
    EXPECT_EQ("", exitLine[0].logger);
    EXPECT_EQ(Poco::Message::PRIO_INFORMATION, exitLine[0].priority);

    auto all = Sent().All();
    ASSERT_EQ(2u, all.size());
    auto* unsub = dynamic_cast<ContainerRegisterMessage*>(all[0].msg.get());
    ASSERT_NE(nullptr, unsub) << "the container unsubscription comes first";
    EXPECT_EQ(kContainerTask, all[0].task);
    EXPECT_EQ(task, unsub->task);
    EXPECT_FALSE(unsub->subscribe);
    EXPECT_FALSE(unsub->option);
    auto* auditUnsub = dynamic_cast<AuditUnsubscribeMessage*>(all[1].msg.get());
    ASSERT_NE(nullptr, auditUnsub);
    EXPECT_EQ(kAuditTask, all[1].task);
    EXPECT_EQ(task, auditUnsub->task);

    auto clear = Logs().Exactly("Docker file module exit clear docker cache");
    ASSERT_EQ(1u, clear.size());
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, clear[0].priority);
    EXPECT_EQ("dockerfile_module", clear[0].logger);
    EXPECT_LT(all[0].seq, clear[0].seq);
    EXPECT_LT(clear[0].seq, all[1].seq);
    EXPECT_LT(exitLine[0].seq, all[0].seq);

    EXPECT_FALSE(Framework::TaskRegistry::Instance().Has(kModuleTask));
    EXPECT_EQ(nullptr, harness.ModuleTask());
    EXPECT_EQ(-1, harness.DeliverPolicy(PolicyDocument({})))
        << "the policy key is withdrawn at UnInit";
}

TEST_F(ModuleLifecycleTest, ModuleCanBeLoadedAgainAfterAFullStop) {
    harness.Stop();
    Logs().Clear();
    Sent().Clear();
    std::string error;
    ASSERT_TRUE(harness.Start(error)) << error;
    EXPECT_EQ(1u, Sent().Of<ContainerRegisterMessage>(kContainerTask).size());
    EXPECT_EQ(1u, Logs().Exactly("Docker file module init").size());
}

class PolicyHookTest : public ModuleFixture {};

TEST_F(PolicyHookTest, RefreshLogsWholeDocumentAndHandsTheTaskTheParsedPolicy) {
    Json::Value doc(Json::objectValue);
    doc["feature_name"] = "dockerfile_feature";
    doc["hash"] = "abc123";
    doc["policy_id"] = "pol-7";
    doc["enabled"] = false;
    doc["content"]["rules"] = Json::Value(Json::arrayValue);
    doc["content"]["rules"].append(IdRule("sha256:1", {"/etc/passwd"}));
    const std::string text = ToText(doc);
    Policy(text);

    auto refresh = Logs().Exactly("Docker file module refresh policy: " + text);
    ASSERT_EQ(1u, refresh.size()) << Logs().Dump();
    EXPECT_EQ("dockerfile_module", refresh[0].logger);
    EXPECT_EQ(Poco::Message::PRIO_INFORMATION, refresh[0].priority);
    auto parse = Logs().Exactly(
        "Docker file module parse policy: name(dockerfile_feature),hash(abc123),id(pol-7),"
        "enable(0)");
    ASSERT_EQ(1u, parse.size()) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_INFORMATION, parse[0].priority);
    EXPECT_LT(parse[0].seq, refresh[0].seq) << "the document is parsed before the refresh line";

    auto policy = harness.ModuleTask()->GetFeaturePolicy();
    auto* feature = dynamic_cast<Framework::FeaturePolicy*>(policy.get());
    ASSERT_NE(nullptr, feature);
    EXPECT_EQ("dockerfile_feature", feature->GetPolicyName());
    EXPECT_EQ("abc123", feature->GetHash());
    EXPECT_EQ("pol-7", feature->GetPolicyId());
    EXPECT_FALSE(feature->IsEnabled());
    EXPECT_EQ(std::vector<std::string>{kModuleTask}, feature->GetTaskNames());
    EXPECT_FALSE(feature->PolicyChanged("abc123", "pol-7"));
    EXPECT_TRUE(feature->PolicyChanged("abc124", "pol-7"));

    // A disabled policy still protects: "enabled" is not consulted by the module.
    harness.SendContainer(MakeContainer("c1", "web", "sha256:1", "img", "/r"));
    EXPECT_TRUE(Logs().WaitExact("Docker file add notify: /r/etc/passwd").seq != 0)
        << Logs().Dump();
}

TEST_F(PolicyHookTest, ANewDocumentMarksThePolicyInForceOutdated) {
    Policy(PolicyDocument({IdRule("sha256:1", {"/a"})}, "h1", "p1"));
    auto first = harness.ModuleTask()->GetFeaturePolicy();
    ASSERT_NE(nullptr, first);
    EXPECT_FALSE(first->IsOutdated());

    Policy(PolicyDocument({IdRule("sha256:1", {"/b"})}, "h2", "p2"));
    auto second = harness.ModuleTask()->GetFeaturePolicy();
    ASSERT_NE(nullptr, second);
    EXPECT_NE(first.get(), second.get()) << "every document yields a new policy object";
    EXPECT_TRUE(first->IsOutdated());
    EXPECT_FALSE(second->IsOutdated());
}

TEST_F(PolicyHookTest, DocumentWithoutContentIsLoggedButKeepsThePolicyInForce) {
    Policy(PolicyDocument({IdRule("sha256:1", {"/a"})}));
    auto before = harness.ModuleTask()->GetFeaturePolicy();
    const std::string noContent = R"({"feature_name":"x","hash":"h","policy_id":"p"})";
    harness.DeliverPolicy(noContent);
    EXPECT_EQ(1u, Logs().Exactly("Docker file module refresh policy: " + noContent).size());
    EXPECT_TRUE(Logs().Containing("Docker file module parse policy: name(x)").empty())
        << "the parse line is written only when there is a content object";
    // The policy holds no task child, so the task keeps the one it had.
    EXPECT_EQ(before.get(), harness.ModuleTask()->GetFeaturePolicy().get());
}

TEST_F(PolicyHookTest, StartBeforeAnyPolicyIsAnErrorAndProtectsNothing) {
    Sent().Clear();
    harness.SendContainer(MakeContainer("c1", "web", "sha256:1", "img:1", "/r"));
    LogLine err = Logs().WaitExact("Docker file task get feature policy failed.");
    ASSERT_NE(0u, err.seq) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_ERROR, err.priority);
    EXPECT_EQ("dockerfile_module", err.logger);
    LogLine start = Logs().WaitExact(
        "Docker file module receive docker start message. docker(web),cmd(/bin/sh -c "
        "run-web),image(img:1)");
    ASSERT_NE(0u, start.seq) << Logs().Dump();
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, start.priority);
    EXPECT_LT(start.seq, err.seq);

    // A policy arriving later does not reach the container until its next start.
    Policy(PolicyDocument({IdRule("sha256:1", {"/a"})}));
    ASSERT_TRUE(harness.Sync());
    EXPECT_TRUE(Sent().All().empty());
    const size_t warningsBefore =
        Logs().Exactly("Docker file task do not find containre cache.").size();
    harness.SendContainer(MakeContainer("c1", "web", "sha256:1", "img:1", "/r", false));
    ASSERT_TRUE(harness.Sync());
    EXPECT_EQ(warningsBefore + 1,
              Logs().Exactly("Docker file task do not find containre cache.").size());
    EXPECT_TRUE(Sent().All().empty());
}

}  // namespace
}  // namespace DockerFileHarness
