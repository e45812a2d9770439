// Watched paths below a container's root mean what the container sees there. The container
// here is a directory recorded without a process, so its paths are looked up in its root
// filesystem alone: links and ".." are confined the same way, and no privilege is needed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "filenotify/WatchTable.h"
#include "framework/ContainerRegistry.h"
#include "framework/Counters.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"

namespace {

using Engine::WatchNotification;
using Engine::WatchTable;

constexpr uint32_t kAll =
    IN_CREATE | IN_MODIFY | IN_DELETE | IN_MOVE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
const char* const kId = "c0ffee0123456789abcdef";

void Write(const std::string& path, const std::string& text) {
    ASSERT_TRUE(TestSupport::FileText::Append(path, text)) << path;
}

void MakeDirs(const std::string& path) {
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    ASSERT_TRUE(std::filesystem::is_directory(path)) << path;
}

// "ino sdev" pairs of every watch the inotify descriptor holds, as the kernel lists them.
std::set<std::string> WatchedInodes(int fd) {
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(fd));
    std::set<std::string> inodes;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("inotify", 0) != 0) continue;
        const auto ino = line.find("ino:");
        const auto sdev = line.find("sdev:");
        const auto end = line.find(' ', sdev);
        inodes.insert(line.substr(ino, end - ino));
    }
    return inodes;
}

std::string InodeKey(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    char text[64];
    // fdinfo prints the kernel's device number: major in the bits above 20.
    std::snprintf(text, sizeof(text), "ino:%lx sdev:%lx", static_cast<unsigned long>(st.st_ino),
                  static_cast<unsigned long>((major(st.st_dev) << 20) | minor(st.st_dev)));
    return text;
}

class ContainerPathTest : public ::testing::Test {
protected:
    void SetUp() override {
        MakeDirs(root_ + "/etc");
        Framework::ContainerRegistry::Instance().Started(root_, kId, 0);
        ASSERT_TRUE(table_.IsOpen());
    }
    void TearDown() override { Framework::ContainerRegistry::Instance().Clear(); }

    std::vector<WatchNotification> ReadUntil(std::size_t count, int seconds = 10) {
        std::vector<WatchNotification> out;
        const TestSupport::Deadline deadline{std::chrono::seconds(seconds)};
        while (out.size() < count && !deadline.Expired()) {
            struct pollfd p = {table_.Fd(), POLLIN, 0};
            if (::poll(&p, 1, 100) > 0) table_.ReadEvents(out);
        }
        return out;
    }
    // Everything the kernel has queued by now; the caller made a later change that proves
    // earlier events were read.
    // (until one for `path` carries `mask`, when given).
    std::vector<WatchNotification> ReadUntilPath(const std::string& path, uint32_t mask = 0) {
        std::vector<WatchNotification> out;
        const TestSupport::Deadline deadline(std::chrono::seconds(10));
        auto seen = [&] {
            for (const auto& n : out) {
                if (n.path == path && (mask == 0 || n.mask == mask)) return true;
            }
            return false;
        };
        while (!seen() && !deadline.Expired()) {
            struct pollfd p = {table_.Fd(), POLLIN, 0};
            if (::poll(&p, 1, 100) > 0) table_.ReadEvents(out);
        }
        return out;
    }

    TestSupport::TempDir tmp_{"tarnwick-containerpath"};
    const std::string dir_ = tmp_.Path();
    const std::string root_ = dir_ + "/merged";
    // Moved by hand, so that retries and their backoff happen exactly when a test says.
    TestSupport::ManualClock clock_;
    WatchTable table_{clock_};
    Engine::_FileNotifyOpt options_;
};

TEST_F(ContainerPathTest, LinksOutOfTheRootLeadToTheContainersOwnFile) {
    Write(root_ + "/etc/passwd", "root:x:0:0::/:/bin/sh\n");
    ASSERT_EQ(::symlink("/etc/passwd", (root_ + "/etc/absolute").c_str()), 0);
    ASSERT_EQ(::symlink("../../../../../../../../etc/passwd", (root_ + "/etc/climbing").c_str()),
              0);
    ASSERT_EQ(::symlink("loop", (root_ + "/etc/loop").c_str()), 0);
    ASSERT_TRUE(table_.Add(root_ + "/etc/absolute", "r", kAll, options_));
    ASSERT_TRUE(table_.Add(root_ + "/etc/climbing", "r", kAll, options_));
    ASSERT_TRUE(table_.Add(root_ + "/etc/loop", "r", kAll, options_));

    const auto watched = WatchedInodes(table_.Fd());
    EXPECT_EQ(watched.count(InodeKey("/etc/passwd")), 0u) << "the host's file is watched";
    EXPECT_EQ(watched.count(InodeKey(root_ + "/etc/passwd")), 1u);
    EXPECT_EQ(table_.RefusedCount(), 0u);  // a link loop is a path that leads nowhere

    Write(root_ + "/etc/passwd", "e2e:x:5:5::/:/bin/false\n");
    const auto out = ReadUntil(2);
    ASSERT_EQ(out.size(), 2u);
    std::set<std::string> paths;
    for (const auto& n : out) {
        EXPECT_EQ(n.mask, static_cast<uint32_t>(IN_MODIFY));
        paths.insert(n.path);
    }
    EXPECT_EQ(paths, (std::set<std::string>{root_ + "/etc/absolute", root_ + "/etc/climbing"}));
}

TEST_F(ContainerPathTest, AFileReplacedByALinkIsWatchedAtTheLinksTargetInTheContainer) {
    const std::string conf = root_ + "/etc/conf";
    Write(conf, "a\n");
    MakeDirs(root_ + "/data");
    Write(root_ + "/data/conf", "b\n");
    ASSERT_TRUE(table_.Add(conf, "r", kAll, options_));
    ASSERT_EQ(::unlink(conf.c_str()), 0);
    ASSERT_EQ(::symlink("/data/conf", conf.c_str()), 0);
    const auto replaced = ReadUntil(2);
    ASSERT_EQ(replaced.size(), 2u);
    EXPECT_EQ(replaced[0].mask, static_cast<uint32_t>(IN_DELETE));
    EXPECT_EQ(replaced[1].mask, static_cast<uint32_t>(IN_CREATE));

    Write(root_ + "/data/conf", "c\n");
    const auto written = ReadUntil(1);
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].path, conf);
    EXPECT_EQ(written[0].mask, static_cast<uint32_t>(IN_MODIFY));
}

TEST_F(ContainerPathTest, ALinksTargetMovedAwayAndMadeAgainIsFollowedByTheLinkCheck) {
    const std::string conf = root_ + "/etc/conf";
    MakeDirs(root_ + "/data");
    Write(root_ + "/data/conf", "a\n");
    ASSERT_EQ(::symlink("/data/conf", conf.c_str()), 0);
    ASSERT_TRUE(table_.Add(conf, "r", kAll, options_));
    ASSERT_EQ(::rename((root_ + "/data/conf").c_str(), (root_ + "/data/old").c_str()), 0);
    const auto moved = ReadUntil(1);
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0].mask, static_cast<uint32_t>(IN_MOVE_SELF));

    // Nothing watches /data: only the periodic look-up finds the new target.
    Write(root_ + "/data/conf", "b\n");
    std::vector<WatchNotification> out;
    uint64_t now = 1;
    table_.Tick(now, out);
    table_.Tick(now += WatchTable::kLinkCheckMs, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].path, conf);
    EXPECT_EQ(out[0].mask, static_cast<uint32_t>(IN_CREATE));
    out.clear();
    table_.Tick(now += WatchTable::kLinkCheckMs, out);  // unchanged: nothing
    EXPECT_TRUE(out.empty());
    Write(root_ + "/data/conf", "c\n");
    const auto written = ReadUntil(1);
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].mask, static_cast<uint32_t>(IN_MODIFY));
}

TEST_F(ContainerPathTest, ADirectoryAboveTheFileMovedAwayAndRemadeIsFollowed) {
    const std::string file = root_ + "/srv/app/conf/app.conf";
    MakeDirs(root_ + "/srv/app/conf");
    Write(file, "one\n");
    ASSERT_TRUE(table_.Add(file, "r", kAll, options_));

    ASSERT_EQ(::rename((root_ + "/srv/app").c_str(), (root_ + "/srv/app.old").c_str()), 0);
    const auto moved = ReadUntil(1);
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0].path, file);
    EXPECT_EQ(moved[0].mask, static_cast<uint32_t>(IN_MOVED_FROM));

    // The moved-away file is no longer the path's; a probe proves its write was read.
    ASSERT_TRUE(table_.Add(root_ + "/srv/probe", "r", kAll, options_));
    Write(root_ + "/srv/app.old/conf/app.conf", "old\n");
    Write(root_ + "/srv/probe", "p\n");
    for (const auto& n : ReadUntilPath(root_ + "/srv/probe")) EXPECT_NE(n.path, file);

    MakeDirs(root_ + "/srv/app/conf");
    Write(file, "two\n");
    auto remade = ReadUntilPath(file);
    ASSERT_FALSE(remade.empty());
    EXPECT_EQ(remade.back().mask, static_cast<uint32_t>(IN_CREATE));
    Write(file, "three\n");
    const auto written = ReadUntil(1);
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].mask, static_cast<uint32_t>(IN_MODIFY));
}

TEST_F(ContainerPathTest, ATreeSwappedInByOneRenameIsFollowed) {
    const std::string file = root_ + "/srv/app/app.conf";
    MakeDirs(root_ + "/srv/app");
    MakeDirs(root_ + "/srv/new");
    Write(file, "old\n");
    Write(root_ + "/srv/new/app.conf", "new\n");
    ASSERT_TRUE(table_.Add(file, "r", kAll, options_));
    ASSERT_EQ(::rename((root_ + "/srv/app").c_str(), (root_ + "/srv/gone").c_str()), 0);
    ASSERT_EQ(::rename((root_ + "/srv/new").c_str(), (root_ + "/srv/app").c_str()), 0);
    // Read after both renames, it is one replacement; read in between, a move away and back.
    auto swapped = ReadUntilPath(file, IN_MOVED_TO);
    ASSERT_FALSE(swapped.empty());
    EXPECT_LE(swapped.size(), 2u);
    EXPECT_EQ(swapped.back().mask, static_cast<uint32_t>(IN_MOVED_TO));
    Write(file, "more\n");
    const auto written = ReadUntil(1);
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].mask, static_cast<uint32_t>(IN_MODIFY));
}

TEST_F(ContainerPathTest, ChildNamesWithControlCharactersAreDroppedAndCounted) {
    const std::string dir = root_ + "/etc/conf.d";
    MakeDirs(dir);
    ASSERT_TRUE(table_.Add(dir, "r", kAll, options_));
    const uint64_t before = Framework::Counters::Instance().Value("filenotify.event.bad_name");
    Write(dir + "/x\n2026-01-01 00:00:00.000 [Error] forged", "");
    Write(dir + "/x\x1b[2Jcleared", "");
    Write(dir + "/plain.conf", "");
    const auto out = ReadUntilPath(dir + "/plain.conf");
    for (const auto& n : out) EXPECT_EQ(n.path, dir + "/plain.conf");
    EXPECT_EQ(Framework::Counters::Instance().Value("filenotify.event.bad_name"), before + 2)
        << "one create for each of the two names";
}

TEST_F(ContainerPathTest, CoverageIsCountedPerContainerAndForTheHost) {
    Framework::ContainerRegistry::Instance().Started(dir_ + "/other", "feedbeef00112233", 0);
    MakeDirs(dir_ + "/other/etc");
    ASSERT_TRUE(table_.Add(root_ + "/etc/a", "r", kAll, options_));
    ASSERT_TRUE(table_.Add(root_ + "//etc/b", "r", kAll, options_));
    ASSERT_TRUE(table_.Add(dir_ + "/other/etc/a", "r", kAll, options_));
    ASSERT_TRUE(table_.Add(dir_ + "/host-file", "r", kAll, options_));
    const std::string text = table_.CoverageText();
    EXPECT_EQ(text.rfind("4/4 paths watched", 0), 0u) << text;
    EXPECT_NE(text.find("c0ffee012345 2/2"), std::string::npos) << text;
    EXPECT_NE(text.find("feedbeef0011 1/1"), std::string::npos) << text;
    EXPECT_NE(text.find("host 1/1"), std::string::npos) << text;
    // The same numbers for metrics: the host is no container.
    auto numbers = table_.CoverageNumbers();
    EXPECT_EQ(numbers.requested, 4u);
    EXPECT_EQ(numbers.refused, 0u);
    EXPECT_EQ(numbers.containers.size(), 2u);
    EXPECT_EQ(numbers.containers.count("feedbeef00112233"), 1u);
    ASSERT_TRUE(table_.Remove(root_ + "/etc/a", "r"));
    ASSERT_TRUE(table_.Remove(root_ + "//etc/b", "r"));
    EXPECT_EQ(table_.CoverageText().find("c0ffee012345"), std::string::npos);
}

// The kernel's refusal is provoked with the descriptor limit (every lookup needs one), which
// needs no privilege, unlike the watch limit.
class RefusedWatchTest : public ContainerPathTest {
protected:
    void TearDown() override {
        if (lowered_) ::setrlimit(RLIMIT_NOFILE, &saved_);
        ContainerPathTest::TearDown();
    }
    // No descriptor left to open: every one below the lowest free number is in use.
    void RunOutOfDescriptors() {
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved_), 0);
        const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ASSERT_GE(lowest, 0);
        ::close(lowest);
        struct rlimit low = saved_;
        low.rlim_cur = static_cast<rlim_t>(lowest);
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
        lowered_ = true;
    }
    void Restore() {
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved_), 0);
        lowered_ = false;
    }
    static uint64_t Count(const char* name) { return Framework::Counters::Instance().Value(name); }

    struct rlimit saved_ {};
    bool lowered_ = false;
    std::vector<WatchNotification> ticked_;
};

TEST_F(RefusedWatchTest, ARefusedPathIsAGapUntilARetrySucceedsWithBackoffInBetween) {
    const std::string file = root_ + "/etc/passwd";
    Write(file, "root:x:0:0::/:/bin/sh\n");
    const uint64_t opened = Count("filenotify.coverage.gap_opened");
    const uint64_t closed = Count("filenotify.coverage.gap_closed");
    const uint64_t retried = Count("filenotify.watch.retried");
    constexpr uint64_t kFirst = WatchTable::kRetryFirstMs;
    const uint64_t refusedAt = clock_.NowMs();
    RunOutOfDescriptors();
    const bool added = table_.Add(file, "r", kAll, options_);
    const bool added2 = table_.Add(root_ + "/etc/group", "r", kAll, options_);
    table_.Tick(refusedAt + kFirst - 1, ticked_);  // not due yet
    const uint64_t early = Count("filenotify.watch.retried");
    table_.Tick(refusedAt + kFirst, ticked_);  // due: retried once, refused again
    const uint64_t due = Count("filenotify.watch.retried");
    table_.Tick(refusedAt + 3 * kFirst - 1, ticked_);  // the next retry waits twice as long
    Restore();
    ASSERT_TRUE(added);  // accepted: a refusal is the kernel's, for now
    ASSERT_TRUE(added2);
    EXPECT_EQ(table_.RefusedCount(), 2u);
    EXPECT_EQ(Count("filenotify.coverage.gap_opened"), opened + 1);  // once per container
    EXPECT_EQ(early, retried);
    EXPECT_EQ(due, retried + 1);  // stops at the first refusal
    EXPECT_EQ(Count("filenotify.watch.retried"), due);
    EXPECT_NE(table_.CoverageText().find("c0ffee012345 0/2"), std::string::npos)
        << table_.CoverageText();
    EXPECT_EQ(table_.CoverageNumbers().refused, 2u);

    table_.Tick(refusedAt + 3 * kFirst, ticked_);
    EXPECT_EQ(table_.RefusedCount(), 0u);
    EXPECT_EQ(Count("filenotify.coverage.gap_closed"), closed + 1);
    EXPECT_NE(table_.CoverageText().find("c0ffee012345 2/2"), std::string::npos);
    EXPECT_EQ(table_.CoverageNumbers().refused, 0u);
    EXPECT_EQ(table_.CoverageNumbers().requested, 2u);
    // Nothing is reported for the retry itself; the file is watched from now on.
    Write(file, "e2e:x:5:5::/:/bin/false\n");
    const auto out = ReadUntil(1);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].path, file);
    EXPECT_EQ(out[0].mask, static_cast<uint32_t>(IN_MODIFY));
}

}  // namespace
