// The scratch directory must leave nothing behind, whatever a test did to its tree, and must
// never reach outside it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

using TestSupport::FileText;
using TestSupport::TempDir;

bool Exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

TEST(TempDir, RemovesNestedTreesAndDirectoriesLockedByTheirOwner) {
    std::string path;
    {
        TempDir dir("tarnwick-tempdir-test");
        path = dir.Path();
        ASSERT_TRUE(Exists(path));
        dir.File(dir.Dir("a/b/c") + "/../f", "x");
        dir.File("a/b/c/deep", "y");
        const std::string locked = dir.Dir("locked/inner");
        dir.File("locked/inner/file", "z");
        ASSERT_EQ(0, ::chmod(locked.c_str(), 0500));            // no write: entries stay
        ASSERT_EQ(0, ::chmod((dir / "locked").c_str(), 0000));  // no search either
        ASSERT_EQ(0, ::chmod((dir / "a/b").c_str(), 0555));
    }
    EXPECT_FALSE(Exists(path));
}

TEST(TempDir, LinksAreRemovedNotFollowed) {
    TempDir outside("tarnwick-tempdir-outside");
    const std::string kept = outside.File("kept", "host file");
    const std::string keptDir = outside.Dir("keptdir");
    outside.File("keptdir/inner", "host file");
    ASSERT_EQ(0, ::chmod(keptDir.c_str(), 0500));
    {
        TempDir dir("tarnwick-tempdir-test");
        ASSERT_EQ(0, ::symlink(kept.c_str(), (dir / "file-link").c_str()));
        ASSERT_EQ(0, ::symlink(keptDir.c_str(), (dir / "dir-link").c_str()));
    }
    EXPECT_EQ(FileText::Read(kept), "host file");
    EXPECT_EQ(FileText::Read(keptDir + "/inner"), "host file");
    struct stat st {};
    ASSERT_EQ(0, ::stat(keptDir.c_str(), &st));
    EXPECT_EQ(st.st_mode & 0777, 0500u) << "the link's target changed mode";
}

TEST(TempDir, RemoveTreeTakesAPathThatIsGoneOrAFile) {
    TempDir dir("tarnwick-tempdir-test");
    EXPECT_TRUE(TempDir::RemoveTree(dir / "never-made"));
    const std::string file = dir.File("plain", "x");
    EXPECT_TRUE(TempDir::RemoveTree(file));
    EXPECT_FALSE(Exists(file));
}

}  // namespace
