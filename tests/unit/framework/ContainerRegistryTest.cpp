#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "framework/ContainerRegistry.h"
#include "support/Deadline.h"

namespace {

using Framework::ContainerRegistry;

class ContainerRegistryTest : public ::testing::Test {
protected:
    void SetUp() override { registry_.Clear(); }

    // The root path found for `path`, or "" for none.
    std::string RootOf(const std::string& path) {
        ContainerRegistry::Entry entry;
        return registry_.Find(path, entry) ? entry.rootPath : std::string();
    }

    ContainerRegistry& registry_ = ContainerRegistry::Instance();
};

TEST_F(ContainerRegistryTest, PathsBelongToTheDeepestRootAtAComponentBoundary) {
    const std::string a = "/var/lib/docker/overlay2/a/merged";
    registry_.Started(a + "/", "aa", 10);
    registry_.Started(a + "/nested", "bb", 11);
    // The host's root and relative roots are never containers.
    for (const char* never : {"/", "///", "merged", ""}) registry_.Started(never, "cc", 12);
    // Paths go to the deepest root; a name that merely begins like a root is the host's.
    const std::pair<std::string, std::string> cases[] = {{a + "/etc/passwd", a},
                                                         {a + "//etc/passwd", a},
                                                         {a, a},
                                                         {a + "/nested/x", a + "/nested"},
                                                         {a + "etc/hosts", ""},
                                                         {"/var/lib/docker/overlay2/a", ""},
                                                         {"relative/merged/etc", ""},
                                                         {"/merged/etc", ""}};
    for (const auto& c : cases) EXPECT_EQ(RootOf(c.first), c.second) << c.first;
}

// An exited container stays known, without its process, until it restarts; only the most
// recently exited are, and a running container is never forgotten for others' exits.
TEST_F(ContainerRegistryTest, ExitedContainersStayKnownWithoutTheirProcessTheLatestOnly) {
    const std::size_t extra = 3;
    registry_.Started("/running", "bb", 7);
    for (std::size_t i = 0; i < ContainerRegistry::kMaxExited + extra; ++i) {
        const std::string root = "/r/" + std::to_string(i);
        registry_.Started(root, "id" + std::to_string(i), 100);
        registry_.Exited(root);
        registry_.Exited(root);  // a second exit is no second tombstone
    }
    for (std::size_t i = 0; i < extra; ++i) EXPECT_EQ(RootOf("/r/" + std::to_string(i) + "/f"), "");
    const std::string oldest = "/r/" + std::to_string(extra);
    ContainerRegistry::Entry entry;
    ASSERT_TRUE(registry_.Find(oldest + "/etc", entry));
    EXPECT_EQ(std::tie(entry.rootPath, entry.id, entry.pid),
              std::make_tuple(oldest, "id" + std::to_string(extra), 0));
    registry_.Started(oldest, entry.id, 12);
    EXPECT_TRUE(registry_.Find(oldest + "/etc", entry) && entry.pid == 12);
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
    const TestSupport::Deadline deadline(std::chrono::milliseconds(300));
    std::size_t found = 0;
    while (!deadline.Expired()) {
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
