// The task runtime: the default loop's hooks and clock, the idle barrier, the count-and-warn
// call, the single-task module shell, and policy hooks that call back into their module.
#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "framework/Clock.h"
#include "framework/Counters.h"
#include "framework/DegradedCounter.h"
#include "framework/FeaturePolicy.h"
#include "framework/Module.h"
#include "framework/PolicyCallback.h"
#include "framework/SingleTaskModule.h"
#include "framework/Task.h"
#include "framework/TaskPolicy.h"
#include "support/Deadline.h"
#include "support/ManualClock.h"

namespace {

constexpr int kDeadlineMs = 5000;

class LinesChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(msg.getText());
    }
    std::vector<std::string> Lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }

private:
    std::mutex mutex_;  // guards lines_
    std::vector<std::string> lines_;
};

// Handles a message (slowly unless told otherwise) and says in which order the messages came.
class SlowMessage : public Framework::Message {
public:
    SlowMessage(std::vector<int>& seen, std::mutex& mutex, int value, bool slow = true)
        : seen_(seen), mutex_(mutex), value_(value), slow_(slow) {}
    int MessageHandle(void*) override {
        if (slow_) std::this_thread::sleep_for(std::chrono::milliseconds(2));
        std::lock_guard<std::mutex> lock(mutex_);
        seen_.push_back(value_);
        return 0;
    }

private:
    std::vector<int>& seen_;
    std::mutex& mutex_;
    int value_;
    bool slow_;
};

// Records the times its turns were given and the waits it asked for.
class TurnTask : public Framework::Task {
public:
    explicit TurnTask(const std::string& name, unsigned int capacity = 64)
        : Framework::Task(name, "f", Framework::TaskCondition::TASK_TYPE_MESSAGE, capacity) {
        LoopSettings loop;
        loop.waitMs = 5;
        SetLoopSettings(loop);
    }
    std::atomic<uint64_t> lastTurnMs{0};
    std::atomic<int> turns{0};

protected:
    void OnTurn(uint64_t nowMs) override {
        lastTurnMs = nowMs;
        ++turns;
    }
};

class RuntimeModule : public Framework::Module {
public:
    RuntimeModule() : Framework::Module("runtime_test_module") {}
};

struct ModuleDeleter {
    void operator()(Framework::Module* m) const { m->release(); }
};
using ModulePtr = std::unique_ptr<Framework::Module, ModuleDeleter>;

TEST(TaskLoop, TurnsReadTheTaskClockAndStopWhenCancelled) {
    TestSupport::ManualClock clock(1000);
    ModulePtr module(new RuntimeModule());
    auto* task = new TurnTask("runtime_turns");
    task->SetClock(clock);
    ASSERT_EQ(module->RegisterTask(task, false), 0);
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return task->lastTurnMs.load() == 1000; }));
    clock.Advance(250);
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return task->lastTurnMs.load() == 1250; }))
        << "OnTurn must be given the task's clock, not the system's";
    EXPECT_EQ(module->UnRegisterTask("runtime_turns"), 0);  // joins: the loop ended
}

TEST(IdleBarrier, ReturnsOnlyAfterEveryEarlierMessageWasHandled) {
    ModulePtr module(new RuntimeModule());
    auto* task = new TurnTask("runtime_idle", 256);
    ASSERT_EQ(module->RegisterTask(task, false), 0);
    std::vector<int> seen;
    std::mutex mutex;
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(task->SendDirectMsg("runtime_idle", new SlowMessage(seen, mutex, i)), 0);
    }
    ASSERT_TRUE(Framework::Task::WaitIdle("runtime_idle", kDeadlineMs));
    {
        std::lock_guard<std::mutex> lock(mutex);
        ASSERT_EQ(seen.size(), 50u) << "the barrier overtook queued messages";
        for (int i = 0; i < 50; ++i) EXPECT_EQ(seen[i], i);
    }
    EXPECT_FALSE(Framework::Task::WaitIdle("runtime_nobody", 100)) << "no such task";
    module->UnRegisterTask("runtime_idle");
}

// Counts its batches; its loop lets messages gather for 20 ms when batches come close together.
class GatheringTask : public TurnTask {
public:
    explicit GatheringTask(const std::string& name) : TurnTask(name, 1024) {
        LoopSettings loop;
        loop.waitMs = 1000;
        loop.gatherMs = 20;
        SetLoopSettings(loop);
    }
    void OnBatchEnd() override { ++batches; }
    std::atomic<int> batches{0};
};

TEST(TaskLoop, MessagesSentOneByOneInAStormAreTakenInBatches) {
    ModulePtr module(new RuntimeModule());
    auto* task = new GatheringTask("runtime_gather");
    ASSERT_EQ(module->RegisterTask(task, false), 0);
    std::vector<int> seen;
    std::mutex mutex;
    // 200 messages over about 200 ms: taken as they come, that would be a batch each.
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(task->SendDirectMsg("runtime_gather", new SlowMessage(seen, mutex, i, false)), 0);
        std::this_thread::sleep_for(std::chrono::microseconds(500));  // the sender's pace
    }
    ASSERT_TRUE(Framework::Task::WaitIdle("runtime_gather", kDeadlineMs));
    {
        std::lock_guard<std::mutex> lock(mutex);
        ASSERT_EQ(seen.size(), 200u);
        for (int i = 0; i < 200; ++i) ASSERT_EQ(seen[i], i);
    }
    EXPECT_LT(task->batches.load(), 60);
    module->UnRegisterTask("runtime_gather");
}

// A task that never takes its messages: a barrier that cannot be queued, or is never reached,
// ends in false at the deadline instead of hanging the caller.
class StalledTask : public Framework::Task {
public:
    explicit StalledTask(const std::string& name)
        : Framework::Task(name, "f", Framework::TaskCondition::TASK_TYPE_MESSAGE, 2) {}
    int Run() override {
        while (!isCancelled()) GetEventWaiter().WaitAndHandleEvent(5, 1);
        return 0;
    }
};

TEST(IdleBarrier, StalledOrFullTaskTimesOut) {
    ModulePtr module(new RuntimeModule());
    auto* task = new StalledTask("runtime_stalled");
    ASSERT_EQ(module->RegisterTask(task, false), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(task->WaitIdle(50)) << "queued but never reached";
    std::vector<int> seen;
    std::mutex mutex;
    while (task->SendDirectMsg("runtime_stalled", new SlowMessage(seen, mutex, 0)) == 0) {
    }
    EXPECT_FALSE(task->WaitIdle(50)) << "full queue";
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    module->UnRegisterTask("runtime_stalled");  // the queued barrier and messages are handled
}

TEST(DegradedCounter, CountsEveryEventAndTellsOncePerIntervalWithWhatWasHeldBack) {
    Poco::AutoPtr<LinesChannel> channel(new LinesChannel());
    Poco::Logger& logger = Poco::Logger::get("runtime_test_degraded");
    logger.setChannel(channel);
    logger.setLevel(Poco::Message::PRIO_DEBUG);
    TestSupport::ManualClock clock(1000);
    Framework::DegradedCounter counter("test.runtime.degraded", 1000, clock);
    Framework::DegradedCounter other("test.runtime.other", 1000, clock);

    for (int i = 0; i < 5; ++i) TW_DEGRADED(counter, 2, &logger, PRIO_WARNING, "lost %d", i);
    TW_DEGRADED(other, 1, &logger, PRIO_WARNING, "other kind");
    clock.Advance(1000);
    TW_DEGRADED(counter, 1, &logger, PRIO_WARNING, "lost %d", 5);

    EXPECT_EQ(counter.Value(), 11u);
    EXPECT_EQ(Framework::Counters::Instance().Value("test.runtime.degraded"), 11u)
        << "the status output reads Counters";
    const auto lines = channel->Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "lost 0");
    EXPECT_EQ(lines[1], "other kind") << "one kind's flood must not silence another";
    EXPECT_EQ(lines[2], "lost 5 (4 more not logged)");
}

TEST(DegradedCounter, NothingIsFormattedWhenTheLevelIsBelowTheWarning) {
    Poco::AutoPtr<LinesChannel> channel(new LinesChannel());
    Poco::Logger& logger = Poco::Logger::get("runtime_test_quiet");
    logger.setChannel(channel);
    logger.setLevel(Poco::Message::PRIO_ERROR);
    Framework::DegradedCounter counter("test.runtime.quiet", 0);
    TW_DEGRADED(counter, 3, &logger, PRIO_WARNING, "quiet %s", std::string("x"));
    TW_DEGRADED(counter, 1, nullptr, PRIO_WARNING, "no logger");
    EXPECT_EQ(counter.Value(), 4u);
    EXPECT_TRUE(channel->Lines().empty());
}

TEST(SingleTaskModule, RegistersOnceStopsOnUnInitAndReportsFailures) {
    std::atomic<int> built{0};
    ModulePtr module(new Framework::SingleTaskModule("runtime_single", [&built]() {
        ++built;
        return new TurnTask("runtime_single_task");
    }));
    auto* shell = static_cast<Framework::SingleTaskModule*>(module.get());
    ASSERT_EQ(shell->Init(), 0);
    EXPECT_EQ(shell->Init(), 0);
    EXPECT_EQ(built.load(), 1) << "a second Init must not build a second task";
    EXPECT_EQ(shell->TaskName(), "runtime_single_task");
    EXPECT_TRUE(Framework::Task::WaitIdle("runtime_single_task", kDeadlineMs));

    // The name is taken: a second module with the same task fails cleanly.
    ModulePtr clash(new Framework::SingleTaskModule(
        "runtime_clash", [] { return new TurnTask("runtime_single_task"); }));
    EXPECT_EQ(clash->Init(), -1);
    clash->UnInit();

    shell->UnInit();
    EXPECT_FALSE(Framework::Task::WaitIdle("runtime_single_task", 50)) << "still registered";
    shell->UnInit();  // twice is harmless

    ModulePtr empty(new Framework::SingleTaskModule(
        "runtime_empty", [] { return static_cast<Framework::Task*>(nullptr); }));
    EXPECT_EQ(empty->Init(), -1);
}

// A hook that calls back into its own module: with the hook under the module's lock this
// deadlocked.
class ReentrantModule : public Framework::Module {
public:
    ReentrantModule() : Framework::Module("runtime_reentrant") {}
    Framework::Policy* Hook(const std::string&, const std::string& document,
                            Framework::Policy*& current) {
        sawTask = FindTask("runtime_reentrant_task") != nullptr;
        sawCurrent = GetCurrentPolicy("k") == current;
        if (current != nullptr) current->outdated = true;
        auto* policy = new Framework::FeaturePolicy("f");
        policy->Add(new Framework::TaskPolicy(document));
        return policy;
    }
    std::atomic<bool> sawTask{false};
    std::atomic<bool> sawCurrent{false};
};

TEST(PolicyHook, MayCallBackIntoItsModule) {
    ModulePtr holder(new ReentrantModule());
    auto* module = static_cast<ReentrantModule*>(holder.get());
    module->RegisterPolicyCallback(
        "k", new Framework::PolicyCallback<ReentrantModule>(module, &ReentrantModule::Hook));
    ASSERT_EQ(module->RegisterTask(new TurnTask("runtime_reentrant_task"), false), 0);
    std::atomic<bool> done{false};
    std::thread deliver([&] {
        Framework::Policy* current = nullptr;
        module->RefreshPolicy("k", "f", "runtime_reentrant_task", current);
        module->RefreshPolicy("k", "f", "runtime_reentrant_task", current);
        done = true;
    });
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return done.load(); })) << "the hook deadlocked";
    deliver.join();
    EXPECT_TRUE(module->sawTask.load());
    EXPECT_TRUE(module->sawCurrent.load());
    module->UnRegisterTask("runtime_reentrant_task");
}

// Policies swapped from two delivery threads while the task reads its policy on every turn:
// every reader sees a whole policy, and the last one delivered is the one in force.
class PolicyReader : public TurnTask {
public:
    explicit PolicyReader(const std::string& name) : TurnTask(name) {}
    std::atomic<int> reads{0};

protected:
    void OnTurn(uint64_t) override {
        auto policy = GetFeaturePolicy();
        if (policy && !policy->GetPolicyName().empty()) ++reads;
    }
};

TEST(PolicyHook, SwapWhileTheTaskReadsItsPolicy) {
    ModulePtr holder(new ReentrantModule());
    auto* module = static_cast<ReentrantModule*>(holder.get());
    module->RegisterPolicyCallback(
        "k", new Framework::PolicyCallback<ReentrantModule>(module, &ReentrantModule::Hook));
    auto* task = new PolicyReader("runtime_reentrant_task");
    ASSERT_EQ(module->RegisterTask(task, false), 0);
    auto deliverMany = [module] {
        for (int i = 0; i < 200; ++i) {
            Framework::Policy* current = nullptr;
            module->RefreshPolicy("k", "f", "runtime_reentrant_task", current);
        }
    };
    std::thread a(deliverMany);
    std::thread b(deliverMany);
    a.join();
    b.join();
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return task->reads.load() > 0; }));
    EXPECT_EQ(task->GetFeaturePolicy().get(), module->GetCurrentPolicy("k"));
    module->UnRegisterTask("runtime_reentrant_task");
}

}  // namespace
