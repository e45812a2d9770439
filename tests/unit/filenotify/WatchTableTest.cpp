#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "filenotify/WatchTable.h"
#include "framework/Counters.h"
#include "support/Deadline.h"
#include "support/TempDir.h"

namespace {

using Engine::InotifyRecord;
using Engine::WatchNotification;
using Engine::WatchTable;

constexpr uint32_t kAll =
    IN_CREATE | IN_MODIFY | IN_DELETE | IN_MOVE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

void Touch(const std::string& path) {
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << path;
    ::close(fd);
}

class WatchTableTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(table_.IsOpen()); }

    // Reads what the kernel queued until `count` notifications came or the deadline passed.
    std::vector<WatchNotification> ReadUntil(std::size_t count) {
        std::vector<WatchNotification> out;
        const TestSupport::Deadline deadline(std::chrono::seconds(10));
        while (out.size() < count && !deadline.Expired()) {
            struct pollfd p = {table_.Fd(), POLLIN, 0};
            if (::poll(&p, 1, 100) > 0) table_.ReadEvents(out);
        }
        return out;
    }

    TestSupport::TempDir tmp_{"tarnwick-watchtable"};
    const std::string dir_ = tmp_.Path();
    WatchTable table_;
    Engine::_FileNotifyOpt options_;
};

TEST_F(WatchTableTest, RequestsWithoutAbsolutePathRequesterOrEventsAreRefused) {
    EXPECT_FALSE(table_.Add("relative/path", "r", kAll, options_));
    EXPECT_FALSE(table_.Add("", "r", kAll, options_));
    EXPECT_FALSE(table_.Add(dir_ + "/f", "", kAll, options_));
    EXPECT_FALSE(table_.Add(dir_ + "/f", "r", IN_ISDIR, options_));
    EXPECT_EQ(table_.PathCount(), 0u);
    EXPECT_EQ(table_.KernelWatchCount(), 0u);
}

TEST_F(WatchTableTest, RemovingTheLastRequesterReleasesEveryKernelWatch) {
    Touch(dir_ + "/f");
    ASSERT_TRUE(table_.Add(dir_ + "/f", "a", kAll, options_));
    ASSERT_TRUE(table_.Add(dir_ + "/f", "b", kAll, options_));
    ASSERT_TRUE(table_.Add(dir_ + "/missing/deeper", "a", kAll, options_));
    // Every directory from the root down to dir_ (shared by both paths), and the file.
    const std::size_t directories = std::count(dir_.begin(), dir_.end(), '/') + 1;
    EXPECT_EQ(table_.KernelWatchCount(), directories + 1);
    EXPECT_FALSE(table_.Remove(dir_ + "/f", "nobody"));
    EXPECT_FALSE(table_.Remove(dir_ + "/unknown", "a"));
    EXPECT_TRUE(table_.Remove(dir_ + "/f", "a"));
    EXPECT_EQ(table_.PathCount(), 2u);
    EXPECT_TRUE(table_.Remove(dir_ + "/f", "b"));
    EXPECT_TRUE(table_.Remove(dir_ + "/missing/deeper", "a"));
    EXPECT_EQ(table_.PathCount(), 0u);
    EXPECT_EQ(table_.KernelWatchCount(), 0u);
}

// A deletion's records may be split over two reads and come in either order; it is
// reported once, as IN_DELETE, either way. The records are the kernel's own, replayed.
class WatchTableDeletionTest : public WatchTableTest {
protected:
    std::vector<InotifyRecord> DeleteAndCollect(const std::string& file) {
        Touch(file);
        EXPECT_TRUE(table_.Add(file, "r", kAll, options_));
        EXPECT_EQ(::unlink(file.c_str()), 0);
        std::vector<InotifyRecord> records;
        const TestSupport::Deadline deadline(std::chrono::seconds(10));
        while (!HasParentDelete(records) && !deadline.Expired()) {
            struct pollfd p = {table_.Fd(), POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0) continue;
            char buffer[4096];
            const ssize_t n = ::read(table_.Fd(), buffer, sizeof(buffer));
            if (n <= 0) continue;
            for (auto& r : Engine::DecodeInotifyEvents(buffer, static_cast<std::size_t>(n))) {
                records.push_back(r);
            }
        }
        return records;
    }
    static bool HasParentDelete(const std::vector<InotifyRecord>& records) {
        for (const auto& r : records) {
            if ((r.mask & IN_DELETE) != 0) return true;
        }
        return false;
    }
    // Feeds the records one read at a time, in the given order.
    std::vector<WatchNotification> Replay(const std::vector<InotifyRecord>& records) {
        std::vector<WatchNotification> out;
        for (const auto& r : records) table_.HandleRecords({r}, out);
        return out;
    }
};

TEST_F(WatchTableDeletionTest, SplitReadsInKernelOrderReportOneDelete) {
    const std::string file = dir_ + "/f";
    const auto records = DeleteAndCollect(file);
    ASSERT_TRUE(HasParentDelete(records));
    const auto out = Replay(records);
    ASSERT_EQ(out.size(), 2u);  // the link-count change cannot be told apart in its own read
    EXPECT_EQ(out[0].mask, static_cast<uint32_t>(IN_ATTRIB));
    EXPECT_EQ(out[1].mask, static_cast<uint32_t>(IN_DELETE));
    EXPECT_EQ(out[1].path, file);
}

TEST_F(WatchTableDeletionTest, DirectoryFirstThenFileReportsOneDelete) {
    const std::string file = dir_ + "/f";
    auto records = DeleteAndCollect(file);
    std::stable_partition(records.begin(), records.end(),
                          [](const InotifyRecord& r) { return (r.mask & IN_DELETE) != 0; });
    std::vector<WatchNotification> out;
    table_.HandleRecords(records, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].mask, static_cast<uint32_t>(IN_DELETE));
    // Re-armed: the next file at the path is reported as created.
    Touch(file);
    const auto created = ReadUntil(1);
    ASSERT_EQ(created.size(), 1u);
    EXPECT_EQ(created[0].mask, static_cast<uint32_t>(IN_CREATE));
}

class WatchTableOverflowTest : public WatchTableTest {};

TEST_F(WatchTableOverflowTest, OverflowIsCountedAndPathsAreResynchronised) {
    const std::string appeared = dir_ + "/appeared";
    const std::string vanished = dir_ + "/vanished";
    Touch(vanished);
    options_.extParm = 42;
    ASSERT_TRUE(table_.Add(appeared, "r", kAll, options_));
    ASSERT_TRUE(table_.Add(vanished, "r", kAll, options_));
    // The changes happen while the queue is (as far as the table knows) lost.
    Touch(appeared);
    ASSERT_EQ(::unlink(vanished.c_str()), 0);
    const uint64_t before = Framework::Counters::Instance().Value("filenotify.inotify.overflow");

    std::vector<WatchNotification> out;
    InotifyRecord overflow;
    overflow.wd = -1;
    overflow.mask = IN_Q_OVERFLOW;
    table_.HandleRecords({overflow}, out);

    EXPECT_EQ(Framework::Counters::Instance().Value("filenotify.inotify.overflow"), before + 1);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].path, appeared);
    EXPECT_EQ(out[0].mask, static_cast<uint32_t>(IN_CREATE));
    EXPECT_EQ(out[0].extParm, 42u);
    EXPECT_EQ(out[1].path, vanished);
    EXPECT_EQ(out[1].mask, static_cast<uint32_t>(IN_DELETE));
    // The re-armed watch sees later changes of the file that appeared.
    std::vector<WatchNotification> stale;
    table_.ReadEvents(stale);
    ASSERT_EQ(::chmod(appeared.c_str(), 0644), 0);
    const auto later = ReadUntil(1);
    ASSERT_EQ(later.size(), 1u);
    EXPECT_EQ(later[0].mask, static_cast<uint32_t>(IN_ATTRIB));
}

}  // namespace
