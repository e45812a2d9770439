// Policy documents through Module::RefreshPolicy: the hook gets the policy in force, the new
// policy reaches the tasks it names, and a policy naming no task leaves them alone.
#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "framework/FeaturePolicy.h"
#include "framework/Module.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"
#include "framework/TaskPolicy.h"

namespace {

class IdleTask : public Framework::Task {
public:
    explicit IdleTask(const std::string& name)
        : Framework::Task(name, "feature", Framework::TaskCondition::TASK_TYPE_MESSAGE, 16) {}
};

class HookModule : public Framework::Module {
public:
    HookModule() : Framework::Module("policy_test_module") {}
    // The document is the name of the task the policy is for ("" names none).
    Framework::Policy* Hook(const std::string&, const std::string& document,
                            Framework::Policy*& current) {
        seenCurrent = current;
        if (current != nullptr) current->outdated = true;
        auto* policy = new Framework::FeaturePolicy("feature");
        if (!document.empty()) policy->Add(new Framework::TaskPolicy(document));
        return policy;
    }
    Framework::Policy* seenCurrent = nullptr;
};

class PolicyDispatch : public ::testing::Test {
protected:
    void SetUp() override {
        module_ = new HookModule();
        module_->RegisterPolicyCallback(
            "k", new Framework::PolicyCallback<HookModule>(module_, &HookModule::Hook));
        ASSERT_EQ(module_->RegisterTask(new IdleTask("policy_task"), false), 0);
        task_ = module_->FindTask("policy_task");
    }
    void TearDown() override {
        module_->UnRegisterTask("policy_task");
        module_->release();
    }
    int Deliver(const std::string& document) {
        Framework::Policy* current = nullptr;
        return module_->RefreshPolicy("k", "feature", document, current);
    }
    HookModule* module_ = nullptr;
    Framework::Task* task_ = nullptr;
};

TEST_F(PolicyDispatch, NewPolicyReachesTheNamedTaskAndTheOldOneIsMarkedOutdated) {
    ASSERT_EQ(Deliver("policy_task"), 0);
    EXPECT_EQ(module_->seenCurrent, nullptr);
    auto first = task_->GetFeaturePolicy();
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(Deliver("policy_task"), 0);
    EXPECT_EQ(module_->seenCurrent, first.get()) << "the hook must see the policy in force";
    EXPECT_TRUE(first->IsOutdated());
    EXPECT_NE(task_->GetFeaturePolicy(), first);
}

TEST_F(PolicyDispatch, PolicyNamingNoTaskLeavesTasksWithTheirPolicy) {
    ASSERT_EQ(Deliver("policy_task"), 0);
    auto kept = task_->GetFeaturePolicy();
    Deliver("");
    EXPECT_EQ(task_->GetFeaturePolicy(), kept);
}

class Priorities : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override {
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(msg.getPriority());
    }
    std::mutex mutex;  // guards seen
    std::vector<Poco::Message::Priority> seen;
};

TEST_F(PolicyDispatch, UnknownKeyAndWithdrawnHookAreRefused) {
    // Every module is offered every key: a missing hook is worth a debug line, no warning.
    Poco::AutoPtr<Priorities> records(new Priorities());
    Poco::Logger& log = Poco::Logger::get("framework");
    log.setChannel(records);
    log.setLevel(Poco::Message::PRIO_DEBUG);
    Framework::Policy* current = nullptr;
    EXPECT_EQ(module_->RefreshPolicy("other", "feature", "policy_task", current), -1);
    log.setChannel(nullptr);
    EXPECT_EQ(records->seen, std::vector<Poco::Message::Priority>{Poco::Message::PRIO_DEBUG});
    module_->UnRegisterTaskletCallback("k");
    EXPECT_EQ(Deliver("policy_task"), -1);
}

}  // namespace
