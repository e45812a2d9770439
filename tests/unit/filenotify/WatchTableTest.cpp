// The watch table over a real inotify instance, for host paths and for paths below a
// container's root, which mean what the container sees there. The container here is a
// directory recorded without a process, so its paths are looked up in its root filesystem
// alone: links and ".." are confined the same way, and no privilege is needed. A directory on
// the way moved away and made again, or swapped for another by one rename, is followed against
// real containers by the end-to-end suite (tests/e2e/cases_user_files.sh).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
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

void Write(const std::string& path, const std::string& text) {
    ASSERT_TRUE(TestSupport::FileText::Append(path, text)) << path;
}

uint64_t Count(const char* counter) { return Framework::Counters::Instance().Value(counter); }

Expected PathsAndMasks(const Notifications& out) {
    Expected got;
    for (const auto& n : out) got.emplace_back(n.path, n.mask);
    return got;
}

class WatchTableTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(table_.IsOpen()); }

    bool Watch(const std::string& path) { return table_.Add(path, "r", kAll, options_); }
    // Reads what the kernel queued until `done` holds over it or the deadline passed.
    Notifications ReadUntil(const std::function<bool(const Notifications&)>& done) {
        Notifications out;
        const TestSupport::Deadline deadline(std::chrono::seconds(10));
        while (!done(out) && !deadline.Expired()) {
            struct pollfd p = {table_.Fd(), POLLIN, 0};
            if (::poll(&p, 1, 100) > 0) table_.ReadEvents(out);
        }
        return out;
    }
    // The next notifications are `expected`, no fewer and no others.
    void ExpectNext(const Expected& expected) {
        const auto out =
            ReadUntil([&](const Notifications& o) { return o.size() >= expected.size(); });
        EXPECT_EQ(PathsAndMasks(out), expected);
    }

    TestSupport::TempDir tmp_{"tarnwick-watchtable"};
    const std::string dir_ = tmp_.Path();
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
    EXPECT_EQ(table_.PathCount() + table_.KernelWatchCount(), 0u);

    Write(dir_ + "/f", "");
    ASSERT_TRUE(table_.Add(dir_ + "/f", "a", kAll, options_));
    ASSERT_TRUE(table_.Add(dir_ + "/f", "b", kAll, options_));
    ASSERT_TRUE(table_.Add(dir_ + "/missing/deeper", "a", kAll, options_));
    // Every directory from the root down to dir_ (shared by both paths), and the file.
    EXPECT_EQ(table_.KernelWatchCount(), std::count(dir_.begin(), dir_.end(), '/') + 2u);
    EXPECT_FALSE(table_.Remove(dir_ + "/f", "nobody"));
    EXPECT_FALSE(table_.Remove(dir_ + "/unknown", "a"));
    EXPECT_TRUE(table_.Remove(dir_ + "/f", "a"));
    EXPECT_EQ(table_.PathCount(), 2u);
    EXPECT_TRUE(table_.Remove(dir_ + "/f", "b"));
    EXPECT_TRUE(table_.Remove(dir_ + "/missing/deeper", "a"));
    EXPECT_EQ(table_.PathCount() + table_.KernelWatchCount(), 0u);
}

TEST_F(WatchTableTest, OverflowIsCountedAndPathsAreResynchronised) {
    const std::string appeared = dir_ + "/appeared";
    const std::string vanished = dir_ + "/vanished";
    Write(vanished, "");
    options_.extParm = 42;
    ASSERT_TRUE(Watch(appeared));
    ASSERT_TRUE(Watch(vanished));
    // The changes happen while the queue is (as far as the table knows) lost.
    Write(appeared, "");
    ASSERT_EQ(::unlink(vanished.c_str()), 0);
    const uint64_t before = Count("filenotify.inotify.overflow");
    Notifications out;
    InotifyRecord overflow;
    overflow.mask = IN_Q_OVERFLOW;
    table_.HandleRecords({overflow}, out);
    EXPECT_EQ(Count("filenotify.inotify.overflow"), before + 1);
    EXPECT_EQ(PathsAndMasks(out), (Expected{{appeared, IN_CREATE}, {vanished, IN_DELETE}}));
    EXPECT_EQ(out.at(0).extParm, 42u);
    // The re-armed watch sees later changes of the file that appeared.
    table_.ReadEvents(out);  // the lost events, still queued
    ASSERT_EQ(::chmod(appeared.c_str(), 0644), 0);
    ExpectNext({{appeared, IN_ATTRIB}});
}

// A deletion's records may be split over two reads and come in either order; it is reported
// once, as IN_DELETE, either way. The records are the kernel's own, replayed.
TEST_F(WatchTableTest, ADeletionIsReportedOnceWhateverTheReadsAndOrderOfItsRecords) {
    for (const bool split : {true, false}) {
        // A directory each: the first file's watch must not see the second one made.
        const std::string file = tmp_.Dir(split ? "split" : "reordered") + "/f";
        SCOPED_TRACE(file);
        Write(file, "");
        ASSERT_TRUE(Watch(file));
        ASSERT_EQ(::unlink(file.c_str()), 0);
        std::vector<InotifyRecord> records;
        const auto parentDelete = [&] {
            return std::any_of(records.begin(), records.end(),
                               [](const InotifyRecord& r) { return (r.mask & IN_DELETE) != 0; });
        };
        const TestSupport::Deadline deadline(std::chrono::seconds(10));
        while (!parentDelete() && !deadline.Expired()) {
            struct pollfd p = {table_.Fd(), POLLIN, 0};
            char buffer[4096];
            const ssize_t n =
                ::poll(&p, 1, 100) > 0 ? ::read(table_.Fd(), buffer, sizeof(buffer)) : 0;
            for (auto& r : Engine::DecodeInotifyEvents(buffer, n > 0 ? n : 0)) records.push_back(r);
        }
        ASSERT_TRUE(parentDelete());
        Notifications out;
        if (split) {  // in kernel order, one read each
            for (const auto& r : records) table_.HandleRecords({r}, out);
        } else {  // the directory's record first
            std::stable_partition(records.begin(), records.end(),
                                  [](const InotifyRecord& r) { return (r.mask & IN_DELETE) != 0; });
            table_.HandleRecords(records, out);
        }
        Expected expected = {{file, IN_DELETE}};
        // The link-count change cannot be told apart in a read of its own.
        if (split) expected.insert(expected.begin(), {file, IN_ATTRIB});
        EXPECT_EQ(PathsAndMasks(out), expected);
    }
}

class ContainerPathTest : public WatchTableTest {
protected:
    void SetUp() override {
        WatchTableTest::SetUp();
        tmp_.Dir("merged/etc");
        Framework::ContainerRegistry::Instance().Started(root_, kId, 0);
    }
    void TearDown() override { Framework::ContainerRegistry::Instance().Clear(); }

    const std::string root_ = dir_ + "/merged";
};

// Links and ".." that climb out of the root lead to the container's own file: the host's file
// at the same path is not watched.
TEST_F(ContainerPathTest, LinksAndDotDotOutOfTheRootLeadToTheContainersOwnFile) {
    const std::string host = dir_ + "/passwd";                      // outside the root
    const std::string own = tmp_.Dir("merged" + dir_) + "/passwd";  // its path in the container
    Write(host, "root:x:0:0::/:/bin/sh\n");
    Write(own, "root:x:0:0::/:/bin/sh\n");
    const std::vector<std::pair<std::string, std::string>> links = {
        {"absolute", host},
        {"climbing", "../../../../../../../.." + host},
        {"loop", "loop"},  // a path that leads nowhere: watched, and not refused
    };
    for (const auto& link : links) {
        ASSERT_EQ(::symlink(link.second.c_str(), (root_ + "/etc/" + link.first).c_str()), 0);
    }
    Expected changed;
    for (const auto& path : {root_ + "/etc/absolute", root_ + "/etc/climbing", root_ + "/etc/loop",
                             root_ + "/etc/../../../../.." + host}) {
        ASSERT_TRUE(Watch(path));
        if (path != root_ + "/etc/loop") changed.emplace_back(path, IN_ATTRIB);
    }
    EXPECT_EQ(table_.RefusedCount(), 0u);
    Write(host, "e2e:x:5:5::/:/bin/false\n");  // an IN_MODIFY first, were the host's file watched
    ASSERT_EQ(::chmod(own.c_str(), 0600), 0);
    Expected got = PathsAndMasks(
        ReadUntil([&](const Notifications& o) { return o.size() >= changed.size(); }));
    std::sort(got.begin(), got.end());
    std::sort(changed.begin(), changed.end());
    EXPECT_EQ(got, changed);
}

// A file replaced by a link is watched at the link's target in the container; a target moved
// away and made again is found by the periodic link check, as nothing watches its directory.
TEST_F(ContainerPathTest, ALinkIsFollowedToItsTargetInTheContainer) {
    const std::string conf = root_ + "/etc/conf";
    const std::string target = tmp_.Dir("merged/data") + "/conf";
    Write(conf, "a\n");
    Write(target, "b\n");
    ASSERT_TRUE(Watch(conf));
    ASSERT_EQ(::unlink(conf.c_str()), 0);
    ASSERT_EQ(::symlink("/data/conf", conf.c_str()), 0);
    ExpectNext({{conf, IN_DELETE}, {conf, IN_CREATE}});
    Write(target, "c\n");
    ExpectNext({{conf, IN_MODIFY}});
    ASSERT_EQ(::rename(target.c_str(), (root_ + "/data/old").c_str()), 0);
    ExpectNext({{conf, IN_MOVE_SELF}});

    Write(target, "d\n");
    Notifications out;
    uint64_t now = 1;
    table_.Tick(now, out);
    table_.Tick(now += WatchTable::kLinkCheckMs, out);
    EXPECT_EQ(PathsAndMasks(out), (Expected{{conf, IN_CREATE}}));
    out.clear();
    table_.Tick(now += WatchTable::kLinkCheckMs, out);  // unchanged: nothing
    EXPECT_TRUE(out.empty());
    Write(target, "e\n");
    ExpectNext({{conf, IN_MODIFY}});
}

TEST_F(ContainerPathTest, ChildNamesWithControlCharactersAreDroppedAndCounted) {
    const std::string dir = tmp_.Dir("merged/etc/conf.d");
    ASSERT_TRUE(Watch(dir));
    const uint64_t before = Count("filenotify.event.bad_name");
    // Names that would forge a log line or clear a terminal where the event is printed.
    Write(dir + "/x\n2026-01-01 00:00:00.000 [Error] forged", "");
    Write(dir + "/x\x1b[2Jcleared", "");
    Write(dir + "/plain.conf", "");
    ExpectNext({{dir + "/plain.conf", IN_CREATE}});
    EXPECT_EQ(Count("filenotify.event.bad_name"), before + 2) << "one create for each name";
}

// The kernel's refusal is provoked with the descriptor limit (every lookup needs one), which
// needs no privilege, unlike the watch limit. A container root that could not be opened for
// want of descriptors once left its paths looking absent rather than refused, never retried.
TEST_F(ContainerPathTest, ARefusedPathIsAGapUntilARetrySucceedsAndCoverageIsPerContainer) {
    const std::string file = root_ + "/etc/passwd";
    Write(file, "root:x:0:0::/:/bin/sh\n");
    const uint64_t opened = Count("filenotify.coverage.gap_opened");
    const uint64_t closed = Count("filenotify.coverage.gap_closed");
    const uint64_t retried = Count("filenotify.watch.retried");
    constexpr uint64_t kFirst = WatchTable::kRetryFirstMs;
    const uint64_t refusedAt = clock_.NowMs();
    Notifications ticked;
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
    table_.Tick(refusedAt + kFirst - 1, ticked);  // not due yet
    const uint64_t early = Count("filenotify.watch.retried");
    table_.Tick(refusedAt + kFirst, ticked);  // due: retried once, refused again
    const uint64_t due = Count("filenotify.watch.retried");
    table_.Tick(refusedAt + 3 * kFirst - 1, ticked);  // the next retry waits twice as long
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    ASSERT_TRUE(added);  // accepted: a refusal is the kernel's, for now
    EXPECT_EQ(table_.RefusedCount(), 2u);
    EXPECT_EQ(Count("filenotify.coverage.gap_opened"), opened + 1);  // once per container
    EXPECT_EQ(early, retried);
    EXPECT_EQ(due, retried + 1);  // stops at the first refusal
    EXPECT_EQ(Count("filenotify.watch.retried"), due);
    EXPECT_NE(table_.CoverageText().find("c0ffee012345 0/2"), std::string::npos)
        << table_.CoverageText();
    EXPECT_EQ(table_.CoverageNumbers().refused, 2u);

    table_.Tick(refusedAt + 3 * kFirst, ticked);
    EXPECT_EQ(table_.RefusedCount(), 0u);
    EXPECT_EQ(Count("filenotify.coverage.gap_closed"), closed + 1);
    // Nothing is reported for the retry itself; the file is watched from now on.
    EXPECT_TRUE(ticked.empty());
    Write(file, "e2e:x:5:5::/:/bin/false\n");
    ExpectNext({{file, IN_MODIFY}});

    // Another container and the host are counted apart, for the status line and for metrics.
    tmp_.Dir("other/etc");
    Framework::ContainerRegistry::Instance().Started(dir_ + "/other", "feedbeef00112233", 0);
    ASSERT_TRUE(Watch(dir_ + "/other/etc/a"));
    ASSERT_TRUE(Watch(dir_ + "/host-file"));
    const std::string text = table_.CoverageText();
    EXPECT_EQ(text.rfind("4/4 paths watched", 0), 0u) << text;
    for (const char* part : {"c0ffee012345 2/2", "feedbeef0011 1/1", "host 1/1"}) {
        EXPECT_NE(text.find(part), std::string::npos) << text;
    }
    const auto numbers = table_.CoverageNumbers();
    EXPECT_EQ(numbers.requested, 4u);
    EXPECT_EQ(numbers.refused, 0u);
    EXPECT_EQ(numbers.containers, (std::set<std::string>{kId, "feedbeef00112233"}));
    ASSERT_TRUE(table_.Remove(file, "r"));
    ASSERT_TRUE(table_.Remove(root_ + "//etc/group", "r"));
    EXPECT_EQ(table_.CoverageText().find("c0ffee012345"), std::string::npos);
}

}  // namespace
