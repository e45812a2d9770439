// The watch table over a real inotify instance, for host paths and for paths below a
// container's root, which mean what the container sees there. The container here is a
// directory recorded without a process, so its paths are looked up in its root filesystem
// alone: links and ".." are confined the same way, and no privilege is needed. A directory on
// the way moved away and made again, or swapped for another by one rename, and links out of the
// root planted in a container or baked into its image, are followed against real containers by
// the end-to-end suite (tests/e2e/cases_user_files.sh); plain operations and the release of
// every watch when a container exits by tests/e2e/cases.sh.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "filenotify/WatchTable.h"
#include "framework/ContainerRegistry.h"
#include "framework/Counters.h"
#include "support/Deadline.h"
#include "support/FileText.h"
#include "support/ManualClock.h"
#include "support/TempDir.h"

namespace {

using Engine::InotifyRecord;
using Engine::WatchNotification;
using Engine::WatchTable;
using Notifications = std::vector<WatchNotification>;
using Expected = std::vector<std::pair<std::string, uint32_t>>;  // path, mask

constexpr uint32_t kAll =
    IN_CREATE | IN_MODIFY | IN_DELETE | IN_MOVE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
const char* const kId = "c0ffee0123456789abcdef";

void Write(const std::string& path, const std::string& text = "x\n") {
    ASSERT_TRUE(TestSupport::FileText::Append(path, text)) << path;
}

uint64_t Count(const char* counter) { return Framework::Counters::Instance().Value(counter); }

Expected PathsAndMasks(const Notifications& out) {
    Expected got;
    for (const auto& n : out) got.emplace_back(n.path, n.mask);
    return got;
}

// A table, and a container whose root is root_ (with an etc/ directory).
class WatchTableTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(table_.IsOpen());
        tmp_.Dir("merged/etc");
        Framework::ContainerRegistry::Instance().Started(root_, kId, 0);
    }
    void TearDown() override { Framework::ContainerRegistry::Instance().Clear(); }

    bool Watch(const std::string& path) { return table_.Add(path, "r", kAll, options_); }
    // Reads what the kernel queued until there are as many notifications as expected, or the
    // deadline passed: they must be `expected`, no fewer and no others.
    void ExpectNext(const Expected& expected) {
        Notifications out;
        const TestSupport::Deadline deadline(std::chrono::seconds(10));
        while (out.size() < expected.size() && !deadline.Expired()) {
            struct pollfd p = {table_.Fd(), POLLIN, 0};
            if (::poll(&p, 1, 100) > 0) table_.ReadEvents(out);
        }
        EXPECT_EQ(PathsAndMasks(out), expected);
    }

    TestSupport::TempDir tmp_{"tarnwick-watchtable"};
    const std::string dir_ = tmp_.Path();
    const std::string root_ = dir_ + "/merged";
    // Moved by hand, so that retries and their backoff happen exactly when a test says.
    TestSupport::ManualClock clock_;
    WatchTable table_{clock_};
    Engine::_FileNotifyOpt options_;
};

TEST_F(WatchTableTest, BadRequestsAreRefusedAndTheLastRequesterReleasesEveryKernelWatch) {
    EXPECT_FALSE(table_.Add("relative/path", "r", kAll, options_));
    EXPECT_FALSE(table_.Add("", "r", kAll, options_));
    EXPECT_FALSE(table_.Add(dir_ + "/f", "", kAll, options_));
    EXPECT_FALSE(table_.Add(dir_ + "/f", "r", IN_ISDIR, options_));
    // Two requesters of one path are the module's test (tests/integration/filenotify).
    ASSERT_TRUE(Watch(dir_ + "/f"));
    EXPECT_FALSE(table_.Remove(dir_ + "/f", "nobody"));
    EXPECT_FALSE(table_.Remove(dir_ + "/unknown", "r"));
    EXPECT_TRUE(table_.Remove(dir_ + "/f", "r"));
    EXPECT_EQ(table_.PathCount() + table_.KernelWatchCount(), 0u);
}

TEST_F(WatchTableTest, OverflowIsCountedAndPathsAreResynchronised) {
    const std::string appeared = dir_ + "/appeared";
    const std::string vanished = dir_ + "/vanished";
    Write(vanished, "");
    ASSERT_TRUE(Watch(appeared) && Watch(vanished));
    // The changes happen while the queue is (as far as the table knows) lost.
    Write(appeared, "");
    ASSERT_EQ(::unlink(vanished.c_str()), 0);
    const uint64_t before = Count("filenotify.inotify.overflow");
    Notifications out;
    table_.HandleRecords({InotifyRecord{-1, IN_Q_OVERFLOW, 0, ""}}, out);
    EXPECT_EQ(Count("filenotify.inotify.overflow"), before + 1);
    EXPECT_EQ(PathsAndMasks(out), (Expected{{appeared, IN_CREATE}, {vanished, IN_DELETE}}));
    // The re-armed watch sees later changes of the file that appeared.
    table_.ReadEvents(out);  // the lost events, still queued
    ASSERT_EQ(::chmod(appeared.c_str(), 0644), 0);
    ExpectNext({{appeared, IN_ATTRIB}});
}

// A deletion's records may be split over two reads and come in either order; it is reported
// once, as IN_DELETE, either way. The records are the kernel's own, replayed.
TEST_F(WatchTableTest, ADeletionIsReportedOnceWhateverTheReadsAndOrderOfItsRecords) {
    const auto parentDelete = [](const InotifyRecord& r) { return (r.mask & IN_DELETE) != 0; };
    for (const bool split : {true, false}) {
        // A directory each: the first file's watch must not see the second one made.
        const std::string file = tmp_.Dir(split ? "split" : "reordered") + "/f";
        SCOPED_TRACE(file);
        Write(file);
        ASSERT_TRUE(Watch(file));
        ASSERT_EQ(::unlink(file.c_str()), 0);
        std::vector<InotifyRecord> records;
        const TestSupport::Deadline deadline(std::chrono::seconds(10));
        while (std::none_of(records.begin(), records.end(), parentDelete) && !deadline.Expired()) {
            struct pollfd p = {table_.Fd(), POLLIN, 0};
            char buffer[4096];
            const ssize_t n = ::poll(&p, 1, 100) > 0 ? ::read(p.fd, buffer, sizeof(buffer)) : 0;
            for (auto& r : Engine::DecodeInotifyEvents(buffer, n > 0 ? n : 0)) records.push_back(r);
        }
        Notifications out;
        if (split) {  // in kernel order, one read each
            for (const auto& r : records) table_.HandleRecords({r}, out);
        } else {  // the directory's record first
            std::stable_partition(records.begin(), records.end(), parentDelete);
            table_.HandleRecords(records, out);
        }
        // The link-count change cannot be told apart in a read of its own.
        EXPECT_EQ(PathsAndMasks(out), (split ? Expected{{file, IN_ATTRIB}, {file, IN_DELETE}}
                                             : Expected{{file, IN_DELETE}}));
    }
}

// A watched path whose ".." climbs out of the root leads to the container's own file: the
// host's file at the same path is not watched. A link that leads nowhere is watched, not
// refused. Names of created children that would forge a log line or clear a terminal where the
// event is printed are dropped and counted.
TEST_F(WatchTableTest, HostilePathsAndNamesStayInTheContainer) {
    const std::string host = dir_ + "/passwd";                      // outside the root
    const std::string own = tmp_.Dir("merged" + dir_) + "/passwd";  // its path in the container
    const std::string climbing = root_ + "/etc/../../../../.." + host;
    Write(host);
    Write(own);
    ASSERT_EQ(::symlink("loop", (root_ + "/etc/loop").c_str()), 0);
    ASSERT_TRUE(Watch(root_ + "/etc/loop") && Watch(climbing) && Watch(root_ + "/etc"));
    EXPECT_EQ(table_.RefusedCount(), 0u);
    Write(host);  // an IN_MODIFY first, were the host's file watched
    ASSERT_EQ(::chmod(own.c_str(), 0600), 0);
    ExpectNext({{climbing, IN_ATTRIB}});

    const uint64_t before = Count("filenotify.event.bad_name");
    Write(root_ + "/etc/x\n2026-01-01 00:00:00.000 [Error] forged", "");
    Write(root_ + "/etc/x\x1b[2Jcleared", "");
    Write(root_ + "/etc/plain.conf", "");
    ExpectNext({{root_ + "/etc/plain.conf", IN_CREATE}});
    EXPECT_EQ(Count("filenotify.event.bad_name"), before + 2) << "one create for each name";
}

// A link's target moved away and made again is found by the periodic link check, as nothing
// watches the target's directory. A file replaced by a link is followed to the link's target in
// a real container by cases_user_files.sh (link_planted_in_container).
TEST_F(WatchTableTest, ALinksTargetMadeAgainIsFoundByTheLinkCheck) {
    const std::string conf = root_ + "/etc/conf";
    const std::string target = tmp_.Dir("merged/data") + "/conf";
    Write(target);
    ASSERT_EQ(::symlink("/data/conf", conf.c_str()), 0);
    ASSERT_TRUE(Watch(conf));
    ASSERT_EQ(::rename(target.c_str(), (root_ + "/data/old").c_str()), 0);
    ExpectNext({{conf, IN_MOVE_SELF}});
    Write(target);
    Notifications out;
    table_.Tick(1, out);
    table_.Tick(1 + WatchTable::kLinkCheckMs, out);
    EXPECT_EQ(PathsAndMasks(out), (Expected{{conf, IN_CREATE}}));
    table_.Tick(1 + 2 * WatchTable::kLinkCheckMs, out);  // unchanged: nothing more
    EXPECT_EQ(out.size(), 1u);
    Write(target);
    ExpectNext({{conf, IN_MODIFY}});
}

// The kernel's refusal is provoked with the descriptor limit (every lookup needs one), which
// needs no privilege, unlike the watch limit: cases_user_files.sh (watch_limit_recovers) takes
// a container to the kernel's watch limit and back, and asserts the gap's log lines, counter and
// status line. A container root that could not be opened for want of descriptors once left its
// paths looking absent rather than refused, never retried.
TEST_F(WatchTableTest, ARefusedPathIsAGapUntilARetrySucceedsAndCoverageIsPerContainer) {
    const std::string file = root_ + "/etc/passwd";
    Write(file);
    const uint64_t retried = Count("filenotify.watch.retried");
    constexpr uint64_t kFirst = WatchTable::kRetryFirstMs;
    const uint64_t refusedAt = clock_.NowMs();
    Notifications ticked;
    std::vector<uint64_t> retries;  // counted after each tick
    // No descriptor left to open: every one below the lowest free number is in use.
    struct rlimit saved {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(lowest, 0);
    ::close(lowest);
    struct rlimit low = saved;
    low.rlim_cur = static_cast<rlim_t>(lowest);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    // The second path is the same container's, with a doubled slash.
    const bool added = Watch(file) && Watch(root_ + "//etc/group");
    // Not due yet; due: retried once (stopping at the first refusal), refused again; the next
    // retry waits twice as long.
    for (uint64_t at : {kFirst - 1, kFirst, 3 * kFirst - 1}) {
        table_.Tick(refusedAt + at, ticked);
        retries.push_back(Count("filenotify.watch.retried") - retried);
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    ASSERT_TRUE(added);  // accepted: a refusal is the kernel's, for now
    EXPECT_EQ(retries, (std::vector<uint64_t>{0, 1, 1}));
    EXPECT_NE(table_.CoverageText().find("c0ffee012345 0/2"), std::string::npos)
        << table_.CoverageText();

    table_.Tick(refusedAt + 3 * kFirst, ticked);
    EXPECT_EQ(table_.RefusedCount(), 0u);
    // Nothing is reported for the retry itself; the file is watched from now on.
    EXPECT_TRUE(ticked.empty());
    Write(file);
    ExpectNext({{file, IN_MODIFY}});

    // Another container and the host are counted apart, for the status line and for metrics.
    Framework::ContainerRegistry::Instance().Started(tmp_.Dir("other"), "feedbeef00112233", 0);
    ASSERT_TRUE(Watch(dir_ + "/other/a") && Watch(dir_ + "/host-file"));
    const std::string text = table_.CoverageText();
    for (const char* part :
         {"4/4 paths watched", "c0ffee012345 2/2", "feedbeef0011 1/1", "host 1/1"}) {
        EXPECT_NE(text.find(part), std::string::npos) << text;
    }
    EXPECT_EQ(table_.CoverageNumbers().containers,
              (std::set<std::string>{kId, "feedbeef00112233"}));
    ASSERT_TRUE(table_.Remove(file, "r") && table_.Remove(root_ + "//etc/group", "r"));
    EXPECT_EQ(table_.CoverageText().find("c0ffee012345"), std::string::npos);
}

}  // namespace
