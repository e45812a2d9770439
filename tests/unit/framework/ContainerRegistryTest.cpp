#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "framework/ContainerRegistry.h"

namespace {

using Framework::ContainerRegistry;

class ContainerRegistryTest : public ::testing::Test {
protected:
    void SetUp() override { registry_.Clear(); }
    void TearDown() override { registry_.Clear(); }

    // The root path found for `path`, or "" for none.
    std::string RootOf(const std::string& path) {
        ContainerRegistry::Entry entry;
        return registry_.Find(path, entry) ? entry.rootPath : std::string();
    }

    ContainerRegistry& registry_ = ContainerRegistry::Instance();
};

TEST_F(ContainerRegistryTest, PathsBelongToTheDeepestRootAtAComponentBoundary) {
    registry_.Started("/var/lib/docker/overlay2/a/merged/", "aa", 10);
    registry_.Started("/var/lib/docker/overlay2/a/merged/nested", "bb", 11);
    EXPECT_EQ(RootOf("/var/lib/docker/overlay2/a/merged/etc/passwd"),
              "/var/lib/docker/overlay2/a/merged");
    EXPECT_EQ(RootOf("/var/lib/docker/overlay2/a/merged//etc/passwd"),
              "/var/lib/docker/overlay2/a/merged");
    EXPECT_EQ(RootOf("/var/lib/docker/overlay2/a/merged"), "/var/lib/docker/overlay2/a/merged");
    EXPECT_EQ(RootOf("/var/lib/docker/overlay2/a/merged/nested/x"),
              "/var/lib/docker/overlay2/a/merged/nested");
    // A name that merely begins like a root is the host's.
    EXPECT_EQ(RootOf("/var/lib/docker/overlay2/a/mergedetc/hosts"), "");
    EXPECT_EQ(RootOf("/var/lib/docker/overlay2/a"), "");
    EXPECT_EQ(RootOf("relative/merged/etc"), "");
    EXPECT_EQ(RootOf(""), "");
}

TEST_F(ContainerRegistryTest, TheHostRootAndRelativeRootsAreNeverContainers) {
    registry_.Started("/", "aa", 10);
    registry_.Started("///", "aa", 10);
    registry_.Started("merged", "aa", 10);
    registry_.Started("", "aa", 10);
    EXPECT_EQ(RootOf("/etc/passwd"), "");
    EXPECT_EQ(RootOf("/merged/etc"), "");
}

TEST_F(ContainerRegistryTest, AnExitedContainerStaysKnownWithoutItsProcessUntilItRestarts) {
    registry_.Started("/r/merged", "aa", 10);
    registry_.Exited("/r/merged");
    ContainerRegistry::Entry entry;
    ASSERT_TRUE(registry_.Find("/r/merged/etc", entry));
    EXPECT_EQ(entry.pid, 0);
    EXPECT_EQ(entry.id, "aa");
    registry_.Started("/r/merged", "aa", 12);
    ASSERT_TRUE(registry_.Find("/r/merged/etc", entry));
    EXPECT_EQ(entry.pid, 12);
}

TEST_F(ContainerRegistryTest, OnlyTheMostRecentlyExitedAreKept) {
    const std::size_t extra = 3;
    for (std::size_t i = 0; i < ContainerRegistry::kMaxExited + extra; ++i) {
        const std::string root = "/r/" + std::to_string(i);
        registry_.Started(root, "aa", 100);
        registry_.Exited(root);
        registry_.Exited(root);  // a second exit is no second tombstone
    }
    for (std::size_t i = 0; i < extra; ++i) EXPECT_EQ(RootOf("/r/" + std::to_string(i) + "/f"), "");
    EXPECT_EQ(RootOf("/r/" + std::to_string(extra) + "/f"), "/r/" + std::to_string(extra));
    // A running container is never forgotten for others' exits.
    registry_.Started("/running", "bb", 7);
    for (std::size_t i = 0; i < ContainerRegistry::kMaxExited + 1; ++i) {
        const std::string root = "/s/" + std::to_string(i);
        registry_.Started(root, "aa", 100);
        registry_.Exited(root);
    }
    EXPECT_EQ(RootOf("/running/etc"), "/running");
}

// The container service records while the file-notify service looks up, on other threads.
TEST_F(ContainerRegistryTest, LookupsWhileContainersComeAndGoSeeWholeEntries) {
    constexpr int kRoots = 64;
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int round = 0; !stop.load(); ++round) {
            for (int i = 0; i < kRoots; ++i) {
                const std::string root = "/r/" + std::to_string(i);
                registry_.Started(root, "id" + std::to_string(i), 100 + i);
                if (round % 2 == 1) registry_.Exited(root);
            }
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    std::size_t found = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        for (int i = 0; i < kRoots; ++i) {
            ContainerRegistry::Entry entry;
            if (!registry_.Find("/r/" + std::to_string(i) + "/etc/passwd", entry)) continue;
            ++found;
            ASSERT_EQ(entry.id, "id" + std::to_string(i));
            ASSERT_TRUE(entry.pid == 0 || entry.pid == 100 + i);
        }
    }
    stop = true;
    writer.join();
    EXPECT_GT(found, 0u);
}

}  // namespace
