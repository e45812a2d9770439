// Tasks on the real runtime: delivery and its losses, handler failures, the default loop's
// full batches, the idle barrier, stops, the count-and-warn call, the single-task module
// shell, and policies delivered while tasks run.
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <Poco/StreamChannel.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "framework/Counters.h"
#include "framework/DegradedCounter.h"
#include "framework/FeaturePolicy.h"
#include "framework/Module.h"
#include "framework/Outbox.h"
#include "framework/PolicyCallback.h"
#include "framework/SingleTaskModule.h"
#include "framework/Task.h"
#include "framework/TaskPolicy.h"
#include "support/Deadline.h"
#include "support/ManualClock.h"
#include "support/RecordingTask.h"
#include "support/TaskHost.h"

namespace {

using Clock = std::chrono::steady_clock;
using Framework::Task;
constexpr int kWaitMs = 5000;

std::vector<int> Range(int n) {
    std::vector<int> v(static_cast<size_t>(n));
    std::iota(v.begin(), v.end(), 0);
    return v;
}

uint64_t Counter(const std::string& name) { return Framework::Counters::Instance().Value(name); }

// What a logger writes, debug and up, while this lives: "<priority> <text>" lines.
struct LogLines {
    explicit LogLines(Poco::Logger& target) : logger(target) {
        logger.setChannel(new Poco::FormattingChannel(new Poco::PatternFormatter("%l %t"),
                                                      new Poco::StreamChannel(text)));
        logger.setLevel(Poco::Message::PRIO_DEBUG);
    }
    ~LogLines() { logger.setChannel(nullptr); }
    Poco::Logger& logger;
    std::ostringstream text;
};

// Records the probes it handles and its reads of the policy in force. A stalled
// receiver leaves its queue alone until resumed, so that it fills.
class Receiver : public TestSupport::RecordingTask<int> {
public:
    Receiver(const std::string& name, unsigned int capacity, bool stalled = false, int waitMs = 50)
        : RecordingTask(name, capacity), stalled_(stalled) {
        LoopSettings loop;
        loop.waitMs = waitMs;
        SetLoopSettings(loop);
    }
    void Resume() {
        stalled_ = false;
        GetEventWaiter().Notify();
    }
    std::atomic<int> policyReads{0};

protected:
    int Run() override {
        while (!isCancelled()) {
            if (!stalled_) {
                RunTurn();
            } else if (GetEventWaiter().WaitAndHandleEvent(5, 1) == -1 && !stalled_) {
                BulkConsumeMsg(GetLoopSettings().batch);  // this wait took Resume's signal
            }
        }
        return 0;
    }
    void OnTurn(uint64_t) override {
        auto policy = GetFeaturePolicy();
        if (policy && !policy->GetPolicyName().empty()) ++policyReads;
    }

private:
    std::atomic<bool> stalled_;
};

// Counts live probes so that a test can tell whether the framework released a message.
std::atomic<int> gLiveProbes{0};

class Probe : public Framework::Message {
public:
    explicit Probe(int value, bool fail = false) : value_(value), fail_(fail) { ++gLiveProbes; }
    ~Probe() override { --gLiveProbes; }
    int MessageHandle(void* task) override {
        if (fail_) throw std::runtime_error("handler failed");
        static_cast<Receiver*>(static_cast<Task*>(task))->Record(value_);
        return 0;
    }

private:
    const int value_;
    const bool fail_;
};

class TaskRuntime : public ::testing::Test {
protected:
    template <typename... Settings>
    Receiver* Start(const std::string& name, Settings... settings) {
        auto* task = host_.Add(new Receiver(name, settings...));
        EXPECT_NE(task, nullptr) << name;
        return task;
    }
    TestSupport::TaskHost host_{"runtime_test_module"};
};

// Everything queued before the barrier is handled before it returns, in order, over several
// full batches: each must lead straight to the next, not to the wait's timeout. A barrier that
// is never reached, or cannot be queued, ends in false at the deadline instead of hanging. A
// throwing handler first is counted, and the loop goes on.
TEST_F(TaskRuntime, IdleBarrierWaitsForEveryEarlierMessage) {
    Receiver* task = Start("rt_idle", 303, /*stalled=*/true);
    const uint64_t thrown = Counter(Framework::CounterNames::kHandlerException);
    const auto start = Clock::now();
    EXPECT_FALSE(task->WaitIdle(50)) << "queued but never reached";
    ASSERT_EQ(task->SendDirectMsg("rt_idle", new Probe(-1, /*fail=*/true)), 0);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(task->SendDirectMsg("rt_idle", new Probe(i)), 0);
    auto idle = std::async(std::launch::async, [] { return Task::WaitIdle("rt_idle", kWaitMs); });
    ASSERT_TRUE(TestSupport::WaitUntil([] { return Task::QueuedMessages("rt_idle") == 303; }));
    EXPECT_FALSE(task->WaitIdle(50)) << "full queue";
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
    task->Resume();
    ASSERT_TRUE(idle.get());
    EXPECT_EQ(task->Items(), Range(300)) << "the barrier overtook queued messages";
    EXPECT_EQ(Counter(Framework::CounterNames::kHandlerException), thrown + 1);
    EXPECT_FALSE(Task::WaitIdle("rt_nobody", 100)) << "no such task";
}

// A service that holds back: what a full queue refused waits, in order, and arrives once the
// receiver drains; only what exceeds the outbox's bound is released, and counted. A message
// sent straight to a full queue or to no task is refused, counted and released.
TEST_F(TaskRuntime, OutboxHoldsBackInOrderAndWhatCannotBeDeliveredIsCountedAndReleased) {
    Receiver* slow = Start("rt_slow", 4, /*stalled=*/true);
    Framework::Outbox outbox(*slow, 3, "fwtest.outbox");  // any task may be the sender
    const std::string unknown = std::string(Framework::CounterNames::kUnknownTask) + ".rt_nobody";
    const std::string full = std::string(Framework::CounterNames::kQueueFull) + ".rt_slow";
    const uint64_t dropped = Counter("fwtest.outbox.dropped"), unknownBefore = Counter(unknown),
                   fullBefore = Counter(full);
    for (int i = 0; i < 7; ++i) ASSERT_TRUE(outbox.Send("rt_slow", new Probe(i)));
    EXPECT_EQ(outbox.Held(), 3u);
    const int live = gLiveProbes.load();
    EXPECT_FALSE(outbox.Send("rt_slow", new Probe(99)));
    EXPECT_EQ(slow->SendDirectMsg("rt_nobody", new Probe(98)), -1);
    EXPECT_EQ(slow->SendDirectMsg("rt_slow", new Probe(97)), -1);
    EXPECT_EQ(gLiveProbes.load(), live) << "an undeliverable message leaked";
    EXPECT_EQ(Counter("fwtest.outbox.dropped"), dropped + 1);
    EXPECT_EQ(Counter(unknown), unknownBefore + 1);
    EXPECT_EQ(Counter(full), fullBefore + 1);
    slow->Resume();
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return outbox.Flush() == 0; }));
    ASSERT_TRUE(Task::WaitIdle("rt_slow", kWaitMs));
    EXPECT_EQ(slow->Items(), Range(7));
}

// Only the first send after the receiver took its signal writes the eventfd; a lost race there,
// or a wake-up lost while the receiver sits in its 10 s wait, would leave the last messages of
// a round until that timeout.
TEST_F(TaskRuntime, RacingSendersNeverLeaveAMessageWaitingForTheTimeout) {
    Receiver* receiver = Start("rt_race", 4096, false, 10000);
    std::size_t expected = 0;
    for (int round = 0; round < 300; ++round) {
        const int each = 1 + round % 4;
        auto send = [&] {
            for (int i = 0; i < each; ++i) receiver->SendDirectMsg("rt_race", new Probe(i));
        };
        std::thread other(send);
        send();
        other.join();
        expected += static_cast<std::size_t>(2 * each);
        ASSERT_TRUE(
            receiver->WaitFor([&](const std::vector<int>& v) { return v.size() >= expected; },
                              std::chrono::seconds(3)))
            << "round " << round << ": a message waited for the timeout";
    }
}

// A stop must wake a task in its long wait; what was still queued is handled or released.
TEST_F(TaskRuntime, ATaskStoppedRightAfterItsStartStopsPromptly) {
    const int live = gLiveProbes.load();
    for (int i = 0; i < 20; ++i) {
        const std::string name = "rt_brief" + std::to_string(i);
        Receiver* task = Start(name, 4, /*stalled=*/i % 2 == 1, 10000);
        for (int k = 0; k < 4; ++k) ASSERT_EQ(task->SendDirectMsg(name, new Probe(k)), 0);
        const auto begin = Clock::now();
        host_.Remove(name);
        ASSERT_LT(Clock::now() - begin, std::chrono::seconds(5)) << "the stop was lost";
    }
    EXPECT_EQ(gLiveProbes.load(), live) << "a queued message leaked at the stop";
}

TEST(DegradedCounter, CountsEveryEventAndTellsOncePerIntervalWithWhatWasHeldBack) {
    LogLines log(Poco::Logger::get("runtime_test_degraded"));
    TestSupport::ManualClock clock(1000);
    Framework::DegradedCounter counter("test.runtime.degraded", 1000, clock);
    Framework::DegradedCounter other("test.runtime.other", 1000, clock);

    for (int i = 0; i < 5; ++i) TW_DEGRADED(counter, 2, &log.logger, PRIO_WARNING, "lost %d", i);
    TW_DEGRADED(other, 1, &log.logger, PRIO_WARNING, "other kind");  // not silenced by the flood
    clock.Advance(1000);
    TW_DEGRADED(counter, 1, &log.logger, PRIO_WARNING, "lost %d", 5);
    // Below the logger's level (as without one) events are counted and nothing is told.
    log.logger.setLevel(Poco::Message::PRIO_ERROR);
    clock.Advance(1000);
    TW_DEGRADED(counter, 3, &log.logger, PRIO_WARNING, "quiet %s", std::string("x"));

    EXPECT_EQ(counter.Value(), 14u);
    EXPECT_EQ(Counter("test.runtime.degraded"), 14u) << "the status output reads Counters";
    EXPECT_EQ(log.text.str(), "4 lost 0\n4 other kind\n4 lost 5 (4 more not logged)\n");
}

struct ModuleDeleter {
    void operator()(Framework::Module* m) const { m->release(); }
};
using ModulePtr = std::unique_ptr<Framework::Module, ModuleDeleter>;

// Every module integration test starts and stops a module through this shell; here are the
// branches those never take.
TEST(SingleTaskModule, BuildsOneTaskAndReportsFailures) {
    ModulePtr shell(new Framework::SingleTaskModule("runtime_single",
                                                    [] { return new Receiver("rt_single", 16); }));
    ASSERT_EQ(shell->Init(), 0);
    // A second task of the same name could not register: a second Init builds none.
    EXPECT_EQ(shell->Init(), 0);
    // The name is taken: a second module with the same task fails cleanly.
    ModulePtr clash(new Framework::SingleTaskModule("runtime_clash",
                                                    [] { return new Receiver("rt_single", 16); }));
    EXPECT_EQ(clash->Init(), -1);
    ModulePtr empty(new Framework::SingleTaskModule("runtime_empty",
                                                    [] { return static_cast<Task*>(nullptr); }));
    EXPECT_EQ(empty->Init(), -1);
    shell->UnInit();
    EXPECT_FALSE(Task::WaitIdle("rt_single", 50)) << "still registered";
}

// The hook builds a policy for the task its document names ("" names none) and calls back into
// its own module: with the hook under the module's lock that deadlocked.
class HookModule : public Framework::Module {
public:
    HookModule() : Framework::Module("runtime_hook_module") {}
    Framework::Policy* Hook(const std::string&, const std::string& document,
                            Framework::Policy*& current) {
        sawTask = FindTask("rt_policy") != nullptr;
        sawCurrent = GetCurrentPolicy("k") == current;
        if (current != nullptr) current->outdated = true;
        auto* policy = new Framework::FeaturePolicy("feature");
        if (!document.empty()) policy->Add(new Framework::TaskPolicy(document));
        return policy;
    }
    std::atomic<bool> sawTask{false};
    std::atomic<bool> sawCurrent{false};
};

class PolicyDispatch : public ::testing::Test {
protected:
    void SetUp() override {
        module_->RegisterPolicyCallback(
            "k", new Framework::PolicyCallback<HookModule>(module_.get(), &HookModule::Hook));
        ASSERT_EQ(module_->RegisterTask(task_, false), 0);
    }
    int Deliver(const std::string& document, const std::string& key = "k") {
        Framework::Policy* current = nullptr;
        return module_->RefreshPolicy(key, "feature", document, current);
    }
    std::unique_ptr<HookModule, ModuleDeleter> module_{new HookModule()};  // stops its task
    Receiver* task_ = new Receiver("rt_policy", 16, false, 1);  // reads its policy every turn
};

// Policies swapped from two delivery threads while the task reads its policy on every turn:
// every reader sees a whole policy, the hook the one in force (which it marks outdated), and the
// last one delivered is the one in force; a policy naming no task leaves the task's alone.
// Every module is offered every key: a missing hook is worth a debug line, no warning.
TEST_F(PolicyDispatch, SwapFromTwoThreadsWhileTheTaskReadsItsPolicy) {
    ASSERT_EQ(Deliver("rt_policy"), 0);
    const auto first = task_->GetFeaturePolicy();
    ASSERT_NE(first, nullptr);
    std::atomic<int> done{0};
    auto deliverMany = [&] {
        for (int i = 0; i < 200; ++i) Deliver("rt_policy");
        ++done;
    };
    std::thread a(deliverMany);
    std::thread b(deliverMany);
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return done.load() == 2; })) << "the hook deadlocked";
    a.join();
    b.join();
    EXPECT_TRUE(module_->sawTask.load());
    EXPECT_TRUE(module_->sawCurrent.load());
    EXPECT_TRUE(first->IsOutdated());
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return task_->policyReads.load() > 0; }));
    const auto last = task_->GetFeaturePolicy();
    EXPECT_EQ(last.get(), module_->GetCurrentPolicy("k"));
    Deliver("");
    EXPECT_EQ(task_->GetFeaturePolicy(), last);
    LogLines log(Poco::Logger::get("framework"));
    EXPECT_EQ(Deliver("rt_policy", "other"), -1);
    EXPECT_EQ(log.text.str(), "7 Module runtime_hook_module: no policy hook for key other\n");
    module_->UnRegisterTaskletCallback("k");
    EXPECT_EQ(Deliver("rt_policy"), -1);
}

}  // namespace
