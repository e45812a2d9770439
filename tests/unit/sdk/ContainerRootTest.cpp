// Lookups inside a container's root against a real directory tree standing in for one: links
// and ".." planted by the "container" must never lead to a host file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "sdk/ContainerRoot.h"
#include "sdk/FileUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/RootConfinement.h"
#include "support/TempDir.h"

namespace {

/// A host directory with a secret file, and beside it a "container root" with its own /etc.
class ContainerRootTest : public ::testing::Test {
protected:
    void SetUp() override {
        tmp_.Dir("merged/tmp");
        tmp_.Dir("merged/etc");
        tmp_.File("secret", "host secret\n");
        tmp_.File("merged/etc/secret", "container secret\n");
    }

    void Link(const std::string& target, const std::string& inner) {
        ASSERT_EQ(0, ::symlink(target.c_str(), (root + inner).c_str()));
    }

    TestSupport::TempDir tmp_{"tarnwick-root"};
    const std::string host = tmp_.Path();
    const std::string root = host + "/merged";
};

TEST_F(ContainerRootTest, LinksAndDotDotResolveInsideTheRoot) {
    // Absolute links mean the container's root; relative ones cannot climb above it.
    Link(host + "/secret", "/tmp/abs-host");
    Link("/etc/secret", "/tmp/abs");
    Link("../../../../../../secret", "/tmp/climb");
    Link("/etc", "/tmp/etcdir");
    const SDK::ContainerRoot container(root);
    ASSERT_TRUE(container.IsOpen());
    EXPECT_EQ(root + "/etc/secret", container.Resolve("/tmp/abs"));
    EXPECT_EQ(root + "/etc/secret", container.Resolve("/../../../etc/secret"));
    EXPECT_EQ(root + "/etc/secret", container.Resolve("tmp/etcdir/secret"));
    EXPECT_EQ(root + "/tmp/abs", container.Resolve("/tmp/abs", false));
    // Those lead to names the container does not have: nothing, never the host's file.
    EXPECT_EQ("", container.Resolve("/tmp/abs-host"));
    EXPECT_EQ("", container.Resolve("/tmp/climb"));
}

TEST_F(ContainerRootTest, InnerPathOfHostPaths) {
    const SDK::ContainerRoot container(root + "/");
    std::string inner;
    ASSERT_TRUE(container.InnerOf(root + "/etc/secret", inner));
    EXPECT_EQ("/etc/secret", inner);
    ASSERT_TRUE(container.InnerOf(root, inner));
    EXPECT_EQ("/", inner);
    EXPECT_FALSE(container.InnerOf(root + "x/etc", inner));
    EXPECT_FALSE(container.InnerOf(host + "/secret", inner));
    EXPECT_FALSE(SDK::ContainerRoot("relative").IsOpen());
}

// Inside a confinement the helpers the module calls resolve within the root and refuse host
// paths, even one that a host-side realpath produced by following a planted link. Outside
// one, they are the host's.
TEST_F(ContainerRootTest, ConfinementKeepsHelpersInsideTheRoot) {
    Link("/etc", "/tmp/etcdir");
    Link("../etc/secret", "/tmp/rel");
    std::string sha;
    {
        SDK::RootConfinement scope(root);
        EXPECT_EQ(root + "/etc/secret",
                  SDK::PathUtils::GetExistedCanonicalizePath(root + "/tmp/etcdir/secret"));
        EXPECT_EQ("", SDK::PathUtils::GetExistedCanonicalizePath(host + "/secret"));
        EXPECT_EQ(-1, SDK::FileUtils::OpenRegularFileForRead(host + "/secret"));
        EXPECT_FALSE(SDK::FileUtils::GetFileSha256(host + "/secret", sha, -1));
        ASSERT_TRUE(SDK::FileUtils::GetFileSha256(root + "/tmp/etcdir/secret", sha, -1));
        {
            SDK::RootConfinement none("");
            EXPECT_EQ(root, *SDK::RootConfinement::Current());
        }
    }
    EXPECT_EQ(nullptr, SDK::RootConfinement::Current());
    EXPECT_EQ(root + "/etc/secret",
              SDK::PathUtils::GetExistedCanonicalizePath(root + "/./tmp/rel"));
    EXPECT_EQ("", SDK::PathUtils::GetExistedCanonicalizePath(root + "/missing"));
    std::string direct;
    ASSERT_TRUE(SDK::FileUtils::GetFileSha256(root + "/etc/secret", direct, -1));
    EXPECT_EQ(direct, sha);
}

}  // namespace
