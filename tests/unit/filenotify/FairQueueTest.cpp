// Round-robin draining: a newcomer is served within one round of a storming source, and each
// source is held to its share.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "filenotify/FairQueue.h"

namespace {

TEST(FairQueue, ANewcomerIsServedNextAndEachSourceIsHeldToItsShare) {
    Engine::FairQueue<std::string, int> queue(3, 5);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(queue.Push("storm", i));
    EXPECT_FALSE(queue.Push("storm", 3)) << "a source beyond its share";
    std::vector<int> got;
    // Takes up to `n` items; the one refused stays first in its source's line.
    const auto take = [&](std::size_t n) {
        got.clear();
        queue.Drain([&](int& item) { return got.size() < n && (got.push_back(item), true); });
        return got;
    };
    EXPECT_EQ(take(1), std::vector<int>{0});
    for (int i = -1; i >= -3; --i) ASSERT_TRUE(queue.Push("calm", i));
    EXPECT_TRUE(queue.Full());  // 5 in all
    // The storm was served last: the newcomer goes next, then they take turns.
    EXPECT_EQ(take(3), (std::vector<int>{-1, 1, -2}));
    EXPECT_EQ(queue.EraseIf([](const std::string& source, int) { return source == "calm"; }), 1u);
    EXPECT_EQ(take(9), std::vector<int>{2});
    EXPECT_TRUE(queue.Empty());
}

}  // namespace
