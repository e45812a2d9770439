// The settler driven by a clock and a file system of the test's own.
#include <gtest/gtest.h>

#include <map>

#include "process_collect/EventSettler.h"

using Engine::AuditEventMessage;
using Engine::EventSettler;

namespace {

// A file system of our own: the test changes sizes and inodes, the settler sees them.
class SettlerTest : public ::testing::Test {
protected:
    static constexpr uint64_t kSettle = 300;
    static constexpr uint64_t kMaxDelay = 1000;

    EventSettler::FileState Stat(const std::string& path) {
        const auto it = files.find(path);
        const uint64_t ino =
            inodes.count(path) != 0 ? inodes[path] : std::hash<std::string>()(path);
        return {it != files.end(), it != files.end() ? it->second : 0, 0, 0, ino};
    }

    /// A write that opened its file (open, openat, creat); `opened` false: rename, link...
    EventSettler::EventPtr Write(const std::string& path, const std::string& key = "cid:k",
                                 const std::string& pid = "1", bool opened = true) {
        EventSettler::EventPtr event(new AuditEventMessage());
        event->key = key;
        event->syscall->write = true;
        event->syscall->opened = opened;
        event->syscall->pid = pid;
        event->syscall->paths.push_back({path, {}, {}, {}});
        return event;
    }

    std::vector<EventSettler::EventPtr> Poll(uint64_t now) {
        std::vector<EventSettler::EventPtr> out;
        settler.Poll(now, out);
        return out;
    }

    // The first path of each event, in order.
    static std::vector<std::string> Paths(const std::vector<EventSettler::EventPtr>& events) {
        std::vector<std::string> paths;
        for (const auto& event : events) paths.push_back(event->syscall->paths[0].name);
        return paths;
    }

    std::map<std::string, int64_t> files;
    std::map<std::string, uint64_t> inodes;  // when two names must be one file
    EventSettler settler{kSettle, kMaxDelay, 3, [this](const std::string& p) { return Stat(p); }};
    std::vector<EventSettler::EventPtr> early;
};

// Renamed away or deleted before its writer was done: nothing stale reaches the consumer.
TEST_F(SettlerTest, GrowingFileIsHeldUntilItStopsChangingAndAVanishedOneYieldsNothing) {
    files["/f"] = 0;
    files["/quiet"] = 5;
    files["/gone"] = 1;
    settler.Hold(Write("/f"), 0, early);
    settler.Hold(Write("/quiet"), 0, early);
    settler.Hold(Write("/gone"), 0, early);
    files.erase("/gone");
    EXPECT_TRUE(Poll(100).empty());
    EXPECT_EQ(1u, settler.Vanished());
    files["/f"] = 4096;
    EXPECT_TRUE(Poll(250).empty());  // /f changed at 250: settles at 550
    EXPECT_EQ(std::vector<std::string>{"/quiet"}, Paths(Poll(300)));
    EXPECT_TRUE(Poll(549).empty());
    EXPECT_EQ(std::vector<std::string>{"/f"}, Paths(Poll(550)));
    EXPECT_EQ(0u, settler.Held());
}

TEST_F(SettlerTest, FileThatNeverSettlesIsReleasedAtTheMaximumDelay) {
    settler.Hold(Write("/f"), 0, early);
    for (uint64_t now = 100; now < kMaxDelay; now += 100) {
        files["/f"] = static_cast<int64_t>(now);
        ASSERT_TRUE(Poll(now).empty()) << now;
    }
    files["/f"] = 1;
    EXPECT_EQ(1u, Poll(kMaxDelay).size());
}

TEST_F(SettlerTest, WriterClosingReleasesAtOnceWhicheverTheKernelReportsFirst) {
    files["/a"] = 0;
    settler.Hold(Write("/a"), 0, early);
    files["/a"] = 4096;
    files["/b"] = 10;
    std::vector<EventSettler::EventPtr> out;
    settler.Closed(Stat("/a"), 5, out);
    EXPECT_EQ(std::vector<std::string>{"/a"}, Paths(out));
    // The close came before the open's report: released as it arrives...
    settler.Closed(Stat("/b"), 6, out);
    settler.Hold(Write("/b"), 7, early);
    ASSERT_EQ(1u, early.size());
    // ...unless the file was written again since, or the close is long forgotten.
    files["/b"] = 11;
    settler.Hold(Write("/b"), 8, early);
    files["/c"] = 1;
    settler.Closed(Stat("/c"), 10, out);
    settler.Hold(Write("/c"), 5000, early);
    EXPECT_EQ(1u, early.size());
    EXPECT_EQ(2u, settler.Held());
}

// dpkg and editors write NAME.tmp, then rename it: the rename is reported under the new name
// at once, or, while the writer still has the file open, waits for it under that name.
TEST_F(SettlerTest, RenameIsReleasedAtOnceOrTakesOverAnOpenHold) {
    files["/bin/t"] = 3;
    settler.Hold(Write("/bin/t", "cid:k", "1", false), 0, early);
    ASSERT_EQ(1u, early.size());
    early.clear();

    files["/bin/u.new"] = 0;
    inodes["/bin/u.new"] = inodes["/bin/u"] = 42;
    settler.Hold(Write("/bin/u.new"), 0, early);
    files.erase("/bin/u.new");
    files["/bin/u"] = 100;
    settler.Hold(Write("/bin/u", "cid:k", "2", false), 10, early);
    EXPECT_TRUE(early.empty());
    std::vector<EventSettler::EventPtr> out;
    settler.Closed(Stat("/bin/u"), 20, out);
    EXPECT_EQ(std::vector<std::string>{"/bin/u"}, Paths(out));
    EXPECT_EQ(0u, settler.Vanished());
}

TEST_F(SettlerTest, RepeatedWritesOfOnePathAreMergedAndKeepTheFirstDeadline) {
    files["/f"] = 1;
    settler.Hold(Write("/f", "cid:k", "10"), 0, early);
    settler.Hold(Write("/f", "cid:k", "11"), 200, early);
    settler.Hold(Write("/f", "cid:other", "12"), 200, early);  // another key: its own event
    EXPECT_TRUE(Poll(400).empty());  // the merge counts as a change at 200
    const auto out = Poll(500);
    ASSERT_EQ(2u, out.size());
    const bool kFirst = out[0]->key == "cid:k";
    EXPECT_EQ("11", out[kFirst ? 0 : 1]->syscall->pid);  // the latest writer of the merged two
    EXPECT_EQ("12", out[kFirst ? 1 : 0]->syscall->pid);
}

TEST_F(SettlerTest, HoldingIsBoundedTheOldestLeavesEarlyAndPathlessEventsPassStraight) {
    settler.Hold(EventSettler::EventPtr(new AuditEventMessage()), 0, early);
    EXPECT_EQ(1u, early.size());
    early.clear();
    for (int i = 0; i < 3; ++i) settler.Hold(Write("/f" + std::to_string(i)), i, early);
    EXPECT_TRUE(early.empty());
    settler.Hold(Write("/f3"), 10, early);
    EXPECT_EQ(std::vector<std::string>{"/f0"}, Paths(early));
    EXPECT_EQ(1u, settler.Overflows());
    std::vector<EventSettler::EventPtr> rest;
    settler.ReleaseAll(rest);
    EXPECT_EQ(3u, rest.size());
    EXPECT_EQ(0u, settler.Held());
}

}  // namespace
