// The helpers every other test leans on: waits end at their deadline, not later and not before
// the condition had its last look; the scratch directory leaves nothing behind, whatever a test
// did to its tree, and never reaches outside it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>

#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using TestSupport::Deadline;
using TestSupport::FileText;
using TestSupport::ManualClock;
using TestSupport::TempDir;
using TestSupport::WaitUntil;

bool Exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

TEST(Deadline, ExpiresAtTheDeadlineExactlyOnAClockThatNeverGoesBack) {
    ManualClock clock(500);
    EXPECT_EQ(clock.AdvanceTo(400), 500u) << "went backwards";
    const Deadline deadline(250ms, clock);
    clock.Advance(249);
    EXPECT_FALSE(deadline.Expired());
    EXPECT_EQ(deadline.Remaining(), 1ms);
    EXPECT_EQ(clock.AdvanceTo(750), 750u);
    EXPECT_TRUE(deadline.Expired());
    clock.Advance(1000);
    EXPECT_EQ(deadline.Remaining(), 0ms) << "no wrap-around past the deadline";
    EXPECT_TRUE(Deadline(-5ms, clock).Expired());
}

TEST(WaitUntil, TrueAsSoonAsItHoldsFalseAtTheDeadlineAfterALastLook) {
    int looks = 0;
    EXPECT_TRUE(WaitUntil([&] { return ++looks == 3; }, 10s, 1ms));
    EXPECT_EQ(looks, 3);
    EXPECT_TRUE(WaitUntil([] { return true; }, 0ms)) << "a zero timeout still looks once";
    std::atomic<int> never{0};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(WaitUntil([&] { return ++never < 0; }, 100ms, 10ms));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 100ms);
    EXPECT_LT(took, 2s) << "waited far past the deadline";
    EXPECT_GE(never.load(), 2) << "the condition had no last look at the deadline";
}

TEST(TempDir, RemovesLockedTreesAndLinksButNotWhatTheLinksName) {
    TempDir outside("tarnwick-tempdir-outside");
    const std::string kept = outside.File("kept", "host file");
    const std::string keptDir = outside.Dir("keptdir");
    outside.File("keptdir/inner", "host file");
    ASSERT_EQ(0, ::chmod(keptDir.c_str(), 0500));
    std::string path;
    {
        TempDir dir("tarnwick-tempdir-test");
        path = dir.Path();
        dir.Dir("a/b/c");
        dir.File("a/b/c/deep", "y");
        const std::string locked = dir.Dir("locked/inner");
        dir.File("locked/inner/file", "z");
        ASSERT_EQ(0, ::symlink(kept.c_str(), (dir / "file-link").c_str()));
        ASSERT_EQ(0, ::symlink(keptDir.c_str(), (dir / "locked/dir-link").c_str()));
        ASSERT_EQ(0, ::chmod(locked.c_str(), 0500));            // no write: entries stay
        ASSERT_EQ(0, ::chmod((dir / "locked").c_str(), 0000));  // no search either
        ASSERT_EQ(0, ::chmod((dir / "a/b").c_str(), 0555));
        EXPECT_TRUE(TempDir::RemoveTree(dir / "never-made"));
        EXPECT_TRUE(TempDir::RemoveTree(dir.File("plain", "x")));
        EXPECT_FALSE(Exists(dir / "plain"));
    }
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(FileText::Read(kept), "host file");
    EXPECT_EQ(FileText::Read(keptDir + "/inner"), "host file");
    struct stat st {};
    ASSERT_EQ(0, ::stat(keptDir.c_str(), &st));
    EXPECT_EQ(st.st_mode & 0777, 0500u) << "the link's target changed mode";
}

}  // namespace
