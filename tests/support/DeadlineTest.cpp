// Waits end at their deadline, not later, and not before the condition had its last look.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "support/Deadline.h"
#include "support/ManualClock.h"

namespace {

using namespace std::chrono_literals;
using TestSupport::Deadline;
using TestSupport::ManualClock;
using TestSupport::WaitUntil;

TEST(Deadline, ExpiresAtTheDeadlineExactly) {
    ManualClock clock;
    const Deadline deadline(250ms, clock);
    clock.Advance(249);
    EXPECT_FALSE(deadline.Expired());
    EXPECT_EQ(deadline.Remaining(), 1ms);
    clock.Advance(1);
    EXPECT_TRUE(deadline.Expired());
    EXPECT_EQ(deadline.Remaining(), 0ms);
    clock.Advance(1000);
    EXPECT_EQ(deadline.Remaining(), 0ms) << "no wrap-around past the deadline";

    const Deadline already(0ms, clock);
    EXPECT_TRUE(already.Expired());
    const Deadline negative(-5ms, clock);
    EXPECT_TRUE(negative.Expired());
}

TEST(WaitUntil, FalseWhenTheConditionNeverHoldsAndNotMuchLater) {
    std::atomic<int> looks{0};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(WaitUntil([&] { return ++looks < 0; }, 100ms, 10ms));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 100ms);
    EXPECT_LT(took, 2s) << "waited far past the deadline";
    EXPECT_GE(looks.load(), 2) << "the condition had no last look at the deadline";
}

TEST(WaitUntil, TrueAsSoonAsItHoldsEvenWithNoTimeLeft) {
    int looks = 0;
    EXPECT_TRUE(WaitUntil([&] { return ++looks == 3; }, 10s, 1ms));
    EXPECT_EQ(looks, 3);
    EXPECT_TRUE(WaitUntil([] { return true; }, 0ms)) << "a zero timeout still looks once";
}

}  // namespace
