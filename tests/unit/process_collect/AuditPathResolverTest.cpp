// Path items resolved inside a stand-in container root on the real file system.
#include <gtest/gtest.h>
#include <unistd.h>

#include "process_collect/AuditPathResolver.h"
#include "support/TempDir.h"

using Engine::AuditLogSyscall;
using Engine::AuditPathResolver;

namespace {

TEST(AuditPathResolver, ItemsResolveInsideTheRootAndWhatLeavesItIsDropped) {
    TestSupport::TempDir tmp("tw-resolve");
    const std::string host = tmp.Path();
    const std::string root = tmp / "merged";
    tmp.Dir("merged/bin");
    tmp.File("merged/bin/tool", "x");
    tmp.File("outside", "host");
    ASSERT_EQ(0, ::symlink("/bin/tool", (root + "/bin/link").c_str()));
    ASSERT_EQ(0, ::symlink((host + "/outside").c_str(), (root + "/bin/out").c_str()));

    const SDK::ContainerRoot container(root);
    AuditLogSyscall syscall;
    syscall.paths = {{root + "/bin/link", "CREATE", {}, {}},
                     {root + "/../../../bin/tool", "NORMAL", {}, {}},
                     {root + "/bin/out", "NORMAL", {}, {}},
                     {root + "/bin/gone", "DELETE", {}, {}},
                     {root + "/bin", "PARENT", {}, {}}};
    ASSERT_TRUE(AuditPathResolver::Resolve(container, syscall));
    ASSERT_EQ(3u, syscall.paths.size());
    EXPECT_EQ(root + "/bin/tool", syscall.paths[0].name);
    EXPECT_EQ("CREATE", syscall.paths[0].nametype);
    EXPECT_EQ(root + "/bin/tool", syscall.paths[1].name);
    EXPECT_EQ(root + "/bin", syscall.paths[2].name);

    // Nothing to look at: only directories left, or nothing inside the root.
    syscall.paths = {{root + "/bin/gone", "DELETE", {}, {}}, {root + "/bin", "PARENT", {}, {}}};
    EXPECT_FALSE(AuditPathResolver::Resolve(container, syscall));
    syscall.paths = {{host + "/outside", "NORMAL", {}, {}}};
    EXPECT_FALSE(AuditPathResolver::Resolve(container, syscall));
}

}  // namespace
