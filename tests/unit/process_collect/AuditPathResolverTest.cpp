// Path items resolved inside a stand-in container root on the real file system.
#include <gtest/gtest.h>
#include <unistd.h>

#include "process_collect/AuditPathResolver.h"
#include "support/TempDir.h"

using Engine::AuditLogPath;
using Engine::AuditLogSyscall;
using Engine::AuditPathResolver;

namespace {

AuditLogPath Item(const std::string& name, const std::string& type) {
    AuditLogPath item;
    item.name = name;
    item.nametype = type;
    return item;
}

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
    syscall.paths = {Item(root + "/bin/link", "CREATE"),
                     Item(root + "/../../../bin/tool", "NORMAL"), Item(root + "/bin/out", "NORMAL"),
                     Item(root + "/bin/gone", "DELETE"), Item(root + "/bin", "PARENT")};
    ASSERT_TRUE(AuditPathResolver::Resolve(container, syscall));
    ASSERT_EQ(3u, syscall.paths.size());
    EXPECT_EQ(root + "/bin/tool", syscall.paths[0].name);
    EXPECT_EQ("CREATE", syscall.paths[0].nametype);
    EXPECT_EQ(root + "/bin/tool", syscall.paths[1].name);
    EXPECT_EQ(root + "/bin", syscall.paths[2].name);

    // Nothing to look at: only directories left, or nothing inside the root.
    syscall.paths = {Item(root + "/bin/gone", "DELETE"), Item(root + "/bin", "PARENT")};
    EXPECT_FALSE(AuditPathResolver::Resolve(container, syscall));
    syscall.paths = {Item(host + "/outside", "NORMAL")};
    EXPECT_FALSE(AuditPathResolver::Resolve(container, syscall));
}

}  // namespace
