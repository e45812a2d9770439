// Path items resolved inside a stand-in container root on the real file system.
#include <gtest/gtest.h>
#include <unistd.h>

#include "process_collect/AuditPathResolver.h"
#include "support/TempDir.h"

using Engine::AuditLogSyscall;
using Engine::AuditPathResolver;

namespace {

// An absolute link is the container's. Names that climb above the root and links to host paths
// are fed by the event fuzzer, whose every output must stay in its root.
TEST(AuditPathResolver, ItemsResolveInsideTheRootAndWhatLeavesItIsDropped) {
    TestSupport::TempDir tmp("tw-resolve");
    const std::string root = tmp / "merged";
    tmp.Dir("merged/bin");
    tmp.File("merged/bin/tool", "x");
    const std::string outside = tmp.File("outside", "host");
    ASSERT_EQ(0, ::symlink("/bin/tool", (root + "/bin/link").c_str()));

    const SDK::ContainerRoot container(root);
    AuditLogSyscall syscall;
    syscall.paths = {{root + "/bin/link", "CREATE", {}, {}},
                     {root + "/bin/gone", "DELETE", {}, {}},
                     {root + "/bin", "PARENT", {}, {}}};
    ASSERT_TRUE(AuditPathResolver::Resolve(container, syscall));
    ASSERT_EQ(2u, syscall.paths.size());
    EXPECT_EQ(root + "/bin/tool", syscall.paths[0].name);
    EXPECT_EQ("CREATE", syscall.paths[0].nametype);
    EXPECT_EQ(root + "/bin", syscall.paths[1].name);

    // Nothing to look at: only directories left, or nothing inside the root.
    syscall.paths = {{root + "/bin/gone", "DELETE", {}, {}}, {root + "/bin", "PARENT", {}, {}}};
    EXPECT_FALSE(AuditPathResolver::Resolve(container, syscall));
    syscall.paths = {{outside, "NORMAL", {}, {}}};
    EXPECT_FALSE(AuditPathResolver::Resolve(container, syscall));
}

}  // namespace
