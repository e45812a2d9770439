// The module as the framework drives it: start, stop, policy hook, the task's subscriptions.

#include <gtest/gtest.h>

#include "HarnessFixture.h"
#include "container/ContainerRegisterMessage.h"
#include "framework/FeaturePolicy.h"
#include "framework/TaskPolicy.h"
#include "framework/TaskRegistry.h"

namespace DockerFileHarness {
namespace {

using Engine::ContainerRegisterMessage;

class ModuleLifecycleTest : public ModuleFixture {};

TEST_F(ModuleLifecycleTest, InitLogsOnRootLoggerAndSubscribesToContainers) {
    ASSERT_NE(nullptr, task);
    EXPECT_EQ("dockerfile_feature", harness.ModuleTask()->GetFeatureName());
    EXPECT_EQ(Framework::TaskCondition::TASK_TYPE_MESSAGE, harness.ModuleTask()->GetTaskType());
    EXPECT_TRUE(Framework::TaskRegistry::Instance().Has(kModuleTask));
    // The task is registered, and subscribes, before the module logs its start.
    EXPECT_EQ((std::vector<std::string>{"to container_collect_task: subscribe",
                                        "root I Docker file module init"}),
              Timeline());
}

// The cache is empty here: clearing it only logs, between the two withdrawals.
TEST_F(ModuleLifecycleTest, UnInitWithdrawsSubscriptionsInOrderAndUnregistersEverything) {
    Sent().Clear();
    Logs().Clear();
    harness.UnInitModule();
    EXPECT_EQ((std::vector<std::string>{
                  "root I Docker file module exit", "to container_collect_task: unsubscribe",
                  "D Docker file module exit clear docker cache", "to audit_task: unsubscribe"}),
              Timeline());
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
    const std::string text =
        R"({"feature_name":"dockerfile_feature","hash":"abc123","policy_id":"pol-7",)"
        R"("enabled":false,"content":{"rules":[{"image_id":"sha256:1",)"
        R"("protect_files":["/etc/passwd"]}]}})";
    Policy(text);
    EXPECT_EQ((std::vector<std::string>{
                  "to container_collect_task: subscribe", "root I Docker file module init",
                  "I Docker file module parse policy: name(dockerfile_feature),hash(abc123),"
                  "id(pol-7),enable(0)",
                  "D Docker file insert  id rules list: id(sha256:1), filesNum(1), elfForbidden(0)",
                  "I Docker file module refresh policy: " + text}),
              Timeline());

    auto policy = harness.ModuleTask()->GetFeaturePolicy();
    auto* feature = dynamic_cast<Framework::FeaturePolicy*>(policy.get());
    ASSERT_NE(nullptr, feature);
    EXPECT_EQ("abc123", feature->GetHash());
    EXPECT_FALSE(feature->IsEnabled());
    EXPECT_EQ(std::vector<std::string>{kModuleTask}, feature->GetTaskNames());

    // A disabled policy still protects: "enabled" is not consulted by the module.
    Notify(MakeContainer("c1", "web", "sha256:1", "img", "/r"));
    EXPECT_EQ(std::vector<std::string>{"/r/etc/passwd"}, WatchedPaths());
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

TEST_F(PolicyHookTest, StartBeforeAnyPolicyIsAnErrorAndProtectsNothing) {
    Sent().Clear();
    Logs().Clear();
    Notify(MakeContainer("c1", "web", "sha256:1", "img:1", "/r"));
    EXPECT_EQ((std::vector<std::string>{
                  "D Docker file module receive docker start message. docker(web),cmd(/bin/sh -c "
                  "run-web),image(img:1)",
                  "E Docker file task get feature policy failed."}),
              Timeline());
    // A policy arriving later does not reach the container until its next start.
    Policy(PolicyDocument({IdRule("sha256:1", {"/a"})}));
    Logs().Clear();
    Notify(MakeContainer("c1", "web", "sha256:1", "img:1", "/r", false));
    EXPECT_EQ((std::vector<std::string>{
                  "D Docker file module receive docker exit message. docker(web), cmd(/bin/sh -c "
                  "run-web),image(img:1)",
                  "W Docker file task do not find containre cache."}),
              Timeline());
}

}  // namespace
}  // namespace DockerFileHarness
