// The clock is read on task threads while the test thread moves it.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/ManualClock.h"

namespace {

using TestSupport::ManualClock;

TEST(ManualClock, MovesOnlyByHandAndNeverBackwards) {
    ManualClock clock(500);
    EXPECT_EQ(clock.NowMs(), 500u);
    EXPECT_EQ(clock.Advance(20), 520u);
    EXPECT_EQ(clock.AdvanceTo(510), 520u) << "went backwards";
    EXPECT_EQ(clock.AdvanceTo(600), 600u);
    EXPECT_EQ(clock.NowMs(), 600u);
}

TEST(ManualClock, MovesFromManyThreadsLoseNoStepAndReadersSeeItRise) {
    constexpr int kMovers = 4;
    constexpr int kSteps = 20000;
    ManualClock clock(0);
    std::atomic<bool> moving{true};
    std::atomic<bool> wentBack{false};
    std::thread reader([&] {
        uint64_t last = 0;
        while (moving.load()) {
            const uint64_t now = clock.NowMs();
            if (now < last) wentBack = true;
            last = now;
        }
    });
    std::vector<std::thread> movers;
    for (int m = 0; m < kMovers; ++m) {
        movers.emplace_back([&] {
            for (int i = 0; i < kSteps; ++i) clock.Advance(1);
        });
    }
    for (auto& t : movers) t.join();
    moving = false;
    reader.join();
    EXPECT_EQ(clock.NowMs(), static_cast<uint64_t>(kMovers) * kSteps);
    EXPECT_FALSE(wentBack.load());
}

}  // namespace
