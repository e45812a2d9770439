// Message delivery between tasks on the real framework: ownership, losses, handler failures
// and waking an idle task.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "framework/Counters.h"
#include "framework/Module.h"
#include "framework/Outbox.h"
#include "framework/Task.h"

namespace {

using Clock = std::chrono::steady_clock;

// Counts live probes so that a test can tell whether the framework released a message.
std::atomic<int> gLiveProbes{0};

class Probe : public Framework::Message {
public:
    explicit Probe(int value, bool throws = false) : value(value), throws(throws) {
        gLiveProbes.fetch_add(1);
    }
    ~Probe() override { gLiveProbes.fetch_sub(1); }
    int MessageHandle(void* task) override;
    const int value;
    const bool throws;
};

// Records the probes it handles; its loop waits `waitMs` per turn, like a real task.
class RecordingTask : public Framework::Task {
public:
    RecordingTask(const std::string& name, unsigned int capacity, int waitMs, bool consume = true)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_MESSAGE,
                          capacity),
          waitMs_(waitMs),
          consume_(consume) {}

    int Run() override {
        while (!isCancelled()) {
            const int r = GetEventWaiter().WaitAndHandleEvent(waitMs_, 16);
            if (r == -1 && consume_.load()) BulkConsumeMsg(64);
        }
        return 0;
    }
    void Record(int value) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            values_.push_back(value);
        }
        cv_.notify_all();
    }
    bool WaitForCount(size_t n, std::chrono::milliseconds within) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, within, [&] { return values_.size() >= n; });
    }
    std::vector<int> Values() {
        std::lock_guard<std::mutex> lock(mutex_);
        return values_;
    }

    void SetConsuming(bool consume) {
        consume_.store(consume);
        GetEventWaiter().Notify();
    }

private:
    int waitMs_;
    std::atomic<bool> consume_;
    std::mutex mutex_;  // guards values_
    std::condition_variable cv_;
    std::vector<int> values_;
};

int Probe::MessageHandle(void* task) {
    if (throws) throw std::runtime_error("handler failed");
    static_cast<RecordingTask*>(static_cast<Framework::Task*>(task))->Record(value);
    return 0;
}

class TestModule : public Framework::Module {
public:
    TestModule() : Framework::Module("framework_test_module") {}
};

class FrameworkDelivery : public ::testing::Test {
protected:
    void SetUp() override { module_ = new TestModule(); }
    void TearDown() override {
        for (const auto& name : registered_) module_->UnRegisterTask(name);
        module_->release();
    }
    RecordingTask* Start(const std::string& name, unsigned int capacity, int waitMs,
                         bool consume = true) {
        auto* task = new RecordingTask(name, capacity, waitMs, consume);
        EXPECT_EQ(module_->RegisterTask(task, false), 0);
        registered_.push_back(name);
        return task;
    }
    uint64_t Counter(const std::string& name) {
        return Framework::Counters::Instance().Value(name);
    }

    TestModule* module_ = nullptr;
    std::vector<std::string> registered_;
};

TEST_F(FrameworkDelivery, MessagesArriveInOrderFromAnotherTask) {
    RecordingTask* sender = Start("fw_sender", 16, 50);
    RecordingTask* receiver = Start("fw_receiver", 1024, 50);
    for (int i = 0; i < 500; ++i) ASSERT_EQ(sender->SendDirectMsg("fw_receiver", new Probe(i)), 0);
    ASSERT_TRUE(receiver->WaitForCount(500, std::chrono::seconds(10)));
    const auto values = receiver->Values();
    for (int i = 0; i < 500; ++i) ASSERT_EQ(values[i], i);
}

TEST_F(FrameworkDelivery, UnknownTaskIsCountedAndTheMessageReleased) {
    RecordingTask* sender = Start("fw_lonely", 16, 50);
    const int liveBefore = gLiveProbes.load();
    const uint64_t before =
        Counter(std::string(Framework::CounterNames::kUnknownTask) + ".fw_nobody");
    EXPECT_EQ(sender->SendDirectMsg("fw_nobody", new Probe(1)), -1);
    EXPECT_EQ(Counter(std::string(Framework::CounterNames::kUnknownTask) + ".fw_nobody"),
              before + 1);
    EXPECT_EQ(gLiveProbes.load(), liveBefore) << "the undeliverable message leaked";
}

TEST_F(FrameworkDelivery, FullQueueIsCountedAndTheMessageReleased) {
    RecordingTask* sender = Start("fw_flooder", 16, 50);
    RecordingTask* stalled = Start("fw_stalled", 4, 50, /*consume=*/false);
    const uint64_t before =
        Counter(std::string(Framework::CounterNames::kQueueFull) + ".fw_stalled");
    for (int i = 0; i < 4; ++i) ASSERT_EQ(sender->SendDirectMsg("fw_stalled", new Probe(i)), 0);
    const int liveBefore = gLiveProbes.load();
    EXPECT_EQ(sender->SendDirectMsg("fw_stalled", new Probe(99)), -1);
    EXPECT_EQ(Counter(std::string(Framework::CounterNames::kQueueFull) + ".fw_stalled"),
              before + 1);
    EXPECT_EQ(gLiveProbes.load(), liveBefore);
    // What was queued is still handled when the task stops.
    module_->UnRegisterTask("fw_stalled");
    registered_.erase(registered_.begin() + 1);
    (void)stalled;
    EXPECT_EQ(gLiveProbes.load(), liveBefore - 4);
}

// A service that holds back: what a full queue refused waits, in order, and arrives once the
// receiver drains; only what exceeds the outbox's bound is released, and counted.
TEST_F(FrameworkDelivery, OutboxHoldsBackInOrderAndCountsWhatExceedsItsBound) {
    RecordingTask* sender = Start("fw_patient", 16, 50);
    RecordingTask* slow = Start("fw_slow", 4, 50, /*consume=*/false);
    Framework::Outbox outbox(*sender, 3, "fwtest.outbox");
    const uint64_t dropped = Counter("fwtest.outbox.dropped");
    for (int i = 0; i < 7; ++i) ASSERT_TRUE(outbox.Send("fw_slow", new Probe(i)));
    EXPECT_EQ(3u, outbox.Held());
    const int live = gLiveProbes.load();
    EXPECT_FALSE(outbox.Send("fw_slow", new Probe(99)));
    EXPECT_EQ(live, gLiveProbes.load()) << "the message beyond the bound leaked";
    EXPECT_EQ(dropped + 1, Counter("fwtest.outbox.dropped"));
    slow->SetConsuming(true);
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (outbox.Flush() > 0 && Clock::now() < deadline) std::this_thread::yield();
    ASSERT_TRUE(slow->WaitForCount(7, std::chrono::seconds(10)));
    EXPECT_EQ(slow->Values(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
}

TEST_F(FrameworkDelivery, OutboxStopsAtTheHighWaterMarkAndLeavesTheRestToOthers) {
    RecordingTask* sender = Start("fw_polite", 16, 50);
    Start("fw_busy", 8, 50, /*consume=*/false);
    Framework::Outbox outbox(*sender, 100, "fwtest.polite", 2);
    for (int i = 0; i < 5; ++i) outbox.Send("fw_busy", new Probe(i));
    EXPECT_EQ(2, Framework::Task::QueuedMessages("fw_busy"));
    EXPECT_EQ(3u, outbox.Held());
    EXPECT_EQ(0, sender->SendDirectMsg("fw_busy", new Probe(50))) << "no room left for others";
    EXPECT_EQ(-1, Framework::Task::QueuedMessages("fw_nobody"));
}

TEST_F(FrameworkDelivery, AThrowingHandlerIsCountedAndTheLoopGoesOn) {
    RecordingTask* sender = Start("fw_thrower", 16, 50);
    RecordingTask* receiver = Start("fw_catcher", 64, 50);
    const uint64_t before = Counter(Framework::CounterNames::kHandlerException);
    ASSERT_EQ(sender->SendDirectMsg("fw_catcher", new Probe(1, /*throws=*/true)), 0);
    ASSERT_EQ(sender->SendDirectMsg("fw_catcher", new Probe(2)), 0);
    ASSERT_TRUE(receiver->WaitForCount(1, std::chrono::seconds(10)));
    EXPECT_EQ(receiver->Values(), std::vector<int>{2});
    EXPECT_EQ(Counter(Framework::CounterNames::kHandlerException), before + 1);
}

TEST_F(FrameworkDelivery, AnIdleTaskIsWokenAtOnceNotAtItsTimeout) {
    RecordingTask* sender = Start("fw_waker", 16, 50);
    RecordingTask* sleeper = Start("fw_sleeper", 16, 10000);
    // Let the sleeper settle into its 10 s wait first: the message must cut it short.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto sent = Clock::now();
    ASSERT_EQ(sender->SendDirectMsg("fw_sleeper", new Probe(7)), 0);
    ASSERT_TRUE(sleeper->WaitForCount(1, std::chrono::seconds(5)))
        << "handled only at the wait's timeout";
    EXPECT_LT(Clock::now() - sent, std::chrono::seconds(5));
}

TEST_F(FrameworkDelivery, RacingSendersNeverLeaveAMessageWaitingForTheTimeout) {
    // Only the first send after the receiver took its signal writes the eventfd; a lost race
    // there would leave the last messages of a round until the receiver's 10 s timeout.
    RecordingTask* sender = Start("fw_racer", 16, 50);
    RecordingTask* receiver = Start("fw_race_target", 4096, 10000);
    std::size_t expected = 0;
    for (int round = 0; round < 300; ++round) {
        const int each = 1 + round % 4;
        auto send = [&] {
            for (int i = 0; i < each; ++i) sender->SendDirectMsg("fw_race_target", new Probe(i));
        };
        std::thread other(send);
        send();
        other.join();
        expected += static_cast<std::size_t>(2 * each);
        ASSERT_TRUE(receiver->WaitForCount(expected, std::chrono::seconds(3)))
            << "round " << round << ": a message waited for the timeout";
    }
}

TEST_F(FrameworkDelivery, ATaskStoppedRightAfterItsStartStopsPromptly) {
    for (int i = 0; i < 20; ++i) {
        const std::string name = "fw_brief" + std::to_string(i);
        Start(name, 4, 10000);
        const auto begin = Clock::now();
        ASSERT_EQ(module_->UnRegisterTask(name), 0);
        registered_.pop_back();
        ASSERT_LT(Clock::now() - begin, std::chrono::seconds(5)) << "the stop was lost";
    }
}

}  // namespace
