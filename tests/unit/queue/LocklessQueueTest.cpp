// The lock-free queue: counts and limits, order across the last slot and the counters' 2^32
// wrap, ownership of its elements, and many producers and consumers at once (also built and
// run under ThreadSanitizer).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include "framework/Message.h"
#include "sdk/LocklessQueue.h"

namespace {

using IntQueue = SDK::LocklessQueue<int>;

// Exposes the counter hook so that the 2^32 wrap can be reached without 4 billion operations.
class WrappingQueue : public IntQueue {
public:
    WrappingQueue(unsigned int capacity, uint32_t start, bool singleSided)
        : IntQueue(capacity, singleSided, singleSided) {
        StartCountersAt(start);
    }
};

std::vector<int> Range(int from, int n) {
    std::vector<int> v(static_cast<size_t>(n));
    std::iota(v.begin(), v.end(), from);
    return v;
}

TEST(LocklessQueue, CountsAndLimits) {
    IntQueue none(0);  // without storage: refuses everything
    int value = 7;
    EXPECT_EQ(none.Enqueue(1), 0);
    EXPECT_EQ(none.Dequeue(value), 0);
    EXPECT_EQ(value, 7);

    IntQueue q(6);  // 8 slots, 6 usable
    EXPECT_EQ(q.EnqueueBulk(Range(0, 9), 1), 6)
        << "takes what fits from the front; the vector is the request, not the count";
    EXPECT_EQ(q.Enqueue(99), 0);
    std::vector<int> out = {-1};
    EXPECT_EQ(q.DequeueBulk(out, 0), 0);
    EXPECT_EQ(q.DequeueBulk(out, 2), 2);
    EXPECT_EQ(q.Dequeue(value), 1);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(q.DequeueBulk(out, -1), 3) << "a negative count takes all";
    EXPECT_EQ(out, (std::vector<int>{-1, 0, 1, 3, 4, 5})) << "appended, oldest first";
    EXPECT_EQ(q.Dequeue(value), 0);
    EXPECT_EQ(value, 2) << "an empty queue leaves the argument alone";
}

TEST(LocklessQueue, OrderKeptPastTheLastSlotAndTheCounterWrap) {
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
    for (const bool singleSided : {false, true}) {
        WrappingQueue q(8, 0xFFFFFFFAu, singleSided);
        std::vector<int> out;
        for (int round = 0; round < 10; ++round) {
            ASSERT_EQ(q.EnqueueBulk(Range(5 * round, 5), 5), 5);
            ASSERT_EQ(q.DequeueBulk(out, -1), 5);
        }
        EXPECT_EQ(out, Range(0, 50)) << singleSided;
        EXPECT_EQ(q.Count(), 0u);
        EXPECT_EQ(q.EnqueueBulk(Range(0, 9), 9), 8) << "capacity survives the wrap";
    }
}

// That taken elements are not kept alive, also past the last slot, is the stress case's check.
TEST(LocklessQueue, WhatIsStillQueuedDiesWithTheQueue) {
    auto queued = std::make_shared<int>(1);
    {
        SDK::LocklessQueue<std::shared_ptr<int>> q(8);
        ASSERT_EQ(q.Enqueue(queued), 1);
        EXPECT_EQ(queued.use_count(), 2) << "the queue holds its own reference";
    }
    EXPECT_EQ(queued.use_count(), 1) << "what was still queued outlived the queue";
}

std::atomic<int> gAlive{0};

class Tagged : public Framework::Message {
public:
    Tagged(int producer, int seq) : producer(producer), seq(seq) { gAlive.fetch_add(1); }
    ~Tagged() override { gAlive.fetch_sub(1); }
    int MessageHandle(void*) override { return 0; }
    const int producer;
    const int seq;
};

// Four producers and four consumers move a million messages through one queue: each message
// is delivered exactly once, each producer's messages keep their order, and the queue keeps
// none alive once taken.
TEST(LocklessQueueStress, MillionMessagesFourByFour) {
    constexpr int kProducers = 4;  // and as many consumers
    constexpr int kPerProducer = 250000;
    using Ptr = std::shared_ptr<Framework::Message>;
    SDK::LocklessQueue<Ptr> queue(1024);
    std::atomic<int> producersDone{0};
    // seen[p * kPerProducer + seq]: set once by whichever consumer got it.
    std::vector<std::atomic<uint8_t>> seen(kProducers * kPerProducer);
    std::atomic<int> duplicates{0};
    std::atomic<int> outOfOrder{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            std::vector<Ptr> batch;
            for (int seq = 0; seq < kPerProducer;) {
                batch.clear();
                const int n = std::min(1 + seq % 16, kPerProducer - seq);
                for (int i = 0; i < n; ++i) batch.push_back(std::make_shared<Tagged>(p, seq + i));
                int put = 0;
                while ((put = queue.EnqueueBulk(batch, n)) == 0) std::this_thread::yield();
                seq += put;  // the rest of the batch is rebuilt in the next turn
            }
            producersDone.fetch_add(1);
        });
        threads.emplace_back([&] {
            // Until the producers are done and nothing is left; per consumer, the order of each.
            std::vector<int> last(kProducers, -1);
            for (std::vector<Ptr> out; queue.DequeueBulk(out, 64) > 0 ||
                                       producersDone.load() < kProducers || queue.Count() > 0;
                 out.clear()) {
                if (out.empty()) std::this_thread::yield();
                for (const auto& msg : out) {
                    const auto* t = static_cast<const Tagged*>(msg.get());
                    if (seen[t->producer * kPerProducer + t->seq].exchange(1)) ++duplicates;
                    if (t->seq <= last[t->producer]) ++outOfOrder;
                    last[t->producer] = t->seq;
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(duplicates.load(), 0);
    EXPECT_EQ(outOfOrder.load(), 0);
    for (std::size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i].load(), 1) << i << " lost";
    EXPECT_EQ(gAlive.load(), 0) << "the queue kept taken messages alive";
}

}  // namespace
