// Round-robin draining: a newcomer is served within one round of a storming source.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "filenotify/FairQueue.h"

namespace {

using Queue = Engine::FairQueue<std::string, int>;

TEST(FairQueue, NewcomerIsServedWithinOneRoundOfAStorm) {
    Queue queue(1000, 10000);
    for (int i = 0; i < 500; ++i) ASSERT_TRUE(queue.Push("storm", i));
    std::vector<int> got;
    auto takeTwo = [&](int& item) {
        if (got.size() >= 2) return false;
        got.push_back(item);
        return true;
    };
    queue.Drain(takeTwo);
    ASSERT_TRUE(queue.Push("calm", -1));
    got.clear();
    queue.Drain(takeTwo);
    // The storm was served last: the calm source's item goes next, not 498 items later, and
    // the storm's refused item is still first in its own line.
    EXPECT_EQ((std::vector<int>{-1, 2}), got);
    got.clear();
    queue.Drain([&](int& item) {
        got.push_back(item);
        return true;
    });
    EXPECT_EQ(497u, got.size());
    EXPECT_EQ(3, got.front());
    EXPECT_TRUE(queue.Empty());
}

TEST(FairQueue, EachSourceHasItsShareAndTheWholeHasABound) {
    Queue queue(3, 5);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(queue.Push("a", i));
    EXPECT_FALSE(queue.Push("a", 3)) << "a source beyond its share";
    EXPECT_FALSE(queue.Full());
    ASSERT_TRUE(queue.Push("b", 0));
    ASSERT_TRUE(queue.Push("b", 1));
    EXPECT_TRUE(queue.Full());
    EXPECT_EQ(5u, queue.Size());
    EXPECT_EQ(3u, queue.EraseIf([](const std::string& source, int) { return source == "a"; }));
    EXPECT_EQ(2u, queue.Size());
    EXPECT_TRUE(queue.Push("a", 9));
}

}  // namespace
