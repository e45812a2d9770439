// Four producers and four consumers move a million messages through one queue: each message
// is delivered exactly once, each producer's messages keep their order, and the queue keeps
// none alive once taken. Also built and run under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "framework/Message.h"
#include "sdk/LocklessQueue.h"

namespace {

constexpr int kProducers = 4;
constexpr int kConsumers = 4;
constexpr int kPerProducer = 250000;

std::atomic<int> gAlive{0};

class Tagged : public Framework::Message {
public:
    Tagged(int producer, int seq) : producer(producer), seq(seq) { gAlive.fetch_add(1); }
    ~Tagged() override { gAlive.fetch_sub(1); }
    int MessageHandle(void*) override { return 0; }
    const int producer;
    const int seq;
};

using Ptr = std::shared_ptr<Framework::Message>;

TEST(LocklessQueueStress, MillionMessagesFourByFour) {
    SDK::LocklessQueue<Ptr> queue(1024);
    std::atomic<int> producersDone{0};
    // seen[p][seq]: set once by whichever consumer got it.
    std::vector<std::vector<std::atomic<uint8_t>>> seen(kProducers);
    for (auto& s : seen) s = std::vector<std::atomic<uint8_t>>(kPerProducer);
    std::atomic<int> duplicates{0};
    std::atomic<int> outOfOrder{0};
    std::atomic<long> taken{0};

    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            int seq = 0;
            std::vector<Ptr> batch;
            while (seq < kPerProducer) {
                batch.clear();
                const int n = std::min(1 + seq % 16, kPerProducer - seq);
                for (int i = 0; i < n; ++i) batch.push_back(std::make_shared<Tagged>(p, seq + i));
                int put = 0;
                while (put == 0) {
                    put = queue.EnqueueBulk(batch, n);
                    if (put == 0) std::this_thread::yield();
                }
                seq += put;  // the rest of the batch is rebuilt in the next turn
            }
            producersDone.fetch_add(1);
        });
    }
    for (int c = 0; c < kConsumers; ++c) {
        threads.emplace_back([&] {
            std::vector<int> last(kProducers, -1);  // per consumer: order of each producer
            std::vector<Ptr> out;
            for (;;) {
                out.clear();
                const int n = queue.DequeueBulk(out, 64);
                if (n == 0) {
                    if (producersDone.load() == kProducers && queue.Count() == 0) break;
                    std::this_thread::yield();
                    continue;
                }
                for (const auto& msg : out) {
                    const auto* t = static_cast<const Tagged*>(msg.get());
                    if (seen[t->producer][t->seq].exchange(1) != 0) duplicates.fetch_add(1);
                    if (t->seq <= last[t->producer]) outOfOrder.fetch_add(1);
                    last[t->producer] = t->seq;
                }
                taken.fetch_add(n);
            }
        });
    }
    for (auto& t : threads) t.join();

    EXPECT_EQ(taken.load(), static_cast<long>(kProducers) * kPerProducer);
    EXPECT_EQ(duplicates.load(), 0);
    EXPECT_EQ(outOfOrder.load(), 0);
    for (int p = 0; p < kProducers; ++p) {
        for (int s = 0; s < kPerProducer; ++s) {
            ASSERT_EQ(seen[p][s].load(), 1) << "producer " << p << " message " << s << " lost";
        }
    }
    EXPECT_EQ(gAlive.load(), 0) << "the queue kept taken messages alive";
}

}  // namespace
