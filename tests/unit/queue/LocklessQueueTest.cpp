#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "sdk/LocklessQueue.h"

namespace {

using IntQueue = SDK::LocklessQueue<int>;

// Exposes the counter hook so that the 2^32 wrap can be reached without 4 billion operations.
template <typename T>
class WrappingQueue : public SDK::LocklessQueue<T> {
public:
    WrappingQueue(unsigned int capacity, uint32_t start) : SDK::LocklessQueue<T>(capacity) {
        this->StartCountersAt(start);
    }
};

// Records that the single-element operations go through the bulk ones.
class CountingQueue : public IntQueue {
public:
    explicit CountingQueue(unsigned int capacity) : IntQueue(capacity) {}
    int EnqueueBulk(const std::vector<int>& elements, int count) override {
        ++enqueueBulkCalls;
        return IntQueue::EnqueueBulk(elements, count);
    }
    int DequeueBulk(std::vector<int>& out, int count) override {
        ++dequeueBulkCalls;
        lastDequeueCount = count;
        return IntQueue::DequeueBulk(out, count);
    }
    int enqueueBulkCalls = 0;
    int dequeueBulkCalls = 0;
    int lastDequeueCount = 0;
};

std::vector<int> Range(int from, int n) {
    std::vector<int> v;
    for (int i = 0; i < n; ++i) v.push_back(from + i);
    return v;
}

TEST(LocklessQueueShape, SizeIsThePowerOfTwoAboveTheCapacity) {
    IntQueue q(1000);
    EXPECT_EQ(q.Size(), 1024u);
    EXPECT_EQ(q.Capacity(), 1000u);
    IntQueue exact(64);
    EXPECT_EQ(exact.Size(), 64u);
}

TEST(LocklessQueueShape, QueueWithoutStorageRefusesEverything) {
    IntQueue q(0);
    EXPECT_EQ(q.Enqueue(1), 0);
    EXPECT_EQ(q.EnqueueBulk({1, 2}, 2), 0);
    int value = 7;
    EXPECT_EQ(q.Dequeue(value), 0);
    EXPECT_EQ(value, 7);
    std::vector<int> out;
    EXPECT_EQ(q.DequeueBulk(out, -1), 0);
}

TEST(LocklessQueueCounts, BulkEnqueueTakesWhatFitsFromTheFront) {
    IntQueue q(6);  // 8 slots, 6 usable
    EXPECT_EQ(q.EnqueueBulk(Range(0, 9), 9), 6);
    EXPECT_EQ(q.Enqueue(99), 0);
    std::vector<int> out;
    EXPECT_EQ(q.DequeueBulk(out, -1), 6);
    EXPECT_EQ(out, Range(0, 6));
}

TEST(LocklessQueueCounts, EnqueueCountIsNotConsultedTheVectorIsTheRequest) {
    IntQueue q(16);
    EXPECT_EQ(q.EnqueueBulk(Range(0, 5), 1), 5);
    EXPECT_EQ(q.Count(), 5u);
}

TEST(LocklessQueueCounts, DequeueCountZeroTakesNothingNegativeTakesAll) {
    IntQueue q(16);
    q.EnqueueBulk(Range(0, 10), 10);
    std::vector<int> out = {-1};
    EXPECT_EQ(q.DequeueBulk(out, 0), 0);
    EXPECT_EQ(q.DequeueBulk(out, 3), 3);
    EXPECT_EQ(q.DequeueBulk(out, -1), 7);
    // Appended behind what the vector already held, oldest first.
    std::vector<int> want = {-1};
    for (int i = 0; i < 10; ++i) want.push_back(i);
    EXPECT_EQ(out, want);
}

TEST(LocklessQueueCounts, DequeueOnEmptyLeavesTheArgumentAlone) {
    IntQueue q(4);
    int value = 42;
    EXPECT_EQ(q.Dequeue(value), 0);
    EXPECT_EQ(value, 42);
    q.Enqueue(5);
    EXPECT_EQ(q.Dequeue(value), 1);
    EXPECT_EQ(value, 5);
}

TEST(LocklessQueueCounts, SingleElementOperationsGoThroughTheBulkOnes) {
    CountingQueue q(4);
    q.Enqueue(1);
    int value = 0;
    q.Dequeue(value);
    EXPECT_EQ(q.enqueueBulkCalls, 1);
    EXPECT_EQ(q.dequeueBulkCalls, 1);
    EXPECT_EQ(q.lastDequeueCount, 1);
}

TEST(LocklessQueueOrder, StretchesWrappingPastTheLastSlotKeepTheirOrder) {
    for (int unroll = 1; unroll <= 9; ++unroll) {  // every remainder of the unrolled copy
        IntQueue q(16);
        std::vector<int> out;
        q.EnqueueBulk(Range(0, 13), 13);
        q.DequeueBulk(out, 13);
        out.clear();
        ASSERT_EQ(q.EnqueueBulk(Range(100, unroll), unroll), unroll);
        ASSERT_EQ(q.DequeueBulk(out, -1), unroll);
        EXPECT_EQ(out, Range(100, unroll)) << "stretch of " << unroll;
    }
}

TEST(LocklessQueueOrder, CountersPassing2To32KeepWorking) {
    WrappingQueue<int> q(8, 0xFFFFFFFAu);
    std::vector<int> out;
    int next = 0;
    int expected = 0;
    for (int round = 0; round < 10; ++round) {
        ASSERT_EQ(q.EnqueueBulk(Range(next, 5), 5), 5);
        next += 5;
        ASSERT_EQ(q.DequeueBulk(out, -1), 5);
    }
    for (int v : out) EXPECT_EQ(v, expected++);
    EXPECT_EQ(q.Count(), 0u);
    EXPECT_EQ(q.EnqueueBulk(Range(0, 9), 9), 8) << "capacity survives the wrap";
}

TEST(LocklessQueueOrder, SingleSidedQueuesBehaveTheSame) {
    SDK::LocklessQueue<int> q(8, true, true);
    EXPECT_EQ(q.EnqueueBulk(Range(0, 10), 10), 8);
    std::vector<int> out;
    EXPECT_EQ(q.DequeueBulk(out, 5), 5);
    EXPECT_EQ(q.EnqueueBulk(Range(8, 5), 5), 5);
    EXPECT_EQ(q.DequeueBulk(out, -1), 8);
    EXPECT_EQ(out, Range(0, 13));
}

TEST(LocklessQueueOwnership, ATakenElementIsNotKeptAliveByTheQueueEvenAcrossTheWrap) {
    SDK::LocklessQueue<std::shared_ptr<int>> q(8);
    std::vector<std::shared_ptr<int>> out;
    for (int i = 0; i < 6; ++i) q.Enqueue(std::make_shared<int>(-1));
    q.DequeueBulk(out, -1);  // counters now at slot 6: the next 7 wrap past the last slot
    out.clear();
    std::vector<std::shared_ptr<int>> in;
    std::vector<std::weak_ptr<int>> watches;
    for (int i = 0; i < 7; ++i) {
        in.push_back(std::make_shared<int>(i));
        watches.push_back(in.back());
    }
    ASSERT_EQ(q.EnqueueBulk(in, 7), 7);
    EXPECT_EQ(in[0].use_count(), 2) << "the queue holds its own reference";
    in.clear();
    ASSERT_EQ(q.DequeueBulk(out, -1), 7);
    for (int i = 0; i < 7; ++i) {
        ASSERT_TRUE(out[static_cast<size_t>(i)]);
        EXPECT_EQ(*out[static_cast<size_t>(i)], i);
    }
    for (const auto& w : watches) EXPECT_FALSE(w.expired());
    out.clear();
    for (const auto& w : watches) EXPECT_TRUE(w.expired()) << "a slot still held a reference";
}

TEST(LocklessQueueOwnership, DestructorReleasesWhatIsStillQueued) {
    std::weak_ptr<int> watch;
    {
        SDK::LocklessQueue<std::shared_ptr<int>> q(4);
        auto item = std::make_shared<int>(1);
        watch = item;
        q.Enqueue(item);
    }
    EXPECT_TRUE(watch.expired());
}

}  // namespace
